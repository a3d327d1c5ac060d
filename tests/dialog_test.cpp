// The dialog manager and the standard controls, driven through the dialog
// templates of the library's resources (the spin-arrow control is pressed
// and held in the driver's own GP-IB dialog, in the configuration tests).
#include "support/platform_fixture.h"

#include "resources/resource.h"

#include <string>
#include <vector>

namespace
{

struct Seen {
    UINT msg;
    WPARAM wParam;
    LPARAM lParam;
};

std::vector<Seen> g_seen;
LPARAM g_initParam;
HWND g_ownerDuringInit;
BOOL g_ownerEnabledDuringInit;

// Records commands and scroll notifications; ends with 42 on IDCANCEL.
INT_PTR CALLBACK RecordingProc(HWND dlg, UINT msg, WPARAM wParam, LPARAM lParam)
{
    switch (msg) {
    case WM_INITDIALOG:
        g_initParam = lParam;
        g_ownerDuringInit = GetWindow(dlg, GW_OWNER);
        g_ownerEnabledDuringInit = g_ownerDuringInit ? IsWindowEnabled(g_ownerDuringInit) : TRUE;
        return TRUE;
    case WM_COMMAND:
    case WM_HSCROLL:
    case WM_VSCROLL:
        g_seen.push_back({msg, wParam, lParam});
        if (msg == WM_COMMAND && LOWORD(wParam) == IDCANCEL)
            EndDialog(dlg, 42);
        return TRUE;
    default:
        return FALSE;
    }
}

INT_PTR CALLBACK ClosingProc(HWND dlg, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == WM_INITDIALOG)
        PostMessageW(dlg, WM_CLOSE, 0, 0); // the user closes it at once
    return RecordingProc(dlg, msg, wParam, lParam);
}

std::u16string ItemText(HWND combo, int i)
{
    WCHAR buf[64] = {};
    SendMessageW(combo, CB_GETLBTEXT, i, (LPARAM)buf);
    return reinterpret_cast<const char16_t *>(buf);
}

class DialogTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        UseVirtualClock();
        g_seen.clear();
    }
    void TearDown() override
    {
        if (dlg_)
            DestroyWindow(dlg_);
        PlatformTest::TearDown();
    }
    HWND Open(int id)
    {
        dlg_ = CreateDialogParamW(module_, MAKEINTRESOURCEW(id), nullptr, RecordingProc, 7);
        return dlg_;
    }
    HMODULE module_ = GetModuleHandleW(nullptr);
    HWND dlg_ = nullptr;
};

