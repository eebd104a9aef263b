// Structured exceptions for the one thing a driver here needs: a call that raises a status instead of failing.
//
//     __try { address = MmMapLockedPagesSpecifyCache(...); }
//     __except (EXCEPTION_EXECUTE_HANDLER) { return GetExceptionCode(); }
//
// Only statuses raised by kernel routines arrive here; no destructors run between the raise and the handler. Locals that the
// guarded block changes are to be volatile if the handler reads them. Include this header last: the C++ library's own
// headers use __try as a macro of theirs.
#pragma once

#include <setjmp.h>

#define EXCEPTION_EXECUTE_HANDLER 1
#define EXCEPTION_CONTINUE_SEARCH 0
#define EXCEPTION_CONTINUE_EXECUTION (-1)

extern "C" {
struct _NTOS_GUARD_FRAME {
    jmp_buf Buffer;
    int Code;
    struct _NTOS_GUARD_FRAME *Outer;
};
void NtosPushGuard(struct _NTOS_GUARD_FRAME *Frame);
void NtosPopGuard(struct _NTOS_GUARD_FRAME *Frame); // legal for a frame that a raise has popped already
[[noreturn]] void NtosRaise(int Code);
}

struct _NTOS_GUARD : _NTOS_GUARD_FRAME {
    _NTOS_GUARD() { NtosPushGuard(this); }
    ~_NTOS_GUARD() { NtosPopGuard(this); }
    _NTOS_GUARD(const _NTOS_GUARD &) = delete;
    _NTOS_GUARD &operator=(const _NTOS_GUARD &) = delete;
};

#undef __try
#undef __except
#undef __leave
#define __try if (_NTOS_GUARD _NtosGuard; _setjmp(_NtosGuard.Buffer) == 0)
#define __except(Filter) else if ((Filter) != EXCEPTION_EXECUTE_HANDLER) NtosRaise(_NtosGuard.Code); else
#define GetExceptionCode() (_NtosGuard.Code)
