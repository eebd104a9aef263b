#include "badpix.h"

#include "badpix_mask.h"
#include "camcmd.h"
#include "debug.h"
#include "hwcommand.h"
#include "owners.h"

USBCAM_MODULE("drv/usb/badpix")

namespace {

constexpr UCHAR kCameraInfoExCommand = 0x12;
constexpr ULONG kRecordsPerRead = 6; // 30 bytes of the 63 that one reply can carry

// For each kind of record, the mask bit of a neighbour by its distance: entry (y + 2) * 5 + x + 2.
struct NEIGHBOUR_BITS {
    UCHAR Bit[25];
};

constexpr NEIGHBOUR_BITS MakeNeighbourBits(UCHAR Used, LONG Distance)
{
    NEIGHBOUR_BITS Bits = {};
    for (ULONG Index = 0; Index < kNeighbours; ++Index) {
        if ((Used >> Index & 1) != 0) {
            const NEIGHBOUR &Place = kNeighbourPlace[Index];
            Bits.Bit[(Place.Y * Distance + 2) * 5 + Place.X * Distance + 2] = static_cast<UCHAR>(1u << Index);
        }
    }
    return Bits;
}

constexpr NEIGHBOUR_BITS kMonoBits = MakeNeighbourBits(kMaskAll, 1);
constexpr NEIGHBOUR_BITS kDiagonalBits = MakeNeighbourBits(kMaskDiagonals, 1);
constexpr NEIGHBOUR_BITS kCrossBits = MakeNeighbourBits(kMaskCross, 2);
static_assert(kMonoBits.Bit[6] == 0x01 && kMonoBits.Bit[12] == 0 && kMonoBits.Bit[18] == 0x80);
static_assert(kCrossBits.Bit[2] == 0x02 && kCrossBits.Bit[14] == 0x10 && kCrossBits.Bit[22] == 0x40);

const NEIGHBOUR_BITS &NeighbourBits(UCHAR Type)
{
    if ((Type & kBadPixColour) == 0) {
        return kMonoBits;
    }
    return (Type & kBadPixDiagonal) != 0 ? kDiagonalBits : kCrossBits;
}

constexpr UCHAR InitialMask(UCHAR Type)
{
    if ((Type & kBadPixColour) == 0) {
        return kMaskAll;
    }
    return (Type & kBadPixDiagonal) != 0 ? kMaskDiagonals : kMaskCross;
}

// The bits of BpType in which two records must agree to be of one colour.
constexpr UCHAR ColourBits(UCHAR Type)
{
    return (Type & kBadPixColour) != 0 ? kBadPixColour | kBadPixDiagonal : kBadPixColour;
}

// One coordinate of B from that corner of the 5 x 5 places around A; unsigned, so that one comparison covers both
// sides.
constexpr unsigned FromCorner(USHORT A, USHORT B)
{
    return static_cast<unsigned>(B - A + 2);
}
static_assert(FromCorner(0, 0) == 2 && FromCorner(0, 65535) > 4 && FromCorner(3, 0) > 4 && FromCorner(5, 3) == 0);

// Nearly all of the pairs of a long list are far apart: this is what the analysis spends its time on.
inline bool MayBeNeighbours(const BADPIX_RECORD &A, const BADPIX_RECORD &B)
{
    return FromCorner(A.BpY, B.BpY) <= 4 && FromCorner(A.BpX, B.BpX) <= 4;
}

// How many records the camera's flash holds. A reply without the count comes from firmware that keeps no list.
_IRQL_requires_max_(PASSIVE_LEVEL) bool QueryBadPixCount(PDEVICE_OBJECT DeviceObject, ULONG &Count)
{
    UCHAR Info[kCameraInfoExSize] = {};
    ULONG Length = 0;
    const NTSTATUS Status =
        HwCommand(DeviceObject, kCameraInfoExCommand, nullptr, 0, Info, static_cast<ULONG>(sizeof(Info)), &Length);
    if (!NT_SUCCESS(Status) || Length < sizeof(Info)) {
        return false;
    }
    Count = ReadLe32(Info + kInfoExDefects);
    return true;
}

BADPIX_RECORD ParseRecord(const UCHAR *Bytes)
{
    return {ReadLe16(Bytes), ReadLe16(Bytes + 2), Bytes[4], 0};
}

} // namespace

