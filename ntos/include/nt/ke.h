// Levels, interlocked operations, lists, dispatcher objects, locks, time, threads.
#pragma once

#include <ntdef.h>

#define PASSIVE_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15

typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;
typedef enum _KWAIT_REASON { Executive, FreePage, PageIn, PoolAllocation, DelayExecution, Suspended, UserRequest } KWAIT_REASON;
typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _WAIT_TYPE { WaitAll, WaitAny } WAIT_TYPE;
#define MAXIMUM_WAIT_OBJECTS 64
#define THREAD_WAIT_OBJECTS 3
#define IO_NO_INCREMENT 0
#define EVENT_INCREMENT 1
#define LOW_REALTIME_PRIORITY 16
#define HIGH_PRIORITY 31

typedef struct _KTHREAD *PKTHREAD, *PETHREAD;
typedef struct _KPROCESS *PKPROCESS, *PRKPROCESS, *PEPROCESS;

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Signature;
    USHORT Size;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER;
typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;
typedef struct _KSEMAPHORE {
    DISPATCHER_HEADER Header;
    LONG Limit;
} KSEMAPHORE, *PKSEMAPHORE, *PRKSEMAPHORE;
static_assert(sizeof(KEVENT) == 24 && sizeof(KSEMAPHORE) == 32);

typedef struct _KWAIT_BLOCK {
    PVOID Reserved[6];
} KWAIT_BLOCK, *PKWAIT_BLOCK;

typedef struct _FAST_MUTEX {
    LONG Count;
    PKTHREAD Owner;
    ULONG Contention;
    KEVENT Event;
    ULONG OldIrql;
} FAST_MUTEX, *PFAST_MUTEX;

typedef struct _ERESOURCE {
    LIST_ENTRY SystemResourcesList;
    PVOID OwnerTable;
    SHORT ActiveCount;
    USHORT Flag;
    PVOID SharedWaiters;
    PVOID ExclusiveWaiters;
    PVOID OwnerEntry[2];
    ULONG ActiveEntries;
    ULONG ContentionCount;
    ULONG NumberOfSharedWaiters;
    ULONG NumberOfExclusiveWaiters;
    PVOID Reserved2;
    PVOID Address;
    KSPIN_LOCK SpinLock;
} ERESOURCE, *PERESOURCE;
static_assert(sizeof(ERESOURCE) == 104);

typedef VOID NTAPI KSTART_ROUTINE(PVOID StartContext);
typedef KSTART_ROUTINE *PKSTART_ROUTINE;

extern "C" {

// Levels
KIRQL KeGetCurrentIrql(void);
KIRQL KfRaiseIrql(KIRQL NewIrql);
void KeLowerIrql(KIRQL NewIrql);
KIRQL KeRaiseIrqlToDpcLevel(void);
#define KeRaiseIrql(NewIrql, OldIrql) *(OldIrql) = KfRaiseIrql(NewIrql)
void KeEnterCriticalRegion(void);
void KeLeaveCriticalRegion(void);
BOOLEAN KeAreApcsDisabled(void);
ULONG KeGetCurrentProcessorNumber(void);

// Spin locks
void KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
void KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);
#define KeAcquireSpinLock(SpinLock, OldIrql) *(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock)

// Dispatcher objects
void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
LONG KeResetEvent(PRKEVENT Event);
void KeClearEvent(PRKEVENT Event);
LONG KeReadStateEvent(PRKEVENT Event);
void KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit);
LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment, BOOLEAN Wait);
LONG KeReadStateSemaphore(PRKSEMAPHORE Semaphore);
// Timeout: null waits for ever, negative is a span in 100 ns, positive a system time, zero only looks.
NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                               PLARGE_INTEGER Timeout);
NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON WaitReason,
                                  KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                  PKWAIT_BLOCK WaitBlockArray);
NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval);

// Mutexes and resources
void ExInitializeFastMutex(PFAST_MUTEX FastMutex);
void ExAcquireFastMutex(PFAST_MUTEX FastMutex);
BOOLEAN ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex);
void ExReleaseFastMutex(PFAST_MUTEX FastMutex);
NTSTATUS ExInitializeResourceLite(PERESOURCE Resource);
NTSTATUS ExDeleteResourceLite(PERESOURCE Resource);
BOOLEAN ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait);
BOOLEAN ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait);
void ExReleaseResourceLite(PERESOURCE Resource);
BOOLEAN ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource);
ULONG ExIsResourceAcquiredSharedLite(PERESOURCE Resource);

// Time
void KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
ULONGLONG KeQueryInterruptTime(void);
LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency);

