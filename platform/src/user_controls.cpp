// The standard control classes dialogs are built from: BUTTON (push, default
// push, check boxes, radio buttons, group box), STATIC, EDIT (single line),
// COMBOBOX (drop-down list, optionally sorted) and SCROLLBAR.
//
// Each control keeps its state in a C++ object whose pointer lives in the
// window's extra bytes; it is made at WM_NCCREATE and freed at WM_NCDESTROY.
// Controls are only touched by their owning thread (messages from other
// threads are handled there), so the state needs no lock. Nothing is drawn:
// the host has no screen, and WM_PAINT just validates the window.
//
// User gestures are the messages Windows delivers for them: a click is
// WM_LBUTTONDOWN/UP (or BM_CLICK), a key is WM_KEYDOWN/WM_CHAR, a drag is
// WM_LBUTTONDOWN, WM_MOUSEMOVE and WM_LBUTTONUP.
#include <windows.h>

#include "user.h"

#include <algorithm>
#include <string>
#include <vector>

namespace plat
{
namespace
{

template <class T> T *StateOf(HWND hwnd)
{
    return reinterpret_cast<T *>(GetWindowLongPtrW(hwnd, 0));
}

// Makes the state at WM_NCCREATE and frees it at WM_NCDESTROY; answers
// whether the message was one of those (its result in `result`).
template <class T> bool Lifetime(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam, LRESULT *result)
{
    if (msg == WM_NCCREATE) {
        SetWindowLongPtrW(hwnd, 0, reinterpret_cast<LONG_PTR>(new T()));
        *result = DefWindowProcW(hwnd, msg, wParam, lParam);
        return true;
    }
    if (msg == WM_NCDESTROY) {
        delete StateOf<T>(hwnd);
        SetWindowLongPtrW(hwnd, 0, 0);
        *result = DefWindowProcW(hwnd, msg, wParam, lParam);
        return true;
    }
    return false;
}

DWORD StyleOf(HWND hwnd)
{
    return static_cast<DWORD>(GetWindowLongW(hwnd, GWL_STYLE));
}

void Notify(HWND hwnd, WORD code)
{
    HWND parent = GetParent(hwnd);
    if (parent != nullptr)
        SendMessageW(parent, WM_COMMAND, static_cast<WPARAM>(MAKELONG(GetDlgCtrlID(hwnd), code)),
                     reinterpret_cast<LPARAM>(hwnd));
}

std::u16string TextOf(HWND hwnd)
{
    auto n = DefWindowProcW(hwnd, WM_GETTEXTLENGTH, 0, 0);
    std::u16string s(static_cast<size_t>(n) + 1, u'\0');
    DefWindowProcW(hwnd, WM_GETTEXT, s.size(), reinterpret_cast<LPARAM>(s.data()));
    s.resize(static_cast<size_t>(n));
    return s;
}

void SetText(HWND hwnd, const std::u16string &s)
{
    DefWindowProcW(hwnd, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(s.c_str()));
}

// ---- BUTTON ---------------------------------------------------------------

struct ButtonState {
    UINT check = BST_UNCHECKED;
    bool down = false;
};

UINT ButtonType(HWND hwnd)
{
    return StyleOf(hwnd) & 0x0F;
}

bool IsCheckable(UINT type)
{
    return type == BS_CHECKBOX || type == BS_AUTOCHECKBOX || type == BS_RADIOBUTTON || type == BS_3STATE ||
           type == BS_AUTO3STATE || type == BS_AUTORADIOBUTTON;
}

// An automatic radio button unchecks the other automatic radio buttons of
// its group (the siblings from the previous WS_GROUP control to the next).
void UncheckRadioGroup(HWND hwnd)
{
    HWND parent = GetParent(hwnd);
    std::vector<HWND> siblings;
    for (HWND c = GetWindow(parent, GW_CHILD); c != nullptr; c = GetWindow(c, GW_HWNDNEXT))
        siblings.push_back(c);
    auto me = std::find(siblings.begin(), siblings.end(), hwnd);
    if (me == siblings.end())
        return;
    auto first = me;
    while (first != siblings.begin() && !(StyleOf(*first) & WS_GROUP))
        --first;
    for (auto it = first; it != siblings.end(); ++it) {
        if (it != first && (StyleOf(*it) & WS_GROUP))
            break;
        if (*it != hwnd && ButtonType(*it) == BS_AUTORADIOBUTTON)
            SendMessageW(*it, BM_SETCHECK, BST_UNCHECKED, 0);
    }
}

void ClickButton(HWND hwnd)
{
    if (!IsWindowEnabled(hwnd))
        return;
    auto *st = StateOf<ButtonState>(hwnd);
    switch (ButtonType(hwnd)) {
    case BS_AUTOCHECKBOX:
        st->check = st->check == BST_CHECKED ? BST_UNCHECKED : BST_CHECKED;
        break;
    case BS_AUTO3STATE:
        st->check = (st->check + 1) % 3;
        break;
    case BS_AUTORADIOBUTTON:
        st->check = BST_CHECKED;
        UncheckRadioGroup(hwnd);
        break;
    default:
        break;
    }
    Notify(hwnd, BN_CLICKED);
}

LRESULT CALLBACK ButtonProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    LRESULT result = 0;
    if (Lifetime<ButtonState>(hwnd, msg, wParam, lParam, &result))
        return result;
    auto *st = StateOf<ButtonState>(hwnd);
    if (st == nullptr)
        return DefWindowProcW(hwnd, msg, wParam, lParam);
    const UINT type = ButtonType(hwnd);
    switch (msg) {
    case BM_GETCHECK:
        return IsCheckable(type) ? st->check : BST_UNCHECKED;
    case BM_SETCHECK:
        if (IsCheckable(type))
            st->check = static_cast<UINT>(wParam) > BST_INDETERMINATE ? BST_CHECKED : static_cast<UINT>(wParam);
        return 0;
    case BM_GETSTATE:
        return st->check | (st->down ? 0x0004 : 0);
    case BM_SETSTATE:
        st->down = wParam != 0;
        return 0;
    case BM_SETSTYLE:
        SetWindowLongW(hwnd, GWL_STYLE, static_cast<LONG>((StyleOf(hwnd) & ~0xFFFFu) | LOWORD(wParam)));
        return 0;
    case BM_CLICK:
        ClickButton(hwnd);
        return 0;
    case WM_LBUTTONDOWN:
        st->down = true;
        return 0;
    case WM_LBUTTONUP:
        if (st->down) {
            st->down = false;
            RECT rc;
            GetClientRect(hwnd, &rc);
            POINT pt{static_cast<short>(LOWORD(lParam)), static_cast<short>(HIWORD(lParam))};
            if (PtInRect(&rc, pt))
                ClickButton(hwnd);
        }
        return 0;
    case WM_KEYUP:
        if (wParam == VK_SPACE)
            ClickButton(hwnd);
        return 0;
    case WM_GETDLGCODE:
        switch (type) {
        case BS_DEFPUSHBUTTON:
            return DLGC_BUTTON | DLGC_DEFPUSHBUTTON;
        case BS_PUSHBUTTON:
            return DLGC_BUTTON | DLGC_UNDEFPUSHBUTTON;
        case BS_RADIOBUTTON:
        case BS_AUTORADIOBUTTON:
            return DLGC_RADIOBUTTON;
        case BS_GROUPBOX:
            return DLGC_STATIC;
        default:
            return DLGC_BUTTON;
        }
    default:
        return DefWindowProcW(hwnd, msg, wParam, lParam);
    }
}

// ---- STATIC ---------------------------------------------------------------

LRESULT CALLBACK StaticProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == WM_GETDLGCODE)
        return DLGC_STATIC;
    return DefWindowProcW(hwnd, msg, wParam, lParam);
}

