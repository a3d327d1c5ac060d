// Window classes and windows: registration rules, the creation and
// destruction message sequences, text and fields through the window
// procedure, state flags, size changes and thread ownership.
#include "support/platform_fixture.h"

#include <string>
#include <vector>

namespace
{

using Log = std::vector<std::pair<HWND, UINT>>;

Log g_log;
UINT_PTR g_createParam = 0;
DWORD g_destroyThread = 0;
std::vector<LPARAM> g_sizes;

LRESULT CALLBACK LoggingProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == WM_CREATE || msg == WM_DESTROY || msg == WM_NCDESTROY || msg == WM_NCCREATE)
        g_log.emplace_back(hwnd, msg);
    if (msg == WM_NCDESTROY)
        g_destroyThread = GetCurrentThreadId();
    if (msg == WM_CREATE) {
        auto *cs = reinterpret_cast<CREATESTRUCTW *>(lParam);
        g_createParam = reinterpret_cast<UINT_PTR>(cs->lpCreateParams);
        if (g_createParam == 0xDEAD)
            return -1;
    }
    return DefWindowProcW(hwnd, msg, wParam, lParam);
}

class UserWindowTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        g_log.clear();
        WNDCLASSW wc{};
        wc.lpfnWndProc = LoggingProc;
        wc.cbWndExtra = 2 * static_cast<int>(sizeof(LONG_PTR));
        wc.hInstance = Instance();
        wc.lpszClassName = TEXT("UserTestWnd");
        ASSERT_NE(RegisterClassW(&wc), 0);
    }
    void TearDown() override
    {
        EXPECT_TRUE(UnregisterClassW(TEXT("UserTestWnd"), Instance()));
        PlatformTest::TearDown();
    }
    static HINSTANCE Instance() { return reinterpret_cast<HINSTANCE>(static_cast<uintptr_t>(0x5000)); }
    static HWND Make(DWORD style, HWND parent = nullptr, LPVOID param = nullptr, LPCWSTR title = TEXT("Title"))
    {
        return CreateWindowExW(0, TEXT("usertestwnd"), title, style, 10, 20, 200, 150, parent, nullptr, Instance(),
                               param);
    }
};

TEST_F(UserWindowTest, ClassRegistrationRules)
{
    WNDCLASSW wc{};
    wc.lpfnWndProc = DefWindowProcW;
    wc.hInstance = Instance();
    wc.lpszClassName = TEXT("USERTESTWND"); // same name, other case
    EXPECT_EQ(RegisterClassW(&wc), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_CLASS_ALREADY_EXISTS));

    WNDCLASSW info{};
    ASSERT_TRUE(GetClassInfoW(Instance(), TEXT("UserTestWND"), &info));
    EXPECT_EQ(info.lpfnWndProc, &LoggingProc);
    EXPECT_EQ(info.cbWndExtra, 2 * static_cast<int>(sizeof(LONG_PTR)));

    HWND w = Make(WS_OVERLAPPEDWINDOW);
    ASSERT_NE(w, nullptr);
    EXPECT_FALSE(UnregisterClassW(TEXT("UserTestWnd"), Instance()));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_CLASS_HAS_WINDOWS));
    EXPECT_TRUE(DestroyWindow(w));
    EXPECT_FALSE(UnregisterClassW(TEXT("NoSuchClass"), Instance()));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_CLASS_DOES_NOT_EXIST));
    EXPECT_EQ(CreateWindowExW(0, TEXT("NoSuchClass"), nullptr, 0, 0, 0, 1, 1, nullptr, nullptr, Instance(), nullptr),
              nullptr);
}

TEST_F(UserWindowTest, CreationAndDestructionSequences)
{
    HWND parent = Make(WS_OVERLAPPEDWINDOW, nullptr, reinterpret_cast<LPVOID>(0x1234));
    ASSERT_NE(parent, nullptr);
    EXPECT_EQ(g_createParam, 0x1234u);
    EXPECT_EQ(g_log, (Log{{parent, WM_NCCREATE}, {parent, WM_CREATE}}));

    HWND child = Make(WS_CHILD | WS_VISIBLE, parent);
    HWND owned = Make(WS_POPUP, parent);
    ASSERT_NE(child, nullptr);
    ASSERT_NE(owned, nullptr);
    EXPECT_EQ(GetParent(child), parent);
    EXPECT_EQ(GetParent(owned), parent); // a popup's parent is its owner
    EXPECT_EQ(GetWindow(owned, GW_OWNER), parent);
    EXPECT_EQ(GetWindow(parent, GW_CHILD), child);

    g_log.clear();
    EXPECT_TRUE(DestroyWindow(parent));
    // The owned window goes first; then WM_DESTROY runs top-down and
    // WM_NCDESTROY bottom-up.
    Log expected{{owned, WM_DESTROY}, {owned, WM_NCDESTROY}, {parent, WM_DESTROY},
                 {child, WM_DESTROY}, {child, WM_NCDESTROY}, {parent, WM_NCDESTROY}};
    EXPECT_EQ(g_log, expected);
    EXPECT_FALSE(IsWindow(parent) || IsWindow(child) || IsWindow(owned));
    EXPECT_FALSE(DestroyWindow(parent));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_WINDOW_HANDLE));

    // -1 from WM_CREATE: no window, and it was destroyed properly.
    g_log.clear();
    EXPECT_EQ(Make(WS_OVERLAPPED, nullptr, reinterpret_cast<LPVOID>(0xDEAD)), nullptr);
    std::vector<UINT> msgs;
    for (auto &e : g_log)
        msgs.push_back(e.second);
    EXPECT_EQ(msgs, (std::vector<UINT>{WM_NCCREATE, WM_CREATE, WM_DESTROY, WM_NCDESTROY}));

    // A child needs a parent.
    EXPECT_EQ(Make(WS_CHILD), nullptr);
}

