#include "tests/e2e/road.h"

#include <algorithm>
#include <stdexcept>

namespace e2e {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 60s; // of real time, for what takes milliseconds
constexpr std::uint32_t kWholeBlock = 49152;
constexpr std::uint32_t kEver = 0xFFFFFFFF;
constexpr std::chrono::microseconds kBlockTime = 1ms; // of the layer's clock
constexpr std::uint32_t kFramesPerSecond = 8;         // of the second kernel's slow camera

struct Difference {
    std::string_view suite;
    std::string_view test; // "*": the whole suite
    const char *reason;
};

constexpr const char *kOneThread =
    "one thread runs all device control requests, so nothing reaches the drivers while a request waits";
constexpr const char *kNoMapping = "pool cannot be mapped into a process: the mapping request takes its failure path";
constexpr const char *kNoClock = "its clock cannot be driven by hand, and a test waits no real seconds";

// What the second kernel cannot do.
constexpr Difference kDifferences[] = {
    {"LineFaults", "*", kNoClock},
    {"Sequence", "*", kOneThread},
    {"Requests", "BeforeTheFirstStart", "its calls cannot be made to fail"},
    {"Requests", "WhileASnapshotWaits", kOneThread},
    {"Snapshot", "EverySize", "too slow for this many requests"},
    {"Snapshot", "LimitPassesInTheMiddleOfAFrame", kNoClock},
    {"Snapshot", "ExternalTrigger", kOneThread},
    {"FrameWait", "*", kNoClock},
    {"Mapping", "*", kNoMapping},
    {"Unplug", "WhileARequestWaits", kOneThread},
};

// Why this kernel cannot run the test, or null when it can.
// "Layer/Images.PixelForPixel/3" is test PixelForPixel of suite Images.
const char *cannot(std::string_view suite, std::string_view test)
{
    suite.remove_prefix(suite.rfind('/') + 1);
    test = test.substr(0, test.find('/'));
    for (const Difference &row : kDifferences)
        if (!kOnLayer && row.suite == suite && (row.test == "*" || row.test == test))
            return row.reason;
    return nullptr;
}

// Stream bytes of one frame of the window in force.
std::uint64_t streamBytes(vqt::Camera &camera)
{
    const auto window = camera.getFrameParameters().value();
    const std::uint64_t width = window.imageWidth();
    const std::uint64_t line = camera.getBitsPerPixel().value() == 8 ? width : width * 10 / 8;
    return (line + 4) * window.imageHeight();
}

} // namespace

void waitFor(const char *what, const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            throw std::runtime_error(std::string("waited in vain for ") + what);
        std::this_thread::sleep_for(50us);
    }
}

std::string nameOf(const Model &model)
{
    return "R" + std::to_string(model.number) + (model.mono ? "M" : "C");
}

// -----------------------------------------------------------------------------------------------------------------
// stream

Stream::~Stream()
{
    if (running_)
        (void)plugged_.camera.stop();
}

void Stream::start(std::uint32_t block, bool paced)
{
    const std::uint64_t frame = streamBytes(plugged_.camera);
    // Short reads give small frames several blocks each, so that frames complete one by one.
    if (block == 0)
        block = static_cast<std::uint32_t>(std::clamp<std::uint64_t>(frame / 8, 64, kWholeBlock));
    std::vector<simbus::BULK_FAULT> reads;
    if (block < kWholeBlock)
        reads.push_back({simbus::kBulkShort, 0, block, kEver});
    bay_.setBulkFaults(plugged_.slot, reads).value();
    const std::uint64_t pace =
        kOnLayer ? std::uint64_t{block} * 1'000'000 / kBlockTime.count() : frame * kFramesPerSecond;
    bay_.setPace(plugged_.slot, paced ? static_cast<std::uint32_t>(pace) : 0).value();
    (void)plugged_.camera.getState().value(); // the totals count from here
    totals_ = {};
    readsBefore_ = bay_.state(plugged_.slot).value().ReadsCompleted;
    plugged_.camera.start().value();
    running_ = true;
}

void Stream::stop()
{
    running_ = false;
    plugged_.camera.stop().value();
    bay_.setBulkFaults(plugged_.slot, {}).value();
}

const Stream::Totals &Stream::totals()
{
    const CAMERA_STATE state = plugged_.camera.getState().value();
    totals_.frames += state.TotalFrames;
    totals_.blocks += state.TotalBlocks;
    totals_.resyncs += state.Resyncs;
    return totals_;
}

