// Control requests, one routine each. A routine gets the input (checked to hold its record), the output of at least the
// length that its row asks for, and says how much of it it has filled. Both are the same memory: the record is copied
// before the first byte of output is written.
#pragma once

#include "bus.h"

namespace simbus {

struct CONTROL_CALL {
    BUS *Bus;
    UCHAR *Buffer;          // input and output
    ULONG InputLength, OutputLength;
    ULONG Written;

    template <typename T>
    T Record() const
    {
        T Copy;
        RtlCopyMemory(&Copy, Buffer, sizeof(T));
        return Copy;
    }
    // Whether exactly Count items of a size follow the record.
    bool Follows(SIZE_T RecordSize, ULONGLONG Count, SIZE_T ItemSize) const
    {
        return InputLength - RecordSize == Count * ItemSize;
    }
    template <typename T>
    void Reply(const T &Value)
    {
        RtlCopyMemory(Buffer, &Value, sizeof(T));
        Written = sizeof(T);
    }
};

// A camera referenced for the length of a request.
class CAMERA_REFERENCE {
public:
    _IRQL_requires_max_(PASSIVE_LEVEL)
    CAMERA_REFERENCE(BUS *Bus, ULONG Slot) : Camera_(BusReferenceCamera(Bus, Slot)) {}
    CAMERA_REFERENCE(const CAMERA_REFERENCE &) = delete;
    CAMERA_REFERENCE &operator=(const CAMERA_REFERENCE &) = delete;
    ~CAMERA_REFERENCE()
    {
        if (Camera_ != nullptr) CameraDereference(Camera_);
    }
    explicit operator bool() const { return Camera_ != nullptr; }
    CAMERA *operator->() const { return Camera_; }
    CAMERA *Get() const { return Camera_; }

private:
    CAMERA *Camera_;
};

using CONTROL_ROUTINE = NTSTATUS(CONTROL_CALL &Call);

// controlbus.cpp: the bus and the requests of Plug and Play.
CONTROL_ROUTINE ControlPlug, ControlUnplug, ControlList, ControlFailRequests, ControlSendRequest;
// controlcamera.cpp: the device.
CONTROL_ROUTINE ControlSetScene, ControlSetDefects, ControlSetFlash, ControlTrigger, ControlRender, ControlReadState,
    ControlReadLog, ControlSetPace, ControlWriteRegister, ControlSetNextFrame, ControlSetLineFlags, ControlFreeze;
// controlfaults.cpp: what is to go wrong.
CONTROL_ROUTINE ControlSetLineFaults, ControlSetCommandFaults, ControlSetBulkFaults, ControlReleaseHeld, ControlSetDescriptor,
    ControlSetSilence, ControlSetMode, ControlServe;

}  // namespace simbus
