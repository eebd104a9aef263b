#include "camcmd.h"

#include "debug.h"
#include "hwcommand.h"

USBCAM_MODULE("drv/usb/camcmd")

namespace {

enum CAMERA_COMMAND : UCHAR {
    kGetCameraInfo = 0x11,
    kGetCameraInfoEx = 0x12,
    kReadFlash = 0x18,
    kReadSensorReg = 0x1E,
    kWriteSensorReg = 0x1F,
    kSetFrequency = 0x2C,
    kSetBitsPerPixel = 0x2D,
};

constexpr ULONG kFrequencyByte = 8; // of the camera information

// The camera reports 2, 10 and 18 for the indices that it takes as 0, 1 and 2. -1: unknown.
constexpr int FrequencyIndex(UCHAR Code)
{
    constexpr UCHAR kCodes[] = {2, 10, 18};
    for (int Index = 0; Index < 3; ++Index) {
        if (kCodes[Index] == Code) {
            return Index;
        }
    }
    return -1;
}
static_assert(FrequencyIndex(2) == 0 && FrequencyIndex(10) == 1 && FrequencyIndex(18) == 2);
static_assert(FrequencyIndex(0) == -1 && FrequencyIndex(26) == -1);

constexpr UCHAR kSample[] = {0x78, 0x56, 0x34, 0x92};
static_assert(ReadLe16(kSample) == 0x5678 && ReadLe32(kSample) == 0x92345678);

} // namespace

NTSTATUS VQT_GetCameraInfo(PDEVICE_OBJECT DeviceObject, UCHAR (&Info)[kCameraInfoSize])
{
    return HwCommand(DeviceObject, kGetCameraInfo, nullptr, 0, Info, sizeof(Info), nullptr);
}

NTSTATUS VQT_GetCameraInfoEx(PDEVICE_OBJECT DeviceObject, UCHAR (&Info)[kCameraInfoExSize])
{
    return HwCommand(DeviceObject, kGetCameraInfoEx, nullptr, 0, Info, sizeof(Info), nullptr);
}

NTSTATUS VQT_WriteSensorReg(PDEVICE_OBJECT DeviceObject, UCHAR Register, USHORT Value)
{
    const UCHAR Arguments[] = {Register, static_cast<UCHAR>(Value & 0xFF), static_cast<UCHAR>(Value >> 8)};
    const NTSTATUS Status = HwCommand(DeviceObject, kWriteSensorReg, Arguments, sizeof(Arguments), nullptr, 0, nullptr);
    DebugPrint("Write SensorReg=%02Xh,Value=%d(%04Xh),status=%Xh\n", Register, Value, Value, Status);
    return Status;
}

NTSTATUS VQT_ReadSensorReg(PDEVICE_OBJECT DeviceObject, UCHAR Register, PUSHORT Value)
{
    UCHAR Payload[2] = {};
    const NTSTATUS Status = HwCommand(DeviceObject, kReadSensorReg, &Register, 1, Payload, sizeof(Payload), nullptr);
    // The one value that the camera sends with its high byte first.
    *Value = static_cast<USHORT>(Payload[0] << 8 | Payload[1]);
    DebugPrint("Read SensorReg=%02Xh Value=%d(%04Xh) Status=%Xh\n", Register, *Value, *Value, Status);
    return Status;
}

NTSTATUS VQT_ReadFlash(PDEVICE_OBJECT DeviceObject, USHORT Address, ULONG Length, PUCHAR Output)
{
    DebugPrint("Rq.Addr=%d Rq.Len=%d\n", Address, static_cast<USHORT>(Length));
    const UCHAR Rq[] = {static_cast<UCHAR>(Address & 0xFF), static_cast<UCHAR>(Address >> 8),
                        static_cast<UCHAR>(Length & 0xFF), static_cast<UCHAR>(Length >> 8 & 0xFF)};
    ULONG ReturnSize = 0;
    NTSTATUS Status = HwCommand(DeviceObject, kReadFlash, Rq, sizeof(Rq), Output, Length, &ReturnSize);
    if (!NT_SUCCESS(Status)) {
        DebugPrint("HwCommand() return %02Xh\n", Status);
        return Status;
    }
    if (ReturnSize != Length) {
        DebugPrint("ReturnSize=%d != %d - INVALID!!!\n", ReturnSize, Length);
        Status = STATUS_INVALID_DEVICE_REQUEST;
    }
    DebugPrint("Status=%d\n", Status);
    return Status;
}

NTSTATUS VQT_SetFrequency(PDEVICE_OBJECT DeviceObject, UCHAR Frequency)
{
    const NTSTATUS Status = HwCommand(DeviceObject, kSetFrequency, &Frequency, 1, nullptr, 0, nullptr);
    DebugPrint("SetFreq(0x2C) Freq=%d Status=%08Xh\n", Frequency, Status);
    return Status;
}

NTSTATUS VQT_GetFrequency(PDEVICE_OBJECT DeviceObject, PUCHAR Frequency)
{
    UCHAR Info[kCameraInfoSize] = {};
    NTSTATUS Status = VQT_GetCameraInfo(DeviceObject, Info);
    if (NT_SUCCESS(Status)) {
        // A reply that is too short leaves 0 there, which is no frequency.
        const int Index = FrequencyIndex(Info[kFrequencyByte]);
        if (Index >= 0) {
            *Frequency = static_cast<UCHAR>(Index);
        } else {
            Status = STATUS_INVALID_DEVICE_REQUEST;
        }
    }
    DebugPrint("GetFreq(0x2C) Freq=%d Status=%08Xh\n", *Frequency, Status);
    return Status;
}

NTSTATUS VQT_SetBitsPerPixel(PDEVICE_OBJECT DeviceObject, LONG BitsPerPixel)
{
    DEVICE_EXTENSION *const DevExt = GetDevExt(DeviceObject);

    if (!ReadOnce(DevExt->BitsChangeable)) {
        const bool InForce = static_cast<ULONG>(BitsPerPixel) == ReadOnce(DevExt->BitsPerPixel);
        return InForce ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
    }
    if (BitsPerPixel != 8 && BitsPerPixel != 10) {
        ErrorPrint("Error Bits value=%d, default 8 bpp\n", BitsPerPixel);
    }
    const UCHAR Value = BitsPerPixel == 10 ? 1 : 0;
    const NTSTATUS Status = HwCommand(DeviceObject, kSetBitsPerPixel, &Value, 1, nullptr, 0, nullptr);
    DebugPrint("SetBits(0x2D) Value=%d Status=%08Xh\n", Value, Status);
    if (NT_SUCCESS(Status)) {
        WriteOnce(DevExt->BitsPerPixel, Value != 0 ? 10 : 8);
    }
    return Status;
}
