// WINMM for POSIX hosts, internal interface shared by its files (and by the
// tests, which call the command-string parser directly).
//
// The parser reads a command table exactly as a driver stores it: a flat
// sequence of entries, each a NUL-terminated UTF-16LE name, a 32-bit value
// and a 16-bit type, with no alignment. Nothing is normalised when a table
// is loaded; every walk decodes the raw bytes again.
#pragma once

#include <windows.h>
#include <mmddk.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#define MM_EXPORT __attribute__((visibility("default")))

namespace mm
{

// One decoded table entry. `next` is the byte offset of the following entry.
struct Entry {
    std::u16string name;
    DWORD value = 0;
    WORD type = 0;
    size_t offset = 0;
    size_t next = 0;
};

// Decodes the entry at `offset`; false when the bytes run out.
MM_EXPORT bool ReadEntry(const std::vector<BYTE> &table, size_t offset, Entry &out);

// Where the command's return value sits in the block and how it is read.
enum class ReturnKind { None, Integer, String, Rect };

// The result of parsing one command string against a table: the message,
// flag word and parameter block that mciSendCommand would be given.
struct Parsed {
    UINT message = 0;
    DWORD flags = 0;
    ReturnKind returnKind = ReturnKind::None;
    size_t returnOffset = 0; // offset of the return field
    size_t returnSize = 0;   // bytes of the return field (integers)
    size_t blockSize = 0;    // bytes of the block that the table describes
    alignas(16) BYTE block[256] = {};
    // Storage for the strings the block points at.
    std::vector<std::unique_ptr<std::u16string>> strings;
};

// Parses `params` (the part of the command string after the device name)
// for the command `verb` of `table`. `callback` becomes the block's callback
// field; `returnBuffer`/`returnLength` are given to commands that return a
// string. Returns 0 or an MCI error code.
MM_EXPORT DWORD ParseCommand(const std::vector<BYTE> &table, const std::u16string &verb, const std::u16string &params,
                             HWND callback, LPWSTR returnBuffer, UINT returnLength, Parsed &out);

// Formats the return field of a parsed command after the driver answered
// `result` (its high word carries the return-type bits). `module` is the
// driver's module for string resources. Returns 0 or MCIERR_PARAM_OVERFLOW.
MM_EXPORT DWORD FormatReturn(const Parsed &parsed, DWORD result, HMODULE module, LPWSTR buffer, UINT length);

// WINMM's own strings for MCI_RESOURCE_RETURNED values (device types,
// modes, time formats, true/false); null when there is none.
const char16_t *CoreString(UINT id);
// Standard English text of an MCI error code; null when unknown.
const char16_t *ErrorText(UINT code);

// ---- Command tables registered with mciLoadCommandResource ----------------
// A copy of the table's bytes; empty when `id` is not a loaded table.
std::vector<BYTE> TableBytes(UINT id);

// ---- Installable drivers ---------------------------------------------------
// Opens a driver instance of the module file `moduleName` (loading it and
// sending DRV_LOAD/DRV_ENABLE on first use), sending DRV_OPEN with `param1`
// and `param2`. Null on failure; `loadFailed` tells a module that could not
// be loaded (or refused DRV_LOAD) from a refused DRV_OPEN.
HDRVR OpenDriverModule(const std::u16string &moduleName, LPARAM param1, LPARAM param2, bool *loadFailed);

// Test hook: sees every message WINMM sends to a driver, before the driver.
// When it returns true it has answered (`result`) and the driver is not
// called. Null removes it.
using DriverHook = bool (*)(HDRVR driver, UINT msg, LPARAM param1, LPARAM param2, LRESULT &result);
MM_EXPORT void SetDriverHook(DriverHook hook);

// ---- Case-insensitive helpers (ASCII letters only, as MCI keywords are) -----
char16_t Fold(char16_t c);
bool EqualNoCase(const std::u16string &a, const std::u16string &b);

} // namespace mm
