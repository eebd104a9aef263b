#include "client/camera.h"

#include <algorithm>
#include <cstring>

namespace vqt {
namespace {

template <class T> ConstBytes bytesOf(const T &record)
{
    return {reinterpret_cast<const std::uint8_t *>(&record), sizeof record};
}
template <class T> Bytes bytesOf(T &record)
{
    return {reinterpret_cast<std::uint8_t *>(&record), sizeof record};
}

std::vector<std::uint8_t> commandBytes(std::uint8_t code, ConstBytes arguments)
{
    std::vector<std::uint8_t> bytes;
    bytes.reserve(1 + arguments.size());
    bytes.push_back(code);
    bytes.insert(bytes.end(), arguments.begin(), arguments.end());
    return bytes;
}

// The number at the end of the interface class: 0 to 9 for the digits, 10 to 35 for the letters.
std::uint8_t deviceNumber(char deviceId)
{
    const std::size_t place = kDeviceIds.find(deviceId);
    return place == std::string_view::npos ? std::uint8_t{0xFF} : static_cast<std::uint8_t>(place);
}

} // namespace

// ------------------------------------------------------------------------------------------------------------------
// names

std::string Camera::dosName(char deviceId)
{
    return std::string("\\\\.\\UsbVQTR42Xx_") + deviceId;
}

std::string Camera::slaveName(char deviceId)
{
    return std::string("\\\\.\\QorinInfer01r0") + deviceId;
}

USBCAM_GUID Camera::interfaceClass(char deviceId)
{
    USBCAM_GUID guid = kUsbcamInterfaceClass;
    guid.Data4[7] = deviceNumber(deviceId);
    return guid;
}

Result<Camera> Camera::openName(char deviceId, const std::string &name)
{
    Port port = Port::open(name);
    if (!port)
        return Error{port.status(), "camera " + std::string(1, deviceId) + ": cannot open " + name + ": " +
                                        statusText(port.status()) + "; " + advice("open", port.status())};
    return Camera(deviceId, std::move(port));
}

Result<Camera> Camera::open(char deviceId)
{
    return openName(deviceId, dosName(deviceId));
}

Result<Camera> Camera::openSlave(char deviceId)
{
    return openName(deviceId, slaveName(deviceId));
}

Result<Camera> Camera::openInterface(char deviceId)
{
    const auto links = Port::interfaceLinks(interfaceClass(deviceId));
    if (links.empty())
        return Error{status::kObjectNameNotFound, "camera " + std::string(1, deviceId) + ": no enabled interface; " +
                                                      advice("open", status::kObjectNameNotFound)};
    return openName(deviceId, links.front());
}

std::vector<char> Camera::list()
{
    std::vector<char> found;
    for (const char id : kDeviceIds)
        if (Port::open(dosName(id)))
            found.push_back(id);
    return found;
}

std::vector<char> Camera::listInterfaces()
{
    std::vector<char> found;
    for (const char id : kDeviceIds)
        if (!Port::interfaceLinks(interfaceClass(id)).empty())
            found.push_back(id);
    return found;
}

// ---------------------------------------------------------------------------------------------------------------
// requests

Error Camera::failed(const char *request, NtStatus status) const
{
    return {status, "camera " + std::string(1, deviceId_) + ": " + request + " failed with " + statusText(status) +
                        "; " + advice(request, status)};
}

Result<std::size_t> Camera::transfer(const char *request, std::uint32_t code, ConstBytes in, Bytes out)
{
    const IoResult result = port_.deviceControl(code, in, out);
    // A limit that passed counts as success to the system; to a caller it is none.
    if (!result.ok() || result.status == status::kTimeout)
        return failed(request, result.status);
    return static_cast<std::size_t>(std::min<std::uint64_t>(result.information, out.size()));
}

// For requests whose output has one exact length: less is a driver that broke the contract.
Done Camera::send(const char *request, std::uint32_t code, ConstBytes in, Bytes out)
{
    const auto size = transfer(request, code, in, out);
    if (!size)
        return size.error();
    if (size.value() != out.size())
        return Error{status::kUnsuccessful, "camera " + std::string(1, deviceId_) + ": " + request + " answered " +
                                                std::to_string(size.value()) + " bytes instead of " +
                                                std::to_string(out.size()) +
                                                "; install the driver that belongs to this program"};
    return Nothing{};
}

Done Camera::setCameraStatus(std::uint8_t status)
{
    return send("SetCameraStatus", IOCTL_SetCameraStatus, bytesOf(std::as_const(status)));
}

Result<std::uint8_t> Camera::getCameraStatus()
{
    std::uint8_t status = 0;
    if (auto done = send("GetCameraStatus", IOCTL_GetCameraStatus, {}, bytesOf(status)); !done)
        return done.error();
    return status;
}

Result<CAMERA_STATE> Camera::getState()
{
    CAMERA_STATE state{};
    if (auto done = send("GetState", IOCTL_GetState, {}, bytesOf(state)); !done)
        return done.error();
    return state;
}

Result<Geometry> Camera::getFrameParameters()
{
    FRAME_PARAMETERS record{};
    if (auto done = send("GetFrameParameters", IOCTL_GetFrameParameters, {}, bytesOf(record)); !done)
        return done.error();
    return Geometry::of(record);
}

Done Camera::setFrameParameters(const Geometry &geometry)
{
    const FRAME_PARAMETERS record = geometry.record();
    return send("SetFrameParameters", IOCTL_SetFrameParameters, bytesOf(record));
}

Done Camera::setDefAlt(std::uint8_t setting)
{
    return send("SetDefAlt", IOCTL_SetDefAlt, bytesOf(std::as_const(setting)));
}

Done Camera::setBitsPerPixel(std::uint32_t bits)
{
    return send("SetBitsPerPixel", IOCTL_SetBitsPerPixel, bytesOf(std::as_const(bits)));
}

Result<std::uint32_t> Camera::getBitsPerPixel()
{
    std::uint32_t bits = 0;
    if (auto done = send("GetBitsPerPixel", IOCTL_GetBitsPerPixel, {}, bytesOf(bits)); !done)
        return done.error();
    return bits;
}

Result<std::size_t> Camera::getFrame(Bytes image)
{
    return transfer("GetFrame", IOCTL_GetFrame, {}, image);
}

Result<std::size_t> Camera::getFrameEx(Bytes headerAndImage)
{
    return transfer("GetFrameEx", IOCTL_GetFrameEx, {}, headerAndImage);
}

Result<FrameView> Camera::getFramePtr()
{
    std::uint64_t address = 0;
    if (auto done = send("GetFramePtr", IOCTL_GetFramePtr, {}, bytesOf(address)); !done)
        return done.error();
    const auto *start = reinterpret_cast<const std::uint8_t *>(static_cast<std::uintptr_t>(address));
    FrameView view;
    view.header = reinterpret_cast<const FRAME_HEADER *>(start);
    view.pixels = {start + kFrameHeaderSize, view.header->ImageSize};
    return view;
}

Result<std::size_t> Camera::getSnapshot(Bytes image)
{
    return transfer("GetSnapshot", IOCTL_GetSnapshot, {}, image);
}

Done Camera::cancelSnapshot()
{
    return send("CancelSnapshot", IOCTL_CancelSnapshot);
}

Done Camera::setSnapshotParams(std::uint32_t timeoutSeconds, bool externalTrigger)
{
    const SNAPSHOT_PARAMETERS record{timeoutSeconds, externalTrigger ? 1u : 0u};
    return send("SetSnapshotParams", IOCTL_SetSnapshotParams, bytesOf(record));
}

Result<std::vector<std::uint8_t>> Camera::hwCommand(std::uint8_t code, ConstBytes arguments, std::size_t capacity)
{
    const auto command = commandBytes(code, arguments);
    std::vector<std::uint8_t> reply(capacity);
    const auto size = transfer("HwCommand", IOCTL_HwCommand, command, reply);
    if (!size)
        return size.error();
    reply.resize(size.value());
    return reply;
}

Done Camera::usbWrite(std::uint8_t code, ConstBytes arguments)
{
    return send("USBWrite", IOCTL_USBWrite, commandBytes(code, arguments));
}

Result<std::vector<std::uint8_t>> Camera::usbRead(std::size_t capacity)
{
    std::vector<std::uint8_t> reply(capacity);
    const auto size = transfer("USBRead", IOCTL_USBRead, {}, reply);
    if (!size)
        return size.error();
    reply.resize(size.value());
    return reply;
}

Done Camera::slaveWrite(ConstBytes arguments)
{
    return send("SlaveWrite", IOCTL_SlaveWrite, arguments);
}

Result<std::vector<std::uint8_t>> Camera::slaveRead(std::size_t capacity)
{
    std::vector<std::uint8_t> reply(capacity);
    const auto size = transfer("SlaveRead", IOCTL_SlaveRead, {}, reply);
    if (!size)
        return size.error();
    reply.resize(size.value());
    return reply;
}

Result<std::size_t> Camera::mainRead(Bytes stream)
{
    return transfer("MainRead", IOCTL_MainRead, {}, stream);
}

Done Camera::resetPipe(std::uint8_t pipe)
{
    return send("ResetPipe", IOCTL_ResetPipe, bytesOf(std::as_const(pipe)));
}

Done Camera::setInterfaceType(std::uint8_t interfaceNumber, std::uint8_t setting)
{
    const std::uint8_t record[2] = {interfaceNumber, setting};
    return send("SetInterfaceType", IOCTL_SetInterfaceType, record);
}

// ----------------------------------------------------------------------------------------------------------- built on
// them

Result<std::size_t> Camera::imageSize()
{
    const auto geometry = getFrameParameters();
    if (!geometry)
        return geometry.error();
    const auto bits = getBitsPerPixel();
    if (!bits)
        return bits.error();
    const Geometry &window = geometry.value();
    return std::size_t{window.imageWidth()} * window.imageHeight() * (bits.value() == 8 ? 1 : 2);
}

Result<Frame> Camera::grab()
{
    const auto geometry = getFrameParameters();
    if (!geometry)
        return geometry.error();
    const auto size = imageSize();
    if (!size)
        return size.error();
    std::vector<std::uint8_t> buffer(kFrameHeaderSize + size.value());
    return grab(buffer, geometry.value().mono());
}

Result<Frame> Camera::grab(std::vector<std::uint8_t> &buffer, bool mono)
{
    for (;;) {
        const auto copied = getFrameEx(buffer);
        if (!copied)
            return copied.error();
        if (copied.value() < kFrameHeaderSize)
            return failed("GetFrameEx", status::kUnsuccessful);

        Frame frame;
        std::memcpy(&frame.header, buffer.data(), kFrameHeaderSize);
        const FRAME_HEADER &header = frame.header;
        // The camera was two frames further before the copy had begun: the buffer is being filled again.
        if (header.ImageSize == 0)
            continue;
        frame.image = {header.Width, header.Height, header.BitsPerPixel == 8 ? 8u : 10u, mono, {}};
        // A window that changed on the way leaves a frame whose header and length disagree: nothing to look at.
        if (frame.image.size() != copied.value() - kFrameHeaderSize)
            return Error{status::kUnsuccessful,
                         "camera " + std::string(1, deviceId_) +
                             ": the window changed while a frame was fetched; fetch the next one"};
        const auto image = buffer.begin() + kFrameHeaderSize;
        frame.image.data.assign(image, image + static_cast<std::ptrdiff_t>(frame.image.size()));
        return frame;
    }
}

Result<Image> Camera::snapshot()
{
    const auto geometry = getFrameParameters();
    if (!geometry)
        return geometry.error();
    const auto bits = getBitsPerPixel();
    if (!bits)
        return bits.error();
    Image image{
        geometry.value().imageWidth(), geometry.value().imageHeight(), bits.value(), geometry.value().mono(), {}};
    image.data.resize(image.size());
    const auto size = getSnapshot(image.data);
    if (!size)
        return size.error();
    if (size.value() != image.size())
        return Error{status::kUnsuccessful, "camera " + std::string(1, deviceId_) + ": the snapshot holds " +
                                                std::to_string(size.value()) + " of " + std::to_string(image.size()) +
                                                " bytes; lines were lost on the way, capture it again"};
    return image;
}

} // namespace vqt
