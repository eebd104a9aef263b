// Ports of a machine that runs in this process.
#include "client/port.h"

#include "ntos/machine.h"

#include <cstring>

namespace vqt {

struct Port::Handle {
    ntos::File file;
};

Port::Port() = default;
Port::Port(Port &&) noexcept = default;
Port &Port::operator=(Port &&) noexcept = default;
Port::~Port() = default;

Port Port::open(std::string_view name)
{
    Port port;
    port.name_ = name;
    ntos::Machine *machine = ntos::Machine::current();
    if (machine == nullptr)
        return port;
    ntos::File file = machine->open(name);
    port.status_ = file.status();
    if (file)
        port.handle_ = std::make_unique<Handle>(Handle{std::move(file)});
    return port;
}

std::vector<std::string> Port::interfaceLinks(const USBCAM_GUID &interfaceClass)
{
    ntos::Machine *machine = ntos::Machine::current();
    if (machine == nullptr)
        return {};
    ntos::Guid guid{interfaceClass.Data1, interfaceClass.Data2, interfaceClass.Data3, {}};
    std::memcpy(guid.data4, interfaceClass.Data4, sizeof guid.data4);
    return machine->interfaces(guid);
}

Port::operator bool() const
{
    return handle_ != nullptr;
}

void Port::close()
{
    handle_.reset();
}

IoResult Port::deviceControl(std::uint32_t code, ConstBytes in, Bytes out)
{
    if (!handle_)
        return {ntStatus(0xC0000008), 0}; // STATUS_INVALID_HANDLE
    const ntos::Result result = handle_->file.deviceControl(code, in, out);
    return {result.status, result.information};
}

} // namespace vqt
