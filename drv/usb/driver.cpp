#include "driver.h"

#include "camera.h"
#include "pnp.h"
#include "request.h"

USBCAM_MODULE("drv/usb/driver")

// The build gives the driver its date, so that two builds of the same sources can be the same file.
#ifndef USBCAM_BUILD_DATE
#define USBCAM_BUILD_DATE __TIMESTAMP__
#endif

namespace {

constexpr LONGLONG kFrameLimit = -50000000; // 5 seconds from now, in units of 100 ns

NTSTATUS OnSetDefAlt(REQUEST &Request)
{
    const UCHAR Setting = Request.Buffer[0];
    if (Setting != 1 && Setting != 2) {
        RequestError("IOCTL_SetDefAlt: 1 or 2 != %d\n", Setting);
        return STATUS_INVALID_PARAMETER;
    }
    WriteOnce(Request.DevExt->DefAlt, Setting);
    return STATUS_SUCCESS;
}

NTSTATUS OnSetCameraStatus(REQUEST &Request)
{
    return VQT_SetCameraStatus(Request.DeviceObject, Request.Buffer[0]);
}

NTSTATUS OnGetCameraStatus(REQUEST &Request)
{
    Request.Buffer[0] = ReadOnce(Request.DevExt->CameraStatus);
    Request.Information = 1;
    return STATUS_SUCCESS;
}

ULONG TakeTotal(ULONG &Total)
{
    return static_cast<ULONG>(InterlockedExchange(reinterpret_cast<LONG *>(&Total), 0));
}

NTSTATUS OnGetState(REQUEST &Request)
{
    DEVICE_EXTENSION *const DevExt = Request.DevExt;
    CAMERA_STATE State = {};
    State.AltSetting = ReadOnce(DevExt->AltSetting);
    State.TotalBlocks = TakeTotal(DevExt->TotalBlocks);
    State.TotalFrames = TakeTotal(DevExt->TotalFrames);
    State.Resyncs = TakeTotal(DevExt->Resyncs);
    State.CameraStatus = ReadOnce(DevExt->CameraStatus);
    RtlCopyMemory(Request.Buffer, &State, sizeof(State));
    Request.Information = sizeof(State);
    return STATUS_SUCCESS;
}

// Aligns the record in the shared buffer; the caller does not get it back.
NTSTATUS OnSetFrameParameters(REQUEST &Request)
{
    return VQT_SetFrameParameters(Request.DeviceObject, reinterpret_cast<FRAME_PARAMETERS *>(Request.Buffer));
}

NTSTATUS OnGetFrameParameters(REQUEST &Request)
{
    const DEVICE_EXTENSION *const DevExt = Request.DevExt;
    const LONG Decimation = ReadOnce(DevExt->Decimation);
    const LONG Divisor = Decimation < 0 ? -Decimation : Decimation;
    FRAME_PARAMETERS Window = {};
    Window.StartX = ReadOnce(DevExt->StartX);
    Window.StartY = ReadOnce(DevExt->StartY);
    Window.Width = Divisor * static_cast<LONG>(ReadOnce(DevExt->Width));
    Window.Height = Divisor * static_cast<LONG>(ReadOnce(DevExt->Height));
    Window.Decimation = Decimation;
    Window.ColorBits = ReadOnce(DevExt->IsMono) ? 8 : 24;
    Window.FlipY = ReadOnce(DevExt->FlipY);
    Window.FlipX = ReadOnce(DevExt->FlipX);
    RtlCopyMemory(Request.Buffer, &Window, sizeof(Window));
    Request.Information = sizeof(Window);
    return STATUS_SUCCESS;
}

NTSTATUS OnSetBitsPerPixel(REQUEST &Request)
{
    LONG BitsPerPixel = 0;
    RtlCopyMemory(&BitsPerPixel, Request.Buffer, sizeof(BitsPerPixel));
    return VQT_SetBitsPerPixel(Request.DeviceObject, BitsPerPixel);
}

NTSTATUS OnGetBitsPerPixel(REQUEST &Request)
{
    const ULONG BitsPerPixel = ReadOnce(Request.DevExt->BitsPerPixel);
    RtlCopyMemory(Request.Buffer, &BitsPerPixel, sizeof(BitsPerPixel));
    Request.Information = sizeof(BitsPerPixel);
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------------------------------------------------ request table

enum class LENGTH_OF : UCHAR { Nothing, Input, Output };

// Which of the two lengths a request judges before its handler runs, and what it says to a wrong one. The message gets
// the length found and the least length allowed.
struct LENGTH_RULE {
    LENGTH_OF Which;
    ULONG Least;
    ULONG Most;
    NTSTATUS Refusal;
    const char *Message;
};

constexpr ULONG kNoLimit = MAXULONG;
constexpr LENGTH_RULE kAnyLength = {LENGTH_OF::Nothing, 0, kNoLimit, STATUS_SUCCESS, nullptr};

constexpr LENGTH_RULE InputOf(ULONG Length, const char *Message, NTSTATUS Refusal = STATUS_INVALID_PARAMETER)
{
    return {LENGTH_OF::Input, Length, Length, Refusal, Message};
}
constexpr LENGTH_RULE OutputOf(ULONG Length, const char *Message)
{
    return {LENGTH_OF::Output, Length, Length, STATUS_INVALID_PARAMETER, Message};
}

struct REQUEST_ROW {
    ULONG Code;
    const char *Name;
    LENGTH_RULE Rule;
    REQUEST_HANDLER *Handler;
};

constexpr REQUEST_ROW kRequests[] = {
    // Camera state, geometry and depth.
    {IOCTL_SetCameraStatus, "IOCTL_SetCameraStatus", InputOf(1, "IOCTL_SetCameraStatus: InputBufferLength=%d != %d\n"),
     OnSetCameraStatus},
    {IOCTL_GetCameraStatus, "IOCTL_GetCameraStatus",
     OutputOf(1, "IOCTL_GetCameraStatus: OutputBufferLength=%d != %d\n"), OnGetCameraStatus},
    {IOCTL_GetState, "IOCTL_GetState", OutputOf(sizeof(CAMERA_STATE), "IOCTL_GetState: OutputBufferLength=%d != %d\n"),
     OnGetState},
    {IOCTL_GetFrameParameters, "IOCTL_GetFrameParameters",
     OutputOf(sizeof(FRAME_PARAMETERS), "IOCTL_GetFrameParameters: OutputBufferLength=%d != %d\n"),
     OnGetFrameParameters},
    {IOCTL_SetFrameParameters, "IOCTL_SetFrameParameters",
     InputOf(sizeof(FRAME_PARAMETERS), "IOCTL_SetFrameParameters: InputBufferLength=%d != %d\n"), OnSetFrameParameters},
    {IOCTL_SetDefAlt, "IOCTL_SetDefAlt", InputOf(1, "IOCTL_SetDefAlt: InputBufferLength=%d != %d \n"), OnSetDefAlt},
    {IOCTL_SetBitsPerPixel, "IOCTL_SetBitsPerPixel",
     InputOf(sizeof(ULONG), "IOCTL_SetBitsPerPixel: InputBufferLength=%d != %d\n"), OnSetBitsPerPixel},
    {IOCTL_GetBitsPerPixel, "IOCTL_GetBitsPerPixel",
     OutputOf(sizeof(ULONG), "IOCTL_GetBitsPerPixel: OutputBufferLength=%d != %d\n"), OnGetBitsPerPixel},

    // Images.
    {IOCTL_GetFrame, "IOCTL_GetFrame", kAnyLength, OnGetFrame},
    {IOCTL_GetFrameEx, "IOCTL_GetFrameEx", kAnyLength, OnGetFrameEx},
    {IOCTL_GetFramePtr, "IOCTL_GetFramePtr",
     OutputOf(sizeof(ULONGLONG), "IOCTL_GetFramePtr: OutputBufferLength=%d != %d \n"), OnGetFramePtr},
    {IOCTL_GetSnapshot, "IOCTL_GetSnapshot", kAnyLength, OnGetSnapshot},
    {IOCTL_CancelSnapshot, "IOCTL_CancelSnapshot", kAnyLength, OnCancelSnapshot},
    {IOCTL_SetSnapshotParams, "IOCTL_SetSnapshotParams",
     InputOf(sizeof(SNAPSHOT_PARAMETERS), "IOCTL_SetSnapshotParams: InputBufferLength=%d != %d\n"),
     OnSetSnapshotParams},

    // Commands and the USB interface underneath.
    {IOCTL_HwCommand,
     "IOCTL_HwCommand",
     {LENGTH_OF::Input, 1, kNoLimit, STATUS_INVALID_PARAMETER, "IOCTL_HwCommand: InputBufferLength=%d == 0 \n"},
     OnHwCommand},
    {IOCTL_USBWrite,
     "IOCTL_USBWrite",
     {LENGTH_OF::Input, 1, kNoLimit, STATUS_INVALID_PARAMETER, "call IOCTL_USBWrite with zero buffer \n"},
     OnUSBWrite},
    {IOCTL_USBRead,
     "IOCTL_USBRead",
     {LENGTH_OF::Output, 1, kNoLimit, STATUS_INVALID_PARAMETER, "call IOCTL_USBRead with zero buffer \n"},
     OnUSBRead},
    {IOCTL_SlaveWrite,
     "IOCTL_SlaveWrite",
     {LENGTH_OF::Input, 1, kCommandSize - 1, STATUS_INVALID_DEVICE_REQUEST, "InputBufferLength=%d == 0 or >=64 \n"},
     OnSlaveWrite},
    {IOCTL_SlaveRead, "IOCTL_SlaveRead", kAnyLength, OnSlaveRead},
    {IOCTL_MainRead, "IOCTL_MainRead", kAnyLength, OnMainRead},
    {IOCTL_ResetPipe, "IOCTL_ResetPipe",
     InputOf(1, "IOCTL_ResetPipe: InputBufferLength=%d != %d \n", STATUS_INVALID_DEVICE_REQUEST), OnResetPipe},
    {IOCTL_SetInterfaceType, "IOCTL_SetInterfaceType",
     InputOf(2, "IOCTL_SetInterfaceType: InputBufferLength=%d != %d \n"), OnSetInterfaceType},
};

constexpr const REQUEST_ROW *FindRequest(ULONG Code)
{
    for (const REQUEST_ROW &Row : kRequests) {
        if (Row.Code == Code) {
            return &Row;
        }
    }
    return nullptr;
}

constexpr bool EachCodeOnce()
{
    for (const REQUEST_ROW &Row : kRequests) {
        if (FindRequest(Row.Code) != &Row) {
            return false;
        }
    }
    return true;
}
static_assert(sizeof(kRequests) / sizeof(kRequests[0]) == 22 && EachCodeOnce());
// Slave and raw requests differ in the access bits alone.
static_assert(FindRequest(0x222004)->Handler == OnUSBWrite && FindRequest(0x22A004)->Handler == OnSlaveWrite);
static_assert(FindRequest(0x222008)->Handler == OnUSBRead && FindRequest(0x226008)->Handler == OnSlaveRead);
static_assert(FindRequest(0x222000) == nullptr && FindRequest(0x22E004) == nullptr);

constexpr bool LengthAllowed(const LENGTH_RULE &Rule, ULONG InputLength, ULONG OutputLength)
{
    const ULONG Length = Rule.Which == LENGTH_OF::Input ? InputLength : OutputLength;
    return Rule.Which == LENGTH_OF::Nothing || (Length >= Rule.Least && Length <= Rule.Most);
}
static_assert(LengthAllowed(FindRequest(IOCTL_GetState)->Rule, 99, 17));
static_assert(!LengthAllowed(FindRequest(IOCTL_GetState)->Rule, 17, 16));
static_assert(!LengthAllowed(FindRequest(IOCTL_GetState)->Rule, 17, 18));
static_assert(LengthAllowed(FindRequest(IOCTL_SlaveWrite)->Rule, 63, 0));
static_assert(!LengthAllowed(FindRequest(IOCTL_SlaveWrite)->Rule, 64, 0));
static_assert(LengthAllowed(FindRequest(IOCTL_HwCommand)->Rule, 65, 0), "the command protocol judges it");

NTSTATUS RunRequest(const REQUEST_ROW &Row, REQUEST &Request)
{
    RequestPrint("=>%s \n", Row.Name);
    if (!LengthAllowed(Row.Rule, Request.InputLength, Request.OutputLength)) {
        const ULONG Length = Row.Rule.Which == LENGTH_OF::Input ? Request.InputLength : Request.OutputLength;
        RequestError(Row.Rule.Message, Length, Row.Rule.Least);
        return Row.Rule.Refusal;
    }
    const NTSTATUS Status = Row.Handler(Request);
    if (!Request.EndsSilently) {
        RequestPrint("<=%s \n", Row.Name);
    }
    return Status;
}

NTSTATUS Complete(PIRP Irp, NTSTATUS Status, ULONG Information)
{
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = Information;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

} // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING)
{
    DriverObject->DriverUnload = USBCAM_Unload;
    DriverObject->MajorFunction[IRP_MJ_CREATE] = USBCAM_DispatchCreate;
    DriverObject->MajorFunction[IRP_MJ_CLOSE] = USBCAM_DispatchClose;
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = USBCAM_DispatchDeviceControl;
    DriverObject->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = USBCAM_DispatchSystemControl;
    DriverObject->MajorFunction[IRP_MJ_PNP] = USBCAM_DispatchPnp;
    DriverObject->MajorFunction[IRP_MJ_POWER] = USBCAM_DispatchPower;
    DriverObject->DriverExtension->AddDevice = USBCAM_AddDevice;
    DebugPrint("written %s ==========================\n", USBCAM_BUILD_DATE);
    return STATUS_SUCCESS;
}

VOID NTAPI USBCAM_Unload(PDRIVER_OBJECT)
{
    DebugPrint("\n");
}

NTSTATUS NTAPI USBCAM_DispatchCreate(PDEVICE_OBJECT, PIRP Irp)
{
    const NTSTATUS Status = Complete(Irp, STATUS_SUCCESS, 0);
    DebugPrint("\n");
    return Status;
}

NTSTATUS NTAPI USBCAM_DispatchClose(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    // A process that ends closes its handles while its address space still stands.
    DropUserMappingOf(GetDevExt(DeviceObject), IoGetCurrentIrpStackLocation(Irp)->FileObject);
    const NTSTATUS Status = Complete(Irp, STATUS_SUCCESS, 0);
    DebugPrint("\n");
    return Status;
}

NTSTATUS NTAPI USBCAM_DispatchSystemControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    Irp->IoStatus.Status = STATUS_SUCCESS;
    Irp->IoStatus.Information = 0;
    IoCopyCurrentIrpStackLocationToNext(Irp);
    DebugPrint("IoCallDriver() \n");
    const NTSTATUS Status = IoCallDriver(GetDevExt(DeviceObject)->LowerDeviceObject, Irp);
    DebugPrint("\n");
    return Status;
}

NTSTATUS NTAPI USBCAM_DispatchDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    const PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
    const ULONG Code = Stack->Parameters.DeviceIoControl.IoControlCode;

