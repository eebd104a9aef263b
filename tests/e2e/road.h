// What every test of the road stands on: a host with a bay, cameras plugged into it, and a stream whose frames come one
// at a time, so that a test knows which frame a request got.
#pragma once

#include "client/bay.h"
#include "client/camera.h"
#include "client/host.h"
#include "tests/e2e/kernel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace e2e {

// Polls a condition that somebody else brings about; throws when it does not come.
void waitFor(const char *what, const std::function<bool()> &condition);

struct Model {
    unsigned number; // 1 to 3
    bool mono;
    std::uint32_t width, height;
};
constexpr Model kModels[] = {{1, true, 1280, 1024},  {1, false, 1280, 1024}, {2, true, 1600, 1200},
                             {2, false, 1600, 1200}, {3, true, 2048, 1536},  {3, false, 2048, 1536}};
std::string nameOf(const Model &model); // "R1M"

// A camera in the bay and a handle on it.
struct Plugged {
    vqt::Slot slot;
    char id;
    vqt::Camera camera;
};

// How long a request waits for a frame: GetFramePtr has no limit.
enum class Limit { fiveSeconds, none };

// The stream of one camera, one frame at a time. On the layer the clock stands still and the camera sends as much as
// the clock is advanced for: nothing is sent between two calls. On the second kernel the camera is slow instead.
class Stream {
public:
    Stream(vqt::Bay &bay, Plugged &plugged) : bay_(bay), plugged_(plugged) {}
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;
    ~Stream();

    // Bytes of each transfer, 0: as suits the frame. Unpaced, the camera does not wait for the clock.
    void start(std::uint32_t block = 0, bool paced = true);
    void stop();

    // Runs a request that waits for the next frame, in the calling thread, and has one frame completed meanwhile.
    template <class Request> auto during(Request request, Limit limit = Limit::fiveSeconds)
    {
        if (!kOnLayer)
            return request();
        std::future<void> camera;
        std::promise<void> done; // goes before the other: a request that throws ends the delivery as well
        camera = std::async(std::launch::async, [this, limit, ended = done.get_future()] {
            try {
                deliver(ended, limit);
            } catch (...) {
                (void)plugged_.camera.stop(); // or the request would wait for ever
                throw;
            }
        });
        auto result = request();
        done.set_value();
        camera.get();
        return result;
    }
    vqt::Frame next();                            // header and image
    vqt::Frame nextOf(std::uint32_t frameNumber); // frames before it are skipped
    void pass(std::uint32_t frames);              // frames that nobody asks for (layer only)
    void step();                                  // one block more (layer only)
    void waitForCamera();                         // until it waits for the clock (layer only)
    void countAll();                              // everything sent has been counted

    // Sums of everything that GetState reported since the start; this class reads the totals, so nobody else can.
    struct Totals {
        std::uint64_t frames = 0, blocks = 0, resyncs = 0;
    };
    const Totals &totals();

private:
    void deliver(const std::future<void> &done, Limit limit);
    static bool cameraWaits();

    vqt::Bay &bay_;
    Plugged &plugged_;
    bool running_ = false;
    std::uint64_t readsBefore_ = 0;
    Totals totals_;
};

class Road : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Plugs a camera, waits until it is started, opens it and sets the window, if one is given.
    Plugged plug(const Model &model, const vqt::Geometry &window = {});
    // Closes the handle, unplugs, waits until the names are gone.
    void unplug(Plugged &plugged);
    // The same for a camera that the bay has let go already.
    void unplugged(Plugged &plugged);

    vqt::Bay &bay()
    {
        return *bay_;
    }

private:
    std::optional<vqt::Host> host_;
    std::optional<vqt::Bay> bay_;
    std::vector<vqt::Slot> slots_;
    std::uint32_t nextSerial_ = 40001;
};

} // namespace e2e