// ---- EDIT -------------------------------------------------------------------

struct EditState {
    size_t limit = 0x7FFFFFFE;
    size_t selStart = 0;
    size_t selEnd = 0;
};

void ReplaceSelection(HWND hwnd, EditState *st, const std::u16string &with)
{
    std::u16string text = TextOf(hwnd);
    size_t a = std::min(st->selStart, text.size());
    size_t b = std::min(st->selEnd, text.size());
    if (a > b)
        std::swap(a, b);
    if (text.size() - (b - a) + with.size() > st->limit)
        return;
    text.replace(a, b - a, with);
    SetText(hwnd, text);
    st->selStart = st->selEnd = a + with.size();
    Notify(hwnd, EN_CHANGE);
}

LRESULT CALLBACK EditProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    LRESULT result = 0;
    if (Lifetime<EditState>(hwnd, msg, wParam, lParam, &result))
        return result;
    auto *st = StateOf<EditState>(hwnd);
    if (st == nullptr)
        return DefWindowProcW(hwnd, msg, wParam, lParam);
    switch (msg) {
    case WM_SETTEXT:
        result = DefWindowProcW(hwnd, msg, wParam, lParam);
        st->selStart = st->selEnd = 0;
        Notify(hwnd, EN_CHANGE);
        return result;
    case EM_LIMITTEXT:
        st->limit = wParam == 0 ? 0x7FFFFFFE : static_cast<size_t>(wParam);
        return 0;
    case EM_GETLIMITTEXT:
        return static_cast<LRESULT>(st->limit);
    case EM_SETSEL: {
        const size_t len = TextOf(hwnd).size();
        const LONG a = static_cast<LONG>(wParam);
        const LONG b = static_cast<LONG>(lParam);
        if (a == -1) {
            st->selStart = st->selEnd = std::min(st->selEnd, len);
            return 0;
        }
        st->selStart = std::min(static_cast<size_t>(std::max<LONG>(a, 0)), len);
        st->selEnd = b < 0 ? len : std::min(static_cast<size_t>(b), len);
        return 0;
    }
    case EM_GETSEL: {
        DWORD a = static_cast<DWORD>(std::min(st->selStart, st->selEnd));
        DWORD b = static_cast<DWORD>(std::max(st->selStart, st->selEnd));
        if (wParam != 0)
            *reinterpret_cast<DWORD *>(wParam) = a;
        if (lParam != 0)
            *reinterpret_cast<DWORD *>(lParam) = b;
        return MAKELONG(a, b);
    }
    case EM_REPLACESEL:
        if (lParam != 0)
            ReplaceSelection(hwnd, st, reinterpret_cast<const char16_t *>(lParam));
        return 0;
    case WM_CHAR: {
        const auto ch = static_cast<char16_t>(wParam);
        if (ch == 8) {
            if (st->selStart == st->selEnd && st->selStart > 0)
                st->selStart--;
            ReplaceSelection(hwnd, st, u"");
        } else if (ch >= 0x20) {
            if ((StyleOf(hwnd) & ES_NUMBER) && (ch < u'0' || ch > u'9'))
                return 0;
            ReplaceSelection(hwnd, st, std::u16string(1, ch));
        }
        return 0;
    }
    case WM_GETDLGCODE:
        return DLGC_WANTCHARS | DLGC_HASSETSEL | DLGC_WANTARROWS;
    default:
        return DefWindowProcW(hwnd, msg, wParam, lParam);
    }
}

