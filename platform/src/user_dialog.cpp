// The dialog manager: dialogs built from RT_DIALOG templates (DIALOG and
// DIALOGEX forms), modal and modeless, the default dialog processing of
// the "#32770" class, dialog units, keyboard navigation and the helpers
// that address a dialog's controls by id.
#include <windows.h>

#include "resources.h"
#include "user.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#ifndef ERROR_WINDOW_NOT_DIALOG
#define ERROR_WINDOW_NOT_DIALOG 1420L
#endif
#ifndef ERROR_CONTROL_ID_NOT_FOUND
#define ERROR_CONTROL_ID_NOT_FOUND 1421L
#endif

namespace plat
{
namespace
{

// Dialog base units in pixels: a dialog unit is a quarter of the average
// character width horizontally and an eighth of its height vertically.
constexpr int kBaseX = 6;
constexpr int kBaseY = 13;

int Scale(int v, int num, int den)
{
    return static_cast<int>((static_cast<long long>(v) * num) / den);
}

struct DialogState {
    bool ended = false;
    INT_PTR result = 0;
};

// Dialog windows and their end state (world lock held).
std::map<HWND, DialogState> &Dialogs()
{
    static std::map<HWND, DialogState> dialogs;
    return dialogs;
}

bool IsInside(HWND dlg, HWND hwnd)
{
    auto lock = LockWorld();
    return IsSelfOrDescendant(hwnd, dlg);
}

bool IsDialog(HWND hwnd)
{
    auto lock = LockWorld();
    return Dialogs().count(hwnd) != 0;
}

// ---- Template reading -----------------------------------------------------

class Reader
{
public:
    Reader(const BYTE *data, DWORD size) : data_(data), size_(size) {}
    bool ok() const { return ok_; }
    size_t at() const { return at_; }
    WORD Word()
    {
        WORD w = 0;
        if (at_ + 2 > size_) {
            ok_ = false;
            return 0;
        }
        memcpy(&w, data_ + at_, 2);
        at_ += 2;
        return w;
    }
    DWORD Dword()
    {
        DWORD lo = Word();
        return lo | (static_cast<DWORD>(Word()) << 16);
    }
    // A string or an ordinal (0xFFFF followed by the ordinal).
    std::u16string SzOrOrd(WORD *ordinal)
    {
        *ordinal = 0;
        WORD first = Word();
        if (first == 0xFFFF) {
            *ordinal = Word();
            return u"";
        }
        std::u16string s;
        for (WORD c = first; ok_ && c != 0; c = Word())
            s.push_back(static_cast<char16_t>(c));
        return s;
    }
    void AlignDword() { at_ = (at_ + 3) & ~static_cast<size_t>(3); }
    const BYTE *Here() const { return data_ + at_; }
    void Skip(size_t n)
    {
        if (at_ + n > size_)
            ok_ = false;
        at_ += n;
    }

private:
    const BYTE *data_;
    DWORD size_;
    size_t at_ = 0;
    bool ok_ = true;
};

struct ItemTemplate {
    DWORD style = 0, exStyle = 0;
    short x = 0, y = 0, cx = 0, cy = 0;
    DWORD id = 0;
    std::u16string cls, text;
    const BYTE *creationData = nullptr;
};

struct DialogTemplate {
    DWORD style = 0, exStyle = 0;
    short x = 0, y = 0, cx = 0, cy = 0;
    std::u16string cls, title;
    std::vector<ItemTemplate> items;
};

const char16_t *ClassOfOrdinal(WORD ord)
{
    switch (ord) {
    case 0x80:
        return u"Button";
    case 0x81:
        return u"Edit";
    case 0x82:
        return u"Static";
    case 0x83:
        return u"ListBox";
    case 0x84:
        return u"ScrollBar";
    case 0x85:
        return u"ComboBox";
    default:
        return u"";
    }
}

bool ParseTemplate(const BYTE *data, DWORD size, DialogTemplate *t)
{
    Reader r(data, size);
    const bool ex = size >= 4 && data[0] == 1 && data[1] == 0 && data[2] == 0xFF && data[3] == 0xFF;
    WORD count;
    if (ex) {
        r.Skip(8); // version, signature, help id
        t->exStyle = r.Dword();
        t->style = r.Dword();
    } else {
        t->style = r.Dword();
        t->exStyle = r.Dword();
    }
    count = r.Word();
    t->x = static_cast<short>(r.Word());
    t->y = static_cast<short>(r.Word());
    t->cx = static_cast<short>(r.Word());
    t->cy = static_cast<short>(r.Word());
    WORD ord;
    r.SzOrOrd(&ord); // menu: dialogs of this platform have none
    t->cls = r.SzOrOrd(&ord);
    t->title = r.SzOrOrd(&ord);
    if (t->style & DS_SETFONT) {
        r.Word(); // point size
        if (ex)
            r.Skip(4); // weight, italic, charset
        r.SzOrOrd(&ord);
    }
    for (WORD i = 0; i < count && r.ok(); ++i) {
        r.AlignDword();
        ItemTemplate it;
        if (ex) {
            r.Skip(4); // help id
            it.exStyle = r.Dword();
            it.style = r.Dword();
        } else {
            it.style = r.Dword();
            it.exStyle = r.Dword();
        }
        it.x = static_cast<short>(r.Word());
        it.y = static_cast<short>(r.Word());
        it.cx = static_cast<short>(r.Word());
        it.cy = static_cast<short>(r.Word());
        it.id = ex ? r.Dword() : r.Word();
        it.cls = r.SzOrOrd(&ord);
        if (ord != 0)
            it.cls = ClassOfOrdinal(ord);
        it.text = r.SzOrOrd(&ord);
        WORD extra = r.Word();
        if (extra > 0) {
            it.creationData = r.Here();
            r.Skip(extra);
        }
        t->items.push_back(std::move(it));
    }
    return r.ok();
}

RECT DialogUnitsToPixels(short x, short y, short cx, short cy)
{
    return RECT{Scale(x, kBaseX, 4), Scale(y, kBaseY, 8), Scale(x + cx, kBaseX, 4), Scale(y + cy, kBaseY, 8)};
}

// The first control with WS_TABSTOP that is visible and enabled.
HWND FirstTabStop(HWND dlg)
{
    for (HWND c = GetWindow(dlg, GW_CHILD); c != nullptr; c = GetWindow(c, GW_HWNDNEXT)) {
        DWORD style = static_cast<DWORD>(GetWindowLongW(c, GWL_STYLE));
        if ((style & WS_TABSTOP) && !(style & WS_DISABLED) && (style & WS_VISIBLE))
            return c;
    }
    return nullptr;
}

HWND CreateFromTemplate(HINSTANCE instance, LPCWSTR name, HWND owner, DLGPROC proc, LPARAM param, bool modal)
{
    ResourceBytes res;
    if (!FindResourceBytes(instance, RT_DIALOG, name, &res))
        return nullptr;
    DialogTemplate t;
    if (!ParseTemplate(res.data, res.size, &t)) {
        SetError(ERROR_RESOURCE_DATA_NOT_FOUND);
        return nullptr;
    }
    RECT rc = DialogUnitsToPixels(t.x, t.y, t.cx, t.cy);
    AdjustWindowRect(&rc, t.style, FALSE);
    if (owner != nullptr && !(t.style & DS_ABSALIGN)) {
        POINT origin{0, 0};
        ClientToScreen(owner, &origin);
        OffsetRect(&rc, origin.x, origin.y);
    }
    const DWORD style = t.style & ~static_cast<DWORD>(WS_VISIBLE | WS_CHILD);
    const std::u16string cls = t.cls.empty() ? u"#32770" : t.cls;
    HWND dlg = CreateWindowExW(t.exStyle, reinterpret_cast<LPCWSTR>(cls.c_str()),
                               reinterpret_cast<LPCWSTR>(t.title.c_str()), style, rc.left, rc.top, rc.right - rc.left,
                               rc.bottom - rc.top, owner, nullptr, instance, nullptr);
    if (dlg == nullptr)
        return nullptr;
    {
        auto lock = LockWorld();
        Dialogs()[dlg] = DialogState{};
    }
    SetWindowLongPtrW(dlg, DWLP_DLGPROC, reinterpret_cast<LONG_PTR>(proc));
    for (const ItemTemplate &it : t.items) {
        RECT ir = DialogUnitsToPixels(it.x, it.y, it.cx, it.cy);
        HWND ctl = CreateWindowExW(
            it.exStyle, reinterpret_cast<LPCWSTR>(it.cls.c_str()), reinterpret_cast<LPCWSTR>(it.text.c_str()),
            it.style | WS_CHILD, ir.left, ir.top, ir.right - ir.left, ir.bottom - ir.top, dlg,
            reinterpret_cast<HMENU>(static_cast<UINT_PTR>(it.id)), instance, const_cast<BYTE *>(it.creationData));
        if (ctl == nullptr) {
            DWORD err = GetLastError();
            DestroyWindow(dlg);
            SetError(err);
            return nullptr;
        }
    }
    HWND focus = FirstTabStop(dlg);
    if (SendMessageW(dlg, WM_INITDIALOG, reinterpret_cast<WPARAM>(focus), param) != 0 && focus != nullptr)
        SetFocus(focus);
    if (!IsWindow(dlg))
        return nullptr;
    if (!modal && (t.style & WS_VISIBLE))
        ShowWindow(dlg, SW_SHOWNORMAL);
    return dlg;
}

// Messages whose dialog-procedure result is the message's result itself.
bool ReturnsDirectly(UINT msg)
{
    return msg == WM_INITDIALOG || (msg >= WM_CTLCOLORMSGBOX && msg <= WM_CTLCOLORSTATIC) || msg == 0x0039 ||
           msg == 0x002F || msg == 0x0030 || msg == 0x0037 || msg == 0x004E;
}

// The control of `dlg` whose push-button style is the default one.
HWND DefaultButton(HWND dlg)
{
    for (HWND c = GetWindow(dlg, GW_CHILD); c != nullptr; c = GetWindow(c, GW_HWNDNEXT)) {
        if (SendMessageW(c, WM_GETDLGCODE, 0, 0) & DLGC_DEFPUSHBUTTON)
            return c;
    }
    return nullptr;
}

void PostCommand(HWND dlg, int id)
{
    HWND ctl = GetDlgItem(dlg, id);
    if (ctl != nullptr && !IsWindowEnabled(ctl))
        return;
    PostMessageW(dlg, WM_COMMAND, static_cast<WPARAM>(MAKELONG(id, BN_CLICKED)), reinterpret_cast<LPARAM>(ctl));
}

HWND NextTabStop(HWND dlg, HWND from, bool previous)
{
    std::vector<HWND> stops;
    for (HWND c = GetWindow(dlg, GW_CHILD); c != nullptr; c = GetWindow(c, GW_HWNDNEXT)) {
        DWORD style = static_cast<DWORD>(GetWindowLongW(c, GWL_STYLE));
        if ((style & WS_TABSTOP) && IsWindowEnabled(c) && (style & WS_VISIBLE))
            stops.push_back(c);
    }
    if (stops.empty())
        return nullptr;
    auto it = std::find(stops.begin(), stops.end(), from);
    if (it == stops.end())
        return previous ? stops.back() : stops.front();
    size_t i = static_cast<size_t>(it - stops.begin());
    return stops[(i + (previous ? stops.size() - 1 : 1)) % stops.size()];
}

} // namespace

LRESULT CALLBACK DialogClassProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    auto proc = reinterpret_cast<DLGPROC>(GetWindowLongPtrW(hwnd, DWLP_DLGPROC));
    if (proc != nullptr) {
        SetWindowLongPtrW(hwnd, DWLP_MSGRESULT, 0);
        INT_PTR handled = proc(hwnd, msg, wParam, lParam);
        if (handled != 0)
            return ReturnsDirectly(msg) ? handled : GetWindowLongPtrW(hwnd, DWLP_MSGRESULT);
        if (!IsWindow(hwnd))
            return 0;
    }
    switch (msg) {
    case WM_CLOSE:
        // Closing a dialog is its Cancel button, unless that is disabled.
        PostCommand(hwnd, IDCANCEL);
        return 0;
    case DM_GETDEFID: {
        HWND def = DefaultButton(hwnd);
        return def ? MAKELONG(GetDlgCtrlID(def), DC_HASDEFID) : 0;
    }
    case DM_SETDEFID:
        for (HWND c = GetWindow(hwnd, GW_CHILD); c != nullptr; c = GetWindow(c, GW_HWNDNEXT)) {
            LRESULT code = SendMessageW(c, WM_GETDLGCODE, 0, 0);
            if (code & (DLGC_DEFPUSHBUTTON | DLGC_UNDEFPUSHBUTTON))
                SendMessageW(c, BM_SETSTYLE,
                             GetDlgCtrlID(c) == static_cast<int>(wParam) ? BS_DEFPUSHBUTTON : BS_PUSHBUTTON, TRUE);
        }
        return TRUE;
    case WM_NCDESTROY: {
        auto lock = LockWorld();
        Dialogs().erase(hwnd);
        break;
    }
    default:
        break;
    }
    return DefWindowProcW(hwnd, msg, wParam, lParam);
}

} // namespace plat

