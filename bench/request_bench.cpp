// What a frame request costs from the frame's event to its return: the wait itself is left out.
#include "report.h"
#include "rig.h"

#include <chrono>
#include <cstring>
#include <memory>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A streaming camera whose next frame is always just there: the moment a request begins to wait, its event is set and
// the time starts.
class Waiting {
public:
    Waiting(unsigned number, const Geometry &geometry) : camera_(number, geometry)
    {
        camera_.ext()->CameraStatus = CameraStreaming;
        camera_.ext()->FrameReadyPtr = camera_.ext()->Frame[0];
        file_ = machine().open(camera_.name());
    }

    Camera &camera()
    {
        return camera_;
    }

    double request(std::uint32_t code, void *out, std::size_t length)
    {
        Clock::time_point start = Clock::now();
        machine().faults().onCall([&](const ntos::KernelCall &call) {
            if (std::strcmp(call.routine, "KeWaitForSingleObject") == 0) {
                KeSetEvent(&camera_.ext()->FrameReadyEv, 1, FALSE);
                start = Clock::now();
            }
            return false;
        });
        const ntos::Result result = file_.deviceControl(code, nullptr, 0, out, length);
        const double seconds = since(start);
        machine().faults().onCall(nullptr);
        if (!result.ok()) {
            std::abort();
        }
        return seconds;
    }

    ~Waiting()
    {
        // The mapping goes with its handle.
        file_.close();
        camera_.ext()->CameraStatus = CameraStopped;
    }

private:
    Camera camera_;
    ntos::File file_;
};

void addCopy(unsigned number, const Geometry &geometry)
{
    auto waiting = std::make_shared<Waiting>(number, geometry);
    auto image = std::make_shared<std::vector<UCHAR>>(geometry.imageBytes());
    Measurement copy("frame_copy_" + std::to_string(geometry.width) + "x" + std::to_string(geometry.height), "GB/s",
                     static_cast<double>(image->size()));
    copy.seconds = [waiting, image] { return waiting->request(IOCTL_GetFrame, image->data(), image->size()); };
    copy.limitSeconds = [waiting, image] {
        const Clock::time_point start = Clock::now();
        std::memcpy(image->data(), waiting->camera().ext()->Frame[0] + kFrameHeaderSize, image->size());
        asm volatile("" : : "r"(image->data()) : "memory");
        return since(start);
    };
    add(std::move(copy));
}

// The largest frame held against a small one: the cost of a mapping must not grow with the image.
void addMap(unsigned number)
{
    const auto mapOf = [](unsigned which, ULONG bytes) {
        auto waiting = std::make_shared<Waiting>(which, Geometry{64, 64, 8});
        waiting->camera().ext()->FrameBufSize = bytes;
        return [waiting] {
            std::uint64_t address = 0;
            return waiting->request(IOCTL_GetFramePtr, &address, sizeof(address));
        };
    };
    Measurement map("frame_map", "us");
    map.seconds = mapOf(number, (2048 + 4) * (1536 + 4) * 2);
    map.limitSeconds = mapOf(number + 1, 128 * 1024);
    add(std::move(map));
}

} // namespace

void addRequests()
{
    addCopy(20, {1280, 1024, 8});
    addCopy(21, {2048, 1536, 8});
    addMap(22);
}

} // namespace bench