// ---- COMBOBOX ---------------------------------------------------------------

struct ComboItem {
    std::u16string text;
    LPARAM data = 0;
};

struct ComboState {
    std::vector<ComboItem> items;
    int sel = -1;
};

// Primary class of a character in Japanese collation: symbols, digits,
// Latin letters, kana, then everything else (ideographs).
int CollationClass(char16_t c)
{
    if ((c >= u'0' && c <= u'9') || (c >= 0xFF10 && c <= 0xFF19))
        return 1;
    if ((c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || (c >= 0xFF21 && c <= 0xFF3A) ||
        (c >= 0xFF41 && c <= 0xFF5A))
        return 2;
    if ((c >= 0x3041 && c <= 0x30FF) || (c >= 0xFF66 && c <= 0xFF9F))
        return 3;
    if (c >= 0x3400)
        return 4;
    return 0;
}

// The character's primary weight within its class: full-width forms and
// lower case fold onto ASCII upper case, katakana onto hiragana.
char16_t CollationValue(char16_t c)
{
    if (c >= 0xFF01 && c <= 0xFF5E)
        c = static_cast<char16_t>(c - 0xFF01 + 0x21);
    if (c >= u'a' && c <= u'z')
        c = static_cast<char16_t>(c - u'a' + u'A');
    if (c >= 0x30A1 && c <= 0x30F6)
        c = static_cast<char16_t>(c - 0x60);
    return c;
}

// Orders two strings as a Japanese-locale sort does; ties on the primary
// level are broken by the code units.
int CompareJapanese(const std::u16string &a, const std::u16string &b)
{
    const size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; ++i) {
        const int ca = CollationClass(a[i]), cb = CollationClass(b[i]);
        if (ca != cb)
            return ca < cb ? -1 : 1;
        const char16_t va = CollationValue(a[i]), vb = CollationValue(b[i]);
        if (va != vb)
            return va < vb ? -1 : 1;
    }
    if (a.size() != b.size())
        return a.size() < b.size() ? -1 : 1;
    return a < b ? -1 : (b < a ? 1 : 0);
}

