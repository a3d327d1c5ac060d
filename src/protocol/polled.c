/* The polled dialect of model 7 over GP-IB: escape commands with one-byte
   codes and a window in 1/240 inch, progress through service requests that
   are answered with serial polls, and the image as one unframed byte stream
   whose length the scan information gives. */
#include "protocol/protocol.h"
#include "transport/transport.h"

/* Serial-poll status bits. */
#define POLL_STATUS_IDLE 0x10
#define POLL_STATUS_DATA 0x01

#define POLL_INFO_BYTES 24

/* GP-IB time-outs of the image read, in tenths of a second. */
#define POLL_TIMEOUT_FIRST 600
#define POLL_TIMEOUT_NEXT 100
#define POLL_TIMEOUT_DONE 10

/* Image bytes still to come in the current scan, 0 between scans. */
static DWORD s_pollRemaining;
/* Resolution code last sent; a resolution without a code repeats it (a zero
   byte before the first scan). */
static BYTE s_pollResolutionCode;

static const SHORT s_pollResolutions[12] = {90, 120, 160, 180, 200, 240, 300, 320, 400, 480, 600, 640};
static const char s_pollResolutionCodes[] = "123456789ABC";
/* Contrast 1 to 9; contrast 0 sends a zero byte. */
static const char s_pollContrastCodes[] = "1123445667";

static BOOL PollSend3(char letter, BYTE argument)
{
    BYTE command[3];
    command[0] = PROT_ESC;
    command[1] = (BYTE)letter;
    command[2] = argument;
    return GpWrite(command, sizeof command);
}

/* "\eX" / "\eY": 0, start high, start low, 0, size high, size low. */
static BOOL PollSendWindow(char letter, LONG start, LONG size)
{
    BYTE command[8];
    command[0] = PROT_ESC;
    command[1] = (BYTE)letter;
    command[2] = 0;
    command[3] = (BYTE)(start >> 8);
    command[4] = (BYTE)start;
    command[5] = 0;
    command[6] = (BYTE)(size >> 8);
    command[7] = (BYTE)size;
    return GpWrite(command, sizeof command);
}

/* A service request that is already there is polled away; 1 if there was one. */
static BOOL PollClearPendingRequest(void)
{
    BYTE status = 0;
    if (!GpWaitSrq(1))
        return FALSE;
    GpSerialPoll(&status);
    return TRUE;
}

BOOL PollStart(void)
{
    BYTE command = GPIB_DCL;
    BYTE status = 0;
    s_pollRemaining = 0;
    if (!GpInitDevice(g_gpibAddress))
        return FALSE;
    if (!GpWriteCommand(&command, 1))
        return FALSE;
    if (!GpSetDelimiter(0x80))
        return FALSE;
    if (!GpWaitSrq(200))
        return FALSE;
    if (!GpSerialPoll(&status) || !(status & POLL_STATUS_IDLE) || (status & POLL_STATUS_DATA))
        return FALSE;
    if (!PollCheckStatus())
        return FALSE;
    return PollSend3('I', '1');
}

BOOL PollWaitReady(void)
{
    if (PollClearPendingRequest())
        return FALSE;
    return PollCheckStatus() == 1;
}

BOOL PollCheckStatus(void)
{
    BYTE reply[3];
    DWORD received = 0;
    if (!PollSend3('Q', '2'))
        return FALSE;
    if (PollSerialPoll() != 1)
        return FALSE;
    if (!GpRead(reply, sizeof reply, &received))
        return FALSE;
    return reply[0] == PROT_ESC && reply[1] == 'Q' && reply[2] == '3';
}

int PollSerialPoll(void)
{
    BYTE status = 0;
    if (!GpWaitSrq(200))
        return 0;
    if (!GpSerialPoll(&status) || !(status & POLL_STATUS_IDLE))
        return 0;
    return status & POLL_STATUS_DATA;
}

