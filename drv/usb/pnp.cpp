#include "pnp.h"

#include "badpix.h"
#include "camera.h"
#include "debug.h"
#include "names.h"
#include "owners.h"
#include "stream.h"
#include "usb_transport.h"

USBCAM_MODULE("drv/usb/pnp")

namespace {

constexpr LONG kSemaphoreLimit = 0x7FFFFFFF;
constexpr ULONG kPropertySize = 1024;

template <SIZE_T Size> UNICODE_STRING CountedString(const CAMERA_NAME<Size> &Name)
{
    UNICODE_STRING String = {};
    RtlInitUnicodeString(&String, Name.Text);
    return String;
}

// Creating the link tests and claims an ID in one step, so two cameras never get the same one. The link exists before
// the device of that name does.
NTSTATUS ClaimDeviceId(WCHAR &DeviceID)
{
    NTSTATUS Status = STATUS_UNSUCCESSFUL;
    for (const WCHAR *Candidate = kDeviceIds; *Candidate != 0; ++Candidate) {
        const auto KernelName = NameOf(kKernelName, *Candidate);
        const auto DosName = NameOf(kDosName, *Candidate);
        UNICODE_STRING Kernel = CountedString(KernelName);
        UNICODE_STRING Dos = CountedString(DosName);
        Status = IoCreateSymbolicLink(&Dos, &Kernel);
        if (NT_SUCCESS(Status)) {
            DeviceID = *Candidate;
            return Status;
        }
    }
    return Status;
}

template <SIZE_T Size> NTSTATUS DeleteLink(const WCHAR (&Template)[Size], WCHAR DeviceID)
{
    const auto Name = NameOf(Template, DeviceID);
    UNICODE_STRING Link = CountedString(Name);
    return IoDeleteSymbolicLink(&Link);
}

// A zeroed record with its kernel objects ready, before a request can reach the device.
NTSTATUS InitDeviceExtension(PDEVICE_OBJECT DeviceObject, PDEVICE_OBJECT PhysicalDeviceObject)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    RtlZeroMemory(static_cast<PVOID>(DevExt), sizeof(*DevExt));
    DevExt->PhysicalDeviceObject = PhysicalDeviceObject;
    KeInitializeEvent(&DevExt->FrameReadyEv, NotificationEvent, FALSE);
    KeInitializeSemaphore(&DevExt->HwCommandSemaphore, 1, kSemaphoreLimit);
    ExInitializeFastMutex(&DevExt->MappingLock);
    KeInitializeSpinLock(&DevExt->SlaveLock);
    KeInitializeSpinLock(&DevExt->PowerLock);
    KeInitializeEvent(&DevExt->NoPowerEv, NotificationEvent, FALSE);
    InitStreamControl(DevExt);
    DevExt->RestoreItem = IoAllocateWorkItem(DeviceObject);
    if (DevExt->RestoreItem == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const NTSTATUS Status = ExInitializeResourceLite(&DevExt->BufferLock);
    if (!NT_SUCCESS(Status)) {
        IoFreeWorkItem(DevExt->RestoreItem);
        DevExt->RestoreItem = nullptr;
    }
    return Status;
}

void ReleaseDeviceExtension(DEVICE_EXTENSION *DevExt)
{
    ExDeleteResourceLite(&DevExt->BufferLock);
    IoFreeWorkItem(DevExt->RestoreItem);
}

// The value of a property as a terminated string, empty when it cannot be had.
const WCHAR *QueryText(PDEVICE_OBJECT PhysicalDeviceObject, DEVICE_REGISTRY_PROPERTY Property,
                       WCHAR (&Text)[kPropertySize / sizeof(WCHAR)], ULONG &Length)
{
    RtlZeroMemory(Text, sizeof(Text));
    Length = 0;
    // A status that merely is no failure does not say that the buffer holds the value.
    if (IoGetDeviceProperty(PhysicalDeviceObject, Property, sizeof(Text), Text, &Length) != STATUS_SUCCESS) {
        Text[0] = 0;
    }
    Text[sizeof(Text) / sizeof(Text[0]) - 1] = 0;
    return Text;
}

// For the trace only: a property that cannot be read is no reason to refuse the camera.
void ReportProperties(PDEVICE_OBJECT PhysicalDeviceObject)
{
    WCHAR Text[kPropertySize / sizeof(WCHAR)];
    ULONG Length = 0;
    QueryText(PhysicalDeviceObject, DevicePropertyHardwareID, Text, Length);
    DebugPrintAs("USBCAM_AddDevice", "DevicePropertyHardwareID = %ws reslen %d \n", Text, Length);
    QueryText(PhysicalDeviceObject, DevicePropertyManufacturer, Text, Length);
    DebugPrintAs("USBCAM_AddDevice", "DeviePropertyManufacturer = %ws reslen %d \n", Text, Length);
    ULONG Number = 0;
    Length = 0;
    if (IoGetDeviceProperty(PhysicalDeviceObject, DevicePropertyUINumber, sizeof(Number), &Number, &Length) !=
        STATUS_SUCCESS) {
        Number = 0;
    }
    DebugPrintAs("USBCAM_AddDevice", "DevicePropertyUINumber = %d reslen %d \n", Number, Length);
    QueryText(PhysicalDeviceObject, DevicePropertyPhysicalDeviceObjectName, Text, Length);
    DebugPrintAs("USBCAM_AddDevice", "DevicePropertyPhysicalDeviceObjectName = %ws reslen %d \n", Text, Length);
}

// Creates the device of a claimed ID and attaches it. Leaves nothing behind when it fails.
NTSTATUS CreateDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject, WCHAR DeviceID,
                      PDEVICE_OBJECT &Created)
{
    DebugPrintAs("USBCAM_AddDevice", "Create device object \n");
    const auto KernelName = NameOf(kKernelName, DeviceID);
    UNICODE_STRING Kernel = CountedString(KernelName);
    PDEVICE_OBJECT DeviceObject = nullptr;
    NTSTATUS Status =
        IoCreateDevice(DriverObject, sizeof(DEVICE_EXTENSION), &Kernel, FILE_DEVICE_UNKNOWN, 0, FALSE, &DeviceObject);
    if (!NT_SUCCESS(Status)) {
        ErrorPrintAs("USBCAM_AddDevice", "Can not create device object, return %Xh \n", Status);
        return Status;
    }
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    DebugPrintAs("USBCAM_AddDevice", "Init device extension DevExt=%p \n", DevExt);
    Status = InitDeviceExtension(DeviceObject, PhysicalDeviceObject);
    if (!NT_SUCCESS(Status)) {
        IoDeleteDevice(DeviceObject);
        return Status;
    }
    DevExt->DeviceID = DeviceID;
    DevExt->LowerDeviceObject = IoAttachDeviceToDeviceStack(DeviceObject, PhysicalDeviceObject);
    if (DevExt->LowerDeviceObject == nullptr) {
        ErrorPrintAs("USBCAM_AddDevice", "Can not attach device! \n");
        ReleaseDeviceExtension(DevExt);
        IoDeleteDevice(DeviceObject);
        return STATUS_NO_SUCH_DEVICE;
    }
    DeviceObject->Flags |= DevExt->LowerDeviceObject->Flags & DO_POWER_PAGABLE;
    Created = DeviceObject;
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------------------------------------------------ start, removal

GUID InterfaceClassOf(WCHAR DeviceID)
{
    GUID Class = {};
    static_assert(sizeof(Class) == sizeof(kUsbcamInterfaceClass));
    RtlCopyMemory(&Class, &kUsbcamInterfaceClass, sizeof(Class));
    Class.Data4[7] = static_cast<UCHAR>(DeviceIdNumber(DeviceID));
    return Class;
}

// Registers and enables the device interface, as far as an earlier start has not.
NTSTATUS PublishInterface(DEVICE_EXTENSION *DevExt, const GUID &Class)
{
    if (DevExt->InterfaceName.Buffer == nullptr) {
        DevExt->InterfaceName = {};
        const NTSTATUS Status =
            IoRegisterDeviceInterface(DevExt->PhysicalDeviceObject, &Class, nullptr, &DevExt->InterfaceName);
        if (!NT_SUCCESS(Status)) {
            DevExt->InterfaceName = {};
            ErrorPrintAs("PnpStartDevice", "Unable to register or set GUID interface : PDO=%p, Status=[%X] \n",
                         DevExt->PhysicalDeviceObject, Status);
            return Status;
        }
    } else if (DevExt->InterfaceEnabled) {
        return STATUS_SUCCESS;
    }
    DebugPrintAs("PnpStartDevice", "Register or set GUID interface \n");
    const NTSTATUS Status = IoSetDeviceInterfaceState(&DevExt->InterfaceName, TRUE);
    DevExt->InterfaceEnabled = NT_SUCCESS(Status);
    DebugPrintAs("PnpStartDevice", "IoSetDeviceInterfaceState(&(DevExt->InterfaceName), TRUE), Status=[%X] \n", Status);
    return Status;
}

void WithdrawInterface(DEVICE_EXTENSION *DevExt)
{
    // A start that failed early has registered none.
    const NTSTATUS Status = DevExt->InterfaceName.Buffer != nullptr
                                ? IoSetDeviceInterfaceState(&DevExt->InterfaceName, FALSE)
                                : STATUS_OBJECT_NAME_NOT_FOUND;
    DebugPrintAs("PnpRemoveDevice", "IoSetDeviceInterfaceState(&(DevExt->InterfaceName), FALSE), Status=[%X]\n",
                 Status);
    RtlFreeUnicodeString(&DevExt->InterfaceName);
    DevExt->InterfaceName = {};
    DevExt->InterfaceEnabled = 0;
}

NTSTATUS PassDown(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    IoCopyCurrentIrpStackLocationToNext(Irp);
    const NTSTATUS Status = IoCallDriver(GetDevExt(DeviceObject)->LowerDeviceObject, Irp);
    DebugPrintAs("USBCAM_DispatchPnp", "return %Xh\n", Status);
    return Status;
}

// True for the first caller: the shutdown runs once in the life of a device. The full barrier stands between the flag
// and the look at CameraStatus: a stream start that the look misses finds the flag.
bool TakeShutdown(DEVICE_EXTENSION *DevExt)
{
    return std::atomic_ref<UCHAR>(DevExt->ShutdownDone).exchange(1) == 0;
}

NTSTATUS StartDevice(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    // The camera's own start-up decides, not the status from below.
    UsbForwardIrpSync(DeviceObject, Irp);
    const NTSTATUS Status = PnpStartDevice(DeviceObject);
    DebugPrintAs("USBCAM_DispatchPnp", "return %Xh\n", Status);
    Irp->IoStatus.Status = Status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

NTSTATUS QueryRemove(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    if (DevExt->DeviceStarted) {
        WriteOnce(DevExt->RemoveRequested, 1);
    }
    return PassDown(DeviceObject, Irp);
}

NTSTATUS CancelRemove(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    if (DevExt->DeviceStarted && ReadOnce(DevExt->RemoveRequested)) {
        WriteOnce(DevExt->RemoveRequested, 0);
    }
    return PassDown(DeviceObject, Irp);
}

NTSTATUS SurpriseRemoval(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    WriteOnce(DevExt->RemoveRequested, 1);
    TakeShutdown(DevExt);
    PnpShutdownDevice(DeviceObject);
    return PassDown(DeviceObject, Irp);
}

// In this order: no new request, nothing on the pipe, no power request that would still use the camera, the stack below
// done with it, everything given back, the device gone.
NTSTATUS RemoveDevice(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    WriteOnce(DevExt->RemoveRequested, 1);
    if (TakeShutdown(DevExt)) {
        PnpShutdownDevice(DeviceObject);
    }
    WaitForPowerRequests(DevExt);
    UsbForwardIrpSync(DeviceObject, Irp);
    PnpRemoveDevice(DeviceObject);
    IoDetachDevice(DevExt->LowerDeviceObject);
    ReleaseDeviceExtension(DevExt);
    IoDeleteDevice(DeviceObject);
    DebugPrintAs("USBCAM_DispatchPnp", "return %Xh\n", STATUS_SUCCESS);
    Irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

struct PNP_ROW {
    UCHAR Minor;
    const char *Message;
    NTSTATUS (*Handler)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
};

// Everything else goes down untouched.
constexpr PNP_ROW kPnpRequests[] = {
    {IRP_MN_START_DEVICE, "IRP_MN_START_DEVICE \n", StartDevice},
    {IRP_MN_QUERY_REMOVE_DEVICE, "IRP_MN_QUERY_REMOVE_DEVICE \n", QueryRemove},
    {IRP_MN_REMOVE_DEVICE, "IRP_MN_REMOVE_DEVICE \n", RemoveDevice},
    {IRP_MN_CANCEL_REMOVE_DEVICE, "IRP_MN_CANCEL_REMOVE_DEVICE \n", CancelRemove},
    {IRP_MN_STOP_DEVICE, "IRP_MN_STOP_DEVICE", PassDown},
    {IRP_MN_QUERY_STOP_DEVICE, "IRP_MN_QUERY_STOP_DEVICE \n", PassDown},
    {IRP_MN_CANCEL_STOP_DEVICE, "IRP_MN_CANCEL_STOP_DEVICE \n", PassDown},
    {IRP_MN_SURPRISE_REMOVAL, "IRP_MN_SURPRISE_REMOVAL \n", SurpriseRemoval},
};

} // namespace

NTSTATUS NTAPI USBCAM_AddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject)
{
    DebugPrint("Find free DeviceID number\n");
    PDEVICE_OBJECT DeviceObject = nullptr;
    WCHAR DeviceID = 0;
    NTSTATUS Status = ClaimDeviceId(DeviceID);
    if (NT_SUCCESS(Status)) {
        DebugPrint("Found DeviceID=%d \n", DeviceIdNumber(DeviceID));
        Status = CreateDevice(DriverObject, PhysicalDeviceObject, DeviceID, DeviceObject);
    } else {
        ErrorPrint("Can not found DeviceID, return %Xh \n", Status);
    }
    if (NT_SUCCESS(Status)) {
        ReportProperties(PhysicalDeviceObject);
        DeviceObject->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    } else {
        ErrorPrint("Status bad, cleanup ( status= %Xh ) \n", Status);
        if (DeviceID != 0) {
            DeleteLink(kDosName, DeviceID);
        }
    }
    DebugPrint("CHECK: DriverObject=%p DeviceObject=%p, ntSattus=%Xh \n", DriverObject, DeviceObject, Status);
    return Status;
}

NTSTATUS NTAPI USBCAM_DispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    const UCHAR Minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
    DebugPrint("irpStack->MinorFunction=%d \n", Minor);
    for (const PNP_ROW &Row : kPnpRequests) {
        if (Row.Minor == Minor) {
            DebugPrint(Row.Message);
            return Row.Handler(DeviceObject, Irp);
        }
    }
    return PassDown(DeviceObject, Irp);
}

