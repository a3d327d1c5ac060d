// The display window on its own thread, its painting, the paint hook in an
// application window, and the put, where and window commands.
#include "driver_fixture.h"

#include "display/display.h"

namespace
{

const COLORREF kWhite = RGB(255, 255, 255), kBlack = RGB(0, 0, 0), kGrey = RGB(128, 128, 128), kRed = RGB(255, 0, 0);

COLORREF Pixel(HWND wnd, int x, int y)
{
    HDC dc = GetDC(wnd);
    COLORREF c = GetPixel(dc, x, y);
    ReleaseDC(wnd, dc);
    return c;
}

void Fill(HWND wnd, COLORREF colour)
{
    HDC dc = GetDC(wnd);
    HBRUSH brush = CreateSolidBrush(colour);
    RECT rc;
    GetClientRect(wnd, &rc);
    FillRect(dc, &rc, brush);
    DeleteObject(brush);
    ReleaseDC(wnd, dc);
}

// Paints the display window now and waits until its thread is idle again
// (a paint it had already begun on its own included).
void Update(HWND wnd)
{
    UpdateWindow(wnd);
    SendMessageW(wnd, WM_NULL, 0, 0);
}

// Dispatches this thread's messages until none is left (paints included).
void Pump()
{
    MSG m;
    for (int i = 0; i < 100 && PeekMessageW(&m, nullptr, 0, 0, PM_REMOVE); ++i)
        DispatchMessageW(&m);
}

// An application window that paints itself red.
LRESULT CALLBACK RedProc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    if (msg != WM_PAINT)
        return DefWindowProcW(wnd, msg, wParam, lParam);
    PAINTSTRUCT ps;
    HDC dc = BeginPaint(wnd, &ps);
    HBRUSH brush = CreateSolidBrush(kRed);
    FillRect(dc, &ps.rcPaint, brush);
    DeleteObject(brush);
    EndPaint(wnd, &ps);
    return 0;
}

MCI_ANIM_RECT_PARMS Rect(LONG x, LONG y, LONG w, LONG h)
{
    MCI_ANIM_RECT_PARMS p{};
    p.rc = RECT{x, y, w, h};
    return p;
}

DWORD Put(DWORD which, LONG x, LONG y, LONG w, LONG h)
{
    MCI_ANIM_RECT_PARMS p = Rect(x, y, w, h);
    return MciPut(1, MCI_WAIT | MCI_ANIM_RECT | which, &p);
}

DWORD Window(DWORD flags, HWND wnd = nullptr, UINT show = 0, LPCWSTR text = nullptr)
{
    MCI_ANIM_WINDOW_PARMSW p{0, wnd, show, text};
    return MciWindow(1, MCI_WAIT | flags, &p);
}

// A window command that changes the target keeps the window DC it painted
// with; handle values only grow, so it lies between two fresh handles.
DWORD WindowReleasingKeptDc(DWORD flags, HWND wnd)
{
    HDC before = GetDC(nullptr);
    ReleaseDC(nullptr, before);
    DWORD err = Window(flags, wnd);
    HDC after = GetDC(nullptr);
    ReleaseDC(nullptr, after);
    for (auto h = reinterpret_cast<uintptr_t>(before) + 4; h < reinterpret_cast<uintptr_t>(after); h += 4)
        ReleaseDC(nullptr, reinterpret_cast<HDC>(h));
    return err;
}

} // namespace

class DisplayTest : public DriverTest
{
protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        WNDCLASSW wc{};
        wc.style = CS_VREDRAW | CS_HREDRAW | CS_NOCLOSE;
        wc.lpfnWndProc = DispWndProc;
        wc.hInstance = g_hModule;
        wc.hbrBackground = static_cast<HBRUSH>(GetStockObject(WHITE_BRUSH));
        wc.lpszClassName = DISP_CLASS_NAME;
        ASSERT_NE(RegisterClassW(&wc), 0);
        g_dispReleased = 0;
        g_targetWnd = nullptr;
        ASSERT_EQ(ImgCreateInitialImages(), 1);
        PatBlt(g_imageDC, 0, 0, 16, 1, BLACKNESS); // 32 x 1: left half black
        g_srcRect = ScanRect{0, 0, 32, 1};
        g_dstRect = ScanRect{0, 0, 32, 1};
        // Started as open starts it.
        g_dispReadyEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        g_dispThread = CreateThread(nullptr, DISP_THREAD_STACK, DispThreadProc, nullptr, 0, nullptr);
        WaitForSingleObject(g_dispReadyEvent, INFINITE);
        CloseHandle(g_dispReadyEvent);
        ASSERT_NE(g_displayWnd, nullptr);
    }

    void TearDown() override
    {
        if (g_paintHook)
            UnhookWindowsHookEx(g_paintHook);
        g_paintHook = nullptr;
        if (app_)
            DestroyWindow(app_);
        if (g_dispThread) {
            TerminateThread(g_dispThread, 0);
            WaitForSingleObject(g_dispThread, INFINITE);
            CloseHandle(g_dispThread);
            g_dispThread = nullptr;
        }
        g_displayWnd = g_targetWnd = nullptr;
        ImgFreeImages();
        g_dispReleased = 0;
        UnregisterClassW(DISP_CLASS_NAME, g_hModule);
        UnregisterClassW(TEXT("RedApp"), g_hModule);
        DriverTest::TearDown();
    }

    HWND MakeApp(int clientWidth, int clientHeight)
    {
        WNDCLASSW wc{};
        wc.lpfnWndProc = RedProc;
        wc.hInstance = g_hModule;
        wc.lpszClassName = TEXT("RedApp");
        RegisterClassW(&wc);
        app_ = CreateWindowExW(0, TEXT("RedApp"), TEXT("app"), WS_POPUP | WS_VISIBLE, 0, 0, clientWidth, clientHeight,
                               nullptr, nullptr, g_hModule, nullptr);
        return app_;
    }

    HWND app_ = nullptr;
};

