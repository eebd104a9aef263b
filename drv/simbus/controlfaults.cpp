#include "controldevice.h"
#include "usbstack.h"

namespace simbus {

NTSTATUS ControlSetLineFaults(CONTROL_CALL &Call)
{
    const LINE_FAULTS_REQUEST Request = Call.Record<LINE_FAULTS_REQUEST>();
    if (Request.Append > 1 || !Call.Follows(sizeof(Request), Request.Count, sizeof(LINE_FAULT))) return STATUS_INVALID_PARAMETER;
    CAMERA_REFERENCE Camera(Call.Bus, Request.Slot);
    if (!Camera) return STATUS_NO_SUCH_DEVICE;
    CAMERA_HOLD Hold(Camera.Get());
    return LineFaultsSet(Camera->Stream.Faults, reinterpret_cast<const LINE_FAULT *>(Call.Buffer + sizeof(Request)), Request.Count,
                         Request.Append == 1);
}

NTSTATUS ControlSetCommandFaults(CONTROL_CALL &Call)
{
    const COMMAND_FAULTS_REQUEST Request = Call.Record<COMMAND_FAULTS_REQUEST>();
    if (Request.Append > 1 || !Call.Follows(sizeof(Request), Request.Count, sizeof(COMMAND_FAULT))) return STATUS_INVALID_PARAMETER;
    CAMERA_REFERENCE Camera(Call.Bus, Request.Slot);
    if (!Camera) return STATUS_NO_SUCH_DEVICE;
    CAMERA_HOLD Hold(Camera.Get());
    return FirmwareSetFaults(Camera->Firmware, reinterpret_cast<const COMMAND_FAULT *>(Call.Buffer + sizeof(Request)),
                             Request.Count, Request.Append == 1);
}

NTSTATUS ControlSetBulkFaults(CONTROL_CALL &Call)
{
    // A read that completes inline may be sent down again from its completion routine: each is a level of the stack.
    constexpr ULONG kMaxInline = 16;
    const BULK_FAULTS_REQUEST Request = Call.Record<BULK_FAULTS_REQUEST>();
    if (Request.Append > 1 || Request.Count > kMaxBulkFaults || !Call.Follows(sizeof(Request), Request.Count, sizeof(BULK_FAULT))) {
        return STATUS_INVALID_PARAMETER;
    }
    const BULK_FAULT *Faults = reinterpret_cast<const BULK_FAULT *>(Call.Buffer + sizeof(Request));
    for (ULONG i = 0; i < Request.Count; ++i) {
        const BULK_FAULT &Fault = Faults[i];
        if (Fault.Kind < 1 || Fault.Kind > kBulkKinds || Fault.Reserved != 0 || Fault.Times == 0 ||
            (Fault.Kind == kBulkInline && Fault.Times > kMaxInline)) {
            return STATUS_INVALID_PARAMETER;
        }
    }
    CAMERA_REFERENCE Camera(Call.Bus, Request.Slot);
    if (!Camera) return STATUS_NO_SUCH_DEVICE;
    SPIN_HOLD Hold(&Camera->Lock);
    const ULONG Kept = Request.Append ? Camera->BulkFaultCount : 0;
    if (Request.Count > kMaxBulkFaults - Kept) return STATUS_INVALID_PARAMETER;
    RtlCopyMemory(Camera->BulkFaults + Kept, Faults, Request.Count * sizeof(BULK_FAULT));
    Camera->BulkFaultCount = Kept + Request.Count;
    return STATUS_SUCCESS;
}

NTSTATUS ControlReleaseHeld(CONTROL_CALL &Call)
{
    CAMERA_REFERENCE Camera(Call.Bus, Call.Record<SLOT_RECORD>().Slot);
    if (!Camera) return STATUS_NO_SUCH_DEVICE;
    {
        SPIN_HOLD Hold(&Camera->Lock);
        Camera->ReleaseHeld = true;
    }
    CameraWake(Camera.Get());
    return STATUS_SUCCESS;
}

NTSTATUS ControlSetDescriptor(CONTROL_CALL &Call)
{
    const DESCRIPTOR_REQUEST Request = Call.Record<DESCRIPTOR_REQUEST>();
    const bool Device = Request.Type == kDescriptorDevice && Request.Index == 0;
    const bool Configuration = Request.Type == kDescriptorConfiguration && Request.Index < 2;
    if ((!Device && !Configuration) || Request.Remove > 1 || Request.Stall > 1 || Request.Length > kMaxDescriptor ||
        ((Request.Remove || Request.Stall) && Request.Length != 0) || !Call.Follows(sizeof(Request), Request.Length, 1)) {
        return STATUS_INVALID_PARAMETER;
    }
    CAMERA_REFERENCE Camera(Call.Bus, Request.Slot);
    if (!Camera) return STATUS_NO_SUCH_DEVICE;
    CAMERA_HOLD Hold(Camera.Get());
    DESCRIPTOR_OVERRIDE &Override = Device ? Camera->DeviceDescriptor : Camera->ConfigurationDescriptors[Request.Index];
    Override.Active = Request.Remove == 0;
    Override.Stall = Request.Stall == 1;
    Override.Length = Request.Length;
    RtlCopyMemory(Override.Bytes, Call.Buffer + sizeof(Request), Request.Length);
    return STATUS_SUCCESS;
}

NTSTATUS ControlSetSilence(CONTROL_CALL &Call)
{
    const SILENCE_REQUEST Request = Call.Record<SILENCE_REQUEST>();
    if ((Request.What & ~(kSilentStream | kSilentCommands)) != 0) return STATUS_INVALID_PARAMETER;
    CAMERA_REFERENCE Camera(Call.Bus, Request.Slot);
    if (!Camera) return STATUS_NO_SUCH_DEVICE;
    {
        SPIN_HOLD Hold(&Camera->Lock);
        const bool Silent = (Request.What & kSilentCommands) != 0;
        // A camera that answers again answers what has been waiting.
        if (Camera->SilentCommands && !Silent) {
            while (!IsListEmpty(&Camera->Stuck)) InsertTailList(&Camera->Controls, RemoveHeadList(&Camera->Stuck));
        }
        Camera->SilentCommands = Silent;
        Camera->SilentStream = (Request.What & kSilentStream) != 0;
    }
    CameraWake(Camera.Get());
    return STATUS_SUCCESS;
}

NTSTATUS ControlSetMode(CONTROL_CALL &Call)
{
    const MODE_REQUEST Request = Call.Record<MODE_REQUEST>();
    if ((Request.Mode & ~kModeAll) != 0) return STATUS_INVALID_PARAMETER;
    CAMERA_REFERENCE Camera(Call.Bus, Request.Slot);
    if (!Camera) return STATUS_NO_SUCH_DEVICE;
    {
        SPIN_HOLD Hold(&Camera->Lock);
        Camera->InlineControl = (Request.Mode & kModeInlineControl) != 0;
        Camera->ByHand = (Request.Mode & kModeByHand) != 0;
    }
    CameraWake(Camera.Get());
    return STATUS_SUCCESS;
}

NTSTATUS ControlServe(CONTROL_CALL &Call)
{
    CAMERA_REFERENCE Camera(Call.Bus, Call.Record<SLOT_RECORD>().Slot);
    if (!Camera) return STATUS_NO_SUCH_DEVICE;
    LONGLONG Due = kNever;
    Call.Reply(SERVE_REPLY{UsbServe(Camera.Get(), true, &Due) ? 1u : 0u});
    return STATUS_SUCCESS;
}

}  // namespace simbus
