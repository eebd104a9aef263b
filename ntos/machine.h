// How a program stands outside the kernel: it boots a machine, registers drivers, opens devices by name, sends requests,
// puts the machine to sleep, drives the clock, arms faults, and reads the trace and the event log.
//
// This header needs nothing but the standard library: no platform header, no wide characters. All texts are UTF-8.
// Statuses are NT status codes as signed 32-bit integers (negative: warning or error).
//
// Threads. Every function may be called from any thread unless it says otherwise; a calling thread becomes a kernel thread
// at PASSIVE_LEVEL of the process it has entered (see Process), at first the initial user process. "Blocks" below means in
// real time, however the machine's clock is driven. One machine runs at a time; it can be booted again after its shutdown.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct _DRIVER_OBJECT;
struct _UNICODE_STRING;

namespace ntos {

using NtStatus = std::int32_t;
using DriverEntryRoutine = NtStatus (*)(::_DRIVER_OBJECT *driverObject, ::_UNICODE_STRING *registryPath);

constexpr bool succeeded(NtStatus status) { return status >= 0; }
constexpr NtStatus ntStatus(std::uint32_t code) { return static_cast<NtStatus>(code); }

// 100-nanosecond units, as the kernel counts time.
using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;

class Machine;
namespace detail {
struct OpenFile;
struct PendingIo;
struct ProcessRecord;
struct TurnsRecord;
} // namespace detail

// The I/O status block of a finished request.
struct Result {
    NtStatus status = 0;
    std::uint64_t information = 0; // bytes transferred, unless the request defines it otherwise
    bool ok() const { return succeeded(status); }
};

struct Guid {
    std::uint32_t data1 = 0;
    std::uint16_t data2 = 0;
    std::uint16_t data3 = 0;
    std::uint8_t data4[8] = {};
    bool operator==(const Guid &) const = default;
};
// "{6f1d2a90-3c4b-4e5f-8a7b-1c2d3e4f5a00}", lower case.
std::string toString(const Guid &guid);

// ---------------------------------------------------------------------------------------------------------- requests

// An open handle. It belongs to the process that the opening thread had entered. Closing sends cleanup and close; the
// destructor closes. Requests block until the driver has finished them.
class File {
public:
    File() = default;
    File(File &&) noexcept;
    File &operator=(File &&) noexcept;
    ~File();

    explicit operator bool() const;             // open
    NtStatus status() const { return status_; } // of the open; STATUS_OBJECT_NAME_NOT_FOUND is 0xC0000034
    void close();

    // code: as CTL_CODE builds it; its method decides how the buffers travel. With METHOD_BUFFERED the driver sees one buffer
    // of the larger length; direct methods lock the caller's own memory. The information may exceed outLength only for
    // a driver that lies (the verifier stops the machine).
    Result deviceControl(std::uint32_t code, const void *in, std::size_t inLength, void *out, std::size_t outLength);
    Result deviceControl(std::uint32_t code, std::span<const std::uint8_t> in = {}, std::span<std::uint8_t> out = {})
    {
        return deviceControl(code, in.data(), in.size(), out.data(), out.size());
    }

    Result read(void *buffer, std::size_t length, std::uint64_t offset = 0);
    Result write(const void *buffer, std::size_t length, std::uint64_t offset = 0);
    // Any other major function code, without buffers.
    Result send(std::uint8_t major, std::uint8_t minor = 0);

private:
    friend class Machine;
    std::shared_ptr<detail::OpenFile> file_;
    NtStatus status_ = 0;
};

// --------------------------------------------------------------------------------------------------------- processes

// A user process. Handles opened and user mappings made while a thread has entered it belong to it.
class Process {
public:
    // While it lives, the thread that made it runs in the process. Must be destroyed in that thread, in reverse order.
    class Entered {
    public:
        Entered(Entered &&other) noexcept;
        Entered &operator=(Entered &&) = delete;
        ~Entered();

    private:
        friend class Process;
        explicit Entered(const std::shared_ptr<detail::ProcessRecord> &process);
        void *previous_ = nullptr;
        bool active_ = false;
        std::shared_ptr<detail::ProcessRecord> process_;
    };

    Process() = default;
    [[nodiscard]] Entered enter() const;

