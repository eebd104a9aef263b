#include "usbstack.h"

#include "pdo.h"

namespace simbus {

namespace {

constexpr ULONG kSlice = 65536;          // bytes of one read filled before other cameras have their turn
constexpr ULONG kPaceSteps = 16384;      // bytes worth waking up for
constexpr LONGLONG kRetry = 10'000;      // 1 ms: the sensor could not begin a frame
constexpr ULONG kEndless = 0xFFFFFFFF;

struct URB_RULE {
    USHORT Function;
    USHORT Length;      // smallest header length
    bool Transfers;
};

constexpr USHORT kSelectLength = offsetof(_URB_SELECT_CONFIGURATION, Interface);

constexpr URB_RULE kRules[] = {
    {URB_FUNCTION_SELECT_CONFIGURATION, kSelectLength, false},
    {URB_FUNCTION_ABORT_PIPE, sizeof(_URB_PIPE_REQUEST), false},
    {URB_FUNCTION_RESET_PIPE, sizeof(_URB_PIPE_REQUEST), false},
    {URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER, sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER), true},
    {URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST), true},
    {URB_FUNCTION_VENDOR_DEVICE, sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST), true},
};

static_assert(sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER) == 128 && sizeof(_URB_PIPE_REQUEST) == 40 &&
              sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST) == 136);
// One place for the memory of every URB that transfers.
static_assert(offsetof(_URB_BULK_OR_INTERRUPT_TRANSFER, TransferBuffer) == offsetof(_URB_CONTROL_DESCRIPTOR_REQUEST, TransferBuffer));
static_assert(offsetof(_URB_BULK_OR_INTERRUPT_TRANSFER, TransferBuffer) ==
              offsetof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST, TransferBuffer));

const URB_RULE *RuleOf(const URB *Urb)
{
    for (const URB_RULE &Rule : kRules) {
        if (Rule.Function == Urb->UrbHeader.Function) return &Rule;
    }
    return nullptr;
}

NTSTATUS Refuse(PIRP Irp, PURB Urb, USBD_STATUS Status)
{
    Urb->UrbHeader.Status = Status;
    return CompleteNow(Irp, StatusOfUsb(Status));
}

// Writes the IRP's transfer record from its URB.
USBD_STATUS Describe(PIRP Irp, PURB Urb)
{
    TRANSFER *Transfer = TransferOf(Irp);
    RtlZeroMemory(Transfer, sizeof(*Transfer));
    Transfer->Urb = Urb;
    const URB_RULE *Rule = RuleOf(Urb);
    if (Rule == nullptr) return USBD_STATUS_INVALID_URB_FUNCTION;
    if (Urb->UrbHeader.Length < Rule->Length) return USBD_STATUS_INVALID_PARAMETER;
    Transfer->Transfers = Rule->Transfers;
    if (!Rule->Transfers) return USBD_STATUS_SUCCESS;

    const _URB_BULK_OR_INTERRUPT_TRANSFER &Data = Urb->UrbBulkOrInterruptTransfer;
    if (Data.UrbLink != nullptr) return USBD_STATUS_INVALID_PARAMETER;
    Transfer->Length = Transfer->Limit = Data.TransferBufferLength;
    return TransferMemory(Data.TransferBuffer, Data.TransferBufferMDL, Transfer->Length, &Transfer->Buffer)
               ? USBD_STATUS_SUCCESS
               : USBD_STATUS_INVALID_PARAMETER;
}

// What the next read of the streaming pipe meets. Under Lock.
BULK_FAULT TakeBulkFault(CAMERA *Camera)
{
    if (Camera->BulkFaultCount == 0) return {kBulkPass, 0, 0, 0};
    BULK_FAULT &First = Camera->BulkFaults[0];
    const BULK_FAULT Fault = First;
    if (First.Times != kEndless && --First.Times == 0) {
        --Camera->BulkFaultCount;
        RtlMoveMemory(Camera->BulkFaults, Camera->BulkFaults + 1, Camera->BulkFaultCount * sizeof(BULK_FAULT));
    }
    return Fault;
}

// Completes a request that has been marked pending, in this thread.
void CompletePended(CAMERA *Camera, PIRP Irp, USBD_STATUS Status)
{
    LIST_ENTRY Done;
    InitializeListHead(&Done);
    TransferFinish(Camera, Irp, Status, &Done);
    TransferCompleteAll(&Done);
}