TEST_F(DisplayTest, ThreadMakesHiddenWindowOfItsOwn)
{
    RECT rc;
    WCHAR title[40] = {};
    GetWindowRect(g_displayWnd, &rc);
    GetWindowTextW(g_displayWnd, title, 40);
    EXPECT_EQ(rc.right - rc.left, 270);
    EXPECT_EQ(rc.bottom - rc.top, 350);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(title)), u"Scanner  Image Data");
    EXPECT_EQ(reinterpret_cast<WNDPROC>(GetWindowLongPtrW(g_displayWnd, GWLP_WNDPROC)), DispWndProc);
    EXPECT_FALSE(IsWindowVisible(g_displayWnd));
    EXPECT_EQ(g_targetWnd, g_displayWnd);
    EXPECT_NE(GetWindowThreadProcessId(g_displayWnd, nullptr), GetCurrentThreadId());
}

TEST_F(DisplayTest, PaintsCopyAtDestinationAndWhiteAroundIt)
{
    ASSERT_EQ(Put(MCI_ANIM_PUT_DESTINATION, 10, 20, 64, 8), 0u); // scaled x2
    // A refresh repaints only the destination.
    Fill(g_displayWnd, kGrey);
    ASSERT_EQ(DispRefresh(), 1);
    Update(g_displayWnd);
    EXPECT_EQ(Pixel(g_displayWnd, 10, 20), kBlack);
    EXPECT_EQ(Pixel(g_displayWnd, 41, 27), kBlack);
    EXPECT_EQ(Pixel(g_displayWnd, 42, 27), kWhite);
    EXPECT_EQ(Pixel(g_displayWnd, 9, 20), kGrey);
    EXPECT_EQ(Pixel(g_displayWnd, 74, 20), kGrey);
    // A whole-window paint: white outside the destination.
    Fill(g_displayWnd, kGrey);
    InvalidateRect(g_displayWnd, nullptr, TRUE);
    Update(g_displayWnd);
    EXPECT_EQ(Pixel(g_displayWnd, 9, 20), kWhite);
    EXPECT_EQ(Pixel(g_displayWnd, 74, 27), kWhite);
    EXPECT_EQ(Pixel(g_displayWnd, 30, 28), kWhite);
    EXPECT_EQ(Pixel(g_displayWnd, 30, 21), kBlack);
    // Damage wholly outside the destination: white, nothing drawn.
    Fill(g_displayWnd, kGrey);
    RECT outside{100, 100, 120, 120};
    InvalidateRect(g_displayWnd, &outside, TRUE);
    Update(g_displayWnd);
    EXPECT_EQ(Pixel(g_displayWnd, 110, 110), kWhite);
    EXPECT_EQ(Pixel(g_displayWnd, 30, 21), kGrey);
    // Damage reaching past the destination's right edge is cut there: the
    // display DIB of a 33 pixel wide destination is 64 wide, and its unused
    // right part is not drawn.
    ASSERT_EQ(Put(MCI_ANIM_PUT_DESTINATION, 10, 20, 33, 8), 0u);
    Update(g_displayWnd); // the new destination's own repaint, done first
    Fill(g_displayWnd, kGrey);
    RECT across{12, 20, 100, 28};
    InvalidateRect(g_displayWnd, &across, TRUE);
    Update(g_displayWnd);
    EXPECT_EQ(Pixel(g_displayWnd, 12, 21), kBlack);
    EXPECT_EQ(Pixel(g_displayWnd, 42, 21), kWhite);
    EXPECT_EQ(Pixel(g_displayWnd, 50, 21), kWhite);
    EXPECT_EQ(Pixel(g_displayWnd, 11, 21), kGrey);
}

