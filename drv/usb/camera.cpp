#include "camera.h"

#include "badpix.h"
#include "debug.h"
#include "eventlog.h"
#include "owners.h"

USBCAM_MODULE("drv/usb/camera")

namespace {

constexpr UCHAR kUsbModeByte = 7; // of the camera information
constexpr UCHAR kUsb2Mode = 0x80;
constexpr ULONG kDefaultSetting = 2; // alternate setting for streaming
constexpr UCHAR kDefaultFrequency = 1;
constexpr ULONG kBufferMargin = 4; // rows and columns of a frame buffer beyond the sensor's

struct FIRMWARE {
    USHORT Version;
    ULONG BitsPerPixel;
    UCHAR Changeable;
    const char *Message;
};

constexpr FIRMWARE kFirmwares[] = {
    {33, 8, 0, "8 bits only \n"},
    {34, 10, 0, "10 bits only \n"},
    {39, 8, 1, "8 and 10 bits \n"},
};

struct SENSOR_MODEL {
    USHORT HwModelID;
    UCHAR IsMono;
    const char *Message;
};

struct SENSOR_FAMILY {
    USHORT ChipIDs[3]; // unused places repeat one
    ULONG ModelNo;
    ULONG MaxWidth;
    ULONG MaxHeight;
    SENSOR_MODEL Colour;
    SENSOR_MODEL Mono;
    UCHAR UnknownIsMono; // what a camera of the family is taken for when its model number is unknown
};

constexpr SENSOR_FAMILY kFamilies[] = {
    {{0x8411, 0x8421, 0x8431}, 1, 1280, 1024, {27, 0, "*** VQT-42R1C \n"}, {28, 1, "*** VQT-42R1M \n"}, 1},
    {{0x8511, 0x8511, 0x8511}, 2, 1600, 1200, {29, 0, "*** VQT-42R2C \n"}, {30, 1, "*** VQT-42R2M \n"}, 0},
    {{0x1611, 0x1621, 0x1621}, 3, 2048, 1536, {31, 0, "*** VQT-42R3C \n"}, {32, 1, "*** VQT-42R3M \n"}, 0},
};

constexpr const SENSOR_FAMILY *FindFamily(USHORT ChipID)
{
    for (const SENSOR_FAMILY &Family : kFamilies) {
        for (const USHORT Known : Family.ChipIDs) {
            if (Known == ChipID) {
                return &Family;
            }
        }
    }
    return nullptr;
}
static_assert(FindFamily(0x8431)->ModelNo == 1 && FindFamily(0x8511)->ModelNo == 2);
static_assert(FindFamily(0x1621)->ModelNo == 3 && FindFamily(0) == nullptr);

constexpr ULONG FrameBufferSize(ULONG MaxWidth, ULONG MaxHeight)
{
    return (MaxWidth + kBufferMargin) * (MaxHeight + kBufferMargin) * static_cast<ULONG>(sizeof(USHORT));
}
static_assert(FrameBufferSize(1280, 1024) == 2639904 && FrameBufferSize(1600, 1200) == 3862432);
static_assert(FrameBufferSize(2048, 1536) == 6320160);

void ReportValue(PDEVICE_OBJECT DeviceObject, USBCAM_EVENT Event, ULONG Value)
{
    WriteErrorLogEntry(DeviceObject, Event, 0, 1, &Value);
}

void ReportStatus(PDEVICE_OBJECT DeviceObject, USBCAM_EVENT Event, NTSTATUS Status)
{
    WriteErrorLogEntry(DeviceObject, Event, static_cast<ULONG>(Status), 0, nullptr);
}

void ApplyFirmware(PDEVICE_OBJECT DeviceObject, USHORT AFirmware)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    WriteOnce(DevExt->BitsChangeable, 0);
    for (const FIRMWARE &Firmware : kFirmwares) {
        if (Firmware.Version == AFirmware) {
            DebugPrintAs("initCameraSettings", Firmware.Message);
            WriteOnce(DevExt->BitsPerPixel, Firmware.BitsPerPixel);
            WriteOnce(DevExt->BitsChangeable, Firmware.Changeable);
            return;
        }
    }
    ErrorPrintAs("initCameraSettings", "Camera has invalid firmware! \n");
    ReportValue(DeviceObject, kEventInvalidFirmware, AFirmware);
    WriteOnce(DevExt->BitsPerPixel, 8);
}

