// The driver interface: the kernel's I/O, Plug and Play and power routines.
#pragma once

#include <ntdef.h>
#include <ntstatus.h>
#include <nt/io_types.h>

extern "C" {

// Devices and names
NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                        DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive, PDEVICE_OBJECT *DeviceObject);
void IoDeleteDevice(PDEVICE_OBJECT DeviceObject);
PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice);
void IoDetachDevice(PDEVICE_OBJECT TargetDevice);
PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject);
NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName);
NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName);
NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, const GUID *InterfaceClassGuid,
                                   PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName);
NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable);
NTSTATUS IoGetDeviceProperty(PDEVICE_OBJECT DeviceObject, DEVICE_REGISTRY_PROPERTY DeviceProperty, ULONG BufferLength,
                             PVOID PropertyBuffer, PULONG ResultLength);
void IoInvalidateDeviceRelations(PDEVICE_OBJECT DeviceObject, DEVICE_RELATION_TYPE Type);

// Requests
PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
void IoFreeIrp(PIRP Irp);
void IoReuseIrp(PIRP Irp, NTSTATUS Iostatus);
PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                   ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                   BOOLEAN InternalDeviceIoControl, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock);
NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
void IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);
#define IoCallDriver IofCallDriver
#define IoCompleteRequest IofCompleteRequest
void IoMarkIrpPending(PIRP Irp);
BOOLEAN IoCancelIrp(PIRP Irp);
void IoAcquireCancelSpinLock(PKIRQL Irql);
void IoReleaseCancelSpinLock(KIRQL Irql);

// Error log
PVOID IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize);
void IoWriteErrorLogEntry(PVOID ElEntry);
void IoFreeErrorLogEntry(PVOID ElEntry);

// Work items
PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject);
void IoFreeWorkItem(PIO_WORKITEM IoWorkItem);
void IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType, PVOID Context);

// Power
NTSTATUS PoRequestPowerIrp(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                           PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, PIRP *Irp);
void PoStartNextPowerIrp(PIRP Irp);
NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State);

} // extern "C"

FORCEINLINE PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP Irp) { return Irp->Tail.Overlay.CurrentStackLocation; }
FORCEINLINE PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP Irp) { return Irp->Tail.Overlay.CurrentStackLocation - 1; }
FORCEINLINE void IoSetNextIrpStackLocation(PIRP Irp)
{
    Irp->CurrentLocation--;
    Irp->Tail.Overlay.CurrentStackLocation--;
}
FORCEINLINE void IoSkipCurrentIrpStackLocation(PIRP Irp)
{
    Irp->CurrentLocation++;
    Irp->Tail.Overlay.CurrentStackLocation++;
}
FORCEINLINE void IoCopyCurrentIrpStackLocationToNext(PIRP Irp)
{
    PIO_STACK_LOCATION Current = IoGetCurrentIrpStackLocation(Irp);
    PIO_STACK_LOCATION Next = IoGetNextIrpStackLocation(Irp);
    RtlCopyMemory(Next, Current, offsetof(IO_STACK_LOCATION, CompletionRoutine));
    Next->Control = 0;
}
FORCEINLINE void IoSetCompletionRoutine(PIRP Irp, PIO_COMPLETION_ROUTINE CompletionRoutine, PVOID Context,
                                        BOOLEAN InvokeOnSuccess, BOOLEAN InvokeOnError, BOOLEAN InvokeOnCancel)
{
    PIO_STACK_LOCATION Next = IoGetNextIrpStackLocation(Irp);
    Next->CompletionRoutine = CompletionRoutine;
    Next->Context = Context;
    Next->Control = 0;
    if (InvokeOnSuccess)
        Next->Control = SL_INVOKE_ON_SUCCESS;
    if (InvokeOnError)
        Next->Control = (UCHAR)(Next->Control | SL_INVOKE_ON_ERROR);
    if (InvokeOnCancel)
        Next->Control = (UCHAR)(Next->Control | SL_INVOKE_ON_CANCEL);
}
FORCEINLINE PDRIVER_CANCEL IoSetCancelRoutine(PIRP Irp, PDRIVER_CANCEL CancelRoutine)
{
    return __atomic_exchange_n(&Irp->CancelRoutine, CancelRoutine, __ATOMIC_SEQ_CST);
}
#define IoGetFunctionCodeFromCtlCode(code) (((code) >> 2) & 0x00000FFF)
