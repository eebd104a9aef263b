// The circulation of three bulk reads on the camera's streaming pipe: start, completion, stop.
#pragma once

#include "device.h"

// Once, when the device is created: the locks and events of stream and capture.
_IRQL_requires_max_(PASSIVE_LEVEL) void InitStreamControl(DEVICE_EXTENSION *DevExt);

// CameraStatus 0 to 1. Refused unless the camera is idle and has its frame buffers. The stream holds the camera's claim
// from here until it is stopped.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS SetMainPipeStatusOn(PDEVICE_OBJECT DeviceObject);

// CameraStatus 1 to 0. When it returns, nothing of the stream is in flight, whichever of two callers did the work.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS SetMainPipeStatusOff(PDEVICE_OBJECT DeviceObject);

// Context is the STREAM_CONTEXT. The request always stays with the driver.
IO_COMPLETION_ROUTINE OnStreamIrpComplete;
