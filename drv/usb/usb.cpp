#include "usb_transport.h"

#include "debug.h"
#include "descriptor.h"
#include "owners.h"

USBCAM_MODULE("drv/usb/usb")

namespace {

constexpr UCHAR kConfigurationIndex = 1;
constexpr ULONG kPipeTransferSize = 4096;
constexpr ULONG kLastPipeTransferSize = 50176; // the streaming pipe is the last one of its interface

// A select-configuration request: allocated by the USB library, freed with the plain pool routine.
class SelectionUrb {
public:
    explicit SelectionUrb(PURB Urb) : Urb_(Urb) {}
    SelectionUrb(const SelectionUrb &) = delete;
    SelectionUrb &operator=(const SelectionUrb &) = delete;
    ~SelectionUrb()
    {
        if (Urb_ != nullptr) {
            ExFreePool(Urb_);
        }
    }
    PURB Get() const
    {
        return Urb_;
    }

private:
    PURB Urb_;
};

NTSTATUS SubmitPipeRequest(PDEVICE_OBJECT DeviceObject, USHORT Function, USBD_PIPE_HANDLE PipeHandle)
{
    if (PipeHandle == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    _URB_PIPE_REQUEST Urb;
    RtlZeroMemory(&Urb, sizeof(Urb));
    Urb.Hdr.Length = sizeof(Urb);
    Urb.Hdr.Function = Function;
    Urb.PipeHandle = PipeHandle;
    return UsbSubmitUrbSync(DeviceObject, reinterpret_cast<PURB>(&Urb));
}

// Reads the first Length bytes of the configuration descriptor. Delivering fewer is a failure.
NTSTATUS ReadConfigurationDescriptor(PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Length)
{
    DebugPrintAs("UsbSetInterface", "UsbBuildGetDescriptorRequest( USB_CONFIGURATION_DESCRIPTOR_TYPE )\n");

    _URB_CONTROL_DESCRIPTOR_REQUEST Urb;
    RtlZeroMemory(&Urb, sizeof(Urb));
    Urb.Hdr.Length = sizeof(Urb);
    Urb.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    Urb.TransferBufferLength = Length;
    Urb.TransferBuffer = Buffer;
    Urb.DescriptorType = USB_CONFIGURATION_DESCRIPTOR_TYPE;
    Urb.Index = kConfigurationIndex;
    const NTSTATUS Status = UsbSubmitUrbSync(DeviceObject, reinterpret_cast<PURB>(&Urb));
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    return Urb.TransferBufferLength == Length ? STATUS_SUCCESS : STATUS_ADAPTER_HARDWARE_ERROR;
}

// The whole configuration descriptor, checked: no length in it reaches out of the block.
NTSTATUS LoadConfiguration(PDEVICE_OBJECT DeviceObject, PoolBlock<UCHAR> &Configuration)
{
    UCHAR Header[kConfigurationHeader] = {};
    NTSTATUS Status = ReadConfigurationDescriptor(DeviceObject, Header, sizeof(Header));
    if (NT_SUCCESS(Status)) {
        const ULONG Total = Header[2] | (static_cast<ULONG>(Header[3]) << 8);
        if (Total < kConfigurationHeader) {
            Status = STATUS_ADAPTER_HARDWARE_ERROR;
        } else {
            Configuration = PoolBlock<UCHAR>::AllocateZeroed(Total);
            if (!Configuration) {
                return STATUS_INSUFFICIENT_RESOURCES;
            }
            Status = ReadConfigurationDescriptor(DeviceObject, Configuration.Get(), Total);
            // The camera may have named another length the second time.
            if (NT_SUCCESS(Status) && !IsSoundConfiguration(Configuration.Get(), Total)) {
                Status = STATUS_ADAPTER_HARDWARE_ERROR;
            }
        }
    }
    if (!NT_SUCCESS(Status)) {
        DebugPrintAs("UsbSetInterface", "return %Xh\n", Status);
    }
    return Status;
}

void ReportLastPipe(const USBD_INTERFACE_INFORMATION &Interface)
{
    if (Interface.NumberOfPipes == 0) {
        return;
    }
    switch (Interface.Pipes[Interface.NumberOfPipes - 1].PipeType) {
    case UsbdPipeTypeInterrupt:
        DebugPrintAs("UsbSetInterface", "!!! Mode:UsbdPipeTypeInterrupt !!!\n");
        break;
    case UsbdPipeTypeBulk:
        DebugPrintAs("UsbSetInterface", "!!! Mode:UsbdPipeTypeBulk !!!\n");
        break;
    case UsbdPipeTypeIsochronous:
        ErrorPrintAs("UsbSetInterface", "!!! Mode:UsbdPipeTypeIsochronous !!!\n");
        DebugPrintAs("UsbSetInterface", "Hmm, ISO mode ???\n");
        break;
    default:
        break;
    }
}

USBD_PIPE_HANDLE FindStreamingPipe(const USBD_INTERFACE_INFORMATION &Interface)
{
    DebugPrintAs("UsbSetInterface", "*** Number of pipes = %d\n", Interface.NumberOfPipes);
    DebugPrintAs("UsbSetInterface", "*** Use control pipe Always!!!\n");
    USBD_PIPE_HANDLE MainIn = nullptr;
    for (ULONG Index = 0; Index < Interface.NumberOfPipes; ++Index) {
        const USBD_PIPE_INFORMATION &Pipe = Interface.Pipes[Index];
        DebugPrintAs("UsbSetInterface", "Pipe #%d : MaximumPacketSize=%d MaximumTransferSize=%d\n", Index,
                     Pipe.MaximumPacketSize, Pipe.MaximumTransferSize);
        if (Pipe.EndpointAddress == kStreamEndpoint) {
            DebugPrintAs("UsbSetInterface", "PipeMainAddr\n");
            MainIn = Pipe.PipeHandle;
        }
    }
    return MainIn;
}

// Reads the descriptors and selects. The right to do so has been established.
NTSTATUS SelectInterface(PDEVICE_OBJECT DeviceObject, ULONG InterfaceNumber, LONG AlternateSetting)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);

