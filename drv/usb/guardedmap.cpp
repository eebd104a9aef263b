#include "guardedmap.h"

#include <excpt.h>

PVOID MapIntoCurrentProcess(PMDL Mdl)
{
    __try {
        return MmMapLockedPagesSpecifyCache(Mdl, UserMode, MmCached, nullptr, FALSE, NormalPagePriority);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return nullptr;
    }
}
