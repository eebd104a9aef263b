// Everything at once on several cameras for a number of minutes, with 6 % of the driver's calls that can fail failing:
// streams with scripted lost lines, captures, windows, odd requests, unplugging and plugging; the machine sleeps and
// wakes meanwhile. In the end every line that was lost in a stream that nobody interrupted must have been counted, and
// nothing may be left.
#include "rig.h"

#include <atomic>
#include <mutex>
#include <random>
#include <thread>

namespace {

using namespace rig;

constexpr unsigned kCameras = 4;
constexpr double kFailurePercent = 6;

enum Count { streams, interrupted, frames, lost, counted, captures, requests, refused, plugs, sleeps, broken, kCounts };
constexpr const char *kNames[kCounts] = {"streams",  "interrupted", "frames", "lost lines", "counted",     "captures",
                                         "requests", "refusals",    "plugs",  "sleeps",     "faults found"};

class Soak {
public:
    explicit Soak(std::uint64_t seed) : machine_({}, false), seed_(seed)
    {
        machine_.machine.verifier().setHandler([this](const ntos::Violation &found) { complain(found.line()); });
    }

    bool run(std::chrono::steady_clock::duration length)
    {
        machine_.machine.faults().only({"usbcam"});
        machine_.machine.faults().random(seed_, kFailurePercent);
        // Some requests are completed by other threads than the bus's.
        machine_.machine.faults().scheduling({.completeElsewhere = true, .percent = 30, .seed = seed_});
        const auto begin = std::chrono::steady_clock::now();
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < kCameras; ++i)
            threads.emplace_back([this, i] { live(i); });
        threads.emplace_back([this] { nap(); });
        auto moved = begin;
        std::uint64_t done = 0;
        for (unsigned turn = 1; std::chrono::steady_clock::now() - begin < length && tally_[broken] == 0; ++turn) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            if (turn % 50 == 0)
                report();
            if (const std::uint64_t now = tally_[requests]; now != done) {
                done = now;
                moved = std::chrono::steady_clock::now();
            } else if (std::chrono::steady_clock::now() - moved > std::chrono::minutes(3)) {
                fail("nothing moves any more");
            }
        }
        over_ = true;
        for (std::thread &thread : threads)
            thread.join();
        machine_.machine.faults().off();
        // Without failures and sleep every camera must work, and account for what it loses.
        std::mt19937_64 random(seed_);
        for (unsigned i = 0; i < kCameras; ++i) {
            Place place;
            arrive(place, random);
            const std::uint64_t before = tally_[interrupted];
            stream(place, random);
            if (tally_[interrupted] != before)
                complain(std::string("a camera does not stream after it all: ") + why_.load());
            leave(place);
        }
        const std::string left = machine_.finish();
        if (!left.empty())
            complain(left);
        if (tally_[lost] != tally_[counted])
            complain("lost lines are not accounted for");
        if (tally_[streams] == tally_[interrupted])
            complain("no stream ran to its end");
        report();
        return tally_[broken] == 0;
    }

