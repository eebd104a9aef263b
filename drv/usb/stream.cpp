#include "stream.h"

#include "debug.h"
#include "frame.h"
#include "owners.h"
#include "transfer.h"
#include "usb_transport.h"

USBCAM_MODULE("drv/usb/stream")

namespace {

// Where a read is, between being sent down and being looked at in its turn.
enum READ_STATE : UCHAR { OnPipe, Arrived, Retired };

// The camera or the request is gone: the read is not sent again.
constexpr NTSTATUS kFinalStatus[] = {STATUS_UNSUCCESSFUL,      STATUS_NO_SUCH_DEVICE,       STATUS_CANCELLED,
                                     STATUS_INVALID_PARAMETER, STATUS_DEVICE_NOT_CONNECTED, STATUS_DEVICE_REMOVED};

constexpr bool IsFinal(NTSTATUS Status)
{
    for (const NTSTATUS Final : kFinalStatus) {
        if (Status == Final) {
            return true;
        }
    }
    return false;
}
static_assert(IsFinal(STATUS_CANCELLED) && IsFinal(STATUS_DEVICE_REMOVED));
static_assert(!IsFinal(STATUS_SUCCESS) && !IsFinal(STATUS_TIMEOUT));

class AssemblyHold {
public:
    _IRQL_requires_max_(DISPATCH_LEVEL) explicit AssemblyHold(DEVICE_EXTENSION *DevExt) : DevExt_(DevExt)
    {
        KeAcquireSpinLock(&DevExt->AssemblyLock, &OldIrql_);
    }
    AssemblyHold(const AssemblyHold &) = delete;
    AssemblyHold &operator=(const AssemblyHold &) = delete;
    ~AssemblyHold()
    {
        KeReleaseSpinLock(&DevExt_->AssemblyLock, OldIrql_);
    }

private:
    DEVICE_EXTENSION *DevExt_;
    KIRQL OldIrql_ = 0;
};

// The order of the pipe. Only whoever is assembling comes here.
void PushRead(DEVICE_EXTENSION *DevExt, STREAM_CONTEXT *Context)
{
    Context->State = OnPipe;
    DevExt->PipeOrder[(DevExt->PipeHead + DevExt->PipeCount) % kStreamRequests] = Context;
    DevExt->PipeCount++;
}

STREAM_CONTEXT *PopRead(DEVICE_EXTENSION *DevExt)
{
    STREAM_CONTEXT *Context = DevExt->PipeOrder[DevExt->PipeHead];
    DevExt->PipeHead = (DevExt->PipeHead + 1) % kStreamRequests;
    DevExt->PipeCount--;
    return Context;
}

bool IsStreaming(const DEVICE_EXTENSION *DevExt)
{
    return ReadOnce(DevExt->CameraStatus) != CameraStopped;
}

// Sends a read of the pipe order down.
_IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS SendRead(DEVICE_EXTENSION *DevExt, STREAM_CONTEXT *Context)
{
    const PIRP Irp = Context->Irp;
    FillBulkRead(Context->Urb, DevExt->MainIn, kStreamBlockSize, nullptr, Context->Mdl);
    SetUpBulkRead(Irp, Context->Urb, OnStreamIrpComplete, Context);
    InterlockedIncrement(&DevExt->PendingIrps);
    // The lower driver owns it until OnStreamIrpComplete. It is freed by the stop, which waits for us as well.
    const NTSTATUS Status = IoCallDriver(DevExt->LowerDeviceObject, Irp);
    if (!IsStreaming(DevExt)) {
        // The stop may have gone by while the request was on its way, too early to find it on the pipe.
        IoCancelIrp(Irp);
    }
    return Status;
}

// Takes completed reads in the order of the pipe, for as long as there are any: sends each down again with the spare
// receive area, then parses the block it brought. Called by whoever made AssemblyBusy true, and by nobody else
// meanwhile. A completion that finds it true leaves its block here, so that a lower driver that completes inside
// IoCallDriver makes no more than one level of recursion.
//
// The last one out, with no read on the pipe any more, sets NoPendingEv and touches nothing afterwards: the stop frees
// the requests, and a removal the record.
_IRQL_requires_max_(DISPATCH_LEVEL) void AssembleArrived(DEVICE_EXTENSION *DevExt)
{
    for (;;) {
        STREAM_CONTEXT *Context = nullptr;
        {
            AssemblyHold Hold(DevExt);
            if (DevExt->PipeCount != 0 && DevExt->PipeOrder[DevExt->PipeHead]->State != OnPipe) {
                Context = PopRead(DevExt);
            } else {
                DevExt->AssemblyBusy = FALSE;
                if (DevExt->PipeCount != 0) {
                    return;
                }
            }
        }
        if (Context == nullptr) {
            KeSetEvent(&DevExt->NoPendingEv, 1, FALSE);
            return;
        }
        if (Context->State == Retired || !IsStreaming(DevExt)) {
            continue;
        }

        const PUCHAR Block = Context->Block;
        const ULONG Size = Context->Received;
        DebugPrintAs("OnStreamIrpComplete", "Buffer=%p Size=%d \n", Block, Size);
        std::swap(Context->Block, DevExt->Spare.Block);
        std::swap(Context->Mdl, DevExt->Spare.Mdl);
        PushRead(DevExt, Context);
        SendRead(DevExt, Context);
        ProcessFrameBlock(DevExt, Block, Size);
    }
}

// A context's request and MDL, empty receive area, not yet on the pipe.
_IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS PrepareRead(DEVICE_EXTENSION *DevExt, STREAM_CONTEXT *Context)
{
    OwnedIrp Irp = OwnedIrp::Allocate(DevExt->LowerDeviceObject);
    OwnedMdl Mdl = Irp ? OwnedMdl::ForNonPaged(Context->Data, kStreamBlockSize) : OwnedMdl();
    if (!Mdl) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Context->DevExt = DevExt;
    Context->Block = Context->Data;
    Context->Irp = Irp.Release();
    Context->Mdl = Mdl.Release();
    return STATUS_SUCCESS;
}

_IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS PrepareSpare(DEVICE_EXTENSION *DevExt)
{
    OwnedMdl Mdl = OwnedMdl::ForNonPaged(DevExt->Spare.Data, kStreamBlockSize);
    if (!Mdl) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    DevExt->Spare.Block = DevExt->Spare.Data;
    DevExt->Spare.Mdl = Mdl.Release();
    return STATUS_SUCCESS;
}

// Puts the three reads on the pipe. Until the last one is there, completed ones wait: the order of the pipe is the
// order in which the requests go down, and nobody else may send one meanwhile.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS SendReads(DEVICE_EXTENSION *DevExt)
{
    DevExt->AssemblyBusy = TRUE;
    DevExt->PipeHead = 0;
    DevExt->PipeCount = 0;
    NTSTATUS Status = PrepareSpare(DevExt);
    for (ULONG Index = 0; NT_SUCCESS(Status) && Index < kStreamRequests; ++Index) {
        STREAM_CONTEXT *Context = &DevExt->StreamCtx[Index];
        Status = PrepareRead(DevExt, Context);
        if (NT_SUCCESS(Status)) {
            PushRead(DevExt, Context);
            const NTSTATUS Sent = SendRead(DevExt, Context);
            DebugPrintAs("SetMainPipeStatusOn", "ntStatus=%Xh\n", Sent);
        }
    }
    AssembleArrived(DevExt);
    return Status;
}

// Whoever moves the status from 1 to 0 takes the stream down, once.
bool StopStreaming(DEVICE_EXTENSION *DevExt)
{
    UCHAR Streaming = CameraStreaming;
    return std::atomic_ref<UCHAR>(DevExt->CameraStatus).compare_exchange_strong(Streaming, CameraStopped);
}

// Takes down what is left of a stream, in this order:
//  - the abort and the cancels bring every read back (the status is 0: none is sent again);
//  - the event says that none is in flight and no block is being parsed: only now may requests and MDLs go;
//  - the idle setting last, because it takes the pipe away;
//  - the readers that wait for a frame are let go;
//  - the camera is free for the next who claims it.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS TakeStreamDown(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *DevExt = GetDevExt(DeviceObject);
    UsbAbortPipe(DeviceObject, DevExt->MainIn);
    for (STREAM_CONTEXT &Context : DevExt->StreamCtx) {
        if (Context.Irp != nullptr) {
            IoCancelIrp(Context.Irp);
        }
    }
    const NTSTATUS Status = KeWaitForSingleObject(&DevExt->NoPendingEv, Executive, KernelMode, FALSE, nullptr);
    for (STREAM_CONTEXT &Context : DevExt->StreamCtx) {
        OwnedIrp(std::exchange(Context.Irp, nullptr)).Reset();
        OwnedMdl(std::exchange(Context.Mdl, nullptr)).Reset();
    }
    OwnedMdl(std::exchange(DevExt->Spare.Mdl, nullptr)).Reset();
    UsbSetInterface(DeviceObject, 0, 0);
    KeSetEvent(&DevExt->FrameReadyEv, 1, FALSE);
    ReleaseCamera(DevExt);
    return Status;
}

