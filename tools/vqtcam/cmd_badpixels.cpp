// badpixels: the defect list of the flash, and what the repair does about it.
#include "program.h"

#include "stream.h"
#include "window_options.h"

#include <algorithm>
#include <fmt/format.h>
#include <memory>

namespace {

struct BadPixelOptions {
    bool captured = false, listOnly = false, all = false;
    unsigned gain = 8;
    WindowOptions window;
    PictureOptions pictures;
};

constexpr std::size_t kShownRecords = 20;

const char *ruleWord(const vqt::BadPixel &pixel)
{
    switch (pixel.kind()) {
    case vqt::BadPixel::Kind::column:
        return "whole column";
    case vqt::BadPixel::Kind::row:
        return "whole row";
    case vqt::BadPixel::Kind::pixel:
        break;
    }
    constexpr const char *rules[] = {"always replaced", "replaced when it differs",
                                     "replaced when it differs or is full"};
    return rules[pixel.type & 3];
}

void printList(const std::vector<vqt::BadPixel> &list, bool all)
{
    fmt::print("{:>6} {:>6} {:>6} {:<10} {}\n", "column", "row", "type", "sensor", "rule");
    std::size_t shown = 0;
    for (const vqt::BadPixel &pixel : list) {
        // Lines stand at the list's end as a rule, and are the ones to look for.
        if (!all && shown >= kShownRecords && pixel.kind() == vqt::BadPixel::Kind::pixel)
            continue;
        ++shown;
        fmt::print("{:>6} {:>6}   0x{:02X} {:<10} {}\n", pixel.x, pixel.y, pixel.type,
                   (pixel.type & 0x80) != 0 ? "colour" : "monochrome", ruleWord(pixel));
    }
    if (shown < list.size())
        fmt::print("  ... {} more (--all shows them)\n", list.size() - shown);
}

vqt::Image take(vqt::Camera &camera, const BadPixelOptions &options)
{
    options.window.apply(camera);
    if (options.captured)
        return camera.snapshot().value();
    Stream stream(camera);
    return stream.next().image;
}

// While it lives the simulated camera shows one and the same scene.
class Frozen {
public:
    Frozen(vqt::Bay &bay, vqt::Slot slot) : bay_(bay), slot_(slot) { bay.freeze(slot, 1).value(); }
    ~Frozen() { (void)bay_.thaw(slot_).ok(); }
    Frozen(const Frozen &) = delete;
    Frozen &operator=(const Frozen &) = delete;

private:
    vqt::Bay &bay_;
    vqt::Slot slot_;
};

struct Pictures {
    vqt::Image without, before, after;
};

// The driver reads the list when it starts a camera, so a list is changed in the flash and the camera restarted.
Pictures takeAll(Session &session, vqt::Camera &camera, vqt::Slot slot, const std::vector<vqt::BadPixel> &list,
                 const BadPixelOptions &options)
{
    std::vector<simbus::DEFECT_RECORD> defects;
    for (const vqt::BadPixel &pixel : list)
        defects.push_back({pixel.x, pixel.y, pixel.type});
    vqt::Bay &bay = session.bay();
    const Frozen frozen(bay, slot);
    Pictures pictures;
    bay.setDefects(slot, {}).value();
    session.restart(slot);
    pictures.without = take(camera, options);
    bay.setDefects(slot, defects, simbus::kDefectsSensor).value();
    pictures.before = take(camera, options);
    bay.setDefects(slot, defects, simbus::kDefectsFlash).value();
    session.restart(slot);
    pictures.after = take(camera, options);
    // The first byte of a streamed image carries flag bits of the stream, which are no part of the scene.
    for (vqt::Image *image : {&pictures.before, &pictures.after})
        image->data.front() = pictures.without.data.front();
    return pictures;
}

void badPixels(Session &session, const BadPixelOptions &options)
{
    vqt::Camera camera = session.open();
    const auto list = camera.badPixels().value();
    fmt::print("camera {}: {} bad pixels and lines in the flash\n", camera.deviceId(), list.size());
    if (!list.empty())
        printList(list, options.all);
    if (options.listOnly)
        return;

    const MosaicPhase phase = MosaicPhase::of(options.window.apply(camera));
    const auto save = [&](const vqt::Image &image, const char *what) {
        return saveImage(image, phase, options.pictures.out + "-" + what, options.pictures.kind(),
                         options.pictures.mosaic)
            .string();
    };
    const auto slot = session.slotOf(camera);
    if (!slot) {
        fmt::print("repaired    {}\n", save(take(camera, options), "after"));
        fmt::print(stderr,
                   "only a simulated camera can also show the scene before the repair and without the defects\n");
        return;
    }
    const Pictures pictures = takeAll(session, camera, *slot, list, options);
    const auto saveDifference = [&](const vqt::Image &image, const char *what) {
        return savePicture(difference(image, pictures.without, options.gain), options.pictures.out + "-" + what,
                           options.pictures.kind() == PictureFormat::raw ? PictureFormat::pnm : options.pictures.kind())
            .string();
    };
    const auto row = [&](const char *name, const vqt::Image &image, const std::string &file,
                         const std::string &differenceFile) {
        const DifferenceCount count = countDifferences(image, pictures.without);
        fmt::print("{:<8} {:>8} {:>8} {:>8.1f} {} {}\n", name, count.pixels, count.largest, count.mean, file,
                   differenceFile);
    };
    fmt::print("{}, compared with the same scene on a sensor without defects ({}; differences x {}):\n",
               options.captured ? "captured" : "streamed", save(pictures.without, "without"), options.gain);
    fmt::print("{:<8} {:>8} {:>8} {:>8} {}\n", "", "differ", "largest", "mean", "files");
    row("before", pictures.before, save(pictures.before, "before"),
        saveDifference(pictures.before, "before-difference"));
    row("after", pictures.after, save(pictures.after, "after"), saveDifference(pictures.after, "after-difference"));
}

} // namespace

void addBadPixelsCommand(Program &program)
{
    auto options = std::make_shared<BadPixelOptions>();
    CLI::App *command =
        program.command("badpixels", "Show the list of defects, and pictures before and after their repair");
    command->add_flag("--list", options->listOnly, "Only the list");
    command->add_flag("--all", options->all, "Every record of the list");
    command->add_flag("--captured", options->captured, "Snapshots instead of frames of the stream");
    command->add_option("--gain", options->gain, "Factor of the difference pictures")
        ->check(CLI::Range(1, 1023))
        ->capture_default_str();
    options->pictures.addTo(*command, "badpixels", "Start of the files' names");
    options->window.addTo(*command);
    command->callback(
        [&program, options] { program.run = [options](Session &session) { badPixels(session, *options); }; });
}
