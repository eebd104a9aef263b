// Captures: order of what is sent, every way to end, and who may begin.

#include "fake_bus.h"

#include "drv/usb/camera.h"
#include "drv/usb/snapshot.h"

namespace usbtest {
namespace {

struct Captured {
    NTSTATUS status = STATUS_PENDING;
    ULONG size = 0xDEAD;
    Bytes image;
};

Captured capture(FakeBus &bus, std::size_t bufferBytes = kWidth * kHeight)
{
    Captured result;
    result.image.assign(bufferBytes, 0xEE);
    result.status = bus.status([&](PDEVICE_OBJECT device) {
        return VQT_GetSnapshot(device, result.image.data(), static_cast<LONG>(bufferBytes), &result.size);
    });
    return result;
}

// Rounded up as after an earlier capture, the stream of a frame needs two reads into buffers of kOneFrame.
void needTwoReads(FakeBus &bus)
{
    bus.ext->AltSetting = 2;
    bus.ext->MainIn = kPipeHandle;
}

void expectFrame(const Captured &captured, unsigned frame)
{
    ASSERT_EQ(captured.size, kWidth * kHeight);
    for (unsigned at = 0; at < captured.size; ++at)
        ASSERT_EQ(captured.image[at], pixelByte(frame, at / kWidth, at % kWidth)) << at;
}

class SnapshotTest : public KernelTest {};

// The first of two reads is over before the second is sent: the frame is not. The trigger comes between them.
TEST_F(SnapshotTest, AReadThatIsOverBeforeTheNextIsSent)
{
    FakeBus bus(machine, kOneFrame);
    needTwoReads(bus);
    bus.ext->ModelNo = 3;
    bus.synchronous = true;
    Lines order;
    bus.onRead = [&] { order.push_back("read"); };
    bus.onCommand = [&](std::uint8_t command, std::uint8_t argument) {
        order.push_back((command == 0x1F ? "set " : "get ") + std::to_string(argument));
    };
    const auto lines = bus.answer;
    bus.answer = [&](std::uint8_t *data, std::size_t size) {
        if (size == kOneFrame)
            return lines(data, size);
        std::memset(data, 0, size); // what fills the last packet
        return Answer{STATUS_SUCCESS, size};
    };
    expectFrame(capture(bus), 0);
    EXPECT_EQ(bus.lengths, (std::vector<ULONG>{1088, 448}));
    EXPECT_EQ(order, (Lines{"get 7", "set 7", "read", "set 11", "read", "get 7", "set 7"}));
    bus.expectIdle();
}

// Whatever arrives, however often a line is repeated and whatever length is claimed: never more than the image, and
// nothing of what was there before.
TEST_F(SnapshotTest, OnlyWhatArrivedIsDelivered)
{
    FakeBus bus(machine);
    bus.synchronous = true;
    Stream many(kWidth);
    for (unsigned count = 0; count < kHeight; ++count)
        many.line(5, 1);
    bus.answer = [&](std::uint8_t *data, std::size_t size) {
        std::memcpy(data, many.bytes.data(), std::min(size, many.bytes.size()));
        return Answer{STATUS_SUCCESS, 0x7FFFFFFF};
    };
    const Captured captured = capture(bus, kWidth * kHeight + 1);
    EXPECT_LE(captured.size, kWidth * kHeight);
    for (unsigned at = 0; at < kWidth * kHeight; ++at)
        ASSERT_EQ(captured.image[at], at / kWidth == 5 ? pixelByte(1, 5, at % kWidth) : 0) << at;
    EXPECT_EQ(captured.image.back(), 0xEE);
    bus.expectIdle();
}

// A window that changes during a capture changes nothing of it.
TEST_F(SnapshotTest, OneWindowFromBeginningToEnd)
{
    FakeBus bus(machine);
    bus.synchronous = true;
    BADPIX_RECORD defect{10, 5, 0, 0x18};
    bus.ext->BadPix = &defect;
    bus.ext->BadPixNum = 1;
    const auto lines = bus.answer;
    bus.answer = [&](std::uint8_t *data, std::size_t size) {
        const Answer answer = lines(data, size);
        WriteOnce(bus.ext->Width, 2 * kWidth);
        WriteOnce(bus.ext->Height, 2 * kHeight);
        WriteOnce(bus.ext->BitsPerPixel, 10);
        WriteOnce(bus.ext->FlipX, 1);
        WriteOnce(bus.ext->StartX, 4);
        return answer;
    };
    Captured captured = capture(bus);
    const unsigned mean = (pixelByte(0, 5, 9) + pixelByte(0, 5, 11) + 1u) / 2;
    EXPECT_EQ(captured.image[5 * kWidth + 10], mean);
    captured.image[5 * kWidth + 10] = pixelByte(0, 5, 10);
    expectFrame(captured, 0);
}

TEST_F(SnapshotTest, AnAbsurdLimitEndsTheWaitAtOnce)
{
    FakeBus bus(machine);
    bus.ext->SnapshotTimeout = 0x80000000;
    EXPECT_EQ(capture(bus).status, STATUS_TIMEOUT);
    bus.expectIdle();
}

// One of two reads fails, or the given request cannot be had, and the abort as well: the other read must come back
// before anything is released.
TEST_F(SnapshotTest, AReadFails)
{
    for (const auto &[abortFails, failing] : {std::pair{false, 0u}, {true, 0u}, {false, 1u}, {true, 2u}}) {
        SCOPED_TRACE(testing::Message() << abortFails << ' ' << failing);
        FakeBus bus(machine, kOneFrame);
        needTwoReads(bus);
        bus.abortFails = abortFails;
        machine.faults().only({kTestDriver});
        machine.faults().onlyRoutines({"IoAllocateIrp"});
        std::atomic<unsigned> calls{0};
        machine.faults().onCall(
            [&, which = failing](const ntos::KernelCall &call) { return call.canFail && ++calls == which; });
        Captured captured;
        std::thread application([&] { captured = capture(bus); });
        if (failing == 0) {
            while (bus.waiting() < 2)
                std::this_thread::yield();
            EXPECT_TRUE(bus.completeOne(Answer{STATUS_DEVICE_DATA_ERROR, 0}));
        }
        application.join();
        machine.faults().off();
        EXPECT_EQ(captured.status, STATUS_SUCCESS);
        EXPECT_EQ(captured.size, 0u);
        EXPECT_EQ(bus.lengths.size(), failing == 0 ? 2 : failing - 1);
        bus.expectIdle();
    }
}

// A cancel at every kernel call that a capture makes, repeated until it is accepted, ends the capture; there is no data
// and no limit, so nothing else does.
TEST_F(SnapshotTest, ACancelAtEveryMomentEndsIt)
{
    FakeBus bus(machine, kOneFrame);
    std::uint64_t moment = 0;
    for (bool before = true; before;) {
        ++moment;
        bus.ext->AltSetting = 0;
        bus.abortFails = moment % 3 == 0;
        std::atomic<bool> reached{false}, ended{false};
        // A stop is a cancel as well.
        const auto cancel = [&] {
            while (!ended && bus.status([&](PDEVICE_OBJECT device) {
                return moment % 2 == 0 ? VQT_CancelSnapshot(device) : VQT_SetCameraStatus(device, CameraStopped);
            }) != STATUS_SUCCESS)
                std::this_thread::yield();
        };
        std::thread canceller;
        machine.faults().only({kTestDriver});
        machine.faults().resetCalls();
        machine.faults().atCall(moment, [&](const ntos::KernelCall &) {
            reached = true;
            canceller = std::thread(cancel);
        });
        std::thread application([&] {
            const Captured captured = capture(bus);
            EXPECT_EQ(captured.status, STATUS_SUCCESS);
            EXPECT_EQ(captured.size, 0u);
            ended = true;
        });
        // Calls that come only after the wait are never reached without help: the moments are all done.
        while (!ended) {
            if (machine.clock().waitForWaiters(1, &bus.ext->NoPendingEv, std::chrono::milliseconds(1)) && !reached) {
                before = false;
                cancel();
            }
        }
        application.join();
        machine.settle();
        if (canceller.joinable())
            canceller.join();
        machine.faults().off();
        bus.expectIdle();
        ASSERT_FALSE(HasFailure()) << "moment " << moment;
    }
    EXPECT_GT(moment, 20u);
}

TEST_F(SnapshotTest, OneOfManyBegins)
{
    FakeBus bus(machine);
    bus.serve(2);
    std::atomic<unsigned> captures{0}, streams{0};
    const auto application = [&](unsigned seed) {
        for (unsigned round = 0; round < 150; ++round) {
            if ((round + seed) % 3 == 0) {
                streams += bus.status(SetMainPipeStatusOn) == STATUS_SUCCESS;
                // Nothing of a stream is in flight behind a stop, whoever started it.
                EXPECT_EQ(bus.status(SetMainPipeStatusOff), STATUS_SUCCESS);
            } else {
                const Captured captured = capture(bus);
                captures += captured.status == STATUS_SUCCESS;
                EXPECT_TRUE(captured.status == STATUS_SUCCESS ||
                            (captured.status == STATUS_INVALID_DEVICE_REQUEST && captured.size == 0));
            }
        }
    };
    std::vector<std::thread> applications;
    for (unsigned seed = 0; seed < 4; ++seed)
        applications.emplace_back(application, seed);
    for (std::thread &thread : applications)
        thread.join();
    EXPECT_GT(captures, 0u);
    EXPECT_GT(streams, 0u);
    bus.expectIdle();
}

// What no frame buffers can take is refused before the camera is touched.
TEST_F(SnapshotTest, Refusals)
{
    void (*const changes[])(DEVICE_EXTENSION &) = {
        [](auto &ext) { ext.Height = 0; },
        [](auto &ext) { ext.FrameBufSize = 0; },
        [](auto &ext) { ext.FrameBufSize = 300; }, // more than three reads
        [](auto &ext) { ext.Height = ext.Width = 0xFFFFFFFF; },
        [](auto &ext) { ext.Frame[1] = nullptr; },
    };
    for (const auto &change : changes) {
        FakeBus bus(machine);
        change(*bus.ext);
        const Captured captured = capture(bus);
        EXPECT_EQ(captured.status, STATUS_INVALID_DEVICE_REQUEST);
        EXPECT_EQ(captured.size, 0u);
        EXPECT_TRUE(bus.lengths.empty());
        EXPECT_EQ(bus.ext->AltSetting, 0);
        bus.expectIdle();
    }
}

} // namespace
} // namespace usbtest
