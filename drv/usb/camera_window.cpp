#include "camera.h"

#include "debug.h"
#include "geometry.h"
#include "snapshot.h"
#include "stream.h"

USBCAM_MODULE("drv/usb/camera")

namespace {

constexpr UCHAR kControlRegister = 0x1E; // bit 8 set: the sensor is held; bit 14 is cleared by every write
constexpr USHORT kSensorHeld = 0x0100;
constexpr USHORT kControlKept = 0xBFFF;

constexpr USHORT kMirrorRows = 0x8000; // of the read-mode register
constexpr USHORT kMirrorColumns = 0x4000;

constexpr LONG kMinWidth = 4; // sensor pixels
constexpr LONG kMinHeight = 3;
constexpr LONG kAlignX = 2;
constexpr LONG kAlignY = 2;
constexpr LONG kAlignW[] = {8, 8, 8, 24, 32, 40, 48, 56, 64}; // by the magnitude of the decimation

struct MODEL3_CODE {
    LONG Decimation;
    USHORT Code;
};
constexpr MODEL3_CODE kModel3Codes[] = {{1, 0x00}, {2, 0x01}, {3, 0x02},  {4, 0x03},  {5, 0x04}, {6, 0x05},
                                        {7, 0x06}, {8, 0x07}, {-2, 0x11}, {-3, 0x22}, {-4, 0x33}};
constexpr USHORT kModel3Kept = 0xFFC8;

struct MODEL12_CODE {
    LONG Decimation;
    USHORT Control;  // bits for register 0x1E
    USHORT ReadMode; // bits for register 0x20
};
constexpr MODEL12_CODE kModel12Codes[] = {{1, 0, 0}, {2, 0, 0x0018}, {4, 0x000C, 0}, {8, 0x0030, 0}};
constexpr USHORT kModel12ControlKept = 0xBFC3;
constexpr USHORT kModel12ReadModeKept = 0xFFE7;

constexpr LONG kMaxLong = 0x7FFFFFFF;
constexpr LONG kMinLong = -kMaxLong - 1;

template <typename Row, SIZE_T Count> constexpr const Row *FindDecimation(const Row (&Rows)[Count], LONG Decimation)
{
    for (const Row &Candidate : Rows) {
        if (Candidate.Decimation == Decimation) {
            return &Candidate;
        }
    }
    return nullptr;
}

constexpr bool DecimationExists(ULONG ModelNo, LONG Decimation)
{
    return ModelNo == 3 ? FindDecimation(kModel3Codes, Decimation) != nullptr
                        : FindDecimation(kModel12Codes, Decimation) != nullptr;
}
static_assert(DecimationExists(3, -4) && DecimationExists(3, 7) && !DecimationExists(3, -1) && !DecimationExists(3, 9));
static_assert(DecimationExists(1, 8) && !DecimationExists(1, 3) && !DecimationExists(2, -2) && !DecimationExists(0, 0));
static_assert(!DecimationExists(3, kMinLong));

constexpr LONG Magnitude(LONG Decimation)
{
    return Decimation < 0 ? -Decimation : Decimation;
}

constexpr LONG Saturate(LONGLONG Value)
{
    return static_cast<LONG>(Value > kMaxLong ? kMaxLong : Value < kMinLong ? kMinLong : Value);
}

// Where the sensor can begin a row. Model 3 counts from 32 columns left of the window, in steps of its binning.
constexpr LONG AlignStartX(ULONG ModelNo, LONGLONG StartX, LONG Decimation, bool FlipX)
{
    if (ModelNo != 3) {
        return Saturate(StartX / kAlignX * kAlignX);
    }
    const LONGLONG Step = Decimation > 0 ? 2 : 2 * Magnitude(Decimation);
    LONGLONG Aligned = (StartX + Step + 31) / Step * Step - 32;
    if (Decimation < 0 && FlipX) {
        Aligned += Aligned >= Step - 2 ? 2 - Step : 2;
    }
    return Saturate(Aligned);
}
static_assert(AlignStartX(1, 101, 1, false) == 100 && AlignStartX(2, -3, 1, false) == -2);
static_assert(AlignStartX(3, 0, 1, false) == 0 && AlignStartX(3, 1, 1, false) == 2);
static_assert(AlignStartX(3, 0, -2, true) == 2 && AlignStartX(3, 4, -2, true) == 2 &&
              AlignStartX(3, 1, -3, false) == 4);
static_assert(AlignStartX(3, kMaxLong, -4, false) == kMaxLong && AlignStartX(3, kMinLong, 1, false) < 0);

constexpr FRAME_PARAMETERS AlignWindow(ULONG ModelNo, FRAME_PARAMETERS Window)
{
    const LONG Divisor = Magnitude(Window.Decimation);
    Window.StartX = AlignStartX(ModelNo, Window.StartX, Window.Decimation, Window.FlipX != 0);
    Window.StartY = Window.StartY / kAlignY * kAlignY;
    Window.Width = Window.Width / kAlignW[Divisor] * kAlignW[Divisor];
    Window.Height = Window.Height / (2 * Divisor) * (2 * Divisor);
    return Window;
}
static_assert(AlignWindow(1, {101, 51, 1001, 501, 1, 0, 0, 0}).Width == 1000);
static_assert(AlignWindow(1, {101, 51, 1001, 501, 1, 0, 0, 0}).Height == 500);
static_assert(AlignWindow(3, {0, 0, 100, 100, 3, 0, 0, 0}).Width == 96);
static_assert(AlignWindow(1, {0, 0, 5, 3, 1, 0, 0, 0}).Width == 0);

// The size counts by itself too: a negative start must not make room for rows that no buffer has.
constexpr bool FitsSensor(LONGLONG Start, LONGLONG Size, LONGLONG Max)
{
    return Size <= Max && Start + Size <= Max;
}
static_assert(FitsSensor(0, 1280, 1280) && FitsSensor(-2, 1280, 1280) && !FitsSensor(-2, 1282, 1280));
static_assert(!FitsSensor(2, 1280, 1280) && !FitsSensor(kMaxLong, kMaxLong, 2048) && !FitsSensor(0, 8, 0));

constexpr USHORT WithMirrors(USHORT ReadMode, const FRAME_GEOMETRY &Geometry)
{
    const int Bits = (Geometry.FlipY ? kMirrorRows : 0) | (Geometry.FlipX ? kMirrorColumns : 0);
    return static_cast<USHORT>((ReadMode & ~(kMirrorRows | kMirrorColumns)) | Bits);
}

NTSTATUS WriteModel3Mode(PDEVICE_OBJECT DeviceObject, const FRAME_GEOMETRY &Geometry)
{
    DebugPrintAs("VQT_ActivateScreenParams", "VQT-42R3\n");
    USHORT ReadMode = 0, Rows = 0, Columns = 0;
    VQT_ReadSensorReg(DeviceObject, 0x20, &ReadMode);
    VQT_ReadSensorReg(DeviceObject, 0x22, &Rows);
    VQT_ReadSensorReg(DeviceObject, 0x23, &Columns);
    const MODEL3_CODE *Row = FindDecimation(kModel3Codes, Geometry.Decimation);
    if (Row == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    VQT_WriteSensorReg(DeviceObject, 0x23, static_cast<USHORT>((Columns & kModel3Kept) | Row->Code));
    VQT_WriteSensorReg(DeviceObject, 0x22, static_cast<USHORT>((Rows & kModel3Kept) | Row->Code));
    VQT_WriteSensorReg(DeviceObject, 0x20, WithMirrors(ReadMode, Geometry));
    return STATUS_SUCCESS;
}

NTSTATUS WriteModel12Mode(PDEVICE_OBJECT DeviceObject, const FRAME_GEOMETRY &Geometry)
{
    DebugPrintAs("VQT_ActivateScreenParams", "VQT-42R1 or VQT-42R2\n");
    USHORT Control = 0, ReadMode = 0;
    VQT_ReadSensorReg(DeviceObject, kControlRegister, &Control);
    VQT_ReadSensorReg(DeviceObject, 0x20, &ReadMode);
    const MODEL12_CODE *Row = FindDecimation(kModel12Codes, Geometry.Decimation);
    if (Row == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    Control = static_cast<USHORT>((Control & kModel12ControlKept) | Row->Control);
    ReadMode = static_cast<USHORT>((ReadMode & kModel12ReadModeKept) | Row->ReadMode);
    VQT_WriteSensorReg(DeviceObject, kControlRegister, Control);
    VQT_WriteSensorReg(DeviceObject, 0x20, WithMirrors(ReadMode, Geometry));
    return STATUS_SUCCESS;
}

void HoldSensor(PDEVICE_OBJECT DeviceObject)
{
    USHORT Control = 0;
    VQT_ReadSensorReg(DeviceObject, kControlRegister, &Control);
    VQT_WriteSensorReg(DeviceObject, kControlRegister, static_cast<USHORT>((Control & kControlKept) | kSensorHeld));
}

void ReleaseSensor(PDEVICE_OBJECT DeviceObject)
{
    USHORT Control = 0;
    VQT_ReadSensorReg(DeviceObject, kControlRegister, &Control);
    VQT_WriteSensorReg(DeviceObject, kControlRegister, static_cast<USHORT>(Control & kControlKept & ~kSensorHeld));
}

// The reads are on the pipe before the sensor runs.
NTSTATUS StartStream(PDEVICE_OBJECT DeviceObject)
{
    const NTSTATUS Status = SetMainPipeStatusOn(DeviceObject);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    VQT_ActivateScreenParams(DeviceObject);
    ReleaseSensor(DeviceObject);
    return STATUS_SUCCESS;
}

NTSTATUS StopStream(PDEVICE_OBJECT DeviceObject)
{
    HoldSensor(DeviceObject);
    return SetMainPipeStatusOff(DeviceObject);
}

} // namespace

NTSTATUS VQT_SetCameraStatus(PDEVICE_OBJECT DeviceObject, UCHAR Status)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    NTSTATUS Result = STATUS_INVALID_DEVICE_REQUEST;

    const UCHAR Current = ReadOnce(DevExt->CameraStatus);
    if (Status > CameraStreaming) {
        ErrorPrint("Set invalid status = %d \n", Status);
    } else if (Status == CameraStreaming && Current == CameraStopped) {
        Result = StartStream(DeviceObject);
        if (!NT_SUCCESS(Result)) {
            return Result;
        }
        // The shutdown may have looked at the status before this start changed it; it does not look again.
        if (ReadOnce(DevExt->ShutdownDone)) {
            StopStream(DeviceObject);
            Result = STATUS_DEVICE_REMOVED;
        }
    } else if (Status == CameraStopped && Current == CameraStreaming) {
        Result = StopStream(DeviceObject);
    } else if (Status == CameraStopped && Current == CameraSnapshot) {
        DebugPrint("*** stop snapshot, Nid=%d\n", DevExt->DeviceID - '0');
        Result = VQT_CancelSnapshot(DeviceObject);
    } else {
        ErrorPrint("Invalid camera status = %d \n", Current);
    }
    DebugPrint("ntStatus= %08Xh \n", Result);
    return Result;
}

NTSTATUS VQT_SetFrameParameters(PDEVICE_OBJECT DeviceObject, FRAME_PARAMETERS *Params)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    const ULONG ModelNo = ReadOnce(DevExt->ModelNo);

