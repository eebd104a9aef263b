// The camera's controller: commands and replies on the default control pipe, sensor registers, flash.
//
// A command is one vendor transfer to the camera, request 0xB0: a code and its arguments. Its reply is fetched with one
// vendor transfer from the camera, once: byte 0 is 0x90 for success, 0x91 for an unknown code, 0x92 for arguments that
// are too few or out of range; then comes the payload. With no reply waiting the transfer from the camera is empty.
//
//     code  arguments                         payload
//     0x11  -                                 9 bytes: bit 7 of byte 7 high speed, byte 8 frequency code 2, 10 or 18
//     0x12  -                                 16 bytes: model, batch, serial (32), board, firmware, defect count (32)
//     0x18  address (16), length (16)         that many bytes of flash: at most 63, within 32 KiB
//     0x1E  register                          its value, high byte first
//     0x1F  register, low byte, high byte     -
//     0x28  1 to 63 bytes for the slave       the same bytes, each XOR 0x5A
//     0x2C  frequency index 0 to 2            -
//     0x2D  0: 8 bits, 1: 10 bits             - (firmware 33 and 34 have one depth and know no such code)
#pragma once

#include "control.h"
#include "platform.h"
#include "sensor.h"
#include "stream.h"

namespace simbus {

constexpr UCHAR kVendorRequest = 0xB0;
constexpr ULONG kPacketLimit = 64;

// What does not change while the camera lives.
struct IDENTITY {
    ULONG Model;             // 1 to 3
    bool Mono;
    bool FullSpeed;
    USHORT Firmware, ChipId, HwModelId, Batch, Board;
    ULONG Serial;
};

struct FIRMWARE {
    USHORT Registers[256];
    UCHAR Frequency;         // index
    UCHAR Bits;              // 8 or 10; kept in the controller, which stays powered
    UCHAR Reply[kPacketLimit];
    ULONG ReplyLength;
    bool ReplyReady;
    USHORT ReplyFault;       // kCommand... of the reply that is ready, 0 none
    ULONG ReplyFaultValue;
    ULONG DefectCount;       // as command 0x12 answers
    ULONGLONG Commands;
    ULONG FaultCount;
    COMMAND_FAULT Faults[kMaxCommandFaults];
    ULONG LogSequence;       // number of the next entry
    ULONG LogFirst;          // oldest entry not cleared
    LOG_ENTRY Log[kLogEntries];
    UCHAR Flash[kFlashSize];
};

enum class ANSWER { Done, Stall, Wait, Delay };

struct TRANSFER_RESULT {
    ANSWER Answer;
    ULONG Value;             // Done: bytes moved; Delay: milliseconds
};

void FirmwareInitialize(FIRMWARE &Firmware, const IDENTITY &Identity);

// Power came back: registers, frequency and a reply nobody fetched are lost.
void FirmwareColdStart(FIRMWARE &Firmware, const IDENTITY &Identity);

// A command transfer of Length bytes has arrived.
TRANSFER_RESULT FirmwareCommand(FIRMWARE &Firmware, const IDENTITY &Identity, STREAM &Stream, bool Streaming,
                                const UCHAR *Bytes, ULONG Length);

// A reply transfer of up to Length bytes is asked for.
TRANSFER_RESULT FirmwareReply(FIRMWARE &Firmware, UCHAR *Bytes, ULONG Length);

// A write as command 0x1F carries it out: the chip identification stays, the trigger and the reset act.
void FirmwareWriteRegister(FIRMWARE &Firmware, const IDENTITY &Identity, STREAM &Stream, bool Streaming, UCHAR Register,
                           USHORT Value);

// The trigger input or register. Streaming says that a setting with the streaming endpoint is selected. False: ignored.
bool FirmwareTrigger(FIRMWARE &Firmware, const IDENTITY &Identity, STREAM &Stream, bool Streaming);

NTSTATUS FirmwareSetFaults(FIRMWARE &Firmware, const COMMAND_FAULT *Faults, ULONG Count, bool Append);

// The log's entries into Entries, the newest ones if they do not all fit. Returns how many.
ULONG FirmwareReadLog(FIRMWARE &Firmware, LOG_ENTRY *Entries, ULONG Room, bool Clear, ULONG *Dropped);

void FirmwareListDefects(FIRMWARE &Firmware, const DEFECT_RECORD *Records, ULONG Count);

}  // namespace simbus
