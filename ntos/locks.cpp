// Levels, spin locks, fast mutexes and resources, with the rules about who may take what, when and in which order.
#include "ntos/clockwork.h"
#include "ntos/turns.h"

#include <sched.h>
#include <time.h>

#include <algorithm>

namespace ntos {

namespace {

// Which lock was ever taken while which other was held. A cycle is a deadlock that has not happened yet.
struct LockOrder {
    std::mutex lock;
    std::map<const void *, std::set<const void *>> after;

    bool reaches(const void *from, const void *to, std::set<const void *> &seen) const
    {
        if (from == to)
            return true;
        if (!seen.insert(from).second)
            return false;
        auto edges = after.find(from);
        if (edges == after.end())
            return false;
        return std::any_of(edges->second.begin(), edges->second.end(),
                           [&](const void *next) { return reaches(next, to, seen); });
    }
};
LockOrder &lockOrder()
{
    static auto *instance = new LockOrder;
    return *instance;
}

const char *kindName(LockKind kind)
{
    return kind == LockKind::spin ? "spin lock" : kind == LockKind::fastMutex ? "fast mutex" : "resource";
}

std::size_t timesHeld(const _KTHREAD *thread, const void *lock)
{
    return static_cast<std::size_t>(
        std::count_if(thread->locks.begin(), thread->locks.end(), [&](const HeldLock &held) { return held.lock == lock; }));
}

} // namespace

void lockTaking(const void *lock, LockKind kind, const char *routine, bool mayWait)
{
    _KTHREAD *thread = currentThread();
    if (timesHeld(thread, lock) != 0) {
        if (kind != LockKind::resource)
            violate("lock taken twice by its owner", routine, text("%s %p", kindName(kind), lock), 0xC4, 0x1000);
        return;
    }
    if (!mayWait || thread->locks.empty())
        return;
    LockOrder &order = lockOrder();
    const void *cycle = nullptr;
    {
        std::lock_guard guard(order.lock);
        for (const HeldLock &held : thread->locks) {
            if (held.lock == lock || order.after[held.lock].contains(lock))
                continue;
            std::set<const void *> seen;
            if (order.reaches(lock, held.lock, seen))
                cycle = held.lock;
            else
                order.after[held.lock].insert(lock);
        }
    }
    if (cycle != nullptr)
        violate("locks taken in both orders", routine, text("%s %p while holding %p", kindName(kind), lock, cycle), 0xC4, 0x1001);
}

void lockTaken(const void *lock, LockKind kind)
{
    currentThread()->locks.push_back({lock, kind});
}

void lockReleased(const void *lock, LockKind kind, const char *routine)
{
    std::vector<HeldLock> &locks = currentThread()->locks;
    for (auto held = locks.rbegin(); held != locks.rend(); ++held) {
        if (held->lock == lock) {
            locks.erase(std::next(held).base());
            return;
        }
    }
    violate("lock released by a thread that does not hold it", routine, text("%s %p", kindName(kind), lock), 0xC4, 0x1003);
}

void forgetLocksIn(const void *memory, std::size_t length)
{
    LockOrder &order = lockOrder();
    std::lock_guard guard(order.lock);
    const void *end = static_cast<const std::uint8_t *>(memory) + length;
    order.after.erase(order.after.lower_bound(memory), order.after.lower_bound(end));
    for (auto &[lock, after] : order.after)
        after.erase(after.lower_bound(memory), after.lower_bound(end));
}

bool holdsSpinLock(const _KTHREAD *thread)
{
    return std::any_of(thread->locks.begin(), thread->locks.end(),
                       [](const HeldLock &held) { return held.kind == LockKind::spin; });
}

static void takeSpinLock(PKSPIN_LOCK lock, const char *routine)
{
    lockTaking(lock, LockKind::spin, routine, true);
    const auto owner = reinterpret_cast<ULONG_PTR>(currentThread());
    for (unsigned turns = 0;; turns++) {
        ULONG_PTR free = 0;
        if (__atomic_compare_exchange_n(lock, &free, owner, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
            break;
        if (currentThread()->player != nullptr) {
            waitForTurn(currentThread(), [lock] { return __atomic_load_n(lock, __ATOMIC_RELAXED) == 0; });
            continue;
        }
        // The owner may have lost its processor: threads here are the host's, not the kernel's.
        if (turns < 64) {
            sched_yield();
        } else {
            const timespec nap{0, 50'000};
            nanosleep(&nap, nullptr);
        }
        if (turns == 600'000)
            violate("spin lock not released for half a minute", routine, text("lock %p", static_cast<void *>(lock)), 0x133);
    }
    lockTaken(lock, LockKind::spin);
}

static void dropSpinLock(PKSPIN_LOCK lock, const char *routine)
{
    lockReleased(lock, LockKind::spin, routine);
    __atomic_store_n(lock, ULONG_PTR(0), __ATOMIC_RELEASE);
    perturb();
}

KIRQL acquireSpinLock(PKSPIN_LOCK lock, const char *routine)
{
    _KTHREAD *thread = currentThread();
    const KIRQL old = thread->irql;
    thread->irql = DISPATCH_LEVEL;
    takeSpinLock(lock, routine);
    return old;
}

void releaseSpinLock(PKSPIN_LOCK lock, KIRQL irql, const char *routine)
{
    _KTHREAD *thread = currentThread();
    if (thread->irql != DISPATCH_LEVEL)
        violate("spin lock released below DISPATCH_LEVEL", routine, text("lock %p", static_cast<void *>(lock)), 0xC4, 0x32);
    if (irql > DISPATCH_LEVEL)
        violate("spin lock released to a higher level", routine, text("irql %u", irql), 0xC4, 0x31);
    dropSpinLock(lock, routine);
    thread->irql = irql;
}

// ------------------------------------------------------------------------------------------------------------ resources

namespace {

struct Resource {
    _KTHREAD *exclusive = nullptr;
    std::size_t exclusiveDepth = 0;
    std::map<_KTHREAD *, std::size_t> shared;
    std::size_t exclusiveWaiters = 0;
    const char *driver = "";
};
struct Resources {
    std::mutex lock;
    std::condition_variable changed;
    std::set<Resource *> live;
};
Resources &resources()
{
    static auto *instance = new Resources;
    return *instance;
}

Resource *resourceOf(PERESOURCE resource, const char *routine)
{
    auto *found = static_cast<Resource *>(resource->OwnerTable);
    Resources &all = resources();
    std::lock_guard guard(all.lock);
    if (all.live.contains(found))
        return found;
    violate("resource is not initialised or deleted", routine, text("resource %p", static_cast<void *>(resource)), 0xC4, 0x1007);
    return nullptr;
}

BOOLEAN acquireResource(PERESOURCE resource, bool exclusive, BOOLEAN wait, const char *routine)
{
    _KTHREAD *thread = currentThread();
    Resource *r = resourceOf(resource, routine);
    if (r == nullptr)
        return TRUE;
    if (thread->irql == PASSIVE_LEVEL && thread->criticalRegions == 0 && !thread->drivers.empty() && thread->drivers.back())
        violate("resource taken outside a critical region", routine, text("resource %p", static_cast<void *>(resource)), 0xC4, 0x37);
    lockTaking(resource, LockKind::resource, routine, wait);
    perturb();
    Resources &all = resources();
    {
        std::unique_lock guard(all.lock);
        auto free = [&] {
            if (r->exclusive == thread)
                return true;
            if (exclusive)
                return r->exclusive == nullptr && r->shared.empty();
            return r->exclusive == nullptr && (r->exclusiveWaiters == 0 || r->shared.contains(thread));
        };
        if (!free()) {
            if (!wait)
                return FALSE;
            if (exclusive && r->shared.contains(thread)) {
                guard.unlock();
                violate("shared owner waits for exclusive access", routine, text("resource %p", static_cast<void *>(resource)), 0xC4, 0x1000);
                guard.lock();
            }
            r->exclusiveWaiters += exclusive;
            if (thread->player != nullptr) {
                guard.unlock();
                waitForTurn(thread, [&] {
                    std::lock_guard look(all.lock);
                    return free();
                });
                guard.lock();
            }
            all.changed.wait(guard, free);
            r->exclusiveWaiters -= exclusive;
        }
        if (exclusive || r->exclusive == thread) {
            r->exclusive = thread;
            r->exclusiveDepth++;
        } else {
            r->shared[thread]++;
        }
    }
    lockTaken(resource, LockKind::resource);
    return TRUE;
}

} // namespace

std::size_t resourcesLeft()
{
    std::lock_guard guard(resources().lock);
    return resources().live.size();
}

void forgetResources()
{
    std::lock_guard guard(resources().lock);
    for (Resource *resource : resources().live)
        delete resource;
    resources().live.clear();
    std::lock_guard orderGuard(lockOrder().lock);
    lockOrder().after.clear();
}

} // namespace ntos

// ---------------------------------------------------------------------------------------------------------------- doors

using namespace ntos;

extern "C" {

KIRQL KeGetCurrentIrql(void)
{
    return currentThread()->irql;
}

KIRQL KfRaiseIrql(KIRQL NewIrql)
{
    NTOS_DOOR(KeRaiseIrql, HIGH_LEVEL, false);
    enter(kDoor);
    _KTHREAD *thread = currentThread();
    const KIRQL old = thread->irql;
    if (NewIrql < old)
        violate("raised to a lower level", kDoor.routine, text("irql %u to %u", old, NewIrql), 0xC4, 0x30);
    thread->irql = NewIrql;
    return old;
}

KIRQL KeRaiseIrqlToDpcLevel(void)
{
    return KfRaiseIrql(DISPATCH_LEVEL);
}

void KeLowerIrql(KIRQL NewIrql)
{
    NTOS_DOOR(KeLowerIrql, HIGH_LEVEL, false);
    enter(kDoor);
    _KTHREAD *thread = currentThread();
    if (NewIrql > thread->irql)
        violate("lowered to a higher level", kDoor.routine, text("irql %u to %u", thread->irql, NewIrql), 0xC4, 0x31);
    if (NewIrql < DISPATCH_LEVEL && holdsSpinLock(thread))
        violate("level lowered while holding a spin lock", kDoor.routine, driverName(currentDriver()), 0xC4, 0x32);
    thread->irql = NewIrql;
}

void KeEnterCriticalRegion(void)
{
    NTOS_DOOR(KeEnterCriticalRegion, APC_LEVEL, false);
    enter(kDoor);
    currentThread()->criticalRegions++;
}

void KeLeaveCriticalRegion(void)
{
    NTOS_DOOR(KeLeaveCriticalRegion, APC_LEVEL, false);
    enter(kDoor);
    if (--currentThread()->criticalRegions < 0)
        violate("critical region left more often than entered", kDoor.routine, driverName(currentDriver()), 0x01);
}

BOOLEAN KeAreApcsDisabled(void)
{
    const _KTHREAD *thread = currentThread();
    return thread->criticalRegions != 0 || thread->irql >= APC_LEVEL;
}

void KeInitializeSpinLock(PKSPIN_LOCK SpinLock)
{
    forgetLocksIn(SpinLock, sizeof *SpinLock);
    __atomic_store_n(SpinLock, ULONG_PTR(0), __ATOMIC_RELEASE);
}

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock)
{
    NTOS_DOOR(KeAcquireSpinLock, DISPATCH_LEVEL, false);
    enter(kDoor);
    return acquireSpinLock(SpinLock, kDoor.routine);
}

void KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    NTOS_DOOR(KeReleaseSpinLock, DISPATCH_LEVEL, false);
    enter(kDoor);
    releaseSpinLock(SpinLock, NewIrql, kDoor.routine);
}

void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
{
    NTOS_DOOR(KeAcquireSpinLockAtDpcLevel, DISPATCH_LEVEL, false);
    enter(kDoor);
    if (currentThread()->irql != DISPATCH_LEVEL)
        violate("called below DISPATCH_LEVEL", kDoor.routine, text("lock %p", static_cast<void *>(SpinLock)), 0xC4, 0x40);
    takeSpinLock(SpinLock, kDoor.routine);
}

void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock)
{
    NTOS_DOOR(KeReleaseSpinLockFromDpcLevel, DISPATCH_LEVEL, false);
    enter(kDoor);
    dropSpinLock(SpinLock, kDoor.routine);
}

void ExInitializeFastMutex(PFAST_MUTEX FastMutex)
{
    forgetLocksIn(FastMutex, sizeof *FastMutex);
    FastMutex->Count = 1;
    FastMutex->Owner = nullptr;
    FastMutex->Contention = 0;
    FastMutex->OldIrql = PASSIVE_LEVEL;
    initializeObject(FastMutex->Event.Header, kSynchronizationEvent, 1); // set while the mutex is free
}

static BOOLEAN acquireFastMutex(PFAST_MUTEX mutex, bool wait, const char *routine)
{
    if (mutex->Event.Header.Signature != kDispatcherSignature)
        violate("fast mutex is not initialised or gone", routine, text("mutex %p", static_cast<void *>(mutex)), 0xC4, 0x1007);
    lockTaking(mutex, LockKind::fastMutex, routine, wait);
    perturb();
    _KTHREAD *thread = currentThread();
    const KIRQL old = thread->irql;
    DISPATCHER_HEADER *header = &mutex->Event.Header;
    LARGE_INTEGER look{};
    if (waitForObjects(&header, 1, false, wait ? nullptr : &look) == STATUS_TIMEOUT)
        return FALSE;
    thread->irql = APC_LEVEL;
    mutex->Owner = thread;
    mutex->OldIrql = old;
    lockTaken(mutex, LockKind::fastMutex);
    return TRUE;
}

void ExAcquireFastMutex(PFAST_MUTEX FastMutex)
{
    NTOS_DOOR(ExAcquireFastMutex, APC_LEVEL, false);
    enter(kDoor);
    acquireFastMutex(FastMutex, true, kDoor.routine);
}

BOOLEAN ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex)
{
    NTOS_DOOR(ExTryToAcquireFastMutex, APC_LEVEL, false);
    enter(kDoor);
    return acquireFastMutex(FastMutex, false, kDoor.routine);
}

void ExReleaseFastMutex(PFAST_MUTEX FastMutex)
{
    NTOS_DOOR(ExReleaseFastMutex, APC_LEVEL, false);
    enter(kDoor);
    _KTHREAD *thread = currentThread();
    if (thread->irql != APC_LEVEL)
        violate("fast mutex released at the wrong level", kDoor.routine, text("irql %u", thread->irql), 0xC4, 0x33);
    lockReleased(FastMutex, LockKind::fastMutex, kDoor.routine);
    const KIRQL old = static_cast<KIRQL>(FastMutex->OldIrql);
    FastMutex->Owner = nullptr;
    signalObject(FastMutex->Event.Header, 1);
    thread->irql = old;
    perturb();
}

NTSTATUS ExInitializeResourceLite(PERESOURCE Resource)
{
    NTOS_DOOR(ExInitializeResourceLite, DISPATCH_LEVEL, false);
    enter(kDoor);
    forgetLocksIn(Resource, sizeof *Resource);
    auto *record = new ntos::Resource;
    RtlZeroMemory(Resource, sizeof *Resource);
    Resource->OwnerTable = record;
    std::lock_guard guard(resources().lock);
    resources().live.insert(record);
    return STATUS_SUCCESS;
}

NTSTATUS ExDeleteResourceLite(PERESOURCE Resource)
{
    NTOS_DOOR(ExDeleteResourceLite, DISPATCH_LEVEL, false);
    enter(kDoor);
    auto *record = resourceOf(Resource, kDoor.routine);
    if (record == nullptr)
        return STATUS_INVALID_PARAMETER;
    bool owned;
    {
        std::lock_guard guard(resources().lock);
        owned = record->exclusive != nullptr || !record->shared.empty();
        resources().live.erase(record);
    }
    if (owned)
        violate("resource deleted while it is owned", kDoor.routine, text("resource %p", static_cast<void *>(Resource)), 0xC4, 0x1006);
    delete record;
    Resource->OwnerTable = nullptr;
    return STATUS_SUCCESS;
}

BOOLEAN ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait)
{
    NTOS_DOOR(ExAcquireResourceSharedLite, APC_LEVEL, false);
    enter(kDoor);
    return acquireResource(Resource, false, Wait, kDoor.routine);
}