// The list is replaced in two steps, each with nobody repairing: taken away before the flash is read, which takes many
// commands, and shown again when all of it is there, masks included.
void LoadBadPix(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *DevExt = GetDevExt(DeviceObject);
    DebugPrint("start\n");
    {
        const BufferHold Hold(DevExt, BufferAccess::Exclusive);
        FreeBadPix(DevExt);
    }
    ULONG Count = 0;
    if (QueryBadPixCount(DeviceObject, Count)) {
        DebugPrint("Load bad pixel from 1st flash(Num=%d)\n", Count);
        const ULONG Loaded = LoadBadPixFrom1stFlash(DeviceObject, Count);
        const BufferHold Hold(DevExt, BufferAccess::Exclusive);
        DevExt->BadPixNum = Loaded;
        if (Loaded > 0) {
            AnalizeBadPix(DeviceObject);
        }
    } else {
        ErrorPrint(" Very old firmware or VQT_GetCameraInfoEx() fail!\n");
    }
    DebugPrint("Finish, load %d BadPixels\n", DevExt->BadPixNum);
}

ULONG LoadBadPixFrom1stFlash(PDEVICE_OBJECT DeviceObject, ULONG Count)
{
    DEVICE_EXTENSION *DevExt = GetDevExt(DeviceObject);
    if (Count == 0) {
        return 0;
    }
    DebugPrint("BadPixNum=%d\n", Count);
    if (Count > kBadPixLimit) {
        // Erased flash counts 4294967295.
        ErrorPrint("BadPixNum=%u > %u, no list\n", Count, kBadPixLimit);
        return 0;
    }
    DevExt->BadPix = PoolBlock<BADPIX_RECORD>::Allocate(SIZE_T{Count} * sizeof(BADPIX_RECORD)).Release();
    if (DevExt->BadPix == nullptr) {
        ErrorPrint("Allocate memory fail!\n");
        return 0;
    }

    ULONG Loaded = 0;
    while (Loaded < Count) {
        const ULONG Records = Count - Loaded < kRecordsPerRead ? Count - Loaded : kRecordsPerRead;
        const ULONG Address = kBadPixFlashEnd - kBadPixFlashRecord * (Count - Loaded);
        UCHAR Bytes[kRecordsPerRead * kBadPixFlashRecord] = {};
        const NTSTATUS Status =
            VQT_ReadFlash(DeviceObject, static_cast<USHORT>(Address), Records * kBadPixFlashRecord, Bytes);
        if (!NT_SUCCESS(Status)) {
            ErrorPrint("ReadFlash1 status=%02Xh fail!\n", Status);
            break;
        }
        for (ULONG Index = 0; Index < Records; ++Index) {
            DevExt->BadPix[Loaded + Index] = ParseRecord(Bytes + Index * kBadPixFlashRecord);
        }
        Loaded += Records;
    }
    DebugPrint("Loaded %d bad pixels\n", Loaded);
    return Loaded;
}

void UpdateBpPosMask(BADPIX_RECORD *A, const BADPIX_RECORD *B)
{
    if (!MayBeNeighbours(*A, *B) || ((A->BpType ^ B->BpType) & ColourBits(A->BpType)) != 0) {
        return;
    }
    const unsigned Entry = FromCorner(A->BpY, B->BpY) * 5 + FromCorner(A->BpX, B->BpX);
    A->BpPosMask = static_cast<UCHAR>(A->BpPosMask & ~NeighbourBits(A->BpType).Bit[Entry]);
}

void AnalizeBadPix(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *DevExt = GetDevExt(DeviceObject);
    const ULONG Count = DevExt->BadPixNum;
    BADPIX_RECORD *const List = DevExt->BadPix;
    DebugPrint("start BadPixNum=%d\n", Count);
    if (Count == 0) {
        return;
    }
    for (ULONG Index = 0; Index < Count; ++Index) {
        BADPIX_RECORD Record = List[Index];
        DebugPrint("BadPix[%d].BpType=%02Xh\n", Index, Record.BpType);
        Record.BpPosMask = InitialMask(Record.BpType);
        DebugPrint("BadPix[%d].BpPosMask=%02Xh\n", Index, Record.BpPosMask);
        for (ULONG Other = 0; Other < Count; ++Other) {
            if (Other != Index && MayBeNeighbours(Record, List[Other])) {
                UpdateBpPosMask(&Record, &List[Other]);
            }
        }
        List[Index].BpPosMask = Record.BpPosMask;
        DebugPrint("BadPix[%d].BpPosMask=%02Xh\n", Index, Record.BpPosMask);
    }
    DebugPrint("finish\n");
}

void FreeBadPix(DEVICE_EXTENSION *DevExt)
{
    DevExt->BadPixNum = 0;
    PoolBlock<BADPIX_RECORD>(std::exchange(DevExt->BadPix, nullptr)).Reset();
}
