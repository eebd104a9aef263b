// Camera commands that applications need by name, over the driver's command request.
#include "client/camera.h"

#include <algorithm>

namespace vqt {
namespace {

constexpr std::uint8_t kGetInfo = 0x11;
constexpr std::uint8_t kGetInfoEx = 0x12;
constexpr std::uint8_t kReadFlash = 0x18;
constexpr std::uint8_t kReadRegister = 0x1E;
constexpr std::uint8_t kWriteRegister = 0x1F;
constexpr std::uint8_t kSetFrequency = 0x2C;

constexpr std::uint32_t kFlashTop = 0x8000; // the defect list ends below it
constexpr std::uint32_t kBadPixelSize = 5;  // bytes of a record in the flash
constexpr std::uint32_t kMaxBadPixels = kFlashTop / kBadPixelSize;
constexpr std::uint32_t kRecordsPerRead = 6;

std::uint16_t little16(ConstBytes bytes, std::size_t offset)
{
    return static_cast<std::uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}

std::uint32_t little32(ConstBytes bytes, std::size_t offset)
{
    return little16(bytes, offset) | std::uint32_t{little16(bytes, offset + 2)} << 16;
}

struct Model {
    std::uint16_t chips[3];
    std::uint16_t hwModelId;
    const char *name;
};

constexpr Model kModels[] = {
    {{0x8411, 0x8421, 0x8431}, 27, "VQT-42R1C"}, {{0x8411, 0x8421, 0x8431}, 28, "VQT-42R1M"},
    {{0x8511, 0x8511, 0x8511}, 29, "VQT-42R2C"}, {{0x8511, 0x8511, 0x8511}, 30, "VQT-42R2M"},
    {{0x1611, 0x1621, 0x1621}, 31, "VQT-42R3C"}, {{0x1611, 0x1621, 0x1621}, 32, "VQT-42R3M"},
};

const Model *findModel(std::uint16_t chipId, std::uint16_t hwModelId)
{
    for (const Model &model : kModels)
        if (model.hwModelId == hwModelId && std::ranges::find(model.chips, chipId) != std::end(model.chips))
            return &model;
    return nullptr;
}

} // namespace

std::string CameraInfo::modelName() const
{
    const Model *model = findModel(chipId, hwModelId);
    return model ? model->name : "unknown model";
}

bool CameraInfo::identified() const
{
    return findModel(chipId, hwModelId) != nullptr;
}

Result<CameraInfo> Camera::info()
{
    const auto shortReply = hwCommand(kGetInfo);
    if (!shortReply)
        return shortReply.error();
    const auto longReply = hwCommand(kGetInfoEx);
    if (!longReply)
        return longReply.error();
    if (shortReply.value().size() < 9 || longReply.value().size() < 16)
        return Error{status::kUnsuccessful,
                     "camera " + std::string(1, deviceId_) +
                         ": its information is shorter than it has to be; its firmware is too old"};
    const auto chip = readRegister(0);
    if (!chip)
        return chip.error();

    CameraInfo info;
    info.usb2 = (shortReply.value()[7] & 0x80) != 0;
    const std::uint8_t frequency = shortReply.value()[8];
    if (frequency == 2 || frequency == 10 || frequency == 18)
        info.frequencyIndex = frequency / 8u;
    const ConstBytes bytes = longReply.value();
    info.hwModelId = little16(bytes, 0);
    info.batch = little16(bytes, 2);
    info.serial = little32(bytes, 4);
    info.board = little16(bytes, 8);
    info.firmware = little16(bytes, 10);
    info.badPixels = little32(bytes, 12);
    info.chipId = chip.value();
    return info;
}

Result<std::uint16_t> Camera::readRegister(std::uint8_t number)
{
    const auto reply = hwCommand(kReadRegister, ConstBytes(&number, 1));
    if (!reply)
        return reply.error();
    if (reply.value().size() < 2)
        return Error{status::kUnsuccessful, "camera " + std::string(1, deviceId_) + ": register " +
                                                std::to_string(number) +
                                                " was not answered; unplug it and plug it in again"};
    return static_cast<std::uint16_t>(reply.value()[0] << 8 | reply.value()[1]);
}

Done Camera::writeRegister(std::uint8_t number, std::uint16_t value)
{
    const std::uint8_t arguments[3] = {number, static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8)};
    const auto reply = hwCommand(kWriteRegister, arguments, 0);
    return reply ? Done(Nothing{}) : Done(reply.error());
}

Result<std::vector<std::uint8_t>> Camera::readFlash(std::uint16_t address, std::uint16_t length)
{
    const std::uint8_t arguments[4] = {static_cast<std::uint8_t>(address), static_cast<std::uint8_t>(address >> 8),
                                       static_cast<std::uint8_t>(length), static_cast<std::uint8_t>(length >> 8)};
    auto reply = hwCommand(kReadFlash, arguments, length);
    if (reply && reply.value().size() != length)
        return Error{status::kUnsuccessful, "camera " + std::string(1, deviceId_) + ": the flash answered " +
                                                std::to_string(reply.value().size()) + " bytes instead of " +
                                                std::to_string(length) + "; one read has at most 63"};
    return reply;
}

Done Camera::setFrequency(std::uint8_t index)
{
    const auto reply = hwCommand(kSetFrequency, ConstBytes(&index, 1), 0);
    return reply ? Done(Nothing{}) : Done(reply.error());
}

Result<std::vector<BadPixel>> Camera::badPixels()
{
    const auto about = info();
    if (!about)
        return about.error();
    const std::uint32_t count = about.value().badPixels;
    if (count > kMaxBadPixels)
        return Error{status::kUnsuccessful, "camera " + std::string(1, deviceId_) + ": the flash claims " +
                                                std::to_string(count) + " bad pixels but has room for " +
                                                std::to_string(kMaxBadPixels) + "; its list was never written"};
    std::vector<BadPixel> list;
    list.reserve(count);
    while (list.size() < count) {
        const std::uint32_t left = count - static_cast<std::uint32_t>(list.size());
        const auto length = static_cast<std::uint16_t>(std::min(left, kRecordsPerRead) * kBadPixelSize);
        const auto bytes = readFlash(static_cast<std::uint16_t>(kFlashTop - kBadPixelSize * left), length);
        if (!bytes)
            return bytes.error();
        for (std::size_t at = 0; at < length; at += kBadPixelSize)
            list.push_back({little16(bytes.value(), at), little16(bytes.value(), at + 2), bytes.value()[at + 4]});
    }
    return list;
}

} // namespace vqt
