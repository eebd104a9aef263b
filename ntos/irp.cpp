// Requests: allocation, the way down, completion in stages on the way up, cancel.
#include "ntos/io.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <new>

#include "ntos/clockwork.h"
#include "ntos/memory.h"
#include "ntos/request.h"

namespace ntos {

namespace {

struct Irps {
    std::mutex lock;
    std::unordered_set<PIRP> live;
};
Irps &registry()
{
    static auto *instance = new Irps;
    return *instance;
}

constinit KSPIN_LOCK gCancelLock = 0;

bool known(PIRP irp, const char *routine)
{
    {
        std::lock_guard guard(registry().lock);
        if (registry().live.contains(irp))
            return true;
    }
    violate("request does not exist, was freed or was completed", routine, text("irp %p", static_cast<void *>(irp)), 0x44);
    return false;
}

std::int64_t hostNow()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::shared_ptr<CallRecord> &callAt(IrpRecord &record, int location)
{
    return record.calls[static_cast<std::size_t>(location)];
}

std::string callText(const CallRecord &call)
{
    return text("major %02x minor %02x at %s", call.major, call.minor, driverName(call.driver).c_str());
}

// What a dispatch routine answered must agree with what it did.
void checkAnswer(const CallRecord &call, NTSTATUS status, const char *routine)
{
    const bool lowerPended = call.passedDown && call.lowerStatus == STATUS_PENDING;
    if (call.forced)
        return;
    if (status == STATUS_PENDING) {
        if (!call.marked && !lowerPended)
            violate("returned STATUS_PENDING without marking the request pending", routine, callText(call), 0xC4, 0x223);
        return;
    }
    if (call.marked) {
        violate("marked the request pending and did not return STATUS_PENDING", routine,
                callText(call) + text(", returned %08X", static_cast<unsigned>(status)), 0xC4, 0x224);
    } else if (call.skipped) {
        if (status != call.lowerStatus)
            violate("returned another status than the driver below", routine,
                    callText(call) + text(", returned %08X", static_cast<unsigned>(status)), 0xC4, 0x23D);
    } else if (!call.completed) {
        violate("dispatch routine neither completed the request, passed it down nor left it pending", routine,
                callText(call) + text(", returned %08X", static_cast<unsigned>(status)), 0xC4, 0x226);
    } else if (status != call.completedStatus) {
        violate("returned another status than the request was completed with", routine,
                callText(call) + text(", returned %08X, completed with %08X", static_cast<unsigned>(status),
                                      static_cast<unsigned>(call.completedStatus.load())),
                0xC4, 0x23E);
    }
}

NTSTATUS invoke(PDEVICE_OBJECT device, PIRP irp, const std::shared_ptr<CallRecord> &call)
{
    _KTHREAD *thread = currentThread();
    const KIRQL before = thread->irql;
    const int regions = thread->criticalRegions;
    NTSTATUS status;
    {
        DriverScope scope(call->driver);
        PDRIVER_DISPATCH routine = device->DriverObject->MajorFunction[call->major];
        status = routine(device, irp);
    }
    if (thread->irql != before) {
        violate("dispatch routine returned at another level", "IoCallDriver", callText(*call), 0xC9, 0x05);
        thread->irql = before;
    }
    if (thread->criticalRegions != regions)
        violate("dispatch routine left a critical region unbalanced", "IoCallDriver", callText(*call), 0x01);
    checkAnswer(*call, status, "IoCallDriver");
    return status;
}

bool mayBeForcedPending(UCHAR major)
{
    // Removal is not waited for by everybody, and handles come and go in their owner's thread.
    return major == IRP_MJ_DEVICE_CONTROL || major == IRP_MJ_INTERNAL_DEVICE_CONTROL || major == IRP_MJ_READ ||
           major == IRP_MJ_WRITE || major == IRP_MJ_POWER || major == IRP_MJ_SYSTEM_CONTROL;
}

// The driver below serves the request in another thread; the caller is told it is pending.
NTSTATUS forcePending(PDEVICE_OBJECT device, PIRP irp, const std::shared_ptr<CallRecord> &call)
{
    struct Latch {
        std::mutex lock;
        std::condition_variable opened;
        bool open = false;
    };
    auto served = std::make_shared<Latch>();
    IoGetCurrentIrpStackLocation(irp)->Control |= SL_PENDING_RETURNED;
    call->marked = call->forced = true;
    _KPROCESS *process = currentThread()->process;
    const bool wait = schedulingFaultDue(SchedulingFault::completeBeforeReturn);
    runInWorker(
        [=] {
            currentThread()->process = process;
            invoke(device, irp, call);
            currentThread()->process = systemProcess();
            std::lock_guard guard(served->lock);
            served->open = true;
            served->opened.notify_all();
        },
        currentThread()->irql);
    if (wait) {
        std::unique_lock guard(served->lock);
        served->opened.wait_for(guard, std::chrono::milliseconds(20), [&] { return served->open; });
    }
    return STATUS_PENDING;
}

// The request is back above its first stack location.
void finishAtTop(PIRP irp, IrpRecord &record)
{
    switch (record.kind) {
    case IrpKind::driver:
        violate("a driver's own request was completed to the I/O manager", "IoCompleteRequest",
                irpText(irp) + " of " + driverName(record.owner), 0xC9, 0x01);
        break;
    case IrpKind::threaded: {
        const IO_STATUS_BLOCK block = irp->IoStatus;
        PIO_STATUS_BLOCK userBlock = irp->UserIosb;
        PKEVENT event = irp->UserEvent;
        // As on the platform: a request that failed on the spot tells so by the returned status alone.
        const bool tells = !NT_ERROR(block.Status) || irp->PendingReturned;
        releaseBuffers(irp, true);
        unregisterIrp(irp);
        destroyIrp(irp);
        if (tells) {
            *userBlock = block;
            if (event != nullptr)
                signalObject(event->Header, 1);
        }
        break;
    }
    case IrpKind::manager:
        finishIo(irp, record);
        break;
    }
}

} // namespace

IrpRecord *irpRecord(PIRP irp)
{
    return CONTAINING_RECORD(irp, IrpRecord, irp);
}

std::string irpText(PIRP irp)
{
    if (irp->CurrentLocation > irp->StackCount || irp->CurrentLocation < 1)
        return text("irp %p", static_cast<void *>(irp));
    const IO_STACK_LOCATION *location = IoGetCurrentIrpStackLocation(irp);
    return text("irp %p, major %02x minor %02x", static_cast<void *>(irp), location->MajorFunction, location->MinorFunction);
}

PIRP newIrp(CCHAR stackSize, IrpKind kind, DriverRecord *owner)
{
    if (stackSize < 1)
        return nullptr;
    const std::size_t locations = static_cast<std::size_t>(stackSize);
    void *memory = std::malloc(sizeof(IrpRecord) + (locations - 1) * sizeof(IO_STACK_LOCATION));
    if (memory == nullptr)
        return nullptr;
    auto *record = new (memory) IrpRecord;
    record->kind = kind;
    record->owner = owner;
    record->calls.resize(locations + 2);
    memset(static_cast<void *>(record->stack), 0, locations * sizeof(IO_STACK_LOCATION));
    PIRP irp = &record->irp;
    irp->Type = 6;
    irp->Size = static_cast<USHORT>(sizeof(IRP) + locations * sizeof(IO_STACK_LOCATION));
    irp->StackCount = stackSize;
    irp->CurrentLocation = static_cast<CHAR>(stackSize + 1);
    irp->Tail.Overlay.CurrentStackLocation = record->stack + locations;
    InitializeListHead(&irp->ThreadListEntry);
    std::lock_guard guard(registry().lock);
    registry().live.insert(irp);
    return irp;
}

void unregisterIrp(PIRP irp)
{
    std::lock_guard guard(registry().lock);
    registry().live.erase(irp);
}

void destroyIrp(PIRP irp)
{
    IrpRecord *record = irpRecord(irp);
    record->~IrpRecord();
    std::free(record);
}

std::size_t irps()
{
    std::lock_guard guard(registry().lock);
    return registry().live.size();
}

std::size_t irpsOf(const DriverRecord *owner)
{
    std::lock_guard guard(registry().lock);
    return static_cast<std::size_t>(std::count_if(registry().live.begin(), registry().live.end(), [&](PIRP irp) {
        return irpRecord(irp)->kind != IrpKind::manager && irpRecord(irp)->owner == owner;
    }));
}

void forgetIrps()
{
    std::lock_guard guard(registry().lock);
    for (PIRP irp : registry().live)
        if (irpRecord(irp)->kind != IrpKind::manager)
            destroyIrp(irp);
    registry().live.clear();
}

NTSTATUS callDriver(PDEVICE_OBJECT device, PIRP irp, const char *routine)
{
    if (!known(irp, routine))
        return STATUS_INVALID_PARAMETER;
    IrpRecord &record = *irpRecord(irp);
    if (irp->CurrentLocation <= 1) {
        violate("no stack location left", routine, irpText(irp) + " to " + deviceText(device), 0x35);
        return STATUS_INVALID_PARAMETER;
    }
    if (__atomic_load_n(&irp->CancelRoutine, __ATOMIC_ACQUIRE) != nullptr)
        violate("request passed down with a cancel routine", routine, irpText(irp), 0xC4, 0x203);

    // Who passes it down: a driver that skipped its location still owns the one below the current one.
    const int next = irp->CurrentLocation - 1;
    std::shared_ptr<CallRecord> caller;
    if (callAt(record, next) && !callAt(record, next)->completed) {
        caller = callAt(record, next);
        caller->skipped = true;
    } else if (irp->CurrentLocation <= irp->StackCount) {
        caller = callAt(record, irp->CurrentLocation);
    }
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    if (caller != nullptr && !caller->skipped) {
        const IO_STACK_LOCATION *current = IoGetCurrentIrpStackLocation(irp);
        if (location->CompletionRoutine != nullptr && location->Control != 0 &&
            location->CompletionRoutine == current->CompletionRoutine && location->Context == current->Context)
            violate("stack location copied with its completion routine", routine, irpText(irp), 0xC4, 0x206);
        if (record.kind == IrpKind::manager && location->MajorFunction != current->MajorFunction)
            violate("stack location passed down without being set up", routine, irpText(irp), 0xC4, 0x211);
    }
    if (caller != nullptr) {
        if (caller->major == IRP_MJ_POWER && caller->passedDown && !caller->completed)
            violate("power request passed down twice", routine, callText(*caller), 0xC4, 0x247);
        if (caller->major == IRP_MJ_POWER && caller->skipped && !caller->poStarted)
            violate("power request passed down without PoStartNextPowerIrp", routine, callText(*caller), 0xC4, 0x246);
        caller->lowerStatus = STATUS_PENDING;
        caller->passedDown = true;
    }

    auto call = std::make_shared<CallRecord>();
    call->device = device;
    call->driver = deviceRecord(device)->driver;
    call->major = location->MajorFunction;
    call->minor = location->MinorFunction;
    callAt(record, next) = call;
    record.inFlight = true;
    irp->CurrentLocation--;
    irp->Tail.Overlay.CurrentStackLocation = location;
    location->DeviceObject = device;

    NTSTATUS status;
    if (call->major > IRP_MJ_MAXIMUM_FUNCTION)
        violate("unknown major function", routine, irpText(irp), 0xC9, 0x0D);
    if (__builtin_expect(gHooksArmed.load(std::memory_order_relaxed), 0) && mayBeForcedPending(call->major) &&
        schedulingFaultDue(SchedulingFault::forcePending))
        status = forcePending(device, irp, call);
    else
        status = invoke(device, irp, call);
    // From here on the request may be gone.
    if (caller != nullptr)
        caller->lowerStatus = status;
    return status;
}

void completeRequest(PIRP irp, const char *routine)
{
    if (!known(irp, routine))
        return;
    IrpRecord &record = *irpRecord(irp);
    _KTHREAD *thread = currentThread();
    if (irp->CurrentLocation > irp->StackCount || !record.inFlight) {
        violate("request completed twice or never sent", routine, irpText(irp), 0x44);
        return;
    }
    if (irp->IoStatus.Status == STATUS_PENDING || irp->IoStatus.Status == -1)
        violate("request completed with STATUS_PENDING", routine, irpText(irp), 0xC9, 0x06);
    if (__atomic_load_n(&irp->CancelRoutine, __ATOMIC_ACQUIRE) != nullptr)
        violate("request completed with a cancel routine", routine, irpText(irp), 0xC9, 0x07);
    if (holdsSpinLock(thread))
        violate("request completed while holding a spin lock", routine, irpText(irp), 0xC9, 0x10);
    DriverRecord *completer = currentDriver();
    const std::shared_ptr<CallRecord> owner = callAt(record, irp->CurrentLocation);
    if (completer != nullptr && owner != nullptr && owner->driver != completer)
        violate("request completed by a driver that does not hold it", routine,
                irpText(irp) + ", held by " + driverName(owner->driver) + ", completed by " + driverName(completer), 0x44);
    checkCancelLatency(record, routine);

    while (irp->CurrentLocation <= irp->StackCount) {
        PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
        const std::shared_ptr<CallRecord> call = callAt(record, irp->CurrentLocation);
        irp->PendingReturned = (location->Control & SL_PENDING_RETURNED) != 0;
        const NTSTATUS status = irp->IoStatus.Status;
        if (call != nullptr) {
            if (call->major == IRP_MJ_POWER && !call->poStarted)
                violate("power request completed without PoStartNextPowerIrp", routine, callText(*call), 0xC4, 0x246);
            call->completedStatus = status;
            call->completed = true;
        }
        const UCHAR control = location->Control;
        const PIO_COMPLETION_ROUTINE completion = location->CompletionRoutine;
        PVOID context = location->Context;
        const bool wanted = completion != nullptr && ((NT_SUCCESS(status) && (control & SL_INVOKE_ON_SUCCESS)) ||
                                                      (!NT_SUCCESS(status) && (control & SL_INVOKE_ON_ERROR)) ||
                                                      (irp->Cancel && (control & SL_INVOKE_ON_CANCEL)));
        location->CompletionRoutine = nullptr;
        location->Control = 0;
        irp->CurrentLocation++;
        irp->Tail.Overlay.CurrentStackLocation++;
        const bool top = irp->CurrentLocation > irp->StackCount;
        const std::shared_ptr<CallRecord> above = top ? nullptr : callAt(record, irp->CurrentLocation);
        if (top)
            record.inFlight = false; // its owner may send or free it from its completion routine
        const bool pended = irp->PendingReturned;
        if (!wanted) {
            if (pended && !top)
                IoMarkIrpPending(irp);
            continue;
        }
        PDEVICE_OBJECT device = top ? nullptr : IoGetCurrentIrpStackLocation(irp)->DeviceObject;
        const KIRQL before = thread->irql;
        NTSTATUS verdict;
        {
            DriverScope scope(above != nullptr ? above->driver : record.owner);
            verdict = completion(device, irp, context);
        }
        if (thread->irql != before) {
            violate("completion routine returned at another level", routine, text("irql %u to %u", before, thread->irql), 0xC9, 0x05);
            thread->irql = before;
        }
        if (verdict == STATUS_MORE_PROCESSING_REQUIRED)
            return;
        if (pended && above != nullptr && !above->marked)
            violate("completion routine did not pass the pending mark up", routine, callText(*above), 0xC4, 0x228);
    }
    finishAtTop(irp, record);
}

bool cancelIrp(PIRP irp)
{
    const KIRQL irql = acquireSpinLock(&gCancelLock, "IoCancelIrp");
    irp->Cancel = TRUE;
    irpRecord(irp)->cancelledAt = hostNow();
    PDRIVER_CANCEL routine = IoSetCancelRoutine(irp, nullptr);
    if (routine == nullptr) {
        releaseSpinLock(&gCancelLock, irql, "IoCancelIrp");
        return false;
    }
    irp->CancelIrql = irql;
    PDEVICE_OBJECT device = irp->CurrentLocation <= irp->StackCount ? IoGetCurrentIrpStackLocation(irp)->DeviceObject : nullptr;
    _KTHREAD *thread = currentThread();
    {
        DriverScope scope(device == nullptr ? nullptr : deviceRecord(device)->driver);
        routine(device, irp);
    }
    if (thread->irql != irql)
        violate("cancel routine did not release the cancel lock to the right level", "IoCancelIrp", text("irql %u, was %u", thread->irql, irql), 0xC9, 0x05);
    return true;
}

void checkCancelLatency(IrpRecord &record, const char *routine)
{
    const std::int64_t cancelled = record.cancelledAt;
    if (cancelled == 0)
        return;
    const auto took = std::chrono::nanoseconds(hostNow() - cancelled);
    if (took > cancelLimit())
        violate("cancelled request took too long to complete", routine,
                irpText(&record.irp) + text(", %lld ms", static_cast<long long>(took.count() / 1'000'000)), 0xC4, 0x135);
}

} // namespace ntos

