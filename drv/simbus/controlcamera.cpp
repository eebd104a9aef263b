#include "controldevice.h"

namespace simbus {

namespace {

// Finds the camera of a record that begins with its slot, and calls Do with its gate held.
template <typename T, typename ACTION>
NTSTATUS WithCamera(CONTROL_CALL &Call, const T &Request, ACTION Do)
{
    CAMERA_REFERENCE Camera(Call.Bus, Request.Slot);
    if (!Camera) return STATUS_NO_SUCH_DEVICE;
    CAMERA_HOLD Hold(Camera.Get());
    return Do(*Camera.Get());
}

}  // namespace

NTSTATUS ControlSetScene(CONTROL_CALL &Call)
{
    const SCENE_REQUEST Request = Call.Record<SCENE_REQUEST>();
    if ((Request.Flags & ~kSceneCounter) != 0) return STATUS_INVALID_PARAMETER;
    ULONGLONG Bytes = 0;
    switch (Request.Kind) {
    case kSceneChart:
    case kSceneFlat:
        if (Request.Width != 0 || Request.Height != 0) return STATUS_INVALID_PARAMETER;
        if (Request.Level > (Request.Kind == kSceneFlat ? 1023u : 0u)) return STATUS_INVALID_PARAMETER;
        break;
    case kSceneGrey:
    case kSceneRgb:
        if (Request.Width < 1 || Request.Height < 1 || Request.Width > kMaxSceneSide || Request.Height > kMaxSceneSide ||
            Request.Level != 0) {
            return STATUS_INVALID_PARAMETER;
        }
        Bytes = ULONGLONG{Request.Width} * Request.Height * (Request.Kind == kSceneRgb ? 3 : 1);
        break;
    default: return STATUS_INVALID_PARAMETER;
    }
    if (!Call.Follows(sizeof(Request), Bytes, 1)) return STATUS_INVALID_PARAMETER;
    return WithCamera(Call, Request, [&](CAMERA &Camera) { return SceneSet(Camera.Scene, Request, Call.Buffer + sizeof(Request)); });
}

NTSTATUS ControlSetDefects(CONTROL_CALL &Call)
{
    const DEFECTS_REQUEST Request = Call.Record<DEFECTS_REQUEST>();
    if (Request.Where == 0 || (Request.Where & ~(kDefectsSensor | kDefectsFlash)) != 0 || Request.Count > kMaxDefects ||
        !Call.Follows(sizeof(Request), Request.Count, sizeof(DEFECT_RECORD))) {
        return STATUS_INVALID_PARAMETER;
    }
    const DEFECT_RECORD *Records = reinterpret_cast<const DEFECT_RECORD *>(Call.Buffer + sizeof(Request));
    return WithCamera(Call, Request, [&](CAMERA &Camera) {
        if (Request.Where & kDefectsSensor) {
            const NTSTATUS Status = SceneSetDefects(Camera.Scene, Records, Request.Count);
            if (!NT_SUCCESS(Status)) return Status;
        }
        if (Request.Where & kDefectsFlash) FirmwareListDefects(Camera.Firmware, Records, Request.Count);
        return STATUS_SUCCESS;
    });
}

NTSTATUS ControlSetFlash(CONTROL_CALL &Call)
{
    const FLASH_REQUEST Request = Call.Record<FLASH_REQUEST>();
    if (Request.SetCount > 1 || Request.Address > kFlashSize || Request.Length > kFlashSize - Request.Address ||
        !Call.Follows(sizeof(Request), Request.Length, 1)) {
        return STATUS_INVALID_PARAMETER;
    }
    return WithCamera(Call, Request, [&](CAMERA &Camera) {
        RtlCopyMemory(Camera.Firmware.Flash + Request.Address, Call.Buffer + sizeof(Request), Request.Length);
        if (Request.SetCount) Camera.Firmware.DefectCount = Request.CountWord;
        return STATUS_SUCCESS;
    });
}

NTSTATUS ControlTrigger(CONTROL_CALL &Call)
{
    return WithCamera(Call, Call.Record<SLOT_RECORD>(), [&](CAMERA &Camera) {
        const bool Accepted = FirmwareTrigger(Camera.Firmware, Camera.Identity, Camera.Stream, CameraStreaming(&Camera));
        Call.Reply(TRIGGER_REPLY{Accepted ? 1u : 0u});
        return STATUS_SUCCESS;
    });
}

NTSTATUS ControlRender(CONTROL_CALL &Call)
{
    const RENDER_REQUEST Request = Call.Record<RENDER_REQUEST>();
    if (Request.WithDefects > 1) return STATUS_INVALID_PARAMETER;
    return WithCamera(Call, Request, [&](CAMERA &Camera) {
        const SCENE &Scene = Camera.Scene;
        if (Request.FirstRow >= Scene.Height || Request.RowCount > Scene.Height - Request.FirstRow) return STATUS_INVALID_PARAMETER;
        const ULONG RowBytes = Scene.Width * ULONG{sizeof(USHORT)};
        if (ULONGLONG{Request.RowCount} * RowBytes > Call.OutputLength) return STATUS_BUFFER_TOO_SMALL;
        if (!ScenePrepare(Camera.Scene)) return STATUS_INSUFFICIENT_RESOURCES;
        for (ULONG i = 0; i < Request.RowCount; ++i) {
            // The line being sent is already encoded: its scratch row is free.
            const USHORT *Row = SceneRow(Scene, Request.Frame, Request.FirstRow + i, Request.WithDefects != 0, Camera.Stream.Scratch);
            RtlCopyMemory(Call.Buffer + SIZE_T{i} * RowBytes, Row, RowBytes);
        }
        Call.Written = Request.RowCount * RowBytes;
        return STATUS_SUCCESS;
    });
}

NTSTATUS ControlReadState(CONTROL_CALL &Call)
{
    return WithCamera(Call, Call.Record<SLOT_RECORD>(), [&](CAMERA &Camera) {
        CAMERA_STATE State;
        CameraReadState(&Camera, State);
        Call.Reply(State);
        return STATUS_SUCCESS;
    });
}

NTSTATUS ControlReadLog(CONTROL_CALL &Call)
{
    const LOG_REQUEST Request = Call.Record<LOG_REQUEST>();
    if (Request.Clear > 1) return STATUS_INVALID_PARAMETER;
    return WithCamera(Call, Request, [&](CAMERA &Camera) {
        LOG_HEADER Header = {};
        ULONG Dropped = 0;
        const ULONG Room = static_cast<ULONG>((Call.OutputLength - sizeof(Header)) / sizeof(LOG_ENTRY));
        Header.Count = FirmwareReadLog(Camera.Firmware, reinterpret_cast<LOG_ENTRY *>(Call.Buffer + sizeof(Header)), Room,
                                       Request.Clear == 1, &Dropped);
        Header.Dropped = Dropped;
        Call.Reply(Header);
        Call.Written = static_cast<ULONG>(sizeof(Header) + Header.Count * sizeof(LOG_ENTRY));
        return STATUS_SUCCESS;
    });
}

NTSTATUS ControlSetPace(CONTROL_CALL &Call)
{
    const PACE_REQUEST Request = Call.Record<PACE_REQUEST>();
    return WithCamera(Call, Request, [&](CAMERA &Camera) {
        Camera.Pace = Request.Pace;
        Camera.Budget = 0;
        Camera.PaceTime = SystemTime();
        return STATUS_SUCCESS;
    });
}

NTSTATUS ControlWriteRegister(CONTROL_CALL &Call)
{
    const REGISTER_REQUEST Request = Call.Record<REGISTER_REQUEST>();
    if (Request.Register > 0xFF) return STATUS_INVALID_PARAMETER;
    return WithCamera(Call, Request, [&](CAMERA &Camera) {
        if (Request.Register == kRegChipId) {
            Camera.Firmware.Registers[kRegChipId] = Request.Value;
        } else {
            FirmwareWriteRegister(Camera.Firmware, Camera.Identity, Camera.Stream, CameraStreaming(&Camera),
                                  static_cast<UCHAR>(Request.Register), Request.Value);
        }
        return STATUS_SUCCESS;
    });
}

NTSTATUS ControlSetNextFrame(CONTROL_CALL &Call)
{
    const NEXT_FRAME_REQUEST Request = Call.Record<NEXT_FRAME_REQUEST>();
    return WithCamera(Call, Request, [&](CAMERA &Camera) {
        Camera.Stream.NextFrame = Request.Frame;
        return STATUS_SUCCESS;
    });
}

NTSTATUS ControlSetLineFlags(CONTROL_CALL &Call)
{
    const LINE_FLAGS_REQUEST Request = Call.Record<LINE_FLAGS_REQUEST>();
    if (Request.Rule > kFlagsByLine || Request.Value > 7) return STATUS_INVALID_PARAMETER;
    return WithCamera(Call, Request, [&](CAMERA &Camera) {
        Camera.Stream.FlagRule = Request.Rule;
        Camera.Stream.FlagValue = Request.Value;
        return STATUS_SUCCESS;
    });
}

NTSTATUS ControlFreeze(CONTROL_CALL &Call)
{
    const FREEZE_REQUEST Request = Call.Record<FREEZE_REQUEST>();
    if (Request.Frozen > 1) return STATUS_INVALID_PARAMETER;
    return WithCamera(Call, Request, [&](CAMERA &Camera) {
        Camera.Scene.Frozen = Request.Frozen == 1;
        Camera.Scene.FrozenFrame = Request.Frame;
        return STATUS_SUCCESS;
    });
}

}  // namespace simbus