bool HaveFrameBuffers(const DEVICE_EXTENSION *DevExt)
{
    for (const PUCHAR Frame : DevExt->Frame) {
        if (Frame == nullptr) {
            return false;
        }
    }
    return DevExt->FrameBufSize != 0;
}

// Selects the streaming setting. The status is still 0: it could not be selected later.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS OpenMainPipe(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *DevExt = GetDevExt(DeviceObject);
    if (!HaveFrameBuffers(DevExt)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const NTSTATUS Status = UsbSetInterface(DeviceObject, 0, static_cast<LONG>(ReadOnce(DevExt->DefAlt)));
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    return DevExt->MainIn == nullptr ? STATUS_INVALID_DEVICE_REQUEST : STATUS_SUCCESS;
}

} // namespace

void InitStreamControl(DEVICE_EXTENSION *DevExt)
{
    KeInitializeSpinLock(&DevExt->AssemblyLock);
    KeInitializeSemaphore(&DevExt->StreamTurn, 1, 1);
    KeInitializeEvent(&DevExt->NoPendingEv, NotificationEvent, FALSE);
    KeInitializeEvent(&DevExt->CaptureIdleEv, NotificationEvent, FALSE);
}

NTSTATUS SetMainPipeStatusOn(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *DevExt = GetDevExt(DeviceObject);
    if (ReadOnce(DevExt->CameraStatus) != CameraStopped || !ClaimCamera(DevExt)) {
        ErrorPrint("Invalid camera status = %d \n", ReadOnce(DevExt->CameraStatus));
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    NTSTATUS Status = OpenMainPipe(DeviceObject);
    if (!NT_SUCCESS(Status)) {
        ErrorPrint("return %08Xh\n", Status);
        ReleaseCamera(DevExt);
        return Status;
    }

    UsbAbortPipe(DeviceObject, DevExt->MainIn);
    {
        // A request that the stop before has let go may still be copying the frame that the reset clears.
        const BufferHold Hold(DevExt, BufferAccess::Exclusive);
        ResetFrameAssembly(DevExt);
    }

    // A stop may come as soon as the status is 1; it waits until the start is finished.
    StreamTurnHold Turn(DevExt);
    WriteOnce(DevExt->CameraStatus, CameraStreaming);
    KeInitializeEvent(&DevExt->NoPendingEv, NotificationEvent, FALSE);
    Status = SendReads(DevExt);
    if (!NT_SUCCESS(Status)) {
        ErrorPrint("return %08Xh\n", Status);
        if (StopStreaming(DevExt)) {
            TakeStreamDown(DeviceObject);
        }
        return Status;
    }
    DebugPrint("return %Xh\n", Status);
    return Status;
}

NTSTATUS SetMainPipeStatusOff(PDEVICE_OBJECT DeviceObject)
{
    DEVICE_EXTENSION *DevExt = GetDevExt(DeviceObject);
    DebugPrint("SetMainPipeStatusOff()\n");
    // The status first: on a stack that completes every read at once, a start in progress ends only with it. Then the
    // turn: a start, or another stop, is finished before anything is taken down or called stopped.
    const bool Ours = StopStreaming(DevExt);
    const StreamTurnHold Turn(DevExt);
    if (!Ours) {
        DebugPrint("Camera already stopped! \n");
        return STATUS_SUCCESS;
    }
    const NTSTATUS Status = TakeStreamDown(DeviceObject);
    DebugPrint("return %Xh\n", Status);
    return Status;
}

NTSTATUS OnStreamIrpComplete(PDEVICE_OBJECT, PIRP Irp, PVOID ContextPointer)
{
    STREAM_CONTEXT *Context = static_cast<STREAM_CONTEXT *>(ContextPointer);
    DEVICE_EXTENSION *DevExt = Context->DevExt;
    const NTSTATUS Status = Irp->IoStatus.Status;
    DebugPrint("DevExt->CameraStatus=%d Status=%08Xh \n", ReadOnce(DevExt->CameraStatus), Status);
    InterlockedIncrement(reinterpret_cast<LONG *>(&DevExt->TotalBlocks));
    const LONG Pending = InterlockedDecrement(&DevExt->PendingIrps);
    if (Pending > static_cast<LONG>(kStreamRequests)) {
        ErrorPrint("PendingIrps = %d !!!\n", Pending);
    }

    {
        AssemblyHold Hold(DevExt);
        Context->Received = BulkReceived(Context->Urb, Status, kStreamBlockSize);
        Context->State = IsFinal(Status) || !IsStreaming(DevExt) ? Retired : Arrived;
        if (DevExt->AssemblyBusy) {
            // Whoever assembles finds it in its turn. From here on the record may be gone.
            return STATUS_MORE_PROCESSING_REQUIRED;
        }
        DevExt->AssemblyBusy = TRUE;
    }
    AssembleArrived(DevExt);
    return STATUS_MORE_PROCESSING_REQUIRED;
}
