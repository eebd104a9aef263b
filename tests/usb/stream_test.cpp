// The circulation of reads, on stacks that do everything a stack may do.

#include "fake_bus.h"

#include "drv/usb/transfer.h"

namespace usbtest {
namespace {

class StreamTest : public KernelTest {
protected:
    // Waits for something that must come about.
    template <typename Condition> static void until(Condition condition)
    {
        while (!condition())
            std::this_thread::yield();
    }
    static void stop(FakeBus &bus)
    {
        EXPECT_EQ(bus.status(SetMainPipeStatusOff), STATUS_SUCCESS);
        bus.expectIdle();
    }
};

// The frame last published, against what the bus sent. The stream's frame n has number n + 1: number 0 is the buffer
// that the first line 0 found empty.
void expectLastFrame(DEVICE_EXTENSION &ext)
{
    const auto *header = reinterpret_cast<const FRAME_HEADER *>(ext.FrameReadyPtr);
    ASSERT_NE(header, nullptr);
    for (unsigned at = 1; at < kWidth * kHeight; ++at)
        ASSERT_EQ(ext.FrameReadyPtr[kFrameHeaderSize + at],
                  pixelByte(header->FrameNumber - 1, at / kWidth, at % kWidth))
            << at;
}

TEST_F(StreamTest, CompletionsOnSeveralProcessors)
{
    FakeBus bus(machine);
    bus.serve(3);
    ASSERT_EQ(bus.status(SetMainPipeStatusOn), STATUS_SUCCESS);
    until([&] { return ReadOnce(bus.ext->TotalFrames) >= 3000; });
    stop(bus);
    EXPECT_EQ(bus.ext->Resyncs, 0u);
    expectLastFrame(*bus.ext);
    EXPECT_NE(KeReadStateEvent(&bus.ext->FrameReadyEv), 0);
}

TEST_F(StreamTest, AnswersInsideTheCall)
{
    const Answer kinds[] = {{STATUS_SUCCESS, kStreamBlockSize}, {STATUS_SUCCESS, 0}, {STATUS_DEVICE_DATA_ERROR, 100}};
    for (const Answer &kind : kinds) {
        FakeBus bus(machine);
        bus.synchronous = true;
        if (kind.length != kStreamBlockSize)
            bus.answer = [&](std::uint8_t *, std::size_t) { return kind; };
        NTSTATUS result = STATUS_PENDING;
        std::thread application([&] { result = bus.status(SetMainPipeStatusOn); });
        until([&] { return ReadOnce(bus.ext->TotalBlocks) >= 2000; });
        EXPECT_EQ(bus.status(SetMainPipeStatusOff), STATUS_SUCCESS);
        application.join();
        EXPECT_EQ(result, STATUS_SUCCESS);
        bus.expectIdle();
        EXPECT_EQ(bus.ext->Resyncs, 0u);
        // A read sent from a completion may complete in it, but does not send the next one from there.
        EXPECT_LE(bus.deepest, 2u);
    }
}

// A read that fails is a block with what it brought, and goes back; one that ends for good leaves the others in order.
TEST_F(StreamTest, FailedReadsAreBlocksUnlessTheyAreFinal)
{
    for (const NTSTATUS final : {STATUS_UNSUCCESSFUL, STATUS_NO_SUCH_DEVICE, STATUS_CANCELLED, STATUS_INVALID_PARAMETER,
                                 STATUS_DEVICE_NOT_CONNECTED, STATUS_DEVICE_REMOVED}) {
        FakeBus bus(machine);
        ASSERT_EQ(bus.status(SetMainPipeStatusOn), STATUS_SUCCESS);
        // One that fails above the USB stack still names the length that was asked for: nothing of it is parsed.
        EXPECT_EQ(BulkReceived(bus.ext->StreamCtx[0].Urb, STATUS_DEVICE_DATA_ERROR, kStreamBlockSize), 0u);
        for (const Answer &answer : {Answer{STATUS_DEVICE_DATA_ERROR, 5}, {STATUS_SUCCESS, 0}, {final, 0}})
            EXPECT_TRUE(bus.completeOne(answer));
        EXPECT_EQ(bus.waiting(), 2u);
        EXPECT_TRUE(bus.completeOne(Answer{STATUS_SUCCESS, 0x7FFFFFFF})) << "more than asked for is not believed";
        EXPECT_EQ(bus.ext->TotalBlocks, 4u);
        bus.serve(2);
        until([&, before = ReadOnce(bus.ext->TotalFrames)] { return ReadOnce(bus.ext->TotalFrames) >= before + 40; });
        bus.serve(0);
        expectLastFrame(*bus.ext);
        for (LONG left = 2; left > 0; --left) {
            EXPECT_EQ(bus.ext->PendingIrps, left);
            EXPECT_EQ(KeReadStateEvent(&bus.ext->NoPendingEv), 0);
            EXPECT_TRUE(bus.completeOne(Answer{final, 0}));
        }
        EXPECT_EQ(bus.ext->CameraStatus, CameraStreaming);
        EXPECT_NE(KeReadStateEvent(&bus.ext->NoPendingEv), 0);
        EXPECT_EQ(bus.waiting(), 0u);
        stop(bus);
    }
}

// The stop goes by while a completed read is on its way back to the pipe: neither its abort nor its cancel finds it
// there.
TEST_F(StreamTest, AStopOvertakesAReadOnItsWayDown)
{
    FakeBus bus(machine);
    ASSERT_EQ(bus.status(SetMainPipeStatusOn), STATUS_SUCCESS);
    std::thread stop;
    bus.onRead = [&] {
        if (stop.joinable())
            return;
        stop = std::thread([&] { EXPECT_EQ(bus.status(SetMainPipeStatusOff), STATUS_SUCCESS); });
        EXPECT_TRUE(machine.clock().waitForWaiters(1, &bus.ext->NoPendingEv));
    };
    EXPECT_TRUE(bus.completeOne(Answer{STATUS_SUCCESS, 0}));
    stop.join();
    bus.expectIdle();
}

} // namespace
} // namespace usbtest
