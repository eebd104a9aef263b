#include "stream.h"

namespace simbus {

namespace {

bool Later(const LINE_FAULT &A, const LINE_FAULT &B) { return A.Frame != B.Frame ? A.Frame > B.Frame : A.Line > B.Line; }

bool Valid(const LINE_FAULT &Fault)
{
    switch (Fault.Kind) {
    case kLineLose:
    case kLineDouble:
    case kLineSwap:
    case kLineCut: return true;
    case kLineNumber: return Fault.Value < 0x2000;
    case kLineGarbage: return Fault.Value <= 65536;
    case kLineSignature: return Fault.Value < 16;
    case kLineFlagBits: return Fault.Value < 8;
    case kLineFalseHeader:
    case kLineShorten: return Fault.Value <= 0xFFFF;
    default: return false;
    }
}

}  // namespace

_Use_decl_annotations_
NTSTATUS LineFaultsSet(LINE_FAULT_TABLE &Table, const LINE_FAULT *Faults, ULONG Count, bool Append)
{
    const ULONG Kept = Append ? Table.Count : 0;
    if (Count > kMaxLineFaults - Kept) return STATUS_INVALID_PARAMETER;
    for (ULONG i = 0; i < Count; ++i) {
        if (!Valid(Faults[i])) return STATUS_INVALID_PARAMETER;
    }
    if (Count != 0 && Table.Faults == nullptr) {
        POOL_BLOCK<LINE_FAULT> Block;
        if (!Block.Allocate(kMaxLineFaults)) return STATUS_INSUFFICIENT_RESOURCES;
        Table.Faults = Block.Release();
    }
    Table.Count = Kept;
    for (ULONG i = 0; i < Count; ++i) {
        ULONG Place = Table.Count++;
        for (; Place > 0 && Later(Table.Faults[Place - 1], Faults[i]); --Place) Table.Faults[Place] = Table.Faults[Place - 1];
        Table.Faults[Place] = Faults[i];
    }
    return STATUS_SUCCESS;
}

void LineFaultsFree(LINE_FAULT_TABLE &Table)
{
    if (Table.Faults != nullptr) ExFreePoolWithTag(Table.Faults, kTag);
    Table.Faults = nullptr;
    Table.Count = 0;
}

}  // namespace simbus