    // Ends the process: cancels its requests and closes its handles first (that is the drivers' chance to undo mappings),
    // then checks that none of its user mappings is left; one that is left stops the machine (0x76). No thread may be inside.
    void end();
    bool ended() const;
    std::uint64_t id() const;
    const std::string &name() const;
    std::size_t handles() const;

    // A user mapping made in this process: its address can be read and written directly by this program until it is undone.
    bool mapped(const void *address, std::size_t length = 1) const;
    std::size_t mappings() const;

private:
    friend class Machine;
    std::shared_ptr<detail::ProcessRecord> process_;
};

// ------------------------------------------------------------------------------------------------- Plug and Play, power

enum class DeviceState {
    enumerated,      // known, no driver yet (or none found, or AddDevice failed)
    added,           // stack built, not started (or the start failed)
    started,
    stopPending,
    stopped,
    removePending,   // query-remove went well; removal is held back while handles are open
    surpriseRemoved, // gone from the bus; removal is held back while handles are open
    removed,         // (removed by hand while its bus still reports it, a device is enumerated again; start() brings it back)
};
const char *toString(DeviceState state);

enum class SystemState : std::uint32_t { working = 1, sleeping1, sleeping2, sleeping3, hibernate, shutdown };
enum class DevicePower : std::uint32_t { unspecified = 0, d0 = 1, d1, d2, d3 };

// A device instance, that is, a physical device object and the stack above it. A value: it may outlive the device.
//
// Requests that change the state run one at a time on the Plug and Play thread, in system context at PASSIVE_LEVEL; the
// functions block until the driver stack has answered. They must not be called on the Plug and Play thread itself (for
// instance from a fault callback inside AddDevice); surpriseLater() may.
class Device {
public:
    Device() = default;

    explicit operator bool() const { return id_ != 0; }
    std::uint64_t id() const { return id_; }
    bool operator==(const Device &) const = default;

    DeviceState state() const;
    std::string instancePath() const; // as ROOT\SIMBUS\0000
    std::vector<std::string> hardwareIds() const;
    std::string service() const;          // of the function driver, empty without one
    NtStatus addStatus() const;           // of the last AddDevice, or STATUS_NO_SUCH_DEVICE without a driver
    NtStatus startStatus() const;         // of the last start request
    std::size_t openHandles() const;
    DevicePower reportedPower() const;    // as the drivers last told with PoSetPowerState, or the last completed request

    NtStatus start();        // IRP_MN_START_DEVICE on a device that is added or stopped
    NtStatus queryStop();
    NtStatus cancelStop();
    NtStatus stop();         // after queryStop
    NtStatus queryRemove();
    NtStatus cancelRemove();
    // Orderly removal: asks first (unless already asked); when accepted, the remove request is sent as soon as the last
    // handle is closed: at once when none is open. Returns the answer to the question. Blocks only for what is sent at once.
    NtStatus remove();
    // The device has left without a word: sends surprise removal (if started), and removal after the last close. For devices
    // that a bus driver reports missing this happens by itself.
    void surprise();
    void surpriseLater();    // the same, queued: does not block and may be called from anywhere

    // IRP_MN_SET_POWER or IRP_MN_QUERY_POWER for a device state, as the power manager sends it for PoRequestPowerIrp.
    NtStatus setPower(DevicePower state);
    NtStatus queryPower(DevicePower state);

    // Single requests to the top of the stack, without any bookkeeping of the Plug and Play manager.
    struct StackRequest {
        std::uint8_t major = 0x1B;                    // IRP_MJ_PNP
        std::uint8_t minor = 0;
        std::uint64_t arguments[4] = {};              // Parameters.Others
        NtStatus initialStatus = ntStatus(0xC00000BB); // STATUS_NOT_SUPPORTED
    };
    Result send(const StackRequest &request);
    Result sendPnp(std::uint8_t minor);
    Result sendSystemPower(std::uint8_t minor, SystemState state);
    Result sendDevicePower(std::uint8_t minor, DevicePower state);
    Result sendSystemControl(std::uint8_t minor);     // WMI

private:
    friend class Machine;
    explicit Device(std::uint64_t id) : id_(id) {}
    std::uint64_t id_ = 0;
};

// ------------------------------------------------------------------------------------------------------------- clock

// The machine's clock: system time, performance counter, limits of waits and delays, timers. Automatic: it runs with real
// time. Manual: it stands still until advanced, and timed waits expire only then.
class Clock {
public:
    bool manual() const;
    void setManual(bool manual);
    Ticks now() const;              // since 1 January 1601, UTC
    void set(Ticks systemTime);     // moves the system time only; limits of waits are not affected
    void advance(Ticks by);         // manual clock; wakes what is due, returns without waiting for it to run