// Queues a transfer of a pipe, unless its answer is known at once: then *Status is that and the result is true.
bool QueuePipe(CAMERA *Camera, PIRP Irp, USBD_STATUS *Status)
{
    TRANSFER *Transfer = TransferOf(Irp);
    const _URB_BULK_OR_INTERRUPT_TRANSFER &Data = Transfer->Urb->UrbBulkOrInterruptTransfer;
    bool Cancelled = false;
    {
        SPIN_HOLD Hold(&Camera->Lock);
        const LONG Index = PipeOf(Camera, Data.PipeHandle);
        if (!Camera->Plugged || Index < 0) {
            *Status = Camera->Plugged ? USBD_STATUS_INVALID_PIPE_HANDLE : USBD_STATUS_DEVICE_GONE;
            return true;
        }
        const PIPE &Pipe = Camera->Pipes[Index];
        if ((Pipe.Address & USB_ENDPOINT_DIRECTION_MASK) == 0) {   // the camera swallows what is written to it
            Transfer->Filled = Transfer->Length;
            *Status = USBD_STATUS_SUCCESS;
            return true;
        }
        Transfer->Stream = Pipe.Address == kStreamEndpoint;
        if (Transfer->Stream && Camera->BulkFaultCount != 0 && Camera->BulkFaults[0].Kind == kBulkInline) {
            TakeBulkFault(Camera);
            ++Camera->ReadsCompleted;
            Transfer->Filled = 0;
            *Status = USBD_STATUS_SUCCESS;
            return true;
        }
        IoMarkIrpPending(Irp);
        Cancelled = !TransferInsert(Transfer->Stream ? &Camera->Reads : &Camera->Others, Irp, false);
        if (!Cancelled) CameraWakeLocked(Camera);
    }
    if (Cancelled) CompletePended(Camera, Irp, USBD_STATUS_CANCELED);
    return false;
}

NTSTATUS SubmitPipe(CAMERA *Camera, PIRP Irp)
{
    USBD_STATUS Status = USBD_STATUS_SUCCESS;
    if (!QueuePipe(Camera, Irp, &Status)) return STATUS_PENDING;
    PURB Urb = TransferOf(Irp)->Urb;
    Urb->UrbBulkOrInterruptTransfer.TransferBufferLength = TransferOf(Irp)->Filled;
    return Refuse(Irp, Urb, Status);
}

// Puts a control transfer that has to wait aside. Anything but success: it ends with that instead.
USBD_STATUS Park(CAMERA *Camera, PIRP Irp, CONTROL Outcome, LONGLONG NotBefore)
{
    SPIN_HOLD Hold(&Camera->Lock);
    if (!Camera->Plugged) return USBD_STATUS_DEVICE_GONE;   // what ends an unplugged camera's transfers may have been here
    const bool Stuck = Outcome == CONTROL::Stuck;
    if (!TransferInsert(Stuck ? &Camera->Stuck : &Camera->Delayed, Irp, false)) return USBD_STATUS_CANCELED;
    if (!Stuck) Camera->DelayedDue = NotBefore;
    return USBD_STATUS_SUCCESS;
}

// Carries a control transfer out in the caller's thread.
NTSTATUS ControlInPlace(CAMERA *Camera, PIRP Irp)
{
    LIST_ENTRY Done;
    InitializeListHead(&Done);
    USBD_STATUS Status = USBD_STATUS_SUCCESS;
    LONGLONG NotBefore = 0;
    CONTROL Outcome = CONTROL::Done;
    {
        CAMERA_HOLD Hold(Camera);
        Outcome = UsbControl(Camera, Irp, &Status, &Done, &NotBefore);
    }
    TransferCompleteAll(&Done);   // reads that an abort or a selection has ended
    if (Outcome == CONTROL::Done) {
        PURB Urb = TransferOf(Irp)->Urb;
        if (TransferOf(Irp)->Transfers) Urb->UrbBulkOrInterruptTransfer.TransferBufferLength = TransferOf(Irp)->Filled;
        return Refuse(Irp, Urb, Status);
    }
    IoMarkIrpPending(Irp);
    Status = Park(Camera, Irp, Outcome, NotBefore);
    if (Status == USBD_STATUS_SUCCESS) CameraWake(Camera);
    else CompletePended(Camera, Irp, Status);
    return STATUS_PENDING;
}

