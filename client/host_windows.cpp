// The running system: nothing to boot, only to find out whether the simulated bus is installed.
#include "client/host.h"

#include "client/port.h"
#include "drv/simbus/control.h"

namespace vqt {

struct Host::State {};

Host::Host(std::unique_ptr<State> state) : state_(std::move(state)) {}
Host::Host(Host &&) noexcept = default;
Host &Host::operator=(Host &&) noexcept = default;
Host::~Host() = default;

Result<Host> Host::start(const HostOptions &options)
{
    if (options.bus) {
        const Port bus = Port::open(VQT_SIMBUS_DOS_NAME);
        if (!bus)
            return Error{bus.status(),
                         "the simulated bus cannot be opened: " + statusText(bus.status()) +
                             "; install its driver, or leave out the options that ask for simulated cameras"};
    }
    return Host(std::make_unique<State>());
}

bool Host::inProcess()
{
    return false;
}

std::optional<std::vector<TraceRecord>> Host::trace() const
{
    return std::nullopt;
}

std::optional<std::vector<EventRecord>> Host::events() const
{
    return std::nullopt;
}

std::string Host::whereToLook()
{
    return "the trace: a kernel debugger, or a debug viewer run as administrator with kernel capture on; the events: "
           "the "
           "Windows event viewer, System log, source usbcam (or: wevtutil qe System /q:\"*[System[Provider"
           "[@Name='usbcam']]]\" /f:text)";
}

std::vector<std::string> Host::shutdown()
{
    state_.reset();
    return {};
}

} // namespace vqt
