// Control transfers, pipe requests and the selection of a configuration, as one thread at a time carries them out.
#include "usbstack.h"

namespace simbus {

namespace {

USBD_STATUS AbortPipe(CAMERA *Camera, USBD_PIPE_HANDLE Handle, LIST_ENTRY *Done)
{
    LIST_ENTRY *List = nullptr;
    {
        SPIN_HOLD Hold(&Camera->Lock);
        const LONG Index = PipeOf(Camera, Handle);
        if (Index < 0) return USBD_STATUS_INVALID_PIPE_HANDLE;
        List = Camera->Pipes[Index].Address == kStreamEndpoint ? &Camera->Reads : &Camera->Others;
    }
    TransferFinishAll(Camera, List, USBD_STATUS_CANCELED, Done);
    return USBD_STATUS_SUCCESS;
}

// A reset clears a halt. Pending reads stay.
USBD_STATUS ResetPipe(CAMERA *Camera, USBD_PIPE_HANDLE Handle)
{
    SPIN_HOLD Hold(&Camera->Lock);
    const LONG Index = PipeOf(Camera, Handle);
    if (Index < 0) return USBD_STATUS_INVALID_PIPE_HANDLE;
    if (Camera->Pipes[Index].Address == kStreamEndpoint) Camera->Halted = false;
    return USBD_STATUS_SUCCESS;
}

CONTROL Vendor(CAMERA *Camera, TRANSFER *Transfer, USBD_STATUS *Status, LONGLONG *NotBefore)
{
    const _URB_CONTROL_VENDOR_OR_CLASS_REQUEST &Request = Transfer->Urb->UrbControlVendorClassRequest;
    {
        SPIN_HOLD Hold(&Camera->Lock);
        if (Camera->SilentCommands) return CONTROL::Stuck;
    }
    TRANSFER_RESULT Result = {ANSWER::Stall, 0};
    if (Request.Request == kVendorRequest && Request.Value == 0 && Request.Index == 0) {
        if ((Request.TransferFlags & USBD_TRANSFER_DIRECTION) == USBD_TRANSFER_DIRECTION_IN) {
            Result = FirmwareReply(Camera->Firmware, Transfer->Buffer, Transfer->Length);
        } else {
            Result = FirmwareCommand(Camera->Firmware, Camera->Identity, Camera->Stream, CameraStreaming(Camera),
                                     Transfer->Buffer, Transfer->Length);
        }
    }
    switch (Result.Answer) {
    case ANSWER::Wait: return CONTROL::Stuck;
    case ANSWER::Delay: *NotBefore = SystemTime() + LONGLONG{Result.Value} * 10'000; return CONTROL::Delayed;
    case ANSWER::Stall:
        Transfer->Filled = 0;
        *Status = USBD_STATUS_STALL_PID;   // a control pipe's halt ends with the next transfer
        return CONTROL::Done;
    default: Transfer->Filled = Result.Value; return CONTROL::Done;
    }
}

USBD_STATUS Descriptor(CAMERA *Camera, TRANSFER *Transfer)
{
    const _URB_CONTROL_DESCRIPTOR_REQUEST &Request = Transfer->Urb->UrbControlDescriptorRequest;
    bool Stalled = false;
    Transfer->Filled = DescriptorRead(Camera, Request.DescriptorType, Request.Index, Transfer->Buffer, Transfer->Length, &Stalled);
    return Stalled ? USBD_STATUS_STALL_PID : USBD_STATUS_SUCCESS;
}

}  // namespace

CONTROL UsbControl(CAMERA *Camera, PIRP Irp, USBD_STATUS *Status, LIST_ENTRY *Done, LONGLONG *NotBefore)
{
    TRANSFER *Transfer = TransferOf(Irp);
    PURB Urb = Transfer->Urb;
    bool Powered = false;
    {
        SPIN_HOLD Hold(&Camera->Lock);
        Powered = Camera->Power == PowerDeviceD0;
    }
    // Aborting is the host's own affair; everything else needs the device.
    if (!Powered && Urb->UrbHeader.Function != URB_FUNCTION_ABORT_PIPE) {
        *Status = USBD_STATUS_DEV_NOT_RESPONDING;
        return CONTROL::Done;
    }
    switch (Urb->UrbHeader.Function) {
    case URB_FUNCTION_VENDOR_DEVICE: return Vendor(Camera, Transfer, Status, NotBefore);
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE: *Status = Descriptor(Camera, Transfer); break;
    case URB_FUNCTION_SELECT_CONFIGURATION:
        *Status = ConfigurationSelect(Camera, &Urb->UrbSelectConfiguration, Done);
        break;
    case URB_FUNCTION_ABORT_PIPE: *Status = AbortPipe(Camera, Urb->UrbPipeRequest.PipeHandle, Done); break;
    case URB_FUNCTION_RESET_PIPE: *Status = ResetPipe(Camera, Urb->UrbPipeRequest.PipeHandle); break;
    default: *Status = USBD_STATUS_INVALID_URB_FUNCTION; break;
    }
    return CONTROL::Done;
}

}  // namespace simbus
