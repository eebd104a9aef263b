#include "snapshot.h"

#include "badpix.h"
#include "camcmd.h"
#include "debug.h"
#include "frame.h"
#include "owners.h"
#include "transfer.h"
#include "usb_transport.h"

USBCAM_MODULE("drv/usb/snapshot")

namespace {

constexpr char kCapture[] = "VQT_GetSnapshot";

constexpr ULONG kRequestLimit = 0x302000; // bytes asked for by one read
constexpr ULONG kModelWithCaptureBit = 3;
constexpr UCHAR kCaptureBitRegister = 7; // bit 0 is set for the capture
constexpr UCHAR kTriggerRegister = 11;
constexpr LONGLONG kTicksPerSecond = 10'000'000; // 100 ns units

// What a capture reads, by one copy of the geometry.
struct CAPTURE_PLAN {
    FRAME_GEOMETRY Geometry;
    ULONGLONG FrameSize;   // image bytes
    ULONGLONG UsbDataSize; // stream bytes, rounded
    ULONG RequestSize;
    ULONGLONG RequestCount;
};

// Stream bytes of one frame.
constexpr ULONGLONG StreamSize(const FRAME_GEOMETRY &Geometry)
{
    // Below 2^36 bytes a line: the product wraps for no line count below 2^28, and larger ones have no buffer anyway.
    const ULONGLONG Line = StreamLineLength(Geometry.Width, Geometry.BitsPerPixel) + kLineHeaderSize;
    return Geometry.Height > kTooLarge / Line ? kTooLarge : Line * Geometry.Height;
}

// The camera fills its last packet: 1024 bytes in setting 1, 512 in setting 2.
constexpr ULONGLONG RoundToPacket(ULONGLONG Bytes, LONG AltSetting)
{
    const ULONGLONG Packet = AltSetting == 1 ? 1024 : AltSetting == 2 ? 512 : 1;
    return Bytes > kTooLarge - Packet ? Bytes : (Bytes + Packet - 1) / Packet * Packet;
}
static_assert(RoundToPacket(6270, 1) == 7168 && RoundToPacket(6270, 2) == 6656 && RoundToPacket(6270, 0) == 6270);
static_assert(RoundToPacket(1314816, 1) == 1314816 && RoundToPacket(kTooLarge, 1) == kTooLarge);

ULONGLONG FrameSizeOf(const FRAME_GEOMETRY &Geometry)
{
    DebugPrintAs("GetFrameSize", "W=%d H=%d \n", Geometry.Width, Geometry.Height);
    const ULONGLONG Bytes = ImageSize(Geometry.Width, Geometry.Height, Geometry.BitsPerPixel);
    DebugPrintAs("GetFrameSize", "FrameSize=%d \n", static_cast<ULONG>(Bytes));
    return Bytes;
}

ULONGLONG UsbDataSizeOf(const FRAME_GEOMETRY &Geometry, LONG AltSetting)
{
    DebugPrintAs("GetUSBDataSize", "W=%d H=%d \n", Geometry.Width, Geometry.Height);
    const ULONGLONG Bytes = StreamSize(Geometry);
    DebugPrintAs("GetUSBDataSize", "USBDataSize=%d \n", static_cast<ULONG>(Bytes));
    const ULONGLONG Corrected = RoundToPacket(Bytes, AltSetting);
    DebugPrintAs("GetUSBDataSize", "Corrected USBDataSize=%d \n", static_cast<ULONG>(Corrected));
    return Corrected;
}

// How many bytes read k asks for.
ULONG RequestLength(const CAPTURE_PLAN &Plan, ULONG Index)
{
    const ULONGLONG Rest = Plan.UsbDataSize - ULONGLONG{Index} * Plan.RequestSize;
    return static_cast<ULONG>(Rest < Plan.RequestSize ? Rest : Plan.RequestSize);
}

// Sizes the capture. STATUS_INVALID_DEVICE_REQUEST when the caller's buffer is too small for the image, or the frame
// buffers cannot take its stream: there are none, the image has no rows, it needs more reads than there are buffers, or
// more bytes than the first buffer holds when all is gathered there.
NTSTATUS PlanCapture(const DEVICE_EXTENSION *DevExt, LONG BufferSize, CAPTURE_PLAN &Plan)
{
    Plan.Geometry = CopyGeometry(DevExt);
    DebugPrintAs(kCapture, "Get output frame size \n");
    Plan.FrameSize = FrameSizeOf(Plan.Geometry);
    DebugPrintAs(kCapture, "FrameSize = %d byte(s) \n ", static_cast<ULONG>(Plan.FrameSize));
    if (BufferSize < 0 || static_cast<ULONGLONG>(BufferSize) < Plan.FrameSize) {
        ErrorPrintAs(kCapture, "Buffer too small, Need %d byte(s), Send %d byte(s)\n",
                     static_cast<ULONG>(Plan.FrameSize), BufferSize);
        return STATUS_INVALID_DEVICE_REQUEST;
    }

    DebugPrintAs(kCapture, "Get USB request count \n");
    Plan.UsbDataSize = UsbDataSizeOf(Plan.Geometry, ReadOnce(DevExt->AltSetting));
    DebugPrintAs(kCapture, "USBDataSize = %d byte(s) \n ", static_cast<ULONG>(Plan.UsbDataSize));
    Plan.RequestSize = DevExt->FrameBufSize < kRequestLimit ? DevExt->FrameBufSize : kRequestLimit;
    DebugPrintAs(kCapture, "USBRequestSize = %d \n", Plan.RequestSize);
    Plan.RequestCount = 0;
    if (Plan.RequestSize != 0) {
        Plan.RequestCount = Plan.UsbDataSize / Plan.RequestSize + (Plan.UsbDataSize % Plan.RequestSize != 0 ? 1 : 0);
    }
    DebugPrintAs(kCapture, "USBRequestCount = %d \n", static_cast<ULONG>(Plan.RequestCount));

    bool Fits = Plan.FrameSize != 0 && Plan.RequestCount != 0 && Plan.RequestCount <= kFrameBuffers &&
                Plan.UsbDataSize <= ULONGLONG{DevExt->FrameBufSize} + kFrameHeaderSize;
    for (const PUCHAR Frame : DevExt->Frame) {
        Fits = Fits && Frame != nullptr;
    }
    if (!Fits) {
        ErrorPrintAs(kCapture, "No frame buffers for %d byte(s) in %d request(s)\n",
                     static_cast<ULONG>(Plan.UsbDataSize), static_cast<ULONG>(Plan.RequestCount));
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    return STATUS_SUCCESS;
}

// Model 3 wants bit 0 of register 7 for the length of the capture.
_IRQL_requires_max_(PASSIVE_LEVEL) void SetCaptureBit(PDEVICE_OBJECT DeviceObject, const CAPTURE_PLAN &Plan, bool On)
{
    if (Plan.Geometry.ModelNo != kModelWithCaptureBit) {
        return;
    }
    USHORT Value = 0;
    VQT_ReadSensorReg(DeviceObject, kCaptureBitRegister, &Value);
    Value = static_cast<USHORT>(On ? Value | 1 : Value & 0xFFFE);
    VQT_WriteSensorReg(DeviceObject, kCaptureBitRegister, Value);
}

// From here a cancel finds the capture. What it and the completions look at is in place before.
_IRQL_requires_max_(PASSIVE_LEVEL) void EnterCapture(DEVICE_EXTENSION *DevExt, const CAPTURE_PLAN &Plan)
{
    StreamTurnHold Turn(DevExt);
    InterlockedExchange(&DevExt->PendingIrps, 0);
    KeInitializeEvent(&DevExt->NoPendingEv, NotificationEvent, FALSE);
    KeInitializeEvent(&DevExt->CaptureIdleEv, NotificationEvent, FALSE);
    InterlockedExchange(&DevExt->CaptureLeft, static_cast<LONG>(Plan.RequestCount));
    InterlockedExchange(&DevExt->CaptureRefs, 1);
    WriteOnce(DevExt->CaptureCancelled, FALSE);
    WriteOnce(DevExt->CameraStatus, CameraSnapshot);
}

// A cancel that has begun is finished first: it must not abort what comes after.
_IRQL_requires_max_(PASSIVE_LEVEL) void LeaveCapture(DEVICE_EXTENSION *DevExt)
{
    StreamTurnHold Turn(DevExt);
    WriteOnce(DevExt->CameraStatus, CameraStopped);
}

_IRQL_requires_max_(DISPATCH_LEVEL) void DropCaptureRef(DEVICE_EXTENSION *DevExt)
{
    if (InterlockedDecrement(&DevExt->CaptureRefs) == 0) {
        // The capture may be gone as soon as the event is set.
        KeSetEvent(&DevExt->CaptureIdleEv, 1, FALSE);
    }
}

// The reads of one capture. Owns the requests from their allocation to their release; on the way down and up again they
// belong to the lower driver.
class CaptureReads {
public:
    CaptureReads(PDEVICE_OBJECT DeviceObject, const CAPTURE_PLAN &Plan)
        : DeviceObject_(DeviceObject), DevExt_(GetDevExt(DeviceObject)), Plan_(Plan)
    {
    }
    CaptureReads(const CaptureReads &) = delete;
    CaptureReads &operator=(const CaptureReads &) = delete;

    void Send();
    NTSTATUS Wait();
    void End();
    ULONG Gather();

private:
    NTSTATUS SendOne(ULONG Index);
    void Trigger();

    PDEVICE_OBJECT DeviceObject_;
    DEVICE_EXTENSION *DevExt_;
    const CAPTURE_PLAN &Plan_;
    OwnedIrp Irps_[kFrameBuffers];
    ULONG Sent_ = 0;
};

// Queues the reads and triggers the frame once the first is there. A cancel, or a request that cannot be had, ends the
// capture as a failed read does.
_IRQL_requires_max_(PASSIVE_LEVEL) void CaptureReads::Send()
{
    while (Sent_ < Plan_.RequestCount) {
        if (ReadOnce(DevExt_->CaptureCancelled)) {
            break;
        }
        Irps_[Sent_] = OwnedIrp::Allocate(DevExt_->LowerDeviceObject);
        if (!Irps_[Sent_]) {
            KeSetEvent(&DevExt_->NoPendingEv, 1, FALSE);
            break;
        }
        const NTSTATUS Status = SendOne(Sent_);
        DebugPrintAs(kCapture, "ntStatus=%Xh\n", Status);
        if (Sent_++ == 0) {
            Trigger();
        }
    }
}

_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS CaptureReads::SendOne(ULONG Index)
{
    _URB_BULK_OR_INTERRUPT_TRANSFER &Urb = DevExt_->SnapshotUrb[Index];
    const PIRP Irp = Irps_[Index].Get();
    FillBulkRead(Urb, DevExt_->MainIn, RequestLength(Plan_, Index), DevExt_->Frame[Index], nullptr);
    SetUpBulkRead(Irp, Urb, OnSnapshotIrpComplete, DevExt_);
    InterlockedIncrement(&DevExt_->CaptureRefs);
    InterlockedIncrement(&DevExt_->PendingIrps);
    return IoCallDriver(DevExt_->LowerDeviceObject, Irp);
}

_IRQL_requires_max_(PASSIVE_LEVEL) void CaptureReads::Trigger()
{
    if (ReadOnce(DevExt_->SnapshotTrigger) == 0) {
        DebugPrintAs(kCapture, "Internal triger \n");
        VQT_WriteSensorReg(DeviceObject_, kTriggerRegister, 1);
    } else {
        DebugPrintAs(kCapture, "External triger \n");
    }
}

// Until the last read has finished, one has failed, the capture is cancelled or the limit has passed.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS CaptureReads::Wait()
{
    // A limit of 2^31 seconds and more is negative, and the wait ends at once.
    const LONG Seconds = static_cast<LONG>(ReadOnce(DevExt_->SnapshotTimeout));
    LARGE_INTEGER Limit = {};
    Limit.QuadPart = -LONGLONG{Seconds} * kTicksPerSecond;
    DebugPrintAs(kCapture, "KeWaitForSingleObject( &(DevExt->NoPendingEv), Executive, KernelMode, FALSE, NULL ); \n");
    const NTSTATUS Status =
        KeWaitForSingleObject(&DevExt_->NoPendingEv, Executive, KernelMode, FALSE, Seconds != 0 ? &Limit : nullptr);
    DebugPrintAs(kCapture, "KeWaitForSingleObject return ntStatus=%08Xh\n", Status);
    return Status;
}

// Brings every read back and waits until the last completion routine has let go of the record: the wait before may have
// ended with the first read that failed, and the abort can fail.
_IRQL_requires_max_(PASSIVE_LEVEL) void CaptureReads::End()
{
    UsbAbortPipe(DeviceObject_, DevExt_->MainIn);
    for (ULONG Index = 0; Index < Sent_; ++Index) {
        IoCancelIrp(Irps_[Index].Get());
    }
    DropCaptureRef(DevExt_);
    KeWaitForSingleObject(&DevExt_->CaptureIdleEv, Executive, KernelMode, FALSE, nullptr);
}

// Puts the received pieces one behind the other into Frame[0], where the first one already is, and releases the
// requests. Returns the bytes received; they fit, because all that was asked for does.
_IRQL_requires_max_(PASSIVE_LEVEL) ULONG CaptureReads::Gather()
{
    ULONG Total = 0;
    for (ULONG Index = 0; Index < Sent_; ++Index) {
        const ULONG Received =
            BulkReceived(DevExt_->SnapshotUrb[Index], Irps_[Index].Get()->IoStatus.Status, RequestLength(Plan_, Index));
        if (Index != 0) {
            RtlCopyMemory(DevExt_->Frame[0] + Total, DevExt_->Frame[Index], Received);
        }
        Total += Received;
        Irps_[Index].Reset();
    }
    return Total;
}

// The stream in Frame[0] becomes the image, by the geometry that the capture began with.
_IRQL_requires_max_(PASSIVE_LEVEL) void Convert(DEVICE_EXTENSION *DevExt, const FRAME_GEOMETRY &Geometry, ULONG Total,
                                                PVOID Image, PULONG RetSize)
{
    if (Geometry.BitsPerPixel == 8) {
        checkSignature(Geometry, DevExt->Frame[0], Total, static_cast<PUCHAR>(Image), RetSize);
    } else {
        checkSignature(Geometry, DevExt->Frame[0], Total, static_cast<PUSHORT>(Image), RetSize);
    }
    if (DevExt->BadPixNum == 0) {
        return;
    }
    if (Geometry.BitsPerPixel == 8) {
        FixBadPix8(DevExt, Geometry, static_cast<PUCHAR>(Image));
    } else {
        FixBadPix10(DevExt, Geometry, static_cast<PUSHORT>(Image));
    }
}

// The capture, with the camera claimed and the buffers held.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    Capture(PDEVICE_OBJECT DeviceObject, PVOID Image, LONG BufferSize, PULONG RetSize)
{
    DEVICE_EXTENSION *DevExt = GetDevExt(DeviceObject);
    CAPTURE_PLAN Plan = {};
    NTSTATUS Status = PlanCapture(DevExt, BufferSize, Plan);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    DebugPrintAs(kCapture, "UsbSetInterface(0,X)\n");
    Status = UsbSetInterface(DeviceObject, 0, static_cast<LONG>(ReadOnce(DevExt->DefAlt)));
    if (NT_SUCCESS(Status) && DevExt->MainIn == nullptr) {
        Status = STATUS_INVALID_DEVICE_REQUEST;
    }
    if (!NT_SUCCESS(Status)) {
        ErrorPrintAs(kCapture, "UsbSetInterface() return %d\n", Status);
        return Status;
    }

    EnterCapture(DevExt, Plan);
    SetCaptureBit(DeviceObject, Plan, true);
    DebugPrintAs(kCapture, "Prepare and read from USB \n");
    CaptureReads Reads(DeviceObject, Plan);
    Reads.Send();
    Status = Reads.Wait();
    Reads.End();
    SetCaptureBit(DeviceObject, Plan, false);
    DebugPrintAs(kCapture, "Copy all to Frame0 \n ");
    const ULONG Total = Reads.Gather();

    DebugPrintAs(kCapture, "Convert stream to frame \n");
    // Rows that did not arrive: nobody sees what the memory held before.
    RtlZeroMemory(Image, static_cast<SIZE_T>(Plan.FrameSize));
    Convert(DevExt, Plan.Geometry, Total, Image, RetSize);
    DebugPrintAs(kCapture, "Frame RetSize=%d\n", *RetSize);
    DebugPrintAs(kCapture, "Exit...\n");
    DebugPrintAs(kCapture, "UsbSetInterface(0,X)\n");
    UsbSetInterface(DeviceObject, 0, 0);
    LeaveCapture(DevExt);
    DebugPrintAs(kCapture, "Exit Status=%Xh\n", Status);
    return Status;
}

} // namespace

ULONG GetFrameSize(PDEVICE_OBJECT DeviceObject)
{
    return static_cast<ULONG>(FrameSizeOf(CopyGeometry(GetDevExt(DeviceObject))));
}

ULONG GetUSBDataSize(PDEVICE_OBJECT DeviceObject)
{
    const DEVICE_EXTENSION *DevExt = GetDevExt(DeviceObject);
    return static_cast<ULONG>(UsbDataSizeOf(CopyGeometry(DevExt), ReadOnce(DevExt->AltSetting)));
}

NTSTATUS VQT_GetSnapshot(PDEVICE_OBJECT DeviceObject, PVOID Image, LONG BufferSize, PULONG RetSize)
{
    DEVICE_EXTENSION *DevExt = GetDevExt(DeviceObject);
    *RetSize = 0;
    const CameraClaim Claim(DevExt);
    if (!Claim || ReadOnce(DevExt->CameraStatus) != CameraStopped) {
        ErrorPrint("Invalid camera status = %d \n", ReadOnce(DevExt->CameraStatus));
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const BufferHold Hold(DevExt, BufferAccess::Shared);
    return Capture(DeviceObject, Image, BufferSize, RetSize);
}

NTSTATUS OnSnapshotIrpComplete(PDEVICE_OBJECT, PIRP Irp, PVOID Context)
{
    DEVICE_EXTENSION *DevExt = static_cast<DEVICE_EXTENSION *>(Context);
    const NTSTATUS Status = Irp->IoStatus.Status;
    const LONG Pending = InterlockedDecrement(&DevExt->PendingIrps);
    DebugPrint("DevExt->PendingIrps=%d\n", Pending);
    // The last one is the last of all the frame takes: one that finishes before the next is queued does not end the
    // wait.
    if (Status != STATUS_SUCCESS || InterlockedDecrement(&DevExt->CaptureLeft) == 0) {
        DebugPrint("Irp->IoStatus.Status=%08Xh\n", Status);
        KeSetEvent(&DevExt->NoPendingEv, 1, FALSE);
        DebugPrint("KeSetEvent(&(DevExt->NoPendingEv),1,FALSE);\n");
    }
    DropCaptureRef(DevExt);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS VQT_CancelSnapshot(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *DevExt = GetDevExt(DeviceObject);
    StreamTurnHold Turn(DevExt);
    const UCHAR CameraStatus = ReadOnce(DevExt->CameraStatus);
    if (CameraStatus != CameraSnapshot) {
        ErrorPrint("Invalid camera status = %d \n", CameraStatus);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const LONG AltSetting = ReadOnce(DevExt->AltSetting);
    const USBD_PIPE_HANDLE MainIn = ReadOnce(DevExt->MainIn);
    if (AltSetting < 1 || MainIn == nullptr) {
        ErrorPrint("AltSetting<1 ? AltSetting=%d\n", AltSetting);
        ErrorPrint("MainIn==NULL ? MainIn=%p\n", MainIn);
        return STATUS_INVALID_DEVICE_REQUEST;
    }

    // Ends the wait by itself: there may be no read on the pipe yet for the abort to find, and the abort can fail.
    WriteOnce(DevExt->CaptureCancelled, TRUE);
    DebugPrint("UsbAbortPipe()\n");
    NTSTATUS Status = UsbAbortPipe(DeviceObject, MainIn);
    DebugPrint("UsbAbortPipe() return %08Xh(%d)\n", Status, Status);
    KeSetEvent(&DevExt->NoPendingEv, 1, FALSE);
    DebugPrint("UsbSetInterface(0,0)\n");
    Status = UsbSetInterface(DeviceObject, 0, 0);
    DebugPrint("UsbSetInterface(0,0) return %08Xh(%d)\n", Status, Status);
    return STATUS_SUCCESS;
}
