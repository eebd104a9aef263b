#include "frame.h"

#include "debug.h"
#include "frame_scan.h"

USBCAM_MODULE("drv/usb/frame")

namespace {

constexpr UCHAR kPixelBits = 0xF4;          // the first image byte gives bits 0, 1 and 3 to the frame flags
constexpr ULONG kFollowedBits = 0x0FFFFFFF; // of the following line's header: what tells that it is the expected one
constexpr ULONG kLineStatusEntries = sizeof(FRAME_HEADER::LineStatus);
static_assert(kFrameHeaderClear == offsetof(FRAME_HEADER, Reserved3));

// The line word, taken apart.
struct LINE_WORD {
    ULONG Line;
    UCHAR Tag;   // bits 13-15 as bits 5-7
    UCHAR Flags; // bits 14-15
};

constexpr LINE_WORD SplitLineWord(USHORT Word)
{
    return {Word & 0x1FFFu, static_cast<UCHAR>((Word >> 8) & 0xE0), static_cast<UCHAR>((Word >> 14) & 3)};
}
static_assert(SplitLineWord(0xFFFF).Line == 8191 && SplitLineWord(0xFFFF).Tag == 0xE0 &&
              SplitLineWord(0xFFFF).Flags == 3);
static_assert(SplitLineWord(0x4005).Line == 5 && SplitLineWord(0x4005).Tag == 0x40 && SplitLineWord(0x4005).Flags == 1);

#pragma pack(push, 1)
struct LINE_HEADER {
    ULONG Bytes; // the signature, then the line word
};
#pragma pack(pop)
static_assert(sizeof(LINE_HEADER) == kLineHeaderSize);

constexpr ULONG kSignature = kSignature0 | kSignature1 << 8;

// Read once, whole: what was checked is what is used, whatever happens to the block meanwhile.
inline ULONG ReadLineHeader(const UCHAR *Bytes)
{
    return reinterpret_cast<const volatile LINE_HEADER *>(Bytes)->Bytes;
}

// The lines of one block, by one reading of the geometry. The window can change while the block is parsed: every offset
// into the image below comes from here and lies inside the frame buffer.
struct BLOCK_GEOMETRY {
    ULONG Width;
    ULONG Height;
    ULONG BitsPerPixel;
    ULONGLONG LineLength; // pixel bytes in the stream
    ULONGLONG Need;       // a header, one line and the next line's header
    ULONGLONG Pitch;      // image bytes of a row
    ULONG Rows;           // Height, as far as buffer and LineStatus reach: all of it for every window the sensor has
};

BLOCK_GEOMETRY ReadBlockGeometry(const DEVICE_EXTENSION *DevExt)
{
    BLOCK_GEOMETRY Block = {};
    Block.Width = ReadOnce(DevExt->Width);
    Block.Height = ReadOnce(DevExt->Height);
    Block.BitsPerPixel = ReadOnce(DevExt->BitsPerPixel);
    Block.LineLength = StreamLineLength(Block.Width, Block.BitsPerPixel);
    Block.Need = Block.LineLength + 2 * kLineHeaderSize;
    Block.Pitch = ImagePitch(Block.Width, Block.BitsPerPixel);
    Block.Rows = Block.Height < kLineStatusEntries ? Block.Height : kLineStatusEntries;
    if (Block.Pitch != 0 && DevExt->FrameBufSize / Block.Pitch < Block.Rows) {
        Block.Rows = static_cast<ULONG>(DevExt->FrameBufSize / Block.Pitch);
    }
    return Block;
}

// Puts the tail of the previous block in front of this one: one contiguous run without another copy.
void PrependSavedTail(DEVICE_EXTENSION *DevExt, PUCHAR &Data, SIZE_T &Left)
{
    if (DevExt->SavedLen != 0) {
        Data -= DevExt->SavedLen;
        Left += DevExt->SavedLen;
        RtlCopyMemory(Data, DevExt->SavedBuffer, DevExt->SavedLen);
        DevExt->SavedLen = 0;
    }
}

void SaveTail(DEVICE_EXTENSION *DevExt, const UCHAR *Data, SIZE_T Left)
{
    if (Left > sizeof(DevExt->SavedBuffer)) {
        ErrorPrintAs("ProcessFrameBlock", "Size=%d > sizeof(buffer) \n", static_cast<ULONG>(Left));
    } else if (Left != 0) {
        RtlCopyMemory(DevExt->SavedBuffer, Data, Left);
        DevExt->SavedLen = static_cast<ULONG>(Left);
    }
}

inline FRAME_HEADER *CurrentHeader(DEVICE_EXTENSION *DevExt)
{
    return reinterpret_cast<FRAME_HEADER *>(DevExt->Frame[DevExt->CurFrame]);
}

inline PUCHAR ImageOf(FRAME_HEADER *Header)
{
    return reinterpret_cast<PUCHAR>(Header) + kFrameHeaderSize;
}

ULONGLONG SystemTime()
{
    LARGE_INTEGER Now = {};
    KeQuerySystemTime(&Now);
    return static_cast<ULONGLONG>(Now.QuadPart);
}

void PrepareFrame(FRAME_HEADER *Header)
{
    RtlZeroMemory(Header, kFrameHeaderClear);
    Header->StartTime = SystemTime();
}

inline void SetFrameFlags(FRAME_HEADER *Header, UCHAR Flags)
{
    UCHAR &FirstByte = *ImageOf(Header);
    FirstByte = static_cast<UCHAR>((FirstByte & kPixelBits) | Flags);
}

// Looks for the next line. False when the run ends before one.
inline bool SkipToSignature(const char *Routine, const UCHAR *&Data, SIZE_T &Left)
{
    const SIZE_T Skipped = FindSignature(Data, Left);
    Data += Skipped;
    Left -= Skipped;
    if (Left < 2) {
        return false;
    }
    if (Skipped != 0) {
        DebugPrintAs(Routine, "skip %d byte(s) \n", static_cast<ULONG>(Skipped));
    }
    return true;
}

} // namespace