bool StartsWithFolded(const std::u16string &text, const std::u16string &prefix, bool exact)
{
    if (text.size() < prefix.size() || (exact && text.size() != prefix.size()))
        return false;
    for (size_t i = 0; i < prefix.size(); ++i) {
        if (CollationValue(text[i]) != CollationValue(prefix[i]))
            return false;
    }
    return true;
}

LRESULT FindItem(const ComboState &st, WPARAM start, LPARAM lParam, bool exact)
{
    if (lParam == 0 || st.items.empty())
        return CB_ERR;
    const std::u16string key = reinterpret_cast<const char16_t *>(lParam);
    const size_t count = st.items.size();
    const size_t first = static_cast<int>(start) < 0 ? 0 : (static_cast<size_t>(start) + 1) % count;
    for (size_t k = 0; k < count; ++k) {
        size_t i = (first + k) % count;
        if (StartsWithFolded(st.items[i].text, key, exact))
            return static_cast<LRESULT>(i);
    }
    return CB_ERR;
}

LRESULT CALLBACK ComboProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    LRESULT result = 0;
    if (Lifetime<ComboState>(hwnd, msg, wParam, lParam, &result))
        return result;
    auto *st = StateOf<ComboState>(hwnd);
    if (st == nullptr)
        return DefWindowProcW(hwnd, msg, wParam, lParam);
    const auto count = static_cast<int>(st->items.size());
    switch (msg) {
    case CB_ADDSTRING:
    case CB_INSERTSTRING: {
        ComboItem item{lParam ? std::u16string(reinterpret_cast<const char16_t *>(lParam)) : std::u16string(), 0};
        size_t at = st->items.size();
        if (msg == CB_ADDSTRING && (StyleOf(hwnd) & CBS_SORT)) {
            at = 0;
            while (at < st->items.size() && CompareJapanese(st->items[at].text, item.text) <= 0)
                ++at;
        } else if (msg == CB_INSERTSTRING && static_cast<int>(wParam) >= 0) {
            if (static_cast<int>(wParam) > count)
                return CB_ERR;
            at = wParam;
        }
        st->items.insert(st->items.begin() + static_cast<std::ptrdiff_t>(at), item);
        if (st->sel >= static_cast<int>(at))
            st->sel++;
        return static_cast<LRESULT>(at);
    }
    case CB_DELETESTRING: {
        const int i = static_cast<int>(wParam);
        if (i < 0 || i >= count)
            return CB_ERR;
        st->items.erase(st->items.begin() + i);
        if (st->sel == i)
            st->sel = -1;
        else if (st->sel > i)
            st->sel--;
        return count - 1;
    }
    case CB_RESETCONTENT:
        st->items.clear();
        st->sel = -1;
        return 0;
    case CB_GETCOUNT:
        return count;
    case CB_GETCURSEL:
        return st->sel;
    case CB_SETCURSEL: {
        const int i = static_cast<int>(wParam);
        st->sel = i >= 0 && i < count ? i : -1;
        return st->sel < 0 ? CB_ERR : st->sel;
    }
    case CB_GETLBTEXT:
    case CB_GETLBTEXTLEN: {
        const int i = static_cast<int>(wParam);
        if (i < 0 || i >= count)
            return CB_ERR;
        const auto &t = st->items[static_cast<size_t>(i)].text;
        if (msg == CB_GETLBTEXT && lParam != 0)
            std::copy_n(t.c_str(), t.size() + 1, reinterpret_cast<char16_t *>(lParam));
        return static_cast<LRESULT>(t.size());
    }
    case CB_GETITEMDATA:
    case CB_SETITEMDATA: {
        const int i = static_cast<int>(wParam);
        if (i < 0 || i >= count)
            return CB_ERR;
        if (msg == CB_SETITEMDATA)
            st->items[static_cast<size_t>(i)].data = lParam;
        return msg == CB_SETITEMDATA ? TRUE : st->items[static_cast<size_t>(i)].data;
    }
    case CB_FINDSTRING:
    case CB_FINDSTRINGEXACT:
        return FindItem(*st, wParam, lParam, msg == CB_FINDSTRINGEXACT);
    case CB_SELECTSTRING: {
        LRESULT i = FindItem(*st, wParam, lParam, false);
        if (i != CB_ERR)
            st->sel = static_cast<int>(i);
        return i;
    }
    case WM_GETTEXT:
    case WM_GETTEXTLENGTH: {
        // A drop-down list shows its selected item.
        const std::u16string t = st->sel >= 0 ? st->items[static_cast<size_t>(st->sel)].text : u"";
        if (msg == WM_GETTEXTLENGTH)
            return static_cast<LRESULT>(t.size());
        auto *buf = reinterpret_cast<char16_t *>(lParam);
        if (buf == nullptr || wParam == 0)
            return 0;
        size_t n = std::min<size_t>(t.size(), wParam - 1);
        std::copy_n(t.data(), n, buf);
        buf[n] = 0;
        return static_cast<LRESULT>(n);
    }
    case WM_KEYDOWN: {
        // The arrow keys move the selection of a closed list, as the user does.
        int next = st->sel;
        if (wParam == VK_DOWN || wParam == VK_RIGHT)
            next = std::min(st->sel + 1, count - 1);
        else if (wParam == VK_UP || wParam == VK_LEFT)
            next = st->sel < 0 ? 0 : std::max(st->sel - 1, 0);
        else if (wParam == VK_HOME)
            next = 0;
        else if (wParam == VK_END)
            next = count - 1;
        if (count > 0 && next != st->sel && next >= 0) {
            st->sel = next;
            Notify(hwnd, CBN_SELCHANGE);
        }
        return 0;
    }
    case WM_GETDLGCODE:
        return DLGC_WANTARROWS | DLGC_WANTCHARS;
    default:
        return DefWindowProcW(hwnd, msg, wParam, lParam);
    }
}

