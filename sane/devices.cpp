#include "devices.h"

#include "debug.h"
#include "virtual_scanner.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#ifndef TAMRIX_SANE_CONFIG_DIR
#define TAMRIX_SANE_CONFIG_DIR "/etc/sane.d"
#endif

namespace tamrix_sane
{

namespace
{

const char *const kModelNames[] = {"", "KS-610", "KS-620", "KS-630", "KS-640", "KS-650", "KS-660", "KT-700"};
const char *const kInterfaceNames[] = {"", "scsi", "rs232c", "gpib"};

std::string Lower(std::string s)
{
    for (char &c : s)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

} // namespace

std::vector<std::string> ConfigDirectories()
{
    std::vector<std::string> dirs;
    const char *env = std::getenv("SANE_CONFIG_DIR");
    if (!env || !*env)
        return {TAMRIX_SANE_CONFIG_DIR};
    std::string list = env;
    std::stringstream in(list);
    for (std::string dir; std::getline(in, dir, ':');)
        if (!dir.empty())
            dirs.push_back(dir);
    if (list.back() == ':')
        dirs.push_back(TAMRIX_SANE_CONFIG_DIR);
    return dirs;
}

bool ParseDeviceLine(const std::string &text, DeviceEntry *entry, std::string *error)
{
    std::string line = text.substr(0, text.find('#'));
    std::stringstream words(line);
    std::string spec, word;
    words >> spec;
    bool isVirtual = false;
    while (words >> word) {
        if (Lower(word) != "virtual") {
            *error = "unknown word \"" + word + "\" (only \"virtual\" may follow the scanner)";
            return false;
        }
        isVirtual = true;
    }
    mcicmd::ScannerChoice choice;
    // Refuses an interface the model does not have.
    if (!mcicmd::ParseScannerChoice(spec, &choice, error))
        return false;
    if (choice.model == 7) {
        *error = "the driver's settings cannot select the KT-700";
        return false;
    }
    entry->modelNumber = choice.model;
    entry->model = kModelNames[choice.model];
    entry->interface = choice.interface;
    entry->id = choice.id;
    entry->isVirtual = isVirtual;
    entry->name = Lower(entry->model) + ":" + kInterfaceNames[choice.interface];
    if (choice.interface != 1)
        entry->name += ":" + std::to_string(choice.id);
    return true;
}

std::vector<DeviceEntry> ReadDevices()
{
    for (const std::string &dir : ConfigDirectories()) {
        const std::string path = dir + "/tamrix.conf";
        std::ifstream in(path);
        if (!in)
            continue;
        Debug(2, "reading %s", path.c_str());
        std::vector<DeviceEntry> list;
        int number = 0;
        for (std::string line; std::getline(in, line);) {
            number++;
            if (line.find_first_not_of(" \t\r", 0) == std::string::npos || line[line.find_first_not_of(" \t\r")] == '#')
                continue;
            DeviceEntry entry;
            std::string error;
            if (!ParseDeviceLine(line, &entry, &error)) {
                Debug(1, "%s:%d: %s; line left out", path.c_str(), number, error.c_str());
                continue;
            }
            bool duplicate = false;
            for (const DeviceEntry &e : list)
                duplicate = duplicate || e.name == entry.name;
            if (duplicate) {
                Debug(1, "%s:%d: %s is listed already; line left out", path.c_str(), number, entry.name.c_str());
                continue;
            }
            list.push_back(entry);
        }
        return list;
    }
    DeviceEntry entry;
    std::string error;
    ParseDeviceLine("ks-650:rs232c:1 virtual", &entry, &error);
    Debug(2, "no tamrix.conf: offering one virtual %s", entry.model.c_str());
    return {entry};
}

} // namespace tamrix_sane
