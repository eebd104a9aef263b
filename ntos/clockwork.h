// Dispatcher objects and time, for the managers (drivers come through the doors in front of these).
#pragma once

#include "ntos/kernel.h"

namespace ntos {

constexpr std::int64_t kForever = -1;

void initializeObject(DISPATCHER_HEADER &header, UCHAR type, LONG state);
LONG signalObject(DISPATCHER_HEADER &header, LONG state); // sets the state and wakes whom it satisfies; returns the old one
LONG addToObject(DISPATCHER_HEADER &header, LONG adjustment);
LONG resetObject(DISPATCHER_HEADER &header);
LONG readObject(DISPATCHER_HEADER &header);
// timeout: null waits for ever.
NTSTATUS waitForObjects(DISPATCHER_HEADER *const *objects, ULONG count, bool all, const LARGE_INTEGER *timeout);
// Somebody waits on an object inside the memory.
bool anyWaiterIn(const void *memory, std::size_t length);

std::int64_t interruptTime(); // 100 ns since boot
std::int64_t systemTime();    // 100 ns since 1601
void startClock(bool manual, std::int64_t bootTime);

// Locks held by threads: recursion, order, release by the taker.
void lockTaking(const void *lock, LockKind kind, const char *routine, bool mayWait);
void lockTaken(const void *lock, LockKind kind);
void lockReleased(const void *lock, LockKind kind, const char *routine);
void forgetLocksIn(const void *memory, std::size_t length);
bool holdsSpinLock(const _KTHREAD *thread);
// The cancel lock and other spin locks of the kernel itself.
KIRQL acquireSpinLock(PKSPIN_LOCK lock, const char *routine);
void releaseSpinLock(PKSPIN_LOCK lock, KIRQL irql, const char *routine);
std::size_t resourcesLeft();
void forgetResources();

} // namespace ntos