BOOLEAN ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait)
{
    NTOS_DOOR(ExAcquireResourceExclusiveLite, APC_LEVEL, false);
    enter(kDoor);
    return acquireResource(Resource, true, Wait, kDoor.routine);
}

void ExReleaseResourceLite(PERESOURCE Resource)
{
    NTOS_DOOR(ExReleaseResourceLite, DISPATCH_LEVEL, false);
    enter(kDoor);
    auto *record = resourceOf(Resource, kDoor.routine);
    if (record == nullptr)
        return;
    lockReleased(Resource, LockKind::resource, kDoor.routine);
    {
        _KTHREAD *thread = currentThread();
        std::lock_guard guard(resources().lock);
        if (record->exclusive == thread) {
            if (--record->exclusiveDepth == 0)
                record->exclusive = nullptr;
        } else if (auto owner = record->shared.find(thread); owner != record->shared.end() && --owner->second == 0) {
            record->shared.erase(owner);
        }
        resources().changed.notify_all();
    }
    perturb();
}

BOOLEAN ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource)
{
    auto *record = resourceOf(Resource, "ExIsResourceAcquiredExclusiveLite");
    std::lock_guard guard(resources().lock);
    return record != nullptr && record->exclusive == currentThread();
}

ULONG ExIsResourceAcquiredSharedLite(PERESOURCE Resource)
{
    auto *record = resourceOf(Resource, "ExIsResourceAcquiredSharedLite");
    std::lock_guard guard(resources().lock);
    if (record == nullptr)
        return 0;
    auto owner = record->shared.find(currentThread());
    const std::size_t depth = record->exclusive == currentThread() ? record->exclusiveDepth : 0;
    return static_cast<ULONG>(depth + (owner == record->shared.end() ? 0 : owner->second));
}

} // extern "C"
