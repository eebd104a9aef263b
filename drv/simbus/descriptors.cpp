// The camera's descriptors, and what becomes of them when the host selects a configuration.
//
// Both configurations (indices 0 and 1, values 1 and 2) have one interface with three alternate settings:
//     0    no endpoints
//     1    bulk OUT 0x01, interrupt IN 0x81, bulk IN 0x82
//     2    bulk IN 0x82
// Bulk packets have 512 bytes at high speed and 64 at full speed. Lines come from 0x82 only; the OUT endpoint swallows what
// it is sent and the interrupt endpoint never has anything to say.
#include "usbstack.h"

namespace simbus {

namespace {

class BYTES {
public:
    void Put(ULONG Value) { Data_[Length_++] = static_cast<UCHAR>(Value); }
    void Put16(ULONG Value)
    {
        Put(Value & 0xFF);
        Put(Value >> 8);
    }
    void Set16(ULONG Offset, ULONG Value)
    {
        Data_[Offset] = static_cast<UCHAR>(Value);
        Data_[Offset + 1] = static_cast<UCHAR>(Value >> 8);
    }
    ULONG Length() const { return Length_; }
    const UCHAR *Data() const { return Data_; }

private:
    UCHAR Data_[128] = {};
    ULONG Length_ = 0;
};

void PutInterface(BYTES &Bytes, ULONG Alternate, ULONG Endpoints)
{
    Bytes.Put(9);
    Bytes.Put(USB_INTERFACE_DESCRIPTOR_TYPE);
    Bytes.Put(0);
    Bytes.Put(Alternate);
    Bytes.Put(Endpoints);
    for (ULONG i = 0; i < 3; ++i) Bytes.Put(0xFF);   // class, subclass, protocol: the vendor's
    Bytes.Put(0);
}

void PutEndpoint(BYTES &Bytes, ULONG Address, ULONG Type, ULONG PacketSize, ULONG Interval)
{
    Bytes.Put(7);
    Bytes.Put(USB_ENDPOINT_DESCRIPTOR_TYPE);
    Bytes.Put(Address);
    Bytes.Put(Type);
    Bytes.Put16(PacketSize);
    Bytes.Put(Interval);
}

void PutDevice(BYTES &Bytes)
{
    Bytes.Put(18);
    Bytes.Put(USB_DEVICE_DESCRIPTOR_TYPE);
    Bytes.Put16(0x0200);
    for (ULONG i = 0; i < 3; ++i) Bytes.Put(0xFF);
    Bytes.Put(kPacketLimit);
    Bytes.Put16(kVendorId);
    Bytes.Put16(kProductId);
    Bytes.Put16(0x0100);
    for (ULONG i = 0; i < 3; ++i) Bytes.Put(0);      // no strings
    Bytes.Put(2);
}

void PutConfiguration(BYTES &Bytes, ULONG Value, bool FullSpeed)
{
    const ULONG Packet = FullSpeed ? 64 : 512;
    Bytes.Put(9);
    Bytes.Put(USB_CONFIGURATION_DESCRIPTOR_TYPE);
    Bytes.Put16(0);
    Bytes.Put(1);
    Bytes.Put(Value);
    Bytes.Put(0);
    Bytes.Put(0x80);
    Bytes.Put(250);                                  // 500 mA
    PutInterface(Bytes, 0, 0);
    PutInterface(Bytes, 1, 3);
    PutEndpoint(Bytes, 0x01, USB_ENDPOINT_TYPE_BULK, Packet, 0);
    PutEndpoint(Bytes, 0x81, USB_ENDPOINT_TYPE_INTERRUPT, 64, FullSpeed ? 10 : 7);
    PutEndpoint(Bytes, kStreamEndpoint, USB_ENDPOINT_TYPE_BULK, Packet, 0);
    PutInterface(Bytes, 2, 1);
    PutEndpoint(Bytes, kStreamEndpoint, USB_ENDPOINT_TYPE_BULK, Packet, 0);
    Bytes.Set16(2, Bytes.Length());
}

ULONG CopyDescriptor(const UCHAR *From, ULONG Available, UCHAR *To, ULONG Length)
{
    const ULONG Count = Smaller(Available, Length);
    RtlCopyMemory(To, From, Count);
    return Count;
}

// The interface setting that the host asks for, as the descriptor in its hands describes it.
struct SETTING {
    const UCHAR *Interface;
    ULONG PipeCount;
    PIPE Pipes[kMaxPipes];
};

USBD_STATUS FindSetting(const UCHAR *Bytes, ULONG Length, UCHAR Number, UCHAR Alternate, SETTING *Setting)
{
    RtlZeroMemory(Setting, sizeof(*Setting));
    for (ULONG At = 0; Length - At >= 2;) {
        const UCHAR *Part = Bytes + At;
        if (Part[0] < 2 || Part[0] > Length - At) break;
        At += Part[0];
        if (Part[1] == USB_INTERFACE_DESCRIPTOR_TYPE && Part[0] >= 9) {
            if (Setting->Interface != nullptr) break;
            if (Part[2] == Number && Part[3] == Alternate) Setting->Interface = Part;
        } else if (Part[1] == USB_ENDPOINT_DESCRIPTOR_TYPE && Part[0] >= 7 && Setting->Interface != nullptr) {
            if (Setting->PipeCount == kMaxPipes) return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
            Setting->Pipes[Setting->PipeCount++] = {Part[2], static_cast<UCHAR>(Part[3] & 3),
                                                    static_cast<USHORT>(Part[4] | ULONG{Part[5]} << 8), Part[6]};
        }
    }
    if (Setting->Interface == nullptr) return USBD_STATUS_INTERFACE_NOT_FOUND;
    return Setting->Interface[4] == Setting->PipeCount ? USBD_STATUS_SUCCESS : USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;
}

// Ends what the old pipes had pending and opens the new ones. Alternate -1 and configuration 0: none.
void Open(CAMERA *Camera, ULONG Configuration, LONG Alternate, const SETTING *Setting, LIST_ENTRY *Done)
{
    TransferFinishAll(Camera, &Camera->Reads, USBD_STATUS_CANCELED, Done);
    TransferFinishAll(Camera, &Camera->Others, USBD_STATUS_CANCELED, Done);
    StreamDrop(Camera->Stream);
    SPIN_HOLD Hold(&Camera->Lock);
    ++Camera->Selections;
    Camera->Configuration = Configuration;
    Camera->Alternate = Alternate;
    Camera->Halted = false;
    Camera->PipeCount = Setting != nullptr ? Setting->PipeCount : 0;
    for (ULONG i = 0; i < Camera->PipeCount; ++i) Camera->Pipes[i] = Setting->Pipes[i];
}

}  // namespace

LONG PipeOf(const CAMERA *Camera, USBD_PIPE_HANDLE Handle)
{
    for (ULONG i = 0; i < Camera->PipeCount; ++i) {
        if (Handle == PipeHandle(Camera, i)) return static_cast<LONG>(i);
    }
    return -1;
}

// Never null, never that of an earlier selection, and no address.
USBD_PIPE_HANDLE PipeHandle(const CAMERA *Camera, ULONG Index)
{
    return reinterpret_cast<USBD_PIPE_HANDLE>((ULONG_PTR{Camera->Selections} << 8) + Index + 1);
}

ULONG DescriptorRead(CAMERA *Camera, UCHAR Type, UCHAR Index, UCHAR *To, ULONG Length, bool *Stalled)
{
    const bool Device = Type == USB_DEVICE_DESCRIPTOR_TYPE && Index == 0;
    const bool Configuration = Type == USB_CONFIGURATION_DESCRIPTOR_TYPE && Index < 2;
    *Stalled = !Device && !Configuration;
    if (*Stalled) return 0;
    const DESCRIPTOR_OVERRIDE &Override = Device ? Camera->DeviceDescriptor : Camera->ConfigurationDescriptors[Index];
    if (Override.Active) {
        *Stalled = Override.Stall;
        return Override.Stall ? 0 : CopyDescriptor(Override.Bytes, Override.Length, To, Length);
    }
    BYTES Bytes;
    if (Device) PutDevice(Bytes);
    else PutConfiguration(Bytes, Index + 1u, Camera->Identity.FullSpeed);
    return CopyDescriptor(Bytes.Data(), Bytes.Length(), To, Length);
}

USBD_STATUS ConfigurationSelect(CAMERA *Camera, _URB_SELECT_CONFIGURATION *Request, LIST_ENTRY *Done)
{
    const USB_CONFIGURATION_DESCRIPTOR *Descriptor = Request->ConfigurationDescriptor;
    if (Descriptor == nullptr) {
        Open(Camera, 0, -1, nullptr, Done);
        return USBD_STATUS_SUCCESS;
    }
    USBD_INTERFACE_INFORMATION &Interface = Request->Interface;
    constexpr ULONG kBefore = offsetof(_URB_SELECT_CONFIGURATION, Interface);
    constexpr ULONG kFixed = offsetof(USBD_INTERFACE_INFORMATION, Pipes);
    if (Request->Hdr.Length < kBefore + kFixed || Interface.NumberOfPipes > kMaxPipes) return USBD_STATUS_INVALID_PARAMETER;
    const ULONG Needed = kFixed + Interface.NumberOfPipes * ULONG{sizeof(USBD_PIPE_INFORMATION)};
    if (Interface.Length < Needed || Request->Hdr.Length < kBefore + Needed) return USBD_STATUS_INVALID_PARAMETER;
    if (Descriptor->bLength < 9 || Descriptor->wTotalLength < 9) return USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR;

    SETTING Setting;
    const USBD_STATUS Found = FindSetting(reinterpret_cast<const UCHAR *>(Descriptor), Descriptor->wTotalLength,
                                          Interface.InterfaceNumber, Interface.AlternateSetting, &Setting);
    if (Found != USBD_STATUS_SUCCESS) return Found;
    if (Setting.PipeCount != Interface.NumberOfPipes) return USBD_STATUS_INVALID_PARAMETER;
    // The device's own word: SET_CONFIGURATION and SET_INTERFACE stall for what it has not, whatever was read from it.
    const UCHAR Value = Descriptor->bConfigurationValue;
    if (Value < 1 || Value > 2 || Interface.InterfaceNumber != 0 || Interface.AlternateSetting > 2) return USBD_STATUS_STALL_PID;

    Open(Camera, Value, Interface.AlternateSetting, &Setting, Done);
    Request->ConfigurationHandle = reinterpret_cast<USBD_CONFIGURATION_HANDLE>(ULONG_PTR{Value});
    Interface.InterfaceHandle = reinterpret_cast<USBD_INTERFACE_HANDLE>(ULONG_PTR{Interface.AlternateSetting} + 1);
    Interface.Class = Setting.Interface[5];
    Interface.SubClass = Setting.Interface[6];
    Interface.Protocol = Setting.Interface[7];
    for (ULONG i = 0; i < Setting.PipeCount; ++i) {
        USBD_PIPE_INFORMATION &Pipe = Interface.Pipes[i];   // what the host asked for as transfer size stands
        Pipe.MaximumPacketSize = Setting.Pipes[i].PacketSize;
        Pipe.EndpointAddress = Setting.Pipes[i].Address;
        Pipe.Interval = Setting.Pipes[i].Interval;
        Pipe.PipeType = static_cast<USBD_PIPE_TYPE>(Setting.Pipes[i].Type);
        Pipe.PipeHandle = PipeHandle(Camera, i);
    }
    return USBD_STATUS_SUCCESS;
}

_Use_decl_annotations_
void UsbUnconfigure(CAMERA *Camera)
{
    LIST_ENTRY Done;
    InitializeListHead(&Done);
    {
        CAMERA_HOLD Hold(Camera);
        Open(Camera, 0, -1, nullptr, &Done);
    }
    TransferCompleteAll(&Done);
}

}  // namespace simbus
