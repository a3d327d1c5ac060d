// The cable between a ByteDevice and a virtual COM port.
#include "serial_link.h"

#include <tamrix/serial_port.h>

namespace sim
{
namespace
{

class DevicePeer : public tamrix::SerialPeer
{
public:
    DevicePeer(unsigned port, std::shared_ptr<ByteDevice> device) : device_(std::move(device))
    {
        device_->SetReadyCallback([port] { tamrix::SerialPortReady(port); });
    }
    ~DevicePeer() override { device_->SetReadyCallback(nullptr); }

    void Receive(const uint8_t *data, size_t size) override { device_->Receive(data, size); }
    size_t Transmit(uint8_t *out, size_t max) override { return device_->Transmit(out, max); }
    size_t Pending() const override { return device_->Pending(); }
    void Purged(DWORD flags) override
    {
        if (flags & (PURGE_RXABORT | PURGE_RXCLEAR))
            device_->Clear();
    }

private:
    std::shared_ptr<ByteDevice> device_;
};

} // namespace

bool AttachSerial(unsigned port, std::shared_ptr<ByteDevice> device)
{
    if (!device)
        return false;
    auto peer = std::make_shared<DevicePeer>(port, std::move(device));
    return tamrix::AttachSerialPeer(port, peer);
}

void DetachSerial(unsigned port)
{
    tamrix::DetachSerialPeer(port);
}

SerialLink::SerialLink(unsigned port, std::shared_ptr<ByteDevice> device)
    : port_(port), attached_(AttachSerial(port, std::move(device)))
{
}

SerialLink::~SerialLink()
{
    if (attached_)
        DetachSerial(port_);
}

} // namespace sim
