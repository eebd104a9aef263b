#include "transfer.h"

#include "pdo.h"

namespace simbus {

namespace {

DRIVER_CANCEL OnCancelTransfer;

struct STATUS_PAIR {
    USBD_STATUS Usb;
    NTSTATUS Nt;
};

constexpr STATUS_PAIR kStatuses[] = {
    {USBD_STATUS_SUCCESS, STATUS_SUCCESS},
    {USBD_STATUS_CANCELED, STATUS_CANCELLED},
    {USBD_STATUS_DEVICE_GONE, STATUS_NO_SUCH_DEVICE},
    {USBD_STATUS_INVALID_PIPE_HANDLE, STATUS_INVALID_PARAMETER},
    {USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER},
    {USBD_STATUS_INVALID_URB_FUNCTION, STATUS_INVALID_PARAMETER},
    {USBD_STATUS_XACT_ERROR, STATUS_DEVICE_DATA_ERROR},
    {USBD_STATUS_DEV_NOT_RESPONDING, STATUS_DEVICE_NOT_READY},
    {USBD_STATUS_INSUFFICIENT_RESOURCES, STATUS_INSUFFICIENT_RESOURCES},
};

_Use_decl_annotations_
void OnCancelTransfer(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    IoReleaseCancelSpinLock(Irp->CancelIrql);
    CAMERA *Camera = PdoCamera(DeviceObject);
    {
        SPIN_HOLD Hold(&Camera->Lock);
        RemoveEntryList(&Irp->Tail.Overlay.ListEntry);
    }
    LIST_ENTRY Done;
    InitializeListHead(&Done);
    TransferFinish(Camera, Irp, USBD_STATUS_CANCELED, &Done);
    TransferCompleteAll(&Done);
}

}  // namespace

NTSTATUS StatusOfUsb(USBD_STATUS Status)
{
    for (const STATUS_PAIR &Pair : kStatuses) {
        if (Pair.Usb == Status) return Pair.Nt;
    }
    return STATUS_UNSUCCESSFUL;
}

bool TransferMemory(PVOID Buffer, PMDL Mdl, ULONG Length, UCHAR **Memory)
{
    *Memory = nullptr;
    if (Length == 0) return true;
    if (Mdl == nullptr) {
        *Memory = static_cast<UCHAR *>(Buffer);
        return Buffer != nullptr;
    }
    if (MmGetMdlByteCount(Mdl) < Length) return false;
    // A bus is given memory that is locked, mapped or non-paged pool; the first two need the mapping, and a pool block's
    // own address is a system address already (not every kernel notes in the MDL that it describes one).
    constexpr ULONG kMappable = MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PAGES_LOCKED;
    *Memory = static_cast<UCHAR *>((static_cast<ULONG>(Mdl->MdlFlags) & kMappable) != 0
                                       ? MmGetSystemAddressForMdlSafe(Mdl, NormalPagePriority)
                                       : MmGetMdlVirtualAddress(Mdl));
    return *Memory != nullptr;
}

bool TransferInsert(LIST_ENTRY *List, PIRP Irp, bool First)
{
    // Under the cancel lock the flag and the routine belong together: either the flag is seen here, or the routine by
    // whoever cancels.
    KIRQL Irql;
    IoAcquireCancelSpinLock(&Irql);
    const bool Cancelled = Irp->Cancel != FALSE;
    if (!Cancelled) IoSetCancelRoutine(Irp, OnCancelTransfer);
    IoReleaseCancelSpinLock(Irql);
    if (Cancelled) return false;
    if (First) InsertHeadList(List, &Irp->Tail.Overlay.ListEntry);
    else InsertTailList(List, &Irp->Tail.Overlay.ListEntry);
    return true;
}

PIRP TransferTake(LIST_ENTRY *List)
{
    while (!IsListEmpty(List)) {
        PLIST_ENTRY Entry = RemoveHeadList(List);
        PIRP Irp = CONTAINING_RECORD(Entry, IRP, Tail.Overlay.ListEntry);
        if (IoSetCancelRoutine(Irp, nullptr) != nullptr) return Irp;
        InitializeListHead(Entry);   // its cancel routine waits for the lock and removes it from a list of its own
    }
    return nullptr;
}

void TransferFinish(CAMERA *Camera, PIRP Irp, USBD_STATUS Status, LIST_ENTRY *Done)
{
    const TRANSFER *Transfer = TransferOf(Irp);
    Transfer->Urb->UrbHeader.Status = Status;
    // The length stands at the same place in every URB that transfers.
    if (Transfer->Transfers) Transfer->Urb->UrbBulkOrInterruptTransfer.TransferBufferLength = Transfer->Filled;
    Irp->IoStatus.Status = StatusOfUsb(Status);
    Irp->IoStatus.Information = 0;
    if (Transfer->Stream) {
        SPIN_HOLD Hold(&Camera->Lock);
        ++Camera->ReadsCompleted;
        if (Status == USBD_STATUS_CANCELED) ++Camera->ReadsCancelled;
    }
    InsertTailList(Done, &Irp->Tail.Overlay.ListEntry);
}

void TransferFinishAll(CAMERA *Camera, LIST_ENTRY *List, USBD_STATUS Status, LIST_ENTRY *Done)
{
    for (;;) {
        PIRP Irp = nullptr;
        {
            SPIN_HOLD Hold(&Camera->Lock);
            Irp = TransferTake(List);
        }
        if (Irp == nullptr) return;
        TransferFinish(Camera, Irp, Status, Done);
    }
}

_Use_decl_annotations_
void TransferCompleteAll(LIST_ENTRY *Done)
{
    if (IsListEmpty(Done)) return;
    KIRQL Irql;
    KeRaiseIrql(DISPATCH_LEVEL, &Irql);
    while (!IsListEmpty(Done)) {
        PIRP Irp = CONTAINING_RECORD(RemoveHeadList(Done), IRP, Tail.Overlay.ListEntry);
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
    }
    KeLowerIrql(Irql);
}

}  // namespace simbus
