// One run of the program: the host, the bay with the cameras that the command line plugs in, and the camera to work on.
#pragma once

#include "client/bay.h"
#include "client/camera.h"
#include "client/host.h"
#include "exit_codes.h"
#include "sim_options.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

struct GlobalOptions {
    std::vector<std::string> sims, faults;
    std::string scene;  // for every simulated camera whose --sim names none
    std::string camera; // DeviceID; empty: the first one
    bool verbose = false;
    bool trace = false; // the command needs the trace
};

class Session {
public:
    explicit Session(const GlobalOptions &options); // throws
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    vqt::Camera open(); // the camera chosen with --camera, or the first one; throws Stop
    const vqt::Host &host() const { return host_; }

    // Of the simulated camera behind the handle; none for a real one or without a bus.
    std::optional<vqt::Slot> slotOf(vqt::Camera &camera);
    vqt::Bay &bay(); // throws Stop without a bus

    // Lets the driver read the camera's flash again: stops the device and starts it, as the system does to move
    // resources.
    void restart(vqt::Slot slot);

private:
    // Unplugs at its end, so that nothing stays behind on a system that outlives this program.
    struct Plugged {
        Plugged(vqt::Bay &where, vqt::Slot which) : bay(&where), slot(which) {}
        Plugged(Plugged &&other) noexcept
            : bay(std::exchange(other.bay, nullptr)), slot(other.slot), deviceId(other.deviceId)
        {
        }
        Plugged &operator=(Plugged &&) = delete;
        ~Plugged();
        vqt::Bay *bay;
        vqt::Slot slot;
        char deviceId = '?';
    };
    void plug(const SimCamera &sim);

    GlobalOptions options_;
    vqt::Host host_;
    std::optional<vqt::Bay> bay_;
    std::vector<Plugged> plugged_;
};