LRESULT CALLBACK ShoutingProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == WM_SETTEXT && lParam != 0) {
        std::u16string s = reinterpret_cast<const char16_t *>(lParam);
        for (auto &c : s)
            if (c >= u'a' && c <= u'z')
                c = static_cast<char16_t>(c - 32);
        return DefWindowProcW(hwnd, msg, wParam, reinterpret_cast<LPARAM>(s.c_str()));
    }
    return CallWindowProcW(LoggingProc, hwnd, msg, wParam, lParam);
}

TEST_F(UserWindowTest, TextAndFieldsGoThroughTheProcedure)
{
    HWND w = Make(WS_OVERLAPPEDWINDOW, nullptr, nullptr, TEXT("Scanner  Image Data"));
    ASSERT_NE(w, nullptr);
    WCHAR buf[64];
    EXPECT_EQ(GetWindowTextW(w, buf, 64), 19);
    EXPECT_EQ(std::u16string(buf), u"Scanner  Image Data");
    EXPECT_EQ(GetWindowTextW(w, buf, 8), 7); // truncated, terminated
    EXPECT_EQ(std::u16string(buf), u"Scanner");

    // Subclassed: the new procedure sees WM_SETTEXT.
    auto old = SetWindowLongPtrW(w, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(ShoutingProc));
    EXPECT_EQ(old, reinterpret_cast<LONG_PTR>(LoggingProc));
    EXPECT_TRUE(SetWindowTextW(w, TEXT("mixed Case")));
    EXPECT_EQ(GetWindowTextLengthW(w), 10);
    GetWindowTextW(w, buf, 64);
    EXPECT_EQ(std::u16string(buf), u"MIXED CASE");

    EXPECT_EQ(SetWindowLongPtrW(w, GWLP_USERDATA, 77), 0);
    EXPECT_EQ(GetWindowLongPtrW(w, GWLP_USERDATA), 77);
    EXPECT_EQ(SetWindowLongPtrW(w, static_cast<int>(sizeof(LONG_PTR)), -5), 0);
    EXPECT_EQ(GetWindowLongPtrW(w, static_cast<int>(sizeof(LONG_PTR))), -5);
    EXPECT_EQ(GetWindowLongW(w, 0), 0); // the first slot is untouched
    SetLastError(0);
    EXPECT_EQ(GetWindowLongPtrW(w, static_cast<int>(sizeof(LONG_PTR)) + 1), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_INDEX));
    EXPECT_TRUE(DestroyWindow(w));
}

TEST_F(UserWindowTest, VisibilityEnableAndStateFlags)
{
    HWND top = Make(WS_OVERLAPPEDWINDOW);
    HWND child = Make(WS_CHILD | WS_VISIBLE, top);
    EXPECT_FALSE(IsWindowVisible(child)); // parent hidden
    EXPECT_FALSE(ShowWindow(top, SW_SHOW));
    EXPECT_TRUE(IsWindowVisible(child));
    EXPECT_EQ(GetActiveWindow(), top);
    EXPECT_TRUE(ShowWindow(top, SW_MINIMIZE));
    EXPECT_TRUE(IsIconic(top));
    EXPECT_TRUE(ShowWindow(top, SW_SHOWMAXIMIZED));
    EXPECT_FALSE(IsIconic(top));
    EXPECT_TRUE(IsZoomed(top));
    EXPECT_TRUE(ShowWindow(top, SW_HIDE));
    EXPECT_FALSE(ShowWindow(top, SW_HIDE));
    EXPECT_FALSE(IsWindowVisible(top));
    // Coming back into view, by either call, the whole window is to be
    // painted again: what it drew while hidden never reached the screen.
    RECT update;
    for (bool byPos : {false, true}) {
        ValidateRect(top, nullptr);
        EXPECT_FALSE(GetUpdateRect(top, &update, FALSE));
        if (byPos)
            SetWindowPos(top, nullptr, 0, 0, 0, 0, SWP_NOSIZE | SWP_NOMOVE | SWP_SHOWWINDOW);
        else
            ShowWindow(top, SW_SHOWNOACTIVATE);
        EXPECT_TRUE(GetUpdateRect(top, &update, FALSE)) << (byPos ? "SetWindowPos" : "ShowWindow");
        ShowWindow(top, SW_HIDE);
    }

    EXPECT_FALSE(EnableWindow(child, FALSE)); // was enabled
    EXPECT_FALSE(IsWindowEnabled(child));
    EXPECT_TRUE(EnableWindow(child, TRUE)); // was disabled
    EXPECT_TRUE(IsWindowEnabled(child));
    EXPECT_TRUE(DestroyWindow(top));
    EXPECT_EQ(GetActiveWindow(), nullptr);
}

