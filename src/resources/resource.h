/* Resource identifiers shared by the resource script and the driver. */
#ifndef TAMRIX_RESOURCE_H
#define TAMRIX_RESOURCE_H

/* ---- Strings ---- */
#define IDS_PRODUCT 1       /* product name returned by "info product" */
#define IDS_COMMAND_TABLE 2 /* resource name of the command table ("#96") */

/* Scan-mode dialog titles; the entry for model m is IDS_MODE_TITLE_BASE + m. */
#define IDS_MODE_TITLE_BASE 2
#define IDS_MODE_TITLE_KS610 3
#define IDS_MODE_TITLE_KS620 4
#define IDS_MODE_TITLE_KS630 5
#define IDS_MODE_TITLE_KS640 6
#define IDS_MODE_TITLE_KS650 7
#define IDS_MODE_TITLE_KS660 8
#define IDS_MODE_TITLE_KT700 9

/* Scanner model names; model m is IDS_MODEL_BASE + m. */
#define IDS_MODEL_BASE 20
#define IDS_MODEL_KS610 21
#define IDS_MODEL_KS620 22
#define IDS_MODEL_KS630 23
#define IDS_MODEL_KS640 24
#define IDS_MODEL_KS650 25
#define IDS_MODEL_KS660 26
#define IDS_MODEL_KT700 27

/* Interface names. */
#define IDS_IF_SCSI 41
#define IDS_IF_RS232C 42
#define IDS_IF_GPIB 43

/* Dither list of the scan-mode dialog: dither 1 with patterns 1 to 8, then
   dither 2 and dither 3. */
#define IDS_DITHER_FIRST 51
#define IDS_DITHER1_PATTERN8 58
#define IDS_DITHER2 59
#define IDS_DITHER3 60

/* Gamma list of the scan-mode dialog. */
#define IDS_GAMMA_CRT1 71
#define IDS_GAMMA_CRT2 72
#define IDS_GAMMA_PRN1 73
#define IDS_GAMMA_PRN2 74
#define IDS_GAMMA_NONE 75

/* Line speeds; baud index b is IDS_BAUD_BASE + b. */
#define IDS_BAUD_BASE 80
#define IDS_BAUD_4800 81
#define IDS_BAUD_9600 82
#define IDS_BAUD_19200 83

/* Serial port names; port n is IDS_PORT_BASE + n. */
#define IDS_PORT_BASE 90
#define IDS_PORT_COM1 91
#define IDS_PORT_COM9 99

/* Texts of the driver's own MCI error codes (same numbers as the codes). */
#define IDS_ERR_SCANNER_ABNORMAL 513
#define IDS_ERR_COMMAND_SEQUENCE 514

/* ---- Command table ---- */
#define IDR_COMMAND_TABLE 96

/* ---- Dialogs ---- */
#define IDD_CONFIG 1001
#define IDD_SERIAL 1002
#define IDD_GPIB 1003
#define IDD_SCANMODE 1004

/* Configuration dialog (OK = IDOK 1, Cancel = IDCANCEL 2). */
#define IDC_CFG_MODEL_LABEL 100
#define IDC_CFG_MODEL 108
#define IDC_CFG_IF_LABEL 110
#define IDC_CFG_IF 111
#define IDC_CFG_SETTINGS 115
#define IDC_CFG_HELP 117

/* RS-232C dialog. */
#define IDC_SER_PORT_GROUP 200
#define IDC_SER_PORT 201
#define IDC_SER_SPEED_GROUP 204
#define IDC_SER_SPEED 205
#define IDC_SER_STOPBITS 207

/* GP-IB dialog. */
#define IDC_GPIB_GROUP 300
#define IDC_GPIB_ADDRESS 303
#define IDC_GPIB_SPIN 304

/* Scan-mode dialog. Each value field is three ids below its scroll bar. */
#define IDC_MODE_EDGE 401
#define IDC_MODE_OR 402
#define IDC_MODE_NOISE 403
#define IDC_MODE_DITHER_GROUP 404
#define IDC_MODE_DITHER 405
#define IDC_MODE_GAMMA_GROUP 406
#define IDC_MODE_GAMMA 407
#define IDC_MODE_BRIGHT_LABEL 408
#define IDC_MODE_TINT_LABEL 409
#define IDC_MODE_SAT_LABEL 410
#define IDC_MODE_BRIGHT_LEVEL 411
#define IDC_MODE_TINT_LEVEL 412
#define IDC_MODE_SAT_LEVEL 413
#define IDC_MODE_BRIGHT_VALUE 414
#define IDC_MODE_TINT_VALUE 415
#define IDC_MODE_SAT_VALUE 416
#define IDC_MODE_BRIGHT_SCROLL 417
#define IDC_MODE_TINT_SCROLL 418
#define IDC_MODE_SAT_SCROLL 419
#define IDC_MODE_BRIGHT_DARK 420
#define IDC_MODE_BRIGHT_LIGHT 421
#define IDC_MODE_TINT_RED 422
#define IDC_MODE_TINT_GREEN 423
#define IDC_MODE_SAT_WEAK 424
#define IDC_MODE_SAT_STRONG 425
#define IDC_MODE_VALUE_OFFSET 3

#endif
