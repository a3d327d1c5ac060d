#include "virtual_scanner.h"

#include "block_scanner.h"
#include "gpib_bus.h"
#include "polled_scanner.h"
#include "scsi_scanner.h"
#include "serial_link.h"

#include <tamrix/platform.h>
#include <windows.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

namespace mcicmd
{

namespace
{

const char *const kModelNames[] = {"", "KS-610", "KS-620", "KS-630", "KS-640", "KS-650", "KS-660", "KT-700"};
const char *const kInterfaceNames[] = {"", "SCSI", "RS-232C", "GP-IB"};

std::string Lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return (char)std::tolower(c); });
    s.erase(std::remove(s.begin(), s.end(), '-'), s.end());
    return s;
}

bool ParseNumber(const std::string &s, unsigned low, unsigned high, unsigned *out)
{
    if (s.empty() || s.size() > 3 || !std::all_of(s.begin(), s.end(), [](unsigned char c) { return std::isdigit(c); }))
        return false;
    unsigned v = (unsigned)std::stoul(s);
    if (v < low || v > high)
        return false;
    *out = v;
    return true;
}

std::u16string Wide(unsigned v)
{
    std::u16string w;
    for (char c : std::to_string(v))
        w.push_back((char16_t)c);
    return w;
}

// The tty that dosdevices/comN of the Windows directory names, if any.
bool LinkedTty(unsigned port, std::string *target)
{
    const std::string link = std::string(PlatGetWindowsDirectory()) + "/dosdevices/com" + std::to_string(port);
    struct stat st {
    };
    if (::lstat(link.c_str(), &st) != 0)
        return false;
    char buffer[4096];
    ssize_t n = S_ISLNK(st.st_mode) ? ::readlink(link.c_str(), buffer, sizeof buffer - 1) : -1;
    *target = n > 0 ? std::string(buffer, static_cast<size_t>(n)) : link;
    return true;
}

} // namespace

bool ParseScannerChoice(const std::string &text, ScannerChoice *choice, std::string *error)
{
    ScannerChoice c;
    std::string parts[3];
    size_t n = 0, start = 0;
    for (;;) {
        size_t colon = text.find(':', start);
        if (n == 3) {
            *error = "too many fields in \"" + text + "\"";
            return false;
        }
        parts[n++] = text.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
        if (colon == std::string::npos)
            break;
        start = colon + 1;
    }

    const std::string model = Lower(parts[0]);
    bool found = ParseNumber(model, 1, 7, &c.model);
    for (unsigned m = 1; m <= 7 && !found; m++)
        if (model == Lower(kModelNames[m])) {
            c.model = m;
            found = true;
        }
    if (!found) {
        *error = "unknown model \"" + parts[0] + "\" (1 to 7, or KS-610 ... KS-660, KT-700)";
        return false;
    }

    c.interface = c.model == 7 ? 3 : 2;
    if (n > 1) {
        const std::string itf = Lower(parts[1]);
        if (itf == "scsi")
            c.interface = 1;
        else if (itf == "rs232c" || itf == "serial" || itf == "com")
            c.interface = 2;
        else if (itf == "gpib")
            c.interface = 3;
        else {
            *error = "unknown interface \"" + parts[1] + "\" (scsi, rs232c or gpib)";
            return false;
        }
    }
    // The settings turn a model's missing interface into another one; say so
    // instead of scanning somewhere else than asked.
    static const char *const kSupported[] = {"",
                                             "rs232c",
                                             "scsi, rs232c, gpib",
                                             "rs232c, gpib",
                                             "scsi, rs232c, gpib",
                                             "scsi, rs232c, gpib",
                                             "scsi, rs232c, gpib",
                                             "gpib"};
    const bool supported = !((c.model == 1 && c.interface != 2) || (c.model == 3 && c.interface == 1) ||
                             (c.model == 7 && c.interface != 3));
    if (!supported) {
        *error = std::string("the ") + kModelNames[c.model] + " has no " + kInterfaceNames[c.interface] +
                 " interface. Each model's interfaces:";
        for (unsigned m = 1; m <= 7; m++)
            *error += std::string("\n  ") + kModelNames[m] + ": " + kSupported[m];
        return false;
    }
    c.id = c.interface == 1 ? 0 : c.interface == 2 ? 1 : 2;
    if (n > 2) {
        bool ok = c.interface == 2   ? ParseNumber(parts[2], 1, 9, &c.id)
                  : c.interface == 3 ? ParseNumber(parts[2], 0, 30, &c.id)
                                     : ParseNumber(parts[2], 0, 0, &c.id);
        if (!ok) {
            *error = "bad ID \"" + parts[2] + "\" (COM port 1 to 9, GP-IB address 0 to 30, SCSI none)";
            return false;
        }
    }
    c.baud = 3;
    *choice = c;
    return true;
}

