// The command-string parser: turns the parameters of an MCI command string
// into the flag word and parameter block of the command message, reading
// the device's command table exactly as stored.
//
// How the table is walked:
// - A command is a head entry followed by its parameter entries up to an
//   end-command entry. Commands are found by name, skipping each
//   non-matching command up to its end-command entry.
// - The parameters of a command are walked from its head; the walk ends at
//   an end-command entry or at the next head entry (a head can only start
//   a command, so meeting one means the command has been left).
// - A constant's items follow it up to an end-constant entry; an
//   end-command entry also ends them (a list without its end-constant).
//   Items are compared by name before their type is looked at. When the
//   item walk meets a head entry the walk has run out of the command: the
//   command in hand is not the one the string names, and the answer is
//   MCIERR_UNRECOGNIZED_COMMAND.
// - A table in which an item was stored with a wider value than the entry
//   format has therefore only its first such item reachable by name: the
//   extra zero is read as the type (head) and the real type as the first
//   character of the next name.
//
// The parameter block: a pointer-wide callback, then one field per
// parameter in table order (the return field first): integers and constants
// 32 bits, strings a pointer, rectangles a RECT, each at its natural
// alignment; flags have no field. Two fields are pointer-wide to match the
// published blocks that drivers cast to: the integer return of "status"
// (MCI_STATUS_PARMS.dwReturn) and the window handle of "window"
// (MCI_ANIM_WINDOW_PARMS.hWnd). A string return is the caller's buffer
// pointer followed by its length in characters.
#include "winmm.h"

#include <cstdio>
#include <cstring>
#include <map>

namespace mm
{

char16_t Fold(char16_t c)
{
    return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c - u'A' + u'a') : c;
}

// Characters a string argument's buffer holds at least.
constexpr size_t kMinStringRoom = 256;

bool EqualNoCase(const std::u16string &a, const std::u16string &b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); i++)
        if (Fold(a[i]) != Fold(b[i]))
            return false;
    return true;
}

bool ReadEntry(const std::vector<BYTE> &table, size_t offset, Entry &out)
{
    size_t p = offset;
    out.name.clear();
    for (;;) {
        if (p + 2 > table.size())
            return false;
        char16_t c = static_cast<char16_t>(table[p] | (table[p + 1] << 8));
        p += 2;
        if (c == 0)
            break;
        out.name.push_back(c);
    }
    if (p + 6 > table.size())
        return false;
    out.value = static_cast<DWORD>(table[p]) | (static_cast<DWORD>(table[p + 1]) << 8) |
                (static_cast<DWORD>(table[p + 2]) << 16) | (static_cast<DWORD>(table[p + 3]) << 24);
    out.type = static_cast<WORD>(table[p + 4] | (table[p + 5] << 8));
    out.offset = offset;
    out.next = p + 6;
    return true;
}

