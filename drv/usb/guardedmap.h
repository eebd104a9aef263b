// Mapping into user space raises an exception when it fails, also when it was asked not to bugcheck. The one call that
// can is a unit of its own: on Windows it is built by the compiler that knows structured exceptions.
#pragma once

#include <ntddk.h>

// Maps the pages into the current process, cached, at an address of the system's choice. Null when that fails.
_IRQL_requires_max_(APC_LEVEL) PVOID MapIntoCurrentProcess(PMDL Mdl);