private:
    using Random = std::mt19937_64;

    struct Place {
        Camera camera;
        Handle handle;
    };

    static std::uint32_t roll(Random &random, std::uint32_t sides)
    {
        return static_cast<std::uint32_t>(random() % sides);
    }
    void complain(const std::string &what)
    {
        std::fprintf(stderr, "soak: %s\n", what.c_str());
        ++tally_[broken];
    }
    void report()
    {
        for (int i = 0; i < kCounts; ++i)
            std::printf("%llu %s%s", static_cast<unsigned long long>(tally_[i]), kNames[i], i == broken ? "\n" : ", ");
        std::fflush(stdout);
    }

    // Plugged until it starts: each attempt may meet a failure.
    void arrive(Place &place, Random &random)
    {
        while (!place.handle) {
            {
                const std::lock_guard turn(plugging_); // what arrives is told apart by what was there before
                simbus::PLUG_REQUEST request = model(1 + roll(random, 3), roll(random, 2));
                request.Pace = 20'000'000;
                place.camera = machine_.plug(request);
                ++tally_[plugs];
            }
            if (place.camera.device.state() == ntos::DeviceState::started)
                place.handle = machine_.open(place.camera);
            if (!place.handle)
                leave(place);
        }
    }
    void leave(Place &place)
    {
        (void)machine_.bay.unplug(place.camera.slot);
        place.handle.close();
        while (place.camera.device && place.camera.device.state() != ntos::DeviceState::removed)
            machine_.machine.settle();
    }

    // A stream with lines lost at random places. Nobody else uses the camera; only failures and sleep may come between.
    void stream(Place &place, Random &random)
    {
        ++tally_[streams];
        const std::uint64_t naps = naps_;
        const std::uint32_t height = 48 + 2 * roll(random, 40);
        const auto giveUp = [&](const char *why) {
            ++tally_[interrupted];
            why_ = why;
            if (place.handle.cameraStatus() == CameraStreaming)
                place.handle.status(0);
        };
        if (!ntos::succeeded(place.handle.window(window(0, 0, 64, static_cast<std::int32_t>(height)))))
            return giveUp("its window is refused");
        const std::uint32_t first = machine_.sensor(place.camera).NextFrame + 1;
        const std::uint32_t span = 4 + roll(random, 8);
        std::vector<simbus::LINE_FAULT> faults;
        for (std::uint32_t frame = first; frame < first + span; ++frame)
            for (std::uint32_t line = 1 + roll(random, 8); line + 1 < height; line += 2 + roll(random, 24))
                faults.push_back({frame, static_cast<std::uint16_t>(line), simbus::kLineLose, 0});
        machine_.bay.setLineFaults(place.camera.slot, faults).value();
        CAMERA_STATE state{};
        place.handle.get(IOCTL_GetState, state);
        // A sensor that an earlier failure left running, or that still owes a frame to a capture that was cut short, sends what
        // it has of its old window first.
        const simbus::CAMERA_STATE sensor = machine_.sensor(place.camera);
        const bool held = (sensor.Registers[0x1E] & 0x0100) != 0 && sensor.Running == 0;
        machine_.wire(place.camera);
        if (!ntos::succeeded(place.handle.status(1)) || !held)
            return giveUp("it does not start, or was left running");
        // A register access may have failed on its way, and the driver does not look: then frames of an old window come
        // first.
        const std::size_t commands = machine_.sensor(place.camera).Model == 3 ? 12 : 10;
        if (machine_.wire(place.camera, true).size() != 2 * commands)
            return giveUp("a register access failed on its way");
        Bytes buffer(kFrameHeaderSize + 64 * height * 2);
        FRAME_HEADER header{};
        while (header.FrameNumber < span + 3) {
            if (!ntos::succeeded(place.handle.frame(buffer)) || naps != naps_)
                return giveUp("a frame request failed, or it slept");
            std::memcpy(&header, buffer.data(), sizeof header);
            ++tally_[frames];
        }
        // The same with the depth. The driver is asked: the last header may have been refilled while it was copied.
        std::uint32_t bits = 0;
        if (!ntos::succeeded(place.handle.get(IOCTL_GetBitsPerPixel, bits)) ||
            bits != machine_.sensor(place.camera).BitsPerPixel)
            return giveUp("its depth is another");
        const NtStatus stopped = place.handle.status(0);
        const NtStatus told = place.handle.get(IOCTL_GetState, state);
        machine_.bay.setLineFaults(place.camera.slot, {}).value();
        if (naps != naps_ || !ntos::succeeded(stopped) || !ntos::succeeded(told))
            return giveUp("it slept, or its stop failed");
        tally_[lost] += faults.size();
        tally_[counted] += state.Resyncs;
        if (state.Resyncs != faults.size())
            complain("a stream lost " + std::to_string(faults.size()) + " lines and counted " +
                     std::to_string(state.Resyncs));
    }

    void live(unsigned number)
    {
        Random random(seed_ * 1000 + number);
        Place place;
        arrive(place, random);
        while (!over_ && tally_[broken] == 0) {
            const std::uint32_t what = roll(random, 8);
            if (what < 3)
                stream(place, random);
            else if (what < 4)
                capture(place, random);
            else if (what < 6)
                odd(place, random);
            else if (what < 7)
                pullWhileStreaming(place, random);
            else
                place.handle.window(window(8, 8, 640, 480, 1 << roll(random, 4), roll(random, 2) != 0));
            ++tally_[requests];
        }
        leave(place);
    }

    void capture(Place &place, Random &random)
    {
        place.handle.set(IOCTL_SetSnapshotParams, SNAPSHOT_PARAMETERS{1, roll(random, 2)});
        std::atomic<bool> done{false};
        std::thread canceller([&] {
            Handle own = machine_.open(place.camera);
            while (!done) { // its own limit ends a capture that nobody triggers, this ends it earlier
                if (own.file().deviceControl(IOCTL_CancelSnapshot).ok())
                    break;
                std::this_thread::yield();
            }
        });
        Bytes image(64 * 48 * 2);
        place.handle.window(window(0, 0, 64, 48));
        const Result result = place.handle.file().deviceControl(IOCTL_GetSnapshot, {}, image);
        done = true;
        canceller.join();
        ++(result.ok() ? tally_[captures] : tally_[refused]);
    }

    // Requests of any code and length.
    void odd(Place &place, Random &random)
    {
        Bytes in(roll(random, 70)), out(roll(random, 5000));
        for (std::uint8_t &byte : in)
            byte = static_cast<std::uint8_t>(random());
        for (int i = 0; i < 20; ++i) {
            const std::uint32_t code = 0x222000 | (roll(random, 0x800) << 2);
            if (code == (IOCTL_MainRead & ~3u) || code == IOCTL_SetCameraStatus || code == IOCTL_SetSnapshotParams)
                continue; // would wait without a limit, or spoil what is counted
            const Result result = place.handle.file().deviceControl(code | roll(random, 4), in, out);
            if (result.information > out.size())
                complain("a request reports more than its buffer holds");
            tally_[refused] += !result.ok();
        }
        place.handle.set(IOCTL_SetInterfaceType, std::uint16_t{0});
        place.handle.set(IOCTL_SetDefAlt, std::uint8_t{2});
        place.handle.set(IOCTL_SetBitsPerPixel, std::uint32_t{8});
    }

    void pullWhileStreaming(Place &place, Random &random)
    {
        Handle second = machine_.open(place.camera);
        place.handle.status(1);
        std::thread reader([&] {
            Bytes buffer(kFrameHeaderSize + 64 * 48);
            while (ntos::succeeded(second.frame(buffer)))
                ++tally_[frames];
        });
        (void)machine_.bay.unplug(place.camera.slot);
        reader.join();
        second.close();
        leave(place);
        arrive(place, random);
    }

    void nap()
    {
        while (!over_ && tally_[broken] == 0) {
            for (int i = 0; i < 40 && !over_; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            ++naps_;
            machine_.machine.sleep(ntos::SystemState::sleeping3);
            if (!ntos::succeeded(machine_.machine.wake()))
                complain("the machine does not wake");
            ++naps_;
            ++tally_[sleeps];
        }
    }

    Rig machine_;
    std::atomic<std::uint64_t> tally_[kCounts] = {};
    std::atomic<const char *> why_{""}; // the last stream was interrupted
    std::uint64_t seed_;
    std::mutex plugging_;
    std::atomic<bool> over_{false};
    std::atomic<std::uint64_t> naps_{0};
};

} // namespace

int main(int count, char **arguments)
{
    const double minutes = count > 1 ? std::atof(arguments[1]) : 0;
    if (minutes <= 0) {
        std::fprintf(stderr, "soak MINUTES [SEED]\n");
        return 2;
    }
    const std::uint64_t seed = count > 2 ? std::strtoull(arguments[2], nullptr, 10) : std::random_device{}();
    std::printf("soak: %.1f minutes, seed %llu\n", minutes, static_cast<unsigned long long>(seed));
    const bool sound = Soak(seed).run(std::chrono::milliseconds(static_cast<std::int64_t>(minutes * 60'000)));
    std::printf("soak: %s\n", sound ? "nothing found" : "FAILED");
    return sound ? 0 : 1;
}
