// Every request, every kind of length, every state of the camera: what comes back and what the trace says.
#include "tests/e2e/road.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace e2e {
namespace {

// The states a camera is in when the table is gone through.
enum State {
    added, // its start failed
    idle,  // started
    streaming,
    capturing, // a snapshot waits for its external trigger
    removing,  // its removal has been asked for
};
constexpr int kStates = 4; // with answers of their own: while it is being removed every request has the same
constexpr std::uint8_t kStatus[kStates] = {CameraStopped, CameraStopped, CameraStreaming, CameraSnapshot};

enum class Side { in, out, neither }; // the buffer whose length the request looks at
enum class Needs { nothing, commandSent, slaveReply, frame };

// The window that the table is for: an image of 64 x 32 at 8 bits.
constexpr std::uint64_t kImage = 64 * 32;
constexpr std::uint64_t kHuge = 1 << 20;
constexpr std::uint64_t kAnyLength = ~std::uint64_t{0};

struct Answer {
    enum class Kind {
        status,
        someFailure, // which one is open
        notTried,    // would wait here, or end the state
        limit,       // waits, and fails when its five seconds have passed
    } kind = Kind::status;
    vqt::NtStatus status = vqt::status::kSuccess;
    std::uint64_t most = 0;          // information: this, or the output length if that is less
    bool ends = true;                // the "<=" line is printed
    std::vector<std::string> errors; // error messages in order; %d stands for the length, %p for any address
};

struct Lengths {
    std::uint64_t from, to;
    Answer answers[kStates];
};

struct Request {
    const char *name;
    std::uint32_t code;
    Side side;
    std::uint64_t exact;             // the lengths around it are tried
    std::vector<std::uint8_t> input; // what the input holds; zeros follow
    std::uint64_t other;             // length of the buffer that is not looked at
    Needs needs;
    std::vector<Lengths> lengths;
};

using vqt::NtStatus;
namespace st = vqt::status;

Answer ok(std::uint64_t most = 0)
{
    return {Answer::Kind::status, st::kSuccess, most, true, {}};
}
// Refused by the request's own checks: only the error message.
Answer no(NtStatus status, std::string error)
{
    return {Answer::Kind::status, status, 0, false, {std::move(error)}};
}
// Refused further down: the request's closing line is printed.
Answer below(NtStatus status, std::vector<std::string> errors = {}, std::uint64_t most = 0)
{
    return {Answer::Kind::status, status, most, true, std::move(errors)};
}
const Answer kSomeFailure = {Answer::Kind::someFailure, 0, 0, true, {}};
const Answer kNotTried = {Answer::Kind::notTried, 0, 0, true, {}};
const Answer kRemoved = {Answer::Kind::status, st::kDeviceRemoved, 0, false, {}};
const Answer kLimit = {Answer::Kind::limit, st::kUnsuccessful, 0, false, {}};

Lengths all(std::uint64_t from, std::uint64_t to, const Answer &a)
{
    return {from, to, {a, a, a, a}};
}

const std::vector<std::uint8_t> kWindow = {0, 0, 0, 0, 0, 0, 0, 0, 64, 0, 0, 0, 32,
                                           0, 0, 0, 1, 0, 0, 0, 0, 0,  0, 0, 0, 0};

#define REQUEST(code) #code, code

std::vector<Request> requestTable()
{
    using Bytes = std::vector<std::uint8_t>;
    using Answers = std::vector<Answer>; // one for every state, or one for each
    std::vector<Request> t;
    const auto any = [&t](const char *name, std::uint32_t code, Side side, std::uint64_t exact, Bytes input,
                          std::vector<Lengths> lengths, std::uint64_t other = 0, Needs needs = Needs::nothing) {
        t.push_back({name, code, side, exact, std::move(input), other, needs, std::move(lengths)});
    };
    // A request with one exact length: any other is refused, whatever the camera does.
    const auto exactly = [&any](const char *name, std::uint32_t code, Side side, std::uint64_t exact, const char *tail,
                                Bytes input, const Answers &a, std::uint64_t other = 0, Needs needs = Needs::nothing) {
        const Answer wrong =
            no(code == IOCTL_ResetPipe ? st::kInvalidDeviceRequest : st::kInvalidParameter,
               std::string(name) + (side == Side::in ? ": InputBufferLength=%d != " : ": OutputBufferLength=%d != ") +
                   std::to_string(exact) + tail);
        const std::size_t step = a.size() / kStates;
        any(name, code, side, exact, std::move(input),
            {all(0, exact - 1, wrong),
             {exact, exact, {a[0], a[step], a[2 * step], a[3 * step]}},
             all(exact + 1, kAnyLength, wrong)},
            other, needs);
    };
    const auto status = [](int now) {
        return below(st::kInvalidDeviceRequest, {"Invalid camera status = " + std::to_string(now) + " \n"});
    };

    // ---- state, geometry and depth
    exactly(REQUEST(IOCTL_SetDefAlt), Side::in, 1, " \n", {2}, {ok()});
    exactly(REQUEST(IOCTL_SetDefAlt), Side::in, 1, " \n", {3},
            {below(st::kInvalidParameter, {"IOCTL_SetDefAlt: 1 or 2 != 3\n"})}, 100);
    exactly(REQUEST(IOCTL_SetCameraStatus), Side::in, 1, "\n", {7},
            {below(st::kInvalidDeviceRequest, {"Set invalid status = 7 \n"})});
    exactly(REQUEST(IOCTL_SetCameraStatus), Side::in, 1, "\n", {1}, {kSomeFailure, kNotTried, status(1), status(2)});
    exactly(REQUEST(IOCTL_SetCameraStatus), Side::in, 1, "\n", {0}, {status(0), status(0), kNotTried, kNotTried});
    exactly(REQUEST(IOCTL_GetCameraStatus), Side::out, 1, "\n", {}, {ok(1)});
    exactly(REQUEST(IOCTL_GetState), Side::out, 17, "\n", {}, {ok(17)});
    exactly(
        REQUEST(IOCTL_SetFrameParameters), Side::in, 26, "\n", kWindow,
        {below(st::kInvalidDeviceRequest, {"invalid Width or Heigth(>Max), return C0000010h\n"}), ok(), ok(), ok()});
    exactly(REQUEST(IOCTL_GetFrameParameters), Side::out, 26, "\n", {}, {ok(26)});
    exactly(REQUEST(IOCTL_SetBitsPerPixel), Side::in, 4, "\n", {8}, {below(st::kUnsuccessful), ok(), ok(), ok()}, 100);
    exactly(REQUEST(IOCTL_GetBitsPerPixel), Side::out, 4, "\n", {}, {ok(4)});

    // ---- commands and the USB interface; before the captures, which leave a streaming setting selected
    Answer noPipe = no(st::kInvalidDeviceRequest, "IOCTL_MainRead: AltSetting<1 ? AltSetting=0 \n");
    noPipe.errors.push_back("IOCTL_MainRead: MainIn==NULL ? MainIn=%p \n");
    any(REQUEST(IOCTL_MainRead), Side::out, 512, {}, {{0, kAnyLength, {noPipe, noPipe, kNotTried, kNotTried}}});
    const Lengths tooLong =
        all(65, kAnyLength, below(st::kInvalidParameter, {"InputCount+1=%d > 64=sizeof(iBuffer) \n"}));
    any(REQUEST(IOCTL_HwCommand), Side::in, 64, {0x11},
        {all(0, 0, no(st::kInvalidParameter, "IOCTL_HwCommand: InputBufferLength=0 == 0 \n")), all(1, 64, ok(9)),
         tooLong},
        63);
    any(REQUEST(IOCTL_HwCommand), Side::out, 9, {0x11}, {all(0, kAnyLength, ok(9))}, 1);
    any(REQUEST(IOCTL_HwCommand), Side::out, 9, {0xEE},
        {all(0, kAnyLength, below(st::kAdapterHardwareError, {"OutputCount=1 ReturnCode=91h\n"}))}, 1);
    any(REQUEST(IOCTL_USBWrite), Side::in, 64, {0x11},
        {all(0, 0, no(st::kInvalidParameter, "call IOCTL_USBWrite with zero buffer \n")), all(1, 64, ok()), tooLong},
        100);
    any(REQUEST(IOCTL_USBRead), Side::out, 9, {},
        {all(0, 0, no(st::kInvalidParameter, "call IOCTL_USBRead with zero buffer \n")), all(1, kAnyLength, ok(9))}, 0,
        Needs::commandSent);
    const Answer noSlave = no(st::kInvalidDeviceRequest, "InputBufferLength=%d == 0 or >=64 \n");
    any(REQUEST(IOCTL_SlaveWrite), Side::in, 63, {0x42},
        {all(0, 0, noSlave), all(1, 63, ok()), all(64, kAnyLength, noSlave)});
    any(REQUEST(IOCTL_SlaveRead), Side::out, 3, {},
        {all(0, 2, no(st::kInvalidDeviceRequest, "call IOCTL_SlaveRead with buffer size=%d < 3 \n")),
         all(3, kAnyLength, ok(3))},
        0, Needs::slaveReply);
    exactly(REQUEST(IOCTL_ResetPipe), Side::in, 1, " \n", {3},
            {below(st::kInvalidDeviceRequest, {"IOCTL_ResetPipe: Error pipe number [3] \n"})});
    exactly(REQUEST(IOCTL_ResetPipe), Side::in, 1, " \n", {0}, {kSomeFailure});
    const Answer busy = below(st::kDeviceBusy);
    exactly(REQUEST(IOCTL_SetInterfaceType), Side::in, 2, " \n", {0, 0}, {ok(), ok(), busy, busy});

    // ---- images
    const auto frame = [&any](const char *name, std::uint32_t code, std::uint64_t whole, const Answer &captures) {
        const Answer stopped = no(st::kInvalidDeviceRequest, std::string(name) + ": Camera NOT started! \n");
        const Answer noMemory = no(st::kUnsuccessful, std::string(name) + ": MmGetSystemAddressForMdlSafe() FAIL! \n");
        any(name, code, Side::out, whole, {},
            {{0, 0, {stopped, stopped, noMemory, captures}}, {1, kAnyLength, {stopped, stopped, ok(whole), captures}}},
            0, Needs::frame);
    };
    const Answer notStarted = no(st::kInvalidDeviceRequest, "IOCTL_GetFrame: Camera NOT started! \n");
    frame(REQUEST(IOCTL_GetFrame), kImage, notStarted);
    frame(REQUEST(IOCTL_GetFrameEx), kImage + kFrameHeaderSize, kLimit);
    exactly(REQUEST(IOCTL_GetFramePtr), Side::out, 8, " \n", {}, {notStarted, notStarted, ok(8), notStarted}, 0,
            Needs::frame);
    exactly(REQUEST(IOCTL_SetSnapshotParams), Side::in, 8, "\n", {0, 0, 0, 0, 0, 0, 0, 0}, {ok()});
    const Answer busy1 = no(st::kInvalidParameter, "Invalid camera status = 1 \n");
    const Answer busy2 = no(st::kInvalidParameter, "Invalid camera status = 2 \n");
    const Answer tooSmall =
        below(st::kInvalidDeviceRequest, {"Buffer too small, Need 2048 byte(s), Send %d byte(s)\n"});
    any(REQUEST(IOCTL_GetSnapshot), Side::out, kImage, {},
        {{0, kImage - 1, {kSomeFailure, tooSmall, busy1, busy2}},
         {kImage, kAnyLength, {kSomeFailure, ok(kImage), busy1, busy2}}});
    any(REQUEST(IOCTL_CancelSnapshot), Side::neither, 1, {},
        {{0, kAnyLength, {status(0), status(0), status(1), kNotTried}}});

    // ---- codes that differ from a known one in one field, and some that are far away
    for (const std::uint32_t code : {0x222000u, 0x22200Cu, 0x22201Eu, 0x222021u, 0x222022u, 0x226020u, 0x22A008u,
                                     0x226004u, 0x22E008u, 0x222664u, 0x220003u, 0x002004u, 0x322004u, 0xFFFFFFFCu}) {
        char text[64];
        std::snprintf(text, sizeof text, "Unknown IoControlCode=%X \n", code);
        any(nullptr, code, Side::neither, 17, {1}, {all(0, kAnyLength, no(st::kNotImplemented, text))});
    }
    return t;
}

// "%d" in a message of the table stands for the length that was refused; everything from "%p" on is an address.
bool matches(const std::string &expected, const std::string &printed, std::uint64_t length)
{
    std::string text = expected;
    if (const auto place = text.find("%d"); place != std::string::npos)
        text.replace(place, 2, std::to_string(length));
    return printed.substr(0, text.find("%p")) == text.substr(0, text.find("%p"));
}

std::string hex(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "%X", value);
    return text;
}

