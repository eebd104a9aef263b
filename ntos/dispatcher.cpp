// Events, semaphores and waits, and the clock that limits of waits go by. One lock guards them all: a wait satisfied and an
// object signalled are one step.
#include "ntos/clockwork.h"
#include "ntos/turns.h"

#include <algorithm>
#include <chrono>

namespace ntos {

namespace {

using SteadyClock = std::chrono::steady_clock;

struct Wait;
struct WaitBlock {
    LIST_ENTRY entry; // in the object's WaitListHead
    Wait *wait;
    DISPATCHER_HEADER *object;
};
struct Wait {
    _KTHREAD *thread;
    WaitBlock *blocks;
    ULONG count;
    bool all;
    bool done = false;
    NTSTATUS status = STATUS_PENDING;
    std::int64_t deadline = kForever; // interrupt time
};

struct Dispatcher {
    std::mutex lock;
    std::list<Wait *> waits;
    std::condition_variable changed; // a wait has begun
    bool manual = false;
    std::int64_t manualTime = 0;
    SteadyClock::time_point started = SteadyClock::now();
    std::int64_t bootTime = 0; // system time at interrupt time zero
};
Dispatcher &dispatcher()
{
    static auto *instance = new Dispatcher;
    return *instance;
}

std::int64_t nowLocked(const Dispatcher &d)
{
    if (d.manual)
        return d.manualTime;
    return std::chrono::duration_cast<Ticks>(SteadyClock::now() - d.started).count();
}

bool signalled(const DISPATCHER_HEADER *object)
{
    return object->SignalState > 0;
}

void consume(DISPATCHER_HEADER *object)
{
    if (object->Type == kSynchronizationEvent)
        object->SignalState = 0;
    else if (object->Type == kSemaphore)
        object->SignalState--;
}

// Takes what the wait asks for if it is there.
bool satisfy(Wait &wait)
{
    if (wait.all) {
        for (ULONG i = 0; i < wait.count; i++)
            if (!signalled(wait.blocks[i].object))
                return false;
        for (ULONG i = 0; i < wait.count; i++)
            consume(wait.blocks[i].object);
        wait.status = STATUS_WAIT_0;
        return true;
    }
    for (ULONG i = 0; i < wait.count; i++) {
        if (signalled(wait.blocks[i].object)) {
            consume(wait.blocks[i].object);
            wait.status = static_cast<NTSTATUS>(i);
            return true;
        }
    }
    return false;
}

void finish(Wait &wait)
{
    wait.done = true;
    for (ULONG i = 0; i < wait.count; i++)
        RemoveEntryList(&wait.blocks[i].entry);
    dispatcher().waits.remove(&wait);
    wait.thread->wake.notify_one();
}

void wakeWaiters(DISPATCHER_HEADER &header)
{
    for (PLIST_ENTRY entry = header.WaitListHead.Flink; entry != &header.WaitListHead && signalled(&header);) {
        auto *block = CONTAINING_RECORD(entry, WaitBlock, entry);
        entry = entry->Flink;
        Wait &wait = *block->wait;
        if (!satisfy(wait))
            continue;
        // The wait may hold several blocks in this very list: start over.
        finish(wait);
        entry = header.WaitListHead.Flink;
    }
}

void expireDue(Dispatcher &d)
{
    const std::int64_t now = nowLocked(d);
    for (auto next = d.waits.begin(); next != d.waits.end();) {
        Wait &wait = **next++;
        if (wait.deadline != kForever && wait.deadline <= now) {
            wait.status = STATUS_TIMEOUT;
            finish(wait);
        }
    }
}

void check(const DISPATCHER_HEADER &header, const char *routine)
{
    if (header.Signature != kDispatcherSignature)
        violate("dispatcher object is not initialised or gone", routine, text("object %p", static_cast<const void *>(&header)), 0xC4, 0x0A);
}

} // namespace

void initializeObject(DISPATCHER_HEADER &header, UCHAR type, LONG state)
{
    std::lock_guard guard(dispatcher().lock);
    header.Type = type;
    header.Signature = kDispatcherSignature;
    header.Size = 0;
    header.SignalState = state;
    InitializeListHead(&header.WaitListHead);
}

LONG signalObject(DISPATCHER_HEADER &header, LONG state)
{
    std::lock_guard guard(dispatcher().lock);
    const LONG old = header.SignalState;
    header.SignalState = state;
    wakeWaiters(header);
    return old;
}

LONG addToObject(DISPATCHER_HEADER &header, LONG adjustment)
{
    std::lock_guard guard(dispatcher().lock);
    const LONG old = header.SignalState;
    header.SignalState += adjustment;
    wakeWaiters(header);
    return old;
}

LONG resetObject(DISPATCHER_HEADER &header)
{
    std::lock_guard guard(dispatcher().lock);
    return std::exchange(header.SignalState, 0);
}

LONG readObject(DISPATCHER_HEADER &header)
{
    std::lock_guard guard(dispatcher().lock);
    return header.SignalState;
}

NTSTATUS waitForObjects(DISPATCHER_HEADER *const *objects, ULONG count, bool all, const LARGE_INTEGER *timeout)
{
    Dispatcher &d = dispatcher();
    _KTHREAD *thread = currentThread();
    std::vector<WaitBlock> many;
    WaitBlock one[THREAD_WAIT_OBJECTS];
    WaitBlock *blocks = one;
    if (count > THREAD_WAIT_OBJECTS) {
        many.resize(count);
        blocks = many.data();
    }
    Wait wait{thread, blocks, count, all};
    for (ULONG i = 0; i < count; i++)
        blocks[i] = {{}, &wait, objects[i]};

    std::unique_lock guard(d.lock);
    if (count > 0 && satisfy(wait))
        return wait.status;
    if (timeout != nullptr) {
        const std::int64_t now = nowLocked(d);
        if (timeout->QuadPart <= 0) {
            const bool far = timeout->QuadPart < -(INT64_MAX / 4);
            wait.deadline = far ? INT64_MAX / 2 : now - timeout->QuadPart;
        } else {
            wait.deadline = std::max<std::int64_t>(0, timeout->QuadPart - d.bootTime);
        }
        if (wait.deadline <= now)
            return STATUS_TIMEOUT;
    }
    for (ULONG i = 0; i < count; i++)
        InsertTailList(&objects[i]->WaitListHead, &blocks[i].entry);
    d.waits.push_back(&wait);
    d.changed.notify_all();
    if (thread->player != nullptr) {
        guard.unlock();
        waitForTurn(thread, [&] {
            std::lock_guard look(d.lock);
            return wait.done;
        });
        guard.lock();
    }
    while (!wait.done) {
        if (wait.deadline == kForever || d.manual) {
            thread->wake.wait(guard);
        } else {
            const auto span = Ticks(wait.deadline) - std::chrono::duration_cast<Ticks>(SteadyClock::now() - d.started);
            const auto limit = std::min(std::chrono::duration_cast<std::chrono::nanoseconds>(std::min(span, Ticks(36'000'000'000))),
                                        std::chrono::nanoseconds(std::chrono::hours(1)));
            thread->wake.wait_for(guard, limit);
            if (!wait.done && !d.manual && nowLocked(d) >= wait.deadline) {
                wait.status = STATUS_TIMEOUT;
                finish(wait);
            }
        }
    }
    return wait.status;
}

bool anyWaiterIn(const void *memory, std::size_t length)
{
    Dispatcher &d = dispatcher();
    std::lock_guard guard(d.lock);
    auto *begin = static_cast<const std::uint8_t *>(memory);
    for (const Wait *wait : d.waits)
        for (ULONG i = 0; i < wait->count; i++) {
            auto *object = reinterpret_cast<const std::uint8_t *>(wait->blocks[i].object);
            if (object >= begin && object < begin + length)
                return true;
        }
    return false;
}

std::int64_t interruptTime()
{
    std::lock_guard guard(dispatcher().lock);
    return nowLocked(dispatcher());
}

std::int64_t systemTime()
{
    std::lock_guard guard(dispatcher().lock);
    return dispatcher().bootTime + nowLocked(dispatcher());
}

void startClock(bool manual, std::int64_t bootTime)
{
    Dispatcher &d = dispatcher();
    std::lock_guard guard(d.lock);
    d.manual = manual;
    d.manualTime = 0;
    d.started = SteadyClock::now();
    d.bootTime = bootTime;
}

// ------------------------------------------------------------------------------------------------------- machine.h: Clock

bool Clock::manual() const
{
    std::lock_guard guard(dispatcher().lock);
    return dispatcher().manual;
}

void Clock::setManual(bool manual)
{
    Dispatcher &d = dispatcher();
    std::lock_guard guard(d.lock);
    if (manual == d.manual)
        return;
    const std::int64_t now = nowLocked(d);
    d.manual = manual;
    d.manualTime = now;
    d.started = SteadyClock::now() - std::chrono::duration_cast<SteadyClock::duration>(Ticks(now));
    for (Wait *wait : d.waits)
        wait->thread->wake.notify_one(); // they look again at how they wait
}

Ticks Clock::now() const
{
    return Ticks(systemTime());
}

void Clock::set(Ticks systemTime)
{
    Dispatcher &d = dispatcher();
    std::lock_guard guard(d.lock);
    d.bootTime = systemTime.count() - nowLocked(d);
}

void Clock::advance(Ticks by)
{
    Dispatcher &d = dispatcher();
    std::lock_guard guard(d.lock);
    d.manualTime += by.count();
    expireDue(d);
}

static std::size_t timedWaitersLocked(const Dispatcher &d)
{
    return static_cast<std::size_t>(
        std::count_if(d.waits.begin(), d.waits.end(), [](const Wait *wait) { return wait->deadline != kForever; }));
}

std::size_t Clock::timedWaiters() const
{
    std::lock_guard guard(dispatcher().lock);
    return timedWaitersLocked(dispatcher());
}

bool Clock::waitForTimedWaiters(std::size_t count, std::chrono::milliseconds realLimit) const
{
    Dispatcher &d = dispatcher();
    std::unique_lock guard(d.lock);
    return d.changed.wait_for(guard, realLimit, [&] { return timedWaitersLocked(d) >= count; });
}

bool Clock::waitForWaiters(std::size_t count, const void *object, std::chrono::milliseconds realLimit) const
{
    Dispatcher &d = dispatcher();
    std::unique_lock guard(d.lock);
    return d.changed.wait_for(guard, realLimit, [&] {
        std::size_t found = 0;
        for (const Wait *wait : d.waits) {
            bool matches = object == nullptr;
            for (ULONG i = 0; i < wait->count && !matches; i++)
                matches = wait->blocks[i].object == object;
            found += matches;
        }
        return found >= count;
    });
}

std::optional<Ticks> Clock::nextExpiry() const
{
    Dispatcher &d = dispatcher();
    std::lock_guard guard(d.lock);
    std::optional<Ticks> next;
    const std::int64_t now = nowLocked(d);
    for (const Wait *wait : d.waits)
        if (wait->deadline != kForever && (!next || Ticks(wait->deadline - now) < *next))
            next = Ticks(std::max<std::int64_t>(0, wait->deadline - now));
    return next;
}

} // namespace ntos

// ---------------------------------------------------------------------------------------------------------------- doors

using namespace ntos;

extern "C" {

void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    initializeObject(Event->Header, Type == NotificationEvent ? kNotificationEvent : kSynchronizationEvent, State ? 1 : 0);
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY, BOOLEAN)
{
    NTOS_DOOR(KeSetEvent, DISPATCH_LEVEL, false);
    enter(kDoor);
    check(Event->Header, kDoor.routine);
    perturb();
    return signalObject(Event->Header, 1);
}

LONG KeResetEvent(PRKEVENT Event)
{
    NTOS_DOOR(KeResetEvent, DISPATCH_LEVEL, false);
    enter(kDoor);
    check(Event->Header, kDoor.routine);
    return resetObject(Event->Header);
}

void KeClearEvent(PRKEVENT Event)
{
    NTOS_DOOR(KeClearEvent, DISPATCH_LEVEL, false);
    enter(kDoor);
    check(Event->Header, kDoor.routine);
    resetObject(Event->Header);
}

LONG KeReadStateEvent(PRKEVENT Event)
{
    NTOS_DOOR(KeReadStateEvent, DISPATCH_LEVEL, false);
    enter(kDoor);
    check(Event->Header, kDoor.routine);
    return readObject(Event->Header);
}

void KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit)
{
    initializeObject(Semaphore->Header, kSemaphore, Count);
    Semaphore->Limit = Limit;
}

LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY, LONG Adjustment, BOOLEAN)
{
    NTOS_DOOR(KeReleaseSemaphore, DISPATCH_LEVEL, false);
    enter(kDoor);
    check(Semaphore->Header, kDoor.routine);
    perturb();
    const LONG now = readObject(Semaphore->Header);
    if (Adjustment <= 0 || Adjustment > Semaphore->Limit - now) {
        if (currentThread()->guards != nullptr)
            ExRaiseStatus(STATUS_SEMAPHORE_LIMIT_EXCEEDED);
        violate("semaphore released beyond its limit", kDoor.routine, text("semaphore %p", static_cast<void *>(Semaphore)), 0x1E);
        return now;
    }
    return addToObject(Semaphore->Header, Adjustment);
}

LONG KeReadStateSemaphore(PRKSEMAPHORE Semaphore)
{
    NTOS_DOOR(KeReadStateSemaphore, DISPATCH_LEVEL, false);
    enter(kDoor);
    check(Semaphore->Header, kDoor.routine);
    return readObject(Semaphore->Header);
}

static void checkWaitLevel(const Door &door, const LARGE_INTEGER *timeout)
{
    const _KTHREAD *thread = currentThread();
    if (thread->irql >= DISPATCH_LEVEL && (timeout == nullptr || timeout->QuadPart != 0))
        violate("wait with a limit other than zero at DISPATCH_LEVEL", door.routine, driverName(currentDriver()), 0x0A, thread->irql);
    for (const HeldLock &held : thread->locks)
        if (held.kind == LockKind::spin && (timeout == nullptr || timeout->QuadPart != 0))
            violate("wait while holding a spin lock", door.routine, text("lock %p", held.lock), 0xC4, 0x1005);
}

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Timeout)
{
    NTOS_DOOR(KeWaitForSingleObject, DISPATCH_LEVEL, false);
    enter(kDoor);
    checkWaitLevel(kDoor, Timeout);
    auto *header = static_cast<DISPATCHER_HEADER *>(Object);
    check(*header, kDoor.routine);
    perturb();
    const NTSTATUS status = waitForObjects(&header, 1, false, Timeout);
    perturb();
    return status;
}

NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN,
                                  PLARGE_INTEGER Timeout, PKWAIT_BLOCK WaitBlockArray)
{
    NTOS_DOOR(KeWaitForMultipleObjects, DISPATCH_LEVEL, false);
    enter(kDoor);
    checkWaitLevel(kDoor, Timeout);
    if (Count > MAXIMUM_WAIT_OBJECTS || (Count > THREAD_WAIT_OBJECTS && WaitBlockArray == nullptr))
        violate("more objects than wait blocks", kDoor.routine, driverName(currentDriver()), 0x0C);
    auto **headers = reinterpret_cast<DISPATCHER_HEADER **>(Object);
    for (ULONG i = 0; i < Count; i++)
        check(*headers[i], kDoor.routine);
    perturb();
    return waitForObjects(headers, Count, WaitType == WaitAll, Timeout);
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Interval)
{
    NTOS_DOOR(KeDelayExecutionThread, APC_LEVEL, false);
    enter(kDoor);
    waitForObjects(nullptr, 0, false, Interval);
    return STATUS_SUCCESS;
}

void KeQuerySystemTime(PLARGE_INTEGER CurrentTime)
{
    CurrentTime->QuadPart = systemTime();
}

ULONGLONG KeQueryInterruptTime(void)
{
    return static_cast<ULONGLONG>(interruptTime());
}

LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency)
{
    if (PerformanceFrequency != nullptr)
        PerformanceFrequency->QuadPart = 10'000'000;
    LARGE_INTEGER now;
    now.QuadPart = interruptTime();
    return now;
}

} // extern "C"
