// The driver kit's main header.
#pragma once
#define _NTDDK_
#include <wdm.h>
