#include "controldevice.h"

namespace simbus {

namespace {

IO_COMPLETION_ROUTINE OnSent;

_Use_decl_annotations_
NTSTATUS OnSent(PDEVICE_OBJECT, PIRP, PVOID Context)
{
    KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

bool PnpMayFail(UCHAR Minor) { return Minor != IRP_MN_REMOVE_DEVICE && Minor != IRP_MN_SURPRISE_REMOVAL; }

bool MaySend(const SEND_REQUEST &Request)
{
    if (Request.Major == IRP_MJ_PNP) {
        switch (Request.Minor) {
        case IRP_MN_START_DEVICE:
        case IRP_MN_QUERY_STOP_DEVICE:
        case IRP_MN_CANCEL_STOP_DEVICE:
        case IRP_MN_STOP_DEVICE:
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_CANCEL_REMOVE_DEVICE: return true;
        default: return false;
        }
    }
    if (Request.Major != IRP_MJ_POWER) return false;
    if (Request.Minor != IRP_MN_SET_POWER && Request.Minor != IRP_MN_QUERY_POWER) return false;
    return Request.PowerType == 1 ? Request.PowerState >= PowerDeviceD0 && Request.PowerState <= PowerDeviceD3
                                  : Request.PowerType == 0 && Request.PowerState >= PowerSystemWorking &&
                                        Request.PowerState < PowerSystemMaximum;
}

// Sends one request to the top of the stack and waits for its status.
NTSTATUS Send(PDEVICE_OBJECT Pdo, const SEND_REQUEST &Request)
{
    PDEVICE_OBJECT Top = IoGetAttachedDeviceReference(Pdo);
    PIRP Irp = IoAllocateIrp(Top->StackSize, FALSE);
    if (Irp == nullptr) {
        ObDereferenceObject(Top);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KEVENT Event;
    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    Irp->IoStatus.Status = STATUS_NOT_SUPPORTED;   // what nobody handles comes back so
    PIO_STACK_LOCATION Stack = IoGetNextIrpStackLocation(Irp);
    Stack->MajorFunction = Request.Major;
    Stack->MinorFunction = Request.Minor;
    if (Request.Major == IRP_MJ_POWER) {
        Stack->Parameters.Power.Type = Request.PowerType == 1 ? DevicePowerState : SystemPowerState;
        if (Request.PowerType == 1) {
            Stack->Parameters.Power.State.DeviceState = static_cast<DEVICE_POWER_STATE>(Request.PowerState);
        } else {
            Stack->Parameters.Power.State.SystemState = static_cast<SYSTEM_POWER_STATE>(Request.PowerState);
        }
        Stack->Parameters.Power.ShutdownType = PowerActionNone;
    }
    IoSetCompletionRoutine(Irp, OnSent, &Event, TRUE, TRUE, TRUE);
    if (Request.Major == IRP_MJ_POWER) PoCallDriver(Top, Irp);
    else IoCallDriver(Top, Irp);
    KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, nullptr);
    const NTSTATUS Status = Irp->IoStatus.Status;
    IoFreeIrp(Irp);
    ObDereferenceObject(Top);
    return Status;
}

}  // namespace

NTSTATUS ControlPlug(CONTROL_CALL &Call)
{
    const PLUG_REQUEST Request = Call.Record<PLUG_REQUEST>();
    if (Request.Model < 1 || Request.Model > 3 || Request.Mono > 1 || (Request.Flags & ~kPlugAll) != 0 || Request.Reserved != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    ULONG Slot = 0;
    const NTSTATUS Status = BusPlug(Call.Bus, Request, &Slot);
    if (NT_SUCCESS(Status)) Call.Reply(SLOT_RECORD{static_cast<uint32_t>(Slot)});
    return Status;
}

NTSTATUS ControlUnplug(CONTROL_CALL &Call) { return BusUnplug(Call.Bus, Call.Record<SLOT_RECORD>().Slot); }

NTSTATUS ControlList(CONTROL_CALL &Call)
{
    ULONG Count = 0;
    GATE_HOLD Hold(&Call.Bus->ListGate);
    for (PDEVICE_OBJECT Pdo : Call.Bus->Slots) {
        if (Pdo == nullptr) continue;
        if ((Count + 1) * sizeof(LIST_ENTRY_RECORD) > Call.OutputLength) break;
        CAMERA *Camera = PdoCamera(Pdo);
        LIST_ENTRY_RECORD Entry = {};
        Entry.Slot = Camera->Slot;
        Entry.Model = Camera->Identity.Model;
        Entry.Mono = Camera->Identity.Mono;
        Entry.Serial = Camera->Identity.Serial;
        {
            SPIN_HOLD CameraHold(&Camera->Lock);
            Entry.Plugged = Camera->Plugged;
            Entry.Started = Camera->Started;
        }
        RtlCopyMemory(Call.Buffer + Count++ * sizeof(Entry), &Entry, sizeof(Entry));
    }
    Call.Written = static_cast<ULONG>(Count * sizeof(LIST_ENTRY_RECORD));
    return STATUS_SUCCESS;
}

NTSTATUS ControlFailRequests(CONTROL_CALL &Call)
{
    const FAIL_REQUESTS Request = Call.Record<FAIL_REQUESTS>();
    const bool Pnp = Request.Major == IRP_MJ_PNP && PnpMayFail(Request.Minor);
    if ((!Pnp && Request.Major != IRP_MJ_POWER) || (Request.PowerType > 1 && Request.PowerType != 0xFF) ||
        NT_SUCCESS(static_cast<NTSTATUS>(Request.Status))) {
        return STATUS_INVALID_PARAMETER;
    }
    CAMERA_REFERENCE Camera(Call.Bus, Request.Slot);
    if (!Camera) return STATUS_NO_SUCH_DEVICE;
    SPIN_HOLD Hold(&Camera->Lock);
    ULONG Kept = 0;
    for (ULONG i = 0; i < Camera->RequestFaultCount; ++i) {   // an entry for the same request is replaced
        const FAIL_REQUESTS &Old = Camera->RequestFaults[i];
        const bool Same = Old.Major == Request.Major && Old.Minor == Request.Minor && Old.PowerType == Request.PowerType &&
                          Old.PowerState == Request.PowerState;
        if (Old.Times != 0 && !Same) Camera->RequestFaults[Kept++] = Old;
    }
    Camera->RequestFaultCount = Kept;
    if (Request.Times == 0) return STATUS_SUCCESS;
    if (Kept == kMaxRequestFaults) return STATUS_INSUFFICIENT_RESOURCES;
    Camera->RequestFaults[Camera->RequestFaultCount++] = Request;
    return STATUS_SUCCESS;
}

NTSTATUS ControlSendRequest(CONTROL_CALL &Call)
{
    const SEND_REQUEST Request = Call.Record<SEND_REQUEST>();
    if (!MaySend(Request)) return STATUS_INVALID_PARAMETER;
    PDEVICE_OBJECT Pdo = nullptr;
    {
        GATE_HOLD Hold(&Call.Bus->ListGate);
        if (Request.Slot < kMaxSlots) Pdo = Call.Bus->Slots[Request.Slot];
        if (Pdo == nullptr) return STATUS_NO_SUCH_DEVICE;
        ObReferenceObject(Pdo);
    }
    const NTSTATUS Status = Send(Pdo, Request);
    ObDereferenceObject(Pdo);
    Call.Reply(SEND_REPLY{static_cast<uint32_t>(Status)});
    return STATUS_SUCCESS;
}

}  // namespace simbus