    PoolBlock<UCHAR> Configuration;
    NTSTATUS Status = LoadConfiguration(DeviceObject, Configuration);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    const auto Descriptor = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(Configuration.Get());

    DebugPrintAs("UsbSetInterface", "USBD_ParseConfigurationDescriptorEx()\n");
    USBD_INTERFACE_LIST_ENTRY List[2] = {};
    List[0].InterfaceDescriptor = USBD_ParseConfigurationDescriptorEx(
        Descriptor, Descriptor, static_cast<LONG>(InterfaceNumber), AlternateSetting, -1, -1, -1);
    if (List[0].InterfaceDescriptor == nullptr) {
        DebugPrintAs("UsbSetInterface", "Pid==NULL\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    DebugPrintAs("UsbSetInterface", "USBD_CreateConfigurationRequestEx()\n");
    const SelectionUrb Selection(USBD_CreateConfigurationRequestEx(Descriptor, List));
    DebugPrintAs("UsbSetInterface", "ConfigurationUrb=%p\n", Selection.Get());
    if (Selection.Get() == nullptr) {
        DebugPrintAs("UsbSetInterface", "Fi :(\n");
        Status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        USBD_INTERFACE_INFORMATION &Interface = *List[0].Interface;
        DebugPrintAs("UsbSetInterface", "Number of pipes = %d\n", Interface.NumberOfPipes);
        for (ULONG Index = 0; Index < Interface.NumberOfPipes; ++Index) {
            const bool Last = Index + 1 == Interface.NumberOfPipes;
            Interface.Pipes[Index].MaximumTransferSize = Last ? kLastPipeTransferSize : kPipeTransferSize;
            Interface.Pipes[Index].PipeFlags = 0;
        }
        Status = UsbSubmitUrbSync(DeviceObject, Selection.Get());
        if (NT_SUCCESS(Status)) {
            WriteOnce(DevExt->MainIn, nullptr);
            WriteOnce(DevExt->MainIn, FindStreamingPipe(Interface));
            ReportLastPipe(Interface);
            WriteOnce(DevExt->AltSetting, AlternateSetting);
        }
    }
    DebugPrintAs("UsbSetInterface", "UsbSetInterface() return %Xh\n", Status);
    return Status;
}

NTSTATUS SetInterface(PDEVICE_OBJECT DeviceObject, ULONG InterfaceNumber, LONG AlternateSetting, bool HoldsClaim)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);

