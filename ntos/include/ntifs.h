// Running in another process's address space.
#pragma once

#include <ntddk.h>

typedef struct _KAPC_STATE {
    LIST_ENTRY ApcListHead[MaximumMode];
    PKPROCESS Process;
    BOOLEAN KernelApcInProgress;
    BOOLEAN KernelApcPending;
    BOOLEAN UserApcPending;
} KAPC_STATE, *PKAPC_STATE, *PRKAPC_STATE;

extern "C" {
void KeStackAttachProcess(PRKPROCESS Process, PRKAPC_STATE ApcState);
void KeUnstackDetachProcess(PRKAPC_STATE ApcState);
// STATUS_PENDING while the process runs.
NTSTATUS PsGetProcessExitStatus(PEPROCESS Process);
}
