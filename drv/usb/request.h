// One device control request on its way through its handler. Internal to the driver module.
#pragma once

#include "debug.h"
#include "device.h"

struct REQUEST {
    PDEVICE_OBJECT DeviceObject;
    DEVICE_EXTENSION *DevExt;
    PIRP Irp;
    PUCHAR Buffer; // buffered input and output share it: read the input before writing the output
    ULONG InputLength;
    ULONG OutputLength;
    LARGE_INTEGER FrameLimit; // how long a copying frame request waits
    ULONG Information;        // 0 unless the handler sets it
    bool EndsSilently;        // the handler refused: no closing line
};

using REQUEST_HANDLER = NTSTATUS(REQUEST &Request);

// The handlers are steps of the dispatcher and print under its name.
constexpr char kDispatcher[] = "USBCAM_DispatchDeviceControl";
#define RequestPrint(...) DebugPrintAs(kDispatcher, __VA_ARGS__)
#define RequestError(...) ErrorPrintAs(kDispatcher, __VA_ARGS__)

// A refusal whose message has been printed.
inline NTSTATUS Refuse(REQUEST &Request, NTSTATUS Status)
{
    Request.EndsSilently = true;
    return Status;
}

constexpr ULONG Smaller(ULONG A, ULONG B)
{
    return A < B ? A : B;
}

// All run at PASSIVE_LEVEL in the caller's thread, with lengths that the request table allows.
REQUEST_HANDLER OnGetFrame;
REQUEST_HANDLER OnGetFrameEx;
REQUEST_HANDLER OnGetFramePtr;
REQUEST_HANDLER OnGetSnapshot;
REQUEST_HANDLER OnCancelSnapshot;
REQUEST_HANDLER OnSetSnapshotParams;

REQUEST_HANDLER OnHwCommand;
REQUEST_HANDLER OnUSBWrite;
REQUEST_HANDLER OnUSBRead;
REQUEST_HANDLER OnSlaveWrite;
REQUEST_HANDLER OnSlaveRead;
REQUEST_HANDLER OnMainRead;
REQUEST_HANDLER OnResetPipe;
REQUEST_HANDLER OnSetInterfaceType;
