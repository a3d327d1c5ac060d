// Profile: win.ini, system.ini and other INI files kept as real files in the
// Windows directory ($TAMRIX_WINDIR, else ~/.config/tamrix, unless set with
// PlatSetWindowsDirectory), UTF-8 encoded.
//
// Windows' rules: section and key names are case-insensitive; names and
// values are trimmed; a value in matching quotes loses them; lines the API
// does not touch (comments, other sections, blank lines) stay as they are; a
// write of an existing key replaces its line in place, a new key goes to the
// end of its section and a new section to the end of the file.
#include "core.h"
#include "devices.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

PLAT_INJECTABLE(WritePrivateProfileStringW);
PLAT_INJECTABLE(WriteProfileStringW);
PLAT_INJECTABLE(GetProfileIntW);

namespace
{

std::mutex g_profileMutex;
bool g_windowsDirSet = false;
std::string g_windowsDir;
std::string g_windowsDirAnswer; // storage behind PlatGetWindowsDirectory

std::string WindowsDirLocked()
{
    if (g_windowsDirSet)
        return g_windowsDir;
    if (const char *env = std::getenv("TAMRIX_WINDIR"); env && *env)
        return env;
    const char *home = std::getenv("HOME");
    return std::string(home && *home ? home : ".") + "/.config/tamrix";
}

std::string Lower(std::string s)
{
    for (char &c : s)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return s;
}

bool SameName(const std::string &a, const std::string &b)
{
    return Lower(a) == Lower(b);
}

std::string Trim(const std::string &s)
{
    const char *blanks = " \t\r\n\v\f";
    size_t first = s.find_first_not_of(blanks);
    if (first == std::string::npos)
        return std::string();
    size_t last = s.find_last_not_of(blanks);
    return s.substr(first, last - first + 1);
}

// Host path of an INI file: a name without a directory lives in the Windows
// directory (lower-cased, as Windows file names ignore case).
std::string IniPathLocked(LPCWSTR file)
{
    std::string name = plat::ToUtf8(file);
    for (char &c : name)
        if (c == '\\')
            c = '/';
    if (name.find('/') != std::string::npos)
        return name;
    return WindowsDirLocked() + "/" + Lower(name);
}

struct IniFile {
    std::vector<std::string> lines;
    std::string eol = "\r\n";
    bool bom = false;
    bool exists = false;
};

IniFile Load(const std::string &path)
{
    IniFile ini;
    std::ifstream f(path, std::ios::binary);
    if (!f)
        return ini;
    ini.exists = true;
    std::stringstream ss;
    ss << f.rdbuf();
    std::string text = ss.str();
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) {
        ini.bom = true;
        text.erase(0, 3);
    }
    if (text.find("\r\n") == std::string::npos && text.find('\n') != std::string::npos)
        ini.eol = std::string(1, '\n');
    size_t start = 0;
    while (start < text.size()) {
        size_t nl = text.find('\n', start);
        if (nl == std::string::npos)
            nl = text.size();
        std::string line = text.substr(start, nl - start);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        ini.lines.push_back(line);
        start = nl + 1;
    }
    return ini;
}

bool MakeDirs(const std::string &dir)
{
    if (dir.empty())
        return true;
    struct stat st;
    if (stat(dir.c_str(), &st) == 0)
        return S_ISDIR(st.st_mode);
    size_t slash = dir.rfind('/');
    if (slash != std::string::npos && slash > 0 && !MakeDirs(dir.substr(0, slash)))
        return false;
    return mkdir(dir.c_str(), 0777) == 0 || errno == EEXIST;
}

bool Save(const std::string &path, const IniFile &ini)
{
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && !MakeDirs(path.substr(0, slash))) {
        plat::SetError(ERROR_PATH_NOT_FOUND);
        return false;
    }
    std::string text = ini.bom ? "\xEF\xBB\xBF" : "";
    for (const std::string &line : ini.lines)
        text += line + ini.eol;
    std::string temp = path + ".tmp" + std::to_string(getpid());
    {
        std::ofstream f(temp, std::ios::binary | std::ios::trunc);
        if (!f || !f.write(text.data(), static_cast<std::streamsize>(text.size()))) {
            std::remove(temp.c_str());
            plat::SetError(ERROR_ACCESS_DENIED);
            return false;
        }
    }
    if (std::rename(temp.c_str(), path.c_str()) != 0) {
        std::remove(temp.c_str());
        plat::SetError(ERROR_ACCESS_DENIED);
        return false;
    }
    return true;
}

// "[name]" -> name; false for any other line.
bool SectionHeader(const std::string &line, std::string *name)
{
    std::string t = Trim(line);
    if (t.empty() || t[0] != '[')
        return false;
    size_t close = t.find(']');
    *name = Trim(t.substr(1, close == std::string::npos ? std::string::npos : close - 1));
    return true;
}

