// What a program can ask of the simulated bus.
//
// The bus's control device is \Device\VqtSimBus, linked as \DosDevices\VqtSimBus: an application opens
// kControlDosName (or kControlNtName inside the kernel) and sends the codes below as device I/O control requests. Every
// request is METHOD_BUFFERED: one input record, in some requests followed by `Count` or `Length` items directly behind
// it, and one output record or array. All values are little-endian, all records are packed.
//
// Answers of every request: STATUS_INVALID_PARAMETER for a value out of its range or an input whose length does not
// match its record, STATUS_NO_SUCH_DEVICE for a slot with no camera in it, STATUS_BUFFER_TOO_SMALL for an output
// buffer shorter than the record, STATUS_INVALID_DEVICE_REQUEST for an unknown code.
//
// A slot number stays with its camera until the system has removed the camera's device object: after an unplug the
// state and the log can still be read as long as something holds the device.
//
// The file needs nothing but <cstdint>, so that programs on every system can include it.
#pragma once

#include <cstdint>

namespace simbus {

// The identity of the simulated camera on the bus; the one place where the numbers stand. 1209:0001 is set aside for
// private tests.
constexpr uint16_t kVendorId = 0x1209;
constexpr uint16_t kProductId = 0x0001;

#define VQT_SIMBUS_HARDWARE_ID "root\\vqtsimbus"            // the bus itself, root-enumerated
#define VQT_SIMBUS_CAMERA_HARDWARE_ID "USB\\VID_1209&PID_0001" // each camera on it
#define VQT_SIMBUS_NT_NAME "\\Device\\VqtSimBus"
#define VQT_SIMBUS_LINK_NAME "\\DosDevices\\VqtSimBus"
#define VQT_SIMBUS_DOS_NAME "\\\\.\\VqtSimBus"

constexpr uint32_t kMaxSlots = 64;             // cameras plugged or not yet removed, at one time
constexpr uint32_t kFlashSize = 0x8000;        // bytes of flash in a camera
constexpr uint32_t kMaxDefects = kFlashSize / 5;
constexpr uint32_t kMaxSceneSide = 4096;       // pixels, either side of a picture
constexpr uint32_t kMaxLineFaults = 4096;      // scripted line faults per camera
constexpr uint32_t kMaxCommandFaults = 256;    // scripted command faults per camera
constexpr uint32_t kMaxBulkFaults = 256;       // scripted read faults per camera
constexpr uint32_t kMaxRequestFaults = 64;     // PnP and power requests to be failed, per camera
constexpr uint32_t kMaxDescriptor = 4096;      // bytes of an overriding descriptor
constexpr uint32_t kLogEntries = 512;          // command transfers remembered per camera
constexpr uint32_t kDefaultPace = 40'000'000;  // bytes a second: what USB 2.0 carries in practice
constexpr uint32_t kFullSpeedPace = 1'000'000; // what is left of it at full speed

constexpr uint32_t ControlCode(uint32_t Function)
{
    return (0x8042u << 16) | (0u << 14) | ((0x800u + Function) << 2) | 0u;   // any access, METHOD_BUFFERED
}

constexpr uint32_t kIoctlPlug = ControlCode(0);               // PLUG_REQUEST -> SLOT_RECORD
constexpr uint32_t kIoctlUnplug = ControlCode(1);             // SLOT_RECORD
constexpr uint32_t kIoctlList = ControlCode(2);               // nothing -> LIST_ENTRY_RECORD[], as many as fit
constexpr uint32_t kIoctlSetScene = ControlCode(3);           // SCENE_REQUEST + pixels
constexpr uint32_t kIoctlSetDefects = ControlCode(4);         // DEFECTS_REQUEST + DEFECT_RECORD[Count]
constexpr uint32_t kIoctlSetFlash = ControlCode(5);           // FLASH_REQUEST + bytes
constexpr uint32_t kIoctlSetLineFaults = ControlCode(6);      // LINE_FAULTS_REQUEST + LINE_FAULT[Count]
constexpr uint32_t kIoctlTrigger = ControlCode(7);            // SLOT_RECORD -> TRIGGER_REPLY
constexpr uint32_t kIoctlRender = ControlCode(8);             // RENDER_REQUEST -> uint16_t[RowCount * sensor width]
constexpr uint32_t kIoctlReadState = ControlCode(9);          // SLOT_RECORD -> CAMERA_STATE
constexpr uint32_t kIoctlReadLog = ControlCode(10);           // LOG_REQUEST -> LOG_HEADER + LOG_ENTRY[]
constexpr uint32_t kIoctlSetCommandFaults = ControlCode(11);  // COMMAND_FAULTS_REQUEST + COMMAND_FAULT[Count]
constexpr uint32_t kIoctlSetBulkFaults = ControlCode(12);     // BULK_FAULTS_REQUEST + BULK_FAULT[Count]
constexpr uint32_t kIoctlReleaseHeld = ControlCode(13);       // SLOT_RECORD
constexpr uint32_t kIoctlSetDescriptor = ControlCode(14);     // DESCRIPTOR_REQUEST + bytes
constexpr uint32_t kIoctlFailRequests = ControlCode(15);      // FAIL_REQUESTS
constexpr uint32_t kIoctlSetPace = ControlCode(16);           // PACE_REQUEST
constexpr uint32_t kIoctlSetSilence = ControlCode(17);        // SILENCE_REQUEST
constexpr uint32_t kIoctlSendRequest = ControlCode(18);       // SEND_REQUEST -> SEND_REPLY
constexpr uint32_t kIoctlWriteRegister = ControlCode(19);     // REGISTER_REQUEST
constexpr uint32_t kIoctlSetNextFrame = ControlCode(20);      // NEXT_FRAME_REQUEST
constexpr uint32_t kIoctlSetLineFlags = ControlCode(21);      // LINE_FLAGS_REQUEST
constexpr uint32_t kIoctlSetMode = ControlCode(22);           // MODE_REQUEST
constexpr uint32_t kIoctlFreeze = ControlCode(23);            // FREEZE_REQUEST
constexpr uint32_t kIoctlServe = ControlCode(24);             // SLOT_RECORD -> SERVE_REPLY

// PLUG_REQUEST.Flags
constexpr uint32_t kPlugFullSpeed = 0x01;        // 12 Mbit/s: 64-byte packets, bit 7 of the information byte clear
constexpr uint32_t kPlugFirmwareGiven = 0x02;    // otherwise 39 (8 and 10 bits)
constexpr uint32_t kPlugChipIdGiven = 0x04;      // otherwise the model's: 0x8431, 0x8511, 0x1621
constexpr uint32_t kPlugHwModelIdGiven = 0x08;   // otherwise the model's: 27/28, 29/30, 31/32 (colour/mono)
constexpr uint32_t kPlugPaceGiven = 0x10;        // otherwise kDefaultPace, or kFullSpeedPace
constexpr uint32_t kPlugIdentityGiven = 0x20;    // otherwise Serial 1000 + slot, Batch 7, Board 3
constexpr uint32_t kPlugAll = 0x3F;

// SCENE_REQUEST.Kind
constexpr uint32_t kSceneChart = 0;      // the drawn chart, with the moving bar and the frame counter; no pixels
constexpr uint32_t kSceneFlat = 1;       // every sample is Level; no pixels
constexpr uint32_t kSceneGrey = 2;       // Width * Height bytes
constexpr uint32_t kSceneRgb = 3;        // Width * Height * 3 bytes, red first
constexpr uint32_t kSceneCounter = 0x1;  // SCENE_REQUEST.Flags: draw the frame counter into this scene too

// DEFECTS_REQUEST.Where
constexpr uint32_t kDefectsSensor = 0x1;  // the sensor shows them
constexpr uint32_t kDefectsFlash = 0x2;   // the flash lists them, its count included

// What happens to one line of one frame. `Frame` counts the camera's frames (CAMERA_STATE.NextFrame), `Line` the lines
// of the window the camera sends. Faults of the same line apply in the order given.
constexpr uint16_t kLineLose = 1;          // the line is not sent
constexpr uint16_t kLineDouble = 2;        // the line is sent twice
constexpr uint16_t kLineSwap = 3;          // the next line is sent first (nothing happens on the last line)
constexpr uint16_t kLineNumber = 4;        // the line carries the number Value (13 bits)
constexpr uint16_t kLineGarbage = 5;       // Value bytes (at most 65536) that hold no signature go before the line
constexpr uint16_t kLineSignature = 6;     // bit Value (0 to 15) of the signature is inverted
constexpr uint16_t kLineCut = 7;           // the frame ends before this line
constexpr uint16_t kLineFlagBits = 8;      // the line carries the flag bits Value (0 to 7)
constexpr uint16_t kLineFalseHeader = 9;   // the line's first four pixel bytes become A5 3C and the word Value (16 bits)
constexpr uint16_t kLineShorten = 10;      // the last Value bytes (at most 65535) of the line's pixel data are not sent
constexpr uint16_t kLineKinds = 10;
constexpr uint32_t kEveryFrame = 0xFFFFFFFF;

// What happens to the next transaction whose command byte is Code.
constexpr uint16_t kAnyCode = 0x100;
constexpr uint16_t kCommandStall = 1;        // the command transfer stalls, the command is not carried out
constexpr uint16_t kCommandReplyStall = 2;   // carried out, but the reply transfer stalls
constexpr uint16_t kCommandShort = 3;        // the reply is cut to Value bytes, status byte included
constexpr uint16_t kCommandLong = 4;         // the reply is filled up to Value bytes (at most 64) with 0xEE
constexpr uint16_t kCommandStatusByte = 5;   // carried out, but the status byte is Value
constexpr uint16_t kCommandNoAnswer = 6;     // the reply transfer waits: for an unplug, a cancel, a release
constexpr uint16_t kCommandDelay = 7;        // the reply comes Value milliseconds later
constexpr uint16_t kCommandHang = 8;         // the command transfer itself waits, as above
constexpr uint16_t kCommandKinds = 8;

// What happens to the next read on the streaming pipe, in the order scripted, one fault a read.
constexpr uint16_t kBulkPass = 1;          // nothing: lets Times reads through before the next fault
constexpr uint16_t kBulkStall = 2;         // fails, and the pipe stays halted until it is reset or selected anew
constexpr uint16_t kBulkEmpty = 3;         // completes with no bytes
constexpr uint16_t kBulkShort = 4;         // completes with Value bytes, or as many as asked for if that is less
constexpr uint16_t kBulkHold = 5;          // filled, but completed only by kIoctlReleaseHeld or an unplug: not by a cancel
constexpr uint16_t kBulkSecondThread = 6;  // completed by another thread than its neighbours
constexpr uint16_t kBulkInline = 7;        // completed empty before the submission returns
constexpr uint16_t kBulkError = 8;         // fails with a bus error (no halt): the URB status is USBD_STATUS_XACT_ERROR
constexpr uint16_t kBulkKinds = 8;

// DESCRIPTOR_REQUEST.Type
constexpr uint8_t kDescriptorDevice = 1;
constexpr uint8_t kDescriptorConfiguration = 2;

// SILENCE_REQUEST.What
constexpr uint32_t kSilentStream = 0x1;     // reads wait, as if the sensor had died
constexpr uint32_t kSilentCommands = 0x2;   // commands and replies wait

// MODE_REQUEST.Mode
constexpr uint32_t kModeInlineControl = 0x1;  // control transfers complete before the submission returns
constexpr uint32_t kModeByHand = 0x2;         // kIoctlServe serves the camera, the bus's thread does not until it is unplugged
constexpr uint32_t kModeAll = 0x3;

// The frame counter as the chart shows it: 32 square cells in a row, bit 31 first, on a dark field. A set bit reads
// kCounterLight, a clear one kCounterDark, in every pixel of its cell, on colour sensors as well. Below, in the rows
// kBarRow up to kBarRow + kBarHeight - 1, a bar of kBarWidth columns stands at column (frame * 8) modulo the sensor width.
constexpr uint32_t kCounterColumn = 32;
constexpr uint32_t kCounterRow = 32;
constexpr uint32_t kCounterCell = 16;
constexpr uint32_t kCounterLight = 1000;
constexpr uint32_t kCounterDark = 24;
constexpr uint32_t kBarRow = 64;
constexpr uint32_t kBarHeight = 32;
constexpr uint32_t kBarWidth = 16;

// LINE_FLAGS_REQUEST.Rule: bits 13 to 15 of the line words of the free-running stream. Triggered frames carry 0.
constexpr uint32_t kFlagsByFrame = 0;   // the frame's number AND 7 (as plugged)
constexpr uint32_t kFlagsFixed = 1;     // Value AND 7
constexpr uint32_t kFlagsByLine = 2;    // (frame + line) AND 7

#pragma pack(push, 1)

struct SLOT_RECORD {
    uint32_t Slot;
};
static_assert(sizeof(SLOT_RECORD) == 4);

struct PLUG_REQUEST {
    uint32_t Model;        // 1: 1280 x 1024, 2: 1600 x 1200, 3: 2048 x 1536
    uint32_t Mono;         // 0 colour, 1 monochrome
    uint32_t Flags;        // kPlug...
    uint16_t Firmware;     // firmware version word; 33 sends 8 bits only, 34 10 bits only, others both
    uint16_t ChipId;       // value of sensor register 0
    uint16_t HwModelId;
    uint16_t Batch;        // identification numbers of the extended information, at its offsets 2, 4 and 8
    uint32_t Serial;
    uint16_t Board;
    uint16_t Reserved;     // 0
    uint32_t Pace;         // stream bytes a second; 0: as fast as they are read
};
static_assert(sizeof(PLUG_REQUEST) == 32);

struct LIST_ENTRY_RECORD {
    uint32_t Slot;
    uint32_t Model;
    uint32_t Mono;
    uint32_t Serial;
    uint32_t Plugged;      // 0: unplugged, its device object is still there
    uint32_t Started;      // 1 between start and stop or removal
};
static_assert(sizeof(LIST_ENTRY_RECORD) == 24);

// A picture is resampled to the whole sensor (bilinear; area average when it is larger than the sensor). Grey g and
// colour components c become the 10-bit samples c * 4 + c / 64. A colour sensor keeps one component per pixel:
//     even rows  R G R G ...
//     odd rows   G B G B ...
// a monochrome one the luminance (77 R + 150 G + 29 B) / 256.
struct SCENE_REQUEST {
    uint32_t Slot;
    uint32_t Kind;
    uint32_t Flags;
    uint32_t Width;        // 1 to kMaxSceneSide for pictures, else 0
    uint32_t Height;
    uint32_t Level;        // kSceneFlat: 0 to 1023, else 0
};
static_assert(sizeof(SCENE_REQUEST) == 24);

struct DEFECTS_REQUEST {
    uint32_t Slot;
    uint32_t Where;        // kDefectsSensor | kDefectsFlash
    uint32_t Count;        // at most kMaxDefects
};
static_assert(sizeof(DEFECTS_REQUEST) == 12);

// As the flash holds it. Bits 0-1 of Type: 3 = the column X when Y is 0, else the row Y; other values: one pixel.
// On the sensor, h being (X * 31 + Y * 17) AND 7:
//     low bits 0 or 1   a pixel with even h reads h (dead), one with odd h 1000 + h (hot)
//     low bits 2        a pixel that reads 1023
//     low bits 3        every pixel of the column or row reads its sample XOR 0x155; X and Y both set: nothing
// Records outside the sensor show nothing.
struct DEFECT_RECORD {
    uint16_t X;
    uint16_t Y;
    uint8_t Type;
};
static_assert(sizeof(DEFECT_RECORD) == 5);

struct FLASH_REQUEST {
    uint32_t Slot;
    uint32_t Address;      // Address + Length <= kFlashSize; Length 0 changes the count only
    uint32_t Length;
    uint32_t SetCount;     // 1: command 0x12 answers CountWord from now on, true or not
    uint32_t CountWord;
};
static_assert(sizeof(FLASH_REQUEST) == 20);

struct LINE_FAULTS_REQUEST {
    uint32_t Slot;
    uint32_t Append;       // 0: replaces what was scripted
    uint32_t Count;
};
static_assert(sizeof(LINE_FAULTS_REQUEST) == 12);

struct LINE_FAULT {
    uint32_t Frame;        // or kEveryFrame
    uint16_t Line;
    uint16_t Kind;         // kLine...
    uint32_t Value;
};
static_assert(sizeof(LINE_FAULT) == 12);

struct TRIGGER_REPLY {
    uint32_t Accepted;     // 0: no streaming setting selected, free-running, powered down, or (model 3) not prepared
};
static_assert(sizeof(TRIGGER_REPLY) == 4);

// Rows of the whole sensor, 10-bit samples, before any window, decimation or mirror.
struct RENDER_REQUEST {
    uint32_t Slot;
    uint32_t Frame;
    uint32_t WithDefects;
    uint32_t FirstRow;
    uint32_t RowCount;
};
static_assert(sizeof(RENDER_REQUEST) == 20);

struct CAMERA_STATE {
    uint32_t Slot;
    uint32_t Model;
    uint32_t Mono;
    uint32_t SensorWidth;
    uint32_t SensorHeight;
    uint32_t Plugged;
    uint32_t Started;
    uint32_t PowerState;       // DEVICE_POWER_STATE: 1 is D0, 4 is D3
    uint32_t Configured;       // 0 before the first selection, else the configuration's value
    int32_t AlternateSetting;  // -1 before the first selection
    uint32_t PipesOpened;      // selections so far: each gives new pipe handles
    uint32_t PendingReads;     // on the streaming pipe, the one being filled and held ones included
    uint32_t PendingControls;
    uint32_t HeldReads;
    uint32_t Halted;           // the streaming pipe has stalled
    uint32_t Running;          // a frame is being sent, or has been triggered and waits for a read
    uint32_t FrequencyIndex;   // 0, 1 or 2
    uint32_t BitsPerPixel;     // 8 or 10
    uint32_t Pace;
    uint32_t NextFrame;        // number that the next frame will get
    uint32_t CurrentLine;      // next line to be sent of the frame being sent
    uint32_t ImageWidth;       // of the frame being sent or sent last
    uint32_t ImageHeight;
    uint32_t LineBytes;        // pixel bytes of one line of it
    uint64_t FramesSent;       // completed
    uint64_t LinesSent;
    uint64_t BytesSent;        // delivered into reads
    uint64_t ReadsCompleted;   // on the streaming pipe, whatever their status
    uint64_t ReadsCancelled;   // of them: cancelled or aborted
    uint64_t CommandsReceived;
    uint64_t LineFaultsDone;   // scripted line faults that were carried out
    uint64_t PowerCycles;      // D3 to D0
    uint16_t Registers[256];   // of the sensor
};
static_assert(sizeof(CAMERA_STATE) == 24 * 4 + 8 * 8 + 512);

struct LOG_REQUEST {
    uint32_t Slot;
    uint32_t Clear;            // 1: forget what was read
};
static_assert(sizeof(LOG_REQUEST) == 8);

struct LOG_HEADER {
    uint32_t Count;            // entries that follow, oldest first
    uint32_t Dropped;          // older ones that no longer were there or did not fit
};
static_assert(sizeof(LOG_HEADER) == 8);

struct LOG_ENTRY {
    uint32_t Sequence;
    uint8_t Reply;             // 0 host to camera, 1 camera to host
    uint8_t Length;
    uint16_t Reserved;
    uint8_t Bytes[64];
};
static_assert(sizeof(LOG_ENTRY) == 72);

struct COMMAND_FAULTS_REQUEST {
    uint32_t Slot;
    uint32_t Append;
    uint32_t Count;
};
static_assert(sizeof(COMMAND_FAULTS_REQUEST) == 12);

struct COMMAND_FAULT {
    uint16_t Code;             // 0 to 255, or kAnyCode
    uint16_t Kind;             // kCommand...
    uint32_t Value;
    uint32_t Skip;             // matching transactions that pass first
    uint32_t Times;            // then as many fail; 0xFFFFFFFF: all
};
static_assert(sizeof(COMMAND_FAULT) == 16);

struct BULK_FAULTS_REQUEST {
    uint32_t Slot;
    uint32_t Append;
    uint32_t Count;
};
static_assert(sizeof(BULK_FAULTS_REQUEST) == 12);

struct BULK_FAULT {
    uint16_t Kind;             // kBulk...
    uint16_t Reserved;         // 0
    uint32_t Value;
    uint32_t Times;            // reads it applies to; 0xFFFFFFFF: all
};
static_assert(sizeof(BULK_FAULT) == 12);

// Replaces what the camera answers to GET_DESCRIPTOR, lies included: the bytes go out as they are.
struct DESCRIPTOR_REQUEST {
    uint32_t Slot;
    uint8_t Type;              // kDescriptorDevice or kDescriptorConfiguration
    uint8_t Index;             // configurations: 0 or 1
    uint8_t Remove;            // 1: back to the true one; Length 0
    uint8_t Stall;             // 1: the request stalls; Length 0
    uint32_t Length;           // at most kMaxDescriptor
};
static_assert(sizeof(DESCRIPTOR_REQUEST) == 12);

struct FAIL_REQUESTS {
    uint32_t Slot;
    uint8_t Major;             // 0x1B IRP_MJ_PNP or 0x16 IRP_MJ_POWER
    uint8_t Minor;
    uint8_t PowerType;         // power: 0 system, 1 device, 0xFF either
    uint8_t PowerState;        // power: the state asked for, 0xFF any
    uint32_t Status;           // NTSTATUS to complete with; an error
    uint32_t Times;            // 0 forgets the matching entries
};
static_assert(sizeof(FAIL_REQUESTS) == 16);

struct PACE_REQUEST {
    uint32_t Slot;
    uint32_t Pace;
};
static_assert(sizeof(PACE_REQUEST) == 8);

struct SILENCE_REQUEST {
    uint32_t Slot;
    uint32_t What;
};
static_assert(sizeof(SILENCE_REQUEST) == 8);

// Builds a PnP or power request as the system would and sends it to the top of the camera's device stack; for kernels
// that never do so themselves. The request waits for its completion.
struct SEND_REQUEST {
    uint32_t Slot;
    uint8_t Major;             // 0x1B IRP_MJ_PNP or 0x16 IRP_MJ_POWER
    uint8_t Minor;             // PnP: query/cancel/stop/start kinds only, never a removal; power: query or set
    uint8_t PowerType;
    uint8_t PowerState;
};
static_assert(sizeof(SEND_REQUEST) == 8);

struct SEND_REPLY {
    uint32_t Status;
};
static_assert(sizeof(SEND_REPLY) == 4);

struct REGISTER_REQUEST {
    uint32_t Slot;
    uint16_t Register;         // 0 to 255; also the ones that the host cannot write
    uint16_t Value;
};
static_assert(sizeof(REGISTER_REQUEST) == 8);

struct NEXT_FRAME_REQUEST {
    uint32_t Slot;
    uint32_t Frame;            // number of the next frame that begins
};
static_assert(sizeof(NEXT_FRAME_REQUEST) == 8);

struct LINE_FLAGS_REQUEST {
    uint32_t Slot;
    uint32_t Rule;
    uint32_t Value;
};
static_assert(sizeof(LINE_FLAGS_REQUEST) == 12);

struct MODE_REQUEST {
    uint32_t Slot;
    uint32_t Mode;
};
static_assert(sizeof(MODE_REQUEST) == 8);

// What the bus's thread would do for the camera next, done in the caller's thread; for cameras in kModeByHand.
struct SERVE_REPLY {
    uint32_t Moved;            // 0: nothing could be done, or the mode is another
};
static_assert(sizeof(SERVE_REPLY) == 4);

// Stops the stream's scene: every frame shows the scene of frame `Frame`, while frame numbers go on for the line faults.
struct FREEZE_REQUEST {
    uint32_t Slot;
    uint32_t Frozen;           // 0: the scene follows the frame number again
    uint32_t Frame;
};
static_assert(sizeof(FREEZE_REQUEST) == 12);

#pragma pack(pop)

}  // namespace simbus
