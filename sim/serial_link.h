// Connects a byte-talking virtual scanner to a virtual COM port: what the
// driver writes to COMn reaches the device, what the device has ready is what
// the driver reads, a purge of the receive side clears the device's queue,
// and bytes the device makes ready late wake the port's readers.
#pragma once

#include "byte_device.h"

#include <memory>

namespace sim
{

// Attaches `device` as COMn; false when n is out of range or taken.
bool AttachSerial(unsigned port, std::shared_ptr<ByteDevice> device);
// Detaches whatever device is on COMn; COMn no longer exists afterwards.
void DetachSerial(unsigned port);

// Attached for the lifetime of the object.
class SerialLink
{
public:
    SerialLink(unsigned port, std::shared_ptr<ByteDevice> device);
    ~SerialLink();
    SerialLink(const SerialLink &) = delete;
    SerialLink &operator=(const SerialLink &) = delete;
    bool attached() const { return attached_; }

private:
    unsigned port_;
    bool attached_;
};

} // namespace sim
