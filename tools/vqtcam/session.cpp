#include "session.h"

#include "picture_file.h"

#include <cstdio>
#include <fmt/format.h>

namespace {

constexpr std::uint8_t kPnp = 0x1B;
constexpr std::uint8_t kStartDevice = 0x00, kStopDevice = 0x04, kQueryStop = 0x05;

const std::vector<std::string> kDefaultCameras = {"model=1,mono", "model=3,colour"};

vqt::Host startHost(const GlobalOptions &options)
{
    vqt::HostOptions host;
    host.bus = vqt::Host::inProcess() || !options.sims.empty();
    host.trace = options.trace;
    if (options.verbose)
        host.onTrace = [](const std::string &line) { std::fprintf(stderr, "%s\n", line.c_str()); };
    auto started = vqt::Host::start(host);
    if (!started)
        throw Stop(Exit::noCamera, started.error().message);
    return std::move(started).value();
}

} // namespace

Session::Session(const GlobalOptions &options) : options_(options), host_(startHost(options))
{
    std::vector<SimCamera> sims;
    for (const std::string &text : options.sims.empty() && vqt::Host::inProcess() ? kDefaultCameras : options.sims)
        sims.push_back(parseSimCamera(text));
    std::vector<SimFault> faults;
    for (const std::string &text : options.faults)
        faults.push_back(parseSimFault(text));

    for (const SimFault &fault : faults)
        if (fault.camera.value_or(0) >= sims.size())
            throw Stop(Exit::usage, fmt::format("--fault names camera {} of {}; add a --sim for it",
                                                fault.camera.value_or(0), sims.size()));

    if (auto bay = vqt::Bay::open())
        bay_.emplace(std::move(bay).value());
    else if (!sims.empty())
        throw Stop(Exit::noCamera, bay.error().message);

    for (const SimCamera &sim : sims)
        plug(sim);
    for (unsigned place = 0; place < plugged_.size(); ++place) {
        std::vector<simbus::LINE_FAULT> lines;
        for (const SimFault &fault : faults)
            if (!fault.camera || *fault.camera == place)
                lines.push_back(fault.line);
        if (!lines.empty())
            bay_->setLineFaults(plugged_[place].slot, lines).value();
    }
}

Session::Plugged::~Plugged()
{
    if (bay == nullptr)
        return;
    if (const auto done = bay->unplug(slot); !done)
        fmt::print(stderr, "vqtcam: {}\n", done.error().message);
}

void Session::plug(const SimCamera &sim)
{
    const vqt::Slot slot = bay_->plug(sim.plug).value();
    plugged_.emplace_back(*bay_, slot);
    const std::string scene = sim.scene.empty() && !sim.flat ? options_.scene : sim.scene;
    if (sim.flat) {
        bay_->setFlat(slot, *sim.flat).value();
    } else if (!scene.empty()) {
        const ScenePicture picture = loadScene(scene);
        bay_->setPicture(slot, picture.width, picture.height, picture.rgb).value();
    }
    plugged_.back().deviceId = bay_->deviceId(slot).value();
    if (const auto defects = makeDefects(sim); !defects.empty()) {
        bay_->setDefects(slot, defects).value();
        restart(slot);
    }
}

void Session::restart(vqt::Slot slot)
{
    for (const std::uint8_t minor : {kQueryStop, kStopDevice, kStartDevice}) {
        const vqt::NtStatus status = bay().sendRequest(slot, kPnp, minor).value();
        if (!vqt::succeeded(status))
            throw Stop(Exit::requestFailed,
                       fmt::format("the camera in slot {} refused to be restarted: {}; look into the trace", slot,
                                   vqt::statusText(status)));
    }
}

vqt::Bay &Session::bay()
{
    if (!bay_)
        throw Stop(Exit::noCamera, "this needs the simulated bus, which is not installed; install its driver first");
    return *bay_;
}

vqt::Camera Session::open()
{
    if (options_.camera.size() > 1 ||
        (options_.camera.size() == 1 && vqt::kDeviceIds.find(options_.camera[0]) == std::string_view::npos))
        throw Stop(Exit::usage, "--camera is one DeviceID: a digit or a capital letter, as `vqtcam list` shows them");
    char deviceId = options_.camera.empty() ? '\0' : options_.camera[0];
    if (deviceId == '\0' && !plugged_.empty())
        deviceId = plugged_.front().deviceId;
    if (deviceId == '\0') {
        const auto ids = vqt::Camera::list();
        if (ids.empty())
            throw Stop(Exit::noCamera, "no camera is plugged in; plug one in, or add a simulated one with --sim");
        deviceId = ids.front();
    }
    auto camera = vqt::Camera::open(deviceId);
    if (!camera)
        throw Stop(Exit::noCamera, camera.error().message);
    return std::move(camera).value();
}

std::optional<vqt::Slot> Session::slotOf(vqt::Camera &camera)
{
    for (const Plugged &plugged : plugged_)
        if (plugged.deviceId == camera.deviceId())
            return plugged.slot;
    if (!bay_)
        return std::nullopt;
    const auto info = camera.info().value();
    for (const auto &entry : bay_->list().value())
        if (entry.Serial == info.serial && entry.Started != 0)
            return entry.Slot;
    return std::nullopt;
}
