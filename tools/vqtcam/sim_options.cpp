#include "sim_options.h"

#include "exit_codes.h"

#include <charconv>
#include <fmt/format.h>
#include <limits>
#include <set>

const char *const kSimHelp = "Plug in a simulated camera (repeatable): words separated by commas. model=1|2|3, mono or "
                             "colour, firmware=33|34|39 (8 bits "
                             "only, 10 bits only, both), usb1 (full speed), pace=BYTES a second (0: as fast as read), "
                             "serial=N, chip=ID, hwmodel=ID, "
                             "defects=N bad pixels, row=N and column=N bad lines (repeatable), scene=FILE or "
                             "flat=LEVEL (0 to 1023) instead of the chart";

const char *const kFaultHelp =
    "Script a line fault of the simulated cameras (repeatable): KIND:frame=N,line=N[,value=V][,camera=K]. KIND is "
    "lose, double, "
    "swap, number, garbage, signature, cut, flags, false-header or shorten; frame=all takes every frame; camera counts "
    "the --sim "
    "options from 0. Frames count from 1 at the start of the stream, as the driver numbers them";

namespace {

[[noreturn]] void wrong(const char *option, std::string_view text, const std::string &why)
{
    throw Stop(Exit::usage, fmt::format("{} \"{}\": {}", option, text, why));
}

struct Word {
    std::string_view key, value; // the value is empty without an equals sign
    bool given = false;          // an equals sign was there
};

std::vector<Word> wordsOf(std::string_view text)
{
    std::vector<Word> words;
    while (!text.empty()) {
        const std::size_t end = text.find(',');
        const std::string_view word = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        const std::size_t equals = word.find('=');
        words.push_back({word.substr(0, equals),
                         equals == std::string_view::npos ? std::string_view{} : word.substr(equals + 1),
                         equals != std::string_view::npos});
    }
    return words;
}

// Decimal, or hexadecimal after 0x.
template <class T> T numberOf(const char *option, std::string_view text, const Word &word, T lowest, T highest)
{
    std::string_view digits = word.value;
    const bool hex = digits.starts_with("0x") || digits.starts_with("0X");
    if (hex)
        digits.remove_prefix(2);
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, hex ? 16 : 10);
    if (error != std::errc{} || end != digits.data() + digits.size() || digits.empty() || value < lowest ||
        value > highest)
        wrong(option, text, fmt::format("{} is a number from {} to {}", word.key, lowest, highest));
    return static_cast<T>(value);
}

struct FaultKind {
    std::string_view name;
    std::uint16_t kind;
    bool needsValue;
    std::uint32_t highest;
};

constexpr FaultKind kFaultKinds[] = {
    {"lose", simbus::kLineLose, false, 0},
    {"double", simbus::kLineDouble, false, 0},
    {"swap", simbus::kLineSwap, false, 0},
    {"number", simbus::kLineNumber, true, 0x1FFF},
    {"garbage", simbus::kLineGarbage, true, 65536},
    {"signature", simbus::kLineSignature, true, 15},
    {"cut", simbus::kLineCut, false, 0},
    {"flags", simbus::kLineFlagBits, true, 7},
    {"false-header", simbus::kLineFalseHeader, true, 0xFFFF},
    {"shorten", simbus::kLineShorten, true, 0xFFFF},
};

// A small generator whose numbers are the same on every system.
class Numbers {
public:
    explicit Numbers(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15u + 1) {}
    std::uint32_t below(std::uint32_t limit)
    {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<std::uint32_t>((state_ >> 32) % limit);
    }

private:
    std::uint64_t state_;
};

} // namespace

SensorSize sensorSize(unsigned model)
{
    constexpr SensorSize sizes[] = {{1280, 1024}, {1600, 1200}, {2048, 1536}};
    return sizes[model - 1];
}

