// Pictures of any size onto the sensor, in integers: the kernel's floating-point state is not ours.
#include "scene.h"

namespace simbus {

namespace {

constexpr ULONG TenBits(ULONG Byte) { return Byte * 4 + Byte / 64; }
static_assert(TenBits(255) == 1023 && TenBits(0) == 0);

const UCHAR *PixelAt(const PICTURE &Picture, ULONG x, ULONG y)
{
    return Picture.Pixels + (SIZE_T{y} * Picture.Width + x) * Picture.Channels;
}

// A position on a picture's axis in 1/256 pixels: the middle of target pixel i of n, measured from the middle of source
// pixel 0, not before it and not behind the last one's.
ULONG Position(ULONG i, ULONG Target, ULONG Source)
{
    const LONGLONG Middle = (LONGLONG{2} * i + 1) * Source * 128 / Target - 128;
    const LONGLONG Last = (LONGLONG{Source} - 1) * 256;
    return static_cast<ULONG>(Middle < 0 ? 0 : Middle > Last ? Last : Middle);
}

ULONG Bilinear(const PICTURE &Picture, ULONG px, ULONG py, ULONG Part)
{
    const ULONG x = px / 256, y = py / 256, fx = px % 256, fy = py % 256;
    const ULONG x1 = Smaller(x + 1, Picture.Width - 1), y1 = Smaller(y + 1, Picture.Height - 1);
    const ULONG Above = PixelAt(Picture, x, y)[Part] * (256 - fx) + PixelAt(Picture, x1, y)[Part] * fx;
    const ULONG Below = PixelAt(Picture, x, y1)[Part] * (256 - fx) + PixelAt(Picture, x1, y1)[Part] * fx;
    return (Above * (256 - fy) + Below * fy + 0x8000) >> 16;
}

struct SPAN {
    ULONG First, Count;
};

// The source pixels under target pixel i, at least one.
SPAN SpanOf(ULONG i, ULONG Target, ULONG Source)
{
    const ULONG First = static_cast<ULONG>(ULONGLONG{i} * Source / Target);
    const ULONG End = static_cast<ULONG>((ULONGLONG{i} + 1) * Source / Target);
    return {First, End > First ? End - First : 1};
}

ULONG Area(const PICTURE &Picture, SPAN Columns, SPAN Rows, ULONG Part)
{
    ULONGLONG Sum = 0;
    for (ULONG y = 0; y < Rows.Count; ++y) {
        const UCHAR *Pixel = PixelAt(Picture, Columns.First, Rows.First + y) + Part;
        for (ULONG x = 0; x < Columns.Count; ++x, Pixel += Picture.Channels) Sum += *Pixel;
    }
    const ULONGLONG Count = ULONGLONG{Columns.Count} * Rows.Count;
    return static_cast<ULONG>((Sum + Count / 2) / Count);
}

}  // namespace

void ResamplePicture(const PICTURE &Picture, bool Mono, USHORT *Base, ULONG Width, ULONG Height)
{
    const bool Shrinks = Picture.Width > Width || Picture.Height > Height;
    for (ULONG y = 0; y < Height; ++y) {
        const SPAN Rows = SpanOf(y, Height, Picture.Height);
        const ULONG py = Position(y, Height, Picture.Height);
        for (ULONG x = 0; x < Width; ++x) {
            const SPAN Columns = SpanOf(x, Width, Picture.Width);
            const ULONG px = Position(x, Width, Picture.Width);
            const auto Part = [&](ULONG Channel) {
                return TenBits(Shrinks ? Area(Picture, Columns, Rows, Channel) : Bilinear(Picture, px, py, Channel));
            };
            ULONG Sample;
            if (Picture.Channels == 1) Sample = Part(0);
            else if (Mono) Sample = Luminance(Part(0), Part(1), Part(2));
            else Sample = Part(MosaicComponent(x, y));
            Base[SIZE_T{y} * Width + x] = static_cast<USHORT>(Sample);
        }
    }
}

}  // namespace simbus
