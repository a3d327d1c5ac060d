// Resources: the RES file embedded in a module's ELF section ".tamrix_rsrc",
// read from the module's file and parsed on first use.
//
// RES layout: a sequence of records, each DWORD aligned: DataSize,
// HeaderSize, TYPE, NAME (each 0xFFFF + ordinal or a NUL-terminated UTF-16
// string), DWORD alignment, DataVersion, MemoryFlags, LanguageId, Version,
// Characteristics, then DataSize bytes of data. The first record is empty.
#include "core.h"
#include "resources.h"

#include <elf.h>

#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

PLAT_INJECTABLE(FindResourceW);
PLAT_INJECTABLE(LoadResource);
PLAT_INJECTABLE(LoadStringW);

namespace
{

const char kSectionName[] = ".tamrix_rsrc";

// A resource type or name: an ordinal or an upper-cased string.
struct ResId {
    bool isOrdinal = true;
    WORD ordinal = 0;
    std::u16string name;
    bool operator==(const ResId &o) const
    {
        return isOrdinal == o.isOrdinal && (isOrdinal ? ordinal == o.ordinal : name == o.name);
    }
};

struct ResEntry {
    ResId type;
    ResId name;
    WORD language = 0;
    size_t offset = 0; // of the data within the table's bytes
    DWORD size = 0;
};

struct ResTable {
    std::vector<BYTE> bytes;
    std::vector<ResEntry> entries; // never changed after parsing: HRSRC points here
};

std::mutex g_resMutex;
std::map<uintptr_t, std::shared_ptr<const ResTable>> g_tables;

char16_t Upper(char16_t c)
{
    return c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - u'a' + u'A') : c;
}

// Reads the ".tamrix_rsrc" section of an ELF file; empty when absent.
template <class Ehdr, class Shdr> bool ReadSection(std::ifstream &f, std::vector<BYTE> &out)
{
    Ehdr eh;
    f.seekg(0);
    if (!f.read(reinterpret_cast<char *>(&eh), sizeof eh))
        return false;
    if (eh.e_shoff == 0 || eh.e_shentsize != sizeof(Shdr) || eh.e_shstrndx >= eh.e_shnum)
        return false;
    std::vector<Shdr> sections(eh.e_shnum);
    f.seekg(static_cast<std::streamoff>(eh.e_shoff));
    if (!f.read(reinterpret_cast<char *>(sections.data()), static_cast<std::streamsize>(sizeof(Shdr) * eh.e_shnum)))
        return false;
    const Shdr &strtab = sections[eh.e_shstrndx];
    std::vector<char> names(strtab.sh_size + 1, 0);
    f.seekg(static_cast<std::streamoff>(strtab.sh_offset));
    if (!f.read(names.data(), static_cast<std::streamsize>(strtab.sh_size)))
        return false;
    for (const Shdr &sh : sections) {
        if (sh.sh_name >= strtab.sh_size || std::strcmp(&names[sh.sh_name], kSectionName) != 0)
            continue;
        if (sh.sh_type == SHT_NOBITS)
            return false;
        out.resize(sh.sh_size);
        f.seekg(static_cast<std::streamoff>(sh.sh_offset));
        return static_cast<bool>(
            f.read(reinterpret_cast<char *>(out.data()), static_cast<std::streamsize>(sh.sh_size)));
    }
    return false;
}

bool ReadResourceSection(const std::string &path, std::vector<BYTE> &out)
{
    std::ifstream f(path, std::ios::binary);
    unsigned char ident[EI_NIDENT];
    if (!f || !f.read(reinterpret_cast<char *>(ident), EI_NIDENT) || std::memcmp(ident, ELFMAG, SELFMAG) != 0)
        return false;
    if (ident[EI_DATA] != ELFDATA2LSB)
        return false;
    if (ident[EI_CLASS] == ELFCLASS64)
        return ReadSection<Elf64_Ehdr, Elf64_Shdr>(f, out);
    if (ident[EI_CLASS] == ELFCLASS32)
        return ReadSection<Elf32_Ehdr, Elf32_Shdr>(f, out);
    return false;
}

WORD Word(const std::vector<BYTE> &b, size_t at)
{
    return static_cast<WORD>(b[at] | (b[at + 1] << 8));
}

DWORD Dword(const std::vector<BYTE> &b, size_t at)
{
    return static_cast<DWORD>(b[at]) | (static_cast<DWORD>(b[at + 1]) << 8) | (static_cast<DWORD>(b[at + 2]) << 16) |
           (static_cast<DWORD>(b[at + 3]) << 24);
}

