/* The scanner command protocols on the character interfaces: the block
   dialect of models 1 to 6 (escape commands, framed and optionally
   compressed lines) and the polled dialect of model 7 over GP-IB (service
   requests and serial polls). They reach the line only through the port
   layer and the GP-IB operations. */
#ifndef TAMRIX_PROTOCOL_H
#define TAMRIX_PROTOCOL_H

#include "driver/driver_state.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Control bytes. */
#define PROT_STX 0x02
#define PROT_ETX 0x03
#define PROT_ENQ 0x05
#define PROT_ACK 0x06
#define PROT_DC2 0x12
#define PROT_DC4 0x14
#define PROT_ETB 0x17
#define PROT_ESC 0x1B

/* Diagnostic detail codes of the block dialect (kept for inspection). */
#define PROT_DETAIL_PARAMS 0x300
#define PROT_DETAIL_VIOLATION 0x400
#define PROT_DETAIL_ABNORMAL_END 0x410

extern DWORD g_lineStarted; /* 1 after a successful start */
extern DWORD g_protDetail;  /* last diagnostic detail code, 0 when none */

/* ---- Block dialect (models 1 to 6; hands over to the polled one for 7) --- */

BOOL ProtStart(void);
BOOL ProtFinish(void);
BOOL ProtAbort(void);
BOOL ProtWaitReady(void);
int ProtReadImage(ScanParams *params, ReadBlock *block);

/* ---- Polled dialect (model 7 over GP-IB) -------------------------------- */
#define POLL_WINDOW_UNITS 240 /* the scanner's window is in 1/240 inch */

/* Bytes of one line of the polled scanner. Its scan information describes a
   line by a width value w, and a line is resolution x w / 240 bytes; the
   scanner takes the smallest w whose bytes hold the packed pixels of its
   window and sends lines of that many bytes. */
DWORD PollLineBytes(DWORD packedBytes, DWORD resolution);

BOOL PollStart(void); /* the model-7 start steps up to and including "\eI1" */
BOOL PollWaitReady(void);
BOOL PollCheckStatus(void);
int PollSerialPoll(void);
BOOL PollSendScanParams(const ScanParams *params);
BOOL PollReadInfo(BYTE *dest);
int PollReadImage(ScanParams *params, ReadBlock *block);

#ifdef __cplusplus
}
#endif

#endif
