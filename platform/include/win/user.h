/* USER32 subset: window classes, windows, message queues, timers, hooks,
   dialogs and their controls, painting, clipboard, help. */
#ifndef TAMRIX_WIN_USER_H
#define TAMRIX_WIN_USER_H

#include "base.h"

TAMRIX_EXTERN_C_BEGIN

typedef LRESULT(CALLBACK *WNDPROC)(HWND, UINT, WPARAM, LPARAM);
typedef INT_PTR(CALLBACK *DLGPROC)(HWND, UINT, WPARAM, LPARAM);
typedef void(CALLBACK *TIMERPROC)(HWND, UINT, UINT_PTR, DWORD);
typedef LRESULT(CALLBACK *HOOKPROC)(int code, WPARAM wParam, LPARAM lParam);

typedef struct tagMSG {
    HWND hwnd;
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    DWORD time;
    POINT pt;
} MSG, *PMSG, *LPMSG;

typedef struct tagWNDCLASSW {
    UINT style;
    WNDPROC lpfnWndProc;
    int cbClsExtra;
    int cbWndExtra;
    HINSTANCE hInstance;
    HICON hIcon;
    HCURSOR hCursor;
    HBRUSH hbrBackground;
    LPCWSTR lpszMenuName;
    LPCWSTR lpszClassName;
} WNDCLASSW, *PWNDCLASSW, *LPWNDCLASSW;

typedef struct tagCREATESTRUCTW {
    LPVOID lpCreateParams;
    HINSTANCE hInstance;
    HMENU hMenu;
    HWND hwndParent;
    int cy;
    int cx;
    int y;
    int x;
    LONG style;
    LPCWSTR lpszName;
    LPCWSTR lpszClass;
    DWORD dwExStyle;
} CREATESTRUCTW, *LPCREATESTRUCTW;

typedef struct tagPAINTSTRUCT {
    HDC hdc;
    BOOL fErase;
    RECT rcPaint;
    BOOL fRestore;
    BOOL fIncUpdate;
    BYTE rgbReserved[32];
} PAINTSTRUCT, *PPAINTSTRUCT, *LPPAINTSTRUCT;

typedef struct tagMINMAXINFO {
    POINT ptReserved;
    POINT ptMaxSize;
    POINT ptMaxPosition;
    POINT ptMinTrackSize;
    POINT ptMaxTrackSize;
} MINMAXINFO, *LPMINMAXINFO;

/* Dialog templates, as stored in RT_DIALOG resources (2-byte packed). */
#pragma pack(push, 2)
typedef struct {
    DWORD style;
    DWORD dwExtendedStyle;
    WORD cdit;
    short x;
    short y;
    short cx;
    short cy;
} DLGTEMPLATE, *LPDLGTEMPLATEW;
typedef const DLGTEMPLATE *LPCDLGTEMPLATEW;
typedef struct {
    DWORD style;
    DWORD dwExtendedStyle;
    short x;
    short y;
    short cx;
    short cy;
    WORD id;
} DLGITEMTEMPLATE;
#pragma pack(pop)

/* Class styles */
#define CS_VREDRAW 0x0001u
#define CS_HREDRAW 0x0002u
#define CS_DBLCLKS 0x0008u
#define CS_OWNDC 0x0020u
#define CS_CLASSDC 0x0040u
#define CS_PARENTDC 0x0080u
#define CS_NOCLOSE 0x0200u
#define CS_SAVEBITS 0x0800u
#define CS_GLOBALCLASS 0x4000u

