#include "badpix.h"
#include "badpix_mask.h"
#include "debug.h"

USBCAM_MODULE("drv/usb/badpix")

namespace {

// Keep all but one side: for pixels at that border.
constexpr UCHAR kNotLeft = 0xD6;
constexpr UCHAR kNotRight = 0x6B;
constexpr UCHAR kNotTop = 0xF8;
constexpr UCHAR kNotBottom = 0x1F;

constexpr LONG kCloseEnough = 2;       // a pixel that differs by no more is left alone
constexpr LONG kCloseEnoughOneRow = 1; // the same for a row that is repaired from one side
constexpr LONG kMaxDecimation = 8;

// Coordinates are 32-bit two's complement. Whatever a record and a window make of them, a wrapped one is only a place
// outside the image, or another one inside.
constexpr LONG Add(LONG A, LONG B)
{
    return static_cast<LONG>(static_cast<ULONG>(A) + static_cast<ULONG>(B));
}
constexpr LONG Subtract(LONG A, LONG B)
{
    return static_cast<LONG>(static_cast<ULONG>(A) - static_cast<ULONG>(B));
}
constexpr LONG Multiply(LONG A, LONG B)
{
    return static_cast<LONG>(static_cast<ULONG>(A) * static_cast<ULONG>(B));
}
constexpr LONG Mirror(LONG Place, LONG Size)
{
    return Subtract(Subtract(Size, Place), 1);
}
static_assert(Mirror(0, 8) == 7 && Mirror(7, 8) == 0 && Mirror(-1, 8) == 8);

// A decimated image is made of the first two columns (rows) of every run of 2d, so that the colours stay together.
constexpr LONG Decimated(LONG Offset, LONG Decimation, LONG Remainder)
{
    return Add((Offset / Decimation) & ~1, Remainder);
}
static_assert(Decimated(0, 2, 0) == 0 && Decimated(1, 2, 1) == 1 && Decimated(4, 2, 0) == 2 && Decimated(5, 2, 1) == 3);

// What the two depths do differently; nothing else is.
struct REPAIR_8 {
    using Sample = UCHAR;
    static constexpr char kRoutine[] = "FixBadPix8";
    static constexpr char kCountMessage[] = "Loaded %d bad pixel(s)\n";
    static constexpr bool kIgnoreSaysWhere = true;
    static constexpr LONG kSaturated = -1; // no value is replaced for itself
};

struct REPAIR_10 {
    using Sample = USHORT;
    static constexpr char kRoutine[] = "FixBadPix10";
    static constexpr char kCountMessage[] = "Found %d bad(s) pixel(s)\n";
    static constexpr bool kIgnoreSaysWhere = false;
    static constexpr LONG kSaturated = 1023; // rule 2 replaces it whatever the difference
};

// The image's window, read once; mirrors and model are looked at again for each record.
struct VIEW_PORT {
    LONG StartX;
    LONG StartY;
    LONG Width;
    LONG Height;
    LONG Decimation;
    const UCHAR *FlipX;
    const UCHAR *FlipY;
    const ULONG *ModelNo;
};

// Where a record lies in the image.
struct PLACE {
    LONG X;
    LONG Y;
    UCHAR Mask;
    bool FlipX;
    bool FlipY;
};

enum class Placed : UCHAR { Yes, NotInImage, CannotTell };

inline SIZE_T PixelIndex(const VIEW_PORT &View, LONG X, LONG Y)
{
    return SIZE_T{static_cast<ULONG>(Y)} * static_cast<ULONG>(View.Width) + static_cast<ULONG>(X);
}

// ------------------------------------------------------------------------------------------------ where a record lies

template <typename Depth>
Placed FindDecimated(const BADPIX_RECORD Record, const VIEW_PORT View, LONG Dx, LONG Dy, PLACE &Place)
{
    // Model 3 mirrors before it decimates, the others afterwards.
    const bool MirrorFirst = ReadOnce(*View.ModelNo) == 3;
    if (MirrorFirst && Place.FlipX) {
        Dx = Mirror(Dx, Multiply(View.Decimation, View.Width));
    }
    if (MirrorFirst && Place.FlipY) {
        Dy = Mirror(Dy, Multiply(View.Decimation, View.Height));
    }
    const LONG Rx = Dx % (2 * View.Decimation);
    const LONG Ry = Dy % (2 * View.Decimation);
    Place.X = Decimated(Dx, View.Decimation, Rx);
    Place.Y = Decimated(Dy, View.Decimation, Ry);
    DebugPrintAs(Depth::kRoutine, "BpX=%d BpY=%d Type=%d Mask=%d Dec=%d px=%d py=%d\n", MirrorFirst ? Dx : Place.X,
                 MirrorFirst ? Dy : Place.Y, Record.BpType, Record.BpPosMask, View.Decimation, Rx, Ry);
    if (Rx > 1 || Ry > 1) {
        DebugPrintAs(Depth::kRoutine, "ignore\n");
        return Placed::NotInImage;
    }
    if (!MirrorFirst && Place.FlipX) {
        Place.X = Mirror(Place.X, View.Width);
    }
    if (!MirrorFirst && Place.FlipY) {
        Place.Y = Mirror(Place.Y, View.Height);
    }
    // The neighbours in the image are not those of the sensor: what the list knows of them says nothing.
    Place.Mask = kMaskAll;
    return Placed::Yes;
}

template <typename Depth, bool EveryPixel>
FORCEINLINE Placed Find(const BADPIX_RECORD &Record, const VIEW_PORT &View, PLACE &Place)
{
    Place.FlipX = ReadOnce(*View.FlipX) != 0;
    Place.FlipY = ReadOnce(*View.FlipY) != 0;
    const LONG Dx = Subtract(Record.BpX, View.StartX);
    const LONG Dy = Subtract(Record.BpY, View.StartY);
    if constexpr (EveryPixel) {
        Place.X = Place.FlipX ? Mirror(Dx, View.Width) : Dx;
        Place.Y = Place.FlipY ? Mirror(Dy, View.Height) : Dy;
        Place.Mask = Record.BpPosMask;
        return Placed::Yes;
    }
    if (View.Decimation > kMaxDecimation) {
        DebugPrintAs(Depth::kRoutine, "Invalid Decimation (%d)\n", View.Decimation);
        return Placed::CannotTell;
    }
    PLACE Found = Place;
    const Placed Answer = FindDecimated<Depth>(Record, View, Dx, Dy, Found);
    Place = Found;
    return Answer;
}

// ------------------------------------------------------------------------------------------------- columns and rows

// The two neighbours of a line, Distance away; at a border the one that exists counts twice.
struct LINE_SOURCES {
    LONG A;
    LONG B;
    bool Any;
};

constexpr LINE_SOURCES FindLineSources(LONG Place, LONG Size, LONG Distance)
{
    const bool HasNext = Place < Size - Distance;
    if (Place < Distance) {
        return {Distance, Distance, HasNext};
    }
    return {-Distance, HasNext ? Distance : -Distance, true};
}
static_assert(!FindLineSources(0, 1, 1).Any && !FindLineSources(1, 3, 2).Any && FindLineSources(0, 3, 2).Any);
static_assert(FindLineSources(4, 5, 1).B == -1 && FindLineSources(3, 5, 1).B == 1 && FindLineSources(2, 4, 2).B == -2);

// Writes the mean of two samples over a third that differs from it by more than the threshold.
template <typename Sample> inline void ReplaceUnlessClose(Sample &Pixel, LONG A, LONG B, LONG Threshold)
{
    const LONG Value = (A + B) / 2;
    const LONG Difference = Value - Pixel;
    Pixel = Difference > Threshold || -Difference > Threshold ? static_cast<Sample>(Value) : Pixel;
}

template <typename Sample> void FixColumn(const VIEW_PORT View, Sample *Image, LONG X, LONG Distance)
{
    const LINE_SOURCES Sources = FindLineSources(X, View.Width, Distance);
    if (!Sources.Any) {
        return;
    }
    Sample *Pixel = Image + X;
    for (LONG Y = 0; Y < View.Height; ++Y, Pixel += View.Width) {
        ReplaceUnlessClose(*Pixel, Pixel[Sources.A], Pixel[Sources.B], kCloseEnough);
    }
}

template <typename Sample> void FixRow(const VIEW_PORT View, Sample *Image, LONG Y, LONG Distance)
{
    const LINE_SOURCES Sources = FindLineSources(Y, View.Height, Distance);
    if (!Sources.Any) {
        return;
    }
    const LONG Threshold = Sources.A == Sources.B ? kCloseEnoughOneRow : kCloseEnough;
    Sample *__restrict Row = Image + PixelIndex(View, 0, Y);
    const Sample *__restrict RowA = Image + PixelIndex(View, 0, Y + Sources.A);
    const Sample *__restrict RowB = Image + PixelIndex(View, 0, Y + Sources.B);
    for (LONG X = 0; X < View.Width; ++X) {
        ReplaceUnlessClose(Row[X], RowA[X], RowB[X], Threshold);
    }
}

template <typename Depth>
void FixLine(const BADPIX_RECORD Record, const VIEW_PORT View, const PLACE Place, typename Depth::Sample *Image)
{
    const bool Colour = (Record.BpType & kBadPixColour) != 0;
    const LONG Distance = Colour ? 2 : 1;
    if (Record.BpY == 0) {
        if (Place.X < 0 || Place.X >= View.Width) {
            DebugPrintAs(Depth::kRoutine, "ignore col ...\n");
            return;
        }
        if (Colour) {
            DebugPrintAs(Depth::kRoutine, "fix COLOR col %d\n", Place.X);
        } else {
            DebugPrintAs(Depth::kRoutine, "fix MONO col %d\n", Place.X);
        }
        FixColumn(View, Image, Place.X, Distance);
    } else if (Record.BpX != 0) {
        DebugPrintAs(Depth::kRoutine, "invalid badpix!\n");
    } else {
        if (Place.Y < 0 || Place.Y >= View.Height) {
            DebugPrintAs(Depth::kRoutine, "ignore row ...\n");
            return;
        }
        if (Colour) {
            DebugPrintAs(Depth::kRoutine, "fix COLOR row %d\n", Place.Y);
        } else {
            DebugPrintAs(Depth::kRoutine, "fix MONO row %d\n", Place.Y);
        }
        FixRow(View, Image, Place.Y, Distance);
    }
}

// --------------------------------------------------------------------------------------------------- single pixels

constexpr bool UsesFarNeighbours(UCHAR Type)
{
    return (Type & (kBadPixColour | kBadPixDiagonal)) == kBadPixColour;
}

// Leaves only neighbours inside the image. What is read below depends on it.
FORCEINLINE UCHAR RestrictMask(UCHAR Type, const VIEW_PORT &View, const PLACE &Place)
{
    const bool Far = UsesFarNeighbours(Type);
    const LONG Distance = Far ? 2 : 1;
    unsigned Mask = Place.Mask;
    const bool Inside = Place.X >= Distance && Place.X < View.Width - Distance && Place.Y >= Distance &&
                        Place.Y < View.Height - Distance;
    if (!Inside) {
        Mask &= Place.X < Distance ? kNotLeft : kMaskAll;
        Mask &= Place.X >= View.Width - Distance ? kNotRight : kMaskAll;
        Mask &= Place.Y < Distance ? kNotTop : kMaskAll;
        Mask &= Place.Y >= View.Height - Distance ? kNotBottom : kMaskAll;
    }
    if (Far) {
        Mask &= kMaskCross;
    } else if ((Type & kBadPixDiagonal) != 0) {
        Mask &= kMaskDiagonals;
    }
    return static_cast<UCHAR>(Mask);
}

// Division by 1 to 8 as a multiplication, exact for every sum of eight 16-bit samples.
struct RECIPROCALS {
    ULONGLONG Of[kNeighbours + 1];
};

constexpr RECIPROCALS MakeReciprocals()
{
    RECIPROCALS Table = {};
    for (ULONG Divisor = 1; Divisor <= kNeighbours; ++Divisor) {
        Table.Of[Divisor] = (ULONGLONG{1} << 32) / Divisor + 1;
    }
    return Table;
}

constexpr RECIPROCALS kReciprocal = MakeReciprocals();

constexpr ULONG RoundedMean(ULONG Sum, ULONG Count)
{
    return static_cast<ULONG>(((Sum + Count / 2) * kReciprocal.Of[Count]) >> 32);
}
static_assert(RoundedMean(21, 2) == 11 && RoundedMean(4, 3) == 1 && RoundedMean(8 * 65535, 8) == 65535);
static_assert(RoundedMean(7 * 65535, 7) == 65535 && RoundedMean(7 * 65535 - 4, 7) == 65534 &&
              RoundedMean(3 * 65535 - 2, 3) == 65534 && RoundedMean(5 * 1023 + 2, 5) == 1023);

// The rounded mean of the selected neighbours. Most defects have all of theirs. For the others the mask selects without
// branches: an unselected place reads the pixel itself, which is taken off again.
template <typename Sample> FORCEINLINE LONG Interpolate(const Sample *Pixel, LONGLONG Row, UCHAR Mask, bool Far)
{
    if (Mask == kMaskAll) {
        const Sample *Above = Pixel - Row;
        const Sample *Below = Pixel + Row;
        const ULONG Sum = static_cast<ULONG>(Above[-1] + Above[0] + Above[1] + Pixel[-1] + Pixel[1] + Below[-1] +
                                             Below[0] + Below[1]);
        return static_cast<LONG>((Sum + kNeighbours / 2) / kNeighbours);
    }
    const LONG Distance = Far ? 2 : 1;
    const ULONG Count = kBitCount[Mask];
    ULONG Sum = 0;
    for (ULONG Index = 0; Index < kNeighbours; ++Index) {
        const NEIGHBOUR &Place = kNeighbourPlace[Index];
        const LONGLONG Offset = (Place.Y * Row + Place.X) * Distance;
        Sum += Pixel[(Mask >> Index & 1) != 0 ? Offset : 0];
    }
    return static_cast<LONG>(RoundedMean(Sum - (kNeighbours - Count) * *Pixel, Count));
}

template <typename Depth>
FORCEINLINE void FixPixel(const BADPIX_RECORD &Record, const VIEW_PORT &View, PLACE &Place,
                          typename Depth::Sample *Image)
{
    if (Place.FlipX) {
        Place.Mask = FlipXMaskTable[Place.Mask];
    }
    if (Place.FlipY) {
        Place.Mask = FlipYMaskTable[Place.Mask];
    }
    if (Place.X < 0 || Place.Y < 0 || Place.X >= View.Width || Place.Y >= View.Height || Place.Mask == 0) {
        if constexpr (Depth::kIgnoreSaysWhere) {
            DebugPrintAs(Depth::kRoutine, "ignore... x=%d y=%d W=%d H=%d mask=%02Xh\n", Place.X, Place.Y, View.Width,
                         View.Height, Place.Mask);
        } else {
            DebugPrintAs(Depth::kRoutine, "ignore...\n");
        }
        return;
    }
    DebugPrintAs(Depth::kRoutine, "Fix pixel: X=%d Y=%d Mask=%02Xh\n", Place.X, Place.Y, Place.Mask);

    typename Depth::Sample *Pixel = Image + PixelIndex(View, Place.X, Place.Y);
    const LONG Old = *Pixel;
    const UCHAR Mask = RestrictMask(Record.BpType, View, Place);
    const LONG New = Mask != 0 ? Interpolate(Pixel, View.Width, Mask, UsesFarNeighbours(Record.BpType)) : Old;
    DebugPrintAs(Depth::kRoutine, "Mask=%02Xh\n", Mask);

    const LONG Difference = Old > New ? Old - New : New - Old;
    const bool Always = (Record.BpType & kBadPixRuleBits) == 0 ||
                        ((Record.BpType & kBadPixUnlessClose2) != 0 && Old == Depth::kSaturated);
    if (Always || Difference > kCloseEnough) {
        *Pixel = static_cast<typename Depth::Sample>(New);
    }
    DebugPrintAs(Depth::kRoutine, "%d->%d\n", Old, *Pixel);
}

// ------------------------------------------------------------------------------------------------------- the pass

// Works on copies of the window and of each defect: no sample written to the image can be mistaken for a change of
// them. EveryPixel: the image is not decimated; that loop is short enough to be kept in registers.
template <typename Depth, bool EveryPixel>
void RepairRecords(const VIEW_PORT View, const BADPIX_RECORD *List, ULONG Count, typename Depth::Sample *Image)
{
    for (ULONG Index = 0; Index < Count; ++Index) {
        const BADPIX_RECORD Record = List[Index];
        DebugPrintAs(Depth::kRoutine, "BpX=%d BpY=%d Type=%d Mask=%02Xh\n", Record.BpX, Record.BpY, Record.BpType,
                     Record.BpPosMask);
        PLACE Place = {};
        const Placed Found = Find<Depth, EveryPixel>(Record, View, Place);
        if (Found == Placed::CannotTell) {
            return;
        }
        if (Found == Placed::NotInImage) {
            continue;
        }
        if ((Record.BpType & kBadPixRuleBits) == kBadPixLine) {
            FixLine<Depth>(Record, View, Place, Image);
        } else {
            FixPixel<Depth>(Record, View, Place, Image);
        }
    }
}

template <typename Depth>
void RepairImage(const VIEW_PORT &View, const BADPIX_RECORD *List, ULONG Count, typename Depth::Sample *Image)
{
    DebugPrintAs(Depth::kRoutine, "ViewPort: X=%d Y=%d W=%d H=%d\n", View.StartX, View.StartY, View.Width, View.Height);
    DebugPrintAs(Depth::kRoutine, Depth::kCountMessage, Count);
    if (View.Decimation == 1) {
        RepairRecords<Depth, true>(View, List, Count, Image);
    } else {
        RepairRecords<Depth, false>(View, List, Count, Image);
    }
}

// Mirrors and model are read where the geometry has them: in the record, or in the caller's copy.
template <typename Depth>
void Fix(const DEVICE_EXTENSION *DevExt, const FRAME_GEOMETRY &Geometry, const UCHAR &FlipX, const UCHAR &FlipY,
         const ULONG &ModelNo, typename Depth::Sample *Image)
{
    // Binned images, decimation below 1, are not repaired. A window that no frame buffer holds has no image.
    if (DevExt->BadPixNum == 0 || Geometry.Decimation < 1 ||
        ImageSize(Geometry.Width, Geometry.Height, sizeof(*Image) == 1 ? 8 : 10) > DevExt->FrameBufSize) {
        return;
    }
    const VIEW_PORT View = {Geometry.StartX,
                            Geometry.StartY,
                            static_cast<LONG>(Geometry.Width),
                            static_cast<LONG>(Geometry.Height),
                            Geometry.Decimation,
                            &FlipX,
                            &FlipY,
                            &ModelNo};
    RepairImage<Depth>(View, DevExt->BadPix, DevExt->BadPixNum, Image);
}

template <typename Depth> void FixInForce(const DEVICE_EXTENSION *DevExt, typename Depth::Sample *Image)
{
    Fix<Depth>(DevExt, CopyGeometry(DevExt), DevExt->FlipX, DevExt->FlipY, DevExt->ModelNo, Image);
}

template <typename Depth>
void FixCopied(const DEVICE_EXTENSION *DevExt, const FRAME_GEOMETRY &Geometry, typename Depth::Sample *Image)
{
    Fix<Depth>(DevExt, Geometry, Geometry.FlipX, Geometry.FlipY, Geometry.ModelNo, Image);
}

} // namespace

void FixBadPix8(PDEVICE_OBJECT DeviceObject, PUCHAR Image)
{
    FixInForce<REPAIR_8>(GetDevExt(DeviceObject), Image);
}

void FixBadPix10(PDEVICE_OBJECT DeviceObject, PUSHORT Image)
{
    FixInForce<REPAIR_10>(GetDevExt(DeviceObject), Image);
}

void FixBadPix8(DEVICE_EXTENSION *DevExt, const FRAME_GEOMETRY &Geometry, PUCHAR Image)
{
    FixCopied<REPAIR_8>(DevExt, Geometry, Image);
}

void FixBadPix10(DEVICE_EXTENSION *DevExt, const FRAME_GEOMETRY &Geometry, PUSHORT Image)
{
    FixCopied<REPAIR_10>(DevExt, Geometry, Image);
}
