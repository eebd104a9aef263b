// The kernel under the suite and, where the machine lives in this process, a hand on its clock, its
// pool and its trace. The tests speak to the drivers through client/ alone.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace e2e {

// This project's NT layer, booted in the test's own process, or a second NT kernel, there already and reached through
// real handles.
constexpr bool kOnLayer =
#ifdef _WIN32
    false;
#else
    true;
#endif

// A hand on a machine in this process. On the second kernel every call but clockByHand() and traceMark() ends the
// program: a test that needs one stands in the
// table of road.cpp.
namespace hand {

void clockByHand(bool still); // the clock stands still, or runs by itself
void advance(std::chrono::microseconds by);
std::size_t timedWaiters();                            // threads in a wait with a limit, and timers
std::optional<std::chrono::microseconds> nextExpiry(); // time to the earliest limit

// Every pool allocation of the camera driver fails, when plugs and unplugs so far have been dealt with.
void failPool(bool on);

std::uint64_t traceMark(); // the trace is on from the first call
struct Message {
    bool error;
    std::string routine, text;
    std::uint64_t thread;
};
std::vector<Message> traceSince(std::uint64_t mark);

bool userAddressMapped(const void *address);
// Runs the function as another process, which ends when it returns.
void inOtherProcess(const std::function<void()> &run);

} // namespace hand
} // namespace e2e
