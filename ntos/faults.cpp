// Fault injection: which calls fail, when a callback runs, and how scheduling is disturbed.
#include <unwind.h>

#include <algorithm>
#include <chrono>

#include "ntos/io.h"

extern "C" char __executable_start;

namespace ntos {

std::atomic<bool> gHooksArmed{false};

namespace {

enum class Mode { none, systematic, random };

struct FaultState {
    std::mutex lock;
    std::vector<std::string> services, routines;
    Mode mode = Mode::none;
    std::uint64_t limit = UINT64_MAX;
    std::uint64_t random = 0;
    double percent = 0;
    std::uint64_t atIndex = 0;
    std::function<void(const KernelCall &)> atCall;
    std::function<bool(const KernelCall &)> onCall;
    std::uint64_t calls = 0;
    std::vector<KernelCall> injected;
    bool counting = false;
    SchedulingFaults scheduling;
    bool schedulingOn = false;
    std::uint64_t schedulingRandom = 0;
};
FaultState &faults()
{
    static auto *instance = new FaultState;
    return *instance;
}

// Call sites that have failed, over all machines of the program.
struct Sites {
    std::mutex lock;
    std::set<std::uint64_t> failed;
};
Sites &sites()
{
    static auto *instance = new Sites;
    return *instance;
}

void arm(const FaultState &f)
{
    gHooksArmed = f.mode != Mode::none || f.atCall || f.onCall || f.counting || f.schedulingOn;
}

std::uint64_t nextRandom(std::uint64_t &seed)
{
    seed += 0x9E3779B97F4A7C15u; // splitmix64
    std::uint64_t z = seed;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
}

struct Walk {
    std::uint64_t hash;
    int skip, left;
};

_Unwind_Reason_Code step(_Unwind_Context *context, void *argument)
{
    auto *walk = static_cast<Walk *>(argument);
    if (walk->skip-- > 0)
        return _URC_NO_REASON;
    const auto address = static_cast<std::uint64_t>(_Unwind_GetIP(context)) - reinterpret_cast<std::uint64_t>(&__executable_start);
    walk->hash = (walk->hash ^ address) * 0x100000001B3u;
    return --walk->left > 0 ? _URC_NO_REASON : _URC_END_OF_STACK;
}

// The kernel routine's own frame and five callers tell call sites apart, also behind a driver's helpers.
std::uint64_t callSite(const char *routine)
{
    Walk walk{0xCBF29CE484222325u, 2, 6};
    for (const char *p = routine; *p != 0; p++)
        walk.hash = (walk.hash ^ static_cast<std::uint8_t>(*p)) * 0x100000001B3u;
    _Unwind_Backtrace(step, &walk);
    return walk.hash;
}

bool listed(const std::vector<std::string> &list, std::string_view name)
{
    return list.empty() || std::find(list.begin(), list.end(), name) != list.end();
}

bool chooses(FaultState &f, const KernelCall &call)
{
    if (f.mode == Mode::random)
        return static_cast<double>(nextRandom(f.random) >> 11) * (100.0 / 9007199254740992.0) < f.percent;
    std::lock_guard guard(sites().lock);
    return sites().failed.insert(call.site).second;
}

} // namespace

bool enterSlow(const Door &door, _KTHREAD *thread)
{
    FaultState &f = faults();
    KernelCall call;
    call.routine = door.routine;
    call.driver = driverName(thread->drivers.back());
    call.irql = thread->irql;
    std::function<void(const KernelCall &)> atCall;
    std::function<bool(const KernelCall &)> onCall;
    bool systematic;
    {
        std::lock_guard guard(f.lock);
        if (!listed(f.services, call.driver))
            return false;
        call.canFail = door.canFail && listed(f.routines, call.routine);
        call.index = ++f.calls;
        if (f.atCall && call.index == f.atIndex)
            atCall = std::exchange(f.atCall, nullptr);
        onCall = f.onCall;
        systematic = f.mode == Mode::systematic;
    }
    if (systematic && call.canFail)
        call.site = callSite(door.routine);
    bool fails = false;
    if (atCall) {
        if (thread->irql == PASSIVE_LEVEL) {
            thread->inHook = true;
            DriverScope program(nullptr);
            atCall(call);
            thread->inHook = false;
        } else {
            runInWorker([atCall, call] { atCall(call); });
        }
    }
    if (onCall) {
        thread->inHook = true;
        DriverScope program(nullptr);
        fails = onCall(call) && call.canFail;
        thread->inHook = false;
    }
    std::lock_guard guard(f.lock);
    if (call.canFail && !fails && f.mode != Mode::none && f.injected.size() < f.limit)
        fails = chooses(f, call);
    if (fails)
        f.injected.push_back(call);
    return fails;
}

bool schedulingFaultDue(SchedulingFault kind)
{
    FaultState &f = faults();
    std::lock_guard guard(f.lock);
    if (!f.schedulingOn)
        return false;
    const bool wanted = kind == SchedulingFault::forcePending          ? f.scheduling.forcePending || f.scheduling.completeBeforeReturn
                        : kind == SchedulingFault::completeBeforeReturn ? f.scheduling.completeBeforeReturn
                        : kind == SchedulingFault::completeElsewhere    ? f.scheduling.completeElsewhere
                                                                        : f.scheduling.delayAtWaits;
    return wanted && nextRandom(f.schedulingRandom) % 100 < f.scheduling.percent;
}

void perturb()
{
    if (__builtin_expect(!gHooksArmed.load(std::memory_order_relaxed), 1) || !schedulingFaultDue(SchedulingFault::delayAtWaits))
        return;
    std::uint64_t draw;
    {
        std::lock_guard guard(faults().lock);
        draw = nextRandom(faults().schedulingRandom);
    }
    if (draw % 4 == 0)
        std::this_thread::sleep_for(std::chrono::microseconds(draw / 4 % 200));
    else
        std::this_thread::yield();
}

void Faults::off()
{
    FaultState &f = faults();
    std::lock_guard guard(f.lock);
    f.services.clear();
    f.routines.clear();
    f.mode = Mode::none;
    f.limit = UINT64_MAX;
    f.atCall = nullptr;
    f.onCall = nullptr;
    f.counting = false;
    f.schedulingOn = false;
    arm(f);
}

void Faults::only(std::vector<std::string> services)
{
    std::lock_guard guard(faults().lock);
    faults().services = std::move(services);
}

void Faults::onlyRoutines(std::vector<std::string> routines)
{
    std::lock_guard guard(faults().lock);
    faults().routines = std::move(routines);
}

void Faults::systematic()
{
    std::lock_guard guard(faults().lock);
    faults().mode = Mode::systematic;
    arm(faults());
}

void Faults::forgetSites()
{
    std::lock_guard guard(sites().lock);
    sites().failed.clear();
}

std::size_t Faults::sitesFailed()
{
    std::lock_guard guard(sites().lock);
    return sites().failed.size();
}

void Faults::limit(std::uint64_t failures)
{
    std::lock_guard guard(faults().lock);
    faults().limit = failures;
}

void Faults::random(std::uint64_t seed, double percent)
{
    std::lock_guard guard(faults().lock);
    faults().mode = Mode::random;
    faults().random = seed;
    faults().percent = percent;
    arm(faults());
}

void Faults::scheduling(const SchedulingFaults &wanted)
{
    FaultState &f = faults();
    std::lock_guard guard(f.lock);
    f.scheduling = wanted;
    f.schedulingOn = wanted.forcePending || wanted.completeBeforeReturn || wanted.completeElsewhere || wanted.delayAtWaits;
    f.schedulingRandom = wanted.seed;
    arm(f);
}

void Faults::atCall(std::uint64_t index, std::function<void(const KernelCall &)> callback)
{
    std::lock_guard guard(faults().lock);
    faults().atIndex = index;
    faults().atCall = std::move(callback);
    arm(faults());
}

void Faults::onCall(std::function<bool(const KernelCall &)> callback)
{
    std::lock_guard guard(faults().lock);
    faults().onCall = std::move(callback);
    arm(faults());
}

std::uint64_t Faults::calls() const
{
    std::lock_guard guard(faults().lock);
    return faults().calls;
}

std::uint64_t Faults::injected() const
{
    std::lock_guard guard(faults().lock);
    return faults().injected.size();
}

std::vector<KernelCall> Faults::injectedCalls() const
{
    std::lock_guard guard(faults().lock);
    return faults().injected;
}

void Faults::resetCalls()
{
    std::lock_guard guard(faults().lock);
    faults().calls = 0;
    faults().injected.clear();
    faults().counting = true;
    arm(faults());
}

void resetFaults()
{
    Faults().off();
    std::lock_guard guard(faults().lock);
    faults().calls = 0;
    faults().injected.clear();
}

} // namespace ntos
