// USB requests on their way through the bus: queues of pending IRPs, their cancellation, their completion.
//
// A queued IRP carries its state in its driver context, which belongs to the bus while the IRP does. It is in exactly one
// list, with a cancel routine, or it has been taken: then nobody but the taker completes it.
#pragma once

#include "camera.h"

namespace simbus {

struct TRANSFER {
    PURB Urb;
    UCHAR *Buffer;
    ULONG Length;
    ULONG Filled;
    ULONG Limit;       // completes when Filled gets there
    USHORT Fault;      // kBulk... that it was dealt, 0 before it has been looked at
    bool Stream;       // a read of the streaming pipe
    bool Transfers;    // the URB has a transfer length to be set
};
static_assert(sizeof(TRANSFER) <= sizeof(PIRP{}->Tail.Overlay.DriverContext));

inline TRANSFER *TransferOf(PIRP Irp) { return reinterpret_cast<TRANSFER *>(Irp->Tail.Overlay.DriverContext); }

// The NT status that goes with a USB status.
NTSTATUS StatusOfUsb(USBD_STATUS Status);

// The memory of a transfer. An MDL has priority, as on every bus. False: too short, or none where some is needed.
bool TransferMemory(PVOID Buffer, PMDL Mdl, ULONG Length, UCHAR **Memory);

// Queues under Camera->Lock. Insert: false when the IRP has been cancelled meanwhile; the caller completes it then.
bool TransferInsert(LIST_ENTRY *List, PIRP Irp, bool First);
PIRP TransferTake(LIST_ENTRY *List);

// Writes the outcome into the URB and the IRP and puts it on a list for TransferCompleteAll. Without Camera->Lock.
void TransferFinish(CAMERA *Camera, PIRP Irp, USBD_STATUS Status, LIST_ENTRY *Done);

// Takes and finishes all of a list.
void TransferFinishAll(CAMERA *Camera, LIST_ENTRY *List, USBD_STATUS Status, LIST_ENTRY *Done);

// Completes at DISPATCH_LEVEL, as a host controller's driver does, in the list's order.
_IRQL_requires_max_(DISPATCH_LEVEL)
void TransferCompleteAll(LIST_ENTRY *Done);

}  // namespace simbus