void ResetFrameAssembly(DEVICE_EXTENSION *DevExt)
{
    DevExt->SavedLen = 0;
    DevExt->FrameCounter = 0;
    DevExt->NextLineNo = 0;
    DevExt->CurFrame = 0;
    WriteOnce(DevExt->FrameReadyPtr, nullptr);
    RtlZeroMemory(DevExt->FrameLen, sizeof(DevExt->FrameLen));
    PrepareFrame(CurrentHeader(DevExt));
}

void NextFrameReady(DEVICE_EXTENSION *DevExt)
{
    const ULONG Width = ReadOnce(DevExt->Width);
    const ULONG Height = ReadOnce(DevExt->Height);
    const ULONG BitsPerPixel = ReadOnce(DevExt->BitsPerPixel);

    FRAME_HEADER *Header = CurrentHeader(DevExt);
    Header->EndTime = SystemTime();
    Header->FrameNumber = DevExt->FrameCounter;
    Header->Width = Width;
    Header->Height = Height;
    Header->BitsPerPixel = static_cast<UCHAR>(BitsPerPixel);
    Header->Pitch = static_cast<ULONG>(ImagePitch(Width, BitsPerPixel));
    Header->ImageSize = Header->Pitch * Height;
    Header->CameraStatus = ReadOnce(DevExt->CameraStatus);

    InterlockedIncrement(reinterpret_cast<LONG *>(&DevExt->TotalFrames));
    InterlockedExchangeAdd(reinterpret_cast<LONG *>(&DevExt->Resyncs), static_cast<LONG>(Header->Resyncs));

    // A reader may look without having waited for the event: everything above is in place before the pointer is.
    WriteOnce(DevExt->FrameReadyPtr, DevExt->Frame[DevExt->CurFrame]);
    DevExt->FrameReadySize = DevExt->FrameLen[DevExt->CurFrame];
    DevExt->FrameLen[DevExt->CurFrame] = 0;
    DevExt->CurFrame = DevExt->CurFrame >= kFrameBuffers - 1 ? 0 : DevExt->CurFrame + 1;
    DebugPrint("TotalBlocks=%d, TotalFrames=%d, Resyncs=%d FrameReadySize=%d \n", ReadOnce(DevExt->TotalBlocks),
               ReadOnce(DevExt->TotalFrames), ReadOnce(DevExt->Resyncs), DevExt->FrameReadySize);
    KeSetEvent(&DevExt->FrameReadyEv, 1, FALSE);
    DevExt->FrameCounter++;
    PrepareFrame(CurrentHeader(DevExt));
}

