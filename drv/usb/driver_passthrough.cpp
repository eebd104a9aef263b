#include "hwcommand.h"
#include "owners.h"
#include "request.h"
#include "usb_transport.h"

USBCAM_MODULE("drv/usb/driver")

namespace {

constexpr UCHAR kSlaveCommand = 0x28;

} // namespace

NTSTATUS OnHwCommand(REQUEST &Request)
{
    ULONG Payload = 0;
    const NTSTATUS Status = HwCommand(Request.DeviceObject, Request.Buffer[0], Request.Buffer + 1,
                                      Request.InputLength - 1, Request.Buffer, Request.OutputLength, &Payload);
    Request.Information = Smaller(Payload, Request.OutputLength);
    return Status;
}

// The two halves of a transaction, without the turn that HwCommand takes: pairing them is the client's business.
NTSTATUS OnUSBWrite(REQUEST &Request)
{
    return HwCommand_SendData(Request.DeviceObject, Request.Buffer[0], Request.Buffer + 1, Request.InputLength - 1);
}

NTSTATUS OnUSBRead(REQUEST &Request)
{
    ULONG Payload = 0;
    const NTSTATUS Status = HwCommand_RecvData(Request.DeviceObject, Request.Buffer, Request.OutputLength, &Payload);
    Request.Information = Smaller(Payload, Request.OutputLength);
    return Status;
}

NTSTATUS OnSlaveWrite(REQUEST &Request)
{
    DEVICE_EXTENSION *const DevExt = Request.DevExt;
    UCHAR Reply[kCommandSize] = {};
    static_assert(sizeof(Reply) == sizeof(DevExt->SlaveReplyBuf));
    ULONG Payload = 0;
    const NTSTATUS Status = HwCommand(Request.DeviceObject, kSlaveCommand, Request.Buffer, Request.InputLength, Reply,
                                      sizeof(Reply), &Payload);
    if (NT_SUCCESS(Status)) {
        const SpinHold Hold(&DevExt->SlaveLock);
        RtlCopyMemory(DevExt->SlaveReplyBuf, Reply, sizeof(Reply));
        DevExt->SlaveReplyLen = Payload;
    }
    return Status;
}

NTSTATUS OnSlaveRead(REQUEST &Request)
{
    DEVICE_EXTENSION *const DevExt = Request.DevExt;
    ULONG Kept = 0;
    {
        const SpinHold Hold(&DevExt->SlaveLock);
        Kept = DevExt->SlaveReplyLen;
        if (Kept != 0 && Kept <= Request.OutputLength) {
            RtlCopyMemory(Request.Buffer, DevExt->SlaveReplyBuf, Kept);
            DevExt->SlaveReplyLen = 0;
        }
    }
    if (Kept == 0) {
        RequestError("call IOCTL_SlaveRead without IOCTL_SlaveWrite? \n");
        return Refuse(Request, STATUS_INVALID_DEVICE_REQUEST);
    }
    if (Kept > Request.OutputLength) {
        RequestError("call IOCTL_SlaveRead with buffer size=%d < %d \n", Request.OutputLength, Kept);
        return Refuse(Request, STATUS_INVALID_DEVICE_REQUEST);
    }
    Request.Information = Kept;
    return STATUS_SUCCESS;
}

NTSTATUS OnMainRead(REQUEST &Request)
{
    const LONG AltSetting = ReadOnce(Request.DevExt->AltSetting);
    const USBD_PIPE_HANDLE MainIn = ReadOnce(Request.DevExt->MainIn);
    if (AltSetting < 1 || MainIn == nullptr) {
        RequestError("IOCTL_MainRead: AltSetting<1 ? AltSetting=%d \n", AltSetting);
        RequestError("IOCTL_MainRead: MainIn==NULL ? MainIn=%p \n", MainIn);
        return Refuse(Request, STATUS_INVALID_DEVICE_REQUEST);
    }
    RequestPrint("AltSetting=%d MainIn=%p BufLen=%d\n", AltSetting, MainIn, Request.OutputLength);
    RequestPrint("run\n");

    // An output length of 0 comes without an MDL: a transfer of no bytes needs none.
    _URB_BULK_OR_INTERRUPT_TRANSFER Urb;
    RtlZeroMemory(&Urb, sizeof(Urb));
    Urb.Hdr.Length = sizeof(Urb);
    Urb.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    Urb.PipeHandle = MainIn;
    Urb.TransferFlags = USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK;
    Urb.TransferBufferLength = Request.Irp->MdlAddress != nullptr ? Request.OutputLength : 0;
    Urb.TransferBufferMDL = Request.Irp->MdlAddress;
    const NTSTATUS Status = UsbSubmitUrbSync(Request.DeviceObject, reinterpret_cast<PURB>(&Urb));
    // A request that could not be built or queued leaves the length that was asked for, and has read nothing.
    if (Status != STATUS_INSUFFICIENT_RESOURCES) {
        Request.Information = Smaller(Urb.TransferBufferLength, Request.OutputLength);
    }
    return Status;
}

NTSTATUS OnResetPipe(REQUEST &Request)
{
    const DEVICE_EXTENSION *const DevExt = Request.DevExt;
    const USBD_PIPE_HANDLE Pipes[] = {ReadOnce(DevExt->Pipe0), ReadOnce(DevExt->Pipe1), ReadOnce(DevExt->MainIn)};
    const UCHAR Number = Request.Buffer[0];
    if (Number >= sizeof(Pipes) / sizeof(Pipes[0])) {
        RequestError("IOCTL_ResetPipe: Error pipe number [%d] \n", Number);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    return UsbResetPipe(Request.DeviceObject, Pipes[Number]);
}

NTSTATUS OnSetInterfaceType(REQUEST &Request)
{
    return UsbSetInterfaceUnclaimed(Request.DeviceObject, Request.Buffer[0], Request.Buffer[1]);
}