constexpr std::uint8_t kPnp = 0x1B, kQueryRemove = 1, kCancelRemove = 3;

class Requests : public Road {
protected:
    // What the thread that ran the request printed, from the request's first line on.
    static std::vector<hand::Message> messagesOf(std::uint64_t mark, std::uint32_t code)
    {
        const std::string first =
            "IoControlCode=" + hex(code) + "h(" + std::to_string(static_cast<std::int32_t>(code)) + ") \n";
        auto messages = hand::traceSince(mark);
        const auto begin = std::ranges::find_if(
            messages, [&](const auto &m) { return m.text == first || m.text.starts_with("Remove request"); });
        if (begin == messages.end())
            return {};
        std::erase_if(messages, [thread = begin->thread](const auto &m) { return m.thread != thread; });
        return messages;
    }

    static void expectTrace(const Request &request, std::uint64_t length, const Answer &answer, NtStatus status,
                            const std::vector<hand::Message> &messages)
    {
        ASSERT_FALSE(messages.empty()) << "no \"IoControlCode\" line";
        std::vector<std::string> errors, lines;
        for (const hand::Message &message : messages) {
            if (message.error)
                errors.push_back(message.text);
            if (message.routine == "USBCAM_DispatchDeviceControl")
                lines.push_back(message.text);
        }
        if (answer.status == st::kDeviceRemoved) {
            EXPECT_EQ(lines, std::vector<std::string>{"Remove request - exist ... return C00002B6h \n"});
            EXPECT_TRUE(errors.empty() && messages.size() == 1);
            return;
        }
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(lines.back(), "ntStatus=" + hex(static_cast<std::uint32_t>(status)) + "h \n");
        if (request.name == nullptr) {
            EXPECT_EQ(lines.size(), 3u);
        } else {
            EXPECT_EQ(lines.at(1), std::string("=>") + request.name + " \n");
            EXPECT_EQ(std::ranges::count(lines, std::string("<=") + request.name + " \n"),
                      answer.ends || answer.kind == Answer::Kind::someFailure ? 1 : 0);
        }
        if (answer.kind == Answer::Kind::someFailure)
            return;
        ASSERT_EQ(errors.size(), answer.errors.size()) << "the first: " << (errors.empty() ? "none" : errors.front());
        for (std::size_t i = 0; i < errors.size(); ++i)
            EXPECT_TRUE(matches(answer.errors[i], errors[i], length)) << errors[i] << "instead of\n"
                                                                      << answer.errors[i];
    }

