// Pending reads: lengths, abort, cancel, and every read completed exactly once.
#include "wire.h"

#include <random>

namespace {

using wire::Bytes;
using wire::Read;
using Reads = std::vector<std::unique_ptr<Read>>;

wire::Camera ready(wire::Rig &rig)
{
    wire::Camera camera = rig.plug();
    camera.select(1);
    camera.window(48, 6);
    return camera;
}

TEST(Reads, EndOnceWhateverEndsThem)
{
    wire::Rig rig;
    wire::Camera camera = ready(rig);
    ntos::Device device = rig.machine.devices(VQT_SIMBUS_CAMERA_HARDWARE_ID).at(0);
    enum { abort, cancel, selection, stop };
    for (const auto way : {abort, cancel, selection, stop}) {
        const USBD_PIPE_HANDLE pipe = camera.pipe(), silent = camera.pipe(0x81);
        Reads reads;
        for (int i = 0; i < 6; ++i) {
            reads.push_back(std::make_unique<Read>(camera, 4096, i == 5 ? silent : pipe));
            EXPECT_EQ(reads.back()->send(), STATUS_PENDING);
        }
        if (way == abort) {
            EXPECT_EQ(camera.pipeRequest(URB_FUNCTION_ABORT_PIPE, pipe), STATUS_SUCCESS);
            EXPECT_EQ(reads[5]->completions, 0); // another pipe's
            EXPECT_EQ(camera.pipeRequest(URB_FUNCTION_ABORT_PIPE, silent), STATUS_SUCCESS);
        } else if (way == cancel) {
            for (const auto &read : reads)
                read->cancel();
        } else if (way == selection) {
            camera.select(1);
        } else {
            EXPECT_EQ(device.queryStop(), STATUS_SUCCESS);
            EXPECT_EQ(device.stop(), STATUS_SUCCESS);
        }
        for (const auto &read : reads) {
            EXPECT_EQ(read->wait().status, STATUS_CANCELLED);
            EXPECT_EQ(read->usbStatus(), USBD_STATUS_CANCELED);
            EXPECT_EQ(read->received(), 0u);
            EXPECT_EQ(read->completions, 1);
        }
    }
    EXPECT_EQ(rig.bay.state(camera.slot).value().Started, 0u);
    ASSERT_EQ(device.start(), STATUS_SUCCESS);
    EXPECT_EQ(Read(camera, 100).send(), STATUS_INVALID_PARAMETER); // the stop closed its pipe
    EXPECT_EQ(camera.select(2), STATUS_SUCCESS);
}

// Reads that are sent, filled in two steps, cancelled and aborted at once, in the orders that a hundred deals bring
// about.
TEST(Reads, SurviveCancelAgainstCompletion)
{
    wire::Rig rig({.manualClock = true});
    wire::Camera camera = ready(rig);
    camera.run(true);
    rig.bay.setMode(camera.slot, simbus::kModeAll).value();
    int filled = 0;
    for (unsigned seed = 0; seed < 100; ++seed) {
        SCOPED_TRACE(seed);
        Reads reads;
        for (int i = 0; i < 6; ++i)
            reads.push_back(std::make_unique<Read>(camera, 70'000, nullptr, true, i % 2 == 0));
        const std::function<void()> players[] = {
            [&] {
                for (const auto &read : reads)
                    read->send();
            },
            [&] {
                for (std::size_t i = 0; i < reads.size(); i += 2)
                    reads[i]->cancel();
                if (seed % 3 == 0)
                    camera.pipeRequest(URB_FUNCTION_ABORT_PIPE, camera.pipe());
            },
            [&] {
                for (int i = 0; i < 12; ++i)
                    rig.serve(camera);
            },
        };
        std::mt19937 random(seed);
        ntos::Turns turns;
        ASSERT_TRUE(turns.run(players, {[&](std::size_t) { return random(); }, [&] { return random() % 3 == 0; }}));
        while (rig.serve(camera)) {
        }
        for (const auto &read : reads) {
            ASSERT_EQ(read->completions, 1);
            ASSERT_TRUE(read->status == STATUS_CANCELLED || read->received() == 70'000);
            ASSERT_EQ(read->irql, DISPATCH_LEVEL);
            filled += read->status == STATUS_SUCCESS;
        }
    }
    EXPECT_GT(filled, 0);
    EXPECT_EQ(rig.bay.state(camera.slot).value().PendingReads, 0u);
}

TEST(Reads, WrongHandlesAndBuffersAreRefused)
{
    wire::Rig rig;
    wire::Camera camera = ready(rig);
    const USBD_PIPE_HANDLE stale = camera.pipe();
    camera.select(2);
    const auto refused = [&](USBD_STATUS status, auto change, bool useMdl = false) {
        Read read(camera, 100, nullptr, true, useMdl);
        change(read.urb.UrbBulkOrInterruptTransfer);
        EXPECT_EQ(read.send(), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(read.completions, 1);
        EXPECT_TRUE(status == 0 || read.usbStatus() == status);
    };
    for (const USBD_PIPE_HANDLE pipe : {USBD_PIPE_HANDLE{nullptr}, stale, static_cast<USBD_PIPE_HANDLE>(&rig)}) {
        refused(USBD_STATUS_INVALID_PIPE_HANDLE, [&](auto &urb) { urb.PipeHandle = pipe; });
        EXPECT_EQ(camera.pipeRequest(URB_FUNCTION_ABORT_PIPE, pipe), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(camera.pipeRequest(URB_FUNCTION_RESET_PIPE, pipe), STATUS_INVALID_PARAMETER);
    }
    refused(0, [](auto &urb) { urb.TransferBuffer = nullptr; });
    refused(
        0, [](auto &urb) { urb.TransferBufferLength = 101; }, true);
    refused(0, [](auto &urb) { urb.Hdr.Length = sizeof(_URB_PIPE_REQUEST); });
    refused(USBD_STATUS_INVALID_URB_FUNCTION, [](auto &urb) { urb.Hdr.Function = URB_FUNCTION_ISOCH_TRANSFER; });
}

// No byte without time, and as many as the time allows.
TEST(Reads, ArriveAtThePace)
{
    wire::Rig rig({.manualClock = true});
    wire::Camera camera = ready(rig);
    rig.bay.setMode(camera.slot, simbus::kModeAll).value();
    rig.bay.setPace(camera.slot, 1'000'000).value();
    Read read(camera, 200'000);
    read.send();
    camera.run(true);
    unsigned steps = 0;
    while (read.completions == 0 && ++steps < 30) {
        rig.machine.clock().advance(std::chrono::milliseconds(10));
        while (rig.serve(camera)) {
        }
        EXPECT_LE(rig.bay.state(camera.slot).value().BytesSent, steps * 10'000);
    }
    EXPECT_NEAR(steps, 20, 3);
}

} // namespace
