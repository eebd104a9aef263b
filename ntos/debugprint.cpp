// The debug print and the trace made from it.
#include <cstdarg>
#include <cstring>

#include "ntos/clockwork.h"
#include "ntos/io.h"

namespace ntos {

namespace {

struct TraceStore {
    std::mutex lock;
    std::deque<TraceLine> lines;
    std::size_t capacity = 65536;
    std::uint64_t last = 0;
    std::function<void(const TraceLine &)> listener;
};
TraceStore &store()
{
    static auto *instance = new TraceStore;
    return *instance;
}

struct Spec {
    bool left = false, zero = false, plus = false, blank = false, alternate = false;
    int width = 0, precision = -1;
    enum { plain, byte, half, wide, quad } size = plain;
};

void pad(std::string &out, const std::string &s, const Spec &spec, bool number)
{
    const auto width = static_cast<std::size_t>(std::max(spec.width, 0));
    if (s.size() >= width) {
        out += s;
    } else if (spec.left) {
        out += s + std::string(width - s.size(), ' ');
    } else if (spec.zero && number && spec.precision < 0) {
        const std::size_t sign = !s.empty() && (s[0] == '-' || s[0] == '+' || s[0] == ' ') ? 1 : 0;
        out += s.substr(0, sign) + std::string(width - s.size(), '0') + s.substr(sign);
    } else {
        out += std::string(width - s.size(), ' ') + s;
    }
}

std::string digits(std::uint64_t value, unsigned base, bool upper, int precision)
{
    static constexpr char kLower[] = "0123456789abcdef", kUpper[] = "0123456789ABCDEF";
    const char *figures = upper ? kUpper : kLower;
    char buffer[24]; // 22 octal figures are the most
    char *end = buffer + sizeof buffer, *begin = end;
    for (; value != 0; value /= base)
        *--begin = figures[value % base];
    if (begin == end && precision != 0)
        *--begin = '0';
    const auto length = static_cast<std::size_t>(end - begin);
    std::string s;
    if (precision > 0 && length < static_cast<std::size_t>(precision))
        s.assign(static_cast<std::size_t>(precision) - length, '0');
    return s.append(begin, length);
}

bool unicodeAllowed(const char *conversion)
{
    if (currentThread()->irql == PASSIVE_LEVEL)
        return true;
    violate("wide string printed above PASSIVE_LEVEL", "DbgPrint", conversion, 0xC4, 0x30);
    return false;
}

std::string limited(const wchar_t *string, int precision)
{
    std::size_t length = 0;
    while ((precision < 0 || length < static_cast<std::size_t>(precision)) && string[length] != 0)
        length++;
    return toUtf8(string, length);
}

std::string formatKernel(const char *format, va_list arguments)
{
    std::string out;
    for (const char *p = format; *p != 0; p++) {
        if (*p != '%') {
            out += *p;
            continue;
        }
        Spec spec;
        for (p++;; p++) {
            if (*p == '-') spec.left = true;
            else if (*p == '0') spec.zero = true;
            else if (*p == '+') spec.plus = true;
            else if (*p == ' ') spec.blank = true;
            else if (*p == '#') spec.alternate = true;
            else break;
        }
        if (*p == '*') {
            spec.width = va_arg(arguments, int);
            p++;
        } else {
            for (; *p >= '0' && *p <= '9'; p++)
                spec.width = spec.width * 10 + (*p - '0');
        }
        if (*p == '.') {
            spec.precision = 0;
            p++;
            if (*p == '*') {
                spec.precision = va_arg(arguments, int);
                p++;
            } else {
                for (; *p >= '0' && *p <= '9'; p++)
                    spec.precision = spec.precision * 10 + (*p - '0');
            }
        }
        if (strncmp(p, "I64", 3) == 0) {
            spec.size = Spec::quad;
            p += 3;
        } else if (strncmp(p, "ll", 2) == 0) {
            spec.size = Spec::quad;
            p += 2;
        } else if (strncmp(p, "hh", 2) == 0) {
            spec.size = Spec::byte;
            p += 2;
        } else if (*p == 'h') {
            spec.size = Spec::half;
            p++;
        } else if (*p == 'l' || *p == 'w') {
            spec.size = Spec::wide; // long has 32 bits on the platform: it matters to strings and characters only
            p++;
        } else if (*p == 'z' || *p == 'I') {
            spec.size = Spec::quad;
            p++;
        }
        switch (*p) {
        case 'd':
        case 'i': {
            std::int64_t value = spec.size == Spec::quad ? va_arg(arguments, long long) : va_arg(arguments, int);
            if (spec.size == Spec::half) value = static_cast<std::int16_t>(value);
            if (spec.size == Spec::byte) value = static_cast<std::int8_t>(value);
            const auto magnitude = value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
            std::string s = digits(magnitude, 10, false, spec.precision);
            const char *sign = value < 0 ? "-" : spec.plus ? "+" : spec.blank ? " " : "";
            pad(out, std::string(sign) + s, spec, true);
            break;
        }
        case 'u':
        case 'x':
        case 'X':
        case 'o': {
            std::uint64_t value = spec.size == Spec::quad ? va_arg(arguments, unsigned long long) : va_arg(arguments, unsigned);
            if (spec.size == Spec::half) value = static_cast<std::uint16_t>(value);
            if (spec.size == Spec::byte) value = static_cast<std::uint8_t>(value);
            std::string s = digits(value, *p == 'u' ? 10 : *p == 'o' ? 8 : 16, *p == 'X', spec.precision);
            if (spec.alternate && value != 0 && (*p == 'x' || *p == 'X'))
                s = std::string(*p == 'x' ? "0x" : "0X") + s;
            pad(out, s, spec, true);
            break;
        }
        case 'p': {
            const auto value = reinterpret_cast<std::uintptr_t>(va_arg(arguments, void *));
            pad(out, digits(value, 16, true, 16), spec, false);
            break;
        }
        case 'c':
        case 'C': {
            const int c = va_arg(arguments, int);
            const auto wide = static_cast<wchar_t>(c);
            pad(out, *p == 'C' || spec.size == Spec::wide ? toUtf8(&wide, 1) : std::string(1, static_cast<char>(c)), spec, false);
            break;
        }
        case 's':
        case 'S': {
            if ((*p == 'S') != (spec.size == Spec::wide)) {
                const auto *string = va_arg(arguments, const wchar_t *);
                if (string == nullptr)
                    pad(out, "(null)", spec, false);
                else if (unicodeAllowed("%ws"))
                    pad(out, limited(string, spec.precision), spec, false);
            } else {
                const auto *string = va_arg(arguments, const char *);
                std::string s = string == nullptr ? "(null)" : spec.precision >= 0 ? std::string(string, strnlen(string, static_cast<std::size_t>(spec.precision))) : std::string(string);
                pad(out, s, spec, false);
            }
            break;
        }
        case 'Z': {
            const auto *string = va_arg(arguments, const UNICODE_STRING *);
            if (string == nullptr || string->Buffer == nullptr)
                pad(out, "(null)", spec, false);
            else if (unicodeAllowed("%wZ"))
                pad(out, toUtf8(string), spec, false);
            break;
        }
        case '%':
            out += '%';
            break;
        case 0:
            return out;
        default:
            out += '%';
            out += *p;
            break;
        }
    }
    return out;
}

// "module(12), Routine() : ", perhaps after "ERROR! ".
bool parsePrefix(std::string_view text, TraceLine &line)
{
    constexpr std::string_view error = "ERROR! ", tail = "() : ";
    line.level = TraceLine::Level::normal;
    if (text.starts_with(error)) {
        line.level = TraceLine::Level::error;
        text.remove_prefix(error.size());
    }
    if (!text.ends_with(tail))
        return false;
    text.remove_suffix(tail.size());
    const auto open = text.find('('), close = text.find("), ");
    if (open == std::string_view::npos || close == std::string_view::npos || close < open + 2 || open == 0)
        return false;
    int number = 0;
    for (char c : text.substr(open + 1, close - open - 1)) {
        if (c < '0' || c > '9' || number > 10'000'000)
            return false;
        number = number * 10 + (c - '0');
    }
    line.module = text.substr(0, open);
    line.line = number;
    line.routine = text.substr(close + 3);
    return !line.routine.empty() && line.routine.find_first_of(" \n") == std::string::npos;
}

void emit(TraceLine line)
{
    TraceStore &s = store();
    line.thread = currentThread()->id;
    line.time = Ticks(systemTime());
    std::function<void(const TraceLine &)> listener;
    {
        std::lock_guard guard(s.lock);
        line.number = ++s.last;
        listener = s.listener;
        s.lines.push_back(line);
        while (s.lines.size() > s.capacity)
            s.lines.pop_front();
    }
    if (listener)
        listener(line);
}

} // namespace

void resetTrace()
{
    __atomic_store_n(&NtosDebugListens, 0, __ATOMIC_RELEASE);
    std::lock_guard guard(store().lock);
    store().lines.clear();
    store().last = 0;
    store().listener = nullptr;
    store().capacity = 65536;
}

void Trace::enable(bool on)
{
    __atomic_store_n(&NtosDebugListens, on ? 1 : 0, __ATOMIC_RELEASE);
}

bool Trace::enabled() const
{
    return __atomic_load_n(&NtosDebugListens, __ATOMIC_ACQUIRE) != 0;
}

void Trace::setCapacity(std::size_t lines)
{
    std::lock_guard guard(store().lock);
    store().capacity = lines;
}

void Trace::setListener(std::function<void(const TraceLine &)> listener)
{
    if (listener)
        enable(true);
    std::lock_guard guard(store().lock);
    store().listener = std::move(listener);
}

std::uint64_t Trace::mark() const
{
    std::lock_guard guard(store().lock);
    return store().last;
}

std::vector<TraceLine> Trace::since(std::uint64_t mark) const
{
    std::vector<TraceLine> found;
    std::lock_guard guard(store().lock);
    for (const TraceLine &line : store().lines)
        if (line.number > mark)
            found.push_back(line);
    return found;
}

std::vector<std::string> Trace::texts(std::uint64_t mark) const
{
    std::vector<std::string> found;
    for (const TraceLine &line : since(mark))
        found.push_back((line.level == TraceLine::Level::error ? "ERROR! " : "") + line.text);
    return found;
}

bool Trace::contains(std::string_view text, std::uint64_t mark) const
{
    std::lock_guard guard(store().lock);
    for (const TraceLine &line : store().lines)
        if (line.number > mark && line.text == text)
            return true;
    return false;
}

void Trace::clear()
{
    std::lock_guard guard(store().lock);
    store().lines.clear();
}

} // namespace ntos

using namespace ntos;

extern "C" {

int NtosDebugListens = 0;

ULONG NtosDebugPrint(PCSTR Format, ...)
{
    va_list arguments;
    va_start(arguments, Format);
    std::string text = formatKernel(Format, arguments);
    va_end(arguments);
    if (text.size() > 511)
        text.resize(511); // the platform's print buffer
    _KTHREAD *thread = currentThread();
    TraceLine line;
    if (!thread->pendingPrefix.empty()) {
        parsePrefix(thread->pendingPrefix, line);
        thread->pendingPrefix.clear();
        line.text = std::move(text);
        emit(std::move(line));
    } else if (parsePrefix(text, line)) {
        thread->pendingPrefix = std::move(text);
    } else {
        line = {};
        line.text = std::move(text);
        emit(std::move(line));
    }
    return STATUS_SUCCESS;
}

} // extern "C"
