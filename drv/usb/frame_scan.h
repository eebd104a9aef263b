// The search for the signature in front of every line: the bytes A5 3C.
#pragma once

#include <ntddk.h>

constexpr UCHAR kSignature0 = 0xA5;
constexpr UCHAR kSignature1 = 0x3C;

inline bool IsSignature(const UCHAR *Bytes)
{
    return Bytes[0] == kSignature0 && Bytes[1] == kSignature1;
}

// Both give the number of bytes in front of the first signature. Without one, all bytes but the last count: it may be
// the first half of a signature that goes on in the next block.
_IRQL_requires_max_(DISPATCH_LEVEL) SIZE_T SearchSignature(const UCHAR *Data, SIZE_T Size);
_IRQL_requires_max_(DISPATCH_LEVEL) SIZE_T SearchSignaturePlain(const UCHAR *Data, SIZE_T Size);

// Lines follow each other directly in a healthy stream: the next signature is nearly always here already.
_IRQL_requires_max_(DISPATCH_LEVEL) inline SIZE_T FindSignature(const UCHAR *Data, SIZE_T Size)
{
    return Size < 2 || IsSignature(Data) ? 0 : SearchSignature(Data, Size);
}
