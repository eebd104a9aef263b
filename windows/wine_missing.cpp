// Linked into the Wine flavour of the drivers, and only there: the kernel functions that a driver of ours calls and Wine's
// kernel does not have. The driver's own objects call them as imports; here the imports' slots point at these bodies.
//
// The bodies do what Windows does as far as a driver can tell, with one difference: there is no event log to write to, so
// that an entry goes to the debug print.

#include <ntddk.h>

namespace {

constexpr ULONG kTag = 'eniW';

struct POWER_REQUEST {
    PDEVICE_OBJECT DeviceObject;   // as given by the caller, for its callback
    PDEVICE_OBJECT Top;            // referenced
    PREQUEST_POWER_COMPLETE Callback;
    PVOID Context;
    UCHAR MinorFunction;
    POWER_STATE State;
};

LONG NTAPI ReadStateSemaphore(PRKSEMAPHORE Semaphore)
{
    return Semaphore->Header.SignalState;
}

NTSTATUS NTAPI PowerRequestDone(PDEVICE_OBJECT, PIRP Irp, PVOID Context)
{
    auto *Request = static_cast<POWER_REQUEST *>(Context);
    IO_STATUS_BLOCK Status = Irp->IoStatus;
    if (Request->Callback != nullptr) {
        Request->Callback(Request->DeviceObject, Request->MinorFunction, Request->State, Request->Context, &Status);
    }
    ObDereferenceObject(Request->Top);
    ExFreePoolWithTag(Request, kTag);
    IoFreeIrp(Irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Sends a power request to the top of the device's stack, as the power manager does.
NTSTATUS NTAPI RequestPowerIrp(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                               PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, PIRP *Irp)
{
    if (MinorFunction != IRP_MN_SET_POWER && MinorFunction != IRP_MN_QUERY_POWER) {
        return STATUS_INVALID_PARAMETER_2;
    }
    auto *Request = static_cast<POWER_REQUEST *>(ExAllocatePoolWithTag(NonPagedPool, sizeof(POWER_REQUEST), kTag));
    if (Request == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PDEVICE_OBJECT Top = IoGetAttachedDeviceReference(DeviceObject);
    PIRP PowerIrp = IoAllocateIrp(Top->StackSize, FALSE);
    if (PowerIrp == nullptr) {
        ObDereferenceObject(Top);
        ExFreePoolWithTag(Request, kTag);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *Request = {DeviceObject, Top, CompletionFunction, Context, MinorFunction, PowerState};
    PowerIrp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION Location = IoGetNextIrpStackLocation(PowerIrp);
    Location->MajorFunction = IRP_MJ_POWER;
    Location->MinorFunction = MinorFunction;
    Location->Parameters.Power.Type = DevicePowerState;
    Location->Parameters.Power.State = PowerState;
    IoSetCompletionRoutine(PowerIrp, PowerRequestDone, Request, TRUE, TRUE, TRUE);
    if (Irp != nullptr) {
        *Irp = PowerIrp;
    }
    IoCallDriver(Top, PowerIrp);
    return STATUS_PENDING;
}

// Only asked about the owner of a user mapping, and this kernel makes none: a process that can be asked about is running.
NTSTATUS NTAPI GetProcessExitStatus(PEPROCESS)
{
    return STATUS_PENDING;
}

PVOID NTAPI AllocateErrorLogEntry(PVOID, UCHAR EntrySize)
{
    if (EntrySize < sizeof(IO_ERROR_LOG_PACKET) || EntrySize > ERROR_LOG_MAXIMUM_SIZE) {
        return nullptr;
    }
    PVOID Entry = ExAllocatePoolWithTag(NonPagedPool, EntrySize, kTag);
    if (Entry != nullptr) {
        RtlZeroMemory(Entry, EntrySize);
    }
    return Entry;
}

void NTAPI WriteErrorLogEntry(PVOID Entry)
{
    const auto *Packet = static_cast<const IO_ERROR_LOG_PACKET *>(Entry);
    const ULONG Words = Packet->DumpDataSize / sizeof(ULONG);
    DbgPrint("event log: %08X, status %08X, %u dump words, first %08X\n", static_cast<ULONG>(Packet->ErrorCode),
             static_cast<ULONG>(Packet->FinalStatus), Words, Words != 0 ? Packet->DumpData[0] : 0);
    ExFreePoolWithTag(Entry, kTag);
}

}  // namespace

// A call through the import library reaches `Name`, one through a declaration with an import attribute the slot
// `__imp_Name`. The headers declare the names as imports: ours go to the assembler under other ones.
#define USBCAM_SUPPLY(Name, Body)                                                                                  \
    extern "C" {                                                                                                   \
    extern decltype(&Body) const UsbcamSlot##Name __asm__("__imp_" #Name);                                         \
    decltype(&Body) const UsbcamSlot##Name = Body;                                                                 \
    }                                                                                                              \
    __asm__(".text\n.globl " #Name "\n" #Name ":\n\tjmp *__imp_" #Name "(%rip)\n");

USBCAM_SUPPLY(KeReadStateSemaphore, ReadStateSemaphore)
USBCAM_SUPPLY(PoRequestPowerIrp, RequestPowerIrp)
USBCAM_SUPPLY(PsGetProcessExitStatus, GetProcessExitStatus)
USBCAM_SUPPLY(IoAllocateErrorLogEntry, AllocateErrorLogEntry)
USBCAM_SUPPLY(IoWriteErrorLogEntry, WriteErrorLogEntry)
