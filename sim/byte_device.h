// A virtual scanner that talks in bytes: the block dialect of models 1 to 6
// speaks this way over RS-232C and over GP-IB alike. Carriers (a virtual COM
// port, the substitute GP-IB board) move the driver's bytes into Receive()
// and hand out what Transmit() gives. Implementations are thread-safe: the
// driver's threads and a test's thread may call them at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace sim
{

class ByteDevice
{
public:
    virtual ~ByteDevice() = default;
    // Bytes the driver sent to the scanner.
    virtual void Receive(const uint8_t *data, size_t size) = 0;
    // Moves up to `max` bytes the scanner has ready for the driver into `out`;
    // returns how many.
    virtual size_t Transmit(uint8_t *out, size_t max) = 0;
    // Bytes ready for the driver now.
    virtual size_t Pending() const = 0;
    // The line was cleared (purge, interface clear, device clear): drop
    // whatever is queued for the driver.
    virtual void Clear() {}
    // The carrier registers this to hear of bytes that became ready without
    // a Receive() (a scanner that answers late). Called without any lock of
    // the device held.
    void SetReadyCallback(std::function<void()> callback) { ready_ = std::move(callback); }

protected:
    void NotifyReady()
    {
        if (ready_)
            ready_();
    }

private:
    std::function<void()> ready_;
};

} // namespace sim
