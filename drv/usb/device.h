// The record of one camera: its device object's extension. All state of a camera lives here; there are no driver-wide
// variables. Zero-filled at device creation, non-paged, lives exactly as long as the device object.
#pragma once

#include <ntddk.h>
#include <usb.h>
#include <usbioctl.h>

// mingw-w64's header leaves out that these are C functions.
extern "C" {
#include <usbdlib.h>
}

#include <atomic>
#include <type_traits>

#include "ioctl.h"

constexpr ULONG kPoolTag = '42QV';

constexpr ULONG kFrameBuffers = 3;
constexpr ULONG kStreamRequests = 3;
constexpr ULONG kStreamBlockSize = 49152;       // bytes asked for by each circulating read
constexpr ULONG kSavedTailSize = 4096;          // the longest unparsed tail carried from block to block
constexpr ULONG kFrameHeaderClear = 1616;       // header bytes cleared when a buffer becomes the one being filled
constexpr ULONG kCommandSize = 64;              // a camera command or reply, code or status byte included
constexpr UCHAR kStreamEndpoint = 0x82;

static_assert(sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER) == 128);
static_assert(sizeof(_URB_PIPE_REQUEST) == 40);
static_assert(sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST) == 136);
static_assert(sizeof(IO_ERROR_LOG_PACKET) == 48);

struct DEVICE_EXTENSION;

// One defect of the sensor. Coordinates are those of the whole sensor, column and row 0 at the top left.
struct BADPIX_RECORD {
    USHORT BpX;
    USHORT BpY;
    UCHAR BpType;
    UCHAR BpPosMask;   // the neighbours that may repair it, one bit a position
};
static_assert(sizeof(BADPIX_RECORD) == 6);

// One circulating read of the stream.
struct STREAM_CONTEXT {
    DEVICE_EXTENSION *DevExt;
    PIRP Irp;
    _URB_BULK_OR_INTERRUPT_TRANSFER Urb;
    UCHAR Reserve[kSavedTailSize];   // the previous block's tail is put directly in front of Data
    UCHAR Data[kStreamBlockSize];
    PMDL Mdl;                        // where the request's data goes: Block
    // Ours, for serialised assembly in block order:
    PUCHAR Block;                    // the receive area in use: one of the three Data or the spare one
    ULONG Received;                  // bytes of the completed block that waits for its turn
    UCHAR State;                     // READ_STATE, changed under AssemblyLock once the request is on its way
};
static_assert(offsetof(STREAM_CONTEXT, Data) - offsetof(STREAM_CONTEXT, Reserve) == kSavedTailSize);

// A receive area more than there are reads: a completed read goes back to the pipe with the spare one at once, and the
// block just received stays untouched until it is parsed, however fast the others complete.
struct SPARE_BLOCK {
    UCHAR Reserve[kSavedTailSize];
    UCHAR Data[kStreamBlockSize];
    PUCHAR Block;
    PMDL Mdl;
};
static_assert(offsetof(SPARE_BLOCK, Data) - offsetof(SPARE_BLOCK, Reserve) == kSavedTailSize);

struct DEVICE_EXTENSION {
    PDEVICE_OBJECT LowerDeviceObject;
    PDEVICE_OBJECT PhysicalDeviceObject;
    UCHAR DeviceStarted;
    UCHAR RemoveRequested;           // every device control request is refused while set
    UCHAR ShutdownDone;
    WCHAR DeviceID;                  // '0'-'9', 'A'-'Z'
    UNICODE_STRING InterfaceName;
    USBD_PIPE_HANDLE Pipe1;          // never filled
    USBD_PIPE_HANDLE Pipe0;          // never filled
    USBD_PIPE_HANDLE MainIn;         // endpoint 0x82 of the selected setting, or null
    LONG AltSetting;                 // of the last successful selection
    ULONG DefAlt;                    // for streaming and snapshots, 1 or 2
    ULONG ModelNo;                   // 1, 2, 3
    UCHAR IsMono;
    ULONG MaxWidth;                  // sensor pixels
    ULONG MaxHeight;
    ULONG FrameBufSize;              // bytes of each frame buffer's image area
    ULONG BitsPerPixel;              // 8 or 10
    UCHAR BitsChangeable;
    ULONG Width;                     // image pixels, after decimation
    ULONG Height;
    LONG StartX;                     // sensor pixels
    LONG StartY;
    LONG Decimation;                 // negative: binning, model 3
    UCHAR FlipY;
    UCHAR FlipX;
    STREAM_CONTEXT StreamCtx[kStreamRequests];
    PUCHAR Frame[kFrameBuffers];     // FRAME_HEADER, then FrameBufSize bytes
    ULONG FrameLen[kFrameBuffers];   // image bytes stored since it became the one being filled
    ULONG SlaveReplyLen;             // 0 = no reply kept
    UCHAR SlaveReplyBuf[kCommandSize];
    UCHAR SlavePresent;              // the slave link exists
    DEVICE_POWER_STATE PowerState;   // unspecified, D0 or D3
    PIRP PendingSystemPowerIrp;
    ULONG SnapshotTimeout;           // seconds, 0 = no limit
    ULONG SnapshotTrigger;           // 0 internal
    _URB_BULK_OR_INTERRUPT_TRANSFER SnapshotUrb[kFrameBuffers];
    ULONG SavedLen;
    UCHAR SavedBuffer[kSavedTailSize];
    ULONG CurFrame;
    ULONG FrameCounter;
    ULONG NextLineNo;
    UCHAR LastLineTag;
    UCHAR CameraStatus;              // CAMERA_STATUS
    UCHAR SavedStatus;
    UCHAR SavedFreq;
    LONG PendingIrps;                // reads in flight, changed by interlocked operations only
    KEVENT NoPendingEv;
    KEVENT FrameReadyEv;
    PUCHAR FrameReadyPtr;
    ULONG FrameReadySize;
    ULONG TotalBlocks;               // the three totals: interlocked, read and cleared by one exchange
    ULONG TotalFrames;
    ULONG Resyncs;
    ULONG BadPixNum;
    BADPIX_RECORD *BadPix;
    PMDL UserSpaceMdl;
    PVOID UserSpace;
    KSEMAPHORE HwCommandSemaphore;

