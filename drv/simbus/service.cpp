// The bus's threads. One serves the cameras' transfers and completes them, in order; the second completes the reads that a
// script wants completed elsewhere.
#include "bus.h"
#include "usbstack.h"

namespace simbus {

namespace {

KSTART_ROUTINE ServiceThread;
KSTART_ROUTINE SecondThread;

// Serves every camera once. True when something was done.
bool ServeAll(BUS *Bus, LONGLONG *Due)
{
    CAMERA *Cameras[kMaxSlots];
    ULONG Count = 0;
    {
        GATE_HOLD Hold(&Bus->ListGate);
        for (PDEVICE_OBJECT Pdo : Bus->Slots) {
            if (Pdo == nullptr) continue;
            Cameras[Count] = PdoCamera(Pdo);
            CameraReference(Cameras[Count++]);
        }
    }
    bool Any = false;
    for (ULONG i = 0; i < Count; ++i) {
        Any = UsbServe(Cameras[i], false, Due) || Any;
        CameraDereference(Cameras[i]);
    }
    return Any;
}

_Use_decl_annotations_
void ServiceThread(PVOID Context)
{
    BUS *Bus = static_cast<BUS *>(Context);
    while (ReadLong(&Bus->Service.Stopping) == 0) {
        LONGLONG Due = kNever;
        if (ServeAll(Bus, &Due)) continue;
        LARGE_INTEGER Limit;
        PLARGE_INTEGER Wait = nullptr;
        if (Due != kNever) {
            const LONGLONG Left = Due - SystemTime();
            Limit.QuadPart = Left > 0 ? -Left : -1;
            Wait = &Limit;
        }
        KeWaitForSingleObject(&Bus->Service.Work, Executive, KernelMode, FALSE, Wait);
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

_Use_decl_annotations_
void SecondThread(PVOID Context)
{
    SERVICE *Service = &static_cast<BUS *>(Context)->Service;
    for (;;) {
        const bool Last = ReadLong(&Service->Stopping) != 0;   // whatever is queued before the flag is still completed
        LIST_ENTRY Done;
        InitializeListHead(&Done);
        {
            SPIN_HOLD Hold(&Service->SecondLock);
            while (!IsListEmpty(&Service->Second)) InsertTailList(&Done, RemoveHeadList(&Service->Second));
        }
        TransferCompleteAll(&Done);
        if (Last) break;
        KeWaitForSingleObject(&Service->SecondWork, Executive, KernelMode, FALSE, nullptr);
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

NTSTATUS StartThread(PKSTART_ROUTINE Routine, BUS *Bus, PVOID *Thread)
{
    HANDLE Handle = nullptr;
    NTSTATUS Status = PsCreateSystemThread(&Handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Routine, Bus);
    if (!NT_SUCCESS(Status)) return Status;
    Status = ObReferenceObjectByHandle(Handle, THREAD_ALL_ACCESS, nullptr, KernelMode, Thread, nullptr);
    ZwClose(Handle);
    return Status;
}

// The driver's code must not go before its threads have left it.
void WaitThread(PVOID *Thread)
{
    if (*Thread == nullptr) return;
    KeWaitForSingleObject(*Thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(*Thread);
    *Thread = nullptr;
}

}  // namespace

_Use_decl_annotations_
NTSTATUS ServiceStart(BUS *Bus)
{
    if (Bus->Threads[0] != nullptr) return STATUS_SUCCESS;
    Bus->Service.Stopping = 0;
    NTSTATUS Status = StartThread(ServiceThread, Bus, &Bus->Threads[0]);
    if (NT_SUCCESS(Status)) Status = StartThread(SecondThread, Bus, &Bus->Threads[1]);
    if (!NT_SUCCESS(Status)) ServiceStop(Bus);
    return Status;
}

_Use_decl_annotations_
void ServiceStop(BUS *Bus)
{
    InterlockedExchange(&Bus->Service.Stopping, 1);
    KeSetEvent(&Bus->Service.Work, IO_NO_INCREMENT, FALSE);
    WaitThread(&Bus->Threads[0]);
    KeSetEvent(&Bus->Service.SecondWork, IO_NO_INCREMENT, FALSE);   // after the first, which feeds it
    WaitThread(&Bus->Threads[1]);
}

}  // namespace simbus
