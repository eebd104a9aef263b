// Where the drivers run. On Linux a Host boots a machine in this process, registers the camera driver and the simulated
// bus and adds the bus; it shuts the machine down at its end. On Windows the system is there already: a Host only looks
// whether the bus is installed. The same program text runs on both.
#pragma once

#include "client/status.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vqt {

struct HostOptions {
    bool bus = true;    // add the simulated bus (Linux), demand it (Windows)
    bool trace = false; // keep the drivers' debug prints (Linux)
    // Each line as it is printed, in the printing thread and possibly at raised IRQL: it must not call the drivers.
    // Turns the trace on.
    std::function<void(const std::string &line)> onTrace = {};
};

struct TraceRecord {
    std::string module, routine;
    bool error = false;
    std::string text;         // to the letter, with its line break
    std::string line() const; // as a debugger shows it, without the line break
};

struct EventRecord {
    std::uint32_t id = 0;
    std::string severity, device, text;
    NtStatus finalStatus = 0;
};

class Host {
public:
    static Result<Host> start(const HostOptions &options = {});
    Host(Host &&) noexcept;
    Host &operator=(Host &&) noexcept;
    ~Host(); // shuts down; what the drivers left behind is printed on stderr

    // True where the machine, its cameras included, lives and ends with this process.
    static bool inProcess();

    // Null where the system keeps the trace and the event log elsewhere; whereToLook() says where.
    std::optional<std::vector<TraceRecord>> trace() const;
    std::optional<std::vector<EventRecord>> events() const;
    static std::string whereToLook();

    // Ends the machine and reports what the drivers left behind: empty is clean.
    std::vector<std::string> shutdown();

private:
    struct State;
    explicit Host(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

} // namespace vqt