/* Window styles */
#define WS_OVERLAPPED 0x00000000u
#define WS_POPUP 0x80000000u
#define WS_CHILD 0x40000000u
#define WS_MINIMIZE 0x20000000u
#define WS_VISIBLE 0x10000000u
#define WS_DISABLED 0x08000000u
#define WS_CLIPSIBLINGS 0x04000000u
#define WS_CLIPCHILDREN 0x02000000u
#define WS_MAXIMIZE 0x01000000u
#define WS_CAPTION 0x00C00000u
#define WS_BORDER 0x00800000u
#define WS_DLGFRAME 0x00400000u
#define WS_VSCROLL 0x00200000u
#define WS_HSCROLL 0x00100000u
#define WS_SYSMENU 0x00080000u
#define WS_THICKFRAME 0x00040000u
#define WS_GROUP 0x00020000u
#define WS_TABSTOP 0x00010000u
#define WS_MINIMIZEBOX 0x00020000u
#define WS_MAXIMIZEBOX 0x00010000u
#define WS_OVERLAPPEDWINDOW (WS_OVERLAPPED | WS_CAPTION | WS_SYSMENU | WS_THICKFRAME | WS_MINIMIZEBOX | WS_MAXIMIZEBOX)
#define WS_POPUPWINDOW (WS_POPUP | WS_BORDER | WS_SYSMENU)
#define WS_EX_DLGMODALFRAME 0x00000001u
#define WS_EX_TOPMOST 0x00000008u
#define WS_EX_TOOLWINDOW 0x00000080u
#define WS_EX_CLIENTEDGE 0x00000200u
#define CW_USEDEFAULT ((int)0x80000000)
#define HWND_DESKTOP ((HWND)0)
#define HWND_MESSAGE ((HWND)(LONG_PTR)-3)
#define HWND_TOP ((HWND)0)
#define HWND_BROADCAST ((HWND)0xffff)

/* Dialog and control styles */
#define DS_ABSALIGN 0x01u
#define DS_SYSMODAL 0x02u
#define DS_LOCALEDIT 0x20u
#define DS_SETFONT 0x40u
#define DS_MODALFRAME 0x80u
#define DS_NOIDLEMSG 0x100u
#define DS_SETFOREGROUND 0x200u
#define DS_3DLOOK 0x0004u
#define DS_CENTER 0x0800u
#define BS_PUSHBUTTON 0x00000000u
#define BS_DEFPUSHBUTTON 0x00000001u
#define BS_CHECKBOX 0x00000002u
#define BS_AUTOCHECKBOX 0x00000003u
#define BS_RADIOBUTTON 0x00000004u
#define BS_3STATE 0x00000005u
#define BS_AUTO3STATE 0x00000006u
#define BS_GROUPBOX 0x00000007u
#define BS_AUTORADIOBUTTON 0x00000009u
#define BS_OWNERDRAW 0x0000000Bu
#define BS_LEFTTEXT 0x00000020u
#define ES_LEFT 0x0000u
#define ES_CENTER 0x0001u
#define ES_RIGHT 0x0002u
#define ES_MULTILINE 0x0004u
#define ES_UPPERCASE 0x0008u
#define ES_AUTOHSCROLL 0x0080u
#define ES_READONLY 0x0800u
#define ES_NUMBER 0x2000u
#define SS_LEFT 0x00000000u
#define SS_CENTER 0x00000001u
#define SS_RIGHT 0x00000002u
#define SS_ICON 0x00000003u
#define SS_BLACKRECT 0x00000004u
#define SS_GRAYRECT 0x00000005u
#define SS_WHITERECT 0x00000006u
#define SS_BLACKFRAME 0x00000007u
#define SS_GRAYFRAME 0x00000008u
#define SS_WHITEFRAME 0x00000009u
#define SS_SIMPLE 0x0000000Bu
#define SS_LEFTNOWORDWRAP 0x0000000Cu
#define SS_NOPREFIX 0x00000080u
#define SS_ETCHEDFRAME 0x00000012u
#define CBS_SIMPLE 0x0001u
#define CBS_DROPDOWN 0x0002u
#define CBS_DROPDOWNLIST 0x0003u
#define CBS_AUTOHSCROLL 0x0040u
#define CBS_SORT 0x0100u
#define CBS_HASSTRINGS 0x0200u
#define LBS_NOTIFY 0x0001u
#define LBS_SORT 0x0002u
#define SBS_HORZ 0x0000u
#define SBS_VERT 0x0001u