TEST_F(DialogTest, ModalDialogEndsByCloseAsCancelAndGivesOwnerBack)
{
    WNDCLASSW wc{};
    wc.lpfnWndProc = DefWindowProcW;
    wc.hInstance = module_;
    wc.lpszClassName = TEXT("DialogOwner");
    ASSERT_TRUE(RegisterClassW(&wc));
    HWND owner = CreateWindowExW(0, TEXT("DialogOwner"), TEXT(""), 0, 0, 0, 50, 50, nullptr, nullptr, module_, nullptr);

    EXPECT_EQ(DialogBoxParamW(module_, MAKEINTRESOURCEW(IDD_SCANMODE), owner, ClosingProc, 0x1234), 42);
    EXPECT_EQ(g_initParam, 0x1234);
    EXPECT_EQ(g_ownerDuringInit, owner);
    EXPECT_TRUE(IsWindowEnabled(owner)) << "owner enabled again";
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(LOWORD(g_seen[0].wParam), IDCANCEL);

    EXPECT_EQ(DialogBoxParamW(module_, MAKEINTRESOURCEW(1099), owner, ClosingProc, 0), -1) << "no such template";
    EXPECT_EQ(DialogBoxParamW(module_, MAKEINTRESOURCEW(IDD_GPIB), owner, ClosingProc, 0), -1)
        << "a control of an unknown class fails the dialog";
    PlatFailCall("DialogBoxParamW", 1, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(DialogBoxParamW(module_, MAKEINTRESOURCEW(IDD_SCANMODE), owner, ClosingProc, 0), -1);
    EXPECT_FALSE(EndDialog(owner, 1)) << "not a dialog";
    DestroyWindow(owner);
    UnregisterClassW(TEXT("DialogOwner"), module_);
}

TEST_F(DialogTest, TemplateControlsButtonsAndNumbers)
{
    HWND dlg = Open(IDD_SCANMODE);
    ASSERT_NE(dlg, nullptr);
    EXPECT_EQ(g_initParam, 7);
    HWND orBox = GetDlgItem(dlg, IDC_MODE_OR);
    ASSERT_NE(orBox, nullptr);
    EXPECT_EQ(GetDlgCtrlID(orBox), IDC_MODE_OR);
    WCHAR text[32];
    GetWindowTextW(orBox, text, 32);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t *>(text)), u"ＯＲ処理(&O)");
    EXPECT_EQ(GetDlgItem(dlg, 999), nullptr);

    // Dialog units: the OK button sits at (142, 8) and is 37 by 14 units.
    RECT r{142, 8, 142 + 37, 8 + 14}, ok;
    ASSERT_TRUE(MapDialogRect(dlg, &r));
    GetWindowRect(GetDlgItem(dlg, IDOK), &ok);
    EXPECT_EQ(ok.right - ok.left, r.right - r.left);
    EXPECT_EQ(ok.bottom - ok.top, r.bottom - r.top);
    EXPECT_EQ(SendMessageW(dlg, DM_GETDEFID, 0, 0), MAKELONG(IDOK, DC_HASDEFID));

    // A click toggles an automatic check box and tells the dialog.
    SendMessageW(orBox, BM_CLICK, 0, 0);
    EXPECT_EQ(IsDlgButtonChecked(dlg, IDC_MODE_OR), (UINT)BST_CHECKED);
    SendMessageW(orBox, WM_LBUTTONDOWN, MK_LBUTTON, MAKELONG(2, 2));
    SendMessageW(orBox, WM_LBUTTONUP, 0, MAKELONG(2, 2));
    EXPECT_EQ(IsDlgButtonChecked(dlg, IDC_MODE_OR), (UINT)BST_UNCHECKED);
    ASSERT_EQ(g_seen.size(), 2u);
    EXPECT_EQ(g_seen[1].wParam, (WPARAM)MAKELONG(IDC_MODE_OR, BN_CLICKED));
    EXPECT_EQ(g_seen[1].lParam, (LPARAM)orBox);
    EnableWindow(orBox, FALSE);
    SendMessageW(orBox, BM_CLICK, 0, 0);
    EXPECT_EQ(g_seen.size(), 2u) << "a disabled box takes no click";
    CheckDlgButton(dlg, IDC_MODE_OR, BST_CHECKED);
    EXPECT_EQ(IsDlgButtonChecked(dlg, IDC_MODE_OR), (UINT)BST_CHECKED);

    BOOL ok2 = FALSE;
    SetDlgItemInt(dlg, IDC_MODE_BRIGHT_VALUE, (UINT)-17, TRUE);
    EXPECT_EQ((int)GetDlgItemInt(dlg, IDC_MODE_BRIGHT_VALUE, &ok2, TRUE), -17);
    EXPECT_TRUE(ok2);
    GetDlgItemInt(dlg, IDC_MODE_BRIGHT_VALUE, &ok2, FALSE);
    EXPECT_FALSE(ok2) << "unsigned read of a negative number";
    SetDlgItemTextW(dlg, IDC_MODE_BRIGHT_VALUE, TEXT("4x"));
    GetDlgItemInt(dlg, IDC_MODE_BRIGHT_VALUE, &ok2, TRUE);
    EXPECT_FALSE(ok2);

    // Escape through the dialog's keyboard handling is Cancel.
    MSG esc{GetDlgItem(dlg, IDOK), WM_KEYDOWN, VK_ESCAPE, 0, 0, {0, 0}};
    EXPECT_TRUE(IsDialogMessageW(dlg, &esc));
    MSG m;
    while (PeekMessageW(&m, nullptr, 0, 0, PM_REMOVE))
        DispatchMessageW(&m);
    EXPECT_EQ(LOWORD(g_seen.back().wParam), IDCANCEL);
}