using namespace ntos;

extern "C" {

PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN)
{
    NTOS_DOOR(IoAllocateIrp, DISPATCH_LEVEL, true);
    if (enter(kDoor))
        return nullptr;
    return newIrp(StackSize, IrpKind::driver, currentDriver());
}

void IoFreeIrp(PIRP Irp)
{
    NTOS_DOOR(IoFreeIrp, DISPATCH_LEVEL, false);
    enter(kDoor);
    if (!known(Irp, kDoor.routine))
        return;
    IrpRecord &record = *irpRecord(Irp);
    if (record.kind == IrpKind::threaded) {
        violate("request of IoBuildDeviceIoControlRequest freed by the driver", kDoor.routine, irpText(Irp), 0xC4, 0x307);
        return;
    }
    if (record.kind == IrpKind::manager) {
        violate("the system's request freed by a driver", kDoor.routine, irpText(Irp), 0xC9, 0x01);
        return;
    }
    if (record.inFlight) {
        violate("request freed while in flight", kDoor.routine, irpText(Irp), 0xC4, 0x105);
        return;
    }
    unregisterIrp(Irp);
    destroyIrp(Irp);
}

void IoReuseIrp(PIRP Irp, NTSTATUS Iostatus)
{
    NTOS_DOOR(IoReuseIrp, DISPATCH_LEVEL, false);
    enter(kDoor);
    if (!known(Irp, kDoor.routine))
        return;
    IrpRecord &record = *irpRecord(Irp);
    if (record.inFlight || record.kind != IrpKind::driver) {
        violate("request reused while in flight or not the driver's own", kDoor.routine, irpText(Irp), 0xC4, 0x20A);
        return;
    }
    const CHAR locations = Irp->StackCount;
    for (auto &call : record.calls)
        call = nullptr;
    record.cancelledAt = 0;
    memset(static_cast<void *>(record.stack), 0, static_cast<std::size_t>(locations) * sizeof(IO_STACK_LOCATION));
    *Irp = IRP{};
    Irp->Type = 6;
    Irp->StackCount = locations;
    Irp->CurrentLocation = static_cast<CHAR>(locations + 1);
    Irp->Tail.Overlay.CurrentStackLocation = record.stack + locations;
    InitializeListHead(&Irp->ThreadListEntry);
    Irp->IoStatus.Status = Iostatus;
}

NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    NTOS_DOOR(IoCallDriver, DISPATCH_LEVEL, false);
    enter(kDoor);
    return callDriver(DeviceObject, Irp, kDoor.routine);
}

NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    NTOS_DOOR(PoCallDriver, DISPATCH_LEVEL, false);
    enter(kDoor);
    return callDriver(DeviceObject, Irp, kDoor.routine);
}

void IofCompleteRequest(PIRP Irp, CCHAR)
{
    NTOS_DOOR(IoCompleteRequest, DISPATCH_LEVEL, false);
    enter(kDoor);
    if (__builtin_expect(gHooksArmed.load(std::memory_order_relaxed), 0) && known(Irp, kDoor.routine) &&
        Irp->CurrentLocation <= Irp->StackCount &&
        (IoGetCurrentIrpStackLocation(Irp)->Control & SL_PENDING_RETURNED) != 0 &&
        schedulingFaultDue(SchedulingFault::completeElsewhere)) {
        runInWorker([Irp] { completeRequest(Irp, "IoCompleteRequest"); }, currentThread()->irql, currentDriver());
        return;
    }
    completeRequest(Irp, kDoor.routine);
}

void IoMarkIrpPending(PIRP Irp)
{
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
    location->Control |= SL_PENDING_RETURNED;
    IrpRecord &record = *irpRecord(Irp);
    if (Irp->CurrentLocation <= Irp->StackCount && callAt(record, Irp->CurrentLocation) != nullptr)
        callAt(record, Irp->CurrentLocation)->marked = true;
}

