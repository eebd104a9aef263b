// Every scenario with every call that can fail failing once, with the camera unplugged at every kernel call, and with
// random failures. Afterwards the same scenario must work on the same machine, and nothing may be left.
//
// USBCAM_SWEEP=all takes every call index instead of a sample, USBCAM_SEED=n other random failures, USBCAM_ROUNDS=n
// another number of plug rounds.
#include "fixture.h"

#include <atomic>
#include <cstdio>

using namespace rig;

namespace {

std::uint64_t setting(const char *name, std::uint64_t otherwise)
{
    const char *text = std::getenv(name);
    return text ? std::strtoull(text, nullptr, 10) : otherwise;
}

// The statuses that a request may fail with when a resource is missing or the camera has gone.
constexpr std::uint32_t kKnown[] = {
    0x00000102, // a capture whose trigger did not reach the camera ends with its limit
    0xC0000010, // invalid device request: a state that an earlier failure did not reach
    0xC000000D, // invalid parameter: output that cannot be addressed, a capture in another state
    // Success, unsuccessful, no such device, no memory, no such name, delete pending, insufficient resources, device
    // not connected, device does not exist, adapter hardware error, cancelled, device removed, busy.
    0x00000000, 0xC0000001, 0xC000000E, 0xC0000017, 0xC0000034, 0xC0000056, 0xC000009A, 0xC000009D, 0xC00000C0,
    0xC00000C2, 0xC0000120, 0xC00002B6, 0x80000011};

constexpr std::size_t kSmallImage = 64 * 48;

struct Life {
    explicit Life(Rig &machine) : rig(machine) {}
    Rig &rig;
    Camera camera;
    Handle handle;
    std::vector<std::pair<std::string, NtStatus>> steps;

    bool step(const std::string &name, NtStatus status)
    {
        steps.emplace_back(name, status);
        return ntos::succeeded(status);
    }
    void plug()
    {
        camera = rig.plug(model(1));
        step("add", camera.device ? camera.device.addStatus() : st::noSuchDevice);
        if (steps.back().second == st::success)
            step("start", camera.device.startStatus());
    }
    bool open()
    {
        handle = rig.open(camera);
        return step("open", handle ? st::success : handle.file().status());
    }
    // The cameras leave the bus, whatever state they are in.
    void pullAll()
    {
        for (const std::uint32_t slot : rig.slots())
            (void)rig.bay.unplug(slot);
    }
};

enum class Needs { nothing, camera, opened, streaming };

struct Scenario {
    const char *name;
    Needs needs;
    void (*body)(Life &life);
};

void PrintTo(const Scenario &scenario, std::ostream *out)
{
    *out << scenario.name;
}

bool makeReady(Life &life, Needs needs)
{
    if (needs >= Needs::camera)
        life.plug();
    if (needs >= Needs::opened && life.open())
        life.step("window", life.handle.window(window(0, 0, 64, 48)));
    if (needs >= Needs::streaming)
        life.step("stream", life.handle.status(1));
    return std::all_of(life.steps.begin(), life.steps.end(),
                       [](const auto &step) { return step.second == st::success; });
}

// What a camera goes through in its life: plain, with faults, and with the camera unplugged under it.
const Scenario kScenarios[] = {
    {"add_and_start", Needs::nothing, [](Life &life) { life.plug(); }},
    {"start_again", Needs::camera,
     [](Life &life) {
         if (life.step("query stop", life.camera.device.queryStop()) && life.step("stop", life.camera.device.stop()))
             life.step("start", life.camera.device.start());
     }},
    {"open_and_set", Needs::camera,
     [](Life &life) {
         if (life.open()) {
             FRAME_PARAMETERS now{};
             life.step("get window", life.handle.get(IOCTL_GetFrameParameters, now));
             life.step("decimated", life.handle.window(window(16, 8, 128, 96, 2, 1, 1)));
             life.step("small", life.handle.window(window(0, 0, 64, 48)));
             life.step("ten bits", life.handle.set(IOCTL_SetBitsPerPixel, std::uint32_t{10}));
             life.step("eight bits", life.handle.set(IOCTL_SetBitsPerPixel, std::uint32_t{8}));
         }
         life.handle.close();
     }},
    {"ten_frames", Needs::opened,
     [](Life &life) {
         Bytes frame(kFrameHeaderSize + kSmallImage);
         if (!life.step("start", life.handle.status(1)))
             return;
         for (int i = 0; i < 10; ++i)
             if (!life.step("frame", life.handle.frame(frame)))
                 break;
         life.step("stop", life.handle.status(0));
     }},
    {"map", Needs::streaming,
     [](Life &life) {
         std::uint64_t first = 0, second = 0;
         if (life.step("map", life.handle.get(IOCTL_GetFramePtr, first)) &&
             life.step("map again", life.handle.get(IOCTL_GetFramePtr, second)) &&
             !life.rig.machine.userAddressMapped(reinterpret_cast<const void *>(second), kFrameHeaderSize) &&
             life.camera.device.state() == ntos::DeviceState::started)
             fail("a mapping that was handed out is not there");
         life.step("stop", life.handle.status(0));
     }},
    {"snapshot", Needs::opened,
     [](Life &life) {
         Bytes image(kSmallImage);
         life.step("limit", life.handle.set(IOCTL_SetSnapshotParams, SNAPSHOT_PARAMETERS{1, 0}));
         const Result result = life.handle.file().deviceControl(IOCTL_GetSnapshot, {}, image);
         // A lost read ends the capture early, with success and what there was.
         if (result.information > image.size())
             fail("a capture claims more than the image");
         life.step("capture", result.status);
         const NtStatus idle = life.handle.file().deviceControl(IOCTL_CancelSnapshot).status;
         if (idle != st::invalidDeviceRequest && idle != st::deviceRemoved && idle != st::insufficientResources)
             fail("a cancel with nothing to cancel answers otherwise");
     }},
    {"pass_through", Needs::opened,
     [](Life &life) {
         Bytes reply(63), raw(4096);
         life.step("command", life.handle.command({0x12}, reply));
         const std::uint8_t bytes[] = {0x1E, 0x00};
         if (life.step("write", life.handle.file().deviceControl(IOCTL_USBWrite, bytes, {}).status))
             life.step("read", life.handle.file().deviceControl(IOCTL_USBRead, {}, raw).status);
         if (life.step("slave write", life.handle.file().deviceControl(IOCTL_SlaveWrite, bytes, {}).status))
             life.step("slave read", life.handle.file().deviceControl(IOCTL_SlaveRead, {}, raw).status);
         if (life.step("setting 2", life.handle.set(IOCTL_SetInterfaceType, std::uint16_t{0x0200}))) {
             life.step("reset", life.handle.set(IOCTL_ResetPipe, std::uint8_t{2}));
             Bytes free{0x1F, 0x1E, 0x00, 0x00};
             if (life.step("run", life.handle.command(free, reply)))
                 life.step("raw", life.handle.file().deviceControl(IOCTL_MainRead, {}, raw).status);
             life.step("setting 0", life.handle.set(IOCTL_SetInterfaceType, std::uint16_t{0x0000}));
         }
     }},
    {"sleep_and_wake", Needs::streaming,
     [](Life &life) {
         if (life.step("sleep", life.rig.machine.sleep(ntos::SystemState::sleeping3)))
             life.step("wake", life.rig.machine.wake());
     }},
    {"unplug", Needs::streaming,
     [](Life &life) {
         life.pullAll();
         life.rig.machine.settle();
         life.handle.close();
         life.rig.machine.settle();
         life.step("gone", life.camera.device.state() == ntos::DeviceState::removed ? st::success : st::unsuccessful);
     }},
    {"remove_and_unload", Needs::streaming,
     [](Life &life) {
         life.handle.close();
         if (life.step("remove", life.camera.device.remove())) {
             life.rig.machine.settle();
             if (life.step("unload", life.rig.machine.unloadDriver("usbcam")))
                 life.step("load", life.rig.machine.loadDriver("usbcam"));
         }
     }},
};

class Sweep : public ::testing::TestWithParam<Scenario> {
protected:
    struct Shaken {
        std::uint64_t calls = 0, injected = 0;
        std::string what; // was made to fail
    };

