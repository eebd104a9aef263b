// Camera control: start-up and identification, frame buffers, the status machine, the frame window, power context.
#pragma once

#include "camcmd.h"
#include "device.h"

// Brings the camera into service. Refused with STATUS_DEVICE_BUSY while it streams or takes a snapshot, which only a
// repeated start can meet.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VQT_StartDevice(PDEVICE_OBJECT DeviceObject);

// Depths and model from the sensor's chip identification and the extended information, and the window of the whole
// sensor. Frame buffers of another size than the model's are released.
_IRQL_requires_max_(PASSIVE_LEVEL) void initCameraSettings(PDEVICE_OBJECT DeviceObject, USHORT ChipID,
                                                           const UCHAR (&CameraInfo)[kCameraInfoExSize]);

// Takes the frame buffers that are missing, zeroed; those of an earlier start are kept. STATUS_NO_MEMORY leaves what
// was taken recorded.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS AllocFrameBuffers(PDEVICE_OBJECT DeviceObject);

// Undoes the user mapping and frees the frame buffers. Legal at any stage.
_IRQL_requires_max_(PASSIVE_LEVEL) void FreeFrameBuffers(PDEVICE_OBJECT DeviceObject);

// Undoes the user mapping in its own process and clears it. The caller holds MappingLock and dereferences the process
// that is returned, if any, when it has let go of the lock.
_IRQL_requires_max_(APC_LEVEL) PEPROCESS DropUserMapping(DEVICE_EXTENSION *DevExt);

// Undoes the user mapping if it was made through this handle.
_IRQL_requires_max_(PASSIVE_LEVEL) void DropUserMappingOf(DEVICE_EXTENSION *DevExt, PFILE_OBJECT FileObject);

// The one door for starting and stopping the stream; also ends a snapshot.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VQT_SetCameraStatus(PDEVICE_OBJECT DeviceObject, UCHAR Status);

// Checks a window, aligns the record in place and applies it, also while the camera streams.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    VQT_SetFrameParameters(PDEVICE_OBJECT DeviceObject, FRAME_PARAMETERS *Params);

// Writes the window in force into the sensor's registers.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VQT_ActivateScreenParams(PDEVICE_OBJECT DeviceObject);

// Frequency and streaming state across a power-down; the window stays in the record.
_IRQL_requires_max_(PASSIVE_LEVEL) void VQT_SaveContext(PDEVICE_OBJECT DeviceObject);
_IRQL_requires_max_(PASSIVE_LEVEL) void VQT_RestoreContext(PDEVICE_OBJECT DeviceObject);
