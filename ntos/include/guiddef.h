// GUID and DEFINE_GUID. Included again after <initguid.h>, DEFINE_GUID defines instead of declaring.
#ifndef _NTOS_GUIDDEF_TYPE
#define _NTOS_GUIDDEF_TYPE
typedef struct _GUID {
    unsigned int Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
} GUID, *PGUID;
typedef GUID *LPGUID;
typedef const GUID *LPCGUID;
#define REFGUID const GUID &
#define IsEqualGUID(a, b) (__builtin_memcmp(&(a), &(b), sizeof(GUID)) == 0)
#endif

#undef DEFINE_GUID
#ifdef INITGUID
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
    extern "C" __attribute__((weak)) const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#else
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) extern "C" const GUID name
#endif