// Per line: look at the header and at the one behind the pixels, then one copy. What changes from line to line is kept
// in locals, because stores to the frame could otherwise be stores to the record.
void ProcessFrameBlock(DEVICE_EXTENSION *DevExt, PUCHAR Data, ULONG Size)
{
    const BLOCK_GEOMETRY Block = ReadBlockGeometry(DevExt);
    DebugPrint("Buffer=%p Size=%d SavedLen=%d %d Bits\n", Data, Size, DevExt->SavedLen, Block.BitsPerPixel);
    SIZE_T Left = Size;
    PrependSavedTail(DevExt, Data, Left);

    const UCHAR *Next = Data;
    FRAME_HEADER *Header = CurrentHeader(DevExt);
    PUCHAR Image = ImageOf(Header);
    ULONG Expected = DevExt->NextLineNo;
    ULONG Stored = 0; // lines since the frame length was last brought up to date

    for (;;) {
        SkipToSignature(__func__, Next, Left);
        Image[0] &= kPixelBits;
        if (Left < Block.Need) {
            break;
        }

        const LINE_WORD Word = SplitLineWord(static_cast<USHORT>(ReadLineHeader(Next) >> 16));
        Next += kLineHeaderSize;
        Left -= kLineHeaderSize;
        if (Word.Line >= Block.Rows) {
            Header->Resyncs++;
            ErrorPrint("Incorrect lineno=%d > %d=frame height\n", Word.Line, Block.Height);
            continue;
        }

        if (Word.Tag != DevExt->LastLineTag) {
            Header->LineFlags++;
            DevExt->LastLineTag = Word.Tag;
        }
        const ULONG Following = Word.Line + 1 >= Block.Rows ? 0 : Word.Line + 1;
        const ULONG After = ReadLineHeader(Next + Block.LineLength);
        const bool Followed = (After & kFollowedBits) == (kSignature | Following << 16);

        bool Completes = false;
        bool BeginsLate = false;
        if (Word.Line != Expected) {
            Header->Resyncs++;
            ErrorPrint("Must be lineno=%d, found lineno=%d\n", Expected, Word.Line);
            Completes = Word.Line < Expected;
            BeginsLate = Completes && Word.Line > 0;
        } else {
            Header->LineFlags = Word.Flags;
            if (Word.Line == 0) {
                DevExt->LastLineTag = 0;
                Header->LineFlags = 0;
                Completes = true;
            }
        }
        if (Completes) {
            SetFrameFlags(Header, Word.Flags);
            DevExt->FrameLen[DevExt->CurFrame] += static_cast<ULONG>(Stored * Block.Pitch);
            Stored = 0;
            NextFrameReady(DevExt);
            Header = CurrentHeader(DevExt);
            Image = ImageOf(Header);
            if (BeginsLate) {
                Header->Resyncs++;
            }
        }

        Header->LineStatus[Word.Line] = static_cast<UCHAR>(Word.Tag + (Followed ? 1 : 0));
        Expected = Following;
        PUCHAR Row = Image + Word.Line * Block.Pitch;
        if (Block.BitsPerPixel == 8) {
            RtlCopyMemory(Row, Next, static_cast<SIZE_T>(Block.LineLength));
        } else {
            Unpack10Bit(Next, reinterpret_cast<PUSHORT>(Row), static_cast<ULONG>(Block.LineLength));
        }
        Stored++;
        Next += Block.LineLength;
        Left -= static_cast<SIZE_T>(Block.LineLength);
    }

    DevExt->NextLineNo = Expected;
    DevExt->FrameLen[DevExt->CurFrame] += static_cast<ULONG>(Stored * Block.Pitch);
    DebugPrint("No buffer for one line bufsize=%d < %d\n", static_cast<ULONG>(Left), static_cast<ULONG>(Block.Need));
    SaveTail(DevExt, Next, Left);
}

namespace {

// One line's pixels into its row of the image. Returns the image bytes written.
inline ULONG StoreLine(PUCHAR Row, const UCHAR *Pixels, ULONG Bytes)
{
    RtlCopyMemory(Row, Pixels, Bytes);
    return Bytes;
}

inline ULONG StoreLine(PUSHORT Row, const UCHAR *Pixels, ULONG Bytes)
{
    Unpack10Bit(Pixels, Row, Bytes);
    return Bytes / kPackedGroup * kGroupPixels * static_cast<ULONG>(sizeof(USHORT));
}

template <typename Sample>
void ConvertStream(const FRAME_GEOMETRY &Geometry, const UCHAR *Stream, ULONG Size, Sample *Image, PULONG RetSize)
{
    constexpr const char *kRoutine = "checkSignature";
    constexpr ULONG kBits = sizeof(Sample) == 1 ? 8 : 10;
    const ULONGLONG LineLength = StreamLineLength(Geometry.Width, kBits);
    const ULONGLONG Whole = ImageSize(Geometry.Width, Geometry.Height, kBits);

    ULONGLONG Written = 0;
    SIZE_T Left = Size;
    while (SkipToSignature(kRoutine, Stream, Left) && Left >= kLineHeaderSize) {
        const ULONG Line = ReadLineHeader(Stream) >> 16;
        Stream += kLineHeaderSize;
        Left -= kLineHeaderSize;
        if (Line >= Geometry.Height) {
            continue;
        }
        const ULONG Bytes = static_cast<ULONG>(LineLength < Left ? LineLength : Left);
        Written += StoreLine(Image + SIZE_T{Line} * Geometry.Width, Stream, Bytes);
        Stream += Bytes;
        Left -= Bytes;
    }
    DebugPrintAs(kRoutine, "Too small buffer, size=%d \n", static_cast<ULONG>(Left));
    *RetSize = static_cast<ULONG>(Written < Whole ? Written : Whole);
}

} // namespace

void checkSignature(const FRAME_GEOMETRY &Geometry, const UCHAR *Stream, ULONG Size, PUCHAR Image, PULONG RetSize)
{
    ConvertStream(Geometry, Stream, Size, Image, RetSize);
}

void checkSignature(const FRAME_GEOMETRY &Geometry, const UCHAR *Stream, ULONG Size, PUSHORT Image, PULONG RetSize)
{
    ConvertStream(Geometry, Stream, Size, Image, RetSize);
}

void checkSignature(DEVICE_EXTENSION *DevExt, const UCHAR *Stream, ULONG Size, PUCHAR Image, PULONG RetSize)
{
    ConvertStream(CopyGeometry(DevExt), Stream, Size, Image, RetSize);
}

void checkSignature(DEVICE_EXTENSION *DevExt, const UCHAR *Stream, ULONG Size, PUSHORT Image, PULONG RetSize)
{
    ConvertStream(CopyGeometry(DevExt), Stream, Size, Image, RetSize);
}
