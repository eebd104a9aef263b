// The event log: packets of drivers, and the message texts that turn them into sentences.
#include <algorithm>
#include <cstring>
#include <fstream>

#include "ntos/clockwork.h"
#include "ntos/io.h"

namespace ntos {

namespace {

struct Packet {
    std::string device;
    std::size_t size;
    std::unique_ptr<std::uint64_t[]> memory;
};
struct Log {
    std::mutex lock;
    std::map<void *, Packet> packets; // allocated and not yet written
    std::vector<EventLogEntry> entries;
    std::map<std::uint32_t, std::string> messages;
};
Log &log()
{
    static auto *instance = new Log;
    return *instance;
}

std::string trim(const std::string &s)
{
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return {};
    return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

std::string render(const std::string &message, const EventLogEntry &entry)
{
    std::string text;
    for (std::size_t i = 0; i < message.size(); i++) {
        if (message[i] != '%' || i + 1 == message.size()) {
            text += message[i];
            continue;
        }
        const char next = message[++i];
        if (next == 'n')
            text += "\r\n";
        else if (next == '1')
            text += entry.device;
        else if (next >= '2' && next <= '9' && static_cast<std::size_t>(next - '2') < entry.strings.size())
            text += entry.strings[static_cast<std::size_t>(next - '2')];
        else
            text += next;
    }
    return text;
}

// Lists in the header: Name=(Word=0x5:SYMBOL Word2=0x3 ...)
std::map<std::string, std::uint32_t> parseNames(const std::string &value)
{
    std::map<std::string, std::uint32_t> names;
    std::size_t at = 0;
    while ((at = value.find('=', at)) != std::string::npos) {
        std::size_t begin = at;
        while (begin > 0 && (std::isalnum(static_cast<unsigned char>(value[begin - 1])) || value[begin - 1] == '_'))
            begin--;
        names[lowerCase(value.substr(begin, at - begin))] = static_cast<std::uint32_t>(std::strtoul(value.c_str() + at + 1, nullptr, 0));
        at++;
    }
    return names;
}

void write(void *memory)
{
    Log &l = log();
    std::lock_guard guard(l.lock);
    auto found = l.packets.find(memory);
    if (found == l.packets.end())
        return;
    const auto *packet = static_cast<const IO_ERROR_LOG_PACKET *>(memory);
    const auto *bytes = static_cast<const std::uint8_t *>(memory);
    EventLogEntry entry;
    entry.id = static_cast<std::uint32_t>(packet->ErrorCode);
    entry.severity = static_cast<EventLogEntry::Severity>(entry.id >> 30);
    entry.device = found->second.device;
    entry.finalStatus = packet->FinalStatus;
    entry.uniqueErrorValue = packet->UniqueErrorValue;
    entry.time = Ticks(systemTime());
    const std::size_t room = found->second.size - offsetof(IO_ERROR_LOG_PACKET, DumpData);
    entry.dump.resize(std::min<std::size_t>(packet->DumpDataSize, room) / 4);
    if (!entry.dump.empty())
        memcpy(entry.dump.data(), packet->DumpData, entry.dump.size() * 4);
    std::size_t offset = packet->StringOffset;
    for (unsigned i = 0; i < packet->NumberOfStrings && offset + 2 <= found->second.size; i++) {
        const auto *string = reinterpret_cast<const wchar_t *>(bytes + offset);
        std::size_t length = 0;
        while (offset + 2 * length + 2 <= found->second.size && string[length] != 0)
            length++;
        entry.strings.push_back(toUtf8(string, length));
        offset += 2 * length + 2;
    }
    if (auto message = l.messages.find(entry.id); message != l.messages.end())
        entry.text = render(message->second, entry);
    l.entries.push_back(std::move(entry));
    l.packets.erase(found);
}

} // namespace

std::size_t errorPacketsLeft()
{
    std::lock_guard guard(log().lock);
    return log().packets.size();
}

void resetErrorLog()
{
    std::lock_guard guard(log().lock);
    log().packets.clear();
    log().entries.clear();
    log().messages.clear();
}

bool EventLog::addMessageFile(const std::string &path)
{
    std::ifstream file(path);
    if (!file)
        return false;
    std::map<std::string, std::uint32_t> severities{{"success", 0}, {"informational", 1}, {"warning", 2}, {"error", 3}};
    std::map<std::string, std::uint32_t> facilities{{"system", 0xFF}, {"application", 0xFFF}};
    std::uint32_t id = 0, severity = 0, facility = 0xFFF, last = 0;
    bool inText = false;
    std::size_t found = 0;
    std::string line, body;
    while (std::getline(file, line)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (inText) {
            if (line == ".") {
                std::lock_guard guard(log().lock);
                log().messages[(severity << 30) | (facility << 16) | id] = body;
                found++;
                inText = false;
            } else {
                body += line + "\r\n";
            }
            continue;
        }
        const std::string plain = trim(line);
        if (plain.empty() || plain.front() == ';')
            continue;
        const auto equals = plain.find('=');
        if (equals == std::string::npos)
            continue;
        const std::string name = lowerCase(trim(plain.substr(0, equals)));
        std::string value = trim(plain.substr(equals + 1));
        if (name == "severitynames" || name == "facilitynames" || name == "languagenames") {
            while (value.find(')') == std::string::npos && std::getline(file, line))
                value += " " + line;
            if (name != "languagenames")
                for (auto &[word, number] : parseNames(value))
                    (name == "severitynames" ? severities : facilities)[word] = number;
        } else if (name == "messageid") {
            id = value.empty() ? last + 1 : static_cast<std::uint32_t>(std::strtoul(value.c_str(), nullptr, 0));
            last = id;
        } else if (name == "severity") {
            severity = severities[lowerCase(value)];
        } else if (name == "facility") {
            facility = facilities[lowerCase(value)];
        } else if (name == "language") {
            inText = true;
            body.clear();
        }
    }
    return found != 0;
}

std::optional<std::string> EventLog::message(std::uint32_t id) const
{
    std::lock_guard guard(log().lock);
    auto found = log().messages.find(id);
    if (found == log().messages.end())
        return {};
    return found->second;
}

std::vector<EventLogEntry> EventLog::entries() const
{
    std::lock_guard guard(log().lock);
    return log().entries;
}

void EventLog::clear()
{
    std::lock_guard guard(log().lock);
    log().entries.clear();
}

} // namespace ntos

using namespace ntos;

extern "C" {

PVOID IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize)
{
    NTOS_DOOR(IoAllocateErrorLogEntry, DISPATCH_LEVEL, true);
    if (enter(kDoor) || EntrySize < sizeof(IO_ERROR_LOG_PACKET) - sizeof(ULONG) || EntrySize > ERROR_LOG_MAXIMUM_SIZE)
        return nullptr;
    Packet packet;
    ObjectHeader *header = findObject(IoObject);
    packet.device = header != nullptr && header->type == ObjectType::device
                        ? static_cast<DeviceRecord *>(header)->name
                        : toUtf8(&static_cast<PDRIVER_OBJECT>(IoObject)->DriverName);
    packet.size = EntrySize;
    packet.memory = std::make_unique<std::uint64_t[]>((std::max<std::size_t>(EntrySize, sizeof(IO_ERROR_LOG_PACKET)) + 7) / 8);
    void *memory = packet.memory.get();
    std::lock_guard guard(log().lock);
    log().packets[memory] = std::move(packet);
    return memory;
}

void IoWriteErrorLogEntry(PVOID ElEntry)
{
    NTOS_DOOR(IoWriteErrorLogEntry, DISPATCH_LEVEL, false);
    enter(kDoor);
    write(ElEntry);
}

void IoFreeErrorLogEntry(PVOID ElEntry)
{
    NTOS_DOOR(IoFreeErrorLogEntry, DISPATCH_LEVEL, false);
    enter(kDoor);
    std::lock_guard guard(log().lock);
    log().packets.erase(ElEntry);
}

} // extern "C"
