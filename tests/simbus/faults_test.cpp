// What is scripted happens, exactly there, and nothing else does.
#include "wire.h"

namespace {

using wire::Bytes;
using wire::Half;
using wire::Read;

constexpr unsigned kWidth = 48, kHeight = 8, kLine = 4 + kWidth;

wire::Camera ready(wire::Rig &rig)
{
    wire::Camera camera = rig.plug();
    camera.select(2);
    camera.window(kWidth, kHeight);
    return camera;
}

// Frames of which the script leaves nothing: the bus goes on serving, and so does the camera once it may.
TEST(LineFaults, NothingLeftOfAnyFrame)
{
    wire::Rig rig;
    wire::Camera camera = ready(rig), other = rig.plug();
    const simbus::LINE_FAULT nothing{simbus::kEveryFrame, 0, simbus::kLineCut, 0};
    rig.bay.setLineFaults(camera.slot, {&nothing, 1}).value();
    Read read(camera, 4096);
    read.send();
    camera.run(true);
    EXPECT_EQ(other.command({0x11}).size(), 9u);
    EXPECT_EQ(read.completions, 0);
    rig.bay.setLineFaults(camera.slot, {}).value();
    read.wait();
    EXPECT_EQ(read.received(), 4096u);
    camera.run(false);
}

TEST(CommandFaults, WhatWaitsEndsByReleaseCancelTimeOrSpeech)
{
    wire::Rig rig({.manualClock = true});
    wire::Camera camera = rig.plug();
    // Sends what has to wait, while the rest of the camera is well.
    const auto begin = [&](Half &half) {
        EXPECT_EQ(half.send(), STATUS_PENDING);
        EXPECT_EQ(camera.descriptor(1, 0, 18).size(), 18u);
        EXPECT_EQ(half.completions, 0);
    };
    // Sends a command whose answer the fault holds up.
    const auto ask = [&](Half &answer, const simbus::COMMAND_FAULT &fault) {
        rig.bay.setCommandFaults(camera.slot, {&fault, 1}).value();
        Half command(camera, false, {0x2C, 0});
        command.send();
        EXPECT_EQ(command.wait().status, STATUS_SUCCESS);
        begin(answer);
    };
    for (const std::uint32_t mode : {0u, simbus::kModeInlineControl}) {
        rig.bay.setMode(camera.slot, mode).value();
        for (const bool cancel : {true, false}) {
            Half waiting(camera, true);
            ask(waiting, {0x2C, simbus::kCommandNoAnswer, 0, 0, 1});
            if (cancel)
                waiting.cancel();
            else
                rig.bay.releaseHeld(camera.slot).value();
            EXPECT_EQ(waiting.wait().status, cancel ? STATUS_CANCELLED : STATUS_SUCCESS);
            EXPECT_EQ(waiting.bytes(), cancel ? Bytes{} : Bytes{0x90});
        }
        Half late(camera, true);
        ask(late, {0x2C, simbus::kCommandDelay, 250, 0, 1});
        for (const int milliseconds : {249, 1}) {
            EXPECT_EQ(late.completions, 0);
            ASSERT_TRUE(rig.machine.clock().waitForTimedWaiters(1));
            rig.machine.clock().advance(ntos::Ticks(milliseconds * 10'000 + 1));
        }
        EXPECT_EQ(late.wait().bytes(), Bytes{0x90});
        rig.bay.setSilence(camera.slot, simbus::kSilentCommands).value();
        Half unheard(camera, false, {0x11}), unanswered(camera, true);
        begin(unheard);
        begin(unanswered);
        rig.bay.setSilence(camera.slot, 0).value();
        EXPECT_EQ(unheard.wait().status, STATUS_SUCCESS);
        EXPECT_EQ(unanswered.wait().received(), 10u);
    }
}

TEST(BulkFaults, MeetTheReadsInOrder)
{
    wire::Rig rig;
    wire::Camera camera = ready(rig);
    // Each read with the fault that it meets.
    const struct {
        std::uint16_t kind;
        std::uint32_t value;
        USBD_STATUS status;
        std::size_t received;
        bool shortOk = true;
    } rows[] = {{simbus::kBulkPass, 0, 0, 1000},
                {simbus::kBulkEmpty, 0, 0, 0},
                {simbus::kBulkShort, 77, 0, 77},
                {simbus::kBulkSecondThread, 0, 0, 1000},
                {simbus::kBulkError, 0, USBD_STATUS_XACT_ERROR, 0},
                {simbus::kBulkShort, 5000, 0, 1000},
                {simbus::kBulkShort, 10, USBD_STATUS_ERROR_SHORT_TRANSFER, 10, false},
                {simbus::kBulkStall, 0, USBD_STATUS_STALL_PID, 0},
                {simbus::kBulkPass, 0, USBD_STATUS_ENDPOINT_HALTED, 0}};
    std::vector<simbus::BULK_FAULT> faults;
    std::vector<std::unique_ptr<Read>> reads;
    for (const auto &row : rows) {
        faults.push_back({row.kind, 0, row.value, 1});
        reads.push_back(std::make_unique<Read>(camera, 1000, nullptr, row.shortOk));
    }
    rig.bay.setBulkFaults(camera.slot, faults).value();
    for (const auto &read : reads)
        read->send();
    camera.run(true);
    Bytes all;
    for (std::size_t i = 0; i < reads.size(); ++i) {
        EXPECT_EQ(reads[i]->wait().usbStatus(), rows[i].status) << i;
        const Bytes bytes = reads[i]->bytes();
        EXPECT_EQ(bytes.size(), rows[i].received) << i;
        all.insert(all.end(), bytes.begin(), bytes.end());
    }
    EXPECT_NE(reads[3]->thread, reads[2]->thread);
    EXPECT_EQ(reads[3]->irql, DISPATCH_LEVEL);
    // No byte of the stream went missing between them.
    const std::vector<unsigned> words = wire::lineWords(all, kLine);
    for (std::size_t i = 0; i < words.size(); ++i)
        EXPECT_EQ(words[i] & 0x1FFF, i % kHeight);
    EXPECT_EQ(rig.bay.state(camera.slot).value().Halted, 1u);
    EXPECT_EQ(camera.pipeRequest(URB_FUNCTION_RESET_PIPE, camera.pipe()), STATUS_SUCCESS);
    EXPECT_EQ(camera.readStream(1000).size(), 1000u);
    camera.run(false);
}

TEST(BulkFaults, InlineAndHeldCompletions)
{
    wire::Rig rig;
    wire::Camera camera = ready(rig);
    const simbus::BULK_FAULT faults[] = {{simbus::kBulkInline, 0, 0, 1}, {simbus::kBulkHold, 0, 0, 2}};
    rig.bay.setBulkFaults(camera.slot, faults).value();
    Read atOnce(camera, 100), held(camera, 100), alsoHeld(camera, 100), free(camera, 100);
    EXPECT_EQ(atOnce.send(), STATUS_SUCCESS);
    EXPECT_EQ(atOnce.completions, 1);
    EXPECT_EQ(atOnce.received(), 0u);
    for (Read *read : {&held, &alsoHeld, &free})
        read->send();
    camera.run(true);
    free.wait(); // overtakes the two
    EXPECT_EQ(rig.bay.state(camera.slot).value().HeldReads, 2u);
    held.cancel(); // too late: the data has arrived
    EXPECT_EQ(camera.pipeRequest(URB_FUNCTION_ABORT_PIPE, camera.pipe()), STATUS_SUCCESS);
    for (Read *read : {&held, &alsoHeld})
        EXPECT_EQ(read->completions, 0);
    rig.bay.releaseHeld(camera.slot).value();
    for (Read *read : {&held, &alsoHeld}) {
        EXPECT_EQ(read->wait().status, STATUS_SUCCESS);
        EXPECT_EQ(read->received(), 100u);
    }
    camera.run(false);
}

} // namespace