NTSTATUS SubmitControl(CAMERA *Camera, PIRP Irp)
{
    enum { InPlace, Queued, Gone, Cancelled } Way = Queued;
    {
        SPIN_HOLD Hold(&Camera->Lock);
        if (!Camera->Plugged) {
            Way = Gone;
        } else if (Camera->InlineControl && IsListEmpty(&Camera->Controls) && Hold.Before() == PASSIVE_LEVEL) {
            Way = InPlace;
        } else {
            IoMarkIrpPending(Irp);
            if (!TransferInsert(&Camera->Controls, Irp, false)) Way = Cancelled;
            else CameraWakeLocked(Camera);
        }
    }
    if (Way == Gone) return Refuse(Irp, TransferOf(Irp)->Urb, USBD_STATUS_DEVICE_GONE);
    if (Way == InPlace) return ControlInPlace(Camera, Irp);
    if (Way == Cancelled) CompletePended(Camera, Irp, USBD_STATUS_CANCELED);
    return STATUS_PENDING;
}

bool ServeControls(CAMERA *Camera, LIST_ENTRY *Done, LONGLONG *Due)
{
    bool Any = false;
    for (;;) {
        PIRP Irp = nullptr;
        {
            SPIN_HOLD Hold(&Camera->Lock);
            if (!IsListEmpty(&Camera->Delayed)) {
                const bool Early = Camera->DelayedDue > SystemTime();
                if (Early) *Due = Smaller(*Due, Camera->DelayedDue);
                while (!Early && !IsListEmpty(&Camera->Delayed)) {
                    InsertHeadList(&Camera->Controls, RemoveTailList(&Camera->Delayed));
                }
            }
            Irp = TransferTake(&Camera->Controls);
        }
        if (Irp == nullptr) return Any;
        Any = true;
        USBD_STATUS Status = USBD_STATUS_SUCCESS;
        LONGLONG NotBefore = 0;
        const CONTROL Outcome = UsbControl(Camera, Irp, &Status, Done, &NotBefore);
        if (Outcome == CONTROL::Done) {
            TransferFinish(Camera, Irp, Status, Done);
            continue;
        }
        Status = Park(Camera, Irp, Outcome, NotBefore);
        if (Status != USBD_STATUS_SUCCESS) TransferFinish(Camera, Irp, Status, Done);
    }
}

// Bytes that the pace allows now, counted up to this moment. Needed: what would be worth a wake-up; *Due when that will be.
ULONG PaceAllows(CAMERA *Camera, ULONG Needed, LONGLONG *Due)
{
    if (Camera->Pace == 0) return kSlice;
    const LONGLONG Pace = Camera->Pace, Now = SystemTime();
    const LONGLONG Cap = Pace / 20 + 512;   // a twentieth of a second may be caught up
    constexpr LONGLONG kSecond = 10'000'000;
    if (Now < Camera->PaceTime) Camera->PaceTime = Now;   // the clock was set back
    const LONGLONG Elapsed = Smaller(Now - Camera->PaceTime, kSecond);
    const LONGLONG Granted = Elapsed * Pace / kSecond;
    Camera->Budget += Granted;
    Camera->PaceTime += Granted * kSecond / Pace;
    if (Camera->Budget >= Cap) {
        Camera->Budget = Cap;
        Camera->PaceTime = Now;
    }
    const LONGLONG Wanted = Smaller<LONGLONG>(Needed, Smaller<LONGLONG>(kPaceSteps, Cap));
    if (Camera->Budget >= Wanted) return static_cast<ULONG>(Smaller<LONGLONG>(Camera->Budget, kSlice));
    *Due = Smaller(*Due, Now + (Wanted - Camera->Budget) * kSecond / Pace + 1);
    return 0;
}

// Meets the fault that the read is dealt. True: the read ends with *Status.
bool BeginRead(CAMERA *Camera, TRANSFER *Transfer, USBD_STATUS *Status)
{
    SPIN_HOLD Hold(&Camera->Lock);
    if (Camera->Halted) {
        *Status = USBD_STATUS_ENDPOINT_HALTED;
        return true;
    }
    if (Transfer->Fault != 0) return false;
    const BULK_FAULT Fault = TakeBulkFault(Camera);
    Transfer->Fault = Fault.Kind;
    switch (Fault.Kind) {
    case kBulkStall:
        Camera->Halted = true;
        *Status = USBD_STATUS_STALL_PID;
        return true;
    case kBulkError: *Status = USBD_STATUS_XACT_ERROR; return true;
    case kBulkInline:   // scripted while this read was queued already
    case kBulkEmpty: Transfer->Limit = 0; return false;
    case kBulkShort: Transfer->Limit = Smaller<ULONG>(Transfer->Length, Fault.Value); return false;
    default: return false;
    }
}

