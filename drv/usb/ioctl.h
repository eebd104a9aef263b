// The contract between the camera driver and applications: request codes, records, frame header.
//
// Includable by the driver and by applications on any system: it needs <cstdint> and nothing else. Every multi-byte
// value is little-endian, every record is packed, every size and offset is asserted below.
#pragma once

#include <cstddef>
#include <cstdint>

// NT's layout of a device control code: device type in bits 16-31, required access in 14-15, function in 2-13, buffer
// method in 0-1. The type is FILE_DEVICE_UNKNOWN (0x22), access 0 = any, 1 = read, 2 = write.
enum class UsbcamMethod : std::uint32_t { Buffered = 0, OutDirect = 2 };
enum class UsbcamAccess : std::uint32_t { Any = 0, Read = 1, Write = 2 };

constexpr std::uint32_t UsbcamCode(std::uint32_t Function, UsbcamMethod Method = UsbcamMethod::Buffered,
                                   UsbcamAccess Access = UsbcamAccess::Any)
{
    return (0x22u << 16) | (static_cast<std::uint32_t>(Access) << 14) | (Function << 2) |
           static_cast<std::uint32_t>(Method);
}

// Camera state, geometry and depth.
constexpr std::uint32_t IOCTL_SetCameraStatus = UsbcamCode(0x807);     // in: 1 byte, 1 starts and 0 stops the stream
constexpr std::uint32_t IOCTL_GetCameraStatus = UsbcamCode(0x907);     // out: 1 byte, CAMERA_STATUS
constexpr std::uint32_t IOCTL_GetState = UsbcamCode(0x808);            // out: CAMERA_STATE; clears the three totals
constexpr std::uint32_t IOCTL_GetFrameParameters = UsbcamCode(0x80A);  // out: FRAME_PARAMETERS
constexpr std::uint32_t IOCTL_SetFrameParameters = UsbcamCode(0x80B);  // in: FRAME_PARAMETERS
constexpr std::uint32_t IOCTL_SetDefAlt = UsbcamCode(0x80C);           // in: 1 byte, alternate setting 1 or 2
constexpr std::uint32_t IOCTL_SetBitsPerPixel = UsbcamCode(0x997);     // in: u32, 8 or 10
constexpr std::uint32_t IOCTL_GetBitsPerPixel = UsbcamCode(0x998);     // out: u32

// Images.
constexpr std::uint32_t IOCTL_GetFrame = UsbcamCode(0x809, UsbcamMethod::OutDirect);     // out: image
constexpr std::uint32_t IOCTL_GetFrameEx = UsbcamCode(0x80F, UsbcamMethod::OutDirect);   // out: FRAME_HEADER, image
constexpr std::uint32_t IOCTL_GetFramePtr = UsbcamCode(0x909, UsbcamMethod::OutDirect);  // out: u64 address of both
constexpr std::uint32_t IOCTL_GetSnapshot = UsbcamCode(0x991);                           // out: image
constexpr std::uint32_t IOCTL_CancelSnapshot = UsbcamCode(0x992);
constexpr std::uint32_t IOCTL_SetSnapshotParams = UsbcamCode(0x993);  // in: SNAPSHOT_PARAMETERS

// Commands and the USB interface underneath.
constexpr std::uint32_t IOCTL_HwCommand = UsbcamCode(0x900);  // in: code, 0-63 arguments; out: reply payload
constexpr std::uint32_t IOCTL_USBWrite = UsbcamCode(0x801);   // in: code, 0-63 arguments
constexpr std::uint32_t IOCTL_USBRead = UsbcamCode(0x802);    // out: reply payload
constexpr std::uint32_t IOCTL_SlaveWrite =
    UsbcamCode(0x801, UsbcamMethod::Buffered, UsbcamAccess::Write);  // in: 1-63 arguments of camera command 0x28
constexpr std::uint32_t IOCTL_SlaveRead =
    UsbcamCode(0x802, UsbcamMethod::Buffered, UsbcamAccess::Read);  // out: the kept reply, once
constexpr std::uint32_t IOCTL_MainRead = UsbcamCode(0x806, UsbcamMethod::OutDirect);  // out: raw stream bytes
constexpr std::uint32_t IOCTL_ResetPipe =
    UsbcamCode(0x805, UsbcamMethod::Buffered, UsbcamAccess::Write);      // in: 1 byte, pipe number 0-2
constexpr std::uint32_t IOCTL_SetInterfaceType = UsbcamCode(0x810);      // in: interface, alternate setting

static_assert(IOCTL_USBWrite == 0x222004 && IOCTL_USBRead == 0x222008 && IOCTL_MainRead == 0x22201A);
static_assert(IOCTL_SetCameraStatus == 0x22201C && IOCTL_GetState == 0x222020 && IOCTL_GetFrame == 0x222026);
static_assert(IOCTL_GetFrameParameters == 0x222028 && IOCTL_SetFrameParameters == 0x22202C);
static_assert(IOCTL_SetDefAlt == 0x222030 && IOCTL_GetFrameEx == 0x22203E && IOCTL_SetInterfaceType == 0x222040);
static_assert(IOCTL_HwCommand == 0x222400 && IOCTL_GetCameraStatus == 0x22241C && IOCTL_GetFramePtr == 0x222426);
static_assert(IOCTL_GetSnapshot == 0x222644 && IOCTL_CancelSnapshot == 0x222648);
static_assert(IOCTL_SetSnapshotParams == 0x22264C && IOCTL_SetBitsPerPixel == 0x22265C);
static_assert(IOCTL_GetBitsPerPixel == 0x222660 && IOCTL_SlaveRead == 0x226008 && IOCTL_SlaveWrite == 0x22A004);
static_assert(IOCTL_ResetPipe == 0x22A014);

