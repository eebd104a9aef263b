// Helpers for building USB requests.
#pragma once

#include <usb.h>

typedef struct _USBD_INTERFACE_LIST_ENTRY {
    PUSB_INTERFACE_DESCRIPTOR InterfaceDescriptor;
    PUSBD_INTERFACE_INFORMATION Interface;
} USBD_INTERFACE_LIST_ENTRY, *PUSBD_INTERFACE_LIST_ENTRY;

#define GET_SELECT_CONFIGURATION_REQUEST_SIZE(totalInterfaces, totalPipes)                                        \
    (sizeof(struct _URB_SELECT_CONFIGURATION) + (((totalInterfaces)-1) * sizeof(USBD_INTERFACE_INFORMATION)) +    \
     (((totalPipes) - (totalInterfaces)) * sizeof(USBD_PIPE_INFORMATION)))
#define GET_SELECT_INTERFACE_REQUEST_SIZE(totalPipes) \
    (sizeof(struct _URB_SELECT_INTERFACE) + (((totalPipes)-1) * sizeof(USBD_PIPE_INFORMATION)))
#define GET_USBD_INTERFACE_SIZE(numEndpoints) \
    (sizeof(USBD_INTERFACE_INFORMATION) + (sizeof(USBD_PIPE_INFORMATION) * (numEndpoints)) - sizeof(USBD_PIPE_INFORMATION))

#define UsbBuildGetDescriptorRequest(urb, length, descriptorType, descriptorIndex, languageId, transferBuffer, \
                                     transferBufferMDL, transferBufferLength, link)                           \
    {                                                                                                         \
        (urb)->UrbHeader.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;                                  \
        (urb)->UrbHeader.Length = (length);                                                                   \
        (urb)->UrbControlDescriptorRequest.TransferBufferLength = (transferBufferLength);                     \
        (urb)->UrbControlDescriptorRequest.TransferBufferMDL = (transferBufferMDL);                           \
        (urb)->UrbControlDescriptorRequest.TransferBuffer = (transferBuffer);                                 \
        (urb)->UrbControlDescriptorRequest.DescriptorType = (descriptorType);                                 \
        (urb)->UrbControlDescriptorRequest.Index = (descriptorIndex);                                         \
        (urb)->UrbControlDescriptorRequest.LanguageId = (languageId);                                         \
        (urb)->UrbControlDescriptorRequest.UrbLink = (link);                                                  \
    }

extern "C" {
// The next interface descriptor from StartPosition on that matches (-1 matches anything), or null.
PUSB_INTERFACE_DESCRIPTOR USBD_ParseConfigurationDescriptorEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                                              PVOID StartPosition, LONG InterfaceNumber,
                                                              LONG AlternateSetting, LONG InterfaceClass,
                                                              LONG InterfaceSubClass, LONG InterfaceProtocol);
// A select-configuration request for the listed interfaces (the list ends with a null descriptor), from pool: the caller
// frees it with ExFreePool. Fills in Interface of each entry. Null without memory.
PURB USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                       PUSBD_INTERFACE_LIST_ENTRY InterfaceList);
}