    DebugPrint("SetFrameParameters:StartX=%d StartY=%d Width=%d Height=%d Decimation=%d\n", Params->StartX,
               Params->StartY, Params->Width, Params->Height, Params->Decimation);
    if (!DecimationExists(ModelNo, Params->Decimation)) {
        ErrorPrint("invalid Decimation(%d), return %Xh\n", Params->Decimation, STATUS_INVALID_DEVICE_REQUEST);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (Params->Height < kMinHeight || Params->Width < kMinWidth) {
        ErrorPrint("invalid Height(%d) or Width(%d), return %Xh\n", Params->Height, Params->Width,
                   STATUS_INVALID_DEVICE_REQUEST);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const LONG Divisor = Magnitude(Params->Decimation);
    DebugPrint("Align: AlignX=%d AlignY=%d AlignW=%d AlignH=%d\n", kAlignX, kAlignY, kAlignW[Divisor], 2 * Divisor);
    *Params = AlignWindow(ModelNo, *Params);
    DebugPrint("CORRECT: SetFrameParameters:StartX=%d StartY=%d Width=%d Height=%d Decimation=%d\n", Params->StartX,
               Params->StartY, Params->Width, Params->Height, Params->Decimation);
    if (!FitsSensor(Params->StartY, Params->Height, ReadOnce(DevExt->MaxHeight)) ||
        !FitsSensor(Params->StartX, Params->Width, ReadOnce(DevExt->MaxWidth))) {
        ErrorPrint("invalid Width or Heigth(>Max), return %Xh\n", STATUS_INVALID_DEVICE_REQUEST);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (Params->Height == 0 || Params->Width == 0) {
        ErrorPrint("invalid Height(%d) or Width(%d), return %Xh\n", Params->Height, Params->Width,
                   STATUS_INVALID_DEVICE_REQUEST);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    DebugPrint("*** Frame W=%d H=%d\n", Params->Width, Params->Height);

    WriteOnce(DevExt->StartX, Params->StartX);
    WriteOnce(DevExt->StartY, Params->StartY);
    WriteOnce(DevExt->Decimation, Params->Decimation);
    WriteOnce(DevExt->FlipY, Params->FlipY);
    WriteOnce(DevExt->FlipX, Params->FlipX);
    InterlockedExchange(reinterpret_cast<LONG *>(&DevExt->Width), Params->Width / Divisor);
    InterlockedExchange(reinterpret_cast<LONG *>(&DevExt->Height), Params->Height / Divisor);

    const NTSTATUS Result = VQT_ActivateScreenParams(DeviceObject);
    DebugPrint("return %Xh\n", Result);
    return Result;
}

NTSTATUS VQT_ActivateScreenParams(PDEVICE_OBJECT DeviceObject)
{
    const FRAME_GEOMETRY Geometry = CopyGeometry(GetDevExt(DeviceObject));
    const bool Model3 = Geometry.ModelNo == 3;
    const auto Divisor = static_cast<ULONG>(Magnitude(Geometry.Decimation));
    const auto SensorWidth = static_cast<USHORT>(Geometry.Width * Divisor);
    const auto SensorHeight = static_cast<USHORT>(Geometry.Height * Divisor);

    DebugPrint("**************** Width=%d Height=%d Decimation=%d\n", SensorWidth, SensorHeight, Geometry.Decimation);
    // Where the pixels that the sensor shows begin, in its own count.
    VQT_WriteSensorReg(DeviceObject, 0x02, static_cast<USHORT>(Geometry.StartX + (Model3 ? 32 : 20)));
    VQT_WriteSensorReg(DeviceObject, 0x01, static_cast<USHORT>(Geometry.StartY + (Model3 ? 20 : 12)));
    VQT_WriteSensorReg(DeviceObject, 0x04, static_cast<USHORT>(SensorWidth - 1));
    VQT_WriteSensorReg(DeviceObject, 0x03, static_cast<USHORT>(SensorHeight - 1));
    const NTSTATUS Status = Model3 ? WriteModel3Mode(DeviceObject, Geometry) : WriteModel12Mode(DeviceObject, Geometry);
    if (NT_SUCCESS(Status)) {
        DebugPrint("Ok\n");
    }
    return Status;
}

void VQT_SaveContext(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    DebugPrint("start\n");
    VQT_GetFrequency(DeviceObject, &DevExt->SavedFreq);
    DevExt->SavedStatus = ReadOnce(DevExt->CameraStatus);
    if (DevExt->SavedStatus != CameraStopped) {
        VQT_SetCameraStatus(DeviceObject, CameraStopped);
    }
    DebugPrint("finish\n");
}

void VQT_RestoreContext(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    DebugPrint("start\n");
    VQT_SetFrequency(DeviceObject, DevExt->SavedFreq);
    VQT_ActivateScreenParams(DeviceObject);
    if (DevExt->SavedStatus == CameraStreaming) {
        VQT_SetCameraStatus(DeviceObject, CameraStreaming);
    }
    DebugPrint("finish\n");
}
