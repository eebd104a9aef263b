#include "badpix.h"
#include "camera.h"
#include "guardedmap.h"
#include "owners.h"
#include "request.h"
#include "snapshot.h"

USBCAM_MODULE("drv/usb/driver")

namespace {

// Looks at the status after an earlier store of this thread, never before it.
UCHAR StatusAfterStores(DEVICE_EXTENSION *DevExt)
{
    return std::atomic_ref<UCHAR>(DevExt->CameraStatus).fetch_or(0);
}

// Waits for a frame that completes from now on, or for the stream to stop. A stop that came between the caller's look
// at the status and the clear has set the event for the last time: nobody would set it again. Who finds that out gives
// the signal back, for others that have looked in time but do not wait yet.
NTSTATUS WaitForFrame(DEVICE_EXTENSION *DevExt, bool AlsoSnapshot, LARGE_INTEGER *Limit)
{
    KeClearEvent(&DevExt->FrameReadyEv);
    const UCHAR Status = StatusAfterStores(DevExt);
    if (Status != CameraStreaming && !(AlsoSnapshot && Status == CameraSnapshot)) {
        KeSetEvent(&DevExt->FrameReadyEv, 1, FALSE);
        return STATUS_SUCCESS;
    }
    return KeWaitForSingleObject(&DevExt->FrameReadyEv, Executive, KernelMode, FALSE, Limit);
}

// The right to use the frame buffers until the end of the scope, and the ready frame. Repair writes into the frame, so
// with defects loaded each request has its own turn. The assembly takes no part in it: it comes back to the frame after
// two more, and a request that is not through with it by then sees it refilled.
class ReadyFrame {
public:
    explicit ReadyFrame(DEVICE_EXTENSION *DevExt)
        : DevExt_(DevExt), Repairs_(HasDefects(DevExt)),
          Hold_(DevExt, Repairs_ ? BufferAccess::Exclusive : BufferAccess::Shared), Geometry_(CopyGeometry(DevExt)),
          Frame_(ReadOnce(DevExt->FrameReadyPtr))
    {
    }

    PUCHAR Get() const
    {
        return Frame_;
    }
    PUCHAR Image() const
    {
        return Frame_ + kFrameHeaderSize;
    }

    // Bytes of the image, never more than a frame buffer holds.
    ULONG ImageBytes() const
    {
        const ULONGLONG Bytes = ImageSize(Geometry_.Width, Geometry_.Height, Geometry_.BitsPerPixel);
        return static_cast<ULONG>(Bytes < DevExt_->FrameBufSize ? Bytes : DevExt_->FrameBufSize);
    }

    ULONG HeaderWidth() const
    {
        return reinterpret_cast<const FRAME_HEADER *>(Frame_)->Width;
    }
    ULONG HeaderHeight() const
    {
        return reinterpret_cast<const FRAME_HEADER *>(Frame_)->Height;
    }

    // Both give the bytes copied, at most Length.
    ULONG CopyImage(PUCHAR Output, ULONG Length) const
    {
        const ULONG Bytes = Smaller(ImageBytes(), Length);
        RtlCopyMemory(Output, Image(), Bytes);
        return Bytes;
    }
    ULONG CopyWithHeader(PUCHAR Output, ULONG Length) const
    {
        const ULONG Bytes = Smaller(ImageBytes() + kFrameHeaderSize, Length);
        RtlCopyMemory(Output, Frame_, Bytes);
        return Bytes;
    }

    void RepairDefects() const
    {
        if (!Repairs_ || Frame_ == nullptr || DevExt_->BadPixNum == 0) {
            return;
        }
        if (Geometry_.BitsPerPixel == 8) {
            FixBadPix8(DevExt_, Geometry_, Image());
        } else {
            FixBadPix10(DevExt_, Geometry_, reinterpret_cast<PUSHORT>(Image()));
        }
    }

private:
    static bool HasDefects(DEVICE_EXTENSION *DevExt)
    {
        const BufferHold Hold(DevExt, BufferAccess::Shared);
        return DevExt->BadPixNum != 0;
    }