// ---- SCROLLBAR --------------------------------------------------------------

struct ScrollState {
    int min = 0;
    int max = 100;
    int pos = 0;
    bool tracking = false;
    int trackPos = 0;
};

bool IsVertical(HWND hwnd)
{
    return (StyleOf(hwnd) & SBS_VERT) != 0;
}

void SendScroll(HWND hwnd, int code, int pos)
{
    HWND parent = GetParent(hwnd);
    if (parent != nullptr)
        SendMessageW(parent, IsVertical(hwnd) ? WM_VSCROLL : WM_HSCROLL,
                     static_cast<WPARAM>(MAKELONG(code, static_cast<WORD>(pos))), reinterpret_cast<LPARAM>(hwnd));
}

// Geometry along the bar: arrow buttons as long as the bar is thick, a
// square thumb moving in between.
struct ScrollGeometry {
    int length, arrow, thumbAt, travel;
};

ScrollGeometry GeometryOf(HWND hwnd, const ScrollState &st)
{
    RECT rc;
    GetClientRect(hwnd, &rc);
    const bool vert = IsVertical(hwnd);
    ScrollGeometry g{};
    g.length = vert ? rc.bottom : rc.right;
    g.arrow = std::min(vert ? rc.right : rc.bottom, g.length / 3);
    g.travel = std::max(g.length - 3 * g.arrow, 0);
    const int span = st.max - st.min;
    g.thumbAt = g.arrow + (span > 0 ? (st.pos - st.min) * g.travel / span : 0);
    return g;
}

