#include "wire.h"

extern "C" NTSTATUS SimbusDriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath);

namespace wire {

std::mutex removals;

namespace {

// ---------------------------------------------------------------------------- the bare function driver

std::atomic<PDEVICE_OBJECT> newestLower{nullptr};

PDEVICE_OBJECT &lowerOf(PDEVICE_OBJECT device)
{
    return *static_cast<PDEVICE_OBJECT *>(device->DeviceExtension);
}

NTSTATUS addDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo)
{
    PDEVICE_OBJECT self = nullptr;
    const NTSTATUS status = IoCreateDevice(driver, sizeof pdo, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &self);
    if (!NT_SUCCESS(status))
        return status;
    newestLower = lowerOf(self) = IoAttachDeviceToDeviceStack(self, pdo);
    self->Flags |= lowerOf(self)->Flags & DO_POWER_PAGABLE;
    self->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

NTSTATUS passDown(PDEVICE_OBJECT device, PIRP irp)
{
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(lowerOf(device), irp);
}

NTSTATUS pnp(PDEVICE_OBJECT device, PIRP irp)
{
    const UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
    if (minor == IRP_MN_SURPRISE_REMOVAL) {
        const std::lock_guard wait(removals);
    }
    const PDEVICE_OBJECT lower = lowerOf(device);
    const NTSTATUS status = passDown(device, irp);
    if (minor == IRP_MN_REMOVE_DEVICE) {
        IoDetachDevice(lower);
        IoDeleteDevice(device);
    }
    return status;
}

NTSTATUS power(PDEVICE_OBJECT device, PIRP irp)
{
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(lowerOf(device), irp);
}

NTSTATUS functionEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    driver->DriverExtension->AddDevice = addDevice;
    driver->DriverUnload = [](PDRIVER_OBJECT) {};
    driver->MajorFunction[IRP_MJ_PNP] = pnp;
    driver->MajorFunction[IRP_MJ_POWER] = power;
    driver->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = passDown;
    return STATUS_SUCCESS;
}

} // namespace

// ---------------------------------------------------------------------------------------------- transfers

Transfer::Transfer(const Camera &camera, USHORT function, std::size_t urbLength, const Bytes &data, bool useMdl)
    : storage_(std::max(sizeof(URB), urbLength)), urb(*reinterpret_cast<URB *>(storage_.data())), device_(camera.lower),
      irp_(IoAllocateIrp(static_cast<CCHAR>(camera.lower->StackSize + 1), FALSE))
{
    urb.UrbHeader.Length = static_cast<USHORT>(urbLength);
    urb.UrbHeader.Function = function;
    if (data.empty())
        return;
    memory_ = static_cast<std::uint8_t *>(ExAllocatePoolWithTag(NonPagedPool, data.size(), 'refT'));
    std::copy(data.begin(), data.end(), memory_);
    // Memory and length stand at the same place in every URB that transfers.
    auto &transfer = urb.UrbBulkOrInterruptTransfer;
    transfer.TransferBufferLength = static_cast<ULONG>(data.size());
    if (useMdl) {
        transfer.TransferBufferMDL = mdl_ =
            IoAllocateMdl(memory_, transfer.TransferBufferLength, FALSE, FALSE, nullptr);
        MmBuildMdlForNonPagedPool(mdl_);
    } else {
        transfer.TransferBuffer = memory_;
    }
}

Transfer::~Transfer()
{
    if (sent_)
        wait();
    IoFreeIrp(irp_);
    if (mdl_ != nullptr)
        IoFreeMdl(mdl_);
    if (memory_ != nullptr)
        ExFreePoolWithTag(memory_, 'refT'); // which finds out whether somebody wrote beyond it
}

NTSTATUS Transfer::onComplete(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    Transfer *self = static_cast<Transfer *>(context);
    const std::lock_guard lock(self->mutex_);
    self->status = irp->IoStatus.Status;
    self->irql = KeGetCurrentIrql();
    self->thread = KeGetCurrentThread();
    ++self->completions;
    self->done_.notify_all();
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS Transfer::send()
{
    sent_ = true;
    PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp_);
    stack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    stack->Parameters.DeviceIoControl.IoControlCode = static_cast<ULONG>(IOCTL_INTERNAL_USB_SUBMIT_URB);
    stack->Parameters.Others.Argument1 = &urb;
    IoSetCompletionRoutine(irp_, onComplete, this, TRUE, TRUE, TRUE);
    return IoCallDriver(device_, irp_);
}

