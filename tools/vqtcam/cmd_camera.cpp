// command, register, slave: words with the camera itself.
#include "program.h"

#include <charconv>
#include <fmt/format.h>
#include <memory>

namespace {

unsigned parseNumber(const std::string &text, unsigned highest, const char *what)
{
    std::string_view digits = text;
    const bool hex = digits.starts_with("0x") || digits.starts_with("0X");
    if (hex)
        digits.remove_prefix(2);
    unsigned value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, hex ? 16 : 10);
    if (error != std::errc{} || digits.empty() || end != digits.data() + digits.size() || value > highest)
        throw Stop(Exit::usage,
                   fmt::format("\"{}\" is no {} (0 to {}, or 0x0 to 0x{:X})", text, what, highest, highest));
    return value;
}

void command(Session &session, const std::vector<std::string> &texts)
{
    vqt::Camera camera = session.open();
    const auto bytes = parseBytes(texts);
    const auto reply = camera.hwCommand(bytes.front(), vqt::ConstBytes(bytes).subspan(1)).value();
    fmt::print("{}\n", hexBytes(reply));
    fmt::print(stderr, "{} bytes of reply\n", reply.size());
}

void readRegisters(Session &session, const std::vector<std::string> &numbers)
{
    vqt::Camera camera = session.open();
    for (const std::string &text : numbers) {
        const unsigned number = parseNumber(text, 0xFF, "register");
        const unsigned value = camera.readRegister(static_cast<std::uint8_t>(number)).value();
        fmt::print("0x{:02X} 0x{:04X} {}\n", number, value, value);
    }
}

void writeRegister(Session &session, const std::string &numberText, const std::string &valueText)
{
    const unsigned number = parseNumber(numberText, 0xFF, "register");
    const unsigned value = parseNumber(valueText, 0xFFFF, "register value");
    vqt::Camera camera = session.open();
    camera.writeRegister(static_cast<std::uint8_t>(number), static_cast<std::uint16_t>(value)).value();
    const unsigned now = camera.readRegister(static_cast<std::uint8_t>(number)).value();
    fmt::print("0x{:02X} 0x{:04X} {}\n", number, now, now);
}

void slave(Session &session, const std::vector<std::string> &texts)
{
    vqt::Camera camera = session.open();
    camera.slaveWrite(parseBytes(texts)).value();
    const auto reply = camera.slaveRead().value();
    fmt::print("{}\n", hexBytes(reply));
    fmt::print(stderr, "{} bytes of reply\n", reply.size());
}

} // namespace

std::string hexBytes(std::span<const std::uint8_t> bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes)
        text += fmt::format("{}{:02X}", text.empty() ? "" : " ", byte);
    return text;
}

std::vector<std::uint8_t> parseBytes(const std::vector<std::string> &texts)
{
    std::vector<std::uint8_t> bytes;
    for (const std::string &text : texts)
        bytes.push_back(static_cast<std::uint8_t>(parseNumber(text, 0xFF, "byte")));
    return bytes;
}

void addCameraCommands(Program &program)
{
    struct Texts {
        std::vector<std::string> bytes, numbers;
        std::string number, value;
    };
    auto texts = std::make_shared<Texts>();
    CLI::App *sub = program.command("command", "Send a camera command and print its reply, as: command 0x12");
    sub->add_option("bytes", texts->bytes, "Command code and up to 63 argument bytes, decimal or 0x")->required();
    sub->callback([&program, texts] { program.run = [texts](Session &session) { command(session, texts->bytes); }; });

    CLI::App *registers = program.command("register", "Read or write sensor registers");
    registers->require_subcommand(1);
    CLI::App *read = registers->add_subcommand("read", "Read registers");
    read->add_option("numbers", texts->numbers, "Register numbers, decimal or 0x")->required();
    read->callback(
        [&program, texts] { program.run = [texts](Session &session) { readRegisters(session, texts->numbers); }; });
    CLI::App *write = registers->add_subcommand("write", "Write one register and read it back");
    write->add_option("number", texts->number, "Register number")->required();
    write->add_option("value", texts->value, "Its new value")->required();
    write->callback([&program, texts] {
        program.run = [texts](Session &session) { writeRegister(session, texts->number, texts->value); };
    });

    sub = program.command("slave", "Send bytes through the slave command and print the kept reply");
    sub->add_option("bytes", texts->bytes, "1 to 63 bytes, decimal or 0x")->required();
    sub->callback([&program, texts] { program.run = [texts](Session &session) { slave(session, texts->bytes); }; });
}
