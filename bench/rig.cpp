#include "rig.h"

#include "drv/usb/driver.h"
#include "drv/usb/stream.h"

#include <algorithm>
#include <cstring>
#include <deque>

extern "C" NTSTATUS BenchDriverEntry(PDRIVER_OBJECT, PUNICODE_STRING);

namespace bench {
namespace {

PDRIVER_OBJECT driverObject = nullptr;

// The lower device's extension: what its camera sent down and has not got back.
struct Lower {
    std::deque<PIRP> *reads;
};

// Configuration 1, interface 0, alternate setting 2 with one bulk IN endpoint of 512 bytes; 0 without any.
constexpr UCHAR kConfiguration[] = {
    9, 2, 34, 0, 1, 1, 0, 0x80, 250,          // configuration, 34 bytes in all
    9, 4, 0,  0, 0, 0xFF, 0, 0, 0,            // alternate setting 0
    9, 4, 0,  2, 1, 0xFF, 0, 0, 0,            // alternate setting 2
    7, 5, 0x82, 2, 0x00, 0x02, 0,
};
static_assert(sizeof(kConfiguration) == 34);

NTSTATUS completeNow(PIRP irp, NTSTATUS status)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS lowerInternalControl(PDEVICE_OBJECT device, PIRP irp)
{
    auto &reads = *static_cast<Lower *>(device->DeviceExtension)->reads;
    PURB urb = static_cast<PURB>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1);
    switch (urb->UrbHeader.Function) {
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE: {
        auto &request = urb->UrbControlDescriptorRequest;
        request.TransferBufferLength = std::min<ULONG>(request.TransferBufferLength, sizeof(kConfiguration));
        std::memcpy(request.TransferBuffer, kConfiguration, request.TransferBufferLength);
        return completeNow(irp, STATUS_SUCCESS);
    }
    case URB_FUNCTION_SELECT_CONFIGURATION:
        for (ULONG pipe = 0; pipe < urb->UrbSelectConfiguration.Interface.NumberOfPipes; ++pipe) {
            auto &information = urb->UrbSelectConfiguration.Interface.Pipes[pipe];
            information.EndpointAddress = kStreamEndpoint;
            information.PipeType = UsbdPipeTypeBulk;
            information.MaximumPacketSize = 512;
            information.PipeHandle = device;
        }
        return completeNow(irp, STATUS_SUCCESS);
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        IoMarkIrpPending(irp);
        reads.push_back(irp);
        return STATUS_PENDING;
    case URB_FUNCTION_ABORT_PIPE: {
        std::deque<PIRP> aborted;
        aborted.swap(reads);
        for (PIRP read : aborted) {
            KIRQL irql;
            KeRaiseIrql(DISPATCH_LEVEL, &irql);
            completeNow(read, STATUS_CANCELLED);
            KeLowerIrql(irql);
        }
        return completeNow(irp, STATUS_SUCCESS);
    }
    default:
        return completeNow(irp, STATUS_SUCCESS);
    }
}

NTSTATUS create(PDEVICE_OBJECT, PIRP irp)
{
    return completeNow(irp, STATUS_SUCCESS);
}

void unload(PDRIVER_OBJECT) {}

UNICODE_STRING counted(const std::u16string &text)
{
    UNICODE_STRING string;
    string.Buffer = const_cast<PWSTR>(reinterpret_cast<const WCHAR *>(text.c_str()));
    string.Length = static_cast<USHORT>(text.size() * 2);
    string.MaximumLength = static_cast<USHORT>(text.size() * 2 + 2);
    return string;
}

std::u16string wide(const std::string &text)
{
    return {text.begin(), text.end()};
}

} // namespace

std::vector<std::uint8_t> makeStream(const Geometry &geometry, std::uint64_t seed)
{
    std::mt19937_64 random(seed);
    std::vector<std::uint8_t> stream;
    stream.reserve((geometry.lineBytes() + 4) * std::size_t{geometry.height});
    for (ULONG line = 0; line < geometry.height; ++line) {
        stream.insert(stream.end(), {0xA5, 0x3C, static_cast<std::uint8_t>(line), static_cast<std::uint8_t>(line >> 8)});
        for (ULONG i = 0; i < geometry.lineBytes(); ++i) {
            stream.push_back(static_cast<std::uint8_t>(random() % 0xA5)); // pixels that look like no signature
        }
    }
    return stream;
}

BlockStream::BlockStream(const Geometry &geometry, std::uint64_t seed)
{
    cut(makeStream(geometry, seed));
}

BlockStream::BlockStream(const std::vector<std::uint8_t> &bytes)
{
    cut(bytes);
}

