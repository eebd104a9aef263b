// The sensor's geometry: which of its pixels make up the image, as its registers say. Pure arithmetic, for any register
// values: a window that reaches beyond the sensor is cut at its edge, one that starts beyond it is its last row or column.
#pragma once

#include "control.h"
#include "platform.h"

namespace simbus {

constexpr ULONG kMaxColumns = 2048;
constexpr ULONG kMaxRows = 1536;

constexpr UCHAR kRegChipId = 0x00;
constexpr UCHAR kRegRowStart = 0x01;
constexpr UCHAR kRegColumnStart = 0x02;
constexpr UCHAR kRegRowSize = 0x03;         // rows - 1
constexpr UCHAR kRegColumnSize = 0x04;      // columns - 1
constexpr UCHAR kRegCapture = 0x07;         // model 3: bit 0 prepares the trigger
constexpr UCHAR kRegTrigger = 0x0B;         // writing bit 0 sends one frame
constexpr UCHAR kRegReset = 0x0D;           // writing bit 0 puts every register back to its default
constexpr UCHAR kRegMode1 = 0x1E;
constexpr UCHAR kRegMode2 = 0x20;
constexpr UCHAR kRegRowReading = 0x22;      // model 3: bits 0-2 decimation - 1, bits 4-5 samples averaged - 1
constexpr UCHAR kRegColumnReading = 0x23;

constexpr USHORT kMode1Standby = 0x0100;    // no free-running frames
constexpr USHORT kMode1Columns4 = 0x0004;   // models 1 and 2: decimation by 4 and 8
constexpr USHORT kMode1Rows4 = 0x0008;
constexpr USHORT kMode1Columns8 = 0x0010;
constexpr USHORT kMode1Rows8 = 0x0020;
constexpr USHORT kMode2Columns2 = 0x0008;   // models 1 and 2: decimation by 2
constexpr USHORT kMode2Rows2 = 0x0010;
constexpr USHORT kMode2MirrorRows = 0x8000;
constexpr USHORT kMode2MirrorColumns = 0x4000;

struct SENSOR_KIND {
    USHORT Width, Height;
    USHORT FirstColumn, FirstRow;   // register values of column and row 0: border pixels lie before them
    USHORT DefaultChipId;
    USHORT ColourModelId, MonoModelId;
    bool MirrorFirst;               // mirrors before it decimates: the mirrored window is read as if it were the sensor
};

constexpr SENSOR_KIND kSensors[] = {
    {1280, 1024, 20, 12, 0x8431, 27, 28, false},
    {1600, 1200, 20, 12, 0x8511, 29, 30, false},
    {2048, 1536, 32, 20, 0x1621, 31, 32, true},
};

// One axis of the window. Image positions 2k and 2k + 1 are the offsets 2dk and 2dk + 1, so that the 2 x 2 groups of a
// colour mosaic stay together; with Bins b each is the average of b samples of its own colour: 2dk + i, + 2, ... + 2(b - 1).
struct AXIS {
    USHORT Start;        // on the sensor
    USHORT Window;       // pixels on the sensor, at least 1
    USHORT Image;        // pixels in the image, at least 1
    UCHAR Factor;        // d, 1 to 8
    UCHAR Bins;          // b, 1 to 4
    bool Mirror;
    bool MirrorFirst;
};

struct GEOMETRY {
    AXIS Columns;
    AXIS Rows;
};

constexpr AXIS AxisOf(USHORT StartRegister, USHORT SizeRegister, USHORT Border, USHORT Size, UCHAR Factor, UCHAR Bins,
                      bool Mirror, bool MirrorFirst)
{
    AXIS Axis = {};
    const ULONG Start = StartRegister > Border ? static_cast<ULONG>(StartRegister - Border) : 0;
    Axis.Start = static_cast<USHORT>(Smaller<ULONG>(Start, Size - 1u));
    Axis.Window = static_cast<USHORT>(Smaller<ULONG>(SizeRegister + 1u, Size - static_cast<ULONG>(Axis.Start)));
    const ULONG Group = 2u * Factor;
    Axis.Image = static_cast<USHORT>(2 * (Axis.Window / Group) + Smaller<ULONG>(Axis.Window % Group, 2));
    Axis.Factor = Factor;
    Axis.Bins = Bins;
    Axis.Mirror = Mirror;
    Axis.MirrorFirst = MirrorFirst;
    return Axis;
}

// The sensor's column or row behind image position Position; Bin counts the samples averaged. A group that the window cuts
// repeats its first sample.
constexpr USHORT AxisSource(const AXIS &Axis, ULONG Position, ULONG Bin = 0)
{
    if (Axis.Mirror && !Axis.MirrorFirst) Position = Axis.Image - 1u - Position;
    ULONG Offset = 2u * Axis.Factor * (Position / 2) + Position % 2;
    if (Offset + 2 * Bin < Axis.Window) Offset += 2 * Bin;
    if (Axis.Mirror && Axis.MirrorFirst) Offset = Axis.Window - 1u - Offset;
    return static_cast<USHORT>(Axis.Start + Offset);
}

constexpr UCHAR SteppedFactor(bool By2, bool By4, bool By8) { return By8 ? 8 : By4 ? 4 : By2 ? 2 : 1; }

constexpr GEOMETRY SensorGeometry(ULONG Model, const USHORT *Registers)
{
    const SENSOR_KIND &Kind = kSensors[Model - 1];
    const USHORT Mode1 = Registers[kRegMode1], Mode2 = Registers[kRegMode2];
    UCHAR ColumnFactor = 1, RowFactor = 1, ColumnBins = 1, RowBins = 1;
    if (Model == 3) {
        const USHORT Column = Registers[kRegColumnReading], Row = Registers[kRegRowReading];
        ColumnFactor = static_cast<UCHAR>((Column & 7) + 1);
        RowFactor = static_cast<UCHAR>((Row & 7) + 1);
        ColumnBins = Smaller<UCHAR>(static_cast<UCHAR>(((Column >> 4) & 3) + 1), ColumnFactor);
        RowBins = Smaller<UCHAR>(static_cast<UCHAR>(((Row >> 4) & 3) + 1), RowFactor);
    } else {
        ColumnFactor = SteppedFactor(Mode2 & kMode2Columns2, Mode1 & kMode1Columns4, Mode1 & kMode1Columns8);
        RowFactor = SteppedFactor(Mode2 & kMode2Rows2, Mode1 & kMode1Rows4, Mode1 & kMode1Rows8);
    }
    GEOMETRY Geometry = {};
    Geometry.Columns = AxisOf(Registers[kRegColumnStart], Registers[kRegColumnSize], Kind.FirstColumn, Kind.Width,
                              ColumnFactor, ColumnBins, (Mode2 & kMode2MirrorColumns) != 0, Kind.MirrorFirst);
    Geometry.Rows = AxisOf(Registers[kRegRowStart], Registers[kRegRowSize], Kind.FirstRow, Kind.Height, RowFactor, RowBins,
                           (Mode2 & kMode2MirrorRows) != 0, Kind.MirrorFirst);
    return Geometry;
}

// Bytes of one line's pixels: one each at 8 bits, ten for eight at 10 bits.
constexpr ULONG LineBytes(ULONG Width, ULONG Bits) { return Bits == 8 ? Width : Width * 10 / 8; }

constexpr ULONG kMaxLineBytes = LineBytes(kMaxColumns, 10);

// Register values after power-up: the whole sensor, not running.
void SensorReset(ULONG Model, USHORT ChipId, USHORT *Registers);

// The wire form of one line; Out has room for LineBytes(Width, Bits).
void EncodeLine8(const USHORT *Samples, ULONG Width, UCHAR *Out);
void EncodeLine10(const USHORT *Samples, ULONG Width, UCHAR *Out);

}  // namespace simbus