BOOL PollSendScanParams(const ScanParams *params)
{
    int i;
    LONG resolution = params->resolution;
    BYTE contrast = 0;
    if (resolution <= 0)
        return FALSE;
    for (i = 0; i < 12; i++)
        if (s_pollResolutions[i] == params->resolution)
            s_pollResolutionCode = (BYTE)s_pollResolutionCodes[i];
    if (!PollSend3('D', s_pollResolutionCode))
        return FALSE;

    if (params->colorStep >= 1 && params->colorStep <= 6) {
        if (!PollSend3('H', '1'))
            return FALSE;
    } else if (params->colorStep == 16) {
        if (params->ditherPattern >= 1 && params->ditherPattern <= 8) {
            if (!PollSend3('H', '7') || !PollSend3('L', (BYTE)('0' + params->ditherPattern)))
                return FALSE;
        } else if (params->ditherPattern == 16 || params->ditherPattern == 32) {
            if (!PollSend3('H', params->ditherPattern == 16 ? '8' : '9'))
                return FALSE;
        }
    }

    if (params->contrast >= 1 && params->contrast <= 9)
        contrast = (BYTE)s_pollContrastCodes[params->contrast - 1];
    if (!PollSend3('P', contrast))
        return FALSE;
    if (!PollSend3('h', (BYTE)('0' + params->brightness)) || !PollSend3('U', (BYTE)('0' + params->edgeEnhance)) ||
        !PollSend3('O', (BYTE)('0' + params->orProcessing)) || !PollSend3('N', (BYTE)('0' + params->noiseReduction)) ||
        !PollSend3('m', (BYTE)('0' + params->gamma)))
        return FALSE;
    if (!PollSend3('M', '1'))
        return FALSE;
    if (!PollSendWindow('X', params->areaX * POLL_WINDOW_UNITS / resolution,
                        params->areaWidth * POLL_WINDOW_UNITS / resolution) ||
        !PollSendWindow('Y', params->areaY * POLL_WINDOW_UNITS / resolution,
                        params->areaLength * POLL_WINDOW_UNITS / resolution))
        return FALSE;
    return PollSend3('K', '3') && PollSend3('K', '4') && PollSend3('K', '1') && PollSend3('J', '1');
}

BOOL PollReadInfo(BYTE *dest)
{
    DWORD received = 0;
    if (PollClearPendingRequest())
        return FALSE;
    if (!PollCheckStatus() || !PollSend3('Q', '1') || !PollSerialPoll())
        return FALSE;
    return GpRead(dest, POLL_INFO_BYTES, &received);
}

DWORD PollLineBytes(DWORD packedBytes, DWORD resolution)
{
    DWORD widthValue;

    if (resolution == 0)
        return packedBytes;
    widthValue = (packedBytes * POLL_WINDOW_UNITS + resolution - 1) / resolution;
    return resolution * widthValue / POLL_WINDOW_UNITS;
}

/* Starts the image transfer: the scan information gives the byte count,
   "\eR1" starts the stream. */
static BOOL PollBeginImage(void)
{
    BYTE info[POLL_INFO_BYTES];
    BYTE status = 0;
    DWORD widthValue, lineCount, resolution;
    if (!PollReadInfo(info))
        return FALSE;
    if (info[0] < 1 || info[0] > 12)
        return FALSE;
    resolution = (DWORD)s_pollResolutions[info[0] - 1];
    widthValue = (DWORD)info[17] << 8 | info[18];
    lineCount = (DWORD)info[22] << 8 | info[23];
    s_pollRemaining = lineCount * (resolution * widthValue / POLL_WINDOW_UNITS);
    if (!PollSend3('R', '1') || !GpWaitSrq(200))
        return FALSE;
    if (!GpSerialPoll(&status) || (status & POLL_STATUS_IDLE) || !(status & POLL_STATUS_DATA))
        return FALSE;
    return GpSetTimeout(POLL_TIMEOUT_FIRST);
}

int PollReadImage(ScanParams *params, ReadBlock *block)
{
    DWORD wanted;
    DWORD received = 0;
    (void)params;
    block->count = 0;
    if (s_pollRemaining == 0) {
        if (!PollBeginImage())
            return 0;
        wanted = block->capacity < s_pollRemaining ? block->capacity : s_pollRemaining;
    } else if (block->capacity < s_pollRemaining) {
        if (!GpRead(block->data, block->capacity, &received))
            return 0;
        block->count = received;
        s_pollRemaining -= received;
        return 1;
    } else {
        wanted = s_pollRemaining;
    }

    if (!GpRead(block->data, wanted, &received) || !GpSetTimeout(POLL_TIMEOUT_NEXT))
        return 0;
    block->count = received;
    s_pollRemaining -= received;
    if (received == wanted && s_pollRemaining == 0) {
        if (!PollSend3('K', '0') || !GpSetTimeout(POLL_TIMEOUT_DONE))
            return 0;
        return 2;
    }
    return 1;
}