TEST_F(DialogTest, SortedListsFollowJapaneseOrder)
{
    HWND dlg = Open(IDD_SCANMODE);
    ASSERT_NE(dlg, nullptr);
    HWND gamma = GetDlgItem(dlg, IDC_MODE_GAMMA);
    // Kana sort after Latin letters, full-width digits like digits.
    for (const WCHAR *s : {TEXT("なし"), TEXT("ＰＲＮ２"), TEXT("ＣＲＴ１"), TEXT("ＰＲＮ１"), TEXT("ＣＲＴ２")})
        SendMessageW(gamma, CB_ADDSTRING, 0, (LPARAM)s);
    const char16_t *want[] = {u"ＣＲＴ１", u"ＣＲＴ２", u"ＰＲＮ１", u"ＰＲＮ２", u"なし"};
    ASSERT_EQ(SendMessageW(gamma, CB_GETCOUNT, 0, 0), 5);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(ItemText(gamma, i), want[i]) << i;
    HWND dither = GetDlgItem(dlg, IDC_MODE_DITHER);
    for (const WCHAR *s :
         {TEXT("ディザ３"), TEXT("ディザ１(パターン２)"), TEXT("ディザ２"), TEXT("ディザ１(パターン１)")})
        SendMessageW(dither, CB_ADDSTRING, 0, (LPARAM)s);
    EXPECT_EQ(ItemText(dither, 0), u"ディザ１(パターン１)");
    EXPECT_EQ(ItemText(dither, 2), u"ディザ２");
    EXPECT_EQ(ItemText(dither, 3), u"ディザ３");

    EXPECT_EQ(SendMessageW(gamma, CB_SETCURSEL, 5, 0), CB_ERR);
    EXPECT_EQ(SendMessageW(gamma, CB_GETCURSEL, 0, 0), -1) << "out of range clears the selection";
    EXPECT_EQ(SendMessageW(gamma, CB_FINDSTRINGEXACT, (WPARAM)-1, (LPARAM)TEXT("ＰＲＮ１")), 2);
    SendMessageW(gamma, CB_SETCURSEL, 3, 0);
    EXPECT_TRUE(g_seen.empty()) << "setting the selection does not notify";
    SendMessageW(gamma, WM_KEYDOWN, VK_DOWN, 0);
    SendMessageW(gamma, WM_KEYDOWN, VK_DOWN, 0); // already at the end
    EXPECT_EQ(SendMessageW(gamma, CB_GETCURSEL, 0, 0), 4);
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0].wParam, (WPARAM)MAKELONG(IDC_MODE_GAMMA, CBN_SELCHANGE));
    SendMessageW(gamma, CB_RESETCONTENT, 0, 0);
    EXPECT_EQ(SendMessageW(gamma, CB_GETCOUNT, 0, 0), 0);
}

TEST_F(DialogTest, ScrollBarRangeKeysAndThumbDrag)
{
    HWND dlg = Open(IDD_SCANMODE);
    ASSERT_NE(dlg, nullptr);
    HWND bar = GetDlgItem(dlg, IDC_MODE_BRIGHT_SCROLL);
    ASSERT_TRUE(SetScrollRange(bar, SB_CTL, 0, 9, FALSE));
    SendMessageW(bar, SBM_SETPOS, 12, TRUE);
    EXPECT_EQ(SendMessageW(bar, SBM_GETPOS, 0, 0), 9) << "clamped to the range";
    int lo = -1, hi = -1;
    GetScrollRange(bar, SB_CTL, &lo, &hi);
    EXPECT_EQ(lo, 0);
    EXPECT_EQ(hi, 9);

    SendMessageW(bar, WM_KEYDOWN, VK_LEFT, 0);
    SendMessageW(bar, WM_KEYDOWN, VK_END, 0);
    SendMessageW(bar, WM_KEYUP, VK_END, 0);
    ASSERT_EQ(g_seen.size(), 3u);
    EXPECT_EQ(g_seen[0].msg, (UINT)WM_HSCROLL);
    EXPECT_EQ(g_seen[0].lParam, (LPARAM)bar);
    EXPECT_EQ(LOWORD(g_seen[0].wParam), SB_LINELEFT);
    EXPECT_EQ(LOWORD(g_seen[1].wParam), SB_RIGHT);
    EXPECT_EQ(LOWORD(g_seen[2].wParam), SB_ENDSCROLL);

    // Dragging the thumb from the left end to the right end.
    g_seen.clear();
    SendMessageW(bar, SBM_SETPOS, 0, TRUE);
    RECT rc;
    GetClientRect(bar, &rc);
    const int arrow = rc.bottom;
    SendMessageW(bar, WM_LBUTTONDOWN, MK_LBUTTON, MAKELONG(arrow + 1, 1));
    for (int x = arrow + 1; x < rc.right; x += 3)
        SendMessageW(bar, WM_MOUSEMOVE, MK_LBUTTON, MAKELONG(x, 1));
    SendMessageW(bar, WM_LBUTTONUP, 0, MAKELONG(rc.right - 1, 1));
    ASSERT_GE(g_seen.size(), 11u);
    int last = 0;
    for (size_t i = 0; i + 2 < g_seen.size(); i++) {
        EXPECT_EQ(LOWORD(g_seen[i].wParam), SB_THUMBTRACK);
        EXPECT_EQ(HIWORD(g_seen[i].wParam), last + 1) << "each position in turn";
        last = HIWORD(g_seen[i].wParam);
    }
    EXPECT_EQ(last, 9);
    EXPECT_EQ(g_seen[g_seen.size() - 2].wParam, (WPARAM)MAKELONG(SB_THUMBPOSITION, 9));
    EXPECT_EQ(LOWORD(g_seen.back().wParam), SB_ENDSCROLL);
}

} // namespace