    // Runs a request that ends with its five seconds.
    template <class Run> static vqt::IoResult runToItsLimit(Run run)
    {
        const std::size_t before = hand::timedWaiters();
        auto result = std::async(std::launch::async, run);
        waitFor("the request to wait", [&] { return hand::timedWaiters() > before; });
        hand::advance(std::chrono::milliseconds(4999));
        EXPECT_EQ(hand::timedWaiters(), before + 1) << "five seconds have not passed";
        hand::advance(std::chrono::milliseconds(1));
        return result.get();
    }

    // Goes through the table in one state. A request that waits for a frame is run by `stream`.
    void goThrough(Plugged &plugged, State state, Stream *stream = nullptr)
    {
        int tried = 0;
        for (const Request &request : requestTable()) {
            SCOPED_TRACE(request.name != nullptr ? request.name : "unknown code " + hex(request.code));
            for (const std::uint64_t length :
                 std::set<std::uint64_t>{0, 1, request.exact - 1, request.exact, request.exact + 1, kHuge}) {
                SCOPED_TRACE("length " + std::to_string(length));
                const auto row = std::ranges::find_if(
                    request.lengths, [length](const Lengths &l) { return length >= l.from && length <= l.to; });
                ASSERT_NE(row, request.lengths.end());
                const Answer &answer = state == removing ? kRemoved : row->answers[state];
                if (answer.kind == Answer::Kind::notTried)
                    continue;
                if (!kOnLayer && request.code == IOCTL_GetFramePtr && answer.status == st::kSuccess)
                    continue; // nothing can be mapped there
                if (request.needs == Needs::commandSent && state != removing)
                    plugged.camera.usbWrite(0x11).value();
                if (request.needs == Needs::slaveReply && state != removing)
                    plugged.camera.slaveWrite(std::vector<std::uint8_t>{1, 2, 3}).value();

                std::vector<std::uint8_t> input(request.side == Side::out ? request.other : length),
                    output(request.side == Side::in ? request.other : length, 0x5B);
                std::copy_n(request.input.begin(), std::min(request.input.size(), input.size()), input.begin());
                const auto run = [&] { return plugged.camera.port().deviceControl(request.code, input, output); };
                const bool waits =
                    stream != nullptr && request.needs == Needs::frame && answer.status != st::kInvalidParameter;
                const Limit limit = request.code == IOCTL_GetFramePtr ? Limit::none : Limit::fiveSeconds;
                const std::uint64_t mark = hand::traceMark();
                const vqt::IoResult result = waits                                ? stream->during(run, limit)
                                             : answer.kind == Answer::Kind::limit ? runToItsLimit(run)
                                                                                  : run();
                ++tried;
                if (answer.kind == Answer::Kind::someFailure)
                    EXPECT_FALSE(result.ok()) << vqt::statusText(result.status);
                else
                    EXPECT_EQ(vqt::statusText(result.status), vqt::statusText(answer.status));
                EXPECT_EQ(result.information, result.ok() ? std::min<std::uint64_t>(answer.most, output.size()) : 0);
                // What is not reported must be left alone, in the caller's own memory.
                if ((request.code & 3) != 0 && (kOnLayer || !result.ok())) {
                    const auto rest = std::span(output).subspan(std::min(result.information, output.size()));
                    EXPECT_TRUE(std::ranges::all_of(rest, [](std::uint8_t byte) { return byte == 0x5B; }));
                }
                if (kOnLayer)
                    expectTrace(request, length, answer, result.status, messagesOf(mark, request.code));
            }
        }
        EXPECT_GT(tried, 100) << "the table was gone through";
        EXPECT_TRUE(state == removing || plugged.camera.getCameraStatus().value() == kStatus[state]);
    }