NTSTATUS PnpStartDevice(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);

    DebugPrint("Set default interface and free USB bandwidth \n");
    NTSTATUS Status = UsbSetInterfaceUnclaimed(DeviceObject, 0, 0);
    if (!NT_SUCCESS(Status)) {
        ErrorPrint("return %Xh\n", Status);
        return Status;
    }
    DebugPrint("Init camera device \n");
    Status = VQT_StartDevice(DeviceObject);
    if (!NT_SUCCESS(Status)) {
        ErrorPrint("return %Xh\n", Status);
        return Status;
    }
    DebugPrint("Add slave device \n");
    AddSlaveDevice(DeviceObject);
    DebugPrint("Register interfaces for this device \n");
    const GUID Class = InterfaceClassOf(DevExt->DeviceID);
    Status = PublishInterface(DevExt, Class);
    DbgPrint("GUID={%08X-%04X-%04X-%02X-%02X-%02X-%02X-%02X-%02X-%02X-%02X}\n", Class.Data1, Class.Data2, Class.Data3,
             Class.Data4[0], Class.Data4[1], Class.Data4[2], Class.Data4[3], Class.Data4[4], Class.Data4[5],
             Class.Data4[6], Class.Data4[7]);
    DevExt->DeviceStarted = 1;
    DebugPrint("return %Xh\n", Status);
    return Status;
}