void BlockStream::cut(const std::vector<std::uint8_t> &bytes)
{
    bytes_ = bytes.size();
    const std::size_t blocks = (bytes.size() + kStreamBlockSize - 1) / kStreamBlockSize;
    storage_.resize(blocks * kStride);
    for (std::size_t i = 0; i < blocks; ++i) {
        const std::size_t offset = i * kStreamBlockSize;
        const std::size_t size = std::min<std::size_t>(kStreamBlockSize, bytes.size() - offset);
        sizes_.push_back(static_cast<ULONG>(size));
        std::memcpy(data(i), bytes.data() + offset, size);
    }
}

ntos::Machine &machine()
{
    static ntos::Machine instance;
    static const bool loaded = [] {
        instance.registerDriver({"bench", BenchDriverEntry, {}});
        return ntos::succeeded(instance.loadDriver("bench"));
    }();
    if (!loaded) {
        std::abort();
    }
    return instance;
}

Camera::Camera(unsigned number, const Geometry &geometry) : number_(number)
{
    machine();
    const std::u16string deviceName = wide("\\Device\\Bench" + std::to_string(number));
    const std::u16string linkName = wide("\\DosDevices\\Bench" + std::to_string(number));
    UNICODE_STRING deviceString = counted(deviceName);
    UNICODE_STRING linkString = counted(linkName);
    if (!NT_SUCCESS(IoCreateDevice(driverObject, sizeof(DEVICE_EXTENSION), &deviceString, FILE_DEVICE_UNKNOWN, 0, FALSE,
                                   &device_)) ||
        !NT_SUCCESS(IoCreateDevice(driverObject, sizeof(Lower), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &lower_)) ||
        !NT_SUCCESS(IoCreateSymbolicLink(&linkString, &deviceString))) {
        std::abort();
    }
    static_cast<Lower *>(lower_->DeviceExtension)->reads = new std::deque<PIRP>;
    ext_ = GetDevExt(device_);
    RtlZeroMemory(ext_, sizeof(*ext_));
    ext_->LowerDeviceObject = lower_;
    ext_->DeviceID = L'0';
    KeInitializeEvent(&ext_->FrameReadyEv, NotificationEvent, FALSE);
    KeInitializeSemaphore(&ext_->HwCommandSemaphore, 1, 0x7FFFFFFF);
    InitStreamControl(ext_);
    ExInitializeFastMutex(&ext_->MappingLock);
    ExInitializeResourceLite(&ext_->BufferLock);
    ext_->ModelNo = 3;
    ext_->IsMono = 1;
    ext_->MaxWidth = 2048;
    ext_->MaxHeight = 1536;
    ext_->DefAlt = 2;
    ext_->Decimation = 1;
    ext_->FrameBufSize = (ext_->MaxWidth + 4) * (ext_->MaxHeight + 4) * 2;
    for (PUCHAR &frame : ext_->Frame) {
        frame = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, kFrameHeaderSize + ext_->FrameBufSize, kPoolTag));
        RtlZeroMemory(frame, kFrameHeaderSize + ext_->FrameBufSize);
    }
    setGeometry(geometry);
    device_->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    lower_->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
}

Camera::~Camera()
{
    const std::u16string linkName = wide("\\DosDevices\\Bench" + std::to_string(number_));
    UNICODE_STRING linkString = counted(linkName);
    IoDeleteSymbolicLink(&linkString);
    for (PUCHAR frame : ext_->Frame) {
        ExFreePoolWithTag(frame, kPoolTag);
    }
    ExDeleteResourceLite(&ext_->BufferLock);
    delete static_cast<Lower *>(lower_->DeviceExtension)->reads;
    IoDeleteDevice(device_);
    IoDeleteDevice(lower_);
}

std::string Camera::name() const
{
    return "\\\\.\\Bench" + std::to_string(number_);
}

void Camera::setGeometry(const Geometry &geometry)
{
    ext_->Width = geometry.width;
    ext_->Height = geometry.height;
    ext_->BitsPerPixel = geometry.bits;
}

void Camera::setDefects(std::vector<BADPIX_RECORD> records)
{
    defects_ = std::move(records);
    ext_->BadPix = defects_.data();
    ext_->BadPixNum = static_cast<ULONG>(defects_.size());
}

PIRP Camera::takeRead()
{
    auto &reads = *static_cast<Lower *>(lower_->DeviceExtension)->reads;
    if (reads.empty()) {
        return nullptr;
    }
    PIRP irp = reads.front();
    reads.pop_front();
    return irp;
}

} // namespace bench

extern "C" NTSTATUS BenchDriverEntry(PDRIVER_OBJECT object, PUNICODE_STRING)
{
    bench::driverObject = object;
    object->MajorFunction[IRP_MJ_CREATE] = bench::create;
    object->MajorFunction[IRP_MJ_CLOSE] = USBCAM_DispatchClose;
    object->MajorFunction[IRP_MJ_DEVICE_CONTROL] = USBCAM_DispatchDeviceControl;
    object->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = bench::lowerInternalControl;
    object->DriverUnload = bench::unload;
    return STATUS_SUCCESS;
}