    DEVICE_EXTENSION *DevExt_;
    bool Repairs_;
    BufferHold Hold_;
    FRAME_GEOMETRY Geometry_;
    PUCHAR Frame_;
};

// A capture that followed the stream uses the frame buffers as they please it: no frame of the stream is left in them.
bool FramesAreCapture(DEVICE_EXTENSION *DevExt)
{
    return ReadOnce(DevExt->CameraStatus) == CameraSnapshot;
}

// Null for an output of no bytes, and when there is no room to map it.
PUCHAR OutputOf(const REQUEST &Request)
{
    const PMDL Mdl = Request.Irp->MdlAddress;
    return Mdl != nullptr ? static_cast<PUCHAR>(MmGetSystemAddressForMdlSafe(Mdl, NormalPagePriority)) : nullptr;
}

// Puts a mapping of the frame in the place of the previous one. The caller holds the frame buffers.
NTSTATUS MapFrame(REQUEST &Request, PUCHAR Frame, PVOID &Mapped)
{
    DEVICE_EXTENSION *const DevExt = Request.DevExt;
    PEPROCESS OldOwner = nullptr;
    NTSTATUS Status = STATUS_INSUFFICIENT_RESOURCES;
    {
        const MappingHold Hold(DevExt);
        if (DevExt->UserSpace != nullptr) {
            RequestPrint("MmUnmapLockedPages(%p)\n", DevExt->UserSpace);
        }
        if (DevExt->UserSpaceMdl != nullptr) {
            RequestPrint("IoFreeMdl(%p) \n", DevExt->UserSpaceMdl);
        }
        OldOwner = DropUserMapping(DevExt);

        OwnedMdl Mdl = OwnedMdl::ForNonPaged(Frame, DevExt->FrameBufSize);
        RequestPrint("MDL Allocate ADDR=%p\n", Mdl.Get());
        if (Mdl) {
            Mapped = MapIntoCurrentProcess(Mdl.Get());
            RequestPrint("UserSpace=%p\n", Mapped);
        }
        if (Mapped != nullptr) {
            DevExt->UserSpaceOwner = PsGetCurrentProcess();
            ObReferenceObject(DevExt->UserSpaceOwner);
            DevExt->UserSpaceFile = IoGetCurrentIrpStackLocation(Request.Irp)->FileObject;
            DevExt->UserSpace = Mapped;
            DevExt->UserSpaceMdl = Mdl.Release();
            Status = STATUS_SUCCESS;
        }
    }
    if (OldOwner != nullptr) {
        ObDereferenceObject(OldOwner);
    }
    return Status;
}

NTSTATUS RefuseNotStarted(REQUEST &Request)
{
    // IOCTL_GetFramePtr says the same.
    RequestError("IOCTL_GetFrame: Camera NOT started! \n");
    return Refuse(Request, STATUS_INVALID_DEVICE_REQUEST);
}

} // namespace

NTSTATUS OnGetFrame(REQUEST &Request)
{
    DEVICE_EXTENSION *const DevExt = Request.DevExt;
    if (ReadOnce(DevExt->CameraStatus) != CameraStreaming) {
        return RefuseNotStarted(Request);
    }
    if (WaitForFrame(DevExt, false, &Request.FrameLimit) == STATUS_TIMEOUT) {
        return Refuse(Request, STATUS_UNSUCCESSFUL);
    }
    if (FramesAreCapture(DevExt)) {
        RequestError("IOCTL_GetFrame: FrameReadyPtr is NULL! \n");
        return STATUS_UNSUCCESSFUL;
    }
    const ReadyFrame Ready(DevExt);
    Ready.RepairDefects();
    const PUCHAR Output = OutputOf(Request);
    if (Output == nullptr) {
        RequestError("IOCTL_GetFrame: MmGetSystemAddressForMdlSafe() FAIL! \n");
        return Refuse(Request, STATUS_UNSUCCESSFUL);
    }
    if (Ready.Get() == nullptr) {
        RequestError("IOCTL_GetFrame: FrameReadyPtr is NULL! \n");
        return STATUS_UNSUCCESSFUL;
    }
    Request.Information = Ready.CopyImage(Output, Request.OutputLength);
    return STATUS_SUCCESS;
}

