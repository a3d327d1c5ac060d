// The scanners the backend offers: one line each in tamrix.conf, or one
// virtual KS-650 when there is no such file.
#pragma once

#include <string>
#include <vector>

namespace tamrix_sane
{

struct DeviceEntry {
    std::string name;  // "ks-650:rs232c:1", unique in the list
    std::string model; // "KS-650"
    unsigned modelNumber = 5;
    unsigned interface = 2; // 1 SCSI, 2 RS-232C, 3 GP-IB
    unsigned id = 1;        // COM port or GP-IB address
    bool isVirtual = false; // a built-in virtual scanner on the virtual clock
};

// The folders searched for tamrix.conf: $SANE_CONFIG_DIR (colon-separated; a
// trailing colon adds the default folder), else SANE's own config folder.
std::vector<std::string> ConfigDirectories();

// Reads the first tamrix.conf found in those folders. Lines that do not
// parse are reported on the debug output and left out.
std::vector<DeviceEntry> ReadDevices();

// One line of tamrix.conf: "MODEL[:INTERFACE[:ID]] [virtual]", '#' starts a
// comment. False with a reason when the line names no usable scanner.
bool ParseDeviceLine(const std::string &line, DeviceEntry *entry, std::string *error);

} // namespace tamrix_sane
