#ifndef INITGUID
#define INITGUID
#endif
#include <guiddef.h>