    REQUEST Request = {};
    Request.DeviceObject = DeviceObject;
    Request.DevExt = GetDevExt(DeviceObject);
    Request.Irp = Irp;
    Request.Buffer = static_cast<PUCHAR>(Irp->AssociatedIrp.SystemBuffer);
    Request.InputLength = Stack->Parameters.DeviceIoControl.InputBufferLength;
    Request.OutputLength = Stack->Parameters.DeviceIoControl.OutputBufferLength;

    if (ReadOnce(Request.DevExt->RemoveRequested)) {
        Complete(Irp, STATUS_DEVICE_REMOVED, 0);
        DebugPrint("Remove request - exist ... return %Xh \n", STATUS_DEVICE_REMOVED);
        return STATUS_DEVICE_REMOVED;
    }
    Request.FrameLimit.QuadPart = kFrameLimit;
    DebugPrint("IoControlCode=%Xh(%d) \n", Code, Code);

    NTSTATUS Status = STATUS_NOT_IMPLEMENTED;
    if (const REQUEST_ROW *Row = FindRequest(Code)) {
        Status = RunRequest(*Row, Request);
    } else {
        ErrorPrint("Unknown IoControlCode=%X \n", Code);
    }
    DebugPrint("ntStatus=%Xh \n", Status);
    return Complete(Irp, Status, Request.Information);
}
