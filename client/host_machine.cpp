// A machine booted in this process, with the camera driver and the simulated bus on it.
#include "client/host.h"

#include "drv/simbus/control.h"
#include "ntos/machine.h"

#include <cstdio>

extern "C" std::int32_t UsbcamDriverEntry(_DRIVER_OBJECT *driverObject, _UNICODE_STRING *registryPath);
extern "C" std::int32_t SimbusDriverEntry(_DRIVER_OBJECT *driverObject, _UNICODE_STRING *registryPath);

namespace vqt {
namespace {

constexpr std::size_t kTraceLines = 1'000'000;

TraceRecord recordOf(const ntos::TraceLine &line)
{
    return {line.module, line.routine, line.level == ntos::TraceLine::Level::error, line.text};
}

const char *severityText(ntos::EventLogEntry::Severity severity)
{
    switch (severity) {
    case ntos::EventLogEntry::Severity::success:
        return "success";
    case ntos::EventLogEntry::Severity::informational:
        return "information";
    case ntos::EventLogEntry::Severity::warning:
        return "warning";
    case ntos::EventLogEntry::Severity::error:
        return "error";
    }
    return "unknown";
}

} // namespace

struct Host::State {
    ntos::Machine machine;
};

Host::Host(std::unique_ptr<State> state) : state_(std::move(state)) {}
Host::Host(Host &&) noexcept = default;
Host &Host::operator=(Host &&) noexcept = default;

Host::~Host()
{
    for (const std::string &leak : shutdown())
        std::fprintf(stderr, "left behind by a driver: %s\n", leak.c_str());
}

Result<Host> Host::start(const HostOptions &options)
{
    if (ntos::Machine::current() != nullptr)
        return Error{status::kDeviceBusy, "a machine runs in this process already; shut it down first"};
    auto state = std::make_unique<State>();
    ntos::Machine &machine = state->machine;
    if (options.trace || options.onTrace) {
        machine.trace().setCapacity(kTraceLines);
        machine.trace().enable(true);
    }
    if (options.onTrace)
        machine.trace().setListener(
            [report = options.onTrace](const ntos::TraceLine &line) { report(recordOf(line).line()); });
    machine.eventLog().addMessageFile(USBCAM_MESSAGE_FILE);
    machine.registerDriver({"usbcam", UsbcamDriverEntry, {VQT_SIMBUS_CAMERA_HARDWARE_ID}});
    machine.registerDriver({"simbus", SimbusDriverEntry, {VQT_SIMBUS_HARDWARE_ID}});
    if (options.bus) {
        const ntos::Device bus = machine.addRootDevice(VQT_SIMBUS_HARDWARE_ID);
        if (bus.state() != ntos::DeviceState::started)
            return Error{bus.startStatus(),
                         "the simulated bus did not start: " + statusText(bus.startStatus()) + "; look into its trace"};
    }
    return Host(std::move(state));
}

bool Host::inProcess()
{
    return true;
}

std::optional<std::vector<TraceRecord>> Host::trace() const
{
    std::vector<TraceRecord> records;
    for (const ntos::TraceLine &line : state_->machine.trace().lines())
        records.push_back(recordOf(line));
    return records;
}

std::optional<std::vector<EventRecord>> Host::events() const
{
    std::vector<EventRecord> records;
    for (const ntos::EventLogEntry &entry : state_->machine.eventLog().entries())
        records.push_back({entry.id, severityText(entry.severity), entry.device, entry.text, entry.finalStatus});
    return records;
}

std::string Host::whereToLook()
{
    return "the trace and the event log live in this process: use --verbose, `trace` and `events`";
}

std::vector<std::string> Host::shutdown()
{
    if (!state_)
        return {};
    const auto state = std::move(state_);
    // The listener's owner may be gone by the time the last line is printed.
    state->machine.trace().setListener(nullptr);
    return state->machine.shutdown().leaks;
}

} // namespace vqt
