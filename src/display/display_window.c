/* The image display window's procedure. For now the window only gets the
   default behaviour; painting the image comes with the display thread. */
#include "driver/driver_state.h"

LRESULT CALLBACK DispWndProc(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam)
{
    return DefWindowProcW(wnd, msg, wParam, lParam);
}