// "key = value" -> key, value; false for comments and lines without '='.
bool KeyLine(const std::string &line, std::string *key, std::string *value)
{
    std::string t = Trim(line);
    if (t.empty() || t[0] == ';')
        return false;
    size_t eq = t.find('=');
    if (eq == std::string::npos)
        return false;
    *key = Trim(t.substr(0, eq));
    if (value)
        *value = Trim(t.substr(eq + 1));
    return true;
}

// Line range [begin, end) of the body of the first section `app` (end is the
// next header or the end of the file); false when there is no such section.
bool FindSection(const IniFile &ini, const std::string &app, size_t *header, size_t *end)
{
    std::string name;
    for (size_t i = 0; i < ini.lines.size(); ++i) {
        if (!SectionHeader(ini.lines[i], &name) || !SameName(name, app))
            continue;
        size_t j = i + 1;
        while (j < ini.lines.size() && !SectionHeader(ini.lines[j], &name))
            ++j;
        *header = i;
        *end = j;
        return true;
    }
    return false;
}

bool Lookup(const IniFile &ini, const std::string &app, const std::string &key, std::string *value)
{
    size_t header, end;
    if (!FindSection(ini, app, &header, &end))
        return false;
    std::string k;
    for (size_t i = header + 1; i < end; ++i) {
        if (KeyLine(ini.lines[i], &k, value) && SameName(k, key)) {
            if (value->size() >= 2 && (value->front() == '"' || value->front() == '\'') &&
                value->back() == value->front())
                *value = value->substr(1, value->size() - 2);
            return true;
        }
    }
    return false;
}

// Copies a list of NUL-separated names, ended by an extra NUL, with Windows'
// truncation (the last two characters NUL, result size - 2).
DWORD CopyList(const std::vector<std::u16string> &names, LPWSTR out, DWORD size)
{
    std::u16string all;
    for (const std::u16string &n : names) {
        all += n;
        all.push_back(0);
    }
    if (all.size() + 1 <= size) {
        all.copy(out, all.size());
        out[all.size()] = 0;
        return static_cast<DWORD>(all.size());
    }
    if (size < 2) {
        out[0] = 0;
        return 0;
    }
    all.copy(out, size - 2);
    out[size - 2] = 0;
    out[size - 1] = 0;
    return size - 2;
}

DWORD GetString(LPCWSTR app, LPCWSTR key, LPCWSTR defaultValue, LPWSTR out, DWORD size, LPCWSTR file)
{
    if (!out || size == 0)
        return 0;
    std::lock_guard<std::mutex> guard(g_profileMutex);
    IniFile ini = Load(IniPathLocked(file));
    std::string name;
    if (!app) {
        std::vector<std::u16string> names;
        for (const std::string &line : ini.lines)
            if (SectionHeader(line, &name))
                names.push_back(plat::ToUtf16(name));
        return CopyList(names, out, size);
    }
    std::string section = plat::ToUtf8(app);
    if (!key) {
        std::vector<std::u16string> names;
        size_t header, end;
        if (FindSection(ini, section, &header, &end)) {
            for (size_t i = header + 1; i < end; ++i)
                if (KeyLine(ini.lines[i], &name, nullptr))
                    names.push_back(plat::ToUtf16(name));
        }
        return CopyList(names, out, size);
    }
    std::string value;
    std::u16string result;
    if (Lookup(ini, section, plat::ToUtf8(key), &value)) {
        result = plat::ToUtf16(value);
    } else {
        plat::SetError(ERROR_FILE_NOT_FOUND);
        if (defaultValue) {
            result = defaultValue;
            while (!result.empty() && (result.back() == u' ' || result.back() == u'\t'))
                result.pop_back();
        }
    }
    size_t n = result.size() < size - 1 ? result.size() : size - 1;
    result.copy(out, n);
    out[n] = 0;
    return static_cast<DWORD>(n);
}

UINT GetInt(LPCWSTR app, LPCWSTR key, INT defaultValue, LPCWSTR file)
{
    if (!app || !key)
        return static_cast<UINT>(defaultValue);
    std::string value;
    bool found;
    {
        std::lock_guard<std::mutex> guard(g_profileMutex);
        found = Lookup(Load(IniPathLocked(file)), plat::ToUtf8(app), plat::ToUtf8(key), &value);
    }
    if (!found || value.empty())
        return static_cast<UINT>(defaultValue);
    // An optional sign and decimal digits, up to the first other character.
    size_t i = 0;
    bool negative = false;
    if (value[i] == '-' || value[i] == '+')
        negative = value[i++] == '-';
    UINT result = 0;
    for (; i < value.size() && value[i] >= '0' && value[i] <= '9'; ++i)
        result = result * 10u + static_cast<UINT>(value[i] - '0');
    return negative ? 0u - result : result;
}

