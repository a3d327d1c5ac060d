// The virtual scanner mcicmd puts on the line the driver is configured for,
// so that commands have a scanner to talk to on a machine without one.
#pragma once

#include <memory>
#include <string>

namespace mcicmd
{

struct ScannerChoice {
    unsigned model = 5;     // 1..7
    unsigned interface = 2; // 1 SCSI, 2 RS-232C, 3 GP-IB
    unsigned id = 1;        // COM port or GP-IB address
    unsigned baud = 2;      // 1..3
};

// Parses "MODEL[:INTERFACE[:ID]]": MODEL is 1..7 or a model name such as
// "KS-650"/"ks650"/"KT-700"; INTERFACE is "scsi", "rs232c" (or "serial",
// "com") or "gpib"; ID is the COM port (1..9) or the GP-IB address (0..30).
// False with a message in *error when it does not parse.
bool ParseScannerChoice(const std::string &text, ScannerChoice *choice, std::string *error);

// Writes the choice to win.ini [TAMRIX] of the current Windows directory.
void StoreScannerChoice(const ScannerChoice &choice);

// The choice win.ini [TAMRIX] makes, read as the driver reads it.
ScannerChoice ReadScannerChoice();

// Puts a virtual scanner of that model on that interface until the object
// goes. `description` tells the user what is attached.
class VirtualScanner
{
public:
    explicit VirtualScanner(const ScannerChoice &choice);
    ~VirtualScanner();
    VirtualScanner(const VirtualScanner &) = delete;
    VirtualScanner &operator=(const VirtualScanner &) = delete;
    bool attached() const { return attached_; }
    // The COM port is linked to a host tty (dosdevices/comN in the Windows
    // directory): the scanner is whatever answers on that tty, in real time,
    // and no virtual scanner is attached.
    bool linked() const { return linked_; }
    const std::string &description() const { return description_; }
    // Lines (data frames) of the current or last scan of a block-dialect
    // scanner: sent so far, in all, and the bytes of one line before any
    // compression. False for scanners that cannot tell.
    bool ScanProgress(long *sent, long *total, long *lineBytes) const;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
    bool attached_ = false;
    bool linked_ = false;
    std::string description_;
};

} // namespace mcicmd
