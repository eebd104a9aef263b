// One frame on request: captured whole, converted to an image, repaired.
#pragma once

#include "device.h"

// Captures one frame into the caller's buffer and waits for it: for the frame, for the limit of the snapshot parameters
// or for a cancel, whichever comes first. RetSize receives the image bytes delivered, 0 when the capture was refused;
// rows that did not arrive are zero. Takes the camera's claim and BufferLock, so the caller holds neither.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    VQT_GetSnapshot(PDEVICE_OBJECT DeviceObject, PVOID Image, LONG BufferSize, PULONG RetSize);

// Ends the capture in progress, from another thread. The capture itself returns CameraStatus to 0.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VQT_CancelSnapshot(PDEVICE_OBJECT DeviceObject);

// Context is the device context. The request always stays with the driver.
IO_COMPLETION_ROUTINE OnSnapshotIrpComplete;

// Bytes of one image, and bytes of its stream rounded up as the alternate setting in force sends them.
_IRQL_requires_max_(PASSIVE_LEVEL) ULONG GetFrameSize(PDEVICE_OBJECT DeviceObject);
_IRQL_requires_max_(PASSIVE_LEVEL) ULONG GetUSBDataSize(PDEVICE_OBJECT DeviceObject);
