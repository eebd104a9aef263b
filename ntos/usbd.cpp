// Helpers of the USB driver interface: finding interfaces in a configuration descriptor and asking for them.
#include <usbdlib.h>

#include <algorithm>

#include "ntos/memory.h"

using namespace ntos;

namespace {

// The descriptor at the place if it lies whole inside the configuration.
const USB_COMMON_DESCRIPTOR *descriptorAt(const std::uint8_t *place, const std::uint8_t *end)
{
    if (end - place < static_cast<std::ptrdiff_t>(sizeof(USB_COMMON_DESCRIPTOR)))
        return nullptr;
    auto *descriptor = reinterpret_cast<const USB_COMMON_DESCRIPTOR *>(place);
    if (descriptor->bLength < sizeof(USB_COMMON_DESCRIPTOR) || descriptor->bLength > end - place)
        return nullptr;
    return descriptor;
}

} // namespace

extern "C" {

PUSB_INTERFACE_DESCRIPTOR USBD_ParseConfigurationDescriptorEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                                              PVOID StartPosition, LONG InterfaceNumber,
                                                              LONG AlternateSetting, LONG InterfaceClass,
                                                              LONG InterfaceSubClass, LONG InterfaceProtocol)
{
    NTOS_DOOR(USBD_ParseConfigurationDescriptorEx, APC_LEVEL, false);
    enter(kDoor);
    auto *place = static_cast<std::uint8_t *>(StartPosition);
    const auto *end = reinterpret_cast<const std::uint8_t *>(ConfigurationDescriptor) + ConfigurationDescriptor->wTotalLength;
    auto matches = [](LONG wanted, UCHAR value) { return wanted == -1 || wanted == value; };
    while (const USB_COMMON_DESCRIPTOR *common = descriptorAt(place, end)) {
        if (common->bDescriptorType == USB_INTERFACE_DESCRIPTOR_TYPE && common->bLength >= sizeof(USB_INTERFACE_DESCRIPTOR)) {
            auto *found = reinterpret_cast<PUSB_INTERFACE_DESCRIPTOR>(place);
            if (matches(InterfaceNumber, found->bInterfaceNumber) && matches(AlternateSetting, found->bAlternateSetting) &&
                matches(InterfaceClass, found->bInterfaceClass) && matches(InterfaceSubClass, found->bInterfaceSubClass) &&
                matches(InterfaceProtocol, found->bInterfaceProtocol))
                return found;
        }
        place += common->bLength;
    }
    return nullptr;
}

PURB USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                       PUSBD_INTERFACE_LIST_ENTRY InterfaceList)
{
    NTOS_DOOR(USBD_CreateConfigurationRequestEx, APC_LEVEL, true);
    if (enter(kDoor))
        return nullptr;
    std::size_t size = offsetof(struct _URB_SELECT_CONFIGURATION, Interface);
    for (auto *entry = InterfaceList; entry->InterfaceDescriptor != nullptr; entry++)
        size += GET_USBD_INTERFACE_SIZE(static_cast<std::size_t>(entry->InterfaceDescriptor->bNumEndpoints));
    const std::size_t whole = std::max(size, sizeof(struct _URB_SELECT_CONFIGURATION));
    if (whole > MAXUSHORT)
        return nullptr;
    auto *urb = static_cast<PURB>(poolAllocate(whole, 'DBSU', currentDriver()));
    if (urb == nullptr)
        return nullptr;
    RtlZeroMemory(urb, whole);
    urb->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    urb->UrbHeader.Length = static_cast<USHORT>(whole);
    urb->UrbSelectConfiguration.ConfigurationDescriptor = ConfigurationDescriptor;
    auto *place = reinterpret_cast<std::uint8_t *>(&urb->UrbSelectConfiguration.Interface);
    for (auto *entry = InterfaceList; entry->InterfaceDescriptor != nullptr; entry++) {
        auto *information = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(place);
        const std::size_t pipes = entry->InterfaceDescriptor->bNumEndpoints;
        information->Length = static_cast<USHORT>(GET_USBD_INTERFACE_SIZE(pipes));
        information->InterfaceNumber = entry->InterfaceDescriptor->bInterfaceNumber;
        information->AlternateSetting = entry->InterfaceDescriptor->bAlternateSetting;
        information->NumberOfPipes = static_cast<ULONG>(pipes);
        for (std::size_t i = 0; i < pipes; i++) {
            auto *pipe = reinterpret_cast<PUSBD_PIPE_INFORMATION>(place + offsetof(USBD_INTERFACE_INFORMATION, Pipes) +
                                                                  i * sizeof(USBD_PIPE_INFORMATION));
            pipe->MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;
        }
        entry->Interface = information;
        place += information->Length;
    }
    return urb;
}

} // extern "C"
