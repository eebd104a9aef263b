// What the managers share: the kernel in being, the calling thread, the one door every kernel call comes through, and the
// verifier's way to stop the machine.
#pragma once

#include <ntifs.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ntos/machine.h"

namespace ntos {

struct DriverRecord;
struct Kernel;
struct DevNode;
struct Player;
void offerTurn(_KTHREAD *thread);

// ------------------------------------------------------------------------------------------------------------ objects

// Everything that can be referenced. The count starts at one, the creator's.
enum class ObjectType : std::uint8_t { process, thread, device, driver, file };
struct ObjectHeader {
    explicit ObjectHeader(ObjectType t) : type(t) {}
    virtual ~ObjectHeader() = default;
    ObjectHeader(const ObjectHeader &) = delete;
    ObjectHeader &operator=(const ObjectHeader &) = delete;
    ObjectType type;
    std::atomic<long> references{1};
};
void registerObject(void *body, ObjectHeader *header); // body: what drivers see
ObjectHeader *findObject(void *body);
void forgetObject(void *body);
std::size_t objectReferencesLeft(ObjectType type);

// Dispatcher object types, as in the header's Type.
constexpr UCHAR kNotificationEvent = 0, kSynchronizationEvent = 1, kSemaphore = 5, kThreadObject = 6, kProcessObject = 3;
constexpr UCHAR kDispatcherSignature = 0xA7;

enum class LockKind : std::uint8_t { spin, fastMutex, resource };
struct HeldLock {
    const void *lock;
    LockKind kind;
};

} // namespace ntos

// A thread as the kernel sees it; waitable. Threads of the program are attached when they first call in.
struct _KTHREAD {
    DISPATCHER_HEADER header{}; // first: drivers wait on the thread's address
    std::uint64_t epoch = 0;    // of the kernel it belongs to
    std::uint64_t id = 0;
    KIRQL irql = PASSIVE_LEVEL;
    int criticalRegions = 0;
    bool inHook = false;
    bool system = false;           // made by PsCreateSystemThread
    _KPROCESS *process = nullptr;  // whose address space it is in
    NTSTATUS exitStatus = STATUS_PENDING;
    std::vector<ntos::DriverRecord *> drivers; // whose code is running, innermost last; null: the program
    std::vector<ntos::HeldLock> locks;
    std::condition_variable wake;
    struct _NTOS_GUARD_FRAME *guards = nullptr;
    std::string pendingPrefix;     // first half of a two-call print
    struct ThreadExit *exit = nullptr;
    struct ntos::Player *player = nullptr; // shares the processor with others (Turns)
};

struct _KPROCESS {
    DISPATCHER_HEADER header{};
    std::uint64_t id = 0;
    std::string name;
    std::atomic<NTSTATUS> exitStatus{STATUS_PENDING};
    std::mutex lock;
    std::vector<std::weak_ptr<ntos::detail::OpenFile>> handles;
};

namespace ntos {

struct ThreadObject : ObjectHeader {
    ThreadObject() : ObjectHeader(ObjectType::thread) {}
    _KTHREAD thread;
};

// The calling thread; attaches it when need be.
_KTHREAD *currentThread();

// Names the driver whose code runs next on this thread, and sees to it that it leaves the level as it found it.
class DriverScope {
public:
    explicit DriverScope(DriverRecord *driver);
    ~DriverScope();
    DriverScope(const DriverScope &) = delete;
    DriverScope &operator=(const DriverScope &) = delete;

private:
    _KTHREAD *thread_;
    std::size_t depth_;
};
DriverRecord *currentDriver();                         // null outside drivers
const std::string &driverName(const DriverRecord *driver); // empty for null

// ----------------------------------------------------------------------------------------------------------- the door

struct Door {
    const char *routine;
    KIRQL maxIrql;
    bool canFail;
};
extern std::atomic<bool> gHooksArmed;
bool enterSlow(const Door &door, _KTHREAD *thread);
void violate(std::string rule, const char *routine, std::string object, std::uint32_t code, std::uint32_t parameter = 0);
std::string text(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Every call from a driver comes through here first. True: the call is to fail.
inline bool enter(const Door &door)
{
    _KTHREAD *thread = currentThread();
    if (thread->irql > door.maxIrql)
        violate("called above its level", door.routine, text("irql %u, at most %u", thread->irql, door.maxIrql), 0xC4, 0x30);
    if (__builtin_expect(thread->player != nullptr, 0))
        offerTurn(thread);
    if (__builtin_expect(gHooksArmed.load(std::memory_order_relaxed), 0) && !thread->drivers.empty() &&
        thread->drivers.back() != nullptr && !thread->inHook)
        return enterSlow(door, thread);
    return false;
}
#define NTOS_DOOR(Routine, MaxIrql, CanFail) \
    static constexpr ::ntos::Door kDoor { #Routine, MaxIrql, CanFail }

// Scheduling faults: whether one of the kind is due now.
enum class SchedulingFault { forcePending, completeBeforeReturn, completeElsewhere, delayAtWaits };
bool schedulingFaultDue(SchedulingFault kind);
void perturb(); // the delay around waits and releases, when armed

// ------------------------------------------------------------------------------------------------------------- worker

// Runs the job in a system thread at the given level. The pool grows when all its threads are busy, so jobs may block.
void runInWorker(std::function<void()> job, KIRQL irql = PASSIVE_LEVEL, DriverRecord *driver = nullptr);
void drainWorkers(); // blocks until no job is queued or running
void stopWorkers();

// -------------------------------------------------------------------------------------------------------------- names

std::string toUtf8(PCUNICODE_STRING string);
std::string toUtf8(const wchar_t *string, std::size_t length);
std::vector<wchar_t> toWide(std::string_view string); // without a terminator
std::string lowerCase(std::string_view string);
std::string canonicalName(std::string_view name);      // lower case, \DosDevices\ and \??\ made one

std::uint64_t kernelEpoch();
bool kernelRunning();
_KPROCESS *initialProcess();
_KPROCESS *systemProcess();

} // namespace ntos
