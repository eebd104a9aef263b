#include <ntifs.h>

#include "camera.h"
#include "owners.h"

// Exported by the kernel, declared by none of its driver headers.
extern "C" NTSTATUS NTAPI PsGetProcessExitStatus(PEPROCESS Process);

namespace {

// A user mapping can be undone in its own address space only. One that ends takes its mappings along: its exit status
// is set before its address space goes, and its handles are closed, which undoes the mapping, in between.
void UnmapInOwner(PVOID UserSpace, PMDL Mdl, PEPROCESS Owner)
{
    if (Owner == PsGetCurrentProcess()) {
        MmUnmapLockedPages(UserSpace, Mdl);
        return;
    }
    if (PsGetProcessExitStatus(Owner) != STATUS_PENDING) {
        return;
    }
    KAPC_STATE Previous;
    KeStackAttachProcess(reinterpret_cast<PKPROCESS>(Owner), &Previous);
    MmUnmapLockedPages(UserSpace, Mdl);
    KeUnstackDetachProcess(&Previous);
}

} // namespace

PEPROCESS DropUserMapping(DEVICE_EXTENSION *DevExt)
{
    const PEPROCESS Owner = DevExt->UserSpaceOwner;
    if (DevExt->UserSpace != nullptr) {
        UnmapInOwner(DevExt->UserSpace, DevExt->UserSpaceMdl, Owner);
    }
    DevExt->UserSpace = nullptr;
    const OwnedMdl Freed(DevExt->UserSpaceMdl);
    DevExt->UserSpaceMdl = nullptr;
    DevExt->UserSpaceOwner = nullptr;
    DevExt->UserSpaceFile = nullptr;
    return Owner;
}

void DropUserMappingOf(DEVICE_EXTENSION *DevExt, PFILE_OBJECT FileObject)
{
    PEPROCESS Owner = nullptr;
    {
        const MappingHold Hold(DevExt);
        if (FileObject != nullptr && DevExt->UserSpaceFile == FileObject) {
            Owner = DropUserMapping(DevExt);
        }
    }
    if (Owner != nullptr) {
        ObDereferenceObject(Owner);
    }
}