/* Messages */
#define WM_NULL 0x0000
#define WM_CREATE 0x0001
#define WM_DESTROY 0x0002
#define WM_MOVE 0x0003
#define WM_SIZE 0x0005
#define WM_ACTIVATE 0x0006
#define WM_SETFOCUS 0x0007
#define WM_KILLFOCUS 0x0008
#define WM_ENABLE 0x000A
#define WM_SETREDRAW 0x000B
#define WM_SETTEXT 0x000C
#define WM_GETTEXT 0x000D
#define WM_GETTEXTLENGTH 0x000E
#define WM_PAINT 0x000F
#define WM_CLOSE 0x0010
#define WM_QUIT 0x0012
#define WM_ERASEBKGND 0x0014
#define WM_SHOWWINDOW 0x0018
#define WM_ACTIVATEAPP 0x001C
#define WM_CANCELMODE 0x001F
#define WM_SETCURSOR 0x0020
#define WM_MOUSEACTIVATE 0x0021
#define WM_GETMINMAXINFO 0x0024
#define WM_DRAWITEM 0x002B
#define WM_SETFONT 0x0030
#define WM_GETFONT 0x0031
#define WM_WINDOWPOSCHANGING 0x0046
#define WM_WINDOWPOSCHANGED 0x0047
#define WM_HELP 0x0053
#define WM_NCCREATE 0x0081
#define WM_NCDESTROY 0x0082
#define WM_NCHITTEST 0x0084
#define WM_NCPAINT 0x0085
#define WM_NCACTIVATE 0x0086
#define WM_GETDLGCODE 0x0087
#define WM_KEYDOWN 0x0100
#define WM_KEYUP 0x0101
#define WM_CHAR 0x0102
#define WM_SYSKEYDOWN 0x0104
#define WM_SYSKEYUP 0x0105
#define WM_SYSCHAR 0x0106
#define WM_INITDIALOG 0x0110
#define WM_COMMAND 0x0111
#define WM_SYSCOMMAND 0x0112
#define WM_TIMER 0x0113
#define WM_HSCROLL 0x0114
#define WM_VSCROLL 0x0115
#define WM_CTLCOLORMSGBOX 0x0132
#define WM_CTLCOLOREDIT 0x0133
#define WM_CTLCOLORLISTBOX 0x0134
#define WM_CTLCOLORBTN 0x0135
#define WM_CTLCOLORDLG 0x0136
#define WM_CTLCOLORSCROLLBAR 0x0137
#define WM_CTLCOLORSTATIC 0x0138
#define WM_MOUSEMOVE 0x0200
#define WM_LBUTTONDOWN 0x0201
#define WM_LBUTTONUP 0x0202
#define WM_LBUTTONDBLCLK 0x0203
#define WM_RBUTTONDOWN 0x0204
#define WM_RBUTTONUP 0x0205
#define WM_CAPTURECHANGED 0x0215
#define WM_QUERYNEWPALETTE 0x030F
#define WM_PALETTECHANGED 0x0311
#define WM_USER 0x0400
#define WM_APP 0x8000

#define WM_KEYFIRST 0x0100
#define WM_KEYLAST 0x0109
#define WM_MOUSEFIRST 0x0200
#define WM_MOUSELAST 0x020D