const SENSOR_MODEL &IdentifyModel(PDEVICE_OBJECT DeviceObject, const SENSOR_FAMILY &Family, USHORT HwModelID)
{
    if (HwModelID == Family.Colour.HwModelID) {
        return Family.Colour;
    }
    if (HwModelID == Family.Mono.HwModelID) {
        return Family.Mono;
    }
    ErrorPrintAs("initCameraSettings", "Camera has invalid HwModelID=%d \n", HwModelID);
    ReportValue(DeviceObject, kEventInvalidModel, HwModelID);
    return Family.UnknownIsMono ? Family.Mono : Family.Colour;
}

// The sensor's registers as a stopped camera has them. A register that cannot be read counts as 0.
void SetSensorDefaults(PDEVICE_OBJECT DeviceObject)
{
    USHORT Value = 0;
    VQT_ReadSensorReg(DeviceObject, 0x0D, &Value);
    VQT_WriteSensorReg(DeviceObject, 0x0D, Value | 0x0001);
    VQT_WriteSensorReg(DeviceObject, 0x0D, Value & 0xFFFE);
    VQT_ReadSensorReg(DeviceObject, 0x1E, &Value);
    VQT_WriteSensorReg(DeviceObject, 0x1E, (Value & 0xBFFF) | 0x0100);
    VQT_ReadSensorReg(DeviceObject, 0x20, &Value);
    VQT_WriteSensorReg(DeviceObject, 0x20, (Value & 0xFBFF) | 0x0200);
    VQT_WriteSensorReg(DeviceObject, 0x05, 0x0023);
    VQT_WriteSensorReg(DeviceObject, 0x06, 0x0019);
    VQT_WriteSensorReg(DeviceObject, 0x49, 0);
}

// What the camera says about itself: the extended information and the sensor's chip identification.
NTSTATUS QueryIdentity(PDEVICE_OBJECT DeviceObject, UCHAR (&InfoEx)[kCameraInfoExSize], USHORT &ChipID)
{
    DebugPrintAs("VQT_StartDevice", "get camera info for check USB2.0 mode \n");
    UCHAR Info[kCameraInfoSize] = {};
    NTSTATUS Status = VQT_GetCameraInfo(DeviceObject, Info);
    if (!NT_SUCCESS(Status)) {
        ErrorPrintAs("VQT_StartDevice", "GetInfo() return %08Xh\n", Status);
        ReportStatus(DeviceObject, kEventNoCameraInfo, Status);
        return Status;
    }
    DebugPrintAs("VQT_StartDevice", "Check USB2.0 mode of camera \n");
    if ((Info[kUsbModeByte] & kUsb2Mode) == 0) {
        ErrorPrintAs("VQT_StartDevice", "*** USB 1.x MODE *** \n");
        ReportStatus(DeviceObject, kEventUsb1Mode, STATUS_SUCCESS);
    }

    DebugPrintAs("VQT_StartDevice", "Get Camera Info Extended \n");
    Status = VQT_GetCameraInfoEx(DeviceObject, InfoEx);
    if (!NT_SUCCESS(Status)) {
        ErrorPrintAs("VQT_StartDevice", "GetCameraInfoEx() return %08Xh \n", Status);
        ReportStatus(DeviceObject, kEventNoCameraInfoEx, Status);
        return Status;
    }
    DebugPrintAs("VQT_StartDevice", "DeviceID=%d.%d.%d.%d.%d\n", ReadLe32(InfoEx + kInfoExSerial0),
                 ReadLe16(InfoEx + kInfoExModel), ReadLe16(InfoEx + kInfoExSerial2), ReadLe16(InfoEx + kInfoExSerial3),
                 ReadLe16(InfoEx + kInfoExFirmware));

    DebugPrintAs("VQT_StartDevice", "Read Sensor ChipID \n");
    Status = VQT_ReadSensorReg(DeviceObject, 0, &ChipID);
    if (!NT_SUCCESS(Status)) {
        ErrorPrintAs("VQT_StartDevice", "Read ChipID failed, return %08Xh \n", Status);
        ReportStatus(DeviceObject, kEventNoChipId, Status);
        ChipID = 0;
    }
    return STATUS_SUCCESS;
}

// Frees the frame buffers. The caller holds BufferLock exclusively.
void FreeBuffersLocked(DEVICE_EXTENSION *DevExt)
{
    PEPROCESS Owner = nullptr;
    {
        const MappingHold Hold(DevExt);
        Owner = DropUserMapping(DevExt);
    }
    if (Owner != nullptr) {
        ObDereferenceObject(Owner);
    }
    WriteOnce(DevExt->FrameReadyPtr, nullptr);
    for (PUCHAR &Frame : DevExt->Frame) {
        const PoolBlock<UCHAR> Block(ReadOnce(Frame));
        WriteOnce(Frame, nullptr);
    }
}

