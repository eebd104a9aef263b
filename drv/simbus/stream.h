// The camera's line stream: lines of frames, one after the other, as bytes. It is pulled: a frame goes on as fast as somebody
// takes its bytes, so that a host that is late loses nothing and every lost line was scripted.
//
// Free-running frames begin when bit 8 of register 0x1E is clear; setting it drops the frame being sent. A trigger drops what
// is being sent and sends one frame. A frame's window, decimation, mirrors and depth are those of its first byte.
#pragma once

#include "control.h"
#include "platform.h"
#include "scene.h"
#include "sensor.h"

namespace simbus {

// What was scripted, ordered by frame and line, and as given among the faults of one line.
struct LINE_FAULT_TABLE {
    ULONG Count;
    LINE_FAULT *Faults;     // kMaxLineFaults of them once there has been one
};

_IRQL_requires_max_(PASSIVE_LEVEL)
NTSTATUS LineFaultsSet(LINE_FAULT_TABLE &Table, const LINE_FAULT *Faults, ULONG Count, bool Append);
void LineFaultsFree(LINE_FAULT_TABLE &Table);

struct STREAM {
    bool Running;            // a frame is being sent
    bool Single;             // it was triggered
    bool TriggerPending;
    USHORT Line;             // next line of the frame
    ULONG Frame;             // its number
    ULONG NextFrame;
    ULONG Bits;
    ULONG LineBytes;
    ULONG FlagRule, FlagValue;
    GEOMETRY Geometry;
    bool Plain;              // columns are one run of the sensor's, neither decimated nor mirrored
    LINE_FAULT_TABLE Faults;

    ULONGLONG FramesSent, LinesSent, FaultsDone;

    // Lines due before the next one of the frame: swapped and doubled ones.
    USHORT Due[4];
    ULONG DueCount;
    ULONG Garbage;           // bytes still to be sent before Buffer
    ULONG Length, Sent;      // of Buffer
    UCHAR Buffer[4 + kMaxLineBytes];

    USHORT Samples[kMaxColumns];
    USHORT Scratch[kMaxColumns];
    ULONG Sums[kMaxColumns];
    USHORT Columns[4][kMaxColumns];   // sensor column of each image position, by averaged sample
};

struct STREAM_SOURCE {
    ULONG Model;
    const USHORT *Registers;
    ULONG Bits;              // 8 or 10
    SCENE *Scene;
};

// Whether bytes will come: a frame is being sent, triggered, or free-running.
bool StreamReady(const STREAM &Stream, const USHORT *Registers);

// Up to Length bytes. Sets FrameEnded when the last byte of a triggered frame was among them (or it had none). Fewer bytes
// than asked for otherwise means that nothing more comes now.
_IRQL_requires_max_(PASSIVE_LEVEL)
ULONG StreamFill(STREAM &Stream, const STREAM_SOURCE &Source, UCHAR *To, ULONG Length, bool *FrameEnded);

void StreamTrigger(STREAM &Stream);

// Forgets the frame being sent and a trigger.
void StreamDrop(STREAM &Stream);

}  // namespace simbus
