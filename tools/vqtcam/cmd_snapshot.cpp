// snapshot: one picture on demand.
#include "program.h"

#include "window_options.h"

#include <atomic>
#include <chrono>
#include <fmt/format.h>
#include <memory>
#include <thread>

namespace {

struct SnapshotOptions {
    std::uint32_t timeout = 5;
    bool external = false, trigger = false;
    WindowOptions window;
    PictureOptions pictures;
};

// Pulls the simulated camera's trigger line from a second thread until the camera takes it, since nobody can say when
// it has begun to wait. Ends with the snapshot.
class Trigger {
public:
    Trigger(vqt::Bay &bay, vqt::Slot slot) : thread_([this, &bay, slot] { pull(bay, slot); }) {}
    ~Trigger()
    {
        done_ = true;
        thread_.join();
    }
    Trigger(const Trigger &) = delete;
    Trigger &operator=(const Trigger &) = delete;

private:
    void pull(vqt::Bay &bay, vqt::Slot slot)
    {
        while (!done_) {
            const auto accepted = bay.trigger(slot);
            if (!accepted) {
                fmt::print(stderr, "vqtcam: {}\n", accepted.error().message);
                return;
            }
            if (accepted.value())
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    std::atomic<bool> done_{false};
    std::thread thread_;
};

void snapshot(Session &session, const SnapshotOptions &options)
{
    vqt::Camera camera = session.open();
    const vqt::Geometry geometry = options.window.apply(camera);
    const bool external = options.external || options.trigger;
    camera.setSnapshotParams(options.timeout, external).value();

    std::unique_ptr<Trigger> trigger;
    if (options.trigger) {
        const auto slot = session.slotOf(camera);
        if (!slot)
            throw Stop(Exit::usage,
                       "--trigger pulls a simulated camera's trigger line; this camera is real, use --external");
        trigger = std::make_unique<Trigger>(session.bay(), *slot);
    }
    fmt::print(stderr, "waiting for the {} trigger\n", external ? "external" : "driver's");
    const auto start = std::chrono::steady_clock::now();
    const auto image = camera.snapshot();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!image)
        throw Stop(image.status() == vqt::status::kTimeout ? Exit::timeLimit : Exit::requestFailed,
                   image.error().message);
    const auto path = saveImage(image.value(), MosaicPhase::of(geometry), options.pictures.out, options.pictures.kind(),
                                options.pictures.mosaic);
    fmt::print("camera {}: snapshot {}x{}, {} bits, {} trigger, {:.0f} ms {}\n", camera.deviceId(), image.value().width,
               image.value().height, image.value().bits, external ? "external" : "internal", seconds * 1000,
               path.string());
}

} // namespace

void addSnapshotCommand(Program &program)
{
    auto options = std::make_shared<SnapshotOptions>();
    CLI::App *command = program.command("snapshot", "Capture one picture");
    command->add_option("--timeout", options->timeout, "Seconds to wait at most; 0 waits for ever")
        ->capture_default_str();
    command->add_flag("--external", options->external, "Wait for the camera's external trigger");
    command->add_flag("--trigger", options->trigger, "External trigger, pulled here: simulated cameras only");
    options->pictures.addTo(*command, "snapshot", "The file's name without its ending");
    options->window.addTo(*command);
    command->callback(
        [&program, options] { program.run = [options](Session &session) { snapshot(session, *options); }; });
}
