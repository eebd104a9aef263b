#include "firmware.h"

namespace simbus {

namespace {

constexpr UCHAR kOk = 0x90, kUnknownCode = 0x91, kBadArguments = 0x92;
constexpr UCHAR kFrequencyCodes[] = {2, 10, 18};
constexpr USHORT kFirmware8Bits = 33, kFirmware10Bits = 34;
constexpr ULONG kEndless = 0xFFFFFFFF;

struct REQUEST {
    const UCHAR *Arguments;
    ULONG Count;
};

void Put(FIRMWARE &Firmware, UCHAR Byte) { Firmware.Reply[Firmware.ReplyLength++] = Byte; }

void Put16(FIRMWARE &Firmware, ULONG Value)
{
    Put(Firmware, static_cast<UCHAR>(Value));
    Put(Firmware, static_cast<UCHAR>(Value >> 8));
}

void Put32(FIRMWARE &Firmware, ULONG Value)
{
    Put16(Firmware, Value & 0xFFFF);
    Put16(Firmware, Value >> 16);
}

void Log(FIRMWARE &Firmware, bool Reply, const UCHAR *Bytes, ULONG Length)
{
    LOG_ENTRY &Entry = Firmware.Log[Firmware.LogSequence % kLogEntries];
    RtlZeroMemory(&Entry, sizeof(Entry));
    Entry.Sequence = Firmware.LogSequence++;
    Entry.Reply = Reply ? 1 : 0;
    Entry.Length = static_cast<UCHAR>(Length);
    RtlCopyMemory(Entry.Bytes, Bytes, Length);
}

// Carries the command out. The reply's status byte stands at Reply[0]; payload is put behind it.
UCHAR Execute(FIRMWARE &Firmware, const IDENTITY &Identity, STREAM &Stream, bool Streaming, UCHAR Code, const REQUEST &Request)
{
    const UCHAR *Arguments = Request.Arguments;
    switch (Code) {
    case 0x11:
        for (ULONG i = 0; i < 7; ++i) Put(Firmware, 0);
        Put(Firmware, Identity.FullSpeed ? 0x00 : 0x80);
        Put(Firmware, kFrequencyCodes[Firmware.Frequency]);
        return kOk;
    case 0x12:
        Put16(Firmware, Identity.HwModelId);
        Put16(Firmware, Identity.Batch);
        Put32(Firmware, Identity.Serial);
        Put16(Firmware, Identity.Board);
        Put16(Firmware, Identity.Firmware);
        Put32(Firmware, Firmware.DefectCount);
        return kOk;
    case 0x18: {
        if (Request.Count < 4) return kBadArguments;
        const ULONG Address = Arguments[0] | static_cast<ULONG>(Arguments[1]) << 8;
        const ULONG Length = Arguments[2] | static_cast<ULONG>(Arguments[3]) << 8;
        if (Length > kPacketLimit - 1 || Address + Length > kFlashSize) return kBadArguments;
        for (ULONG i = 0; i < Length; ++i) Put(Firmware, Firmware.Flash[Address + i]);
        return kOk;
    }
    case 0x1E:
        if (Request.Count < 1) return kBadArguments;
        Put(Firmware, static_cast<UCHAR>(Firmware.Registers[Arguments[0]] >> 8));
        Put(Firmware, static_cast<UCHAR>(Firmware.Registers[Arguments[0]]));
        return kOk;
    case 0x1F:
        if (Request.Count < 3) return kBadArguments;
        FirmwareWriteRegister(Firmware, Identity, Stream, Streaming, Arguments[0],
                              static_cast<USHORT>(Arguments[1] | static_cast<ULONG>(Arguments[2]) << 8));
        return kOk;
    case 0x28:
        if (Request.Count < 1) return kBadArguments;
        for (ULONG i = 0; i < Request.Count; ++i) Put(Firmware, static_cast<UCHAR>(Arguments[i] ^ 0x5A));
        return kOk;
    case 0x2C:
        if (Request.Count < 1 || Arguments[0] > 2) return kBadArguments;
        Firmware.Frequency = Arguments[0];
        return kOk;
    case 0x2D:
        if (Identity.Firmware == kFirmware8Bits || Identity.Firmware == kFirmware10Bits) return kUnknownCode;
        if (Request.Count < 1 || Arguments[0] > 1) return kBadArguments;
        Firmware.Bits = Arguments[0] == 1 ? 10 : 8;
        return kOk;
    default: return kUnknownCode;
    }
}

// The fault that this transaction is due, used up by one. Null: none.
const COMMAND_FAULT *TakeFault(FIRMWARE &Firmware, UCHAR Code)
{
    for (ULONG i = 0; i < Firmware.FaultCount; ++i) {
        COMMAND_FAULT &Fault = Firmware.Faults[i];
        if ((Fault.Code != kAnyCode && Fault.Code != Code) || Fault.Times == 0) continue;
        if (Fault.Skip != 0) {
            --Fault.Skip;
            continue;
        }
        if (Fault.Times != kEndless) --Fault.Times;
        return &Fault;
    }
    return nullptr;
}

}  // namespace

void FirmwareInitialize(FIRMWARE &Firmware, const IDENTITY &Identity)
{
    for (UCHAR &Byte : Firmware.Flash) Byte = 0xFF;   // erased
    Firmware.Bits = Identity.Firmware == kFirmware10Bits ? 10 : 8;
    FirmwareColdStart(Firmware, Identity);
}

void FirmwareColdStart(FIRMWARE &Firmware, const IDENTITY &Identity)
{
    SensorReset(Identity.Model, Identity.ChipId, Firmware.Registers);
    Firmware.Frequency = 0;
    Firmware.ReplyReady = false;
}

TRANSFER_RESULT FirmwareCommand(FIRMWARE &Firmware, const IDENTITY &Identity, STREAM &Stream, bool Streaming,
                                const UCHAR *Bytes, ULONG Length)
{
    if (Length == 0 || Length > kPacketLimit) return {ANSWER::Stall, 0};
    const UCHAR Code = Bytes[0];
    Log(Firmware, false, Bytes, Length);
    ++Firmware.Commands;
    const COMMAND_FAULT *Fault = TakeFault(Firmware, Code);
    const USHORT Kind = Fault != nullptr ? Fault->Kind : USHORT{0};
    if (Kind == kCommandStall) return {ANSWER::Stall, 0};
    if (Kind == kCommandHang) return {ANSWER::Wait, 0};

    Firmware.ReplyLength = 1;
    Firmware.Reply[0] = Execute(Firmware, Identity, Stream, Streaming, Code, {Bytes + 1, Length - 1});
    if (Firmware.Reply[0] != kOk) Firmware.ReplyLength = 1;
    Firmware.ReplyReady = true;
    Firmware.ReplyFault = Kind;
    Firmware.ReplyFaultValue = Fault != nullptr ? Fault->Value : 0;
    switch (Kind) {
    case kCommandShort: Firmware.ReplyLength = Smaller<ULONG>(Firmware.ReplyLength, Fault->Value); break;
    case kCommandLong:
        while (Firmware.ReplyLength < Fault->Value) Put(Firmware, 0xEE);
        break;
    case kCommandStatusByte: Firmware.Reply[0] = static_cast<UCHAR>(Fault->Value); break;
    default: break;
    }
    return {ANSWER::Done, Length};
}

TRANSFER_RESULT FirmwareReply(FIRMWARE &Firmware, UCHAR *Bytes, ULONG Length)
{
    if (!Firmware.ReplyReady) return {ANSWER::Done, 0};
    switch (Firmware.ReplyFault) {
    case kCommandReplyStall: Firmware.ReplyReady = false; return {ANSWER::Stall, 0};
    case kCommandNoAnswer: Firmware.ReplyFault = 0; return {ANSWER::Wait, 0};
    case kCommandDelay: Firmware.ReplyFault = 0; return {ANSWER::Delay, Firmware.ReplyFaultValue};
    default: break;
    }
    const ULONG Count = Smaller(Length, Firmware.ReplyLength);
    RtlCopyMemory(Bytes, Firmware.Reply, Count);
    Firmware.ReplyReady = false;
    Log(Firmware, true, Bytes, Count);
    return {ANSWER::Done, Count};
}

void FirmwareWriteRegister(FIRMWARE &Firmware, const IDENTITY &Identity, STREAM &Stream, bool Streaming, UCHAR Register,
                           USHORT Value)
{
    switch (Register) {
    case kRegChipId: return;
    case kRegTrigger:   // reads back as 0
        if (Value & 1) FirmwareTrigger(Firmware, Identity, Stream, Streaming);
        return;
    case kRegReset:
        if (Value & 1) {
            SensorReset(Identity.Model, Identity.ChipId, Firmware.Registers);
            StreamDrop(Stream);
        }
        break;
    case kRegMode1:
        if ((Value & kMode1Standby) && Stream.Running && !Stream.Single) StreamDrop(Stream);
        break;
    default: break;
    }
    Firmware.Registers[Register] = Value;
}

bool FirmwareTrigger(FIRMWARE &Firmware, const IDENTITY &Identity, STREAM &Stream, bool Streaming)
{
    const bool Standby = (Firmware.Registers[kRegMode1] & kMode1Standby) != 0;
    const bool Prepared = Identity.Model != 3 || (Firmware.Registers[kRegCapture] & 1) != 0;
    if (!Streaming || !Standby || !Prepared) return false;
    StreamTrigger(Stream);
    return true;
}

NTSTATUS FirmwareSetFaults(FIRMWARE &Firmware, const COMMAND_FAULT *Faults, ULONG Count, bool Append)
{
    ULONG Kept = 0;
    if (Append) {   // used-up ones make room
        for (ULONG i = 0; i < Firmware.FaultCount; ++i) {
            if (Firmware.Faults[i].Times != 0) Firmware.Faults[Kept++] = Firmware.Faults[i];
        }
        Firmware.FaultCount = Kept;
    }
    if (Count > kMaxCommandFaults - Kept) return STATUS_INVALID_PARAMETER;
    for (ULONG i = 0; i < Count; ++i) {
        const COMMAND_FAULT &Fault = Faults[i];
        const ULONG Limit = Fault.Kind == kCommandLong || Fault.Kind == kCommandShort ? kPacketLimit
                            : Fault.Kind == kCommandStatusByte                       ? 0xFF
                            : Fault.Kind == kCommandDelay                            ? 600'000
                                                                                     : kEndless;
        if (Fault.Code > kAnyCode || Fault.Kind == 0 || Fault.Kind > kCommandKinds || Fault.Value > Limit) {
            return STATUS_INVALID_PARAMETER;
        }
    }
    for (ULONG i = 0; i < Count; ++i) Firmware.Faults[Kept + i] = Faults[i];
    Firmware.FaultCount = Kept + Count;
    return STATUS_SUCCESS;
}

ULONG FirmwareReadLog(FIRMWARE &Firmware, LOG_ENTRY *Entries, ULONG Room, bool Clear, ULONG *Dropped)
{
    const ULONG Wanted = Firmware.LogSequence - Firmware.LogFirst;
    const ULONG Count = Smaller<ULONG>(Smaller<ULONG>(Wanted, kLogEntries), Room);
    for (ULONG i = 0; i < Count; ++i) Entries[i] = Firmware.Log[(Firmware.LogSequence - Count + i) % kLogEntries];
    *Dropped = Wanted - Count;
    if (Clear) Firmware.LogFirst = Firmware.LogSequence;
    return Count;
}

void FirmwareListDefects(FIRMWARE &Firmware, const DEFECT_RECORD *Records, ULONG Count)
{
    static_assert(kFlashSize / sizeof(DEFECT_RECORD) == kMaxDefects);
    UCHAR *First = Firmware.Flash + kFlashSize - Count * sizeof(DEFECT_RECORD);
    RtlCopyMemory(First, Records, Count * sizeof(DEFECT_RECORD));
    Firmware.DefectCount = Count;
}

}  // namespace simbus
