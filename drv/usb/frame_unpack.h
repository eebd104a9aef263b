// The packed 10-bit pixels of the stream: eight in ten bytes. Bytes 0-7 hold bits 9-2 of pixels 0-7, bytes 8-9 a
// little-endian word with bits 1-0 of pixel k in its bits 2k+1..2k.
#pragma once

#include <ntddk.h>

constexpr ULONG kPackedGroup = 10; // bytes
constexpr ULONG kGroupPixels = 8;

// Unpacks the whole groups among Count bytes into samples 0-1023; the bytes after the last whole group are ignored.
_IRQL_requires_max_(DISPATCH_LEVEL) void Unpack10Bit(const UCHAR *Src, PUSHORT Dst, ULONG Count);

// The same, one pixel at a time: what the fast form is held against.
_IRQL_requires_max_(DISPATCH_LEVEL) void Unpack10BitPlain(const UCHAR *Src, PUSHORT Dst, ULONG Count);
