#include "command_help.h"

#include <mmddk.h>

#include <map>
#include <sstream>

namespace mcicmd
{

namespace
{

struct RawEntry {
    std::u16string name;
    DWORD value = 0;
    WORD type = 0;
};

// Entries as name, 32-bit value, 16-bit type, the way the parser reads them.
std::vector<RawEntry> ReadEntries(const BYTE *p, size_t size)
{
    std::vector<RawEntry> out;
    size_t at = 0;
    for (;;) {
        RawEntry e;
        bool named = false;
        while (at + 2 <= size) {
            char16_t c = static_cast<char16_t>(p[at] | (p[at + 1] << 8));
            at += 2;
            if (c == 0) {
                named = true;
                break;
            }
            e.name.push_back(c);
        }
        if (!named || at + 6 > size)
            return out;
        e.value = static_cast<DWORD>(p[at] | (p[at + 1] << 8) | (p[at + 2] << 16)) | static_cast<DWORD>(p[at + 3])
                                                                                         << 24;
        e.type = static_cast<WORD>(p[at + 4] | (p[at + 5] << 8));
        at += 6;
        out.push_back(e);
        if (e.type == MCI_END_COMMAND_LIST)
            return out;
    }
}

// A name a user can type: printable ASCII only (a misread entry starts with a
// control character).
bool Typable(const std::u16string &name, std::string *out)
{
    out->clear();
    for (char16_t c : name) {
        if (c < 0x20 || c > 0x7E)
            return false;
        out->push_back(static_cast<char>(c));
    }
    return !out->empty();
}

const std::map<std::string, std::string> &Examples()
{
    static const std::map<std::string, std::string> examples = {
        {"open", "open scanner alias s wait"},
        {"close", "close s wait"},
        {"info", "info s product wait"},
        {"capability", "capability s maximum resolution wait"},
        {"status", "status s ready wait"},
        {"set", "set s time format millimeter wait"},
        {"scanmode", "scanmode s resolution 200 contrast 4 wait"},
        {"scanread", "scanread s rect 0 0 400 600 wait"},
        {"stop", "stop s wait"},
        {"copy", "copy s wait"},
        {"save", "save s page.bmp wait"},
        {"put", "put s destination at 0 0 320 400 wait"},
        {"where", "where s source wait"},
        {"window", "window s state show wait"},
    };
    return examples;
}

std::string Describe(const CommandInfo &c)
{
    std::ostringstream s;
    std::vector<std::string> words = {c.name, c.name == "open" ? "scanner" : "DEVICE"};
    for (const CommandParam &p : c.params) {
        if (p.keyword == "notify" || p.keyword == "wait")
            continue;
        std::string unit = p.keyword;
        switch (p.type) {
        case MCI_STRING:
            unit = p.keyword.empty() ? "FILE" : p.keyword + " TEXT";
            break;
        case MCI_INTEGER:
            unit += " N";
            break;
        case MCI_RECT:
            unit += " X Y WIDTH HEIGHT";
            break;
        case MCI_CONSTANT:
            unit = p.keyword.empty() ? "ITEM" : p.keyword + " ITEM";
            break;
        }
        words.push_back("[" + unit + "]");
    }
    words.push_back("wait|notify");
    size_t col = 2;
    s << " ";
    for (const std::string &w : words) {
        if (col + 1 + w.size() > 78) {
            s << "\n       ";
            col = 7;
        }
        s << " " << w;
        col += 1 + w.size();
    }
    s << "\n";
    static const char *const kReturns[] = {"", "text", "a number", "", "", "", "", "a rectangle X Y WIDTH HEIGHT"};
    if (c.returns < 8 && *kReturns[c.returns])
        s << "      answers " << kReturns[c.returns] << "\n";
    for (const CommandParam &p : c.params) {
        if (p.type != MCI_CONSTANT || p.items.empty())
            continue;
        s << "      " << (p.keyword.empty() ? "ITEM" : p.keyword) << ":";
        size_t col = 7 + (p.keyword.empty() ? 4 : p.keyword.size()) + 1;
        for (size_t i = 0; i < p.items.size(); i++) {
            std::string item = " " + p.items[i] + (i + 1 < p.items.size() ? "," : "");
            if (col + item.size() > 78) {
                s << "\n         ";
                col = 9;
            }
            s << item;
            col += item.size();
        }
        s << "\n";
    }
    auto ex = Examples().find(c.name);
    if (ex != Examples().end())
        s << "      e.g. \"" << ex->second << "\"\n";
    return s.str();
}

} // namespace

std::vector<CommandInfo> ReadCommandTable(HMODULE module, LPCWSTR resource)
{
    std::vector<CommandInfo> commands;
    HRSRC info = FindResourceW(module, resource, RT_RCDATA);
    HGLOBAL res = info ? LoadResource(module, info) : nullptr;
    const BYTE *bytes = res ? static_cast<const BYTE *>(LockResource(res)) : nullptr;
    if (!bytes)
        return commands;
    std::vector<RawEntry> entries = ReadEntries(bytes, SizeofResource(module, info));
    CommandInfo *cur = nullptr;
    CommandParam *constant = nullptr;
    bool itemsClosed = false;
    std::string name;
    for (const RawEntry &e : entries) {
        if (!cur) {
            if (e.type == MCI_COMMAND_HEAD && Typable(e.name, &name)) {
                commands.push_back(CommandInfo{name, 0, {}});
                cur = &commands.back();
            }
            continue;
        }
        if (e.type == MCI_END_COMMAND) {
            cur = nullptr;
            constant = nullptr;
            continue;
        }
        if (constant) {
            if (e.type == MCI_END_CONSTANT) {
                constant = nullptr;
                continue;
            }
            // An item read as a head entry is matched by name, and ends
            // what the parser can reach of the list.
            if (!itemsClosed && Typable(e.name, &name))
                constant->items.push_back(name);
            if (e.type == MCI_COMMAND_HEAD)
                itemsClosed = true;
            continue;
        }
        if (e.type == MCI_RETURN) {
            cur->returns = static_cast<WORD>(e.value);
            continue;
        }
        if (e.type == MCI_COMMAND_HEAD)
            continue; // a misread entry: the parser leaves the command here
        Typable(e.name, &name);
        cur->params.push_back(CommandParam{name, e.type, {}});
        if (e.type == MCI_CONSTANT) {
            constant = &cur->params.back();
            itemsClosed = false;
        }
    }
    return commands;
}

std::string DescribeCommands(const std::vector<CommandInfo> &commands, const std::string &only)
{
    std::string out;
    for (const CommandInfo &c : commands)
        if (only.empty() || c.name == only)
            out += Describe(c);
    if (out.empty() || !only.empty())
        return out;
    return "Commands of the driver (from its command table). DEVICE is the name given\n"
           "by \"open scanner\" or its alias. Every command must end with exactly one\n"
           "of \"wait\" (return when the work is done) or \"notify\" (return at once;\n"
           "a \"notify:\" line reports the end later, and .wait waits for it):\n" +
           out;
}

} // namespace mcicmd