LRESULT CALLBACK ShrinkOnDestroyProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg == WM_DESTROY)
        SetWindowPos(hwnd, nullptr, 0, 0, 0, 0, SWP_NOMOVE | SWP_NOZORDER | SWP_NOACTIVATE);
    if (msg == WM_SIZE)
        g_sizes.push_back(lParam);
    return DefWindowProcW(hwnd, msg, wParam, lParam);
}

TEST_F(UserWindowTest, SizeChangesReachTheProcedureEvenDuringDestruction)
{
    // A window that shrinks itself to 0 x 0 while being destroyed.
    RECT cr;
    HWND w = Make(WS_OVERLAPPEDWINDOW);
    SetWindowLongPtrW(w, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(ShrinkOnDestroyProc));
    g_sizes.clear();
    EXPECT_TRUE(MoveWindow(w, 5, 5, 300, 200, TRUE));
    ASSERT_TRUE(GetClientRect(w, &cr));
    EXPECT_TRUE(DestroyWindow(w));
    ASSERT_EQ(g_sizes.size(), 2u);
    EXPECT_EQ(g_sizes[0], MAKELONG(cr.right, cr.bottom)); // 300 x 200 less the frame
    EXPECT_EQ(g_sizes[1], 0);                             // clamped to 0 x 0
}

TEST_F(UserWindowTest, WindowsBelongToTheirThread)
{
    HWND w = Make(WS_OVERLAPPEDWINDOW);
    DWORD err = 0;
    BOOL destroyed = TRUE;
    tamrix_test::RunOnPlatformThread([&] {
        destroyed = DestroyWindow(w);
        err = GetLastError();
        return 0u;
    });
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(err, static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(IsWindow(w));
    EXPECT_EQ(GetWindowThreadProcessId(w, nullptr), GetCurrentThreadId());
    EXPECT_TRUE(DestroyWindow(w));

    // Windows left by a thread go with it, destroyed on that thread.
    HWND left = nullptr;
    g_log.clear();
    DWORD worker = 0;
    tamrix_test::RunOnPlatformThread([&] {
        worker = GetCurrentThreadId();
        left = Make(WS_OVERLAPPEDWINDOW);
        Make(WS_CHILD, left);
        return 0u;
    });
    EXPECT_NE(left, nullptr);
    EXPECT_FALSE(IsWindow(left));
    int destroys = 0;
    for (auto &e : g_log)
        destroys += e.second == WM_NCDESTROY;
    EXPECT_EQ(destroys, 2);
    EXPECT_EQ(g_destroyThread, worker);
}

TEST_F(UserWindowTest, IconsAndCursorsAreSharedAndFoundInModules)
{
    HMODULE dll = LoadLibraryW(TEXT("TAMRIX.DLL"));
    ASSERT_NE(dll, nullptr);
    HICON icon = LoadIconW(dll, TEXT("SCANICON")); // resource names ignore case
    ASSERT_NE(icon, nullptr);
    EXPECT_EQ(LoadIconW(dll, TEXT("scanicon")), icon);
    EXPECT_TRUE(DestroyIcon(icon));
    SetLastError(0);
    EXPECT_EQ(LoadIconW(dll, TEXT("noicon")), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_NAME_NOT_FOUND));
    EXPECT_TRUE(FreeLibrary(dll));

    HCURSOR arrow = LoadCursorW(nullptr, IDC_ARROW);
    ASSERT_NE(arrow, nullptr);
    EXPECT_EQ(LoadCursorW(nullptr, IDC_ARROW), arrow);
    EXPECT_NE(LoadCursorW(nullptr, IDC_WAIT), arrow);
    HCURSOR before = SetCursor(arrow);
    EXPECT_EQ(SetCursor(before), arrow);
}

} // namespace
