// The test chart: something in it shows every mistake a camera path can make. A frame of one pixel (a window off by one), a
// gradient in both directions (lost or doubled lines), lines one to four pixels apart (decimation, sharpness), rings (aliasing,
// mirrors), patches of pure colour (the mosaic's phase) and a staircase of greys (depth).
#include "scene.h"

namespace simbus {

namespace {

constexpr COLOUR Grey(ULONG Level)
{
    const USHORT Part = static_cast<USHORT>(Level);
    return {{Part, Part, Part}};
}

constexpr COLOUR kPatches[] = {
    {{960, 80, 80}},  {{80, 960, 80}},  {{80, 80, 960}},  {{960, 960, 80}},  {{80, 960, 960}},  {{960, 80, 960}},
    {{720, 420, 300}}, {{300, 520, 720}}, {{360, 480, 200}}, {{540, 500, 760}}, {{900, 620, 160}}, {{180, 180, 180}},
};
constexpr ULONG kPatchColumns = 6;

constexpr COLOUR Background(ULONG x, ULONG y, ULONG Width, ULONG Height)
{
    const ULONG Across = 64 + 640 * x / Width, Down = 240 * y / Height;
    const COLOUR Colour = {{static_cast<USHORT>(Across + Down), static_cast<USHORT>(Across + Down / 2),
                            static_cast<USHORT>(944 - Across)}};
    return Colour;
}

}  // namespace

COLOUR ChartColour(ULONG x, ULONG y, ULONG Width, ULONG Height)
{
    const ULONG Edge = Smaller(Smaller(x, Width - 1 - x), Smaller(y, Height - 1 - y));
    if (Edge == 0) return Grey(1023);
    if (Edge == 1) return Grey(0);

    const ULONG Unit = Height / 16;   // 64, 75 or 96 pixels
    const ULONG Row = y / Unit, Column = x / Unit;

    // Two rows of patches on the left.
    if (Row >= 3 && Row < 7 && Column >= 1 && Column < 1 + kPatchColumns) {
        return kPatches[(Row - 3) / 2 * kPatchColumns + (Column - 1)];
    }
    // Lines on the right: upright ones above, level ones below, one to four pixels wide.
    const ULONG FirstLines = Width / Unit - 5;
    if (Column >= FirstLines && Column < FirstLines + 4) {
        const ULONG Wide = Column - FirstLines + 1;
        if (Row >= 3 && Row < 5) return Grey(x / Wide % 2 == 0 ? 40 : 980);
        if (Row >= 5 && Row < 7) return Grey(y / Wide % 2 == 0 ? 40 : 980);
    }
    // Rings around the middle, ever finer.
    const LONG dx = static_cast<LONG>(x) - static_cast<LONG>(Width / 2);
    const LONG dy = static_cast<LONG>(y) - static_cast<LONG>(Height / 2);
    const ULONG Distance = static_cast<ULONG>(dx * dx + dy * dy);
    if (Distance < 9 * Unit * Unit) return Grey((Distance / (Unit * 4)) % 2 == 0 ? 120 : 900);
    // A slanting edge below the rings' left, a disc below their right.
    if (Row >= 9 && Row < 13 && Column >= 1 && Column < 5) {
        return Grey((x - Unit) * 4 > (y - 9 * Unit) * 3 + Unit ? 860 : 140);
    }
    const LONG cx = static_cast<LONG>(x) - static_cast<LONG>(Width - 3 * Unit);
    const LONG cy = static_cast<LONG>(y) - static_cast<LONG>(11 * Unit);
    const ULONG Disc = static_cast<ULONG>(cx * cx + cy * cy);
    if (Disc < 4 * Unit * Unit) return Disc < Unit * Unit ? COLOUR{{940, 300, 60}} : COLOUR{{60, 300, 940}};
    // Sixteen greys along the lower edge, then a ramp through all 1024 levels.
    if (Row == 13) return Grey(x * 16 / Width * 68);
    if (Row == 14) return Grey(x * 1024 / Width);
    return Background(x, y, Width, Height);
}

}  // namespace simbus