TEST_F(DisplayTest, FlagRulesAndRefusals)
{
    MCI_ANIM_RECT_PARMS p = Rect(0, 0, 1, 1);
    EXPECT_EQ(MciWhere(1, MCI_WAIT, &p), (DWORD)MCIERR_MISSING_PARAMETER);
    EXPECT_EQ(MciWhere(1, MCI_WAIT | MCI_ANIM_WHERE_SOURCE | MCI_ANIM_WHERE_DESTINATION, &p),
              (DWORD)MCIERR_FLAGS_NOT_COMPATIBLE);
    EXPECT_EQ(MciPut(1, MCI_WAIT | MCI_ANIM_PUT_SOURCE, &p), (DWORD)MCIERR_MISSING_PARAMETER);
    EXPECT_EQ(MciPut(1, MCI_WAIT | MCI_ANIM_RECT, &p), (DWORD)MCIERR_MISSING_PARAMETER);
    EXPECT_EQ(Put(MCI_ANIM_PUT_SOURCE | MCI_ANIM_PUT_DESTINATION, 0, 0, 1, 1), (DWORD)MCIERR_FLAGS_NOT_COMPATIBLE);
    const LONG bad[][4] = {{-1, 0, 1, 1}, {0, -1, 1, 1}, {0, 0, 0, 1}, {0, 0, 1, 0}};
    for (auto &r : bad)
        EXPECT_EQ(Put(MCI_ANIM_PUT_SOURCE, r[0], r[1], r[2], r[3]), (DWORD)MCIERR_OUTOFRANGE) << r[0] << r[1] << r[2];
    EXPECT_EQ(Window(0), (DWORD)MCIERR_MISSING_PARAMETER);
    EXPECT_EQ(Window(MCI_ANIM_WINDOW_HWND, reinterpret_cast<HWND>(0x7ffffff0)), (DWORD)MCIERR_NO_WINDOW);
    EXPECT_EQ(g_targetWnd, g_displayWnd);

    // A pending notified scan: where still answers, put and window refuse.
    g_scanBusy = 1;
    EXPECT_EQ(Put(MCI_ANIM_PUT_SOURCE, 2, 0, 5, 1), (DWORD)MCIERR_COMMAND_ORDER);
    EXPECT_EQ(Window(MCI_ANIM_WINDOW_TEXT, nullptr, 0, TEXT("x")), (DWORD)MCIERR_COMMAND_ORDER);
    ASSERT_EQ(MciWhere(1, MCI_WAIT | MCI_ANIM_WHERE_SOURCE, &p), 0u);
    EXPECT_EQ(p.rc.right, 32);
    g_scanBusy = 0;
    ASSERT_EQ(Put(MCI_ANIM_PUT_SOURCE, 2, 0, 5, 1), 0u);
    ASSERT_EQ(MciWhere(1, MCI_WAIT | MCI_ANIM_WHERE_SOURCE, &p), 0u);
    EXPECT_EQ((std::vector<LONG>{p.rc.left, p.rc.top, p.rc.right, p.rc.bottom}), (std::vector<LONG>{2, 0, 5, 1}));
}

