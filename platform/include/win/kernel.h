/* KERNEL32 subset: synchronisation, threads, memory, time, modules and
   resources, profile, files and devices. */
#ifndef TAMRIX_WIN_KERNEL_H
#define TAMRIX_WIN_KERNEL_H

#include "base.h"

#include <stdarg.h>

TAMRIX_EXTERN_C_BEGIN

/* ---- Errors ---- */
WINBASEAPI DWORD WINAPI GetLastError(void);
WINBASEAPI void WINAPI SetLastError(DWORD code);

/* ---- Critical sections ----
   Same size and field order as Windows; the host keeps its lock object
   behind DebugInfo. */
typedef struct _RTL_CRITICAL_SECTION {
    void *DebugInfo;
    LONG LockCount;
    LONG RecursionCount;
    HANDLE OwningThread;
    HANDLE LockSemaphore;
    ULONG_PTR SpinCount;
} CRITICAL_SECTION, *PCRITICAL_SECTION, *LPCRITICAL_SECTION;

WINBASEAPI void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION cs);
WINBASEAPI void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION cs);
WINBASEAPI void WINAPI EnterCriticalSection(LPCRITICAL_SECTION cs);
WINBASEAPI void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION cs);
WINBASEAPI BOOL WINAPI TryEnterCriticalSection(LPCRITICAL_SECTION cs);

/* ---- Interlocked operations ----
   Full barriers, as on Windows; inline over the compiler's atomics. */
static inline LONG InterlockedExchange(LONG volatile *target, LONG value)
{
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedCompareExchange(LONG volatile *target, LONG exchange, LONG comparand)
{
    __atomic_compare_exchange_n(target, &comparand, exchange, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}
static inline LONG InterlockedIncrement(LONG volatile *addend)
{
    return __atomic_add_fetch(addend, 1, __ATOMIC_SEQ_CST);
}
static inline LONG InterlockedDecrement(LONG volatile *addend)
{
    return __atomic_sub_fetch(addend, 1, __ATOMIC_SEQ_CST);
}

/* ---- Waitable objects ---- */
#define INFINITE 0xFFFFFFFFu
#define MAXDWORD 0xFFFFFFFFu
#define WAIT_OBJECT_0 0x00000000u
#define WAIT_ABANDONED 0x00000080u
#define WAIT_TIMEOUT 0x00000102u
#define WAIT_FAILED 0xFFFFFFFFu
#define STILL_ACTIVE 259u
#define INVALID_HANDLE_VALUE ((HANDLE)(LONG_PTR)-1)

WINBASEAPI HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES sa, BOOL manualReset, BOOL initialState, LPCWSTR name);
WINBASEAPI BOOL WINAPI SetEvent(HANDLE event);
WINBASEAPI BOOL WINAPI ResetEvent(HANDLE event);
WINBASEAPI DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD milliseconds);
WINBASEAPI DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD milliseconds);
WINBASEAPI BOOL WINAPI CloseHandle(HANDLE handle);

/* ---- Threads ---- */
typedef DWORD(WINAPI *LPTHREAD_START_ROUTINE)(LPVOID param);
#define CREATE_SUSPENDED 0x00000004u
#define STACK_SIZE_PARAM_IS_A_RESERVATION 0x00010000u
#define THREAD_PRIORITY_NORMAL 0
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#define THREAD_PRIORITY_ABOVE_NORMAL 1

WINBASEAPI HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES sa, SIZE_T stackSize, LPTHREAD_START_ROUTINE start,
                                      LPVOID param, DWORD flags, LPDWORD threadId);
WINBASEAPI void WINAPI ExitThread(DWORD exitCode) __attribute__((noreturn));
WINBASEAPI BOOL WINAPI GetExitCodeThread(HANDLE thread, LPDWORD exitCode);
WINBASEAPI BOOL WINAPI TerminateThread(HANDLE thread, DWORD exitCode);
WINBASEAPI DWORD WINAPI GetCurrentThreadId(void);
WINBASEAPI HANDLE WINAPI GetCurrentThread(void);
WINBASEAPI DWORD WINAPI ResumeThread(HANDLE thread);
WINBASEAPI BOOL WINAPI SetThreadPriority(HANDLE thread, int priority);