// What the camera is doing.
enum CAMERA_STATUS : std::uint8_t { CameraStopped = 0, CameraStreaming = 1, CameraSnapshot = 2 };

#pragma pack(push, 1)

struct CAMERA_STATE {
    std::int32_t AltSetting;     // USB alternate setting in force
    std::uint32_t TotalBlocks;   // stream transfers completed since the previous IOCTL_GetState
    std::uint32_t TotalFrames;   // frames completed since then
    std::uint32_t Resyncs;       // line-sequence errors of those frames
    std::uint8_t CameraStatus;   // CAMERA_STATUS
};

// The window is given in sensor pixels, before decimation; the image is Width / |Decimation| by Height / |Decimation|.
struct FRAME_PARAMETERS {
    std::int32_t StartX;       // first sensor column
    std::int32_t StartY;       // first sensor row
    std::int32_t Width;        // sensor pixels
    std::int32_t Height;       // sensor rows
    std::int32_t Decimation;   // 1, 2, 4, 8 (models 1 and 2); 1 to 8 or -2, -3, -4 (model 3)
    std::uint32_t ColorBits;   // ignored on set; 8 mono, 24 colour on get
    std::uint8_t FlipY;        // nonzero: rows mirrored
    std::uint8_t FlipX;        // nonzero: columns mirrored
};

struct SNAPSHOT_PARAMETERS {
    std::uint32_t SnapshotTimeout;   // seconds, 0 = no limit
    std::uint32_t SnapshotTrigger;   // 0 = the driver triggers, other = external
};

// In front of every image in a frame buffer. Times are NT system time, 100 ns units since 1601-01-01 UTC.
struct FRAME_HEADER {
    std::uint8_t Reserved0[26];
    std::uint8_t BitsPerPixel;      // 8 or 10
    std::uint8_t Reserved1;
    std::uint32_t CameraStatus;     // at completion
    std::uint32_t FrameNumber;      // counts from 0 at stream start
    std::uint32_t ImageSize;        // Pitch * Height, bytes
    std::uint32_t Pitch;            // bytes per row
    std::uint32_t Width;            // pixels
    std::uint32_t Height;           // rows
    std::uint32_t Reserved2;
    std::uint64_t StartTime;        // the buffer became the one being filled
    std::uint64_t EndTime;          // the frame was complete
    std::uint32_t Resyncs;          // line-sequence errors in this frame
    std::uint32_t LineFlags;        // flag bits 14-15 of the last line word; +1 for each change of a line tag
    std::uint8_t LineStatus[1536];  // one a line: bits 5-7 the line tag, bit 0 the next line's header followed
    std::uint8_t Reserved3[2480];
};

#pragma pack(pop)

constexpr std::uint32_t kFrameHeaderSize = 4096;

static_assert(sizeof(CAMERA_STATE) == 17 && offsetof(CAMERA_STATE, CameraStatus) == 16);
static_assert(offsetof(CAMERA_STATE, AltSetting) == 0 && offsetof(CAMERA_STATE, TotalBlocks) == 4);
static_assert(offsetof(CAMERA_STATE, TotalFrames) == 8 && offsetof(CAMERA_STATE, Resyncs) == 12);
static_assert(sizeof(FRAME_PARAMETERS) == 26 && offsetof(FRAME_PARAMETERS, StartX) == 0);
static_assert(offsetof(FRAME_PARAMETERS, StartY) == 4 && offsetof(FRAME_PARAMETERS, Width) == 8);
static_assert(offsetof(FRAME_PARAMETERS, Height) == 12 && offsetof(FRAME_PARAMETERS, Decimation) == 16);
static_assert(offsetof(FRAME_PARAMETERS, ColorBits) == 20 && offsetof(FRAME_PARAMETERS, FlipY) == 24);
static_assert(offsetof(FRAME_PARAMETERS, FlipX) == 25);
static_assert(sizeof(SNAPSHOT_PARAMETERS) == 8 && offsetof(SNAPSHOT_PARAMETERS, SnapshotTrigger) == 4);
static_assert(sizeof(FRAME_HEADER) == kFrameHeaderSize && offsetof(FRAME_HEADER, BitsPerPixel) == 0x1A);
static_assert(offsetof(FRAME_HEADER, CameraStatus) == 0x1C && offsetof(FRAME_HEADER, FrameNumber) == 0x20);
static_assert(offsetof(FRAME_HEADER, ImageSize) == 0x24 && offsetof(FRAME_HEADER, Pitch) == 0x28);
static_assert(offsetof(FRAME_HEADER, Width) == 0x2C && offsetof(FRAME_HEADER, Height) == 0x30);
static_assert(offsetof(FRAME_HEADER, StartTime) == 0x38 && offsetof(FRAME_HEADER, EndTime) == 0x40);
static_assert(offsetof(FRAME_HEADER, Resyncs) == 0x48 && offsetof(FRAME_HEADER, LineFlags) == 0x4C);
static_assert(offsetof(FRAME_HEADER, LineStatus) == 0x50 && offsetof(FRAME_HEADER, Reserved3) == 0x650);

// The camera with DeviceID '0'-'9', 'A'-'Z' (number 0-35) is opened as \\.\UsbVQTR42Xx_0 and so on, or through the device
// interface of this class with its last byte replaced by that number.
struct USBCAM_GUID {
    std::uint32_t Data1;
    std::uint16_t Data2;
    std::uint16_t Data3;
    std::uint8_t Data4[8];
};
constexpr USBCAM_GUID kUsbcamInterfaceClass = {
    0x6F1D2A90, 0x3C4B, 0x4E5F, {0x8A, 0x7B, 0x1C, 0x2D, 0x3E, 0x4F, 0x5A, 0x6B}};