// Reads a type or name field at `at` within [at, end); advances `at`.
bool ReadId(const std::vector<BYTE> &b, size_t &at, size_t end, ResId &id)
{
    if (at + 2 > end)
        return false;
    if (Word(b, at) == 0xFFFF) {
        if (at + 4 > end)
            return false;
        id.isOrdinal = true;
        id.ordinal = Word(b, at + 2);
        at += 4;
        return true;
    }
    id.isOrdinal = false;
    id.name.clear();
    for (;;) {
        if (at + 2 > end)
            return false;
        char16_t c = static_cast<char16_t>(Word(b, at));
        at += 2;
        if (c == 0)
            return true;
        id.name.push_back(Upper(c));
    }
}

void ParseRes(ResTable &table)
{
    const std::vector<BYTE> &b = table.bytes;
    size_t at = 0;
    while (at + 8 <= b.size()) {
        DWORD dataSize = Dword(b, at);
        DWORD headerSize = Dword(b, at + 4);
        if (headerSize < 8 || at + headerSize + dataSize > b.size() || at + headerSize < at)
            break;
        size_t headerEnd = at + headerSize;
        ResEntry e;
        size_t p = at + 8;
        if (!ReadId(b, p, headerEnd, e.type) || !ReadId(b, p, headerEnd, e.name))
            break;
        p = (p + 3) & ~static_cast<size_t>(3);
        if (p + 16 <= headerEnd)
            e.language = Word(b, p + 6);
        e.offset = headerEnd;
        e.size = dataSize;
        if (!(e.type.isOrdinal && e.type.ordinal == 0))
            table.entries.push_back(std::move(e));
        at = (headerEnd + dataSize + 3) & ~static_cast<size_t>(3);
    }
}

// The module's table, read on first use; null (with the last error set) when
// the module is unknown or carries no resources.
std::shared_ptr<const ResTable> TableOf(HMODULE module)
{
    HMODULE resolved = module ? module : plat::MainModule();
    uintptr_t key = reinterpret_cast<uintptr_t>(resolved);
    {
        std::lock_guard<std::mutex> guard(g_resMutex);
        auto it = g_tables.find(key);
        if (it != g_tables.end())
            return it->second;
    }
    std::string path = plat::ModulePath(resolved);
    if (path.empty()) {
        plat::SetError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    auto table = std::make_shared<ResTable>();
    if (ReadResourceSection(path, table->bytes))
        ParseRes(*table);
    std::lock_guard<std::mutex> guard(g_resMutex);
    auto inserted = g_tables.emplace(key, std::move(table));
    return inserted.first->second;
}

bool ToResId(LPCWSTR in, ResId &id)
{
    if (IS_INTRESOURCE(in)) {
        id.isOrdinal = true;
        id.ordinal = static_cast<WORD>(reinterpret_cast<ULONG_PTR>(in));
        return true;
    }
    if (in[0] == u'#') {
        // "#96" names ordinal 96.
        unsigned value = 0;
        const WCHAR *p = in + 1;
        if (!*p)
            return false;
        for (; *p; ++p) {
            if (*p < u'0' || *p > u'9' || value > 0xFFFF)
                return false;
            value = value * 10 + static_cast<unsigned>(*p - u'0');
        }
        id.isOrdinal = true;
        id.ordinal = static_cast<WORD>(value);
        return true;
    }
    id.isOrdinal = false;
    id.name.clear();
    for (const WCHAR *p = in; *p; ++p)
        id.name.push_back(Upper(*p));
    return true;
}

const ResEntry *Find(const ResTable &table, LPCWSTR type, LPCWSTR name)
{
    ResId t, n;
    if (!type || !name || !ToResId(type, t) || !ToResId(name, n)) {
        plat::SetError(ERROR_RESOURCE_NAME_NOT_FOUND);
        return nullptr;
    }
    bool typeSeen = false;
    for (const ResEntry &e : table.entries) {
        if (!(e.type == t))
            continue;
        typeSeen = true;
        if (e.name == n)
            return &e;
    }
    plat::SetError(table.entries.empty() ? ERROR_RESOURCE_DATA_NOT_FOUND
                                         : (typeSeen ? ERROR_RESOURCE_NAME_NOT_FOUND : ERROR_RESOURCE_TYPE_NOT_FOUND));
    return nullptr;
}

// The entry behind an HRSRC of `module`; null when it is not one of them.
const ResEntry *EntryOf(const ResTable &table, HRSRC info)
{
    auto *e = reinterpret_cast<const ResEntry *>(info);
    const ResEntry *first = table.entries.data();
    if (!e || table.entries.empty() || e < first || e >= first + table.entries.size())
        return nullptr;
    return e;
}

} // namespace