    // Blocks until at least count threads are in a wait with a limit or in a delay. False when it took longer than the limit of real time.
    bool waitForTimedWaiters(std::size_t count, std::chrono::milliseconds realLimit = std::chrono::seconds(30)) const;
    std::size_t timedWaiters() const;
    // Blocks until at least count threads are in any wait at all on the dispatcher object at the address (0: any object).
    bool waitForWaiters(std::size_t count, const void *object = nullptr,
                        std::chrono::milliseconds realLimit = std::chrono::seconds(30)) const;
    // Time to the earliest limit that has not expired.
    std::optional<Ticks> nextExpiry() const;
};

// ------------------------------------------------------------------------------------------------------------- turns

// Who goes on. The callbacks must not call the kernel.
struct Deal {
    std::function<std::size_t(std::size_t count)> next; // one of the players that can, counted from 0 (taken modulo)
    std::function<bool()> interrupt;                    // at a kernel call: the player's turn ends here; none: never
};

// Several threads of the kernel that share the calling thread of the program: players. One has its turn until it waits for
// what is not there, or is interrupted at a kernel call; then another one that can goes on. The same choices give the same
// run, whatever the machine is busy with, and a run in which nobody can go on is a deadlock and known at once.
//
// What a player waits for must come from another player, or without anybody's wait: plugging, power requests and whatever
// else is done by the machine's own threads has no place here. Manual clock: no player's limit passes by itself.
class Turns {
public:
    Turns();
    ~Turns();
    Turns(const Turns &) = delete;
    Turns &operator=(const Turns &) = delete;