    DebugPrintAs("UsbSetInterface", "set InterfaceNumber=%d AlternateSetting=%d \n", InterfaceNumber, AlternateSetting);
    if (AlternateSetting >= 1 && AlternateSetting == ReadOnce(DevExt->AltSetting)) {
        DebugPrintAs("UsbSetInterface", "return %Xh\n", STATUS_SUCCESS);
        return STATUS_SUCCESS;
    }
    // Selecting closes every pipe of the camera, so nobody may be about to use one: the status says who does, the claim
    // who is about to.
    const bool Claimed = !HoldsClaim && ClaimCamera(DevExt);
    NTSTATUS Status = STATUS_DEVICE_BUSY;
    if ((HoldsClaim || Claimed) && ReadOnce(DevExt->CameraStatus) == CameraStopped) {
        Status = SelectInterface(DeviceObject, InterfaceNumber, AlternateSetting);
    } else {
        DebugPrintAs("UsbSetInterface", "return %Xh\n", Status);
    }
    if (Claimed) {
        ReleaseCamera(DevExt);
    }
    return Status;
}

} // namespace

NTSTATUS NTAPI UsbSyncCompletion(PDEVICE_OBJECT, PIRP, PVOID Context)
{
    KeSetEvent(static_cast<PKEVENT>(Context), 1, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS UsbForwardIrpSync(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    KEVENT Done;
    KeInitializeEvent(&Done, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, UsbSyncCompletion, &Done, TRUE, TRUE, TRUE);
    IoCallDriver(GetDevExt(DeviceObject)->LowerDeviceObject, Irp);
    // The completion routine always runs, so the event is waited for whatever the call returned.
    KeWaitForSingleObject(&Done, Executive, KernelMode, FALSE, nullptr);
    return Irp->IoStatus.Status;
}

NTSTATUS UsbSubmitUrbSync(PDEVICE_OBJECT DeviceObject, PURB Urb)
{
    const PDEVICE_OBJECT Lower = GetDevExt(DeviceObject)->LowerDeviceObject;
    KEVENT Done;
    IO_STATUS_BLOCK IoStatus = {};
    KeInitializeEvent(&Done, NotificationEvent, FALSE);
    // The I/O manager frees this request when it completes.
    const PIRP Irp = IoBuildDeviceIoControlRequest(IOCTL_INTERNAL_USB_SUBMIT_URB, Lower, nullptr, 0, nullptr, 0, TRUE,
                                                   &Done, &IoStatus);
    if (Irp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    IoGetNextIrpStackLocation(Irp)->Parameters.Others.Argument1 = Urb;
    NTSTATUS Status = IoCallDriver(Lower, Irp);
    if (Status == STATUS_PENDING) {
        KeWaitForSingleObject(&Done, Executive, KernelMode, FALSE, nullptr);
        Status = IoStatus.Status;
    }
    return Status;
}

NTSTATUS UsbSetInterface(PDEVICE_OBJECT DeviceObject, ULONG InterfaceNumber, LONG AlternateSetting)
{
    return SetInterface(DeviceObject, InterfaceNumber, AlternateSetting, true);
}

NTSTATUS UsbSetInterfaceUnclaimed(PDEVICE_OBJECT DeviceObject, ULONG InterfaceNumber, LONG AlternateSetting)
{
    return SetInterface(DeviceObject, InterfaceNumber, AlternateSetting, false);
}

NTSTATUS UsbResetPipe(PDEVICE_OBJECT DeviceObject, USBD_PIPE_HANDLE PipeHandle)
{
    const NTSTATUS Status = SubmitPipeRequest(DeviceObject, URB_FUNCTION_RESET_PIPE, PipeHandle);
    DebugPrint("called, return %Xh\n", Status);
    return Status;
}

NTSTATUS UsbAbortPipe(PDEVICE_OBJECT DeviceObject, USBD_PIPE_HANDLE PipeHandle)
{
    return SubmitPipeRequest(DeviceObject, URB_FUNCTION_ABORT_PIPE, PipeHandle);
}