Transfer &Transfer::wait()
{
    std::unique_lock lock(mutex_);
    if (!done_.wait_for(lock, std::chrono::seconds(30), [&] { return completions != 0; })) {
        std::fputs("a transfer never completed\n", stderr);
        std::abort(); // its memory is still in the bus's hands
    }
    return *this;
}

void Transfer::cancel()
{
    IoCancelIrp(irp_);
}

USBD_STATUS Transfer::usbStatus() const
{
    return urb.UrbHeader.Status;
}

std::size_t Transfer::received() const
{
    return urb.UrbBulkOrInterruptTransfer.TransferBufferLength;
}

Bytes Transfer::bytes() const
{
    return Bytes(memory_, memory_ + received());
}

Read::Read(const Camera &camera, std::size_t length, USBD_PIPE_HANDLE pipe, bool shortOk, bool useMdl)
    : Transfer(camera, URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER, sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER), Bytes(length),
               useMdl)
{
    urb.UrbBulkOrInterruptTransfer.PipeHandle = pipe != nullptr ? pipe : camera.pipe();
    urb.UrbBulkOrInterruptTransfer.TransferFlags = USBD_TRANSFER_DIRECTION_IN | (shortOk ? USBD_SHORT_TRANSFER_OK : 0u);
}

Half::Half(const Camera &camera, bool in, const Bytes &bytes)
    : Transfer(camera, URB_FUNCTION_VENDOR_DEVICE, sizeof(_URB_CONTROL_VENDOR_OR_CLASS_REQUEST), bytes)
{
    auto &request = urb.UrbControlVendorClassRequest;
    request.TransferFlags = in ? USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK : 0u;
    request.Request = 0xB0;
}

// ------------------------------------------------------------------------------------------------ cameras

Bytes Camera::command(const Bytes &command)
{
    Half out(*this, false, command), in(*this, true);
    for (Half *half : {&out, &in}) {
        half->send();
        EXPECT_EQ(half->wait().status, STATUS_SUCCESS);
    }
    Bytes reply = in.bytes();
    if (reply.empty() || reply[0] != 0x90) {
        ADD_FAILURE() << "command " << int(command[0]) << " was not carried out";
        return Bytes(63);
    }
    reply.erase(reply.begin());
    return reply;
}

std::uint16_t Camera::readRegister(std::uint8_t index)
{
    const Bytes value = command({0x1E, index});
    EXPECT_EQ(value.size(), 2u);
    return static_cast<std::uint16_t>(value[0] << 8 | value[1]);
}

void Camera::writeRegister(std::uint8_t index, std::uint16_t value)
{
    EXPECT_TRUE(
        command({0x1F, index, static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8)}).empty());
}

void Camera::window(unsigned width, unsigned height)
{
    writeRegister(0x04, static_cast<std::uint16_t>(width - 1));
    writeRegister(0x03, static_cast<std::uint16_t>(height - 1));
}

void Camera::run(bool on)
{
    const std::uint16_t mode = readRegister(0x1E);
    writeRegister(0x1E, static_cast<std::uint16_t>(on ? mode & ~0x0100 : mode | 0x0100));
}

Bytes Camera::readStream(std::size_t bytes)
{
    Read read(*this, bytes);
    read.send();
    EXPECT_EQ(read.wait().status, STATUS_SUCCESS);
    return read.bytes();
}

Bytes Camera::descriptor(std::uint8_t type, std::uint8_t index, std::size_t length, USBD_STATUS status)
{
    Transfer transfer(*this, URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE, sizeof(_URB_CONTROL_DESCRIPTOR_REQUEST),
                      Bytes(length));
    transfer.urb.UrbControlDescriptorRequest.DescriptorType = type;
    transfer.urb.UrbControlDescriptorRequest.Index = index;
    transfer.send();
    EXPECT_EQ(transfer.wait().usbStatus(), status);
    return transfer.bytes();
}

