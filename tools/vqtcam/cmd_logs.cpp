// trace, events: what the driver says.
#include "program.h"

#include <fmt/format.h>
#include <memory>

namespace {

struct TraceOptions {
    bool errors = false;
    std::string module;
};

void trace(Session &session, const TraceOptions &options)
{
    const auto records = session.host().trace();
    if (!records)
        throw Stop(Exit::requestFailed, "this system keeps the trace itself. Look here: " + vqt::Host::whereToLook());
    std::size_t shown = 0;
    for (const vqt::TraceRecord &record : *records) {
        if ((options.errors && !record.error) || (!options.module.empty() && !record.module.ends_with(options.module)))
            continue;
        fmt::print("{}\n", record.line());
        ++shown;
    }
    fmt::print(stderr, "{} of {} lines\n", shown, records->size());
}

void events(Session &session)
{
    const auto records = session.host().events();
    if (!records)
        throw Stop(Exit::requestFailed,
                   "this system keeps the event log itself. Look here: " + vqt::Host::whereToLook());
    for (const vqt::EventRecord &record : *records) {
        const std::string text = record.text.substr(0, record.text.find_last_not_of("\r\n ") + 1);
        fmt::print("0x{:08X} {:<12} {:<24} {} {}\n", record.id, record.severity, record.device,
                   vqt::statusText(record.finalStatus), text.empty() ? "(no message file)" : text);
    }
    fmt::print(stderr, "{} event{}\n", records->size(), records->size() == 1 ? "" : "s");
}

} // namespace

void addLogCommands(Program &program)
{
    auto options = std::make_shared<TraceOptions>();
    CLI::App *command = program.command("trace", "Show the driver's trace, from its start on");
    command->add_flag("--errors", options->errors, "Error lines only");
    command->add_option("--module", options->module, "Lines of one module, as usb/camera");
    command->callback([&program, options] {
        program.global.trace = true;
        program.run = [options](Session &session) { trace(session, *options); };
    });
    program.command("events", "Show what the driver wrote into the system's event log")->callback([&program] {
        program.run = events;
    });
}
