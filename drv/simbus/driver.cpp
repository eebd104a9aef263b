#include "bus.h"
#include "usbstack.h"

extern "C" DRIVER_INITIALIZE DriverEntry;

namespace simbus {

namespace {

DRIVER_ADD_DEVICE AddDevice;
DRIVER_UNLOAD Unload;
DRIVER_DISPATCH DispatchFile;
DRIVER_DISPATCH DispatchControl;
DRIVER_DISPATCH DispatchInternal;
DRIVER_DISPATCH DispatchPnp;
DRIVER_DISPATCH DispatchPower;
DRIVER_DISPATCH DispatchSystem;
IO_COMPLETION_ROUTINE OnForwarded;

BUS *BusOf(PDEVICE_OBJECT DeviceObject) { return static_cast<BUS *>(DeviceObject->DeviceExtension); }

_Use_decl_annotations_
NTSTATUS OnForwarded(PDEVICE_OBJECT, PIRP, PVOID Context)
{
    KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS ForwardAndWait(PDEVICE_OBJECT Lower, PIRP Irp)
{
    KEVENT Event;
    KeInitializeEvent(&Event, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, OnForwarded, &Event, TRUE, TRUE, TRUE);
    if (IoCallDriver(Lower, Irp) == STATUS_PENDING) {
        KeWaitForSingleObject(&Event, Executive, KernelMode, FALSE, nullptr);
    }
    return Irp->IoStatus.Status;
}

NTSTATUS PassDown(PDEVICE_OBJECT Lower, PIRP Irp)
{
    IoSkipCurrentIrpStackLocation(Irp);
    return IoCallDriver(Lower, Irp);
}

// Order: no new requests from outside; cameras fall silent; the threads leave; what is left of the children goes.
void TearDown(BUS *Bus)
{
    ControlDelete(Bus);
    for (PDEVICE_OBJECT Pdo : Bus->Slots) {
        if (Pdo == nullptr) continue;
        CAMERA *Camera = PdoCamera(Pdo);
        SPIN_HOLD Hold(&Camera->Lock);
        Camera->Plugged = false;
    }
    ServiceStop(Bus);
    for (ULONG Slot = 0; Slot < kMaxSlots; ++Slot) {
        PDEVICE_OBJECT Pdo = Bus->Slots[Slot];
        if (Pdo == nullptr) continue;
        PDO *Node = static_cast<PDO *>(Pdo->DeviceExtension);
        UsbFlush(Node->Camera);
        if (Pdo->AttachedDevice == nullptr) {
            PdoDelete(Pdo);
        } else {
            BusForget(Pdo);   // a driver still sits on it: it goes with that driver's removal
            Node->ReportedMissing = true;
        }
    }
}

_Use_decl_annotations_
NTSTATUS AddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Physical)
{
    PDEVICE_OBJECT Self = nullptr;
    NTSTATUS Status = IoCreateDevice(DriverObject, sizeof(BUS), nullptr, FILE_DEVICE_BUS_EXTENDER, FILE_DEVICE_SECURE_OPEN,
                                     FALSE, &Self);
    if (!NT_SUCCESS(Status)) return Status;
    BUS *Bus = BusOf(Self);
    RtlZeroMemory(Bus, sizeof(*Bus));
    Bus->Header.Kind = NODE::Bus;
    Bus->Self = Self;
    Bus->Physical = Physical;
    GateInitialize(&Bus->ListGate);
    KeInitializeEvent(&Bus->Service.Work, SynchronizationEvent, FALSE);
    KeInitializeEvent(&Bus->Service.SecondWork, SynchronizationEvent, FALSE);
    KeInitializeSpinLock(&Bus->Service.SecondLock);
    InitializeListHead(&Bus->Service.Second);

    Bus->Lower = IoAttachDeviceToDeviceStack(Self, Physical);
    Status = Bus->Lower != nullptr ? ControlCreate(DriverObject, Bus) : STATUS_NO_SUCH_DEVICE;
    if (!NT_SUCCESS(Status)) {
        if (Bus->Lower != nullptr) IoDetachDevice(Bus->Lower);
        IoDeleteDevice(Self);
        return Status;
    }
    Self->Flags |= DO_POWER_PAGABLE;
    Self->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
void Unload(PDRIVER_OBJECT)
{
    // Every object of this driver goes with its device.
}

NTSTATUS BusPnp(BUS *Bus, PIRP Irp)
{
    PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
    switch (Stack->MinorFunction) {
    case IRP_MN_START_DEVICE: {
        NTSTATUS Status = ForwardAndWait(Bus->Lower, Irp);
        if (NT_SUCCESS(Status)) Status = ServiceStart(Bus);
        return CompleteNow(Irp, Status);
    }
    case IRP_MN_QUERY_DEVICE_RELATIONS:
        if (Stack->Parameters.QueryDeviceRelations.Type == BusRelations) {
            PDEVICE_RELATIONS Relations = nullptr;
            const NTSTATUS Status =
                BusRelationsOf(Bus, reinterpret_cast<PDEVICE_RELATIONS>(Irp->IoStatus.Information), &Relations);
            if (!NT_SUCCESS(Status)) return CompleteNow(Irp, Status, Irp->IoStatus.Information);
            Irp->IoStatus.Status = STATUS_SUCCESS;
            Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(Relations);
        }
        return PassDown(Bus->Lower, Irp);
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL: Irp->IoStatus.Status = STATUS_SUCCESS; return PassDown(Bus->Lower, Irp);
    case IRP_MN_REMOVE_DEVICE: {
        TearDown(Bus);
        Irp->IoStatus.Status = STATUS_SUCCESS;
        PDEVICE_OBJECT Lower = Bus->Lower;
        const NTSTATUS Status = PassDown(Lower, Irp);
        IoDetachDevice(Lower);
        IoDeleteDevice(Bus->Self);
        return Status;
    }
    default: return PassDown(Bus->Lower, Irp);
    }
}

_Use_decl_annotations_
NTSTATUS DispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    switch (NodeOf(DeviceObject)) {
    case NODE::Bus: return BusPnp(BusOf(DeviceObject), Irp);
    case NODE::Camera: return PdoPnp(DeviceObject, Irp);
    default: return CompleteNow(Irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

_Use_decl_annotations_
NTSTATUS DispatchPower(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    if (NodeOf(DeviceObject) == NODE::Camera) return PdoPower(DeviceObject, Irp);
    PoStartNextPowerIrp(Irp);
    if (NodeOf(DeviceObject) != NODE::Bus) return CompleteNow(Irp, STATUS_INVALID_DEVICE_REQUEST);
    IoSkipCurrentIrpStackLocation(Irp);
    return PoCallDriver(BusOf(DeviceObject)->Lower, Irp);
}

_Use_decl_annotations_
NTSTATUS DispatchSystem(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    if (NodeOf(DeviceObject) == NODE::Bus) return PassDown(BusOf(DeviceObject)->Lower, Irp);
    return CompleteNow(Irp, Irp->IoStatus.Status, Irp->IoStatus.Information);
}

_Use_decl_annotations_
NTSTATUS DispatchFile(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    return CompleteNow(Irp, NodeOf(DeviceObject) == NODE::Control ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_REQUEST);
}

_Use_decl_annotations_
NTSTATUS DispatchControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    if (NodeOf(DeviceObject) == NODE::Control) return ControlDispatch(DeviceObject, Irp);
    return CompleteNow(Irp, STATUS_INVALID_DEVICE_REQUEST);
}

_Use_decl_annotations_
NTSTATUS DispatchInternal(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    if (NodeOf(DeviceObject) == NODE::Camera) return UsbInternalControl(DeviceObject, Irp);
    return CompleteNow(Irp, STATUS_INVALID_DEVICE_REQUEST);
}

}  // namespace

static void Install(PDRIVER_OBJECT DriverObject)
{
    DriverObject->DriverUnload = Unload;
    DriverObject->DriverExtension->AddDevice = AddDevice;
    DriverObject->MajorFunction[IRP_MJ_CREATE] = DispatchFile;
    DriverObject->MajorFunction[IRP_MJ_CLEANUP] = DispatchFile;
    DriverObject->MajorFunction[IRP_MJ_CLOSE] = DispatchFile;
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchControl;
    DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = DispatchInternal;
    DriverObject->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    DriverObject->MajorFunction[IRP_MJ_POWER] = DispatchPower;
    DriverObject->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = DispatchSystem;
}

}  // namespace simbus

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING)
{
    simbus::Install(DriverObject);
    return STATUS_SUCCESS;
}