// Whatever buffers exist always have the size that FrameBufSize says.
void SetSensorSize(DEVICE_EXTENSION *DevExt, const SENSOR_FAMILY &Family, UCHAR IsMono)
{
    const ULONG BufferSize = FrameBufferSize(Family.MaxWidth, Family.MaxHeight);
    const BufferHold Hold(DevExt, BufferAccess::Exclusive);
    if (DevExt->FrameBufSize != BufferSize) {
        FreeBuffersLocked(DevExt);
    }
    WriteOnce(DevExt->ModelNo, Family.ModelNo);
    WriteOnce(DevExt->IsMono, IsMono);
    WriteOnce(DevExt->MaxWidth, Family.MaxWidth);
    WriteOnce(DevExt->MaxHeight, Family.MaxHeight);
    WriteOnce(DevExt->Width, Family.MaxWidth);
    WriteOnce(DevExt->Height, Family.MaxHeight);
    WriteOnce(DevExt->Decimation, 1);
    WriteOnce(DevExt->FrameBufSize, BufferSize);
}

} // namespace

NTSTATUS VQT_StartDevice(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);

    const CameraClaim Claim(DevExt);
    if (!Claim || ReadOnce(DevExt->CameraStatus) != CameraStopped) {
        return STATUS_DEVICE_BUSY;
    }
    UCHAR InfoEx[kCameraInfoExSize] = {};
    USHORT ChipID = 0;
    NTSTATUS Status = QueryIdentity(DeviceObject, InfoEx, ChipID);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    initCameraSettings(DeviceObject, ChipID, InfoEx);
    Status = AllocFrameBuffers(DeviceObject);
    if (!NT_SUCCESS(Status)) {
        ErrorPrint("Out of memory, return %08Xh\n", Status);
        ReportStatus(DeviceObject, kEventOutOfMemory, Status);
        FreeFrameBuffers(DeviceObject);
        return Status;
    }
    WriteOnce(DevExt->DefAlt, kDefaultSetting);
    LoadBadPix(DeviceObject);
    SetSensorDefaults(DeviceObject);
    VQT_SetFrequency(DeviceObject, kDefaultFrequency);
    return STATUS_SUCCESS;
}

void initCameraSettings(PDEVICE_OBJECT DeviceObject, USHORT ChipID, const UCHAR (&CameraInfo)[kCameraInfoExSize])
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    const USHORT AFirmware = ReadLe16(CameraInfo + kInfoExFirmware);

    DebugPrint("Check Altera version (%d) \n", AFirmware);
    ApplyFirmware(DeviceObject, AFirmware);
    if (DevExt->BitsChangeable) {
        VQT_SetBitsPerPixel(DeviceObject, 8);
    }
    DebugPrint("Used %d Bits - %s \n", ReadOnce(DevExt->BitsPerPixel),
               DevExt->BitsChangeable ? "Changeable" : "UnChangeable");

    DebugPrint("Check sensor ChipID (%d %02Xh) \n", ChipID, ChipID);
    const SENSOR_FAMILY *Family = FindFamily(ChipID);
    if (Family == nullptr) {
        ErrorPrint("Camera has invalid ChipID=%02Xh \n", ChipID);
        ReportValue(DeviceObject, kEventInvalidChipId, ChipID);
        WriteOnce(DevExt->BitsPerPixel, 8);
        Family = &kFamilies[0];
    }
    const SENSOR_MODEL &Model = IdentifyModel(DeviceObject, *Family, ReadLe16(CameraInfo + kInfoExModel));
    DebugPrint(Model.Message);
    SetSensorSize(DevExt, *Family, Model.IsMono);
}

NTSTATUS AllocFrameBuffers(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    PEPROCESS Owner = nullptr;
    {
        const BufferHold Hold(DevExt, BufferAccess::Exclusive);
        for (PUCHAR &Frame : DevExt->Frame) {
            if (Frame != nullptr) {
                continue;
            }
            // Users see this memory, rows that no line ever reached included.
            auto Block = PoolBlock<UCHAR>::AllocateZeroed(SIZE_T{kFrameHeaderSize} + DevExt->FrameBufSize);
            if (!Block) {
                return STATUS_NO_MEMORY;
            }
            WriteOnce(Frame, Block.Release());
        }
        const MappingHold Mapping(DevExt);
        Owner = DropUserMapping(DevExt);
    }
    if (Owner != nullptr) {
        ObDereferenceObject(Owner);
    }
    return STATUS_SUCCESS;
}

void FreeFrameBuffers(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);
    const BufferHold Hold(DevExt, BufferAccess::Exclusive);
    FreeBuffersLocked(DevExt);
}