namespace
{

bool IsSpace(char16_t c)
{
    return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n';
}

class Cursor
{
public:
    explicit Cursor(const std::u16string &s) : s_(s) {}
    void SkipSpace()
    {
        while (pos_ < s_.size() && IsSpace(s_[pos_]))
            pos_++;
    }
    bool AtEnd()
    {
        SkipSpace();
        return pos_ >= s_.size();
    }
    // Consumes `word` (which may contain spaces) when the text continues
    // with it as a whole word, ignoring case.
    bool Match(const std::u16string &word)
    {
        SkipSpace();
        if (word.empty() || s_.size() - pos_ < word.size())
            return false;
        for (size_t i = 0; i < word.size(); i++)
            if (Fold(s_[pos_ + i]) != Fold(word[i]))
                return false;
        size_t end = pos_ + word.size();
        if (end < s_.size() && !IsSpace(s_[end]))
            return false;
        pos_ = end;
        return true;
    }
    // Reads a bare word or a double-quoted string. 0, MCIERR_NO_CLOSING_QUOTE,
    // or 1 when there is no token left.
    DWORD Token(std::u16string &out)
    {
        out.clear();
        if (AtEnd())
            return 1;
        if (s_[pos_] == u'"') {
            size_t close = s_.find(u'"', pos_ + 1);
            if (close == std::u16string::npos)
                return MCIERR_NO_CLOSING_QUOTE;
            out = s_.substr(pos_ + 1, close - pos_ - 1);
            pos_ = close + 1;
            if (pos_ < s_.size() && !IsSpace(s_[pos_]))
                return MCIERR_EXTRA_CHARACTERS;
            return 0;
        }
        size_t start = pos_;
        while (pos_ < s_.size() && !IsSpace(s_[pos_]))
            pos_++;
        out = s_.substr(start, pos_ - start);
        return 0;
    }
    size_t pos() const { return pos_; }
    void set_pos(size_t p) { pos_ = p; }

private:
    const std::u16string &s_;
    size_t pos_ = 0;
};

bool ParseInt(const std::u16string &tok, int32_t &out)
{
    size_t i = 0;
    bool neg = false;
    if (i < tok.size() && (tok[i] == u'-' || tok[i] == u'+'))
        neg = tok[i++] == u'-';
    if (i >= tok.size())
        return false;
    int64_t v = 0;
    for (; i < tok.size(); i++) {
        if (tok[i] < u'0' || tok[i] > u'9')
            return false;
        v = v * 10 + (tok[i] - u'0');
        if (v > 0xFFFFFFFFll)
            return false;
    }
    if (neg)
        v = -v;
    if (v < INT32_MIN || v > static_cast<int64_t>(UINT32_MAX))
        return false;
    out = static_cast<int32_t>(static_cast<uint32_t>(v));
    return true;
}

DWORD ReadInt(Cursor &cur, int32_t &out)
{
    std::u16string tok;
    DWORD err = cur.Token(tok);
    if (err == 1)
        return MCIERR_BAD_INTEGER;
    if (err)
        return err;
    return ParseInt(tok, out) ? 0 : MCIERR_BAD_INTEGER;
}

// One parameter of a command with its field in the block.
struct Param {
    Entry entry;
    size_t field = 0;
    size_t fieldSize = 0;
    size_t itemsStart = 0; // constants: offset of the first item
};

size_t Align(size_t v, size_t a)
{
    return (v + a - 1) / a * a;
}

// Finds the command `verb`; on success `head` is its head entry.
bool FindCommand(const std::vector<BYTE> &table, const std::u16string &verb, Entry &head)
{
    size_t off = 0;
    Entry e;
    while (ReadEntry(table, off, e)) {
        if (e.type == MCI_END_COMMAND_LIST)
            return false;
        if (e.type != MCI_COMMAND_HEAD)
            return false; // not a table
        if (EqualNoCase(e.name, verb)) {
            head = e;
            return true;
        }
        // Skip the rest of this command.
        off = e.next;
        for (;;) {
            if (!ReadEntry(table, off, e))
                return false;
            off = e.next;
            if (e.type == MCI_END_COMMAND)
                break;
        }
    }
    return false;
}

// Skips the items of the constant whose first item is at `off`. Returns the
// offset after the end-constant entry, or the offset of the end-command or
// head entry that ended the items (`ended` = true).
size_t SkipItems(const std::vector<BYTE> &table, size_t off, bool &ended)
{
    Entry e;
    ended = false;
    while (ReadEntry(table, off, e)) {
        if (e.type == MCI_END_CONSTANT)
            return e.next;
        if (e.type == MCI_END_COMMAND || e.type == MCI_COMMAND_HEAD || e.type == MCI_END_COMMAND_LIST) {
            ended = true;
            return off;
        }
        off = e.next;
    }
    ended = true;
    return off;
}

// Lays out the parameters of the command at `head`.
void Layout(const std::vector<BYTE> &table, const Entry &head, Parsed &out, std::vector<Param> &params)
{
    size_t field = sizeof(DWORD_PTR);
    size_t off = head.next;
    Entry e;
    while (ReadEntry(table, off, e)) {
        if (e.type == MCI_END_COMMAND || e.type == MCI_COMMAND_HEAD || e.type == MCI_END_COMMAND_LIST)
            break;
        Param p;
        p.entry = e;
        off = e.next;
        size_t size = 0, align = 4;
        switch (e.type) {
        case MCI_RETURN:
            if (e.value == MCI_STRING) {
                out.returnKind = ReturnKind::String;
                size = sizeof(LPWSTR) + sizeof(DWORD);
                align = sizeof(LPWSTR);
            } else if (e.value == MCI_RECT) {
                out.returnKind = ReturnKind::Rect;
                size = sizeof(RECT);
            } else {
                out.returnKind = ReturnKind::Integer;
                size = align = (head.value == MCI_STATUS) ? sizeof(DWORD_PTR) : sizeof(DWORD);
            }
            break;
        case MCI_INTEGER:
            size = 4;
            break;
        case MCI_INTEGER64:
            size = align = 8;
            break;
        case MCI_STRING:
        case MCI_HWND:
        case MCI_HPAL:
        case MCI_HDC:
            size = align = sizeof(void *);
            break;
        case MCI_RECT:
            size = sizeof(RECT);
            break;
        case MCI_CONSTANT: {
            bool wide = head.value == MCI_WINDOW && e.value == MCI_ANIM_WINDOW_HWND;
            size = align = wide ? sizeof(HWND) : sizeof(DWORD);
            p.itemsStart = off;
            bool ended = false;
            off = SkipItems(table, off, ended);
            break;
        }
        default:
            break; // flags have no field
        }
        if (size) {
            field = Align(field, align);
            p.field = field;
            p.fieldSize = size;
            field += size;
            if (e.type == MCI_RETURN) {
                out.returnOffset = p.field;
                out.returnSize = (out.returnKind == ReturnKind::Integer) ? size : 0;
            }
        }
        params.push_back(p);
    }
    out.blockSize = Align(field, sizeof(DWORD_PTR));
}

template <class T> void Put(Parsed &out, size_t offset, T value)
{
    if (offset + sizeof(T) <= sizeof(out.block))
        std::memcpy(out.block + offset, &value, sizeof(T));
}

void PutInt(Parsed &out, const Param &p, int64_t value)
{
    if (p.fieldSize == 8)
        Put<uint64_t>(out, p.field, static_cast<uint64_t>(value));
    else
        Put<uint32_t>(out, p.field, static_cast<uint32_t>(value));
}

// Reads the value of a named constant. 0 on success.
DWORD ReadConstant(const std::vector<BYTE> &table, const Param &p, Cursor &cur, DWORD &value)
{
    size_t off = p.itemsStart;
    Entry e;
    while (ReadEntry(table, off, e)) {
        if (e.type == MCI_END_CONSTANT || e.type == MCI_END_COMMAND || e.type == MCI_END_COMMAND_LIST)
            break;
        if (cur.Match(e.name)) {
            value = e.value;
            return 0;
        }
        if (e.type == MCI_COMMAND_HEAD)
            return MCIERR_UNRECOGNIZED_COMMAND;
        off = e.next;
    }
    // Not one of the items: a constant also takes a plain number.
    std::u16string tok;
    size_t save = cur.pos();
    DWORD err = cur.Token(tok);
    int32_t n = 0;
    if (err == 0 && ParseInt(tok, n)) {
        value = static_cast<DWORD>(n);
        return 0;
    }
    cur.set_pos(save);
    return err && err != 1 ? err : MCIERR_BAD_CONSTANT;
}

// Tries the items of an unnamed constant at the cursor.
bool MatchItem(const std::vector<BYTE> &table, const Param &p, Cursor &cur, DWORD &value)
{
    size_t off = p.itemsStart;
    Entry e;
    while (ReadEntry(table, off, e)) {
        if (e.type == MCI_END_CONSTANT || e.type == MCI_END_COMMAND || e.type == MCI_END_COMMAND_LIST)
            return false;
        if (cur.Match(e.name)) {
            value = e.value;
            return true;
        }
        if (e.type == MCI_COMMAND_HEAD)
            return false;
        off = e.next;
    }
    return false;
}

} // namespace

