// The camera's stream of lines, and its assembly into frames. A line is the signature A5 3C, a 16-bit line word (bits
// 0-12 the line number, 13-15 flags) and the pixels; the next line follows directly. There is no mark between frames: a
// frame ends when line 0, or any line number lower than the expected one, arrives.
#pragma once

#include "frame_unpack.h"
#include "geometry.h"

// Makes the assembly ready for a new stream: Frame[0] is the one being filled, nothing is published. The frame buffers
// must exist, and nothing may be assembling.
_IRQL_requires_max_(DISPATCH_LEVEL) void ResetFrameAssembly(DEVICE_EXTENSION *DevExt);

// Assembles the lines of one received block. One call at a time, in the order of the stream. The SavedLen bytes
// directly in front of Data belong to the caller's receive area: the tail of the previous block is put there.
_IRQL_requires_max_(DISPATCH_LEVEL) void ProcessFrameBlock(DEVICE_EXTENSION *DevExt, PUCHAR Data, ULONG Size);

// Publishes the frame being filled and goes on to the next of the three buffers. Part of ProcessFrameBlock.
_IRQL_requires_max_(DISPATCH_LEVEL) void NextFrameReady(DEVICE_EXTENSION *DevExt);

// Turns a captured stream into an image: bytes, or 16-bit samples when the camera sends 10 bits. RetSize receives the
// image bytes written, at most one image, however often the stream repeats a line. Rows that the stream does not have
// are left alone. The first two forms take the geometry in force.
_IRQL_requires_max_(DISPATCH_LEVEL) void checkSignature(DEVICE_EXTENSION *DevExt, const UCHAR *Stream, ULONG Size,
                                                        PUCHAR Image, PULONG RetSize);
_IRQL_requires_max_(DISPATCH_LEVEL) void checkSignature(DEVICE_EXTENSION *DevExt, const UCHAR *Stream, ULONG Size,
                                                        PUSHORT Image, PULONG RetSize);
_IRQL_requires_max_(DISPATCH_LEVEL) void checkSignature(const FRAME_GEOMETRY &Geometry, const UCHAR *Stream, ULONG Size,
                                                        PUCHAR Image, PULONG RetSize);
_IRQL_requires_max_(DISPATCH_LEVEL) void checkSignature(const FRAME_GEOMETRY &Geometry, const UCHAR *Stream, ULONG Size,
                                                        PUSHORT Image, PULONG RetSize);