void StoreScannerChoice(const ScannerChoice &c)
{
    WriteProfileStringW(TEXT("TAMRIX"), TEXT("Scanner"), (LPCWSTR)Wide(c.model).c_str());
    WriteProfileStringW(TEXT("TAMRIX"), TEXT("Interface"), (LPCWSTR)Wide(c.interface).c_str());
    WriteProfileStringW(TEXT("TAMRIX"), TEXT("ID"), (LPCWSTR)Wide(c.id).c_str());
    WriteProfileStringW(TEXT("TAMRIX"), TEXT("Baudrate"), (LPCWSTR)Wide(c.baud).c_str());
}

ScannerChoice ReadScannerChoice()
{
    // The driver repairs what is missing or out of range in the same way.
    ScannerChoice c;
    c.model = GetProfileIntW(TEXT("TAMRIX"), TEXT("Scanner"), 5);
    if (c.model < 1 || c.model > 6)
        c.model = 5;
    c.interface = GetProfileIntW(TEXT("TAMRIX"), TEXT("Interface"), 2);
    if (c.interface < 1 || c.interface > 3)
        c.interface = 2;
    const unsigned def = c.interface == 1 ? 0 : c.interface == 2 ? 1 : 2;
    const unsigned high = c.interface == 1 ? 0 : c.interface == 2 ? 9 : 30;
    c.id = GetProfileIntW(TEXT("TAMRIX"), TEXT("ID"), def);
    if (c.id < (c.interface == 2 ? 1u : 0u) || c.id > high)
        c.id = def;
    c.baud = GetProfileIntW(TEXT("TAMRIX"), TEXT("Baudrate"), 2);
    if ((c.model == 1 || c.model == 3) && c.interface == 1)
        c.interface = 2;
    if (c.model == 1 && c.interface == 3)
        c.interface = 2;
    return c;
}

struct VirtualScanner::Parts {
    std::unique_ptr<sim::SerialLink> serial;
    std::shared_ptr<sim::ScsiScanner> scsi;
    std::shared_ptr<sim::BlockScanner> block;
    int gpibAddress = -1;
};

VirtualScanner::VirtualScanner(const ScannerChoice &c) : parts_(std::make_unique<Parts>())
{
    const std::string model = std::string("Korvane ") + kModelNames[c.model];
    std::string where;
    if (c.interface == 1) {
        parts_->scsi = sim::ScsiScanner::Attach((int)c.model);
        attached_ = parts_->scsi != nullptr;
        where = "\\\\.\\SCNR0";
    } else if (c.interface == 2 && LinkedTty(c.id, &where)) {
        attached_ = linked_ = true;
        description_ = "COM" + std::to_string(c.id) + " is linked to " + where + " (dosdevices/com" +
                       std::to_string(c.id) + "): no virtual scanner, the " + model + " on that line answers";
        return;
    } else if (c.interface == 2) {
        parts_->block = std::make_shared<sim::BlockScanner>((int)c.model, 5);
        parts_->serial = std::make_unique<sim::SerialLink>(c.id, parts_->block);
        attached_ = parts_->serial->attached();
        where = "COM" + std::to_string(c.id);
    } else {
        std::shared_ptr<sim::GpibDevice> device;
        if (c.model == 7)
            device = std::make_shared<sim::PolledScanner>();
        else {
            parts_->block = std::make_shared<sim::BlockScanner>((int)c.model, 5);
            device = sim::MakeGpibByteDevice(parts_->block);
        }
        sim::AttachGpibDevice((int)c.id, device);
        parts_->gpibAddress = (int)c.id;
        attached_ = true;
        where = "GP-IB address " + std::to_string(c.id);
    }
    description_ = "virtual " + model + " on " + kInterfaceNames[c.interface] + " (" + where + ")";
}

bool VirtualScanner::ScanProgress(long *sent, long *total, long *lineBytes) const
{
    if (!parts_->block)
        return false;
    parts_->block->FrameProgress(sent, total);
    *lineBytes = *total > 0 ? static_cast<long>(parts_->block->Line(0).size()) : 0;
    return true;
}

VirtualScanner::~VirtualScanner()
{
    if (parts_->scsi)
        parts_->scsi->Detach();
    if (parts_->gpibAddress >= 0)
        sim::DetachGpibDevice(parts_->gpibAddress);
}

} // namespace mcicmd