namespace plat
{

bool FindResourceBytes(HMODULE module, LPCWSTR type, LPCWSTR name, ResourceBytes *out)
{
    auto table = TableOf(module);
    if (!table)
        return false;
    const ResEntry *e = Find(*table, type, name);
    if (!e)
        return false;
    if (out) {
        out->data = table->bytes.data() + e->offset;
        out->size = e->size;
    }
    return true;
}

void DropModuleResources(HMODULE module)
{
    std::lock_guard<std::mutex> guard(g_resMutex);
    g_tables.erase(reinterpret_cast<uintptr_t>(module));
}

} // namespace plat

extern "C" {

HRSRC WINAPI FindResourceW(HMODULE module, LPCWSTR name, LPCWSTR type)
{
    if (PLAT_FAIL(FindResourceW, ERROR_RESOURCE_NAME_NOT_FOUND))
        return nullptr;
    auto table = TableOf(module);
    if (!table)
        return nullptr;
    return reinterpret_cast<HRSRC>(const_cast<ResEntry *>(Find(*table, type, name)));
}

HGLOBAL WINAPI LoadResource(HMODULE module, HRSRC resInfo)
{
    if (PLAT_FAIL(LoadResource, ERROR_RESOURCE_DATA_NOT_FOUND))
        return nullptr;
    auto table = TableOf(module);
    const ResEntry *e = table ? EntryOf(*table, resInfo) : nullptr;
    if (!e) {
        plat::SetError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    // As on Windows, the "global" of a resource is its data in the module.
    return reinterpret_cast<HGLOBAL>(const_cast<BYTE *>(table->bytes.data() + e->offset));
}

LPVOID WINAPI LockResource(HGLOBAL resData)
{
    return resData;
}

DWORD WINAPI SizeofResource(HMODULE module, HRSRC resInfo)
{
    auto table = TableOf(module);
    const ResEntry *e = table ? EntryOf(*table, resInfo) : nullptr;
    if (!e) {
        plat::SetError(ERROR_INVALID_HANDLE);
        return 0;
    }
    return e->size;
}

BOOL WINAPI FreeResource(HGLOBAL)
{
    return FALSE; // nothing to free; Windows answers FALSE as well
}

int WINAPI LoadStringW(HINSTANCE instance, UINT id, LPWSTR buffer, int bufferMax)
{
    if (buffer && bufferMax > 0)
        buffer[0] = 0;
    if (PLAT_FAIL(LoadStringW, ERROR_RESOURCE_NAME_NOT_FOUND))
        return 0;
    if (!buffer) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    // Strings are stored in blocks of 16: block id / 16 + 1, each entry a
    // length word followed by that many characters.
    plat::ResourceBytes block;
    if (!plat::FindResourceBytes(instance, RT_STRING, MAKEINTRESOURCEW((id >> 4) + 1), &block))
        return 0;
    size_t at = 0;
    const size_t end = block.size / 2;
    auto word = [&](size_t i) { return static_cast<WORD>(block.data[2 * i] | (block.data[2 * i + 1] << 8)); };
    for (UINT i = 0; i < (id & 15); ++i) {
        if (at >= end)
            return 0;
        at += 1 + word(at);
    }
    if (at >= end)
        return 0;
    size_t len = word(at);
    const WCHAR *text = reinterpret_cast<const WCHAR *>(block.data + 2 * (at + 1));
    if (at + 1 + len > end)
        return 0;
    if (bufferMax == 0) {
        // A read-only pointer to the string in the module (not terminated).
        *reinterpret_cast<const WCHAR **>(buffer) = text;
        return static_cast<int>(len);
    }
    if (bufferMax < 0)
        return 0;
    size_t n = len < static_cast<size_t>(bufferMax - 1) ? len : static_cast<size_t>(bufferMax - 1);
    std::memcpy(buffer, text, n * sizeof(WCHAR));
    buffer[n] = 0;
    return static_cast<int>(n);
}

} // extern "C"