/* Control notifications and messages */
#define BN_CLICKED 0
#define EN_CHANGE 0x0300
#define EN_KILLFOCUS 0x0200
#define EN_SETFOCUS 0x0100
#define CBN_SELCHANGE 1
#define CBN_DBLCLK 2
#define CBN_SETFOCUS 3
#define CBN_KILLFOCUS 4
#define CBN_EDITCHANGE 5
#define CBN_DROPDOWN 7
#define BM_GETCHECK 0x00F0
#define BM_SETCHECK 0x00F1
#define BM_GETSTATE 0x00F2
#define BM_SETSTATE 0x00F3
#define BM_SETSTYLE 0x00F4
#define BM_CLICK 0x00F5
#define BST_UNCHECKED 0x0000
#define BST_CHECKED 0x0001
#define BST_INDETERMINATE 0x0002
#define EM_GETSEL 0x00B0
#define EM_SETSEL 0x00B1
#define EM_LIMITTEXT 0x00C5
#define EM_SETLIMITTEXT EM_LIMITTEXT
#define EM_GETLIMITTEXT 0x00D5
#define CB_GETEDITSEL 0x0140
#define CB_LIMITTEXT 0x0141
#define CB_SETEDITSEL 0x0142
#define CB_ADDSTRING 0x0143
#define CB_DELETESTRING 0x0144
#define CB_GETCOUNT 0x0146
#define CB_GETCURSEL 0x0147
#define CB_GETLBTEXT 0x0148
#define CB_GETLBTEXTLEN 0x0149
#define CB_INSERTSTRING 0x014A
#define CB_RESETCONTENT 0x014B
#define CB_FINDSTRING 0x014C
#define CB_SELECTSTRING 0x014D
#define CB_SETCURSEL 0x014E
#define CB_SHOWDROPDOWN 0x014F
#define CB_GETITEMDATA 0x0150
#define CB_SETITEMDATA 0x0151
#define CB_FINDSTRINGEXACT 0x0158
#define CB_ERR (-1)
#define CB_ERRSPACE (-2)
#define LB_ADDSTRING 0x0180
#define LB_RESETCONTENT 0x0184
#define LB_SETCURSEL 0x0186
#define LB_GETCURSEL 0x0188
#define LB_GETCOUNT 0x018B
#define LB_ERR (-1)
#define SBM_SETPOS 0x00E0
#define SBM_GETPOS 0x00E1
#define SBM_SETRANGE 0x00E2
#define SBM_GETRANGE 0x00E3
#define SB_LINEUP 0
#define SB_LINEDOWN 1
#define SB_PAGEUP 2
#define SB_PAGEDOWN 3
#define SB_THUMBPOSITION 4
#define SB_THUMBTRACK 5
#define SB_TOP 6
#define SB_BOTTOM 7
#define SB_ENDSCROLL 8
#define SB_CTL 2
#define DLGC_WANTARROWS 0x0001
#define DLGC_WANTTAB 0x0002
#define DLGC_WANTALLKEYS 0x0004
#define DLGC_WANTCHARS 0x0080
#define DLGC_HASSETSEL 0x0008
#define DLGC_DEFPUSHBUTTON 0x0010
#define DLGC_UNDEFPUSHBUTTON 0x0020
#define DLGC_RADIOBUTTON 0x0040
#define DLGC_STATIC 0x0100
#define DLGC_BUTTON 0x2000
#define DM_GETDEFID (WM_USER + 0)
#define DM_SETDEFID (WM_USER + 1)
#define DC_HASDEFID 0x534B
#define EM_REPLACESEL 0x00C2
#define SB_HORZ 0
#define SB_VERT 1
#define SB_LINELEFT 0
#define SB_LINERIGHT 1
#define SB_PAGELEFT 2
#define SB_PAGERIGHT 3
#define SB_LEFT 6
#define SB_RIGHT 7
#define MK_LBUTTON 0x0001
#define MK_RBUTTON 0x0002
#define MK_SHIFT 0x0004

/* Dialog results and control identifiers */
#define IDOK 1
#define IDCANCEL 2
#define IDABORT 3
#define IDRETRY 4
#define IDIGNORE 5
#define IDYES 6
#define IDNO 7
#define IDHELP 9
#define IDC_STATIC (-1)

/* ShowWindow */
#define SW_HIDE 0
#define SW_SHOWNORMAL 1
#define SW_NORMAL 1
#define SW_SHOWMINIMIZED 2
#define SW_SHOWMAXIMIZED 3
#define SW_MAXIMIZE 3
#define SW_SHOWNOACTIVATE 4
#define SW_SHOW 5
#define SW_MINIMIZE 6
#define SW_SHOWMINNOACTIVE 7
#define SW_SHOWNA 8
#define SW_RESTORE 9
#define SW_SHOWDEFAULT 10

/* SetWindowPos */
#define SWP_NOSIZE 0x0001u
#define SWP_NOMOVE 0x0002u
#define SWP_NOZORDER 0x0004u
#define SWP_NOREDRAW 0x0008u
#define SWP_NOACTIVATE 0x0010u
#define SWP_SHOWWINDOW 0x0040u
#define SWP_HIDEWINDOW 0x0080u