    // Runs a player for each routine until the last one returns; routines must not throw. False: nobody can go on. They
    // are still where they wait: when something has been brought about for them, run() without routines goes on.
    [[nodiscard]] bool run(std::span<const std::function<void()>> routines, const Deal &deal);
    // The calling player goes on when nobody else can.
    static void standBack();

private:
    std::unique_ptr<detail::TurnsRecord> turns_;
};

// ------------------------------------------------------------------------------------------------------------- trace

// One message of the debug print. A message printed as two calls, the prefix "module(line), routine() : " (or the same
// after "ERROR! ") and the text, arrives as one line; a print without a prefix has level plain and only a text.
struct TraceLine {
    enum class Level { normal, error, plain };
    std::uint64_t number = 0;       // counts from 1 since boot, without gaps
    Level level = Level::plain;
    std::string module;             // as "drv/usb/driver"
    int line = 0;
    std::string routine;
    std::string text;               // to the letter, with its line break
    std::uint64_t thread = 0;
    Ticks time{};
};

// Off at boot: prints are refused before anything is formatted. The ring keeps the newest lines.
class Trace {
public:
    void enable(bool on);
    bool enabled() const;
    void setCapacity(std::size_t lines);  // default 65536
    // Called for each line, in the printing thread at its IRQL, possibly with driver locks held: it must not call the kernel.
    // A listener enables the trace by itself; none (nullptr) leaves the setting alone.
    void setListener(std::function<void(const TraceLine &)> listener);
    std::uint64_t mark() const;           // number of the newest line
    std::vector<TraceLine> since(std::uint64_t mark) const;
    std::vector<TraceLine> lines() const { return since(0); }
    // Messages only, for comparing: ("ERROR! " in front of errors).
    std::vector<std::string> texts(std::uint64_t mark = 0) const;
    bool contains(std::string_view text, std::uint64_t mark = 0) const; // a whole text
    void clear();
};

// --------------------------------------------------------------------------------------------------------- event log

struct EventLogEntry {
    std::uint32_t id = 0;                // ErrorCode of the packet
    enum class Severity { success, informational, warning, error } severity = Severity::success;
    std::string device;                  // name of the device (or driver) object that reported
    NtStatus finalStatus = 0;
    std::uint32_t uniqueErrorValue = 0;
    std::vector<std::uint32_t> dump;
    std::vector<std::string> strings;    // insertion strings after %1
    std::string text;                    // the message with its strings, empty when no message file knows the id
    Ticks time{};
};

class EventLog {
public:
    // Reads the messages of a message-compiler source (.mc). False when the file cannot be read or holds no message.
    bool addMessageFile(const std::string &path);
    std::optional<std::string> message(std::uint32_t id) const; // the raw text, %1 included
    std::vector<EventLogEntry> entries() const;
    void clear();
};

// ---------------------------------------------------------------------------------------------------------- verifier

struct Violation {
    std::string rule;       // in a few words
    std::string routine;    // the kernel routine that noticed
    std::string object;     // what it is about, as "irp 0x7f.. of \Device\X"
    std::uint32_t code = 0; // the platform's bug check number, as 0xC4; 0 without one
    std::uint32_t parameter = 0; // its first parameter, as 0x225
    std::string line() const;
};

// A broken rule stops the machine: by default its line goes to stderr and the program aborts. A handler may throw (the
// exception leaves the driver's routine without unwinding it: shut the machine down afterwards without asking for
// cleanliness) or return, then the machine goes on as well as it can. Every violation is also kept.
class Verifier {
public:
    void setHandler(std::function<void(const Violation &)> handler);
    void record();               // handler that only keeps
    std::vector<Violation> violations() const;
    void clear();
    // Real time within which a cancelled request has to complete; default 10 s.
    void setCancelLimit(std::chrono::milliseconds limit);
};

// ------------------------------------------------------------------------------------------------------------ faults

// A call of a kernel routine from a driver.
struct KernelCall {
    const char *routine = "";      // as "IoAllocateMdl"
    std::string driver;            // service whose code called, empty for the kernel itself and programs
    std::uint64_t site = 0;        // hash of the return addresses of a short stack of frames; 0 unless faults are systematic
    std::uint64_t index = 0;       // counts from 1 since resetCalls(), over the calls that pass the filter
    unsigned irql = 0;
    bool canFail = false;          // a fault may be injected here
};

struct SchedulingFaults {
    bool forcePending = false;        // a request passed down is served in another thread, the caller gets STATUS_PENDING
    bool completeBeforeReturn = false; // and it is finished before IoCallDriver returns (a short real time is granted)
    bool completeElsewhere = false;   // the completion of a pended request runs in another thread
    bool delayAtWaits = false;        // threads yield and are held up around waits and releases
    std::uint32_t percent = 100;      // of the occasions
    std::uint64_t seed = 1;
};

// Set up while the machine is quiet, or from one thread. Everything is off at boot.
class Faults {
public:
    void off();
    // Only calls from these services count and fail (default: every driver). Names as registered.
    void only(std::vector<std::string> services);
    // Only these kernel routines fail (default: all that can).
    void onlyRoutines(std::vector<std::string> routines);

    // Fails every call that can fail once per call site: the first time it is seen since forgetSites(). The sites are kept
    // over machines, so that a scenario is repeated on fresh machines until injected() stays 0.
    void systematic();
    static void forgetSites();
    static std::size_t sitesFailed();
    // At most this many failures between resetCalls() calls (default: no limit); 1 gives one fault a run.
    void limit(std::uint64_t failures);

    // Fails the given share of the calls that can fail; the sequence depends on the seed and on the calls alone.
    void random(std::uint64_t seed, double percent);
    void scheduling(const SchedulingFaults &faults);

    // Runs the callback once, when the call number index (from 1 since resetCalls()) is made, before it takes effect: in the
    // calling thread when that is at PASSIVE_LEVEL, else in a thread of its own that is not waited for (settle() does).
    void atCall(std::uint64_t index, std::function<void(const KernelCall &)> callback);
    // Sees every call that passes the filter, in the calling thread; true makes a call that can fail, fail.
    void onCall(std::function<bool(const KernelCall &)> callback);

