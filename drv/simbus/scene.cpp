#include "scene.h"

namespace simbus {

namespace {

void DrawChart(const SCENE &Scene, USHORT *Base)
{
    for (ULONG y = 0; y < Scene.Height; ++y) {
        for (ULONG x = 0; x < Scene.Width; ++x) {
            const COLOUR Colour = ChartColour(x, y, Scene.Width, Scene.Height);
            const ULONG Sample = Scene.Mono ? Luminance(Colour.Part[0], Colour.Part[1], Colour.Part[2])
                                            : Colour.Part[MosaicComponent(x, y)];
            Base[SIZE_T{y} * Scene.Width + x] = static_cast<USHORT>(Sample);
        }
    }
}

void Fill(USHORT *Row, ULONG First, ULONG Count, ULONG Width, ULONG Value)
{
    for (ULONG x = First; x < First + Count && x < Width; ++x) Row[x] = static_cast<USHORT>(Value);
}

bool RowMoves(ULONG Row)
{
    constexpr ULONG kFirst = kCounterRow - kCounterCell / 2, kLast = kBarRow + kBarHeight;
    return Row >= kFirst && Row < kLast;
}

void DrawMoving(USHORT *Samples, ULONG Frame, ULONG Row, ULONG Width)
{
    if (Row < kCounterRow + kCounterCell + kCounterCell / 2) {
        Fill(Samples, kCounterColumn - kCounterCell / 2, 33 * kCounterCell, Width, kCounterDark / 2);
        if (Row < kCounterRow || Row >= kCounterRow + kCounterCell) return;
        for (ULONG Bit = 0; Bit < 32; ++Bit) {
            const bool Set = (Frame >> (31 - Bit)) & 1;
            Fill(Samples, kCounterColumn + Bit * kCounterCell, kCounterCell, Width, Set ? kCounterLight : kCounterDark);
        }
    } else if (Row >= kBarRow) {
        const ULONG Column = static_cast<ULONG>((ULONGLONG{Frame} * 8) % Width);
        Fill(Samples, Column, kBarWidth, Width, kCounterLight);
    }
}

// Index of the first listed pixel in this row or below.
ULONG FirstInRow(const SENSOR_DEFECTS &Defects, ULONG Row)
{
    ULONG Low = 0, High = Defects.Count;
    while (Low < High) {
        const ULONG Middle = (Low + High) / 2;
        if (Defects.Pixels[Middle].Y < Row) Low = Middle + 1;
        else High = Middle;
    }
    return Low;
}

void FreeDefects(SENSOR_DEFECTS &Defects)
{
    if (Defects.Pixels != nullptr) ExFreePoolWithTag(Defects.Pixels, kTag);
    if (Defects.Columns != nullptr) ExFreePoolWithTag(Defects.Columns, kTag);
    Defects.Pixels = nullptr;
    Defects.Columns = nullptr;
    Defects.Count = Defects.ColumnCount = 0;
    for (bool &Row : Defects.Row) Row = false;
}

USHORT DefectValue(const DEFECT_RECORD &Record)
{
    const ULONG Hash = (Record.X * 31u + Record.Y * 17u) & 7;
    if ((Record.Type & 3) == 2) return 1023;
    return static_cast<USHORT>(Hash % 2 == 0 ? Hash : 1000 + Hash);
}

bool Before(const DEFECT_PIXEL &A, const DEFECT_PIXEL &B) { return A.Y != B.Y ? A.Y < B.Y : A.X < B.X; }

}  // namespace

void SceneInitialize(SCENE &Scene, ULONG Model, bool Mono)
{
    Scene.Model = Model;
    Scene.Mono = Mono;
    Scene.Width = kSensors[Model - 1].Width;
    Scene.Height = kSensors[Model - 1].Height;
    Scene.Kind = kSceneChart;
    Scene.Moving = true;
}

void SceneFree(SCENE &Scene)
{
    if (Scene.Base != nullptr) ExFreePoolWithTag(Scene.Base, kTag);
    Scene.Base = nullptr;
    FreeDefects(Scene.Defects);
}

_Use_decl_annotations_
bool ScenePrepare(SCENE &Scene)
{
    if (Scene.Base != nullptr) return true;
    POOL_BLOCK<USHORT> Base;
    if (!Base.Allocate(SIZE_T{Scene.Width} * Scene.Height)) return false;
    if (Scene.Kind == kSceneFlat) Fill(Base.Get(), 0, Scene.Width * Scene.Height, Scene.Width * Scene.Height, Scene.Level);
    else DrawChart(Scene, Base.Get());   // pictures have been drawn when they were set
    Scene.Base = Base.Release();
    return true;
}

const USHORT *SceneRow(const SCENE &Scene, ULONG Frame, ULONG Row, bool WithDefects, USHORT *Scratch)
{
    const USHORT *Still = Scene.Base + SIZE_T{Row} * Scene.Width;
    const SENSOR_DEFECTS &Defects = Scene.Defects;
    const bool Moves = Scene.Moving && RowMoves(Row);
    const ULONG First = WithDefects ? FirstInRow(Defects, Row) : 0;
    const bool Pixels = WithDefects && First < Defects.Count && Defects.Pixels[First].Y == Row;
    const bool Lines = WithDefects && (Defects.ColumnCount != 0 || Defects.Row[Row]);
    if (!Moves && !Pixels && !Lines) return Still;

    RtlCopyMemory(Scratch, Still, Scene.Width * sizeof(USHORT));
    if (Moves) DrawMoving(Scratch, Scene.Frozen ? Scene.FrozenFrame : Frame, Row, Scene.Width);
    if (Lines) {
        if (Defects.Row[Row]) {
            for (ULONG x = 0; x < Scene.Width; ++x) Scratch[x] = static_cast<USHORT>(Scratch[x] ^ 0x155);
        } else {
            for (ULONG i = 0; i < Defects.ColumnCount; ++i) {
                USHORT &Sample = Scratch[Defects.Columns[i]];
                Sample = static_cast<USHORT>(Sample ^ 0x155);
            }
        }
    }
    if (Pixels) {
        for (ULONG i = First; i < Defects.Count && Defects.Pixels[i].Y == Row; ++i) {
            Scratch[Defects.Pixels[i].X] = Defects.Pixels[i].Value;
        }
    }
    return Scratch;
}

_Use_decl_annotations_
NTSTATUS SceneSet(SCENE &Scene, const SCENE_REQUEST &Request, const UCHAR *Pixels)
{
    USHORT *Base = nullptr;
    if (Request.Kind == kSceneGrey || Request.Kind == kSceneRgb) {
        POOL_BLOCK<USHORT> New;
        if (!New.Allocate(SIZE_T{Scene.Width} * Scene.Height)) return STATUS_INSUFFICIENT_RESOURCES;
        const PICTURE Picture = {Pixels, Request.Width, Request.Height, Request.Kind == kSceneRgb ? 3u : 1u};
        ResamplePicture(Picture, Scene.Mono, New.Get(), Scene.Width, Scene.Height);
        Base = New.Release();
    }
    if (Scene.Base != nullptr) ExFreePoolWithTag(Scene.Base, kTag);
    Scene.Base = Base;
    Scene.Kind = Request.Kind;
    Scene.Level = static_cast<USHORT>(Request.Level);
    Scene.Moving = Request.Kind == kSceneChart || (Request.Flags & kSceneCounter) != 0;
    return STATUS_SUCCESS;
}

_Use_decl_annotations_
NTSTATUS SceneSetDefects(SCENE &Scene, const DEFECT_RECORD *Records, ULONG Count)
{
    POOL_BLOCK<DEFECT_PIXEL> Pixels;
    POOL_BLOCK<USHORT> Columns;
    if (Count != 0 && (!Pixels.Allocate(Count) || !Columns.Allocate(Count))) return STATUS_INSUFFICIENT_RESOURCES;

    FreeDefects(Scene.Defects);
    SENSOR_DEFECTS &Defects = Scene.Defects;
    bool Listed[kMaxColumns] = {};
    for (ULONG i = 0; i < Count; ++i) {
        const DEFECT_RECORD &Record = Records[i];
        if (Record.X >= Scene.Width || Record.Y >= Scene.Height) continue;
        if ((Record.Type & 3) != 3) {
            // Insertion keeps the list's order among records of one pixel: the last one shows.
            const DEFECT_PIXEL Pixel = {Record.X, Record.Y, DefectValue(Record)};
            ULONG Place = Defects.Count++;
            for (; Place > 0 && Before(Pixel, Pixels.Get()[Place - 1]); --Place) {
                Pixels.Get()[Place] = Pixels.Get()[Place - 1];
            }
            Pixels.Get()[Place] = Pixel;
        } else if (Record.Y == 0) {
            if (!Listed[Record.X]) Columns.Get()[Defects.ColumnCount++] = Record.X;
            Listed[Record.X] = true;
        } else if (Record.X == 0) {
            Defects.Row[Record.Y] = true;
        }
    }
    Defects.Pixels = Pixels.Release();
    Defects.Columns = Columns.Release();
    return STATUS_SUCCESS;
}

}  // namespace simbus