BOOL WriteString(LPCWSTR app, LPCWSTR key, LPCWSTR value, LPCWSTR file)
{
    if (!app) {
        if (!key && !value)
            return TRUE; // flushes the (nonexistent) cache
        plat::SetError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::lock_guard<std::mutex> guard(g_profileMutex);
    std::string path = IniPathLocked(file);
    IniFile ini = Load(path);
    std::string section = plat::ToUtf8(app);
    size_t header = 0, end = 0;
    bool haveSection = FindSection(ini, section, &header, &end);

    if (!key) {
        // Delete every section of that name with all its lines.
        if (!haveSection)
            return TRUE;
        while (FindSection(ini, section, &header, &end))
            ini.lines.erase(ini.lines.begin() + static_cast<std::ptrdiff_t>(header),
                            ini.lines.begin() + static_cast<std::ptrdiff_t>(end));
        return Save(path, ini) ? TRUE : FALSE;
    }

    std::string keyName = Trim(plat::ToUtf8(key));
    std::string k;
    if (!value) {
        if (!haveSection)
            return TRUE;
        bool changed = false;
        for (size_t i = end; i-- > header + 1;) {
            if (KeyLine(ini.lines[i], &k, nullptr) && SameName(k, keyName)) {
                ini.lines.erase(ini.lines.begin() + static_cast<std::ptrdiff_t>(i));
                changed = true;
            }
        }
        return !changed || Save(path, ini) ? TRUE : FALSE;
    }

    std::string line = keyName + "=" + Trim(plat::ToUtf8(value));
    if (!haveSection) {
        if (!ini.lines.empty() && !Trim(ini.lines.back()).empty())
            ini.lines.push_back(std::string());
        ini.lines.push_back(std::string(1, '[').append(Trim(section)).append(1, ']'));
        ini.lines.push_back(line);
        return Save(path, ini) ? TRUE : FALSE;
    }
    for (size_t i = header + 1; i < end; ++i) {
        if (KeyLine(ini.lines[i], &k, nullptr) && SameName(k, keyName)) {
            ini.lines[i] = line;
            return Save(path, ini) ? TRUE : FALSE;
        }
    }
    // A new key goes after the section's last non-blank line.
    size_t at = end;
    while (at > header + 1 && Trim(ini.lines[at - 1]).empty())
        --at;
    ini.lines.insert(ini.lines.begin() + static_cast<std::ptrdiff_t>(at), line);
    return Save(path, ini) ? TRUE : FALSE;
}

const WCHAR kWinIni[] = u"win.ini";

} // namespace

namespace plat
{

std::string WindowsDirectory()
{
    std::lock_guard<std::mutex> guard(g_profileMutex);
    return WindowsDirLocked();
}

} // namespace plat

extern "C" {

void PlatSetWindowsDirectory(const char *path)
{
    std::lock_guard<std::mutex> guard(g_profileMutex);
    g_windowsDirSet = path != nullptr;
    g_windowsDir = path ? path : "";
}

const char *PlatGetWindowsDirectory(void)
{
    std::lock_guard<std::mutex> guard(g_profileMutex);
    g_windowsDirAnswer = WindowsDirLocked();
    return g_windowsDirAnswer.c_str();
}

UINT WINAPI GetWindowsDirectoryW(LPWSTR buffer, UINT size)
{
    std::u16string dir;
    {
        std::lock_guard<std::mutex> guard(g_profileMutex);
        dir = plat::ToUtf16(WindowsDirLocked());
    }
    if (!buffer || size <= dir.size())
        return static_cast<UINT>(dir.size() + 1); // the size needed, NUL included
    dir.copy(buffer, dir.size());
    buffer[dir.size()] = 0;
    return static_cast<UINT>(dir.size());
}

UINT WINAPI GetProfileIntW(LPCWSTR app, LPCWSTR key, INT defaultValue)
{
    if (PLAT_FAIL(GetProfileIntW, ERROR_FILE_NOT_FOUND))
        return static_cast<UINT>(defaultValue);
    return GetInt(app, key, defaultValue, kWinIni);
}

DWORD WINAPI GetProfileStringW(LPCWSTR app, LPCWSTR key, LPCWSTR defaultValue, LPWSTR out, DWORD size)
{
    return GetString(app, key, defaultValue, out, size, kWinIni);
}

BOOL WINAPI WriteProfileStringW(LPCWSTR app, LPCWSTR key, LPCWSTR value)
{
    if (PLAT_FAIL(WriteProfileStringW, ERROR_ACCESS_DENIED))
        return FALSE;
    return WriteString(app, key, value, kWinIni);
}

UINT WINAPI GetPrivateProfileIntW(LPCWSTR app, LPCWSTR key, INT defaultValue, LPCWSTR file)
{
    return GetInt(app, key, defaultValue, file ? file : kWinIni);
}

DWORD WINAPI GetPrivateProfileStringW(LPCWSTR app, LPCWSTR key, LPCWSTR defaultValue, LPWSTR out, DWORD size,
                                      LPCWSTR file)
{
    return GetString(app, key, defaultValue, out, size, file ? file : kWinIni);
}

BOOL WINAPI WritePrivateProfileStringW(LPCWSTR app, LPCWSTR key, LPCWSTR value, LPCWSTR file)
{
    if (PLAT_FAIL(WritePrivateProfileStringW, ERROR_ACCESS_DENIED))
        return FALSE;
    return WriteString(app, key, value, file ? file : kWinIni);
}

} // extern "C"
