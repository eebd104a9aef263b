#include "stream.h"

namespace simbus {

namespace {

constexpr UCHAR kSignatureLow = 0xA5, kSignatureHigh = 0x3C;

struct FAULT_RUN {
    const LINE_FAULT *First;
    ULONG Count;
};

// The faults of one line that were scripted for this frame number.
FAULT_RUN FaultsAt(const LINE_FAULT_TABLE &Table, ULONG Frame, ULONG Line)
{
    ULONG Low = 0, High = Table.Count;
    while (Low < High) {
        const ULONG Middle = (Low + High) / 2;
        const LINE_FAULT &Fault = Table.Faults[Middle];
        if (Fault.Frame < Frame || (Fault.Frame == Frame && Fault.Line < Line)) Low = Middle + 1;
        else High = Middle;
    }
    ULONG Count = 0;
    while (Low + Count < Table.Count && Table.Faults[Low + Count].Frame == Frame && Table.Faults[Low + Count].Line == Line) {
        ++Count;
    }
    return {Table.Faults + Low, Count};
}

// Calls Do for every fault of the line: those of this frame, then those of every frame.
template <typename ACTION>
void ForFaults(const STREAM &Stream, ULONG Line, ACTION Do)
{
    if (Stream.Faults.Count == 0) return;
    const ULONG Frames[] = {Stream.Frame, kEveryFrame};
    for (ULONG Frame : Frames) {
        const FAULT_RUN Run = FaultsAt(Stream.Faults, Frame, Line);
        for (ULONG i = 0; i < Run.Count; ++i) Do(Run.First[i]);
        if (Stream.Frame == kEveryFrame) break;
    }
}

ULONG FlagBits(const STREAM &Stream, ULONG Line)
{
    if (Stream.Single) return 0;   // a capture takes all sixteen bits for the line's number
    switch (Stream.FlagRule) {
    case kFlagsFixed: return Stream.FlagValue & 7;
    case kFlagsByLine: return (Stream.Frame + Line) & 7;
    default: return Stream.Frame & 7;
    }
}

bool BeginFrame(STREAM &Stream, const STREAM_SOURCE &Source)
{
    if (!ScenePrepare(*Source.Scene)) return false;
    const GEOMETRY Geometry = SensorGeometry(Source.Model, Source.Registers);
    Stream.Geometry = Geometry;
    Stream.Bits = Source.Bits;
    Stream.LineBytes = LineBytes(Geometry.Columns.Image, Source.Bits);
    Stream.Plain = Geometry.Columns.Factor == 1 && !Geometry.Columns.Mirror && Geometry.Rows.Bins == 1;
    if (!Stream.Plain) {
        for (ULONG Bin = 0; Bin < Geometry.Columns.Bins; ++Bin) {
            for (ULONG x = 0; x < Geometry.Columns.Image; ++x) Stream.Columns[Bin][x] = AxisSource(Geometry.Columns, x, Bin);
        }
    }
    Stream.Single = Stream.TriggerPending;
    Stream.TriggerPending = false;
    Stream.Running = true;
    Stream.Frame = Stream.NextFrame++;
    Stream.Line = 0;
    Stream.DueCount = Stream.Garbage = Stream.Length = Stream.Sent = 0;
    return true;
}

// The samples of one image line. Averages are rounded to the nearest, halves up.
const USHORT *ImageLine(STREAM &Stream, const SCENE &Scene, ULONG Line)
{
    const AXIS &Columns = Stream.Geometry.Columns, &Rows = Stream.Geometry.Rows;
    if (Stream.Plain) {
        return SceneRow(Scene, Stream.Frame, AxisSource(Rows, Line), true, Stream.Scratch) + Columns.Start;
    }
    const ULONG Bins = ULONG{Columns.Bins} * Rows.Bins;
    if (Bins == 1) {
        const USHORT *Row = SceneRow(Scene, Stream.Frame, AxisSource(Rows, Line), true, Stream.Scratch);
        for (ULONG x = 0; x < Columns.Image; ++x) Stream.Samples[x] = Row[Stream.Columns[0][x]];
        return Stream.Samples;
    }
    for (ULONG x = 0; x < Columns.Image; ++x) Stream.Sums[x] = Bins / 2;
    for (ULONG RowBin = 0; RowBin < Rows.Bins; ++RowBin) {
        const USHORT *Row = SceneRow(Scene, Stream.Frame, AxisSource(Rows, Line, RowBin), true, Stream.Scratch);
        for (ULONG Bin = 0; Bin < Columns.Bins; ++Bin) {
            for (ULONG x = 0; x < Columns.Image; ++x) Stream.Sums[x] += Row[Stream.Columns[Bin][x]];
        }
    }
    for (ULONG x = 0; x < Columns.Image; ++x) Stream.Samples[x] = static_cast<USHORT>(Stream.Sums[x] / Bins);
    return Stream.Samples;
}

void PutHeader(UCHAR *To, ULONG Signature, ULONG Word)
{
    To[0] = static_cast<UCHAR>(Signature);
    To[1] = static_cast<UCHAR>(Signature >> 8);
    To[2] = static_cast<UCHAR>(Word);
    To[3] = static_cast<UCHAR>(Word >> 8);
}

// Puts one line into Buffer, changed as its faults say.
void PrepareLine(STREAM &Stream, const SCENE &Scene, ULONG Line)
{
    const USHORT *Samples = ImageLine(Stream, Scene, Line);
    UCHAR *Pixels = Stream.Buffer + 4;
    if (Stream.Bits == 8) EncodeLine8(Samples, Stream.Geometry.Columns.Image, Pixels);
    else EncodeLine10(Samples, Stream.Geometry.Columns.Image, Pixels);
    Stream.Length = 4 + Stream.LineBytes;
    Stream.Sent = 0;
    Stream.Garbage = 0;

    ULONG Signature = kSignatureLow | kSignatureHigh << 8, Number = Line, Flags = FlagBits(Stream, Line);
    ForFaults(Stream, Line, [&](const LINE_FAULT &Fault) {
        switch (Fault.Kind) {
        case kLineNumber: Number = Fault.Value; break;
        case kLineGarbage: Stream.Garbage += Fault.Value; break;
        case kLineSignature: Signature ^= 1u << Fault.Value; break;
        case kLineFlagBits: Flags = Fault.Value; break;
        case kLineFalseHeader:
            if (Stream.LineBytes >= 4) PutHeader(Pixels, kSignatureLow | kSignatureHigh << 8, Fault.Value);
            break;
        case kLineShorten: Stream.Length -= Smaller<ULONG>(Fault.Value, Stream.Length - 4); break;
        default: return;
        }
        ++Stream.FaultsDone;
    });
    PutHeader(Stream.Buffer, Signature, Number | Flags << 13);
    ++Stream.LinesSent;
}

// Decides what the next line of the frame becomes: lines that are due, none, or the frame's end (false).
bool NextLine(STREAM &Stream)
{
    const ULONG Height = Stream.Geometry.Rows.Image;
    if (Stream.Line >= Height) return false;
    const USHORT Line = Stream.Line;
    bool Cut = false, Lose = false, Double = false, Swap = false;
    ForFaults(Stream, Line, [&](const LINE_FAULT &Fault) {
        bool *What = Fault.Kind == kLineCut      ? &Cut
                     : Fault.Kind == kLineLose   ? &Lose
                     : Fault.Kind == kLineDouble ? &Double
                     : Fault.Kind == kLineSwap   ? &Swap
                                                 : nullptr;
        if (What == nullptr || (What == &Swap && Line + 1u >= Height)) return;
        *What = true;
        ++Stream.FaultsDone;
    });
    if (Cut) return false;
    Stream.DueCount = 0;
    ++Stream.Line;
    // Sent from the end of the list: the line itself comes last, its neighbour before it.
    if (!Lose) Stream.Due[Stream.DueCount++] = Line;
    if (!Lose && Double) Stream.Due[Stream.DueCount++] = Line;
    if (Swap) {
        Stream.Due[Stream.DueCount++] = static_cast<USHORT>(Line + 1);
        ++Stream.Line;
    }
    return true;
}

// Makes Buffer hold unsent bytes; false at the frame's end.
bool Refill(STREAM &Stream, const SCENE &Scene)
{
    while (Stream.Garbage == 0 && Stream.Sent == Stream.Length) {
        if (Stream.DueCount != 0) {
            PrepareLine(Stream, Scene, Stream.Due[--Stream.DueCount]);
        } else if (!NextLine(Stream)) {
            Stream.Running = false;   // Single keeps saying what kind of frame it was
            ++Stream.FramesSent;
            return false;
        }
    }
    return true;
}

// Moves what is ready: garbage first, then the line.
ULONG Take(STREAM &Stream, UCHAR *To, ULONG Length)
{
    const ULONG Garbage = Smaller(Stream.Garbage, Length);
    // Seven-bit bytes never form a signature.
    for (ULONG i = 0; i < Garbage; ++i) To[i] = static_cast<UCHAR>((Stream.Garbage - i) * 29 & 0x7F);
    Stream.Garbage -= Garbage;
    const ULONG Count = Smaller(Stream.Length - Stream.Sent, Length - Garbage);
    RtlCopyMemory(To + Garbage, Stream.Buffer + Stream.Sent, Count);
    Stream.Sent += Count;
    return Garbage + Count;
}

}  // namespace

bool StreamReady(const STREAM &Stream, const USHORT *Registers)
{
    return Stream.Running || Stream.TriggerPending || (Registers[kRegMode1] & kMode1Standby) == 0;
}

_Use_decl_annotations_
ULONG StreamFill(STREAM &Stream, const STREAM_SOURCE &Source, UCHAR *To, ULONG Length, bool *FrameEnded)
{
    ULONG Done = 0, Barren = 0;
    *FrameEnded = false;
    // Two rounds without a byte: the script leaves nothing of the frames, and nobody else would ever get a turn.
    while (Done < Length && Barren < 2) {
        if (!Stream.Running && (!StreamReady(Stream, Source.Registers) || !BeginFrame(Stream, Source))) break;
        const ULONG Before = Done;
        bool More = Refill(Stream, *Source.Scene);
        if (More) {
            Done += Take(Stream, To + Done, Length - Done);
            // The end is noticed with the last byte, so that the read that takes it can end with the frame.
            More = Refill(Stream, *Source.Scene);
        }
        Barren = Done == Before ? Barren + 1 : 0;
        if (!More && Stream.Single) {
            *FrameEnded = true;
            break;
        }
    }
    return Done;
}

void StreamTrigger(STREAM &Stream)
{
    StreamDrop(Stream);
    Stream.TriggerPending = true;
}

void StreamDrop(STREAM &Stream)
{
    Stream.Running = false;
    Stream.TriggerPending = false;
    Stream.DueCount = Stream.Garbage = Stream.Length = Stream.Sent = 0;
}

}  // namespace simbus
