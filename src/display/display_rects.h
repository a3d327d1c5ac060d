/* The source rectangle (image pixels) and destination rectangle (client
   pixels of the target window) the image is shown with. */
#ifndef TAMRIX_DISPLAY_RECTS_H
#define TAMRIX_DISPLAY_RECTS_H

#include "driver/driver_state.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Size of the destination rectangle after open. */
#define DISP_DEFAULT_DST_WIDTH 288
#define DISP_DEFAULT_DST_HEIGHT 400

extern ScanRect g_srcRect;
extern ScanRect g_dstRect;

/* Source = the whole default scan area, destination = 288 x 400 at 0, 0. */
void DispInitRects(void);

#ifdef __cplusplus
}
#endif

#endif
