#include "pdo.h"

#include "bus.h"
#include "usbstack.h"

namespace simbus {

namespace {

// Whether a control request wants this one to fail; counts it.
bool Fails(CAMERA *Camera, PIO_STACK_LOCATION Stack, NTSTATUS *Status)
{
    const bool Power = Stack->MajorFunction == IRP_MJ_POWER;
    const UCHAR Type = Power && Stack->Parameters.Power.Type == DevicePowerState ? UCHAR{1} : UCHAR{0};
    const ULONG State = !Power     ? 0
                        : Type == 1 ? static_cast<ULONG>(Stack->Parameters.Power.State.DeviceState)
                                    : static_cast<ULONG>(Stack->Parameters.Power.State.SystemState);
    SPIN_HOLD Hold(&Camera->Lock);
    for (ULONG i = 0; i < Camera->RequestFaultCount; ++i) {
        FAIL_REQUESTS &Fault = Camera->RequestFaults[i];
        if (Fault.Times == 0 || Fault.Major != Stack->MajorFunction || Fault.Minor != Stack->MinorFunction) continue;
        if (Power && Fault.PowerType != 0xFF && Fault.PowerType != Type) continue;
        if (Power && Fault.PowerState != 0xFF && Fault.PowerState != State) continue;
        --Fault.Times;
        *Status = static_cast<NTSTATUS>(Fault.Status);
        return true;
    }
    return false;
}

void SetStarted(CAMERA *Camera, bool Started)
{
    SPIN_HOLD Hold(&Camera->Lock);
    Camera->Started = Started;
}

void Remove(PDEVICE_OBJECT DeviceObject)
{
    PDO *Node = static_cast<PDO *>(DeviceObject->DeviceExtension);
    CAMERA *Camera = Node->Camera;
    SetStarted(Camera, false);
    UsbUnconfigure(Camera);
    bool Missing = Node->ReportedMissing;
    if (Node->Bus != nullptr) {
        GATE_HOLD Hold(&Node->Bus->ListGate);
        Missing = Node->ReportedMissing;
    }
    // A camera that is still plugged keeps its object: the next enumeration shows the same one.
    if (Missing) PdoDelete(DeviceObject);
}

}  // namespace

_Use_decl_annotations_
NTSTATUS PdoPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    CAMERA *Camera = PdoCamera(DeviceObject);
    PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
    NTSTATUS Status = STATUS_SUCCESS;
    if (Fails(Camera, Stack, &Status)) return CompleteNow(Irp, Status, Irp->IoStatus.Information);

    switch (Stack->MinorFunction) {
    case IRP_MN_START_DEVICE:
        SetStarted(Camera, true);
        return CompleteNow(Irp, STATUS_SUCCESS);
    case IRP_MN_STOP_DEVICE:
        UsbUnconfigure(Camera);
        SetStarted(Camera, false);
        return CompleteNow(Irp, STATUS_SUCCESS);
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE: return CompleteNow(Irp, STATUS_SUCCESS);
    case IRP_MN_SURPRISE_REMOVAL:
        SetStarted(Camera, false);
        UsbFlush(Camera);
        return CompleteNow(Irp, STATUS_SUCCESS);
    case IRP_MN_REMOVE_DEVICE:
        Remove(DeviceObject);
        return CompleteNow(Irp, STATUS_SUCCESS);
    default:
        Status = PdoQuery(DeviceObject, Irp, Stack);
        // What a physical device object does not know it completes as it came.
        if (Status == STATUS_NOT_SUPPORTED) return CompleteNow(Irp, Irp->IoStatus.Status, Irp->IoStatus.Information);
        return CompleteNow(Irp, Status, Irp->IoStatus.Information);
    }
}

_Use_decl_annotations_
NTSTATUS PdoPower(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    CAMERA *Camera = PdoCamera(DeviceObject);
    PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
    NTSTATUS Status = Irp->IoStatus.Status;
    if (!Fails(Camera, Stack, &Status)) {
        if (Stack->MinorFunction == IRP_MN_SET_POWER) {
            Status = STATUS_SUCCESS;
            if (Stack->Parameters.Power.Type == DevicePowerState) {
                PoSetPowerState(DeviceObject, DevicePowerState, Stack->Parameters.Power.State);
                CameraSetPower(Camera, Stack->Parameters.Power.State.DeviceState);
            }
        } else if (Stack->MinorFunction == IRP_MN_QUERY_POWER) {
            Status = STATUS_SUCCESS;
        }
    }
    PoStartNextPowerIrp(Irp);
    return CompleteNow(Irp, Status);
}

_Use_decl_annotations_
void PdoDelete(PDEVICE_OBJECT DeviceObject)
{
    CAMERA *Camera = PdoCamera(DeviceObject);
    UsbFlush(Camera);
    BusForget(DeviceObject);
    IoDeleteDevice(DeviceObject);
    CameraDereference(Camera);
}

}  // namespace simbus