/* ---- Time ---- */
WINBASEAPI DWORD WINAPI GetTickCount(void);
WINBASEAPI void WINAPI Sleep(DWORD milliseconds);

/* ---- Global memory ---- */
#define GMEM_FIXED 0x0000u
#define GMEM_MOVEABLE 0x0002u
#define GMEM_ZEROINIT 0x0040u
#define GMEM_DISCARDABLE 0x0100u
#define GMEM_SHARE 0x2000u
#define GMEM_DDESHARE GMEM_SHARE
#define GHND (GMEM_MOVEABLE | GMEM_ZEROINIT)
#define GPTR (GMEM_FIXED | GMEM_ZEROINIT)

WINBASEAPI HGLOBAL WINAPI GlobalAlloc(UINT flags, SIZE_T bytes);
WINBASEAPI LPVOID WINAPI GlobalLock(HGLOBAL mem);
WINBASEAPI BOOL WINAPI GlobalUnlock(HGLOBAL mem);
WINBASEAPI HGLOBAL WINAPI GlobalFree(HGLOBAL mem);
WINBASEAPI SIZE_T WINAPI GlobalSize(HGLOBAL mem);
WINBASEAPI HGLOBAL WINAPI GlobalReAlloc(HGLOBAL mem, SIZE_T bytes, UINT flags);

/* ---- Modules and resources ---- */
#define DLL_PROCESS_DETACH 0
#define DLL_PROCESS_ATTACH 1
#define DLL_THREAD_ATTACH 2
#define DLL_THREAD_DETACH 3

#define RT_CURSOR MAKEINTRESOURCEW(1)
#define RT_BITMAP MAKEINTRESOURCEW(2)
#define RT_ICON MAKEINTRESOURCEW(3)
#define RT_MENU MAKEINTRESOURCEW(4)
#define RT_DIALOG MAKEINTRESOURCEW(5)
#define RT_STRING MAKEINTRESOURCEW(6)
#define RT_RCDATA MAKEINTRESOURCEW(10)
#define RT_GROUP_CURSOR MAKEINTRESOURCEW(12)
#define RT_GROUP_ICON MAKEINTRESOURCEW(14)

WINBASEAPI HMODULE WINAPI LoadLibraryA(LPCSTR fileName);
WINBASEAPI HMODULE WINAPI LoadLibraryW(LPCWSTR fileName);
WINBASEAPI BOOL WINAPI FreeLibrary(HMODULE module);
WINBASEAPI FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR procName);
WINBASEAPI HMODULE WINAPI GetModuleHandleW(LPCWSTR moduleName);
WINBASEAPI DWORD WINAPI GetModuleFileNameW(HMODULE module, LPWSTR fileName, DWORD size);
WINBASEAPI HRSRC WINAPI FindResourceW(HMODULE module, LPCWSTR name, LPCWSTR type);
WINBASEAPI HGLOBAL WINAPI LoadResource(HMODULE module, HRSRC resInfo);
WINBASEAPI LPVOID WINAPI LockResource(HGLOBAL resData);
WINBASEAPI DWORD WINAPI SizeofResource(HMODULE module, HRSRC resInfo);
WINBASEAPI BOOL WINAPI FreeResource(HGLOBAL resData);
WINBASEAPI int WINAPI LoadStringW(HINSTANCE instance, UINT id, LPWSTR buffer, int bufferMax);
WINBASEAPI int WINAPI LoadStringA(HINSTANCE instance, UINT id, LPSTR buffer, int bufferMax);
#define FindResource FindResourceW

/* ---- Profile (win.ini, system.ini and private INI files) ---- */
WINBASEAPI UINT WINAPI GetProfileIntW(LPCWSTR app, LPCWSTR key, INT defaultValue);
WINBASEAPI DWORD WINAPI GetProfileStringW(LPCWSTR app, LPCWSTR key, LPCWSTR defaultValue, LPWSTR out, DWORD size);
WINBASEAPI BOOL WINAPI WriteProfileStringW(LPCWSTR app, LPCWSTR key, LPCWSTR value);
WINBASEAPI UINT WINAPI GetPrivateProfileIntW(LPCWSTR app, LPCWSTR key, INT defaultValue, LPCWSTR file);
WINBASEAPI DWORD WINAPI GetPrivateProfileStringW(LPCWSTR app, LPCWSTR key, LPCWSTR defaultValue, LPWSTR out, DWORD size,
                                                 LPCWSTR file);
