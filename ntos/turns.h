// Players: threads that share one processor and go on when the program says so. For what makes a thread wait.
#pragma once

#include "ntos/kernel.h"

namespace ntos {

// The calling player (thread->player is not null) waits until the condition holds; others have their turns meanwhile.
void waitForTurn(_KTHREAD *thread, const std::function<bool()> &ready);
// A point at which a player may lose its turn.
void offerTurn(_KTHREAD *thread);

} // namespace ntos