NTSTATUS OnGetFrameEx(REQUEST &Request)
{
    DEVICE_EXTENSION *const DevExt = Request.DevExt;
    if (ReadOnce(DevExt->CameraStatus) == CameraStopped) {
        RequestError("IOCTL_GetFrameEx: Camera NOT started! \n");
        return Refuse(Request, STATUS_INVALID_DEVICE_REQUEST);
    }
    if (WaitForFrame(DevExt, true, &Request.FrameLimit) == STATUS_TIMEOUT) {
        return Refuse(Request, STATUS_UNSUCCESSFUL);
    }
    if (FramesAreCapture(DevExt)) {
        RequestError("IOCTL_GetFrameEx: FrameReadyPtr is NULL! \n");
        return Refuse(Request, STATUS_UNSUCCESSFUL);
    }
    const ReadyFrame Ready(DevExt);
    if (Ready.Get() == nullptr) {
        RequestError("IOCTL_GetFrameEx: FrameReadyPtr is NULL! \n");
        return Refuse(Request, STATUS_UNSUCCESSFUL);
    }
    Ready.RepairDefects();
    const PUCHAR Output = OutputOf(Request);
    if (Output == nullptr) {
        RequestError("IOCTL_GetFrameEx: MmGetSystemAddressForMdlSafe() FAIL! \n");
        return Refuse(Request, STATUS_UNSUCCESSFUL);
    }
    RequestPrint("IOCTL_GetFrameEx: %dx%d frame \n", Ready.HeaderWidth(), Ready.HeaderHeight());
    Request.Information = Ready.CopyWithHeader(Output, Request.OutputLength);
    return STATUS_SUCCESS;
}

NTSTATUS OnGetFramePtr(REQUEST &Request)
{
    DEVICE_EXTENSION *const DevExt = Request.DevExt;
    if (ReadOnce(DevExt->CameraStatus) != CameraStreaming) {
        return RefuseNotStarted(Request);
    }
    WaitForFrame(DevExt, false, nullptr);
    if (ReadOnce(DevExt->CameraStatus) != CameraStreaming) {
        return RefuseNotStarted(Request);
    }
    const ReadyFrame Ready(DevExt);
    if (Ready.Get() == nullptr) {
        RequestError("IOCTL_GetFrame: FrameReadyPtr is NULL! \n");
        return Refuse(Request, STATUS_UNSUCCESSFUL);
    }
    Ready.RepairDefects();
    PVOID Mapped = nullptr;
    const NTSTATUS Status = MapFrame(Request, Ready.Get(), Mapped);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    const PUCHAR Output = OutputOf(Request);
    if (Output == nullptr) {
        RequestError("IOCTL_GetFramePtr: OutBuf=NULL \n");
        return STATUS_INVALID_PARAMETER;
    }
    RequestPrint("OutBuf=%p \n", Output);
    const ULONGLONG Address = reinterpret_cast<ULONG_PTR>(Mapped);
    RtlCopyMemory(Output, &Address, sizeof(Address));
    Request.Information = sizeof(Address);
    return STATUS_SUCCESS;
}

NTSTATUS OnSetSnapshotParams(REQUEST &Request)
{
    SNAPSHOT_PARAMETERS Params = {};
    RtlCopyMemory(&Params, Request.Buffer, sizeof(Params));
    WriteOnce(Request.DevExt->SnapshotTimeout, Params.SnapshotTimeout);
    WriteOnce(Request.DevExt->SnapshotTrigger, Params.SnapshotTrigger);
    return STATUS_SUCCESS;
}

NTSTATUS OnGetSnapshot(REQUEST &Request)
{
    const UCHAR Status = ReadOnce(Request.DevExt->CameraStatus);
    if (Status != CameraStopped) {
        RequestError("Invalid camera status = %d \n", Status);
        return Refuse(Request, STATUS_INVALID_PARAMETER);
    }
    const auto BufferSize = static_cast<LONG>(Smaller(Request.OutputLength, MAXLONG));
    ULONG RetSize = 0;
    const NTSTATUS Result = VQT_GetSnapshot(Request.DeviceObject, Request.Buffer, BufferSize, &RetSize);
    Request.Information = Smaller(RetSize, Request.OutputLength);
    return Result;
}

NTSTATUS OnCancelSnapshot(REQUEST &Request)
{
    return VQT_CancelSnapshot(Request.DeviceObject);
}