// The bus's thread waits for the time of the next bytes: everything that it completed has been taken apart, in its
// context. A frame request's limit is seconds away.
bool Stream::cameraWaits()
{
    const auto next = hand::nextExpiry();
    return next && *next < 500ms;
}

void Stream::waitForCamera()
{
    waitFor("the camera to wait for the clock", cameraWaits);
}

void Stream::step()
{
    waitForCamera();
    const std::uint64_t before = bay_.state(plugged_.slot).value().ReadsCompleted;
    hand::advance(kBlockTime);
    int polls = 0;
    waitFor("a block", [&] {
        if (!cameraWaits())
            return false;
        if (bay_.state(plugged_.slot).value().ReadsCompleted != before)
            return true;
        if (++polls % 16 == 0)
            hand::advance(kBlockTime / 8); // the camera rounded the time of its block up
        return false;
    });
    waitForCamera(); // the block has been taken apart
}

void Stream::pass(std::uint32_t frames)
{
    const std::uint64_t goal = totals().frames + frames;
    while (totals_.frames < goal) {
        step();
        totals();
    }
}

void Stream::countAll()
{
    waitFor("the blocks to be counted", [this] {
        const std::uint64_t before = totals_.blocks;
        return totals().blocks == before && before == bay_.state(plugged_.slot).value().ReadsCompleted - readsBefore_;
    });
}

void Stream::deliver(const std::future<void> &done, Limit limit)
{
    const auto doneWithin = [&](std::chrono::milliseconds time) {
        return done.wait_for(time) == std::future_status::ready;
    };
    // The camera waits for the clock, and the request does as soon as it has cleared the frame event: from then on it
    // cannot miss a frame.
    if (limit == Limit::fiveSeconds)
        waitFor("the request to wait", [&] { return doneWithin(0ms) || (cameraWaits() && hand::timedWaiters() >= 2); });
    else
        (void)doneWithin(10ms);
    // A wait without a limit is not seen from here: the request may have missed the frame and gets the next one.
    while (!doneWithin(0ms)) {
        pass(1);
        (void)doneWithin(500ms);
    }
}

vqt::Frame Stream::next()
{
    return during([this] { return plugged_.camera.grab(); }).value();
}

vqt::Frame Stream::nextOf(std::uint32_t frameNumber)
{
    vqt::Frame frame = next();
    while (frame.header.FrameNumber < frameNumber)
        frame = next();
    return frame;
}

// -------------------------------------------------------------------------------------------------------------------
// road

void Road::SetUp()
{
    const testing::TestInfo &info = *testing::UnitTest::GetInstance()->current_test_info();
    if (const char *reason = cannot(info.test_suite_name(), info.name()); reason != nullptr)
        GTEST_SKIP() << "this kernel cannot: " << reason;
    host_.emplace(vqt::Host::start().value());
    hand::clockByHand(true);
    bay_.emplace(vqt::Bay::open().value());
}

void Road::TearDown()
{
    if (!host_)
        return;
    if (!kOnLayer && bay_) {
        // The kernel lives on: leave it as it was found.
        for (const vqt::Slot slot : slots_)
            (void)bay_->unplug(slot);
        waitFor("the cameras to leave", [this] { return bay_->list().value().empty(); });
    }
    bay_.reset();
    for (const std::string &leak : host_->shutdown())
        ADD_FAILURE() << "left behind by a driver: " << leak;
    host_.reset();
}

Plugged Road::plug(const Model &model, const vqt::Geometry &window)
{
    vqt::PlugOptions options;
    options.model = model.number;
    options.mono = model.mono;
    options.identity = vqt::Identity{nextSerial_++, 7, 3};
    options.pace = 0;
    const vqt::Slot slot = bay_->plug(options).value();
    slots_.push_back(slot);
    const char id = bay_->deviceId(slot).value();
    Plugged plugged{slot, id, vqt::Camera::open(id).value()};
    if (window.width != 0)
        plugged.camera.setFrameParameters(window).value();
    return plugged;
}

void Road::unplug(Plugged &plugged)
{
    bay_->unplug(plugged.slot).value();
    unplugged(plugged);
}

void Road::unplugged(Plugged &plugged)
{
    plugged.camera.close();
    std::erase(slots_, plugged.slot);
    bay_->waitGone(plugged.id).value();
}

} // namespace e2e