    Plugged smallWindow()
    {
        return plug(kModels[0], {0, 0, 64, 32});
    }
};

TEST_F(Requests, BeforeTheFirstStart)
{
    hand::failPool(true);
    const vqt::Slot slot = bay().plug({}).value();
    hand::failPool(false);
    Plugged plugged{slot, '0', vqt::Camera::open('0').value()};
    ASSERT_EQ(bay().list().value().at(0).Plugged, 1u);
    EXPECT_TRUE(vqt::Camera::listInterfaces().empty()) << "not started";
    (void)bay().sendRequest(slot, kPnp, kQueryRemove).value(); // changes nothing before the start
    goThrough(plugged, added);
}

TEST_F(Requests, WhileStreaming)
{
    Plugged plugged = smallWindow();
    Stream stream(bay(), plugged);
    stream.start();
    (void)stream.nextOf(1);
    goThrough(plugged, streaming, &stream);
    stream.stop();
}

TEST_F(Requests, WhileASnapshotWaits)
{
    Plugged plugged = smallWindow();
    plugged.camera.setSnapshotParams(0, true).value();
    auto capture = std::async(std::launch::async, [&] { return plugged.camera.snapshot(); });
    waitFor("the capture to wait", [&] { return bay().state(plugged.slot).value().PendingReads == 1; });
    goThrough(plugged, capturing);
    plugged.camera.cancelSnapshot().value();
    EXPECT_EQ(capture.get().status(), vqt::status::kUnsuccessful) << "nothing arrived";
    EXPECT_EQ(plugged.camera.getCameraStatus().value(), CameraStopped);
}

TEST_F(Requests, WhileRemovalIsQueriedAndAfterwards)
{
    Plugged plugged = smallWindow();
    ASSERT_EQ(bay().sendRequest(plugged.slot, kPnp, kQueryRemove).value(), vqt::status::kSuccess);
    goThrough(plugged, removing);
    ASSERT_EQ(bay().sendRequest(plugged.slot, kPnp, kCancelRemove).value(), vqt::status::kSuccess);
    goThrough(plugged, idle);
}

} // namespace
} // namespace e2e