// Threads, processes, objects
PKTHREAD KeGetCurrentThread(void);
PEPROCESS IoGetCurrentProcess(void);
#define PsGetCurrentProcess IoGetCurrentProcess
#define PsGetCurrentThread() ((PETHREAD)KeGetCurrentThread())
HANDLE PsGetCurrentProcessId(void);
HANDLE PsGetProcessId(PEPROCESS Process);
LONG KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority);
NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                              HANDLE ProcessHandle, void *ClientId, PKSTART_ROUTINE StartRoutine, PVOID StartContext);
NTSTATUS PsTerminateSystemThread(NTSTATUS ExitStatus);
#define THREAD_ALL_ACCESS 0x1FFFFF
#define SYNCHRONIZE 0x00100000L

typedef struct _OBJECT_TYPE *POBJECT_TYPE;
extern POBJECT_TYPE *PsThreadType;
NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                   KPROCESSOR_MODE AccessMode, PVOID *Object, void *HandleInformation);
LONG_PTR ObfReferenceObject(PVOID Object);
LONG_PTR ObfDereferenceObject(PVOID Object);
#define ObReferenceObject ObfReferenceObject
#define ObDereferenceObject ObfDereferenceObject
NTSTATUS ZwClose(HANDLE Handle);

[[noreturn]] void KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3, ULONG_PTR P4);
[[noreturn]] void ExRaiseStatus(NTSTATUS Status);

} // extern "C"

#define PAGED_CODE() ((void)0)
#define NT_ASSERT(e) ((void)0)
#define ASSERT(e) ((void)0)

// Interlocked operations: full barriers, as on the platform.
FORCEINLINE LONG InterlockedIncrement(LONG volatile *p) { return __atomic_add_fetch(p, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedDecrement(LONG volatile *p) { return __atomic_sub_fetch(p, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedExchange(LONG volatile *p, LONG v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedExchangeAdd(LONG volatile *p, LONG v) { return __atomic_fetch_add(p, v, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedAnd(LONG volatile *p, LONG v) { return __atomic_fetch_and(p, v, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedOr(LONG volatile *p, LONG v) { return __atomic_fetch_or(p, v, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG InterlockedCompareExchange(LONG volatile *p, LONG v, LONG expected)
{
    __atomic_compare_exchange_n(p, &expected, v, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return expected;
}
FORCEINLINE LONG64 InterlockedIncrement64(LONG64 volatile *p) { return __atomic_add_fetch(p, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG64 InterlockedDecrement64(LONG64 volatile *p) { return __atomic_sub_fetch(p, 1, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG64 InterlockedExchange64(LONG64 volatile *p, LONG64 v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG64 InterlockedExchangeAdd64(LONG64 volatile *p, LONG64 v) { return __atomic_fetch_add(p, v, __ATOMIC_SEQ_CST); }
FORCEINLINE LONG64 InterlockedCompareExchange64(LONG64 volatile *p, LONG64 v, LONG64 expected)
{
    __atomic_compare_exchange_n(p, &expected, v, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return expected;
}
FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile *p, PVOID v) { return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST); }
FORCEINLINE PVOID InterlockedCompareExchangePointer(PVOID volatile *p, PVOID v, PVOID expected)
{
    __atomic_compare_exchange_n(p, &expected, v, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return expected;
}
FORCEINLINE void KeMemoryBarrier(void) { __atomic_thread_fence(__ATOMIC_SEQ_CST); }
FORCEINLINE void YieldProcessor(void) { __builtin_ia32_pause(); }

// Lists
FORCEINLINE void InitializeListHead(PLIST_ENTRY Head) { Head->Flink = Head->Blink = Head; }
FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY *Head) { return Head->Flink == Head; }
FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry)
{
    PLIST_ENTRY Flink = Entry->Flink, Blink = Entry->Blink;
    Blink->Flink = Flink;
    Flink->Blink = Blink;
    return Flink == Blink;
}
FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY Head)
{
    PLIST_ENTRY Entry = Head->Flink;
    RemoveEntryList(Entry);
    return Entry;
}
FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY Head)
{
    PLIST_ENTRY Entry = Head->Blink;
    RemoveEntryList(Entry);
    return Entry;
}
FORCEINLINE void InsertTailList(PLIST_ENTRY Head, PLIST_ENTRY Entry)
{
    PLIST_ENTRY Blink = Head->Blink;
    Entry->Flink = Head;
    Entry->Blink = Blink;
    Blink->Flink = Entry;
    Head->Blink = Entry;
}
FORCEINLINE void InsertHeadList(PLIST_ENTRY Head, PLIST_ENTRY Entry)
{
    PLIST_ENTRY Flink = Head->Flink;
    Entry->Flink = Flink;
    Entry->Blink = Head;
    Flink->Blink = Entry;
    Head->Flink = Entry;
}
