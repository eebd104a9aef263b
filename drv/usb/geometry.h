// The image geometry of a camera, and what follows from it.
#pragma once

#include "device.h"

// What decides how a stream becomes an image and where a defect of the sensor lies in it.
struct FRAME_GEOMETRY {
    ULONG Width; // image pixels, after decimation
    ULONG Height;
    ULONG BitsPerPixel; // 8 or 10
    ULONG ModelNo;
    LONG StartX; // sensor pixels
    LONG StartY;
    LONG Decimation;
    UCHAR FlipY;
    UCHAR FlipX;
};

// The window can change at any moment: who needs one geometry for several steps takes this copy first.
inline FRAME_GEOMETRY CopyGeometry(const DEVICE_EXTENSION *DevExt)
{
    FRAME_GEOMETRY Geometry = {};
    Geometry.Width = ReadOnce(DevExt->Width);
    Geometry.Height = ReadOnce(DevExt->Height);
    Geometry.BitsPerPixel = ReadOnce(DevExt->BitsPerPixel);
    Geometry.ModelNo = ReadOnce(DevExt->ModelNo);
    Geometry.StartX = ReadOnce(DevExt->StartX);
    Geometry.StartY = ReadOnce(DevExt->StartY);
    Geometry.Decimation = ReadOnce(DevExt->Decimation);
    Geometry.FlipY = ReadOnce(DevExt->FlipY);
    Geometry.FlipX = ReadOnce(DevExt->FlipX);
    return Geometry;
}

constexpr ULONG kLineHeaderSize = 4; // signature and line word in front of each line of the stream

// Pixel bytes of one line of the stream. 10-bit pixels travel eight in ten bytes.
constexpr ULONGLONG StreamLineLength(ULONG Width, ULONG BitsPerPixel)
{
    return BitsPerPixel == 8 ? Width : ULONGLONG{Width} * 10 / 8;
}
static_assert(StreamLineLength(1280, 8) == 1280 && StreamLineLength(2048, 10) == 2560);
static_assert(StreamLineLength(500, 10) == 625 && StreamLineLength(0xFFFFFFFF, 10) == 5368709118);

constexpr ULONGLONG ImagePitch(ULONG Width, ULONG BitsPerPixel)
{
    return BitsPerPixel == 8 ? Width : ULONGLONG{Width} * sizeof(USHORT);
}

constexpr ULONGLONG kTooLarge = ~ULONGLONG{0};

constexpr ULONGLONG ImageSize(ULONG Width, ULONG Height, ULONG BitsPerPixel)
{
    // At most 2^33 * 2^32: a product that does not fit counts as too large for any buffer.
    const ULONGLONG Pitch = ImagePitch(Width, BitsPerPixel);
    return Height != 0 && Pitch > kTooLarge / Height ? kTooLarge : Pitch * Height;
}
static_assert(ImageSize(2048, 1536, 10) == 6291456 && ImageSize(1280, 1024, 8) == 1310720);
static_assert(ImageSize(0xFFFFFFFF, 0xFFFFFFFF, 10) == kTooLarge);