void CompleteOnSecondThread(CAMERA *Camera, PIRP Irp, USBD_STATUS Status)
{
    LIST_ENTRY Finished;
    InitializeListHead(&Finished);
    TransferFinish(Camera, Irp, Status, &Finished);
    SERVICE *Service = Camera->Service;
    SPIN_HOLD Hold(&Service->SecondLock);
    InsertTailList(&Service->Second, RemoveHeadList(&Finished));
    KeSetEvent(&Service->SecondWork, IO_NO_INCREMENT, FALSE);
}

void EndRead(CAMERA *Camera, PIRP Irp, USBD_STATUS Status, LIST_ENTRY *Done)
{
    const TRANSFER *Transfer = TransferOf(Irp);
    if (Status == USBD_STATUS_SUCCESS && Transfer->Filled < Transfer->Length &&
        (Transfer->Urb->UrbBulkOrInterruptTransfer.TransferFlags & USBD_SHORT_TRANSFER_OK) == 0) {
        Status = USBD_STATUS_ERROR_SHORT_TRANSFER;
    }
    if (Transfer->Fault == kBulkHold && Status == USBD_STATUS_SUCCESS) {
        SPIN_HOLD Hold(&Camera->Lock);
        InsertTailList(&Camera->Held, &Irp->Tail.Overlay.ListEntry);
        return;
    }
    if (Transfer->Fault == kBulkSecondThread) CompleteOnSecondThread(Camera, Irp, Status);
    else TransferFinish(Camera, Irp, Status, Done);
}

// Puts bytes into the first read; ends it when it is full or the frame says so.
bool ServeRead(CAMERA *Camera, LIST_ENTRY *Done, LONGLONG *Due)
{
    PIRP Irp = nullptr;
    bool Sending = false;
    {
        SPIN_HOLD Hold(&Camera->Lock);
        Irp = TransferTake(&Camera->Reads);
        if (Irp == nullptr) return false;
        ++Camera->ReadsTaken;
        Sending = Camera->Alternate > 0 && Camera->Power == PowerDeviceD0 && !Camera->SilentStream;
    }
    TRANSFER *Transfer = TransferOf(Irp);
    USBD_STATUS Status = USBD_STATUS_SUCCESS;
    bool Ended = BeginRead(Camera, Transfer, &Status) || Transfer->Filled == Transfer->Limit, Moved = false;
    if (!Ended && Sending && StreamReady(Camera->Stream, Camera->Firmware.Registers)) {
        const ULONG Wanted = Transfer->Limit - Transfer->Filled;
        if (Camera->Idle) {   // an idle sensor saves no time up: what comes takes as long as the wire takes
            Camera->Idle = false;
            Camera->Budget = 0;
            Camera->PaceTime = SystemTime();
        }
        const ULONG Count = Smaller(Wanted, Smaller(PaceAllows(Camera, Wanted, Due), kSlice));
        if (Count != 0) {
            const STREAM_SOURCE Source = {Camera->Identity.Model, Camera->Firmware.Registers, Camera->Firmware.Bits,
                                          &Camera->Scene};
            bool FrameEnded = false;
            const ULONG Got = StreamFill(Camera->Stream, Source, Transfer->Buffer + Transfer->Filled, Count, &FrameEnded);
            Transfer->Filled += Got;
            Camera->BytesSent += Got;
            if (Camera->Pace != 0) Camera->Budget -= Got;
            Moved = Got != 0;
            Ended = FrameEnded || Transfer->Filled == Transfer->Limit;
            if (!Moved && !Ended) *Due = Smaller(*Due, SystemTime() + kRetry);
        }
    } else if (!Ended) {
        Camera->Idle = true;
    }
    bool Cancelled = false;
    {
        SPIN_HOLD Hold(&Camera->Lock);
        --Camera->ReadsTaken;
        if (!Ended) Cancelled = !TransferInsert(&Camera->Reads, Irp, true);
    }
    if (Ended) EndRead(Camera, Irp, Status, Done);
    else if (Cancelled) TransferFinish(Camera, Irp, USBD_STATUS_CANCELED, Done);
    return Moved || Ended || Cancelled;
}

