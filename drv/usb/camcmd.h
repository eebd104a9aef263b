// The camera's named commands. Each is one transaction and prints one summary line, on failure too.
#pragma once

#include "device.h"

constexpr ULONG kCameraInfoSize = 9;
constexpr ULONG kCameraInfoExSize = 16;

// Offsets in the extended camera information, little-endian.
constexpr ULONG kInfoExModel = 0;     // u16 HwModelID
constexpr ULONG kInfoExSerial2 = 2;   // u16
constexpr ULONG kInfoExSerial0 = 4;   // u32
constexpr ULONG kInfoExSerial3 = 8;   // u16
constexpr ULONG kInfoExFirmware = 10; // u16 AFirmware
constexpr ULONG kInfoExDefects = 12;  // u32 records in the camera's defect list

constexpr USHORT ReadLe16(const UCHAR *Bytes)
{
    return static_cast<USHORT>(Bytes[0] | (Bytes[1] << 8));
}
constexpr ULONG ReadLe32(const UCHAR *Bytes)
{
    return ReadLe16(Bytes) | (static_cast<ULONG>(ReadLe16(Bytes + 2)) << 16);
}

// What the camera does not send of the information stays as the caller cleared it.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    VQT_GetCameraInfo(PDEVICE_OBJECT DeviceObject, UCHAR (&Info)[kCameraInfoSize]);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    VQT_GetCameraInfoEx(PDEVICE_OBJECT DeviceObject, UCHAR (&Info)[kCameraInfoExSize]);

_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    VQT_WriteSensorReg(PDEVICE_OBJECT DeviceObject, UCHAR Register, USHORT Value);

// Stores 0 when the camera does not answer.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    VQT_ReadSensorReg(PDEVICE_OBJECT DeviceObject, UCHAR Register, PUSHORT Value);

// Succeeds only when the camera sent exactly Length bytes, of which a reply holds 63 at most.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    VQT_ReadFlash(PDEVICE_OBJECT DeviceObject, USHORT Address, ULONG Length, PUCHAR Output);

_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VQT_SetFrequency(PDEVICE_OBJECT DeviceObject, UCHAR Frequency);

// Leaves the caller's byte as it is unless the camera reports a frequency that is known.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VQT_GetFrequency(PDEVICE_OBJECT DeviceObject, PUCHAR Frequency);

// 8 or 10; a camera that can switch takes anything else for 8.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS VQT_SetBitsPerPixel(PDEVICE_OBJECT DeviceObject, LONG BitsPerPixel);