SimCamera parseSimCamera(std::string_view text)
{
    constexpr const char *option = "--sim";
    SimCamera camera;
    for (const Word &word : wordsOf(text)) {
        const auto number = [&]<class T>(T lowest, T highest) {
            return numberOf<T>(option, text, word, lowest, highest);
        };
        constexpr auto any16 = std::numeric_limits<std::uint16_t>::max();
        constexpr auto any32 = std::numeric_limits<std::uint32_t>::max();
        if (!word.given && word.key == "mono")
            camera.plug.mono = true;
        else if (!word.given && (word.key == "colour" || word.key == "color"))
            camera.plug.mono = false;
        else if (!word.given && word.key == "usb1")
            camera.plug.fullSpeed = true;
        else if (word.key == "model")
            camera.plug.model = number(1u, 3u);
        else if (word.key == "firmware")
            camera.plug.firmware = number(std::uint16_t{0}, any16);
        else if (word.key == "chip")
            camera.plug.chipId = number(std::uint16_t{0}, any16);
        else if (word.key == "hwmodel")
            camera.plug.hwModelId = number(std::uint16_t{0}, any16);
        else if (word.key == "pace")
            camera.plug.pace = number(std::uint32_t{0}, any32);
        else if (word.key == "serial")
            camera.plug.identity = vqt::Identity{number(std::uint32_t{0}, any32)};
        else if (word.key == "defects")
            camera.defects = number(0u, simbus::kMaxDefects);
        else if (word.key == "row")
            camera.rows.push_back(number(std::uint16_t{1}, any16));
        else if (word.key == "column")
            camera.columns.push_back(number(std::uint16_t{1}, any16));
        else if (word.key == "flat")
            camera.flat = number(std::uint32_t{0}, std::uint32_t{1023});
        else if (word.key == "scene" && !word.value.empty())
            camera.scene = word.value;
        else
            wrong(option, text, fmt::format("\"{}\" is not understood; see vqtcam --help", word.key));
    }
    const SensorSize size = sensorSize(camera.plug.model);
    for (const std::uint16_t row : camera.rows)
        if (row >= size.height)
            wrong(option, text, fmt::format("row {} is outside the sensor's {} rows", row, size.height));
    for (const std::uint16_t column : camera.columns)
        if (column >= size.width)
            wrong(option, text, fmt::format("column {} is outside the sensor's {} columns", column, size.width));
    if (camera.defects + camera.rows.size() + camera.columns.size() > simbus::kMaxDefects)
        wrong(option, text, fmt::format("the flash has room for {} defects", simbus::kMaxDefects));
    return camera;
}

SimFault parseSimFault(std::string_view text)
{
    constexpr const char *option = "--fault";
    const std::size_t colon = text.find(':');
    const std::string_view name = text.substr(0, colon);
    const FaultKind *kind = nullptr;
    for (const FaultKind &entry : kFaultKinds)
        if (entry.name == name)
            kind = &entry;
    if (kind == nullptr)
        wrong(option, text, fmt::format("\"{}\" is no kind of fault; see vqtcam --help", name));

    SimFault fault;
    fault.line.Kind = kind->kind;
    bool frame = false, line = false, value = false;
    for (const Word &word : wordsOf(colon == std::string_view::npos ? std::string_view{} : text.substr(colon + 1))) {
        if (word.key == "frame") {
            fault.line.Frame = word.value == "all"
                                   ? simbus::kEveryFrame
                                   : numberOf<std::uint32_t>(option, text, word, 1, simbus::kEveryFrame - 1);
            frame = true;
        } else if (word.key == "line") {
            fault.line.Line = numberOf<std::uint16_t>(option, text, word, 0, 0x1FFF);
            line = true;
        } else if (word.key == "value" && kind->needsValue) {
            fault.line.Value = numberOf<std::uint32_t>(option, text, word, 0, kind->highest);
            value = true;
        } else if (word.key == "camera") {
            fault.camera = numberOf<unsigned>(option, text, word, 0, simbus::kMaxSlots - 1);
        } else {
            wrong(option, text, fmt::format("\"{}\" is not understood; see vqtcam --help", word.key));
        }
    }
    if (!frame || !line || value != kind->needsValue)
        wrong(option, text, fmt::format("it needs frame=N,line=N{}", kind->needsValue ? ",value=V" : ""));
    return fault;
}

// Of the colour mosaic's classes the greens lie diagonally next to each other, red and blue two pixels apart.
std::vector<simbus::DEFECT_RECORD> makeDefects(const SimCamera &camera)
{
    constexpr std::uint8_t kLine = 3, kDiagonal = 4, kColour = 0x80;
    const SensorSize size = sensorSize(camera.plug.model);
    const auto colour = static_cast<std::uint8_t>(camera.plug.mono ? 0 : kColour);
    std::vector<simbus::DEFECT_RECORD> defects;
    std::set<std::pair<std::uint32_t, std::uint32_t>> taken;
    Numbers numbers(camera.plug.model);
    while (defects.size() < camera.defects) {
        const std::uint32_t x = numbers.below(size.width), y = numbers.below(size.height);
        if (!taken.insert({x, y}).second)
            continue;
        const bool green = ((x + y) & 1) != 0;
        const auto type = static_cast<std::uint8_t>(numbers.below(3) | colour | (colour != 0 && green ? kDiagonal : 0));
        defects.push_back({static_cast<std::uint16_t>(x), static_cast<std::uint16_t>(y), type});
    }
    for (const std::uint16_t column : camera.columns)
        defects.push_back({column, 0, static_cast<std::uint8_t>(kLine | colour)});
    for (const std::uint16_t row : camera.rows)
        defects.push_back({0, row, static_cast<std::uint8_t>(kLine | colour)});
    return defects;
}
