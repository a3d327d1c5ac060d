/* Window and control styles used by the dialog templates, as plain numbers
   for the resource compiler (the values are those of the Win32 API). */
#ifndef TAMRIX_DLGSTYLES_H
#define TAMRIX_DLGSTYLES_H

#define RS_POPUP 0x80000000L
#define RS_CHILD 0x40000000L
#define RS_VISIBLE 0x10000000L
#define RS_CAPTION 0x00C00000L
#define RS_BORDER 0x00800000L
#define RS_VSCROLL 0x00200000L
#define RS_SYSMENU 0x00080000L
#define RS_GROUP 0x00020000L
#define RS_TABSTOP 0x00010000L
#define RS_MODALFRAME 0x80L

#define RS_PUSHBUTTON 0x0L
#define RS_DEFPUSHBUTTON 0x1L
#define RS_AUTOCHECKBOX 0x3L
#define RS_GROUPBOX 0x7L
#define RS_EDIT_CENTER 0x1L
#define RS_STATIC_LEFT 0x0L
#define RS_STATIC_RIGHT 0x2L
#define RS_CB_DROPDOWNLIST 0x3L
#define RS_CB_SORT 0x100L
#define RS_SB_HORZ 0x0L

/* Predefined control classes, stored as ordinals in the templates. */
#define RS_CLS_BUTTON 0x80
#define RS_CLS_EDIT 0x81
#define RS_CLS_STATIC 0x82
#define RS_CLS_SCROLLBAR 0x84
#define RS_CLS_COMBOBOX 0x85

/* Every dialog of the driver: a pop-up with caption, system menu and modal frame. */
#define RS_DIALOG (RS_POPUP | RS_CAPTION | RS_SYSMENU | RS_MODALFRAME)
#define RS_CTL (RS_CHILD | RS_VISIBLE)

#endif
