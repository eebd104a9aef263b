// Neighbour masks: which bit stands for which place around a pixel, and what mirroring an image does to them.
#pragma once

#include "badpix.h"

constexpr ULONG kNeighbours = 8;

struct NEIGHBOUR {
    LONG X;
    LONG Y;
};

// The place of each bit at distance 1; distance 2 is twice as far.
constexpr NEIGHBOUR kNeighbourPlace[kNeighbours] = {{-1, -1}, {0, -1}, {1, -1}, {-1, 0},
                                                    {1, 0},   {-1, 1}, {0, 1},  {1, 1}};

struct MASK_TABLE {
    UCHAR Entry[256];
    constexpr UCHAR operator[](UCHAR Index) const
    {
        return Entry[Index];
    }
};

constexpr UCHAR ExchangeBits(UCHAR Mask, unsigned A, unsigned B)
{
    const unsigned Differ = ((Mask >> A) ^ (Mask >> B)) & 1u;
    return static_cast<UCHAR>(Mask ^ (Differ << A) ^ (Differ << B));
}
static_assert(ExchangeBits(0x01, 0, 2) == 0x04 && ExchangeBits(0x04, 0, 2) == 0x01 && ExchangeBits(0x05, 0, 2) == 0x05);

// What a mask becomes in an image whose columns, or rows, are mirrored.
constexpr MASK_TABLE MakeMirrorTable(bool Columns)
{
    MASK_TABLE Table = {};
    for (unsigned Mask = 0; Mask < 256; ++Mask) {
        UCHAR Mirrored = static_cast<UCHAR>(Mask);
        Mirrored = Columns ? ExchangeBits(Mirrored, 0, 2) : ExchangeBits(Mirrored, 0, 5);
        Mirrored = Columns ? ExchangeBits(Mirrored, 3, 4) : ExchangeBits(Mirrored, 1, 6);
        Mirrored = Columns ? ExchangeBits(Mirrored, 5, 7) : ExchangeBits(Mirrored, 2, 7);
        Table.Entry[Mask] = Mirrored;
    }
    return Table;
}

inline constexpr MASK_TABLE FlipXMaskTable = MakeMirrorTable(true);
inline constexpr MASK_TABLE FlipYMaskTable = MakeMirrorTable(false);
static_assert(FlipXMaskTable[0x01] == 0x04 && FlipXMaskTable[0x29] == 0x94 && FlipXMaskTable[0x42] == 0x42);
static_assert(FlipYMaskTable[0x01] == 0x20 && FlipYMaskTable[0x07] == 0xE0 && FlipYMaskTable[0x18] == 0x18);
static_assert(FlipXMaskTable[kMaskCross] == kMaskCross && FlipYMaskTable[kMaskCross] == kMaskCross);
static_assert(FlipXMaskTable[kMaskDiagonals] == kMaskDiagonals && FlipYMaskTable[kMaskDiagonals] == kMaskDiagonals);

constexpr MASK_TABLE MakeBitCountTable()
{
    MASK_TABLE Table = {};
    for (unsigned Mask = 1; Mask < 256; ++Mask) {
        Table.Entry[Mask] = static_cast<UCHAR>(Table.Entry[Mask / 2] + (Mask & 1));
    }
    return Table;
}

inline constexpr MASK_TABLE kBitCount = MakeBitCountTable();
static_assert(kBitCount[0] == 0 && kBitCount[0xFF] == 8 && kBitCount[0x5A] == 4 && kBitCount[0x80] == 1);
