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

/* Clips a painted area against the destination rectangle. x, y are the
   area's origin; w, h come in as the area's right and bottom edges and are
   used as its extents. Whatever lies beyond the destination's right or
   bottom edge is cut off (to 0 at most); an origin left of or above the
   destination moves to the destination's edge. */
void DispClipToDest(LONG *x, LONG *y, LONG *w, LONG *h);
/* Clips x, y, w, h against a client rectangle: the extent is cut at the
   client's right or bottom edge (0 at most), an origin beyond that edge
   moves onto it. */
void DispClipToClient(const RECT *client, LONG *x, LONG *y, LONG *w, LONG *h);

#ifdef __cplusplus
}
#endif

#endif
