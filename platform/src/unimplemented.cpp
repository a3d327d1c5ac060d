// Weak fall-backs for the declared entry points the platform does not
// provide yet: painting, dialogs and their controls, the clipboard, serial
// port control, device I/O control and help. A real definition anywhere in
// the library replaces them; a call that reaches one reports it on stderr
// and fails (0) with ERROR_CALL_NOT_IMPLEMENTED.
//
// The header is deliberately not included: these symbols only need their
// (unmangled) names.
#include <cstdint>
#include <cstdio>

extern "C" void SetLastError(uint32_t code);

namespace
{
uintptr_t Unimplemented(const char *name)
{
    std::fprintf(stderr, "platform: %s is not implemented\n", name);
    SetLastError(120); // ERROR_CALL_NOT_IMPLEMENTED
    return 0;
}
} // namespace

#define PLAT_UNIMPLEMENTED(name)                                                                                       \
    extern "C" __attribute__((weak, visibility("default"))) uintptr_t name()                                           \
    {                                                                                                                  \
        return Unimplemented(#name);                                                                                   \
    }

PLAT_UNIMPLEMENTED(BeginPaint)
PLAT_UNIMPLEMENTED(CheckDlgButton)
PLAT_UNIMPLEMENTED(CheckRadioButton)
PLAT_UNIMPLEMENTED(ClearCommError)
PLAT_UNIMPLEMENTED(CloseClipboard)
PLAT_UNIMPLEMENTED(CreateDialogParamW)
PLAT_UNIMPLEMENTED(DeviceIoControl)
PLAT_UNIMPLEMENTED(DialogBoxParamW)
PLAT_UNIMPLEMENTED(DrawTextW)
PLAT_UNIMPLEMENTED(EmptyClipboard)
PLAT_UNIMPLEMENTED(EndDialog)
PLAT_UNIMPLEMENTED(EndPaint)
PLAT_UNIMPLEMENTED(EscapeCommFunction)
PLAT_UNIMPLEMENTED(GetCapture)
PLAT_UNIMPLEMENTED(GetClipboardData)
PLAT_UNIMPLEMENTED(GetCommState)
PLAT_UNIMPLEMENTED(GetCommTimeouts)
PLAT_UNIMPLEMENTED(GetDlgCtrlID)
PLAT_UNIMPLEMENTED(GetDlgItem)
PLAT_UNIMPLEMENTED(GetDlgItemInt)
PLAT_UNIMPLEMENTED(GetDlgItemTextW)
PLAT_UNIMPLEMENTED(GetNextDlgTabItem)
PLAT_UNIMPLEMENTED(GetSysColorBrush)
PLAT_UNIMPLEMENTED(InvalidateRect)
PLAT_UNIMPLEMENTED(IsClipboardFormatAvailable)
PLAT_UNIMPLEMENTED(IsDialogMessageW)
PLAT_UNIMPLEMENTED(IsDlgButtonChecked)
PLAT_UNIMPLEMENTED(OpenClipboard)
PLAT_UNIMPLEMENTED(PurgeComm)
PLAT_UNIMPLEMENTED(ReleaseCapture)
PLAT_UNIMPLEMENTED(SendDlgItemMessageW)
PLAT_UNIMPLEMENTED(SetCapture)
PLAT_UNIMPLEMENTED(SetClipboardData)
PLAT_UNIMPLEMENTED(SetCommState)
PLAT_UNIMPLEMENTED(SetCommTimeouts)
PLAT_UNIMPLEMENTED(SetDlgItemInt)
PLAT_UNIMPLEMENTED(SetDlgItemTextW)
PLAT_UNIMPLEMENTED(SetupComm)
PLAT_UNIMPLEMENTED(UpdateWindow)
PLAT_UNIMPLEMENTED(ValidateRect)
PLAT_UNIMPLEMENTED(WinHelpW)