DWORD ParseCommand(const std::vector<BYTE> &table, const std::u16string &verb, const std::u16string &params,
                   HWND callback, LPWSTR returnBuffer, UINT returnLength, Parsed &out)
{
    Entry head;
    if (!FindCommand(table, verb, head))
        return MCIERR_UNRECOGNIZED_COMMAND;
    out.message = head.value;
    std::vector<Param> list;
    Layout(table, head, out, list);
    Put<DWORD_PTR>(out, 0, reinterpret_cast<DWORD_PTR>(callback));
    if (out.returnKind == ReturnKind::String) {
        Put<LPWSTR>(out, out.returnOffset, returnBuffer);
        Put<DWORD>(out, out.returnOffset + sizeof(LPWSTR), returnLength);
    }

    Cursor cur(params);
    while (!cur.AtEnd()) {
        const Param *hit = nullptr;
        DWORD itemValue = 0;
        for (const Param &p : list) {
            const Entry &e = p.entry;
            if (e.type == MCI_RETURN)
                continue;
            if (e.name.empty()) {
                if (e.type == MCI_CONSTANT && MatchItem(table, p, cur, itemValue)) {
                    hit = &p;
                    break;
                }
                continue;
            }
            if (cur.Match(e.name)) {
                hit = &p;
                break;
            }
        }
        if (!hit) {
            // A word that is no keyword fills the command's unnamed string.
            for (const Param &p : list)
                if (p.entry.name.empty() && p.entry.type == MCI_STRING && !(out.flags & p.entry.value)) {
                    hit = &p;
                    break;
                }
            if (!hit)
                return MCIERR_UNRECOGNIZED_KEYWORD;
        }
        const Entry &e = hit->entry;
        if (e.value != 0 && (out.flags & e.value) == e.value)
            return MCIERR_DUPLICATE_FLAGS;
        out.flags |= e.value;
        switch (e.type) {
        case MCI_FLAG:
            break;
        case MCI_INTEGER:
        case MCI_INTEGER64: {
            int32_t n = 0;
            if (DWORD err = ReadInt(cur, n))
                return err;
            PutInt(out, *hit, n);
            break;
        }
        case MCI_STRING:
        case MCI_HWND:
        case MCI_HPAL:
        case MCI_HDC: {
            std::u16string tok;
            DWORD err = cur.Token(tok);
            if (err == 1)
                return MCIERR_MISSING_STRING_ARGUMENT;
            if (err)
                return err;
            if (e.type == MCI_STRING) {
                // Drivers may copy a fixed-size name buffer from the
                // pointer whatever the name's length: keep room (zeros)
                // behind a short string for that.
                out.strings.push_back(std::make_unique<std::u16string>(tok));
                if (out.strings.back()->size() < kMinStringRoom)
                    out.strings.back()->resize(kMinStringRoom, u'\0');
                Put<LPCWSTR>(out, hit->field, out.strings.back()->c_str());
            } else {
                int32_t n = 0;
                if (!ParseInt(tok, n))
                    return MCIERR_BAD_INTEGER;
                Put<DWORD_PTR>(out, hit->field, static_cast<DWORD_PTR>(static_cast<uint32_t>(n)));
            }
            break;
        }
        case MCI_RECT: {
            int32_t v[4];
            for (auto &x : v)
                if (DWORD err = ReadInt(cur, x))
                    return err;
            RECT r{v[0], v[1], v[2], v[3]};
            Put<RECT>(out, hit->field, r);
            break;
        }
        case MCI_CONSTANT: {
            DWORD value = itemValue;
            if (!e.name.empty())
                if (DWORD err = ReadConstant(table, *hit, cur, value))
                    return err;
            PutInt(out, *hit, value);
            break;
        }
        default:
            return MCIERR_PARSER_INTERNAL;
        }
    }
    return 0;
}