/* Window fields */
#define GWL_WNDPROC (-4)
#define GWL_HINSTANCE (-6)
#define GWL_STYLE (-16)
#define GWL_EXSTYLE (-20)
#define GWL_USERDATA (-21)
#define GWL_ID (-12)
#define GWLP_WNDPROC (-4)
#define GWLP_HINSTANCE (-6)
#define GWLP_USERDATA (-21)
#define GWLP_ID (-12)
#define DWLP_MSGRESULT 0
#define DWLP_DLGPROC (DWLP_MSGRESULT + (int)sizeof(LRESULT))
#define DWLP_USER (DWLP_DLGPROC + (int)sizeof(DLGPROC))
#define GW_HWNDFIRST 0
#define GW_HWNDNEXT 2
#define GW_OWNER 4
#define GW_CHILD 5

/* PeekMessage */
#define PM_NOREMOVE 0x0000u
#define PM_REMOVE 0x0001u
#define PM_NOYIELD 0x0002u

/* Hooks */
#define WH_MSGFILTER (-1)
#define WH_GETMESSAGE 3
#define WH_CALLWNDPROC 4
#define WH_CBT 5
#define HC_ACTION 0

/* Cursors and icons */
#define IDC_ARROW MAKEINTRESOURCEW(32512)
#define IDC_IBEAM MAKEINTRESOURCEW(32513)
#define IDC_WAIT MAKEINTRESOURCEW(32514)
#define IDC_CROSS MAKEINTRESOURCEW(32515)
#define IDI_APPLICATION MAKEINTRESOURCEW(32512)

/* System metrics and colours */
#define SM_CXSCREEN 0
#define SM_CYSCREEN 1
#define SM_CXVSCROLL 2
#define SM_CYHSCROLL 3
#define SM_CYCAPTION 4
#define SM_CXBORDER 5
#define SM_CYBORDER 6
#define SM_CXDLGFRAME 7
#define SM_CYDLGFRAME 8
#define SM_CXFRAME 32
#define SM_CYFRAME 33
#define COLOR_WINDOW 5
#define COLOR_WINDOWFRAME 6
#define COLOR_WINDOWTEXT 8
#define COLOR_BTNFACE 15
#define COLOR_BTNSHADOW 16
#define COLOR_GRAYTEXT 17
#define COLOR_BTNTEXT 18
#define COLOR_BTNHIGHLIGHT 20
#define COLOR_3DDKSHADOW 21
#define COLOR_3DLIGHT 22

/* Virtual keys */
#define VK_BACK 0x08
#define VK_TAB 0x09
#define VK_RETURN 0x0D
#define VK_SHIFT 0x10
#define VK_ESCAPE 0x1B
#define VK_SPACE 0x20
#define VK_PRIOR 0x21
#define VK_NEXT 0x22
#define VK_END 0x23
#define VK_HOME 0x24
#define VK_LEFT 0x25
#define VK_UP 0x26
#define VK_RIGHT 0x27
#define VK_DOWN 0x28

/* Clipboard formats */
#define CF_TEXT 1
#define CF_BITMAP 2
#define CF_DIB 8
#define CF_PALETTE 9
#define CF_UNICODETEXT 13

/* WinHelp */
#define HELP_CONTEXT 0x0001u
#define HELP_QUIT 0x0002u
#define HELP_INDEX 0x0003u
#define HELP_CONTENTS 0x0003u
#define HELP_HELPONHELP 0x0004u
#define HELP_SETINDEX 0x0005u
#define HELP_KEY 0x0101u
#define HELP_FINDER 0x000Bu

/* Message boxes */
#define MB_OK 0x00000000u
#define MB_ICONEXCLAMATION 0x00000030u
#define MB_ICONINFORMATION 0x00000040u

/* Window classes */
WINUSERAPI ATOM WINAPI RegisterClassW(const WNDCLASSW *wc);
WINUSERAPI BOOL WINAPI UnregisterClassW(LPCWSTR className, HINSTANCE instance);
WINUSERAPI BOOL WINAPI GetClassInfoW(HINSTANCE instance, LPCWSTR className, LPWNDCLASSW wc);

