// A scripted device for the transports' tests: bytes offered at given
// ticks of the (virtual) clock, and a record of what it was sent.
#pragma once

#include <windows.h>

#include "byte_device.h"

#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace tamrix_test
{

class ScriptedDevice : public sim::ByteDevice
{
public:
    void Offer(const std::vector<uint8_t> &bytes, DWORD at = 0)
    {
        std::lock_guard<std::mutex> g(mutex_);
        for (uint8_t b : bytes)
            queue_.emplace_back(at, b);
    }
    // Bytes that the scanner makes ready on its own, waking the reader.
    void Announce(const std::vector<uint8_t> &bytes)
    {
        Offer(bytes);
        NotifyReady();
    }
    void Receive(const uint8_t *data, size_t size) override
    {
        std::lock_guard<std::mutex> g(mutex_);
        received_.insert(received_.end(), data, data + size);
    }
    size_t Transmit(uint8_t *out, size_t max) override
    {
        DWORD now = GetTickCount();
        std::lock_guard<std::mutex> g(mutex_);
        size_t n = 0;
        while (n < max && !queue_.empty() && queue_.front().first <= now) {
            out[n++] = queue_.front().second;
            queue_.pop_front();
        }
        return n;
    }
    size_t Pending() const override
    {
        DWORD now = GetTickCount();
        std::lock_guard<std::mutex> g(mutex_);
        size_t n = 0;
        while (n < queue_.size() && queue_[n].first <= now)
            ++n;
        return n;
    }
    void Clear() override
    {
        std::lock_guard<std::mutex> g(mutex_);
        queue_.clear();
        ++clears;
    }
    std::string received() const
    {
        std::lock_guard<std::mutex> g(mutex_);
        return received_;
    }
    std::atomic<int> clears{0};

private:
    mutable std::mutex mutex_;
    std::deque<std::pair<DWORD, uint8_t>> queue_;
    std::string received_;
};

} // namespace tamrix_test