WINBASEAPI BOOL WINAPI WritePrivateProfileStringW(LPCWSTR app, LPCWSTR key, LPCWSTR value, LPCWSTR file);
WINBASEAPI UINT WINAPI GetWindowsDirectoryW(LPWSTR buffer, UINT size);

/* ---- Files and devices ---- */
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define GENERIC_EXECUTE 0x20000000u
#define GENERIC_ALL 0x10000000u
#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u
#define FILE_SHARE_DELETE 0x00000004u
#define CREATE_NEW 1
#define CREATE_ALWAYS 2
#define OPEN_EXISTING 3
#define OPEN_ALWAYS 4
#define TRUNCATE_EXISTING 5
#define FILE_ATTRIBUTE_READONLY 0x00000001u
#define FILE_ATTRIBUTE_NORMAL 0x00000080u
#define FILE_FLAG_OVERLAPPED 0x40000000u
#define FILE_FLAG_WRITE_THROUGH 0x80000000u
#define FILE_BEGIN 0
#define FILE_CURRENT 1
#define FILE_END 2
#define INVALID_FILE_SIZE 0xFFFFFFFFu
#define INVALID_SET_FILE_POINTER ((DWORD)-1)

WINBASEAPI HANDLE WINAPI CreateFileW(LPCWSTR fileName, DWORD access, DWORD shareMode, LPSECURITY_ATTRIBUTES sa,
                                     DWORD disposition, DWORD flags, HANDLE templateFile);
WINBASEAPI HANDLE WINAPI CreateFileA(LPCSTR fileName, DWORD access, DWORD shareMode, LPSECURITY_ATTRIBUTES sa,
                                     DWORD disposition, DWORD flags, HANDLE templateFile);
WINBASEAPI BOOL WINAPI ReadFile(HANDLE file, LPVOID buffer, DWORD toRead, LPDWORD read, LPOVERLAPPED overlapped);
WINBASEAPI BOOL WINAPI WriteFile(HANDLE file, LPCVOID buffer, DWORD toWrite, LPDWORD written, LPOVERLAPPED overlapped);
WINBASEAPI BOOL WINAPI DeleteFileW(LPCWSTR fileName);
WINBASEAPI DWORD WINAPI SetFilePointer(HANDLE file, LONG distance, PLONG distanceHigh, DWORD method);
WINBASEAPI DWORD WINAPI GetFileSize(HANDLE file, LPDWORD sizeHigh);
WINBASEAPI BOOL WINAPI FlushFileBuffers(HANDLE file);
WINBASEAPI BOOL WINAPI DeviceIoControl(HANDLE device, DWORD code, LPVOID inBuffer, DWORD inSize, LPVOID outBuffer,
                                       DWORD outSize, LPDWORD returned, LPOVERLAPPED overlapped);

/* ---- Serial ports ---- */
typedef struct _DCB {
    DWORD DCBlength;
    DWORD BaudRate;
    DWORD fBinary : 1;
    DWORD fParity : 1;
    DWORD fOutxCtsFlow : 1;
    DWORD fOutxDsrFlow : 1;
    DWORD fDtrControl : 2;
    DWORD fDsrSensitivity : 1;
    DWORD fTXContinueOnXoff : 1;
    DWORD fOutX : 1;
    DWORD fInX : 1;
    DWORD fErrorChar : 1;
    DWORD fNull : 1;
    DWORD fRtsControl : 2;
    DWORD fAbortOnError : 1;
    DWORD fDummy2 : 17;
    WORD wReserved;
    WORD XonLim;
    WORD XoffLim;
    BYTE ByteSize;
    BYTE Parity;
    BYTE StopBits;
    char XonChar;
    char XoffChar;
    char ErrorChar;
    char EofChar;
    char EvtChar;
    WORD wReserved1;
} DCB, *LPDCB;

