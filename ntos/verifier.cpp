// How the machine stops, and the faults that make drivers prove themselves. Both hang on the one door in kernel.h.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "ntos/io.h"

namespace ntos {

namespace {

struct VerifierState {
    std::mutex lock;
    std::function<void(const Violation &)> handler;
    std::vector<Violation> kept;
    std::chrono::milliseconds cancelLimit = std::chrono::seconds(10);
};
VerifierState &state()
{
    static auto *instance = new VerifierState;
    return *instance;
}

} // namespace

std::string text(const char *format, ...)
{
    char buffer[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

std::string Violation::line() const
{
    std::string line = "*** machine stopped: " + rule + ", in " + routine + ": " + object;
    if (code != 0)
        line += text(" (%02X", code) + (parameter != 0 ? text(", %X)", parameter) : ")");
    return line;
}

void violate(std::string rule, const char *routine, std::string object, std::uint32_t code, std::uint32_t parameter)
{
    const Violation violation{std::move(rule), routine, std::move(object), code, parameter};
    std::function<void(const Violation &)> handler;
    {
        std::lock_guard guard(state().lock);
        state().kept.push_back(violation);
        handler = state().handler;
    }
    if (handler) {
        handler(violation);
        return;
    }
    fprintf(stderr, "%s\n", violation.line().c_str());
    fflush(stderr);
    std::abort();
}

std::chrono::milliseconds cancelLimit()
{
    std::lock_guard guard(state().lock);
    return state().cancelLimit;
}

void resetVerifier()
{
    std::lock_guard guard(state().lock);
    state().handler = nullptr;
    state().kept.clear();
    state().cancelLimit = std::chrono::seconds(10);
}

void Verifier::setHandler(std::function<void(const Violation &)> handler)
{
    std::lock_guard guard(state().lock);
    state().handler = std::move(handler);
}

void Verifier::record()
{
    setHandler([](const Violation &) {});
}

std::vector<Violation> Verifier::violations() const
{
    std::lock_guard guard(state().lock);
    return state().kept;
}

void Verifier::clear()
{
    std::lock_guard guard(state().lock);
    state().kept.clear();
}

void Verifier::setCancelLimit(std::chrono::milliseconds limit)
{
    std::lock_guard guard(state().lock);
    state().cancelLimit = limit;
}

} // namespace ntos