void AddSlaveDevice(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    if (DevExt->SlavePresent) {
        return;
    }
    const auto KernelName = NameOf(kKernelName, DevExt->DeviceID);
    const auto SlaveName = NameOf(kSlaveName, DevExt->DeviceID);
    UNICODE_STRING Kernel = CountedString(KernelName);
    UNICODE_STRING Slave = CountedString(SlaveName);
    const NTSTATUS Status = IoCreateSymbolicLink(&Slave, &Kernel);
    if (NT_SUCCESS(Status)) {
        DebugPrint("IoCreateSymbolicLink( '%ws', '%ws' ) return %Xh\n", SlaveName.Text, KernelName.Text, Status);
        DevExt->SlavePresent = 1;
    } else {
        ErrorPrint("IoCreateSymbolicLink( '%ws', '%ws' ) return %Xh\n", SlaveName.Text, KernelName.Text, Status);
    }
}

void PnpShutdownDevice(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    DebugPrint("start \n");
    if (ReadOnce(DevExt->CameraStatus) != CameraStopped) {
        DebugPrint("*** stopped camera, Nid=%d\n", DevExt->DeviceID - '0');
        VQT_SetCameraStatus(DeviceObject, CameraStopped);
    }
    // Read, never released: a transaction in progress ends by itself, with the camera or without it.
    DebugPrint("KeReadStateSemaphore(& (DevExt->HwCommandSemaphore)) = %d \n",
               KeReadStateSemaphore(&DevExt->HwCommandSemaphore));
    DebugPrint("finish \n");
}

void PnpRemoveDevice(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    DebugPrint("Cleanup after DrvPnPAddDevice and PnpStartDevice \n");
    WithdrawInterface(DevExt);
    {
        const BufferHold Hold(DevExt, BufferAccess::Exclusive);
        FreeBadPix(DevExt);
    }
    FreeFrameBuffers(DeviceObject);
    DebugPrint("*** Removed, DeviceID=%d\n", DeviceIdNumber(DevExt->DeviceID));
    const auto DosName = NameOf(kDosName, DevExt->DeviceID);
    DebugPrint("IoDeleteSymbolicLink('%ws')\n", DosName.Text);
    NTSTATUS Status = DeleteLink(kDosName, DevExt->DeviceID);
    DebugPrint("Result=%Xh \n ", Status);
    if (DevExt->SlavePresent) {
        DebugPrint("Slave PRESENT!!!\n");
        const auto SlaveName = NameOf(kSlaveName, DevExt->DeviceID);
        Status = DeleteLink(kSlaveName, DevExt->DeviceID);
        DevExt->SlavePresent = 0;
        DebugPrint("IoDeleteSymbolicLink('%ws')\n", SlaveName.Text);
        DebugPrint("Result=%Xh \n ", Status);
    }
}