    // One machine: made ready plainly, shaken by arm, then judged.
    template <typename Arm> Shaken shake(Arm arm)
    {
        const Scenario &scenario = GetParam();
        Shaken shaken;
        Rig rig({}, false);
        rig.machine.verifier().record();
        ntos::Faults &faults = rig.machine.faults();
        {
            Life life(rig);
            EXPECT_TRUE(makeReady(life, scenario.needs));
            life.steps.clear();
            faults.only({"usbcam"});
            faults.resetCalls();
            arm(life);
            scenario.body(life);
            shaken.calls = faults.calls();
            shaken.injected = faults.injected();
            for (const ntos::KernelCall &call : faults.injectedCalls())
                shaken.what += std::string(call.routine) + " ";
            faults.off();
            rig.machine.settle();
            for (const auto &[name, status] : life.steps) {
                EXPECT_EQ(std::count(std::begin(kKnown), std::end(kKnown), static_cast<std::uint32_t>(status)), 1)
                    << name << " answers " << std::hex << static_cast<std::uint32_t>(status) << after(shaken);
            }
            if (rig.machine.systemState() != ntos::SystemState::working)
                rig.machine.wake();
            repeat(rig, life, shaken);
        }
        std::string broken = rig.finish();
        for (const ntos::Violation &violation : rig.machine.verifier().violations())
            broken += violation.line() + "\n";
        EXPECT_EQ("", broken) << after(shaken);
        return shaken;
    }

private:
    static std::string after(const Shaken &shaken)
    {
        return shaken.what.empty() ? std::string() : " after a failure of " + shaken.what;
    }