/* Windows */
WINUSERAPI HWND WINAPI CreateWindowExW(DWORD exStyle, LPCWSTR className, LPCWSTR windowName, DWORD style, int x, int y,
                                       int width, int height, HWND parent, HMENU menu, HINSTANCE instance,
                                       LPVOID param);
#define CreateWindowW(cls, name, style, x, y, w, h, parent, menu, inst, param)                                         \
    CreateWindowExW(0, cls, name, style, x, y, w, h, parent, menu, inst, param)
WINUSERAPI BOOL WINAPI DestroyWindow(HWND wnd);
WINUSERAPI BOOL WINAPI IsWindow(HWND wnd);
WINUSERAPI BOOL WINAPI IsWindowVisible(HWND wnd);
WINUSERAPI BOOL WINAPI IsWindowEnabled(HWND wnd);
WINUSERAPI BOOL WINAPI IsIconic(HWND wnd);
WINUSERAPI BOOL WINAPI IsZoomed(HWND wnd);
WINUSERAPI BOOL WINAPI EnableWindow(HWND wnd, BOOL enable);
WINUSERAPI BOOL WINAPI ShowWindow(HWND wnd, int cmdShow);
WINUSERAPI BOOL WINAPI UpdateWindow(HWND wnd);
WINUSERAPI BOOL WINAPI MoveWindow(HWND wnd, int x, int y, int width, int height, BOOL repaint);
WINUSERAPI BOOL WINAPI SetWindowPos(HWND wnd, HWND after, int x, int y, int cx, int cy, UINT flags);
WINUSERAPI BOOL WINAPI GetClientRect(HWND wnd, LPRECT rect);
WINUSERAPI BOOL WINAPI GetWindowRect(HWND wnd, LPRECT rect);
WINUSERAPI BOOL WINAPI AdjustWindowRect(LPRECT rect, DWORD style, BOOL menu);
WINUSERAPI BOOL WINAPI SetWindowTextW(HWND wnd, LPCWSTR text);
WINUSERAPI int WINAPI GetWindowTextW(HWND wnd, LPWSTR text, int max);
WINUSERAPI int WINAPI GetClassNameW(HWND wnd, LPWSTR name, int max);
WINUSERAPI int WINAPI GetWindowTextLengthW(HWND wnd);
WINUSERAPI LONG WINAPI GetWindowLongW(HWND wnd, int index);
WINUSERAPI LONG WINAPI SetWindowLongW(HWND wnd, int index, LONG value);
WINUSERAPI LONG_PTR WINAPI GetWindowLongPtrW(HWND wnd, int index);
WINUSERAPI LONG_PTR WINAPI SetWindowLongPtrW(HWND wnd, int index, LONG_PTR value);
WINUSERAPI HWND WINAPI GetParent(HWND wnd);
WINUSERAPI HWND WINAPI GetWindow(HWND wnd, UINT cmd);
WINUSERAPI HWND WINAPI GetActiveWindow(void);
WINUSERAPI HWND WINAPI SetActiveWindow(HWND wnd);
WINUSERAPI HWND WINAPI GetFocus(void);
WINUSERAPI HWND WINAPI SetFocus(HWND wnd);
WINUSERAPI BOOL WINAPI SetForegroundWindow(HWND wnd);
WINUSERAPI HWND WINAPI GetDesktopWindow(void);
WINUSERAPI DWORD WINAPI GetWindowThreadProcessId(HWND wnd, LPDWORD processId);
WINUSERAPI BOOL WINAPI InvalidateRect(HWND wnd, const RECT *rect, BOOL erase);
WINUSERAPI BOOL WINAPI ValidateRect(HWND wnd, const RECT *rect);
WINUSERAPI BOOL WINAPI GetUpdateRect(HWND wnd, LPRECT rect, BOOL erase);
WINUSERAPI BOOL WINAPI ClientToScreen(HWND wnd, LPPOINT point);
WINUSERAPI BOOL WINAPI ScreenToClient(HWND wnd, LPPOINT point);
WINUSERAPI int WINAPI GetSystemMetrics(int index);
WINUSERAPI DWORD WINAPI GetSysColor(int index);
WINUSERAPI LRESULT WINAPI DefWindowProcW(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam);
WINUSERAPI LRESULT WINAPI CallWindowProcW(WNDPROC proc, HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam);