    // Below: what the documented record does not have, added for safety.

    // Who may move CameraStatus away from 0, replace the frame buffers or select an interface setting: one capture, one
    // stream (from its start until it is taken down again) or one device start at a time. 0 free, 1 taken. CameraStatus
    // itself keeps its documented order.
    LONG Claim;

    // Frame buffers, defect list and user mapping: shared by requests that read or repair frames, exclusive for those
    // that replace them. A device can be started a second time while its handles stay open.
    ERESOURCE BufferLock;

    // The mapping's own exclusive turn: taken after BufferLock, never before.
    FAST_MUTEX MappingLock;
    PEPROCESS UserSpaceOwner;        // referenced while UserSpace is not null
    PFILE_OBJECT UserSpaceFile;      // the handle it was made through; compared, never followed

    // Assembly is one block at a time, in the order of the pipe, whatever processors completions arrive on. The lock
    // covers AssemblyBusy and the contexts' State and Received; PipeOrder and Spare belong to whoever is assembling.
    KSPIN_LOCK AssemblyLock;
    BOOLEAN AssemblyBusy;
    ULONG PipeHead;                  // index in PipeOrder of the read that completes next
    ULONG PipeCount;                 // reads on the pipe, or completed and not yet looked at
    STREAM_CONTEXT *PipeOrder[kStreamRequests];
    SPARE_BLOCK Spare;

    // One start or stop of the stream, one beginning, end or cancel of a capture at a time: the second of two stops
    // finds the first one finished, and a cancel never reaches what comes after its capture. Never held over a capture.
    KSEMAPHORE StreamTurn;           // count 1

    // The capture in progress.
    LONG CaptureLeft;                // reads that have not yet succeeded, those not yet sent included
    LONG CaptureRefs;                // completions that may still touch this record, plus the capture's own
    KEVENT CaptureIdleEv;            // CaptureRefs reached 0
    UCHAR CaptureCancelled;          // send no more reads

    // The kept slave reply: two clients may write and read it at once.
    KSPIN_LOCK SlaveLock;

    // The device interface has been enabled; a repeated start leaves it alone.
    UCHAR InterfaceEnabled;

    // Power requests that still need this device: removal waits until there are none. The event belongs to the count and
    // is changed under its lock only, so that the last one out has let go of the record when the waiter comes through.
    KSPIN_LOCK PowerLock;
    LONG PowerRefs;
    KEVENT NoPowerEv;

    // A request to D0 that comes back above PASSIVE_LEVEL waits for a work item, allocated with the device so that waking
    // up cannot fail for want of it.
    PIO_WORKITEM RestoreItem;
    PIRP RestoreIrp;                 // the request the work item completes
    PIRP DeferredIrp;                // the last request handed to it; compared, never followed
};

inline DEVICE_EXTENSION *GetDevExt(PDEVICE_OBJECT DeviceObject)
{
    return static_cast<DEVICE_EXTENSION *>(DeviceObject->DeviceExtension);
}

// A field that another thread or a completion changes without a lock: read or written once, whole. Pointers that publish
// what they point at are written with release and read with acquire order; the rest needs no order.
template <typename T> inline T ReadOnce(const T &Value)
{
    return std::atomic_ref<T>(const_cast<T &>(Value)).load(std::memory_order_acquire);
}
template <typename T> inline void WriteOnce(T &Value, std::type_identity_t<T> NewValue)
{
    std::atomic_ref<T>(Value).store(NewValue, std::memory_order_release);
}
