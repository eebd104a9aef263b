// The driver's only road to the USB stack: synchronous requests, the interface setting in force, pipe reset and abort.
#pragma once

#include "device.h"

// Signals the event that UsbForwardIrpSync waits for and keeps the request with the driver.
IO_COMPLETION_ROUTINE UsbSyncCompletion;

// Passes a Plug and Play request down and waits for it. The caller completes the request. Returns its I/O status.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS UsbForwardIrpSync(PDEVICE_OBJECT DeviceObject, PIRP Irp);

// Submits one URB and waits for it, without limit. Not below a fast mutex: the completion needs kernel APCs.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS UsbSubmitUrbSync(PDEVICE_OBJECT DeviceObject, PURB Urb);

// Selects the configuration with one interface and alternate setting, and records the streaming pipe. For callers that
// hold the claim of the camera. Refused while the camera streams or takes a snapshot, except for the setting in force.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    UsbSetInterface(PDEVICE_OBJECT DeviceObject, ULONG InterfaceNumber, LONG AlternateSetting);

// The same for callers that do not hold the claim: refused as well while somebody else does.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    UsbSetInterfaceUnclaimed(PDEVICE_OBJECT DeviceObject, ULONG InterfaceNumber, LONG AlternateSetting);

// Both fail for a null pipe without any USB traffic.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS UsbResetPipe(PDEVICE_OBJECT DeviceObject, USBD_PIPE_HANDLE PipeHandle);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS UsbAbortPipe(PDEVICE_OBJECT DeviceObject, USBD_PIPE_HANDLE PipeHandle);
