// The stream as a sequence: nothing is lost that was not lost on purpose, and what was is told to the letter.
#include "tests/e2e/road.h"

#include <algorithm>
#include <cstdlib>

namespace e2e {
namespace {

using namespace simbus;

class Sequence : public Road {};

TEST_F(Sequence, TenThousandFramesWithoutOneResync)
{
    for (const std::uint32_t bits : {8u, 10u}) {
        SCOPED_TRACE(std::to_string(bits) + " bits");
        constexpr std::uint64_t kBlock = 49152, kWidth = 64, kHeight = 32;
        Plugged plugged = plug(kModels[0], {0, 0, kWidth, kHeight});
        plugged.camera.setBitsPerPixel(bits).value();
        Stream stream(bay(), plugged);
        stream.start(kBlock, false);
        waitFor("ten thousand frames", [&] { return stream.totals().frames >= 10'000; });
        bay().setSilence(plugged.slot, kSilentStream).value();
        stream.countAll();

        // Every block was full. A line counts when the header behind it is there as well, a frame when its successor's
        // line 0 is; the very first line 0 completes an empty one.
        const std::uint64_t line = (bits == 8 ? kWidth : kWidth * 10 / 8) + 4;
        const std::uint64_t lines = (stream.totals().blocks * kBlock - 4) / line;
        const std::uint64_t frames = (lines + kHeight - 1) / kHeight;
        waitFor("the last block to be taken apart", [&] { return stream.totals().frames >= frames; });
        EXPECT_EQ(stream.totals().frames, frames);
        EXPECT_EQ(stream.totals().resyncs, 0u);

        // Numbers are given without a gap: the last frame's is the number of frames before it.
        auto last = std::async(std::launch::async, [&] { return plugged.camera.grab(); });
        waitFor("the request to wait", [] { return hand::timedWaiters() >= 1; });
        stream.stop(); // hands out the last frame
        EXPECT_EQ(last.get().value().header.FrameNumber, frames - 1);
        unplug(plugged);
    }
}

// One thread starts and stops, another fetches frames. Most rounds are over before a block has come, and a request that
// waits in them is ended by the stop; some last until the fetcher has its frame, and after some it has to be refused.
TEST_F(Sequence, StartAndStopAgainstFrameRequests)
{
    constexpr int kRounds = 10'000, kLong = 64;
    constexpr std::uint32_t kPace = 10'000'000; // a block takes 5 ms, a frame 16
    hand::clockByHand(false);
    Plugged plugged = plug(kModels[5], {0, 0, 2048, 64});
    plugged.camera.setBitsPerPixel(10).value();
    bay().setPace(plugged.slot, kPace).value();

    std::atomic<std::uint64_t> fetched{0}, refused{0};
    std::jthread fetcher([&](const std::stop_token &done) {
        std::vector<std::uint8_t> buffer(kFrameHeaderSize + 64);
        unsigned turn = 0;
        while (!done.stop_requested()) {
            const std::uint32_t code = turn++ % 2 == 0 ? IOCTL_GetFrameEx : IOCTL_GetFrame;
            const vqt::IoResult result = plugged.camera.port().deviceControl(code, {}, buffer);
            if (result.ok()) {
                EXPECT_EQ(result.information, buffer.size());
                ++fetched;
                continue;
            }
            // Not started, or stopped before a frame was ready.
            EXPECT_TRUE(result.status == vqt::status::kInvalidDeviceRequest ||
                        result.status == vqt::status::kUnsuccessful)
                << vqt::statusText(result.status);
            EXPECT_EQ(result.information, 0u);
            ++refused;
            std::this_thread::sleep_for(std::chrono::microseconds(200)); // leave the processor to the rounds
        }
    });
    for (int round = 0; round < kRounds && !HasFailure(); ++round) {
        EXPECT_EQ(plugged.camera.start().status(), vqt::status::kSuccess) << "round " << round;
        if (round % kLong == 0)
            waitFor("a frame to be fetched", [&, before = fetched.load()] { return fetched != before; });
        EXPECT_EQ(plugged.camera.stop().status(), vqt::status::kSuccess) << "round " << round;
        if (round % kLong == 1)
            waitFor("a request to be refused", [&, before = refused.load()] { return refused != before; });
    }
    fetcher.request_stop();
    fetcher.join();
    EXPECT_EQ(plugged.camera.getCameraStatus().value(), CameraStopped);
    EXPECT_EQ(bay().state(plugged.slot).value().PendingReads, 0u);
}

// ----------------------------------------------------------------------------------------------------------------
// faults

// Camera frame c carries the flag bits c AND 7 in every line; with no fault it becomes the driver's frame c - 1, and
// line 0 of camera frame c + 1 ends it.
constexpr std::uint32_t kFirst = 2, kFaulty = 5; // camera frames: the first, and the one with the fault
constexpr std::uint32_t kWidth = 64, kLines = 64, kLine = 32;
constexpr std::uint32_t kLast = kLines - 1;
constexpr std::uint8_t tagOf(std::uint32_t cameraFrame)
{
    return static_cast<std::uint8_t>((cameraFrame & 7) << 5);
}
constexpr std::uint32_t flagsOf(std::uint32_t cameraFrame)
{
    return (cameraFrame & 7) >> 1;
}

constexpr std::uint8_t kTag = tagOf(kFaulty);
constexpr std::uint32_t kFlags = flagsOf(kFaulty);

// What the rows of a frame say, letters with their numbers: g good, t its own tag alone, . nothing, b and a good lines
// of the camera frames before and after, o other flag bits.
std::vector<std::uint8_t> statesOf(const char *rows, std::uint8_t other)
{
    std::vector<std::uint8_t> states;
    for (char letter; (letter = *rows++) != 0;) {
        const std::uint8_t state = letter == 'g'   ? kTag | 1
                                   : letter == 't' ? kTag
                                   : letter == 'b' ? tagOf(kFaulty - 1) | 1
                                   : letter == 'a' ? tagOf(kFaulty + 1) | 1
                                   : letter == 'o' ? static_cast<std::uint8_t>((other << 5) | 1)
                                                   : 0;
        char *end = nullptr;
        states.insert(states.end(), std::strtoul(rows, &end, 10), state);
        rows = end;
    }
    return states;
}

struct ExpectedFrame {
    std::uint32_t number, resyncs, lineFlags;
    std::uint32_t endedBy; // camera frame whose line completed it: its flags go into the first byte
    const char *rows;
};

struct FaultCase {
    const char *name;
    std::uint16_t kind, line;
    std::uint32_t value;
    std::vector<ExpectedFrame> frames;
    std::uint32_t resyncs;   // of all frames together
    int extraFrames = 0;     // completions more (or less) than camera frames
    std::uint16_t lines = 1; // lines one after another
    int times = 1;           // the fault on the same line
};

const FaultCase kFaultCases[] = {
    {"a lost line: its row stays as it was", kLineLose, kLine, 0, {{4, 1, 0, 6, "g31t1.1g31"}}, 1},
    {"ten lost lines are one error", kLineLose, 20, 0, {{4, 1, 0, 6, "g19t1.10g34"}}, 1, 0, 10},
    // The frame goes on top of the one before it.
    {"line 0 lost", kLineLose, 0, 0, {{3, 1, 0, 6, "b1g63"}, {4, 0, 0, 7, "a64"}}, 1, -1},
    // Line 0 comes too early.
    {"the last line lost", kLineLose, kLast, 0, {{4, 1, kFlags + 1, 6, "g62t1.1"}, {5, 0, 0, 7, "a64"}}, 1},
    // Ends the frame and begins another in its middle.
    {"a doubled line", kLineDouble, kLine, 0, {{4, 1, kFlags, 5, "g32t1.31"}, {5, 1, 0, 6, ".32g32"}}, 2, 1},
    // The new frame is whole.
    {"line 0 doubled", kLineDouble, 0, 0, {{4, 1, 1, 5, "t1.63"}, {5, 0, 0, 6, "g64"}}, 1, 1},
    {"swapped lines", kLineSwap, kLine, 0, {{4, 2, kFlags, 5, "g31t1.1t1.30"}, {5, 2, 0, 6, ".32t1.1g30"}}, 4, 1},
    {"number too high", kLineNumber, kLine, 48, {{4, 2, kFlags, 5, "g31t1.16t1.15"}, {5, 1, 0, 6, ".33g31"}}, 3, 1},
    {"number too low", kLineNumber, kLine, 10, {{4, 1, kFlags, 5, "g31t1.32"}, {5, 2, 0, 6, ".10t1.22g31"}}, 3, 1},
    // The header is dropped, the line skipped.
    {"a number beyond the window", kLineNumber, kLine, kLines, {{4, 2, 0, 6, "g31t1.1g31"}}, 2},
    {"the highest number there is", kLineNumber, kLine, 0x1FFF, {{4, 2, 0, 6, "g31t1.1g31"}}, 2},
    {"garbage in front of a line is skipped", kLineGarbage, kLine, 1000, {{4, 0, 0, 6, "g31t1g32"}}, 0},
    {"more garbage than a block of any size", kLineGarbage, kLine, 65536, {{4, 0, 0, 6, "g31t1g32"}}, 0, 0, 1, 2},
    {"a signature with its lowest bit wrong", kLineSignature, kLine, 0, {{4, 1, 0, 6, "g31t1.1g31"}}, 1},
    {"a signature with its highest bit wrong", kLineSignature, kLine, 15, {{4, 1, 0, 6, "g31t1.1g31"}}, 1},
    {"a frame cut short", kLineCut, kLine, 0, {{4, 1, kFlags + 1, 6, "g31t1.32"}, {5, 0, 0, 7, "a64"}}, 1},
    // They show in the line's status alone.
    {"other flag bits on a line", kLineFlagBits, kLine, 6, {{4, 0, 0, 6, "g32o1g31"}}, 0},
    // They go into the first byte of the frame before; 6 >> 1 are the flags of camera frame 6 as well.
    {"other flag bits on line 0", kLineFlagBits, 0, 6, {{3, 0, 0, 6, "b64"}, {4, 0, 0, 6, "o1g63"}}, 0},
    {"a signature inside the pixels is pixels", kLineFalseHeader, kLine, 7, {{4, 0, 0, 6, "g64"}}, 0},
    {"a line too short takes its successor", kLineShorten, kLine, 40, {{4, 1, 0, 6, "g32t1.1g30"}}, 1},
};

// A false header is pixels; a line that lacks its last forty bytes takes them from the line behind it, header first.
void expectHeaderIn(const vqt::Image &image, bool shortened)
{
    // At 10 bits the bytes are the high eight bits of samples; the low bits come later in their group.
    const unsigned scale = image.bits == 8 ? 1 : 4, at = !shortened ? 0 : image.bits == 8 ? kWidth - 40 : kWidth - 32;
    for (std::uint32_t x = 0; x < at; ++x)
        EXPECT_EQ(image.at(x, kLine), scale * 0x80) << "column " << x;
    for (const auto &[x, byte] : {std::pair{at, 0xA5u}, {at + 1, 0x3Cu}, {at + 2, shortened ? kLine + 1 : 7}})
        EXPECT_EQ(image.at(x, kLine), scale * byte) << "column " << x;
}

class LineFaults : public Road, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(LineFaults, CountersSayWhatWasScripted)
{
    const std::uint32_t bits = GetParam();
    Plugged plugged = plug(kModels[0], {0, 0, kWidth, kLines});
    plugged.camera.setBitsPerPixel(bits).value();
    bay().setFlat(plugged.slot, 0x200).value(); // no signature by chance
    for (const FaultCase &row : kFaultCases) {
        SCOPED_TRACE(row.name);
        std::vector<LINE_FAULT> faults;
        for (std::uint16_t i = 0; i < row.lines; ++i)
            faults.insert(faults.end(), row.times,
                          {kFaulty, static_cast<std::uint16_t>(row.line + i), row.kind, row.value});
        bay().setLineFaults(plugged.slot, faults).value();
        bay().setNextFrame(plugged.slot, kFirst).value();
        const std::uint64_t faultsBefore = bay().state(plugged.slot).value().LineFaultsDone;

        Stream stream(bay(), plugged);
        stream.start(kWidth); // less than a line: two completions never share a block
        std::vector<vqt::Frame> frames;
        do
            frames.push_back(stream.next());
        while (frames.back().header.FrameNumber < kFaulty + 1);
        stream.countAll();
        stream.waitForCamera();
        const Stream::Totals totals = stream.totals();
        const simbus::CAMERA_STATE camera = bay().state(plugged.slot).value();
        stream.stop();

        EXPECT_EQ(camera.LineFaultsDone - faultsBefore, faults.size()) << "the camera did what it was told";
        EXPECT_EQ(totals.resyncs, row.resyncs);
        EXPECT_EQ(totals.frames, frames.back().header.FrameNumber + 1) << "numbers have no gap";
        // The last completion was line 0 of the camera frame being sent now.
        EXPECT_EQ(totals.frames, camera.NextFrame - kFirst + static_cast<std::uint32_t>(row.extraFrames));
        for (std::size_t i = 0; i < frames.size(); ++i)
            ASSERT_EQ(frames[i].header.FrameNumber, i) << "one request, one frame";
        for (const ExpectedFrame &expected : row.frames) {
            SCOPED_TRACE("frame " + std::to_string(expected.number));
            const vqt::Frame &frame = frames.at(expected.number);
            EXPECT_EQ(frame.header.Resyncs, expected.resyncs);
            EXPECT_EQ(frame.header.LineFlags, expected.lineFlags);
            // Every sample is 0x200: its low byte is 0x80 at 8 bits and 0 at 10.
            EXPECT_EQ(frame.image.data.at(0), (bits == 8 ? 0x80 : 0x00) | flagsOf(expected.endedBy));
            if (row.kind == kLineFalseHeader || row.kind == kLineShorten)
                expectHeaderIn(frame.image, row.kind == kLineShorten);
            std::vector<std::uint8_t> states = statesOf(expected.rows, static_cast<std::uint8_t>(row.value));
            ASSERT_EQ(states.size(), kLines);
            states.resize(1536);
            const auto [got, wanted] = std::ranges::mismatch(frame.header.LineStatus, states);
            EXPECT_TRUE(wanted == states.end()) << "row " << wanted - states.begin() << " is " << int{*got};
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Bits, LineFaults, testing::Values(8u, 10u),
                         [](const auto &info) { return std::to_string(info.param); });

} // namespace
} // namespace e2e
