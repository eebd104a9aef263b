// Threads as turns.cpp makes and changes them.
#pragma once

#include "ntos/kernel.h"

namespace ntos {

ThreadObject *newThread();
void releaseThread(ThreadObject *thread);
// The calling thread of the program goes on as that one; what it was before.
_KTHREAD *switchThread(_KTHREAD *thread);

} // namespace ntos
