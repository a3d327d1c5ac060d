// win.ini as the fuzzer writes it: the platform's profile reading (section
// and key lists, values into short buffers, numbers) and the driver's
// settings store. The settings read are always within their ranges; written
// back and read again they come back the same; the write keeps every other
// section with its keys; no answer passes its buffer.
#include "fuzz_input.h"

#include "driver/driver_state.h"

#include <cstdlib>
#include <fstream>
#include <string>

namespace
{

std::string g_dir;

bool UseTemporaryWindowsDirectory()
{
    char name[] = "/tmp/tamrix-fuzz-XXXXXX";
    fuzz::Check(mkdtemp(name) != nullptr, "temporary directory");
    g_dir = name;
    PlatSetWindowsDirectory(g_dir.c_str());
    std::atexit([] {
        std::remove((g_dir + "/win.ini").c_str());
        std::remove(g_dir.c_str());
    });
    return true;
}

// A double-NUL list as strings; the list must end inside the answer.
std::vector<std::u16string> List(const WCHAR *buffer, DWORD length)
{
    std::vector<std::u16string> items;
    for (DWORD i = 0; i < length;) {
        std::u16string item(buffer + i);
        i += static_cast<DWORD>(item.size()) + 1;
        if (!item.empty())
            items.push_back(item);
    }
    return items;
}

bool SameNoCase(const std::u16string &a, const char16_t *b)
{
    std::u16string other(b);
    if (a.size() != other.size())
        return false;
    for (size_t i = 0; i < a.size(); i++) {
        char16_t x = a[i] >= u'a' && a[i] <= u'z' ? a[i] - 32 : a[i];
        char16_t y = other[i] >= u'a' && other[i] <= u'z' ? other[i] - 32 : other[i];
        if (x != y)
            return false;
    }
    return true;
}

// The keys of a section, or the sections when `section` is null.
std::vector<std::u16string> Keys(const std::u16string *section)
{
    static WCHAR buffer[1 << 16];
    DWORD n = GetProfileStringW(section ? reinterpret_cast<LPCWSTR>(section->c_str()) : nullptr, nullptr, TEXT(""),
                                buffer, 1 << 16);
    return List(buffer, n);
}

void CheckSettings(const DeviceSettings &s)
{
    fuzz::Check(s.model >= 1 && s.model <= 6, "model out of range");
    fuzz::Check(s.interfaceType >= IF_SCSI && s.interfaceType <= IF_GPIB, "interface out of range");
    fuzz::Check(s.baudIndex >= 1 && s.baudIndex <= 3, "baud rate out of range");
    // The ID is judged by the interface as stored: where the model moved a
    // stored SCSI (ID 0) or, for model 1, GP-IB (0 to 30) to RS-232C, that
    // ID is passed on as it is.
    if (s.interfaceType == IF_RS232C)
        fuzz::Check((s.id >= 1 && s.id <= 9) || (s.model == 1 && s.id <= 30) || (s.model == 3 && s.id == 0),
                    "COM port out of range");
    else if (s.interfaceType == IF_GPIB)
        fuzz::Check(s.id <= 30, "GP-IB address out of range");
    fuzz::Check(!((s.model == 1 || s.model == 3) && s.interfaceType == IF_SCSI), "SCSI for a model without it");
    fuzz::Check(!(s.model == 1 && s.interfaceType == IF_GPIB), "GP-IB for model 1");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = UseTemporaryWindowsDirectory();
    (void)ready;
    fuzz::Input in(data, size);
    const DWORD small = in.Pick(12);
    {
        std::vector<uint8_t> text = in.Rest();
        std::ofstream out(g_dir + "/win.ini", std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char *>(text.data()), static_cast<std::streamsize>(text.size()));
    }

    // Answers into a short buffer stay inside it and end with NUL.
    WCHAR guarded[32];
    for (LPCWSTR app : {static_cast<LPCWSTR>(nullptr), TEXT("TAMRIX")}) {
        for (LPCWSTR key : {static_cast<LPCWSTR>(nullptr), TEXT("Scanner"), TEXT("ID")}) {
            if (!app && key)
                continue;
            std::fill_n(guarded, 32, 0x5A5A);
            DWORD n = GetProfileStringW(app, key, TEXT("default value"), guarded, small);
            fuzz::Check(small == 0 ? n == 0 : n < small, "answer longer than the buffer");
            for (DWORD i = small; i < 32; i++)
                fuzz::Check(guarded[i] == 0x5A5A, "answer written past the buffer");
            if (small > 0)
                fuzz::Check(guarded[n] == 0, "answer not ended");
        }
    }

    DeviceSettings read{};
    CfgReadSettings(nullptr, &read);
    CheckSettings(read);
    fuzz::Trace("model %u interface %u id %u baud %u\n", read.model, read.interfaceType, read.id, read.baudIndex);

    std::vector<std::pair<std::u16string, std::vector<std::u16string>>> others;
    for (const std::u16string &section : Keys(nullptr))
        if (!SameNoCase(section, u"TAMRIX") && others.size() < 16)
            others.emplace_back(section, Keys(&section));

    fuzz::Check(CfgWriteSettings(nullptr, &read), "settings written");
    DeviceSettings again{};
    CfgReadSettings(nullptr, &again);
    // An ID passed on from another interface (above) is repaired once
    // stored under RS-232C: COM1.
    const bool comOutside = read.interfaceType == IF_RS232C && (read.id < 1 || read.id > 9);
    fuzz::Check(again.model == read.model && again.interfaceType == read.interfaceType &&
                    again.id == (comOutside ? 1u : read.id) && again.baudIndex == read.baudIndex,
                "settings read back differ from those written");
    for (const auto &[section, keys] : others)
        fuzz::Check(Keys(&section) == keys, "writing the settings changed another section");
    return 0;
}
