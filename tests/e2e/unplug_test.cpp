// The cable is pulled: whatever was going on comes to an end, and the next camera works.
#include "tests/e2e/road.h"

#include <algorithm>

namespace e2e {
namespace {

namespace st = vqt::status;

class Unplug : public Road {
protected:
    void expectNextCameraWorks()
    {
        Plugged next = plug(kModels[2], {0, 0, 64, 32});
        EXPECT_EQ(next.id, '0');
        Stream stream(bay(), next);
        stream.start();
        EXPECT_EQ(stream.nextOf(2).header.Resyncs, 0u);
        stream.stop();
        unplug(next);
    }
};

TEST_F(Unplug, WhileStreaming)
{
    for (const bool held : {false, true}) { // no cancel reaches a held read
        SCOPED_TRACE(held);
        Plugged plugged = plug(kModels[0], {0, 0, 128, 64});
        if (!kOnLayer)
            bay().setPace(plugged.slot, 2'000'000).value();
        const simbus::BULK_FAULT hold{simbus::kBulkHold, 0, 0, 0xFFFFFFFF};
        if (held)
            bay().setBulkFaults(plugged.slot, {&hold, 1}).value();
        plugged.camera.start().value();
        std::uint32_t frames = 0;
        waitFor("the stream", [&] {
            return held ? bay().state(plugged.slot).value().HeldReads == 3
                        : (frames += plugged.camera.getState().value().TotalFrames) > 3;
        });
        unplug(plugged);
        EXPECT_EQ(vqt::Camera::open('0').status(), st::kObjectNameNotFound);
        expectNextCameraWorks();
    }
}

TEST_F(Unplug, WhileARequestWaits)
{
    // Where the request waits: seen by the limit of its wait, by its read or its reply on the bus, or, without a limit,
    // by its first message or (a capture, when all its reads are on the bus) the one in front of the wait.
    enum Place { limitedWait, wait, capture, bus };
    constexpr vqt::NtStatus kAnyFailure = 1;
    const struct {
        const char *name;
        std::uint32_t code;
        std::size_t length;
        Place place;
        vqt::NtStatus status;
    } cases[] = {
        {"GetFrame before the first frame", IOCTL_GetFrame, 2048, limitedWait, st::kUnsuccessful},
        {"GetFrameEx before the first frame", IOCTL_GetFrameEx, 2048, limitedWait, st::kUnsuccessful},
        {"GetFramePtr", IOCTL_GetFramePtr, 8, wait, st::kInvalidDeviceRequest},
        {"GetSnapshot", IOCTL_GetSnapshot, 2048, capture, st::kSuccess},
        {"MainRead", IOCTL_MainRead, 512, bus, kAnyFailure},
        {"HwCommand without an answer", IOCTL_HwCommand, 16, bus, kAnyFailure},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.name);
        Plugged plugged = plug(kModels[4], {0, 0, 64, 32});
        plugged.camera.setSnapshotParams(0, true).value();
        bay().setSilence(plugged.slot, simbus::kSilentStream).value();
        const simbus::COMMAND_FAULT mute{0x12, simbus::kCommandNoAnswer, 0, 0, 1};
        bay().setCommandFaults(plugged.slot, {&mute, 1}).value();
        if (row.code != IOCTL_GetSnapshot && row.code != IOCTL_HwCommand)
            plugged.camera.start().value();
        const simbus::CAMERA_STATE quiet = bay().state(plugged.slot).value();
        const std::uint64_t mark = hand::traceMark();

        std::vector<std::uint8_t> input(row.code == IOCTL_HwCommand ? 1 : 0, 0x12), buffer(row.length);
        auto request = std::async(std::launch::async,
                                  [&] { return plugged.camera.port().deviceControl(row.code, input, buffer); });
        waitFor("the request to be under way", [&] {
            const simbus::CAMERA_STATE now = bay().state(plugged.slot).value();
            if (row.place == limitedWait)
                return hand::timedWaiters() != 0;
            if (row.place == bus)
                return now.PendingReads + now.PendingControls > quiet.PendingReads + quiet.PendingControls;
            const char *said = row.place == capture ? "KeWaitForSingleObject( &(DevExt->NoPendingEv)" : "=>";
            return std::ranges::any_of(hand::traceSince(mark), [&](auto &m) { return m.text.starts_with(said); });
        });
        bay().unplug(plugged.slot).value();
        waitFor("the request to return",
                [&] { return request.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
        const vqt::IoResult result = request.get();
        EXPECT_TRUE(row.status == kAnyFailure ? !result.ok() : result.status == row.status)
            << vqt::statusText(result.status);
        EXPECT_EQ(result.information, 0u);
        unplugged(plugged);
        expectNextCameraWorks();
    }
}

} // namespace
} // namespace e2e
