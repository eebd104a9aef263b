#include "sensor.h"

namespace simbus {

namespace {

// Decimation by 2: offsets 0, 1, 4, 5, ... are positions 0, 1, 2, 3, ...
constexpr AXIS kHalf = AxisOf(20, 1279, 20, 1280, 2, 1, false, false);
static_assert(kHalf.Image == 640 && AxisSource(kHalf, 1) == 1 && AxisSource(kHalf, 2) == 4 && AxisSource(kHalf, 3) == 5);

// Mirrored after decimation: the last position of the image is offset 0.
constexpr AXIS kHalfMirrored = AxisOf(20, 1279, 20, 1280, 2, 1, true, false);
static_assert(AxisSource(kHalfMirrored, 639) == 0 && AxisSource(kHalfMirrored, 638) == 1 && AxisSource(kHalfMirrored, 0) == 1277);

// Mirrored before decimation: the first position of the image is the window's last pixel.
constexpr AXIS kMirroredFirst = AxisOf(32, 2047, 32, 2048, 3, 1, true, true);
static_assert(AxisSource(kMirroredFirst, 0) == 2047 && AxisSource(kMirroredFirst, 1) == 2046 &&
              AxisSource(kMirroredFirst, 2) == 2041);

// Averaging by 2: position 0 takes offsets 0 and 2, position 1 takes 1 and 3.
constexpr AXIS kBinned = AxisOf(32, 2047, 32, 2048, 2, 2, false, true);
static_assert(AxisSource(kBinned, 0, 1) == 2 && AxisSource(kBinned, 1, 1) == 3 && AxisSource(kBinned, 2, 0) == 4);

// Registers out of range: cut to what the sensor has.
static_assert(AxisOf(0, 0xFFFF, 20, 1280, 1, 1, false, false).Window == 1280);
static_assert(AxisOf(0xFFFF, 0xFFFF, 20, 1280, 8, 1, false, false).Start == 1279);
static_assert(AxisOf(0xFFFF, 0xFFFF, 20, 1280, 8, 1, false, false).Image == 1);
static_assert(AxisOf(1290, 99, 20, 1280, 4, 1, false, false).Image == 4);

}  // namespace

void SensorReset(ULONG Model, USHORT ChipId, USHORT *Registers)
{
    const SENSOR_KIND &Kind = kSensors[Model - 1];
    RtlZeroMemory(Registers, 256 * sizeof(*Registers));
    Registers[kRegChipId] = ChipId;
    Registers[kRegRowStart] = Kind.FirstRow;
    Registers[kRegColumnStart] = Kind.FirstColumn;
    Registers[kRegRowSize] = static_cast<USHORT>(Kind.Height - 1);
    Registers[kRegColumnSize] = static_cast<USHORT>(Kind.Width - 1);
    Registers[0x05] = 0x001F;
    Registers[0x06] = 0x0010;
    Registers[kRegMode1] = kMode1Standby;
    Registers[kRegMode2] = 0x0400;
    Registers[0x49] = 0x00A8;
}

void EncodeLine8(const USHORT *Samples, ULONG Width, UCHAR *Out)
{
    for (ULONG i = 0; i < Width; ++i) Out[i] = static_cast<UCHAR>(Samples[i] >> 2);
}

// Groups of eight: eight bytes with bits 9-2, then sixteen bits with bits 1-0 of pixel k at 2k. A rest of r pixels is packed
// alike in what the line has left for it, (r * 10) / 8 bytes: r bytes with bits 9-2, then as many whole bytes of low bits as
// fit. Four pixels thus take five bytes and lose nothing.
void EncodeLine10(const USHORT *Samples, ULONG Width, UCHAR *Out)
{
    while (Width >= 8) {
        ULONG Low = 0;
        for (ULONG k = 0; k < 8; ++k) {
            Out[k] = static_cast<UCHAR>(Samples[k] >> 2);
            Low |= static_cast<ULONG>(Samples[k] & 3) << (2 * k);
        }
        Out[8] = static_cast<UCHAR>(Low);
        Out[9] = static_cast<UCHAR>(Low >> 8);
        Samples += 8;
        Out += 10;
        Width -= 8;
    }
    const ULONG LowBytes = LineBytes(Width, 10) - Width;
    ULONG Low = 0;
    for (ULONG k = 0; k < Width; ++k) {
        Out[k] = static_cast<UCHAR>(Samples[k] >> 2);
        Low |= static_cast<ULONG>(Samples[k] & 3) << (2 * k);
    }
    for (ULONG k = 0; k < LowBytes; ++k) Out[Width + k] = static_cast<UCHAR>(Low >> (8 * k));
}

}  // namespace simbus
