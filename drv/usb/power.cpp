#include "camera.h"
#include "debug.h"
#include "owners.h"
#include "pnp.h"

USBCAM_MODULE("drv/usb/pnp")

namespace {

void EnterPower(DEVICE_EXTENSION *DevExt)
{
    const SpinHold Hold(&DevExt->PowerLock);
    ++DevExt->PowerRefs;
}

// The caller touches the device no more.
void LeavePower(DEVICE_EXTENSION *DevExt)
{
    const SpinHold Hold(&DevExt->PowerLock);
    if (--DevExt->PowerRefs == 0) {
        KeSetEvent(&DevExt->NoPowerEv, IO_NO_INCREMENT, FALSE);
    }
}

// Every power request goes down exactly once, and the next one is let go before that.
NTSTATUS SendDown(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    PoStartNextPowerIrp(Irp);
    return PoCallDriver(GetDevExt(DeviceObject)->LowerDeviceObject, Irp);
}

NTSTATUS PassDown(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    IoCopyCurrentIrpStackLocationToNext(Irp);
    const NTSTATUS Status = SendDown(DeviceObject, Irp);
    DebugPrintAs("USBCAM_DispatchPower", "return %Xh\n", Status);
    return Status;
}

// Sends the held system request down. Nothing to do for the second of two that come for it.
void ReleaseSystemRequest(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    const PVOID Held = InterlockedExchangePointer(reinterpret_cast<PVOID *>(&DevExt->PendingSystemPowerIrp), nullptr);
    if (Held == nullptr) {
        return;
    }
    const PIRP Irp = static_cast<PIRP>(Held);
    IoCopyCurrentIrpStackLocationToNext(Irp);
    SendDown(DeviceObject, Irp);
    LeavePower(DevExt);
}

constexpr DEVICE_POWER_STATE DeviceStateFor(SYSTEM_POWER_STATE State)
{
    return State == PowerSystemWorking ? PowerDeviceD0 : PowerDeviceD3;
}
static_assert(DeviceStateFor(PowerSystemWorking) == PowerDeviceD0 &&
              DeviceStateFor(PowerSystemShutdown) == PowerDeviceD3);

// A camera that misses its request to D0 stays off until the next sleep and wake, so a passing lack of memory gets more
// than one chance.
NTSTATUS RequestDevicePower(PDEVICE_OBJECT DeviceObject, POWER_STATE State)
{
    constexpr int kAttempts = 3;
    NTSTATUS Status = STATUS_INSUFFICIENT_RESOURCES;
    for (int Attempt = 0; Attempt < kAttempts && !NT_SUCCESS(Status); ++Attempt) {
        Status = PoRequestPowerIrp(GetDevExt(DeviceObject)->PhysicalDeviceObject, IRP_MN_SET_POWER, State,
                                   PoRequestCompletion, DeviceObject, nullptr);
    }
    return Status;
}

// The policy: a system request is held until the device has followed.
NTSTATUS SetSystemPower(PDEVICE_OBJECT DeviceObject, PIRP Irp, SYSTEM_POWER_STATE SystemState)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    POWER_STATE DeviceState = {};
    DeviceState.DeviceState = DeviceStateFor(SystemState);
    if (DeviceState.DeviceState == ReadOnce(DevExt->PowerState)) {
        return PassDown(DeviceObject, Irp);
    }
    EnterPower(DevExt);
    IoMarkIrpPending(Irp);
    WriteOnce(DevExt->PendingSystemPowerIrp, Irp);
    // From here PoRequestCompletion owns the held request, unless the device request cannot be issued.
    const NTSTATUS Status = RequestDevicePower(DeviceObject, DeviceState);
    DebugPrintAs("USBCAM_DispatchPower", "return %Xh\n", Status);
    if (!NT_SUCCESS(Status)) {
        ReleaseSystemRequest(DeviceObject);
    }
    return STATUS_PENDING;
}

// The context is restored when the request comes back up.
NTSTATUS PowerUp(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    EnterPower(DevExt); // until the restore is done
    EnterPower(DevExt); // until the record has been looked at below
    WriteOnce(DevExt->DeferredIrp, nullptr);
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, PowerIrp_Complete, DeviceObject, TRUE, TRUE, TRUE);
    NTSTATUS Status = SendDown(DeviceObject, Irp);
    DebugPrintAs("USBCAM_DispatchPower", "return %Xh\n", Status);
    // Completed below within the call: handed to the work item, which has marked it pending, or completed upward with
    // success, whatever it was below.
    if (Status != STATUS_PENDING) {
        Status = ReadOnce(DevExt->DeferredIrp) == Irp ? STATUS_PENDING : STATUS_SUCCESS;
    }
    LeavePower(DevExt);
    return Status;
}