namespace
{

DWORD CopyOut(const std::u16string &s, LPWSTR buffer, UINT length)
{
    if (!buffer)
        return 0;
    if (length < s.size() + 1)
        return MCIERR_PARAM_OVERFLOW;
    std::memcpy(buffer, s.c_str(), (s.size() + 1) * sizeof(WCHAR));
    return 0;
}

std::u16string Number(long long v)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%lld", v);
    return std::u16string(buf, buf + std::strlen(buf));
}

} // namespace

DWORD FormatReturn(const Parsed &parsed, DWORD result, HMODULE module, LPWSTR buffer, UINT length)
{
    switch (parsed.returnKind) {
    case ReturnKind::None:
        if (buffer && length)
            buffer[0] = 0;
        return 0;
    case ReturnKind::String:
        return 0; // the driver wrote into the caller's buffer
    case ReturnKind::Rect: {
        RECT r;
        std::memcpy(&r, parsed.block + parsed.returnOffset, sizeof r);
        return CopyOut(Number(r.left) + u" " + Number(r.top) + u" " + Number(r.right) + u" " + Number(r.bottom), buffer,
                       length);
    }
    case ReturnKind::Integer:
        break;
    }
    DWORD value = 0;
    std::memcpy(&value, parsed.block + parsed.returnOffset, sizeof value);
    // A value returned "as a resource" is the id of a string: the driver's
    // own when it says so, else one of WINMM's names. An id with no string
    // is shown as the number.
    if (result & MCI_RESOURCE_RETURNED) {
        if (value <= 0xFFFF) {
            if (result & MCI_RESOURCE_DRIVER) {
                WCHAR text[256];
                int n = module ? LoadStringW(module, value, text, 256) : 0;
                if (n > 0)
                    return CopyOut(std::u16string(text, n), buffer, length);
            } else if (const char16_t *core = CoreString(value)) {
                return CopyOut(core, buffer, length);
            }
        }
    }
    return CopyOut(Number(value), buffer, length);
}

} // namespace mm
