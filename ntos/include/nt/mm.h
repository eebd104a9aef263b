// Pool, memory descriptor lists, strings, debug print.
#pragma once

#include <nt/ke.h>

#define PAGE_SIZE 0x1000
#define PAGE_SHIFT 12
#define BYTE_OFFSET(Va) ((ULONG)((ULONG_PTR)(Va) & (PAGE_SIZE - 1)))
#define PAGE_ALIGN(Va) ((PVOID)((ULONG_PTR)(Va) & ~(ULONG_PTR)(PAGE_SIZE - 1)))
#define ROUND_TO_PAGES(Size) (((ULONG_PTR)(Size) + PAGE_SIZE - 1) & ~(ULONG_PTR)(PAGE_SIZE - 1))
#define ADDRESS_AND_SIZE_TO_SPAN_PAGES(Va, Size) \
    ((ULONG)((((ULONG_PTR)(Va) & (PAGE_SIZE - 1)) + (SIZE_T)(Size) + (PAGE_SIZE - 1)) >> PAGE_SHIFT))

typedef enum _POOL_TYPE { NonPagedPool = 0, PagedPool = 1, NonPagedPoolNx = 512 } POOL_TYPE;
typedef enum _MEMORY_CACHING_TYPE { MmNonCached = 0, MmCached = 1, MmWriteCombined = 2 } MEMORY_CACHING_TYPE;
typedef enum _MM_PAGE_PRIORITY { LowPagePriority, NormalPagePriority = 16, HighPagePriority = 32 } MM_PAGE_PRIORITY;
typedef enum _LOCK_OPERATION { IoReadAccess, IoWriteAccess, IoModifyAccess } LOCK_OPERATION;

typedef struct _MDL {
    struct _MDL *Next;
    CSHORT Size;
    CSHORT MdlFlags;
    PEPROCESS Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
} MDL, *PMDL;
static_assert(sizeof(MDL) == 48);

#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_PAGES_LOCKED 0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_ALLOCATED_FIXED_SIZE 0x0008
#define MDL_PARTIAL 0x0010

#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)
#define MmGetMdlByteOffset(Mdl) ((Mdl)->ByteOffset)
#define MmGetMdlVirtualAddress(Mdl) ((PVOID)((PCHAR)((Mdl)->StartVa) + (Mdl)->ByteOffset))

struct _IRP;

extern "C" {

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes);
void ExFreePoolWithTag(PVOID P, ULONG Tag);
void ExFreePool(PVOID P);

PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota, struct _IRP *Irp);
void IoFreeMdl(PMDL Mdl);
void MmBuildMdlForNonPagedPool(PMDL Mdl);
void MmProbeAndLockPages(PMDL Mdl, KPROCESSOR_MODE AccessMode, LOCK_OPERATION Operation); // raises
void MmUnlockPages(PMDL Mdl);
// UserMode: maps into the current process, raises when it cannot. KernelMode: null when it cannot.
PVOID MmMapLockedPagesSpecifyCache(PMDL Mdl, KPROCESSOR_MODE AccessMode, MEMORY_CACHING_TYPE CacheType,
                                   PVOID RequestedAddress, ULONG BugCheckOnFailure, ULONG Priority);
void MmUnmapLockedPages(PVOID BaseAddress, PMDL Mdl);

NTSYSAPI void RtlInitUnicodeString(PUNICODE_STRING Destination, PCWSTR Source);
void RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
void RtlCopyUnicodeString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);
NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING A, PCUNICODE_STRING B, BOOLEAN CaseInSensitive);
SIZE_T RtlCompareMemory(const VOID *A, const VOID *B, SIZE_T Length);

extern int NtosDebugListens; // not zero while somebody reads the debug print
ULONG NtosDebugPrint(PCSTR Format, ...);

} // extern "C"

FORCEINLINE PVOID MmGetSystemAddressForMdlSafe(PMDL Mdl, ULONG Priority)
{
    if (Mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))
        return Mdl->MappedSystemVa;
    return MmMapLockedPagesSpecifyCache(Mdl, KernelMode, MmCached, NULL, FALSE, Priority);
}

// With nobody listening a print costs a load and a branch.
template <typename... Arguments> FORCEINLINE ULONG DbgPrint(PCSTR Format, Arguments... arguments)
{
    if (__builtin_expect(__atomic_load_n(&NtosDebugListens, __ATOMIC_RELAXED) == 0, 1))
        return 0;
    return NtosDebugPrint(Format, arguments...);
}
#define KdPrint(arguments) DbgPrint arguments