TEST_F(DisplayTest, PutRebuildsAndRedrawsDisplayCopy)
{
    // 1 bpp: the display DIB is 64 pixels wide, its header says 33.
    ASSERT_EQ(Put(MCI_ANIM_PUT_DESTINATION, 0, 0, 33, 2), 0u);
    EXPECT_EQ(g_dispWidth, 64);
    EXPECT_EQ(g_dispInfo->bmiHeader.biWidth, 33);
    BITMAP bm{};
    GetObjectW(g_dispBitmap, sizeof bm, &bm);
    EXPECT_EQ(bm.bmWidth, 64);

    ASSERT_EQ(Put(MCI_ANIM_PUT_DESTINATION, 0, 0, 32, 1), 0u);
    // The source starts beyond the image: all white.
    ASSERT_EQ(Put(MCI_ANIM_PUT_SOURCE, 40, 0, 8, 1), 0u);
    EXPECT_EQ(GetPixel(g_dispDC, 0, 0), kWhite);
    // Starts at 8, reaches 8 pixels past the edge: 24 of 32 pixels drawn
    // (8 black, 8 white, 8 black), the rest left white.
    PatBlt(g_imageDC, 24, 0, 8, 1, BLACKNESS);
    ASSERT_EQ(Put(MCI_ANIM_PUT_SOURCE, 8, 0, 32, 1), 0u);
    EXPECT_EQ(GetPixel(g_dispDC, 7, 0), kBlack);
    EXPECT_EQ(GetPixel(g_dispDC, 8, 0), kWhite);
    EXPECT_EQ(GetPixel(g_dispDC, 23, 0), kBlack);
    EXPECT_EQ(GetPixel(g_dispDC, 24, 0), kWhite);

    // A failed rebuild keeps the present display copy and rectangle.
    HDC kept = g_dispDC;
    PlatFailCall("CreateDIBSection", 1, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(Put(MCI_ANIM_PUT_DESTINATION, 0, 0, 50, 50), (DWORD)MCIERR_OUT_OF_MEMORY);
    EXPECT_EQ(g_dispDC, kept);
    EXPECT_EQ(g_dstRect.width, 32);
}

TEST_F(DisplayTest, HiddenStateReleasesCopyAndShowRebuildsIt)
{
    ASSERT_EQ(Put(MCI_ANIM_PUT_DESTINATION, 0, 0, 64, 4), 0u);
    long gdi = PlatLiveCount(PLAT_KIND_GDI), dcs = PlatLiveCount(PLAT_KIND_DC);
    ASSERT_EQ(Window(MCI_ANIM_WINDOW_STATE, nullptr, SW_HIDE), 0u);
    EXPECT_EQ(g_dispReleased, 1);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_GDI), gdi - 1);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_DC), dcs - 1);
    ASSERT_EQ(Window(MCI_ANIM_WINDOW_STATE, nullptr, SW_HIDE), 0u);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_GDI), gdi - 1);
    // Put while released only records the rectangle.
    ASSERT_EQ(Put(MCI_ANIM_PUT_DESTINATION, 0, 0, 40, 2), 0u);
    EXPECT_EQ(g_dispDC, nullptr);

    ASSERT_EQ(Window(MCI_ANIM_WINDOW_STATE | MCI_ANIM_WINDOW_TEXT, nullptr, SW_SHOW, TEXT("Scan 1")), 0u);
    EXPECT_EQ(g_dispReleased, 0);
    EXPECT_TRUE(IsWindowVisible(g_displayWnd));
    EXPECT_EQ(g_dispInfo->bmiHeader.biWidth, 40);
    EXPECT_EQ(GetPixel(g_dispDC, 19, 1), kBlack); // 32 -> 40 wide
    EXPECT_EQ(GetPixel(g_dispDC, 21, 1), kWhite);
    WCHAR title[16] = {};
    GetWindowTextW(g_displayWnd, title, 16);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(title)), u"Scan 1");
}

TEST_F(DisplayTest, ApplicationWindowIsPaintedThroughTheHook)
{
    HWND app = MakeApp(100, 50);
    ASSERT_NE(app, nullptr);
    long hooks = PlatLiveCount(PLAT_KIND_HOOK);
    ShowWindow(g_displayWnd, SW_SHOW);
    ASSERT_EQ(WindowReleasingKeptDc(MCI_ANIM_WINDOW_HWND, app), 0u);
    EXPECT_EQ(g_targetWnd, app);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_HOOK), hooks + 1);
    EXPECT_FALSE(IsWindowVisible(g_displayWnd));

    // A destination beyond the client area is cut to it for good.
    ASSERT_EQ(Put(MCI_ANIM_PUT_DESTINATION, 60, 10, 64, 8), 0u);
    MCI_ANIM_RECT_PARMS p{};
    ASSERT_EQ(MciWhere(1, MCI_WAIT | MCI_ANIM_WHERE_DESTINATION, &p), 0u);
    EXPECT_EQ((std::vector<LONG>{p.rc.left, p.rc.top, p.rc.right, p.rc.bottom}), (std::vector<LONG>{60, 10, 40, 8}));

    // The application paints red, then the hook draws the picture on top.
    Fill(app, kGrey);
    InvalidateRect(app, nullptr, TRUE);
    Pump();
    EXPECT_EQ(Pixel(app, 59, 12), kRed);
    EXPECT_EQ(Pixel(app, 60, 12), kBlack);
    EXPECT_EQ(Pixel(app, 99, 12), kWhite);
    EXPECT_EQ(Pixel(app, 70, 18), kRed);

    // Back to the own window: the hook goes, the application repaints alone.
    ASSERT_EQ(WindowReleasingKeptDc(MCI_ANIM_WINDOW_HWND, nullptr), 0u);
    EXPECT_EQ(g_targetWnd, g_displayWnd);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_HOOK), hooks);
    EXPECT_TRUE(IsWindowVisible(g_displayWnd));
    Pump();
    EXPECT_EQ(Pixel(app, 60, 12), kRed);

    // A vanished application window: the refresh reports it.
    ASSERT_EQ(WindowReleasingKeptDc(MCI_ANIM_WINDOW_HWND, app), 0u);
    DestroyWindow(app);
    app_ = nullptr;
    EXPECT_EQ(DispRefresh(), 0);
    EXPECT_EQ(Window(MCI_ANIM_WINDOW_TEXT, nullptr, 0, TEXT("x")), (DWORD)MCIERR_NO_WINDOW);
}