BOOLEAN IoCancelIrp(PIRP Irp)
{
    NTOS_DOOR(IoCancelIrp, DISPATCH_LEVEL, false);
    enter(kDoor);
    if (!known(Irp, kDoor.routine))
        return FALSE;
    return cancelIrp(Irp);
}

void IoAcquireCancelSpinLock(PKIRQL Irql)
{
    NTOS_DOOR(IoAcquireCancelSpinLock, DISPATCH_LEVEL, false);
    enter(kDoor);
    *Irql = acquireSpinLock(&gCancelLock, kDoor.routine);
}

void IoReleaseCancelSpinLock(KIRQL Irql)
{
    NTOS_DOOR(IoReleaseCancelSpinLock, DISPATCH_LEVEL, false);
    enter(kDoor);
    releaseSpinLock(&gCancelLock, Irql, kDoor.routine);
}

void PoStartNextPowerIrp(PIRP Irp)
{
    NTOS_DOOR(PoStartNextPowerIrp, DISPATCH_LEVEL, false);
    enter(kDoor);
    IrpRecord &record = *irpRecord(Irp);
    // A driver that has skipped its location already is one above the call it was made for.
    if (Irp->CurrentLocation <= Irp->StackCount && callAt(record, Irp->CurrentLocation) != nullptr)
        callAt(record, Irp->CurrentLocation)->poStarted = true;
}

} // extern "C"
