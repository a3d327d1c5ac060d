/* The Win32 subset TAMRIX uses, for POSIX hosts. */
#ifndef TAMRIX_WINDOWS_H
#define TAMRIX_WINDOWS_H

#include "win/base.h"
#include "win/kernel.h"
#include "win/user.h"
#include "win/gdi.h"

#endif
