#include "hwcommand.h"

#include "debug.h"
#include "usb_transport.h"

USBCAM_MODULE("drv/usb/hwcommand")

namespace {

constexpr ULONG kDumpColumns = 16;

void DumpBytes(const UCHAR *Bytes, ULONG Count)
{
    for (ULONG Index = 0; Index < Count; ++Index) {
        if (Index > 0 && Index % kDumpColumns == 0) {
            DbgPrint("\n");
        }
        DbgPrint("%02Xh ", Bytes[Index]);
    }
    DbgPrint("\n");
}

// Submits one half. Length is the number of bytes asked for, then the number transferred.
NTSTATUS Transfer(PDEVICE_OBJECT DeviceObject, ULONG TransferFlags, UCHAR (&Buffer)[kCommandSize], ULONG &Length)
{
    _URB_CONTROL_VENDOR_OR_CLASS_REQUEST Urb;
    RtlZeroMemory(&Urb, sizeof(Urb));
    Urb.Hdr.Length = sizeof(Urb);
    Urb.Hdr.Function = URB_FUNCTION_VENDOR_DEVICE;
    Urb.TransferFlags = TransferFlags;
    Urb.TransferBufferLength = Length;
    Urb.TransferBuffer = Buffer;
    Urb.Request = HW_COMMAND_VENDOR_REQUEST;
    const NTSTATUS Status = UsbSubmitUrbSync(DeviceObject, reinterpret_cast<PURB>(&Urb));
    Length = Urb.TransferBufferLength < kCommandSize ? Urb.TransferBufferLength : kCommandSize;
    return Status;
}

} // namespace

NTSTATUS HwCommand_SendData(PDEVICE_OBJECT DeviceObject, UCHAR Code, const UCHAR *Arguments, ULONG InputCount)
{
    UCHAR iBuffer[kCommandSize];
    if (InputCount > sizeof(iBuffer) - 1) {
        ErrorPrint("InputCount+1=%d > %d=sizeof(iBuffer) \n", InputCount + 1, static_cast<ULONG>(sizeof(iBuffer)));
        return STATUS_INVALID_PARAMETER;
    }
    iBuffer[0] = Code;
    ULONG Length = 1;
    if (Arguments != nullptr && InputCount > 0) {
        RtlCopyMemory(iBuffer + 1, Arguments, InputCount);
        Length += InputCount;
    }
    DumpBytes(iBuffer, Length);
    return Transfer(DeviceObject, USBD_TRANSFER_DIRECTION_OUT, iBuffer, Length);
}

NTSTATUS HwCommand_RecvData(PDEVICE_OBJECT DeviceObject, PUCHAR Output, ULONG Capacity, PULONG PayloadLength)
{
    UCHAR Reply[kCommandSize] = {};
    ULONG OutputCount = sizeof(Reply);
    const NTSTATUS Status =
        Transfer(DeviceObject, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, Reply, OutputCount);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    DumpBytes(Reply, OutputCount);
    if (OutputCount == 0) {
        ErrorPrint("OutputCount=%d\n", OutputCount);
        return STATUS_ADAPTER_HARDWARE_ERROR;
    }
    if (Reply[0] != HW_COMMAND_REPLY_OK) {
        ErrorPrint("OutputCount=%d ReturnCode=%02Xh\n", OutputCount, Reply[0]);
        return STATUS_ADAPTER_HARDWARE_ERROR;
    }
    const ULONG Payload = OutputCount - 1;
    if (Output != nullptr && Payload > 0) {
        RtlCopyMemory(Output, Reply + 1, Payload < Capacity ? Payload : Capacity);
    }
    if (PayloadLength != nullptr) {
        *PayloadLength = Payload;
    }
    return STATUS_SUCCESS;
}

NTSTATUS HwCommand(PDEVICE_OBJECT DeviceObject, UCHAR Code, const UCHAR *Arguments, ULONG InputCount, PUCHAR Output,
                   ULONG Capacity, PULONG PayloadLength)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);

    NTSTATUS Status = KeWaitForSingleObject(&DevExt->HwCommandSemaphore, Executive, KernelMode, FALSE, nullptr);
    if (Status != STATUS_SUCCESS) {
        ErrorPrint("KeWaitForSingleObject( (PVOID)&(DevExt->HwCommandSemaphore), Executive, KernelMode, FALSE, NULL ) "
                   "ntStatus=%08Xh \n",
                   Status);
        return Status;
    }
    Status = HwCommand_SendData(DeviceObject, Code, Arguments, InputCount);
    if (NT_SUCCESS(Status)) {
        Status = HwCommand_RecvData(DeviceObject, Output, Capacity, PayloadLength);
    }
    KeReleaseSemaphore(&DevExt->HwCommandSemaphore, 0, 1, FALSE);
    return Status;
}
