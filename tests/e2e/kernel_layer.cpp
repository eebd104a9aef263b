// The machine in this process.
#include "tests/e2e/kernel.h"

#include "ntos/machine.h"

namespace e2e::hand {
namespace {

ntos::Machine &machine()
{
    return *ntos::Machine::current();
}

} // namespace

void clockByHand(bool still)
{
    machine().clock().setManual(still);
}

void advance(std::chrono::microseconds by)
{
    machine().clock().advance(by);
}

std::size_t timedWaiters()
{
    return machine().clock().timedWaiters();
}

std::optional<std::chrono::microseconds> nextExpiry()
{
    const auto next = machine().clock().nextExpiry();
    if (!next)
        return std::nullopt;
    return std::chrono::duration_cast<std::chrono::microseconds>(*next);
}

void failPool(bool on)
{
    machine().settle();
    machine().faults().off();
    if (on)
        machine().faults().onCall([](const ntos::KernelCall &call) {
            return call.driver == "usbcam" && std::string_view(call.routine).starts_with("ExAllocatePool");
        });
}

std::uint64_t traceMark()
{
    machine().trace().enable(true);
    return machine().trace().mark();
}

std::vector<Message> traceSince(std::uint64_t mark)
{
    std::vector<Message> messages;
    for (const ntos::TraceLine &line : machine().trace().since(mark))
        messages.push_back({line.level == ntos::TraceLine::Level::error, line.routine, line.text, line.thread});
    return messages;
}

bool userAddressMapped(const void *address)
{
    return machine().userAddressMapped(address);
}

void inOtherProcess(const std::function<void()> &run)
{
    ntos::Process process = machine().createProcess("other");
    {
        const auto inside = process.enter();
        run();
    }
    process.end();
}

} // namespace e2e::hand
