#include "camera.h"

namespace simbus {

namespace {

IDENTITY IdentityOf(const PLUG_REQUEST &Request, ULONG Slot)
{
    const SENSOR_KIND &Kind = kSensors[Request.Model - 1];
    IDENTITY Identity = {};
    Identity.Model = Request.Model;
    Identity.Mono = Request.Mono != 0;
    Identity.FullSpeed = (Request.Flags & kPlugFullSpeed) != 0;
    Identity.Firmware = (Request.Flags & kPlugFirmwareGiven) ? Request.Firmware : USHORT{39};
    Identity.ChipId = (Request.Flags & kPlugChipIdGiven) ? Request.ChipId : Kind.DefaultChipId;
    Identity.HwModelId = (Request.Flags & kPlugHwModelIdGiven) ? Request.HwModelId
                         : Identity.Mono                       ? Kind.MonoModelId
                                                               : Kind.ColourModelId;
    const bool Given = (Request.Flags & kPlugIdentityGiven) != 0;
    Identity.Serial = Given ? Request.Serial : 1000 + Slot;
    Identity.Batch = Given ? Request.Batch : USHORT{7};
    Identity.Board = Given ? Request.Board : USHORT{3};
    return Identity;
}

ULONG ListLength(const LIST_ENTRY &List)
{
    ULONG Count = 0;
    for (const LIST_ENTRY *Entry = List.Flink; Entry != &List; Entry = Entry->Flink) ++Count;
    return Count;
}

}  // namespace

_Use_decl_annotations_
CAMERA *CameraCreate(const PLUG_REQUEST &Request, ULONG Slot, SERVICE *Service)
{
    POOL_BLOCK<CAMERA> Block;
    if (!Block.Allocate(1)) return nullptr;
    CAMERA *Camera = Block.Release();
    RtlZeroMemory(Camera, sizeof(*Camera));
    Camera->References = 1;
    Camera->Slot = Slot;
    Camera->Service = Service;
    Camera->Identity = IdentityOf(Request, Slot);
    KeInitializeSpinLock(&Camera->Lock);
    Camera->Plugged = true;
    Camera->Power = PowerDeviceD0;
    InitializeListHead(&Camera->Controls);
    InitializeListHead(&Camera->Stuck);
    InitializeListHead(&Camera->Delayed);
    InitializeListHead(&Camera->Reads);
    InitializeListHead(&Camera->Others);
    InitializeListHead(&Camera->Held);
    Camera->Alternate = -1;
    GateInitialize(&Camera->Gate);
    FirmwareInitialize(Camera->Firmware, Camera->Identity);
    SceneInitialize(Camera->Scene, Camera->Identity.Model, Camera->Identity.Mono);
    Camera->Pace = (Request.Flags & kPlugPaceGiven)   ? Request.Pace
                   : (Request.Flags & kPlugFullSpeed) ? kFullSpeedPace
                                                      : kDefaultPace;
    Camera->PaceTime = SystemTime();
    return Camera;
}

_Use_decl_annotations_
void CameraDereference(CAMERA *Camera)
{
    if (InterlockedDecrement(&Camera->References) != 0) return;
    SceneFree(Camera->Scene);
    LineFaultsFree(Camera->Stream.Faults);
    ExFreePoolWithTag(Camera, kTag);
}

void CameraWake(CAMERA *Camera)
{
    SPIN_HOLD Hold(&Camera->Lock);
    if (Camera->Plugged) CameraWakeLocked(Camera);
}

void CameraWakeLocked(CAMERA *Camera)
{
    if (!Camera->ByHand) KeSetEvent(&Camera->Service->Work, IO_NO_INCREMENT, FALSE);
}

CAMERA_HOLD::CAMERA_HOLD(CAMERA *Camera) : Camera_(Camera)
{
    InterlockedIncrement(&Camera->GateWaiters);
    GateEnter(&Camera->Gate);
    CameraCatchUp(Camera);
}

CAMERA_HOLD::~CAMERA_HOLD()
{
    GateLeave(&Camera_->Gate);
    InterlockedDecrement(&Camera_->GateWaiters);
    CameraWake(Camera_);   // what was changed may give the bus's thread something to do
}

void CameraCatchUp(CAMERA *Camera)
{
    bool Cold = false, Off = false;
    {
        SPIN_HOLD Hold(&Camera->Lock);
        Cold = Camera->ColdStartsSeen != Camera->ColdStarts;
        Camera->ColdStartsSeen = Camera->ColdStarts;
        Off = Camera->Power != PowerDeviceD0 || !Camera->Plugged;
    }
    if (Cold) FirmwareColdStart(Camera->Firmware, Camera->Identity);
    if (Cold || Off) StreamDrop(Camera->Stream);
}

bool CameraStreaming(CAMERA *Camera)
{
    SPIN_HOLD Hold(&Camera->Lock);
    return Camera->Plugged && Camera->Power == PowerDeviceD0 && Camera->Alternate > 0;
}

void CameraSetPower(CAMERA *Camera, DEVICE_POWER_STATE State)
{
    {
        SPIN_HOLD Hold(&Camera->Lock);
        // Only D3 cuts the supply; D1 and D2 suspend the device.
        if (Camera->Power == PowerDeviceD3 && State != PowerDeviceD3) ++Camera->ColdStarts;
        Camera->Power = State;
    }
    CameraWake(Camera);
}

void CameraReadState(CAMERA *Camera, CAMERA_STATE &State)
{
    RtlZeroMemory(&State, sizeof(State));
    const STREAM &Stream = Camera->Stream;
    State.Slot = Camera->Slot;
    State.Model = Camera->Identity.Model;
    State.Mono = Camera->Identity.Mono;
    State.SensorWidth = Camera->Scene.Width;
    State.SensorHeight = Camera->Scene.Height;
    State.Running = Stream.Running || Stream.TriggerPending;
    State.FrequencyIndex = Camera->Firmware.Frequency;
    State.BitsPerPixel = Camera->Firmware.Bits;
    State.Pace = Camera->Pace;
    State.NextFrame = Stream.NextFrame;
    State.CurrentLine = Stream.Line;
    State.ImageWidth = Stream.Geometry.Columns.Image;
    State.ImageHeight = Stream.Geometry.Rows.Image;
    State.LineBytes = Stream.LineBytes;
    State.FramesSent = Stream.FramesSent;
    State.LinesSent = Stream.LinesSent;
    State.BytesSent = Camera->BytesSent;
    State.CommandsReceived = Camera->Firmware.Commands;
    State.LineFaultsDone = Stream.FaultsDone;
    RtlCopyMemory(State.Registers, Camera->Firmware.Registers, sizeof(State.Registers));

    SPIN_HOLD Hold(&Camera->Lock);
    State.Plugged = Camera->Plugged;
    State.Started = Camera->Started;
    State.PowerState = static_cast<ULONG>(Camera->Power);
    State.Configured = Camera->Configuration;
    State.AlternateSetting = Camera->Alternate;
    State.PipesOpened = Camera->Selections;
    State.HeldReads = ListLength(Camera->Held);
    State.PendingReads = ListLength(Camera->Reads) + Camera->ReadsTaken + State.HeldReads;
    State.PendingControls = ListLength(Camera->Controls) + ListLength(Camera->Stuck) + ListLength(Camera->Delayed);
    State.Halted = Camera->Halted;
    State.ReadsCompleted = Camera->ReadsCompleted;
    State.ReadsCancelled = Camera->ReadsCancelled;
    State.PowerCycles = Camera->ColdStarts;
}

const WCHAR *CameraModelName(const IDENTITY &Identity)
{
    static const WCHAR *const Names[3][2] = {
        {L"VQT-42R1C", L"VQT-42R1M"}, {L"VQT-42R2C", L"VQT-42R2M"}, {L"VQT-42R3C", L"VQT-42R3M"}};
    return Names[Identity.Model - 1][Identity.Mono ? 1 : 0];
}

}  // namespace simbus
