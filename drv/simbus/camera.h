// One camera on the bus: the device at the far end of the cable and what the bus keeps for it.
//
// Two locks. `Lock` (a spin lock, any thread up to DISPATCH_LEVEL) covers the requests and what decides about accepting
// them. `Gate` (PASSIVE_LEVEL) covers the device itself: firmware, scene, stream. The bus's thread holds the gate while
// it serves one transfer and completes nothing inside; control requests hold it while they look or change. Gate before Lock.
//
// A camera is counted: the bus's slot holds it from the plug to the removal of its device object, and whoever works on it
// outside the bus's list meanwhile.
#pragma once

#include "control.h"
#include "firmware.h"
#include "platform.h"
#include "scene.h"
#include "stream.h"

namespace simbus {

constexpr ULONG kMaxPipes = 16;
constexpr UCHAR kStreamEndpoint = 0x82;
constexpr LONGLONG kNever = 0x7FFFFFFFFFFFFFFF;

struct PIPE {
    UCHAR Address;
    UCHAR Type;              // USBD_PIPE_TYPE
    USHORT PacketSize;
    UCHAR Interval;
};

struct DESCRIPTOR_OVERRIDE {
    bool Active, Stall;
    ULONG Length;
    UCHAR Bytes[kMaxDescriptor];
};

// What the bus's threads wait for and hand each other.
struct SERVICE {
    KEVENT Work;             // some camera has something to be served
    KSPIN_LOCK SecondLock;
    LIST_ENTRY Second;       // finished reads that the second thread completes
    KEVENT SecondWork;
    volatile LONG Stopping;
};

struct CAMERA {
    volatile LONG References;
    ULONG Slot;
    SERVICE *Service;        // of the bus; not to be touched once the camera is unplugged
    IDENTITY Identity;

    KSPIN_LOCK Lock;
    // Under Lock.
    bool Plugged;
    bool Started;
    DEVICE_POWER_STATE Power;
    ULONG ColdStarts;        // D3 to D0 so far
    LIST_ENTRY Controls;     // control transfers and pipe requests in order of arrival
    LIST_ENTRY Stuck;        // control transfers that wait for a release, a cancel or an unplug
    LIST_ENTRY Delayed;      // control transfers that are tried again at DelayedDue
    LONGLONG DelayedDue;     // system time
    LIST_ENTRY Reads;        // of the streaming pipe, in order; the first may be partly filled
    LIST_ENTRY Others;       // of other pipes: nothing ever comes
    LIST_ENTRY Held;         // filled reads that wait for a release
    ULONG ReadsTaken;        // taken out to be filled
    bool ReleaseHeld;
    bool SilentStream, SilentCommands;
    bool InlineControl;
    bool ByHand;             // served by whoever asks for it
    ULONG Configuration;     // value selected, 0 none
    LONG Alternate;          // -1 none
    ULONG Selections;
    ULONG PipeCount;
    PIPE Pipes[kMaxPipes];
    bool Halted;
    ULONG BulkFaultCount;
    BULK_FAULT BulkFaults[kMaxBulkFaults];
    ULONG RequestFaultCount;
    FAIL_REQUESTS RequestFaults[kMaxRequestFaults];
    ULONGLONG ReadsCompleted, ReadsCancelled;

    KEVENT Gate;
    volatile LONG GateWaiters;   // control requests that want the gate: the bus's thread lets them go first
    // Under Gate.
    ULONG ColdStartsSeen;
    FIRMWARE Firmware;
    SCENE Scene;
    STREAM Stream;
    ULONG Pace;
    LONGLONG PaceTime;       // system time up to which Budget has been counted
    LONGLONG Budget;         // bytes the wire may carry by now
    bool Idle;               // the last read to look found no frame on its way
    ULONGLONG BytesSent;
    DESCRIPTOR_OVERRIDE DeviceDescriptor;
    DESCRIPTOR_OVERRIDE ConfigurationDescriptors[2];
};

// Null without memory. One reference, the caller's.
_IRQL_requires_max_(PASSIVE_LEVEL)
CAMERA *CameraCreate(const PLUG_REQUEST &Request, ULONG Slot, SERVICE *Service);

inline void CameraReference(CAMERA *Camera) { InterlockedIncrement(&Camera->References); }
_IRQL_requires_max_(PASSIVE_LEVEL)
void CameraDereference(CAMERA *Camera);

// Tells the bus's thread that there is something to serve; the second with Lock held, for a camera that is plugged.
void CameraWake(CAMERA *Camera);
void CameraWakeLocked(CAMERA *Camera);

// Holds the gate for a control request.
class CAMERA_HOLD {
public:
    _IRQL_requires_max_(PASSIVE_LEVEL)
    explicit CAMERA_HOLD(CAMERA *Camera);
    CAMERA_HOLD(const CAMERA_HOLD &) = delete;
    CAMERA_HOLD &operator=(const CAMERA_HOLD &) = delete;
    ~CAMERA_HOLD();

private:
    CAMERA *Camera_;
};

// Brings the device up to date with what happened under Lock: a power cycle. Whoever takes the gate calls it first.
void CameraCatchUp(CAMERA *Camera);

// A setting with the streaming endpoint is selected on a camera that has power.
bool CameraStreaming(CAMERA *Camera);

void CameraSetPower(CAMERA *Camera, DEVICE_POWER_STATE State);

void CameraReadState(CAMERA *Camera, CAMERA_STATE &State);

// Name of the model on the camera's label, as L"VQT-42R1C".
const WCHAR *CameraModelName(const IDENTITY &Identity);

}  // namespace simbus