NTSTATUS Camera::select(int alternate)
{
    Bytes bytes = descriptor(USB_CONFIGURATION_DESCRIPTOR_TYPE, 1, 4096);
    const auto configuration = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes.data());
    const auto *setting = USBD_ParseConfigurationDescriptorEx(configuration, configuration, 0, alternate, -1, -1, -1);
    const std::size_t endpoints = setting != nullptr ? setting->bNumEndpoints : 0;
    const std::size_t interfaceBytes =
        offsetof(USBD_INTERFACE_INFORMATION, Pipes) + endpoints * sizeof(USBD_PIPE_INFORMATION);
    Transfer transfer(*this, URB_FUNCTION_SELECT_CONFIGURATION,
                      offsetof(_URB_SELECT_CONFIGURATION, Interface) + interfaceBytes);
    auto &request = transfer.urb.UrbSelectConfiguration;
    request.ConfigurationDescriptor = configuration;
    request.Interface.Length = static_cast<USHORT>(interfaceBytes);
    request.Interface.AlternateSetting = static_cast<UCHAR>(alternate);
    request.Interface.NumberOfPipes = static_cast<ULONG>(endpoints);
    transfer.send();
    if (NT_SUCCESS(transfer.wait().status))
        pipes.assign(request.Interface.Pipes, request.Interface.Pipes + endpoints);
    return transfer.status;
}

USBD_PIPE_HANDLE Camera::pipe(std::uint8_t address) const
{
    for (const USBD_PIPE_INFORMATION &pipe : pipes)
        if (pipe.EndpointAddress == address)
            return pipe.PipeHandle;
    return nullptr;
}

NTSTATUS Camera::pipeRequest(USHORT function, USBD_PIPE_HANDLE pipe)
{
    Transfer transfer(*this, function, sizeof(_URB_PIPE_REQUEST));
    transfer.urb.UrbPipeRequest.PipeHandle = pipe;
    transfer.send();
    return transfer.wait().status;
}

std::vector<unsigned> lineWords(const Bytes &stream, std::size_t lineBytes)
{
    std::vector<unsigned> words;
    for (std::size_t at = 0; at + 4 <= stream.size(); at += lineBytes) {
        EXPECT_EQ(stream[at] | stream[at + 1] << 8, 0x3CA5) << "at " << at;
        words.push_back(static_cast<unsigned>(stream[at + 2] | stream[at + 3] << 8));
    }
    return words;
}

// --------------------------------------------------------------------------------------------------- rig

Rig::Rig(const ntos::Options &options) : machine(options), bay(boot()) {}

vqt::Bay Rig::boot()
{
    machine.registerDriver({"simbus", SimbusDriverEntry, {VQT_SIMBUS_HARDWARE_ID}});
    machine.registerDriver({"bare", functionEntry, {VQT_SIMBUS_CAMERA_HARDWARE_ID}});
    machine.addRootDevice(VQT_SIMBUS_HARDWARE_ID);
    return vqt::Bay::open().value();
}

Rig::~Rig()
{
    bay.port().close();
    for (const std::string &leak : machine.shutdown().leaks)
        ADD_FAILURE() << leak;
}

Camera Rig::plug(vqt::PlugOptions options)
{
    newestLower = nullptr;
    options.pace = 0;
    Camera camera;
    camera.slot = bay.plug(options).value();
    machine.settle();
    camera.lower = newestLower;
    EXPECT_NE(camera.lower, nullptr);
    return camera;
}

void Rig::unplug(const Camera &camera)
{
    bay.unplug(camera.slot).value();
    machine.settle();
}

bool Rig::serve(const Camera &camera)
{
    std::uint32_t slot = camera.slot, moved = 0;
    EXPECT_TRUE(bay.port()
                    .deviceControl(simbus::kIoctlServe, {reinterpret_cast<std::uint8_t *>(&slot), sizeof slot},
                                   {reinterpret_cast<std::uint8_t *>(&moved), sizeof moved})
                    .ok());
    return moved != 0;
}

} // namespace wire