NTSTATUS SetDevicePower(PDEVICE_OBJECT DeviceObject, PIRP Irp, DEVICE_POWER_STATE State)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    if (State == ReadOnce(DevExt->PowerState)) {
        return PassDown(DeviceObject, Irp);
    }
    if (State == PowerDeviceD0) {
        return PowerUp(DeviceObject, Irp);
    }
    if (State == PowerDeviceD1 || State == PowerDeviceD2 || State == PowerDeviceD3) {
        SetPower(DeviceObject, false);
    }
    return PassDown(DeviceObject, Irp);
}

// Restores in the place of a completion routine that must not block, then lets the request go on upward.
VOID NTAPI RestoreAndComplete(PDEVICE_OBJECT DeviceObject, PVOID)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    SetPower(DeviceObject, true);
    const PIRP Irp =
        static_cast<PIRP>(InterlockedExchangePointer(reinterpret_cast<PVOID *>(&DevExt->RestoreIrp), nullptr));
    Irp->IoStatus.Status = STATUS_SUCCESS;
    DebugPrintAs("PowerIrp_Complete", "return %Xh\n", STATUS_SUCCESS);
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    LeavePower(DevExt);
}

// Hands the request to the work item. False when that is busy: then another restore is under way already.
bool DeferRestore(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    if (InterlockedCompareExchangePointer(reinterpret_cast<PVOID *>(&DevExt->RestoreIrp), Irp, nullptr) != nullptr) {
        return false;
    }
    IoMarkIrpPending(Irp);
    WriteOnce(DevExt->DeferredIrp, Irp);
    // The work item owns the request from here.
    IoQueueWorkItem(DevExt->RestoreItem, RestoreAndComplete, DelayedWorkQueue, nullptr);
    return true;
}

} // namespace

NTSTATUS NTAPI USBCAM_DispatchPower(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    const PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
    DebugPrint("start\n");
    Irp->IoStatus.Status = STATUS_SUCCESS;
    Irp->IoStatus.Information = 0;
    if (Stack->MinorFunction != IRP_MN_SET_POWER) {
        return PassDown(DeviceObject, Irp);
    }
    switch (Stack->Parameters.Power.Type) {
    case SystemPowerState:
        return SetSystemPower(DeviceObject, Irp, Stack->Parameters.Power.State.SystemState);
    case DevicePowerState:
        return SetDevicePower(DeviceObject, Irp, Stack->Parameters.Power.State.DeviceState);
    default:
        return PassDown(DeviceObject, Irp);
    }
}

VOID NTAPI PoRequestCompletion(PDEVICE_OBJECT, UCHAR, POWER_STATE, PVOID Context, PIO_STATUS_BLOCK IoStatus)
{
    DebugPrint("start\n");
    // Said first: whoever waits for the system request finds the trace complete.
    DebugPrint("return %Xh\n", IoStatus->Status);
    ReleaseSystemRequest(static_cast<PDEVICE_OBJECT>(Context));
}

NTSTATUS NTAPI PowerIrp_Complete(PDEVICE_OBJECT, PIRP Irp, PVOID Context)
{
    const auto DeviceObject = static_cast<PDEVICE_OBJECT>(Context);
    DebugPrint("start\n");
    if (KeGetCurrentIrql() > PASSIVE_LEVEL && DeferRestore(DeviceObject, Irp)) {
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    if (Irp->PendingReturned) {
        IoMarkIrpPending(Irp);
    }
    if (KeGetCurrentIrql() == PASSIVE_LEVEL) {
        SetPower(DeviceObject, true);
    }
    Irp->IoStatus.Status = STATUS_SUCCESS;
    DebugPrint("return %Xh\n", STATUS_SUCCESS);
    LeavePower(GetDevExt(DeviceObject));
    return STATUS_SUCCESS;
}

void SetPower(PDEVICE_OBJECT DeviceObject, bool On)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    DebugPrint("start\n");
    if (On) {
        DebugPrint("--- Power ON\n");
        VQT_RestoreContext(DeviceObject);
        DebugPrint("Setup PowerDeviceD0\n");
        WriteOnce(DevExt->PowerState, PowerDeviceD0);
    } else {
        DebugPrint("--- Power OFF\n");
        VQT_SaveContext(DeviceObject);
        DebugPrint("Setup PowerDeviceD3\n");
        WriteOnce(DevExt->PowerState, PowerDeviceD3);
    }
    DebugPrint("finish\n");
}

void WaitForPowerRequests(DEVICE_EXTENSION *DevExt)
{
    for (;;) {
        {
            const SpinHold Hold(&DevExt->PowerLock);
            if (DevExt->PowerRefs == 0) {
                return;
            }
            KeClearEvent(&DevExt->NoPowerEv);
        }
        KeWaitForSingleObject(&DevExt->NoPowerEv, Executive, KernelMode, FALSE, nullptr);
    }
}