int PositionAt(const ScrollGeometry &g, const ScrollState &st, int along)
{
    const int span = st.max - st.min;
    if (g.travel <= 0 || span <= 0)
        return st.min;
    const int offset = along - g.arrow - g.arrow / 2;
    const int pos = st.min + (offset * span + g.travel / 2) / g.travel;
    return std::clamp(pos, st.min, st.max);
}

LRESULT CALLBACK ScrollBarProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    LRESULT result = 0;
    if (Lifetime<ScrollState>(hwnd, msg, wParam, lParam, &result))
        return result;
    auto *st = StateOf<ScrollState>(hwnd);
    if (st == nullptr)
        return DefWindowProcW(hwnd, msg, wParam, lParam);
    const bool vert = IsVertical(hwnd);
    switch (msg) {
    case SBM_SETPOS: {
        const int old = st->pos;
        st->pos = std::clamp(static_cast<int>(wParam), st->min, std::max(st->min, st->max));
        return old;
    }
    case SBM_GETPOS:
        return st->pos;
    case SBM_SETRANGE: {
        const int old = st->pos;
        st->min = static_cast<int>(wParam);
        st->max = static_cast<int>(lParam);
        st->pos = std::clamp(st->pos, st->min, std::max(st->min, st->max));
        return old;
    }
    case SBM_GETRANGE:
        if (wParam != 0)
            *reinterpret_cast<LPINT>(wParam) = st->min;
        if (lParam != 0)
            *reinterpret_cast<LPINT>(lParam) = st->max;
        return 0;
    case WM_KEYDOWN: {
        int code = -1;
        switch (wParam) {
        case VK_LEFT:
        case VK_UP:
            code = SB_LINEUP;
            break;
        case VK_RIGHT:
        case VK_DOWN:
            code = SB_LINEDOWN;
            break;
        case VK_PRIOR:
            code = SB_PAGEUP;
            break;
        case VK_NEXT:
            code = SB_PAGEDOWN;
            break;
        case VK_HOME:
            code = SB_TOP;
            break;
        case VK_END:
            code = SB_BOTTOM;
            break;
        default:
            break;
        }
        if (code >= 0)
            SendScroll(hwnd, code, 0);
        return 0;
    }
    case WM_KEYUP:
        if (wParam >= VK_PRIOR && wParam <= VK_DOWN)
            SendScroll(hwnd, SB_ENDSCROLL, 0);
        return 0;
    case WM_LBUTTONDOWN: {
        const int along = vert ? static_cast<short>(HIWORD(lParam)) : static_cast<short>(LOWORD(lParam));
        const ScrollGeometry g = GeometryOf(hwnd, *st);
        if (along < g.arrow)
            SendScroll(hwnd, SB_LINEUP, 0);
        else if (along >= g.length - g.arrow)
            SendScroll(hwnd, SB_LINEDOWN, 0);
        else if (along < g.thumbAt)
            SendScroll(hwnd, SB_PAGEUP, 0);
        else if (along >= g.thumbAt + g.arrow)
            SendScroll(hwnd, SB_PAGEDOWN, 0);
        else {
            st->tracking = true;
            st->trackPos = st->pos;
        }
        return 0;
    }
    case WM_MOUSEMOVE:
        if (st->tracking) {
            const int along = vert ? static_cast<short>(HIWORD(lParam)) : static_cast<short>(LOWORD(lParam));
            const int p = PositionAt(GeometryOf(hwnd, *st), *st, along);
            if (p != st->trackPos) {
                st->trackPos = p;
                SendScroll(hwnd, SB_THUMBTRACK, p);
            }
        }
        return 0;
    case WM_LBUTTONUP:
        if (st->tracking) {
            st->tracking = false;
            SendScroll(hwnd, SB_THUMBPOSITION, st->trackPos);
        }
        SendScroll(hwnd, SB_ENDSCROLL, 0);
        return 0;
    case WM_GETDLGCODE:
        return DLGC_WANTARROWS;
    default:
        return DefWindowProcW(hwnd, msg, wParam, lParam);
    }
}

