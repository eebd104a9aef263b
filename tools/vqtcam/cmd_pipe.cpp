// pipe: the USB interface underneath the stream.
#include "program.h"

#include "picture_file.h"

#include <fmt/format.h>
#include <memory>

namespace {

constexpr std::uint8_t kReadMode = 0x1E;   // sensor register
constexpr std::uint16_t kStandby = 0x0100; // its bit 8: the sensor sends nothing
constexpr std::size_t kShownBytes = 32;

struct PipeOptions {
    unsigned pipe = 2, interfaceNumber = 0, setting = 1;
    std::size_t length = 49152;
    std::string out;
};

// Selects the streaming setting and lets the sensor run, without the driver's frame assembly; undone at its end.
class RawStream {
public:
    RawStream(vqt::Camera &camera, std::uint8_t setting) : camera_(camera)
    {
        camera.setInterfaceType(0, setting).value();
        mode_ = camera.readRegister(kReadMode).value();
        camera.writeRegister(kReadMode, static_cast<std::uint16_t>(mode_ & ~kStandby)).value();
    }
    ~RawStream()
    {
        (void)camera_.writeRegister(kReadMode, mode_).ok();
        (void)camera_.setInterfaceType(0, 0).ok();
    }
    RawStream(const RawStream &) = delete;
    RawStream &operator=(const RawStream &) = delete;

private:
    vqt::Camera &camera_;
    std::uint16_t mode_ = 0;
};

void readPipe(Session &session, const PipeOptions &options)
{
    vqt::Camera camera = session.open();
    std::vector<std::uint8_t> bytes(options.length);
    {
        const RawStream stream(camera, static_cast<std::uint8_t>(options.setting));
        bytes.resize(camera.mainRead(bytes).value());
    }
    fmt::print("camera {}: {} bytes of the stream: {}{}\n", camera.deviceId(), bytes.size(),
               hexBytes(std::span(bytes).first(std::min(kShownBytes, bytes.size()))),
               bytes.size() > kShownBytes ? " ..." : "");
    if (!options.out.empty()) {
        writeFile(options.out, bytes);
        fmt::print("{}\n", options.out);
    }
}

} // namespace

void addPipeCommand(Program &program)
{
    auto options = std::make_shared<PipeOptions>();
    CLI::App *pipe = program.command("pipe", "Reset a pipe, read the raw stream, select an interface");
    pipe->require_subcommand(1);

    CLI::App *reset = pipe->add_subcommand("reset", "Reset a pipe; only 2, the stream, is ever open");
    reset->add_option("pipe", options->pipe, "Pipe number")->check(CLI::Range(0, 255))->capture_default_str();
    reset->add_option("--setting", options->setting, "Alternate setting to select first")
        ->check(CLI::Range(0, 2))
        ->capture_default_str();
    reset->callback([&program, options] {
        program.run = [options](Session &session) {
            vqt::Camera camera = session.open();
            if (options->setting != 0)
                camera.setInterfaceType(0, static_cast<std::uint8_t>(options->setting)).value();
            camera.resetPipe(static_cast<std::uint8_t>(options->pipe)).value();
            camera.setInterfaceType(0, 0).value();
            fmt::print("pipe {} reset\n", options->pipe);
        };
    });

    CLI::App *read = pipe->add_subcommand("read", "Read bytes of the stream as the camera sends them");
    read->add_option("length", options->length, "Bytes to read at most")
        ->check(CLI::Range(1, 1 << 26))
        ->capture_default_str();
    read->add_option("--setting", options->setting, "Alternate setting")
        ->check(CLI::IsMember({1, 2}))
        ->capture_default_str();
    read->add_option("-o,--out", options->out, "File for the bytes");
    read->callback([&program, options] { program.run = [options](Session &session) { readPipe(session, *options); }; });

    CLI::App *select = pipe->add_subcommand("interface", "Select an interface and its alternate setting");
    select->add_option("interface", options->interfaceNumber, "Interface number")
        ->check(CLI::Range(0, 255))
        ->required();
    select->add_option("setting", options->setting, "Alternate setting")->check(CLI::Range(0, 255))->required();
    select->callback([&program, options] {
        program.run = [options](Session &session) {
            vqt::Camera camera = session.open();
            camera
                .setInterfaceType(static_cast<std::uint8_t>(options->interfaceNumber),
                                  static_cast<std::uint8_t>(options->setting))
                .value();
            const std::int32_t now = camera.getState().value().AltSetting;
            fmt::print("alternate setting {}\n", now);
        };
    });
}