// Held reads and stuck control transfers that have been released.
bool ServeReleased(CAMERA *Camera, LIST_ENTRY *Done)
{
    bool Any = false;
    for (;;) {
        PIRP Irp = nullptr;
        {
            SPIN_HOLD Hold(&Camera->Lock);
            if (!Camera->ReleaseHeld) return Any;
            if (!IsListEmpty(&Camera->Held)) {
                Irp = CONTAINING_RECORD(RemoveHeadList(&Camera->Held), IRP, Tail.Overlay.ListEntry);
            } else {
                while (!IsListEmpty(&Camera->Stuck)) InsertTailList(&Camera->Controls, RemoveHeadList(&Camera->Stuck));
                Camera->ReleaseHeld = false;
                return true;
            }
        }
        TransferFinish(Camera, Irp, USBD_STATUS_SUCCESS, Done);
        Any = true;
    }
}

}  // namespace

NTSTATUS UsbInternalControl(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    CAMERA *Camera = PdoCamera(DeviceObject);
    PIO_STACK_LOCATION Stack = IoGetCurrentIrpStackLocation(Irp);
    if (static_cast<ULONG>(Stack->Parameters.DeviceIoControl.IoControlCode) != static_cast<ULONG>(IOCTL_INTERNAL_USB_SUBMIT_URB)) {
        return CompleteNow(Irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    PURB Urb = static_cast<PURB>(Stack->Parameters.Others.Argument1);
    if (Urb == nullptr || Urb->UrbHeader.Length < sizeof(_URB_HEADER)) return CompleteNow(Irp, STATUS_INVALID_PARAMETER);
    const USBD_STATUS Status = Describe(Irp, Urb);
    if (Status != USBD_STATUS_SUCCESS) return Refuse(Irp, Urb, Status);
    Urb->UrbHeader.Status = USBD_STATUS_PENDING;
    return Urb->UrbHeader.Function == URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER ? SubmitPipe(Camera, Irp)
                                                                              : SubmitControl(Camera, Irp);
}

_Use_decl_annotations_
bool UsbServe(CAMERA *Camera, bool ByHand, LONGLONG *Due)
{
    bool Plugged = false, Waiting = false, Ours = false;
    {
        SPIN_HOLD Hold(&Camera->Lock);
        Plugged = Camera->Plugged;
        Ours = Camera->ByHand == ByHand;
        Waiting = !IsListEmpty(&Camera->Controls) || !IsListEmpty(&Camera->Delayed) || !IsListEmpty(&Camera->Reads);
    }
    if (!Plugged) {
        if (!ByHand) UsbFlush(Camera);
        return false;
    }
    if (!Ours) return false;
    LIST_ENTRY Done;
    InitializeListHead(&Done);
    bool Any = ServeReleased(Camera, &Done);
    if (Waiting && ReadLong(&Camera->GateWaiters) == 0) {
        GATE_HOLD Hold(&Camera->Gate);
        CameraCatchUp(Camera);
        Any = ServeControls(Camera, &Done, Due) || Any;
        Any = ServeRead(Camera, &Done, Due) || Any;
    }
    TransferCompleteAll(&Done);
    return Any;
}

_Use_decl_annotations_
void UsbFlush(CAMERA *Camera)
{
    LIST_ENTRY Done;
    InitializeListHead(&Done);
    {
        SPIN_HOLD Hold(&Camera->Lock);
        // Held reads have no cancel routine: they join the others as they are taken.
        while (!IsListEmpty(&Camera->Held)) InsertTailList(&Done, RemoveHeadList(&Camera->Held));
    }
    LIST_ENTRY Ended;
    InitializeListHead(&Ended);
    while (!IsListEmpty(&Done)) {
        PIRP Irp = CONTAINING_RECORD(RemoveHeadList(&Done), IRP, Tail.Overlay.ListEntry);
        TransferFinish(Camera, Irp, USBD_STATUS_DEVICE_GONE, &Ended);
    }
    TransferFinishAll(Camera, &Camera->Controls, USBD_STATUS_DEVICE_GONE, &Ended);
    TransferFinishAll(Camera, &Camera->Stuck, USBD_STATUS_DEVICE_GONE, &Ended);
    TransferFinishAll(Camera, &Camera->Delayed, USBD_STATUS_DEVICE_GONE, &Ended);
    TransferFinishAll(Camera, &Camera->Reads, USBD_STATUS_DEVICE_GONE, &Ended);
    TransferFinishAll(Camera, &Camera->Others, USBD_STATUS_DEVICE_GONE, &Ended);
    TransferCompleteAll(&Ended);
}

}  // namespace simbus
