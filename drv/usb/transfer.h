// What the circulating reads of the stream and the reads of a capture have in common.
#pragma once

#include "device.h"

// One bulk read from a pipe, into a buffer or an MDL. The status says "pending" until the USB stack has looked at it.
inline void FillBulkRead(_URB_BULK_OR_INTERRUPT_TRANSFER &Urb, USBD_PIPE_HANDLE Pipe, ULONG Length, PVOID Buffer,
                         PMDL Mdl)
{
    RtlZeroMemory(&Urb, sizeof(Urb));
    Urb.Hdr.Length = sizeof(Urb);
    Urb.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    Urb.Hdr.Status = static_cast<USBD_STATUS>(USBD_STATUS_PENDING);
    Urb.PipeHandle = Pipe;
    Urb.TransferFlags = USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK;
    Urb.TransferBufferLength = Length;
    Urb.TransferBuffer = Buffer;
    Urb.TransferBufferMDL = Mdl;
}

// Bytes that a completed read delivered, at most Asked. A request that failed above the USB stack comes back with its
// URB as it was sent: the length in it is then what was asked for, and the buffer holds something older.
inline ULONG BulkReceived(const _URB_BULK_OR_INTERRUPT_TRANSFER &Urb, NTSTATUS Status, ULONG Asked)
{
    if (!NT_SUCCESS(Status) && Urb.Hdr.Status == static_cast<USBD_STATUS>(USBD_STATUS_PENDING)) {
        return 0;
    }
    return Urb.TransferBufferLength < Asked ? Urb.TransferBufferLength : Asked;
}

// Points the next stack location at the URB. IoReuseIrp is not for requests that another thread may be cancelling: it
// would clear the Cancel flag.
inline void SetUpBulkRead(PIRP Irp, _URB_BULK_OR_INTERRUPT_TRANSFER &Urb, PIO_COMPLETION_ROUTINE Completion,
                          PVOID Context)
{
    const PIO_STACK_LOCATION Next = IoGetNextIrpStackLocation(Irp);
    Next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    Next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    Next->Parameters.Others.Argument1 = &Urb;
    IoSetCompletionRoutine(Irp, Completion, Context, TRUE, TRUE, TRUE);
}

// StreamTurn for as long as the owner lives.
class StreamTurnHold {
public:
    _IRQL_requires_max_(PASSIVE_LEVEL) explicit StreamTurnHold(DEVICE_EXTENSION *DevExt) : DevExt_(DevExt)
    {
        KeWaitForSingleObject(&DevExt->StreamTurn, Executive, KernelMode, FALSE, nullptr);
    }
    StreamTurnHold(const StreamTurnHold &) = delete;
    StreamTurnHold &operator=(const StreamTurnHold &) = delete;
    ~StreamTurnHold()
    {
        KeReleaseSemaphore(&DevExt_->StreamTurn, 0, 1, FALSE);
    }

private:
    DEVICE_EXTENSION *DevExt_;
};