    std::uint64_t calls() const;     // since resetCalls()
    std::uint64_t injected() const;  // since resetCalls()
    std::vector<KernelCall> injectedCalls() const;
    void resetCalls();
};

// ----------------------------------------------------------------------------------------------------------- machine

struct DriverRegistration {
    std::string service;                    // as "usbcam"
    DriverEntryRoutine entry = nullptr;
    std::vector<std::string> hardwareIds;   // matched without regard to case, hardware ids before compatible ids
    std::string manufacturer = {};          // as the driver's INF names it; empty: the property does not exist
};

struct PoolTagStatistics {
    std::string tag;                        // four characters as written in the driver, as "42QV"
    std::uint64_t blocks = 0, bytes = 0;    // now
    std::uint64_t allocations = 0, peakBytes = 0;
};

struct Counters {
    std::size_t handles = 0, requests = 0 /* IRPs */, mdls = 0, mappings = 0, poolBlocks = 0, devices = 0, symbolicLinks = 0,
                interfaces = 0, threads = 0 /* of drivers */, workItems = 0;
};

struct Options {
    bool manualClock = false;
    bool fillPool = true;               // fresh memory 0xCD, freed memory 0xDD; false: as the heap gives it
    std::uint8_t freshFill = 0xCD, freedFill = 0xDD;
    bool sharedPool = true;             // blocks of a page and more can be mapped at a second address
    bool zeroSharedPool = false;
    Ticks bootTime{131'000'000'000'000'000}; // February 2016; used as the start of the manual clock and the automatic one
};

struct ShutdownReport {
    std::vector<std::string> leaks;     // what drivers left behind at unload, one line each; every one was a violation too
    bool clean() const { return leaks.empty(); }
};

class Machine {
public:
    explicit Machine(const Options &options = {}); // boots
    ~Machine();                                    // shuts down when that was not done
    Machine(const Machine &) = delete;
    Machine &operator=(const Machine &) = delete;
    static Machine *current();                     // null when none is booted

    // Drivers. A registered driver is loaded when a device needs it and unloaded by unloadDriver() or shutdown().
    void registerDriver(DriverRegistration registration);
    NtStatus loadDriver(const std::string &service);
    // STATUS_DEVICE_BUSY (0x80000011) while it has devices, STATUS_INVALID_DEVICE_REQUEST (0xC0000010) without an unload routine.
    NtStatus unloadDriver(const std::string &service);
    bool loaded(const std::string &service) const;

    // A root-enumerated device. Blocks until it and everything below it is started (or failed).
    Device addRootDevice(const std::string &hardwareId);
    // Every device that is not yet removed, in the order of arrival; with an id: those whose hardware ids contain it.
    std::vector<Device> devices(std::string_view hardwareId = {}) const;
    // Blocks until the Plug and Play queue is empty, no arrival or removal is under way that does not wait for a handle,
    // and the callbacks of faults have returned.
    void settle();
    void enumerate(const Device &bus); // asks the bus for its children again, as IoInvalidateDeviceRelations does; blocks

    // Names as a program writes them: "\\.\Name" and "\\?\Name" (a DOS link or an interface link), or "\Device\Name".
    File open(std::string_view name);
    std::vector<std::string> interfaces(const Guid &interfaceClass) const; // links of the enabled ones, for open()
    // Target of a DOS link ("Name" or "\DosDevices\Name" or "\??\Name"), without regard to case.
    std::optional<std::string> symbolicLink(std::string_view name) const;
    std::vector<std::pair<std::string, std::string>> symbolicLinks() const; // name under \??\ and target, without interfaces
    bool deviceNameExists(std::string_view name) const;                     // "\Device\X"

    Process createProcess(const std::string &name);
    // Whether any process, the initial one included, has a user mapping over the address.
    bool userAddressMapped(const void *address, std::size_t length = 1) const;

    // System power. sleep asks every device first; a refusal (its status is returned) leaves the machine awake. Both block
    // until every device has answered. Children sleep before their parents and wake after them.
    NtStatus sleep(SystemState state);
    NtStatus wake();
    SystemState systemState() const;

    Clock &clock();
    Trace &trace();
    EventLog &eventLog();
    Verifier &verifier();
    Faults &faults();

    std::vector<PoolTagStatistics> pool() const; // tags with at least one allocation since boot
    PoolTagStatistics pool(std::string_view tag) const;
    Counters counters() const;

    // Ends all processes, closes all handles, removes all devices (children first), unloads the drivers and reports what is
    // left. Blocks. No other thread may use the machine any more.
    ShutdownReport shutdown();

private:
    Clock clock_;
    Trace trace_;
    EventLog eventLog_;
    Verifier verifier_;
    Faults faults_;
    bool down_ = false;
};

} // namespace ntos
