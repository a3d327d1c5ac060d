// Command strings against the driver's stored command table, through the
// platform WINMM parser that mciSendString uses: the first word picks the
// command, the rest is parsed into the flag word and parameter block, and a
// string answer is formatted back into a short buffer. Parsing never reads
// or writes outside the block or the table, a parsed block stays inside the
// 256 bytes the parser keeps, and an answer never passes the buffer.
#include "fuzz_input.h"

#include "../../platform/src/winmm.h"
#include "resource.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace
{

std::vector<BYTE> StoredTable()
{
    HMODULE module = GetModuleHandleW(nullptr);
    HRSRC info = FindResourceW(module, MAKEINTRESOURCEW(IDR_COMMAND_TABLE), RT_RCDATA);
    const BYTE *bytes = info ? static_cast<const BYTE *>(LockResource(LoadResource(module, info))) : nullptr;
    fuzz::Check(bytes != nullptr, "stored command table");
    return std::vector<BYTE>(bytes, bytes + SizeofResource(module, info));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::vector<BYTE> table = StoredTable();
    fuzz::Input in(data, size);
    const UINT returnLength = 1 + in.Pick(40);
    const DWORD driverResult = static_cast<DWORD>(in.Byte()) << 16 | in.Byte();
    // What the driver would leave in the block's return field.
    const std::vector<uint8_t> returned = in.Take(sizeof(RECT));

    // Bytes are characters (0x80 to 0xFF as Latin-1); the first blank ends the verb.
    std::u16string verb, params;
    bool inVerb = true;
    for (uint8_t b : in.Rest()) {
        if (inVerb && b == ' ') {
            inVerb = false;
            continue;
        }
        (inVerb ? verb : params).push_back(static_cast<char16_t>(b));
    }

    // The buffer is guarded on both sides.
    WCHAR buffer[64];
    for (WCHAR &c : buffer)
        c = 0x5A5A;
    LPWSTR answer = buffer + 8;
    mm::Parsed parsed;
    DWORD rc = mm::ParseCommand(table, verb, params, reinterpret_cast<HWND>(0x1234), answer, returnLength, parsed);
    fuzz::Trace("parse %u: message 0x%x flags 0x%x\n", rc, parsed.message, parsed.flags);
    if (rc != 0)
        return 0;
    fuzz::Check(parsed.blockSize <= sizeof parsed.block, "parameter block larger than its storage");
    fuzz::Check(parsed.message >= 0x0800 && parsed.message < 0x1000, "parsed message out of the MCI range");
    if (parsed.returnKind == mm::ReturnKind::Integer || parsed.returnKind == mm::ReturnKind::Rect) {
        const size_t field = parsed.returnKind == mm::ReturnKind::Rect ? sizeof(RECT) : parsed.returnSize;
        fuzz::Check(parsed.returnOffset + field <= parsed.blockSize, "return field outside the block");
        std::memcpy(parsed.block + parsed.returnOffset, returned.data(), std::min(field, returned.size()));
    }
    rc = mm::FormatReturn(parsed, driverResult, GetModuleHandleW(nullptr), answer, returnLength);
    fuzz::Check(rc == 0 || rc == MCIERR_PARAM_OVERFLOW, "formatting answered an unknown code");
    for (UINT i = 0; i < 8; i++)
        fuzz::Check(buffer[i] == 0x5A5A, "answer written before the buffer");
    for (UINT i = 8 + returnLength; i < 64; i++)
        fuzz::Check(buffer[i] == 0x5A5A, "answer written past the buffer");
    return 0;
}
