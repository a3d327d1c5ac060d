/* The image display window. For now the window only gets the default
   behaviour; painting the image comes with the display thread. */
#include "driver/driver_state.h"
#include "image/image.h"

/* The window the image is shown in: the display window unless the window
   command named another one. */
HWND g_targetWnd;

LRESULT CALLBACK DispWndProc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    return DefWindowProcW(wnd, msg, wParam, lParam);
}
