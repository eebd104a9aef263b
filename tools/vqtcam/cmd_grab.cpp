// grab: frames of the stream.
#include "program.h"

#include "stream.h"
#include "window_options.h"

#include <chrono>
#include <cstdio>
#include <fmt/format.h>
#include <memory>

namespace {

constexpr std::size_t kHeldBytes = std::size_t{256} << 20; // frames are kept this far before they are written

struct GrabOptions {
    unsigned count = 1;
    bool mapped = false, noFiles = false;
    WindowOptions window;
    PictureOptions pictures;
};

struct Held {
    vqt::Frame frame;
    std::string file;
};

class Writer {
public:
    Writer(const GrabOptions &options, MosaicPhase phase) : options_(options), phase_(phase) {}

    // Writing takes longer than a frame does, so a series is written behind the stream's back as long as memory lasts.
    void take(vqt::Frame frame)
    {
        bytes_ += frame.image.data.size();
        held_.push_back({std::move(frame), {}});
        if (bytes_ >= kHeldBytes)
            flush();
    }
    void flush()
    {
        for (; written_ < held_.size(); ++written_) {
            Held &held = held_[written_];
            if (!options_.noFiles)
                held.file =
                    saveImage(held.frame.image, phase_, fmt::format("{}-{:03}", options_.pictures.out, written_),
                              options_.pictures.kind(), options_.pictures.mosaic)
                        .string();
            held.frame.image.data = {};
        }
        bytes_ = 0;
    }
    const std::vector<Held> &frames() const { return held_; }

private:
    const GrabOptions &options_;
    MosaicPhase phase_;
    std::vector<Held> held_;
    std::size_t bytes_ = 0, written_ = 0;
};

void printTable(const std::vector<Held> &frames)
{
    fmt::print("{:>6} {:>11} {:>4} {:>7} {:>10} {:>9} {}\n", "frame", "size", "bits", "resyncs", "lost lines", "ms",
               "file");
    for (const Held &held : frames) {
        const FRAME_HEADER &header = held.frame.header;
        const std::uint32_t number = header.FrameNumber, resyncs = header.Resyncs;
        const std::uint64_t start = header.StartTime, end = header.EndTime;
        fmt::print("{:>6} {:>11} {:>4} {:>7} {:>10} {:>9.1f} {}\n", number,
                   fmt::format("{}x{}", held.frame.image.width, held.frame.image.height), held.frame.image.bits,
                   resyncs, vqt::lostLines(header), static_cast<double>(end - start) / 1e4, held.file);
    }
}

void grab(Session &session, const GrabOptions &options)
{
    vqt::Camera camera = session.open();
    const vqt::Geometry geometry = options.window.apply(camera);
    // The simulated camera's frames are numbered like the driver's, so that faults are scripted by the table's numbers.
    if (const auto slot = session.slotOf(camera))
        session.bay().setNextFrame(*slot, 1).value();

    Writer writer(options, MosaicPhase::of(geometry));
    double seconds = 0;
    camera.getState().value(); // clears the driver's totals
    {
        Stream stream(camera, options.mapped);
        const auto start = std::chrono::steady_clock::now();
        for (unsigned i = 0; i < options.count; ++i) {
            fmt::print(stderr, "\rframe {} of {}", i + 1, options.count);
            std::fflush(stderr);
            writer.take(stream.next());
        }
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    fmt::print(stderr, "\n");
    writer.flush();
    printTable(writer.frames());

    const CAMERA_STATE state = camera.getState().value();
    const std::uint32_t completed = state.TotalFrames, resyncs = state.Resyncs;
    const FRAME_HEADER &first = writer.frames().front().frame.header, &last = writer.frames().back().frame.header;
    std::uint64_t lost = 0;
    for (const Held &held : writer.frames())
        lost += vqt::lostLines(held.frame.header);
    const std::uint32_t numbers = last.FrameNumber - first.FrameNumber;
    const std::uint64_t ticks = last.EndTime - first.EndTime; // 100 ns
    fmt::print("camera {}: {} frames, {} lost lines", camera.deviceId(), writer.frames().size(), lost);
    if (ticks != 0)
        fmt::print(", {:.1f} frames/s from the camera", numbers * 1e7 / static_cast<double>(ticks));
    if (seconds > 0)
        fmt::print(", {:.1f} frames/s fetched", options.count / seconds);
    // Whoever fetches too slowly misses frames; the driver has counted their errors all the same.
    fmt::print("; the driver completed {} frames with {} resyncs", completed, resyncs);
    fmt::print("\n");
}

} // namespace

void addGrabCommand(Program &program)
{
    auto options = std::make_shared<GrabOptions>();
    CLI::App *command = program.command("grab", "Fetch frames of the stream and write them as pictures");
    command->add_option("-n,--count", options->count, "Frames to fetch")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    command->add_flag("--mapped", options->mapped, "Read the driver's own buffer, mapped, instead of a copy");
    command->add_flag("--no-files", options->noFiles, "Only the table");
    options->pictures.addTo(*command, "frame", "Start of the files' names; -000 and so on and the ending follow");
    options->window.addTo(*command);
    command->callback([&program, options] { program.run = [options](Session &session) { grab(session, *options); }; });
}