using namespace plat;

PLAT_INJECTABLE(DialogBoxParamW);
PLAT_INJECTABLE(CreateDialogParamW);

extern "C" HWND WINAPI CreateDialogParamW(HINSTANCE instance, LPCWSTR templateName, HWND owner, DLGPROC proc,
                                          LPARAM initParam)
{
    if (PLAT_FAIL(CreateDialogParamW, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    return CreateFromTemplate(instance, templateName, owner, proc, initParam, false);
}

// Runs a dialog modally: the owner is disabled while it runs, the calling
// thread's messages go through the dialog until EndDialog, and a quit
// message ends the dialog early and is posted again for the caller's loop.
extern "C" INT_PTR WINAPI DialogBoxParamW(HINSTANCE instance, LPCWSTR templateName, HWND owner, DLGPROC proc,
                                          LPARAM initParam)
{
    if (PLAT_FAIL(DialogBoxParamW, ERROR_NOT_ENOUGH_MEMORY))
        return -1;
    if (owner != nullptr && !IsWindow(owner)) {
        SetError(ERROR_INVALID_WINDOW_HANDLE);
        return -1;
    }
    HWND dlg = CreateFromTemplate(instance, templateName, owner, proc, initParam, true);
    if (dlg == nullptr)
        return -1;
    const bool disableOwner = owner != nullptr && IsWindowEnabled(owner);
    if (disableOwner)
        EnableWindow(owner, FALSE);
    auto ended = [dlg](INT_PTR *result) {
        auto lock = LockWorld();
        auto it = Dialogs().find(dlg);
        if (it == Dialogs().end())
            return true;
        *result = it->second.result;
        return it->second.ended;
    };
    INT_PTR result = 0;
    if (!ended(&result))
        ShowWindow(dlg, SW_SHOWNORMAL);
    MSG msg;
    while (!ended(&result)) {
        BOOL got = GetMessageW(&msg, nullptr, 0, 0);
        if (got <= 0) {
            if (got == 0)
                PostQuitMessage(static_cast<int>(msg.wParam));
            break;
        }
        if (!IsDialogMessageW(dlg, &msg)) {
            TranslateMessage(&msg);
            DispatchMessageW(&msg);
        }
    }
    if (disableOwner)
        EnableWindow(owner, TRUE);
    // What is left for the dialog goes with it; a paint still due (it was
    // invalidated when shown and ended before it painted) would come back
    // at every peek, so the dialog is made valid.
    while (PeekMessageW(&msg, dlg, WM_NULL, WM_NULL, PM_REMOVE)) {
        if (msg.message == WM_PAINT)
            ValidateRect(dlg, nullptr);
    }
    if (IsWindow(dlg))
        DestroyWindow(dlg);
    return result;
}

extern "C" BOOL WINAPI EndDialog(HWND dlg, INT_PTR result)
{
    {
        auto lock = LockWorld();
        auto it = Dialogs().find(dlg);
        if (it == Dialogs().end()) {
            SetError(ERROR_WINDOW_NOT_DIALOG);
            return FALSE;
        }
        it->second.ended = true;
        it->second.result = result;
    }
    // The dialog disappears at once; a modal loop sees the end after the
    // message it is handling, and the null message wakes it when the end
    // came from a message sent to it while it waited.
    ShowWindow(dlg, SW_HIDE);
    PostMessageW(dlg, WM_NULL, 0, 0);
    return TRUE;
}

// Keyboard handling of a dialog: Tab moves the focus, Enter presses the
// default button (IDOK without one), Escape presses IDCANCEL. Every other
// message for the dialog or one of its controls is dispatched here.
extern "C" BOOL WINAPI IsDialogMessageW(HWND dlg, LPMSG msg)
{
    if (msg == nullptr || dlg == nullptr || !IsDialog(dlg))
        return FALSE;
    if (msg->hwnd != dlg && (msg->hwnd == nullptr || !IsInside(dlg, msg->hwnd)))
        return FALSE;
    if (msg->message == WM_KEYDOWN) {
        LRESULT code =
            msg->hwnd != dlg ? SendMessageW(msg->hwnd, WM_GETDLGCODE, msg->wParam, reinterpret_cast<LPARAM>(msg)) : 0;
        if (!(code & DLGC_WANTALLKEYS)) {
            switch (msg->wParam) {
            case VK_TAB:
                if (!(code & DLGC_WANTTAB)) {
                    HWND next = NextTabStop(dlg, GetFocus(), GetKeyState(VK_SHIFT) < 0);
                    if (next != nullptr)
                        SetFocus(next);
                    return TRUE;
                }
                break;
            case VK_RETURN: {
                LRESULT def = SendMessageW(dlg, DM_GETDEFID, 0, 0);
                PostCommand(dlg, HIWORD(def) == DC_HASDEFID ? LOWORD(def) : IDOK);
                return TRUE;
            }
            case VK_ESCAPE:
                PostCommand(dlg, IDCANCEL);
                return TRUE;
            default:
                break;
            }
        }
    }
    TranslateMessage(msg);
    DispatchMessageW(msg);
    return TRUE;
}

extern "C" HWND WINAPI GetDlgItem(HWND dlg, int id)
{
    if (!IsWindow(dlg)) {
        SetError(ERROR_INVALID_WINDOW_HANDLE);
        return nullptr;
    }
    for (HWND c = GetWindow(dlg, GW_CHILD); c != nullptr; c = GetWindow(c, GW_HWNDNEXT)) {
        if (static_cast<int>(GetWindowLongPtrW(c, GWLP_ID)) == id)
            return c;
    }
    SetError(ERROR_CONTROL_ID_NOT_FOUND);
    return nullptr;
}

extern "C" int WINAPI GetDlgCtrlID(HWND wnd)
{
    if (!IsWindow(wnd)) {
        SetError(ERROR_INVALID_WINDOW_HANDLE);
        return 0;
    }
    return static_cast<int>(GetWindowLongPtrW(wnd, GWLP_ID));
}

extern "C" LRESULT WINAPI SendDlgItemMessageW(HWND dlg, int id, UINT msg, WPARAM wParam, LPARAM lParam)
{
    HWND ctl = GetDlgItem(dlg, id);
    return ctl ? SendMessageW(ctl, msg, wParam, lParam) : 0;
}

extern "C" BOOL WINAPI SetDlgItemTextW(HWND dlg, int id, LPCWSTR text)
{
    HWND ctl = GetDlgItem(dlg, id);
    return ctl ? SetWindowTextW(ctl, text) : FALSE;
}

extern "C" UINT WINAPI GetDlgItemTextW(HWND dlg, int id, LPWSTR text, int max)
{
    HWND ctl = GetDlgItem(dlg, id);
    if (ctl == nullptr) {
        if (text != nullptr && max > 0)
            text[0] = 0;
        return 0;
    }
    return static_cast<UINT>(GetWindowTextW(ctl, text, max));
}

extern "C" BOOL WINAPI SetDlgItemInt(HWND dlg, int id, UINT value, BOOL isSigned)
{
    std::u16string s = isSigned ? ToUtf16(std::to_string(static_cast<int>(value))) : ToUtf16(std::to_string(value));
    return SetDlgItemTextW(dlg, id, reinterpret_cast<LPCWSTR>(s.c_str()));
}

// Reads a decimal number, blanks around it allowed; `translated` tells
// whether the text was a number that fits.
extern "C" UINT WINAPI GetDlgItemInt(HWND dlg, int id, BOOL *translated, BOOL isSigned)
{
    if (translated != nullptr)
        *translated = FALSE;
    WCHAR buf[64];
    if (GetDlgItemTextW(dlg, id, buf, 64) == 0)
        return 0;
    size_t i = 0;
    while (buf[i] == u' ')
        ++i;
    bool negative = false;
    if (isSigned && buf[i] == u'-') {
        negative = true;
        ++i;
    }
    if (buf[i] < u'0' || buf[i] > u'9')
        return 0;
    unsigned long long v = 0;
    for (; buf[i] >= u'0' && buf[i] <= u'9'; ++i) {
        v = v * 10 + static_cast<unsigned>(buf[i] - u'0');
        if (v > 0xFFFFFFFFull)
            return 0;
    }
    while (buf[i] == u' ')
        ++i;
    if (buf[i] != 0)
        return 0;
    if (isSigned && v > (negative ? 0x80000000ull : 0x7FFFFFFFull))
        return 0;
    if (translated != nullptr)
        *translated = TRUE;
    return negative ? static_cast<UINT>(0u - static_cast<UINT>(v)) : static_cast<UINT>(v);
}

extern "C" BOOL WINAPI CheckDlgButton(HWND dlg, int id, UINT check)
{
    HWND ctl = GetDlgItem(dlg, id);
    if (ctl == nullptr)
        return FALSE;
    SendMessageW(ctl, BM_SETCHECK, check, 0);
    return TRUE;
}

extern "C" UINT WINAPI IsDlgButtonChecked(HWND dlg, int id)
{
    return static_cast<UINT>(SendDlgItemMessageW(dlg, id, BM_GETCHECK, 0, 0));
}

extern "C" BOOL WINAPI CheckRadioButton(HWND dlg, int first, int last, int check)
{
    BOOL found = FALSE;
    for (int id = first; id <= last; ++id) {
        HWND ctl = GetDlgItem(dlg, id);
        if (ctl == nullptr)
            continue;
        found = TRUE;
        SendMessageW(ctl, BM_SETCHECK, id == check ? BST_CHECKED : BST_UNCHECKED, 0);
    }
    return found;
}

extern "C" HWND WINAPI GetNextDlgTabItem(HWND dlg, HWND ctl, BOOL previous)
{
    return NextTabStop(dlg, ctl, previous != FALSE);
}

extern "C" BOOL WINAPI MapDialogRect(HWND dlg, LPRECT rect)
{
    if (rect == nullptr || !IsDialog(dlg)) {
        SetError(ERROR_WINDOW_NOT_DIALOG);
        return FALSE;
    }
    *rect = RECT{Scale(rect->left, kBaseX, 4), Scale(rect->top, kBaseY, 8), Scale(rect->right, kBaseX, 4),
                 Scale(rect->bottom, kBaseY, 8)};
    return TRUE;
}

extern "C" LONG WINAPI GetDialogBaseUnits(void)
{
    return MAKELONG(kBaseX, kBaseY);
}