/* Messages */
WINUSERAPI BOOL WINAPI GetMessageW(LPMSG msg, HWND wnd, UINT filterMin, UINT filterMax);
WINUSERAPI BOOL WINAPI PeekMessageW(LPMSG msg, HWND wnd, UINT filterMin, UINT filterMax, UINT removeMsg);
WINUSERAPI BOOL WINAPI TranslateMessage(const MSG *msg);
WINUSERAPI LRESULT WINAPI DispatchMessageW(const MSG *msg);
WINUSERAPI BOOL WINAPI PostMessageW(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam);
WINUSERAPI BOOL WINAPI PostThreadMessageW(DWORD threadId, UINT msg, WPARAM wParam, LPARAM lParam);
WINUSERAPI LRESULT WINAPI SendMessageW(HWND wnd, UINT msg, WPARAM wParam, LPARAM lParam);
WINUSERAPI void WINAPI PostQuitMessage(int exitCode);
WINUSERAPI BOOL WINAPI WaitMessage(void);
WINUSERAPI BOOL WINAPI InSendMessage(void);
WINUSERAPI DWORD WINAPI GetMessageTime(void);
WINUSERAPI DWORD WINAPI MsgWaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD milliseconds,
                                                  DWORD wakeMask);
#define QS_ALLINPUT 0x04FFu

/* Timers */
WINUSERAPI UINT_PTR WINAPI SetTimer(HWND wnd, UINT_PTR id, UINT elapse, TIMERPROC proc);
WINUSERAPI BOOL WINAPI KillTimer(HWND wnd, UINT_PTR id);

/* Hooks */
WINUSERAPI HHOOK WINAPI SetWindowsHookExW(int idHook, HOOKPROC proc, HINSTANCE module, DWORD threadId);
WINUSERAPI BOOL WINAPI UnhookWindowsHookEx(HHOOK hook);
WINUSERAPI LRESULT WINAPI CallNextHookEx(HHOOK hook, int code, WPARAM wParam, LPARAM lParam);

/* Dialogs and controls */
WINUSERAPI INT_PTR WINAPI DialogBoxParamW(HINSTANCE instance, LPCWSTR templateName, HWND owner, DLGPROC proc,
                                          LPARAM initParam);
WINUSERAPI HWND WINAPI CreateDialogParamW(HINSTANCE instance, LPCWSTR templateName, HWND owner, DLGPROC proc,
                                          LPARAM initParam);
WINUSERAPI BOOL WINAPI EndDialog(HWND dlg, INT_PTR result);
WINUSERAPI BOOL WINAPI IsDialogMessageW(HWND dlg, LPMSG msg);
WINUSERAPI HWND WINAPI GetDlgItem(HWND dlg, int id);
WINUSERAPI int WINAPI GetDlgCtrlID(HWND wnd);
WINUSERAPI LRESULT WINAPI SendDlgItemMessageW(HWND dlg, int id, UINT msg, WPARAM wParam, LPARAM lParam);
WINUSERAPI BOOL WINAPI SetDlgItemTextW(HWND dlg, int id, LPCWSTR text);
WINUSERAPI UINT WINAPI GetDlgItemTextW(HWND dlg, int id, LPWSTR text, int max);
WINUSERAPI BOOL WINAPI SetDlgItemInt(HWND dlg, int id, UINT value, BOOL isSigned);
WINUSERAPI UINT WINAPI GetDlgItemInt(HWND dlg, int id, BOOL *translated, BOOL isSigned);
WINUSERAPI BOOL WINAPI CheckDlgButton(HWND dlg, int id, UINT check);
WINUSERAPI UINT WINAPI IsDlgButtonChecked(HWND dlg, int id);
WINUSERAPI BOOL WINAPI CheckRadioButton(HWND dlg, int first, int last, int check);
WINUSERAPI HWND WINAPI GetNextDlgTabItem(HWND dlg, HWND ctl, BOOL previous);
WINUSERAPI int WINAPI MessageBoxW(HWND owner, LPCWSTR text, LPCWSTR caption, UINT type);
WINUSERAPI BOOL WINAPI MapDialogRect(HWND dlg, LPRECT rect);
WINUSERAPI LONG WINAPI GetDialogBaseUnits(void);
WINUSERAPI int WINAPI SetScrollPos(HWND wnd, int bar, int pos, BOOL redraw);
WINUSERAPI int WINAPI GetScrollPos(HWND wnd, int bar);
WINUSERAPI BOOL WINAPI SetScrollRange(HWND wnd, int bar, int minPos, int maxPos, BOOL redraw);
WINUSERAPI BOOL WINAPI GetScrollRange(HWND wnd, int bar, LPINT minPos, LPINT maxPos);

