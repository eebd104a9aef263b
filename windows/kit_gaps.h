// Included in front of every driver source of the mingw-w64 build: what the Windows Driver Kit's headers and project
// settings do and mingw-w64's headers do not.
#pragma once

// wdm.h declares these two a second time in C++ unless told that the compiler has them.
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset

#include <ntddk.h>

// The USB headers leave C linkage to whoever includes them.
extern "C" {
#include <usb.h>
#include <usbdlib.h>
}

// The kit's POOL_NX_OPTIN_AUTO: non-paged pool is not executable. The type exists from Windows 8 on; the INF files ask for
// Windows 10.
#define NonPagedPool (static_cast<POOL_TYPE>(512))