typedef struct _COMMTIMEOUTS {
    DWORD ReadIntervalTimeout;
    DWORD ReadTotalTimeoutMultiplier;
    DWORD ReadTotalTimeoutConstant;
    DWORD WriteTotalTimeoutMultiplier;
    DWORD WriteTotalTimeoutConstant;
} COMMTIMEOUTS, *LPCOMMTIMEOUTS;

typedef struct _COMSTAT {
    DWORD fCtsHold : 1;
    DWORD fDsrHold : 1;
    DWORD fRlsdHold : 1;
    DWORD fXoffHold : 1;
    DWORD fXoffSent : 1;
    DWORD fEof : 1;
    DWORD fTxim : 1;
    DWORD fReserved : 25;
    DWORD cbInQue;
    DWORD cbOutQue;
} COMSTAT, *LPCOMSTAT;

#define CBR_4800 4800
#define CBR_9600 9600
#define CBR_19200 19200
#define NOPARITY 0
#define ODDPARITY 1
#define EVENPARITY 2
#define ONESTOPBIT 0
#define ONE5STOPBITS 1
#define TWOSTOPBITS 2
#define DTR_CONTROL_DISABLE 0x00
#define DTR_CONTROL_ENABLE 0x01
#define DTR_CONTROL_HANDSHAKE 0x02
#define RTS_CONTROL_DISABLE 0x00
#define RTS_CONTROL_ENABLE 0x01
#define RTS_CONTROL_HANDSHAKE 0x02
#define RTS_CONTROL_TOGGLE 0x03
#define PURGE_TXABORT 0x0001u
#define PURGE_RXABORT 0x0002u
#define PURGE_TXCLEAR 0x0004u
#define PURGE_RXCLEAR 0x0008u
#define CE_RXOVER 0x0001u
#define CE_OVERRUN 0x0002u
#define CE_RXPARITY 0x0004u
#define CE_FRAME 0x0008u
#define CE_BREAK 0x0010u
#define SETXOFF 1
#define SETXON 2
#define SETRTS 3
#define CLRRTS 4
#define SETDTR 5
#define CLRDTR 6

WINBASEAPI BOOL WINAPI GetCommState(HANDLE file, LPDCB dcb);
WINBASEAPI BOOL WINAPI SetCommState(HANDLE file, LPDCB dcb);
WINBASEAPI BOOL WINAPI GetCommTimeouts(HANDLE file, LPCOMMTIMEOUTS timeouts);
WINBASEAPI BOOL WINAPI SetCommTimeouts(HANDLE file, LPCOMMTIMEOUTS timeouts);
WINBASEAPI BOOL WINAPI SetupComm(HANDLE file, DWORD inQueue, DWORD outQueue);
WINBASEAPI BOOL WINAPI PurgeComm(HANDLE file, DWORD flags);
WINBASEAPI BOOL WINAPI ClearCommError(HANDLE file, LPDWORD errors, LPCOMSTAT stat);
WINBASEAPI BOOL WINAPI EscapeCommFunction(HANDLE file, DWORD function);

/* ---- Strings ---- */
WINBASEAPI int WINAPI lstrlenW(LPCWSTR s);
WINBASEAPI LPWSTR WINAPI lstrcpyW(LPWSTR dst, LPCWSTR src);
WINBASEAPI LPWSTR WINAPI lstrcpynW(LPWSTR dst, LPCWSTR src, int max);
WINBASEAPI LPWSTR WINAPI lstrcatW(LPWSTR dst, LPCWSTR src);
WINBASEAPI int WINAPI lstrcmpW(LPCWSTR a, LPCWSTR b);
WINBASEAPI int WINAPI lstrcmpiW(LPCWSTR a, LPCWSTR b);
WINBASEAPI int WINAPIV wsprintfW(LPWSTR out, LPCWSTR format, ...);
WINBASEAPI int WINAPI wvsprintfA(LPSTR out, LPCSTR format, va_list args);

#define CP_ACP 0
#define CP_UTF8 65001
WINBASEAPI int WINAPI MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR src, int srcLen, LPWSTR dst, int dstLen);
WINBASEAPI int WINAPI WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR src, int srcLen, LPSTR dst, int dstLen,
                                          LPCSTR defaultChar, LPBOOL usedDefault);

TAMRIX_EXTERN_C_END

#endif