/* Painting */
WINUSERAPI HDC WINAPI BeginPaint(HWND wnd, LPPAINTSTRUCT ps);
WINUSERAPI BOOL WINAPI EndPaint(HWND wnd, const PAINTSTRUCT *ps);
WINUSERAPI HDC WINAPI GetDC(HWND wnd);
WINUSERAPI HDC WINAPI GetWindowDC(HWND wnd);
WINUSERAPI int WINAPI ReleaseDC(HWND wnd, HDC dc);
WINUSERAPI int WINAPI FillRect(HDC dc, const RECT *rect, HBRUSH brush);
WINUSERAPI int WINAPI FrameRect(HDC dc, const RECT *rect, HBRUSH brush);

/* Mouse capture and cursors */
WINUSERAPI HWND WINAPI SetCapture(HWND wnd);
WINUSERAPI BOOL WINAPI ReleaseCapture(void);
WINUSERAPI HWND WINAPI GetCapture(void);
WINUSERAPI HCURSOR WINAPI LoadCursorW(HINSTANCE instance, LPCWSTR name);
WINUSERAPI HCURSOR WINAPI SetCursor(HCURSOR cursor);
WINUSERAPI HICON WINAPI LoadIconW(HINSTANCE instance, LPCWSTR name);
WINUSERAPI BOOL WINAPI DestroyIcon(HICON icon);
WINUSERAPI short WINAPI GetKeyState(int key);

/* Clipboard */
WINUSERAPI BOOL WINAPI OpenClipboard(HWND owner);
WINUSERAPI BOOL WINAPI CloseClipboard(void);
WINUSERAPI BOOL WINAPI EmptyClipboard(void);
WINUSERAPI HANDLE WINAPI SetClipboardData(UINT format, HANDLE mem);
WINUSERAPI HANDLE WINAPI GetClipboardData(UINT format);
WINUSERAPI BOOL WINAPI IsClipboardFormatAvailable(UINT format);
WINUSERAPI int WINAPI CountClipboardFormats(void);
WINUSERAPI UINT WINAPI EnumClipboardFormats(UINT format);
WINUSERAPI HWND WINAPI GetClipboardOwner(void);
WINUSERAPI HWND WINAPI GetOpenClipboardWindow(void);

/* Help */
WINUSERAPI BOOL WINAPI WinHelpW(HWND wnd, LPCWSTR helpFile, UINT command, ULONG_PTR data);

/* Rectangles */
WINUSERAPI BOOL WINAPI SetRect(LPRECT rect, int left, int top, int right, int bottom);
WINUSERAPI BOOL WINAPI SetRectEmpty(LPRECT rect);
WINUSERAPI BOOL WINAPI CopyRect(LPRECT dst, const RECT *src);
WINUSERAPI BOOL WINAPI InflateRect(LPRECT rect, int dx, int dy);
WINUSERAPI BOOL WINAPI OffsetRect(LPRECT rect, int dx, int dy);
WINUSERAPI BOOL WINAPI PtInRect(const RECT *rect, POINT pt);
WINUSERAPI BOOL WINAPI IsRectEmpty(const RECT *rect);
WINUSERAPI BOOL WINAPI IntersectRect(LPRECT dst, const RECT *a, const RECT *b);

TAMRIX_EXTERN_C_END

#endif