    // The scenario again: with the same camera when it is still there, with a new one otherwise.
    void repeat(Rig &rig, Life &life, const Shaken &shaken)
    {
        const Scenario &scenario = GetParam();
        Life again(rig);
        bool ready = true;
        if (life.handle && life.camera.device.state() == ntos::DeviceState::started) {
            again.camera = life.camera;
            again.handle = std::move(life.handle);
            if (again.handle.cameraStatus() != CameraStopped)
                again.step("stop what is left", again.handle.status(0));
            again.step("window", again.handle.window(window(0, 0, 64, 48)));
            if (scenario.needs == Needs::streaming)
                again.step("stream", again.handle.status(1));
        } else {
            life.handle.close();
            again.pullAll();
            rig.machine.settle();
            if (!rig.machine.loaded("usbcam"))
                again.step("load", rig.machine.loadDriver("usbcam"));
            ready = makeReady(again, scenario.needs);
        }
        if (ready)
            scenario.body(again);
        for (const auto &[name, status] : again.steps) {
            EXPECT_EQ(status, st::success) << name << " still fails" << after(shaken);
        }
    }
};

TEST_P(Sweep, EveryCallFailsOnce)
{
    ntos::Faults::forgetSites();
    std::size_t runs = 0;
    for (;; ++runs) {
        const Shaken shaken = shake([](Life &life) {
            life.rig.machine.faults().limit(1);
            life.rig.machine.faults().systematic();
        });
        if (shaken.injected == 0)
            break;
        if (HasFailure())
            return;
    }
    EXPECT_EQ(ntos::Faults::sitesFailed(), runs);
    std::printf("%s: %zu call sites failed, each once\n", GetParam().name, runs);
}

TEST_P(Sweep, UnpluggedAtEveryCall)
{
    // Completions of a stream make the number of calls differ from run to run: the shortest of three sets the stride.
    std::uint64_t calls = shake([](Life &) {}).calls;
    for (int i = 0; i < 2; ++i)
        calls = std::min(calls, shake([](Life &) {}).calls);
    const std::uint64_t stride = std::getenv("USBCAM_SWEEP") ? 1 : std::max<std::uint64_t>(1, calls / 32);
    std::uint64_t index = 1, unplugs = 0;
    for (; index <= calls && !HasFailure(); index += stride, ++unplugs) {
        SCOPED_TRACE("call " + std::to_string(index));
        std::atomic<bool> pulled{false};
        shake([&](Life &life) {
            life.rig.machine.faults().atCall(index, [&](const ntos::KernelCall &) {
                life.pullAll();
                pulled = true;
            });
        });
        if (!pulled)
            break; // a run with fewer calls: this was the end
    }
    EXPECT_TRUE(calls == 0 || index > 1) << "no call was reached";
    std::printf("%s: unplugged at %llu of %llu calls\n", GetParam().name, static_cast<unsigned long long>(unplugs),
                static_cast<unsigned long long>(calls));
}

TEST_P(Sweep, RandomFailures)
{
    const std::uint64_t first = setting("USBCAM_SEED", 1);
    for (std::uint64_t seed = first; seed < first + 8 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        shake([seed](Life &life) {
            life.rig.machine.faults().random(seed, 6);
            ntos::SchedulingFaults scheduling;
            scheduling.forcePending = seed & 1;
            scheduling.completeBeforeReturn = seed & 2;
            scheduling.completeElsewhere = seed & 4;
            scheduling.percent = 30;
            scheduling.seed = seed;
            life.rig.machine.faults().scheduling(scheduling);
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Scenarios, Sweep, ::testing::ValuesIn(kScenarios),
                         [](const auto &info) { return std::string(info.param.name); });

// Plugged and unplugged over and over, some while they stream, some with a handle left open for a while.
TEST(Rounds, PlugAndUnplug)
{
    const std::uint64_t rounds = setting("USBCAM_ROUNDS", USBCAM_DEFAULT_ROUNDS);
    Rig rig({}, false);
    rig.machine.verifier().setHandler([](const ntos::Violation &broken) { ADD_FAILURE() << broken.line(); });
    Handle kept;
    const ntos::Counters before = rig.machine.counters();
    for (std::uint64_t round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
        const Camera camera = rig.plug(model(round % 16 == 0 ? 3 : static_cast<std::uint32_t>(1 + round / 2 % 2), round % 2));
        // The kept handle holds the name of the camera of the round before.
        ASSERT_EQ(camera.id, kept ? '1' : '0') << "round " << round;
        ASSERT_EQ(camera.device.state(), ntos::DeviceState::started);
        kept.close();
        rig.machine.settle();
        Handle handle = rig.open(camera);
        if (round % 4 == 1) {
            ASSERT_EQ(handle.window(window(0, 0, 64, 48)), st::success);
            ASSERT_EQ(handle.status(1), st::success);
        }
        if (round % 5 == 2 && camera.id == '0')
            kept = std::move(handle);
        handle.close();
        rig.unplug(camera);
    }
    kept.close();
    rig.machine.settle();
    EXPECT_EQ(rig.machine.counters().requests, before.requests);
    EXPECT_EQ(rig.machine.counters().symbolicLinks, before.symbolicLinks);
    EXPECT_EQ(rig.machine.counters().devices, before.devices);
    EXPECT_EQ("", rig.finish());
}

} // namespace