LRESULT SendToControl(HWND hwnd, int bar, UINT msg, WPARAM wParam, LPARAM lParam, bool *ok)
{
    *ok = false;
    if (bar != SB_CTL) {
        SetError(ERROR_INVALID_PARAMETER); // window scroll bars are not provided
        return 0;
    }
    if (!IsWindow(hwnd)) {
        SetError(ERROR_INVALID_WINDOW_HANDLE);
        return 0;
    }
    *ok = true;
    return SendMessageW(hwnd, msg, wParam, lParam);
}

} // namespace

// Adds the standard control classes the first time a class is looked up
// (world lock held). They are global and belong to no module.
void AddSystemClasses()
{
    static bool added = false;
    if (added)
        return;
    added = true;
    struct Def {
        const char16_t *name;
        WNDPROC proc;
        int extra;
    };
    const Def defs[] = {
        {u"Button", ButtonProc, sizeof(void *)},       {u"Static", StaticProc, 0},
        {u"Edit", EditProc, sizeof(void *)},           {u"ComboBox", ComboProc, sizeof(void *)},
        {u"ScrollBar", ScrollBarProc, sizeof(void *)}, {u"#32770", DialogClassProc, kDialogExtra},
    };
    ATOM atom = 0xB000;
    for (const Def &d : defs) {
        auto cls = std::make_shared<WindowClass>();
        cls->name = d.name;
        cls->atom = atom++;
        cls->wc.style = CS_GLOBALCLASS;
        cls->wc.lpfnWndProc = d.proc;
        cls->wc.cbWndExtra = d.extra;
        cls->wc.lpszClassName = reinterpret_cast<LPCWSTR>(cls->name.c_str());
        User().classes.push_back(cls);
    }
}

} // namespace plat

using namespace plat;

// SetScrollPos and GetScrollPos live with the window scroll positions; a
// scroll-bar control is positioned with SBM_SETPOS and SBM_GETPOS.

extern "C" BOOL WINAPI SetScrollRange(HWND wnd, int bar, int minPos, int maxPos, BOOL redraw)
{
    (void)redraw;
    bool ok;
    SendToControl(wnd, bar, SBM_SETRANGE, static_cast<WPARAM>(minPos), maxPos, &ok);
    return ok ? TRUE : FALSE;
}

extern "C" BOOL WINAPI GetScrollRange(HWND wnd, int bar, LPINT minPos, LPINT maxPos)
{
    bool ok;
    SendToControl(wnd, bar, SBM_GETRANGE, reinterpret_cast<WPARAM>(minPos), reinterpret_cast<LPARAM>(maxPos), &ok);
    return ok ? TRUE : FALSE;
}
