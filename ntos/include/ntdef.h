// Basic types of the NT interface. WCHAR has 16 bits: compile with -fshort-wchar.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <guiddef.h>
#include <sal.h>

static_assert(sizeof(wchar_t) == 2, "compile with -fshort-wchar");

#define NTAPI
#define NTSYSAPI
#define NTKERNELAPI
#define DECLSPEC_IMPORT
#define DECLSPEC_NORETURN [[noreturn]]
#define DECLSPEC_ALIGN(x) __attribute__((aligned(x)))
#define FORCEINLINE static inline __attribute__((always_inline))
#define CONST const
#define VOID void
#define IN
#define OUT
#define OPTIONAL
#define FALSE 0
#define TRUE 1
#ifndef NULL
#define NULL 0
#endif
#define ANYSIZE_ARRAY 1

typedef void *PVOID;
typedef const void *PCVOID;
typedef char CHAR, *PCHAR, *PSTR;
typedef signed char CCHAR, SCHAR;
typedef const char *PCSTR, *LPCSTR;
typedef unsigned char UCHAR, *PUCHAR, BYTE, *PBYTE;
typedef int16_t SHORT, *PSHORT, CSHORT;
typedef uint16_t USHORT, *PUSHORT, WORD;
typedef int32_t INT, LONG, *PLONG;
typedef uint32_t UINT, ULONG, *PULONG, DWORD;
typedef int64_t LONGLONG, LONG64, *PLONGLONG;
typedef uint64_t ULONGLONG, ULONG64, *PULONGLONG;
typedef int64_t INT64;
typedef uint64_t UINT64;
typedef int32_t INT32;
typedef uint32_t UINT32;
typedef int8_t INT8;
typedef uint8_t UINT8;
typedef int16_t INT16;
typedef uint16_t UINT16;
typedef intptr_t LONG_PTR, INT_PTR;
typedef uintptr_t ULONG_PTR, *PULONG_PTR, UINT_PTR;
typedef size_t SIZE_T, *PSIZE_T;
typedef wchar_t WCHAR, *PWCHAR, *PWSTR;
typedef const wchar_t *PCWSTR, *PCWCH, *LPCWSTR;
typedef UCHAR BOOLEAN, *PBOOLEAN;
typedef int32_t BOOL;
typedef PVOID HANDLE, *PHANDLE;
typedef ULONG ACCESS_MASK;
typedef ULONG LCID;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef UCHAR KIRQL, *PKIRQL;
typedef CCHAR KPROCESSOR_MODE;
typedef LONG KPRIORITY;
typedef ULONG DEVICE_TYPE;
typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;
typedef ULONG_PTR KAFFINITY;

#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define NT_INFORMATION(Status) ((((ULONG)(Status)) >> 30) == 1)
#define NT_WARNING(Status) ((((ULONG)(Status)) >> 30) == 2)
#define NT_ERROR(Status) ((((ULONG)(Status)) >> 30) == 3)

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;
typedef LARGE_INTEGER PHYSICAL_ADDRESS;

typedef struct _UNICODE_STRING {
    USHORT Length;         // bytes
    USHORT MaximumLength;  // bytes
    PWSTR Buffer;          // not necessarily terminated
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING *PCUNICODE_STRING;
#define UNICODE_NULL ((WCHAR)0)
#define RTL_CONSTANT_STRING(s) {sizeof(s) - sizeof((s)[0]), sizeof(s), const_cast<WCHAR *>(s)}

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY *Flink;
    struct _LIST_ENTRY *Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;
#define OBJ_KERNEL_HANDLE 0x00000200
#define OBJ_CASE_INSENSITIVE 0x00000040
#define InitializeObjectAttributes(p, n, a, r, s)    \
    {                                                \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);     \
        (p)->RootDirectory = (r);                    \
        (p)->Attributes = (a);                       \
        (p)->ObjectName = (n);                       \
        (p)->SecurityDescriptor = (s);               \
        (p)->SecurityQualityOfService = NULL;        \
    }

#define CONTAINING_RECORD(address, type, field) ((type *)((PUCHAR)(address) - offsetof(type, field)))
#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define RTL_NUMBER_OF(a) (sizeof(a) / sizeof((a)[0]))
#define ARRAYSIZE(a) RTL_NUMBER_OF(a)
#define UNREFERENCED_PARAMETER(p) ((void)(p))
#define C_ASSERT(e) static_assert(e, #e)
#define MAXULONG 0xFFFFFFFFu
#define MAXLONG 0x7FFFFFFF
#define MAXUSHORT 0xFFFF

#define RtlZeroMemory(d, n) memset((d), 0, (n))
#define RtlFillMemory(d, n, f) memset((d), (f), (n))
#define RtlCopyMemory(d, s, n) memcpy((d), (s), (n))
#define RtlMoveMemory(d, s, n) memmove((d), (s), (n))
#define RtlEqualMemory(a, b, n) (memcmp((a), (b), (n)) == 0)
