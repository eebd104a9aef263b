#include "fake_bus.h"

#include "drv/usb/snapshot.h"
#include "drv/usb/stream.h"

#include <algorithm>
#include <cstring>

namespace usbtest {
namespace {

constexpr std::uint32_t kRunCode = 0x222000;
constexpr const char *kDriver = "testcamera";

FakeBus *theBus = nullptr;
PDEVICE_OBJECT theBusDevice = nullptr;
PDEVICE_OBJECT theCamera = nullptr;

// One configuration, one interface: setting 0 idle, 1 and 2 with the streaming pipe.
constexpr std::uint8_t kConfiguration[] = {9, 2, 50, 0, 1, 1,    0, 0x80, 250,                          // setting
                                           9, 4, 0,  0, 0, 0xFF, 0, 0,    0,                            // 0
                                           9, 4, 0,  1, 1, 0xFF, 0, 0,    0,   7, 5, 0x82, 2, 0, 2, 0,  // 1
                                           9, 4, 0,  2, 1, 0xFF, 0, 0,    0,   7, 5, 0x82, 2, 0, 2, 0}; // 2

NTSTATUS finishIrp(PIRP irp, NTSTATUS status)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

void busCancel(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    theBus->cancelled(irp);
}

NTSTATUS busDispatch(PDEVICE_OBJECT, PIRP irp)
{
    return theBus->dispatch(irp);
}

NTSTATUS cameraDispatch(PDEVICE_OBJECT device, PIRP irp)
{
    if (IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_DEVICE_CONTROL) {
        const std::function<void(PDEVICE_OBJECT)> *routine;
        std::memcpy(&routine, irp->AssociatedIrp.SystemBuffer, sizeof routine);
        (*routine)(device);
    }
    return finishIrp(irp, STATUS_SUCCESS);
}

void unload(PDRIVER_OBJECT)
{
    DEVICE_EXTENSION *ext = GetDevExt(theCamera);
    for (PUCHAR frame : ext->Frame)
        ExFreePoolWithTag(frame, kPoolTag);
    ExDeleteResourceLite(&ext->BufferLock);
    IoDeleteDevice(theCamera);
    IoDeleteDevice(theBusDevice);
}

NTSTATUS entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = busDispatch;
    for (const int major : {IRP_MJ_CREATE, IRP_MJ_CLOSE, IRP_MJ_CLEANUP, IRP_MJ_DEVICE_CONTROL})
        driver->MajorFunction[major] = cameraDispatch;
    driver->DriverUnload = unload;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\TestCamera");
    IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &theBusDevice);
    IoCreateDevice(driver, sizeof(DEVICE_EXTENSION), &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &theCamera);
    DEVICE_EXTENSION *ext = GetDevExt(theCamera);
    ext->LowerDeviceObject = theBusDevice;
    ext->DefAlt = 2;
    ext->Decimation = 1;
    ext->ModelNo = 1;
    ext->Width = kWidth;
    ext->Height = kHeight;
    ext->BitsPerPixel = 8;
    KeInitializeEvent(&ext->FrameReadyEv, NotificationEvent, FALSE);
    KeInitializeSemaphore(&ext->HwCommandSemaphore, 1, 0x7FFFFFFF);
    ExInitializeResourceLite(&ext->BufferLock);
    InitStreamControl(ext);
    for (PDEVICE_OBJECT device : {theBusDevice, theCamera})
        device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

} // namespace

FakeBus::FakeBus(ntos::Machine &machine, unsigned bufferBytes) : machine_(machine)
{
    theBus = this;
    machine.registerDriver({kDriver, entry, {}});
    if (machine.loadDriver(kDriver) < 0)
        std::abort();
    camera_ = machine.open("\\Device\\TestCamera");
    ext = GetDevExt(theCamera);
    ext->FrameBufSize = bufferBytes;
    for (PUCHAR &frame : ext->Frame)
        frame = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, kFrameHeaderSize + bufferBytes, kPoolTag));
    requestsBefore_ = machine.counters().requests;
    answer = [this](std::uint8_t *data, std::size_t size) {
        for (std::size_t at = 0; at < size; ++at) {
            if (sent_ == frame_.size()) {
                frame_ = Stream(kWidth).lines(0, kHeight - 1, frameNumber_++).bytes;
                sent_ = 0;
            }
            data[at] = frame_[sent_++];
        }
        return Answer{STATUS_SUCCESS, size};
    };
}

FakeBus::~FakeBus()
{
    serve(0);
    camera_.close();
    machine_.unloadDriver(kDriver);
    theBus = nullptr;
}

void FakeBus::run(const std::function<void(PDEVICE_OBJECT)> &routine)
{
    const auto *pointer = &routine;
    camera_.deviceControl(kRunCode, &pointer, sizeof pointer, nullptr, 0);
}

NTSTATUS FakeBus::status(NTSTATUS (*routine)(PDEVICE_OBJECT))
{
    NTSTATUS result = STATUS_PENDING;
    run([&](PDEVICE_OBJECT device) { result = routine(device); });
    return result;
}

void FakeBus::expectIdle()
{
    EXPECT_EQ(ReadOnce(ext->CameraStatus), CameraStopped);
    EXPECT_EQ(ReadOnce(ext->Claim), 0);
    EXPECT_EQ(ReadOnce(ext->PendingIrps), 0);
    for (const STREAM_CONTEXT &context : ext->StreamCtx)
        EXPECT_TRUE(context.Irp == nullptr && context.Mdl == nullptr);
    EXPECT_EQ(ext->Spare.Mdl, nullptr);
    EXPECT_EQ(KeReadStateSemaphore(&ext->StreamTurn), 1);
    EXPECT_EQ(waiting(), 0u);
    // The run request of another thread would count as well: tests ask when they are alone.
    EXPECT_EQ(machine_.counters().requests, requestsBefore_);
}

void FakeBus::serve(unsigned processors)
{
    {
        std::lock_guard guard(lock_);
        serving_ = false;
    }
    arrived_.notify_all();
    for (std::thread &server : servers_)
        server.join();
    servers_.clear();
    serving_ = processors != 0;
    for (unsigned number = 0; number < processors; ++number)
        servers_.emplace_back([this] { work(); });
}

std::size_t FakeBus::waiting()
{
    std::lock_guard guard(lock_);
    return pipe_.size();
}

void FakeBus::failAllocation(unsigned number)
{
    allocations_ = 0;
    machine_.faults().only({kDriver});
    machine_.faults().onlyRoutines({"IoAllocateIrp", "IoAllocateMdl"});
    machine_.faults().onCall(
        [this, number](const ntos::KernelCall &call) { return call.canFail && ++allocations_ == number; });
}

// ------------------------------------------------------------------------------------------------------- requests

namespace {

PURB urbOf(PIRP irp)
{
    // The bus is the lowest driver: the location is its own for as long as it holds the request.
    return static_cast<PURB>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1);
}

std::uint8_t *bufferOf(const _URB_BULK_OR_INTERRUPT_TRANSFER &urb)
{
    void *buffer = urb.TransferBuffer;
    if (urb.TransferBufferMDL != nullptr)
        buffer = MmGetSystemAddressForMdlSafe(urb.TransferBufferMDL, NormalPagePriority);
    return static_cast<std::uint8_t *>(buffer);
}

} // namespace

NTSTATUS FakeBus::dispatch(PIRP irp)
{
    const PURB urb = urbOf(irp);
    NTSTATUS status = STATUS_SUCCESS;
    switch (urb->UrbHeader.Function) {
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
        return read(irp, urb->UrbBulkOrInterruptTransfer);
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE: {
        _URB_CONTROL_DESCRIPTOR_REQUEST &request = urb->UrbControlDescriptorRequest;
        request.TransferBufferLength = std::min(request.TransferBufferLength, ULONG{sizeof kConfiguration});
        std::memcpy(request.TransferBuffer, kConfiguration, request.TransferBufferLength);
        break;
    }
    case URB_FUNCTION_SELECT_CONFIGURATION: {
        USBD_INTERFACE_INFORMATION &interface = urb->UrbSelectConfiguration.Interface;
        if (interface.NumberOfPipes != 0) {
            interface.Pipes[0].EndpointAddress = kStreamEndpoint;
            interface.Pipes[0].PipeType = UsbdPipeTypeBulk;
            interface.Pipes[0].PipeHandle = kPipeHandle;
        }
        break;
    }
    case URB_FUNCTION_ABORT_PIPE:
        while (!abortFails && completeOne(Answer{STATUS_CANCELLED, 0}))
            ;
        status = abortFails ? STATUS_DEVICE_DATA_ERROR : STATUS_SUCCESS;
        break;
    case URB_FUNCTION_VENDOR_DEVICE: {
        _URB_CONTROL_VENDOR_OR_CLASS_REQUEST &request = urb->UrbControlVendorClassRequest;
        auto *bytes = static_cast<std::uint8_t *>(request.TransferBuffer);
        if ((request.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0) {
            const std::uint8_t reply[] = {0x90, 0x12, 0x34};
            std::memcpy(bytes, reply, sizeof reply);
            request.TransferBufferLength = sizeof reply;
        } else if (onCommand) {
            onCommand(bytes[0], bytes[1]);
        }
        break;
    }
    default:
        status = STATUS_NOT_SUPPORTED;
    }
    return finishIrp(irp, status);
}

NTSTATUS FakeBus::read(PIRP irp, _URB_BULK_OR_INTERRUPT_TRANSFER &transfer)
{
    static thread_local unsigned depth = 0;
    if (onRead)
        onRead();
    std::unique_lock guard(lock_);
    lengths.push_back(transfer.TransferBufferLength);
    if (!synchronous) {
        IoMarkIrpPending(irp);
        // A request that was cancelled on its way is taken as if it were not: the stack is awkward.
        IoSetCancelRoutine(irp, busCancel);
        pipe_.push_back(irp);
        arrived_.notify_one();
        return STATUS_PENDING;
    }
    const Answer brought = answer(bufferOf(transfer), transfer.TransferBufferLength);
    guard.unlock();
    deepest = std::max(deepest.load(), ++depth);
    finish(irp, brought);
    --depth;
    return brought.status;
}

// Takes the oldest read off the pipe, fills and completes it. Reads are filled in the order of the pipe, but nothing
// keeps the order in which the threads that took them complete them.
bool FakeBus::completeOne(std::optional<Answer> with)
{
    std::unique_lock guard(lock_);
    for (auto at = pipe_.begin(); at != pipe_.end(); ++at) {
        const PIRP irp = *at;
        if (IoSetCancelRoutine(irp, nullptr) == nullptr)
            continue; // its cancel routine is on the way and takes it off the pipe
        pipe_.erase(at);
        _URB_BULK_OR_INTERRUPT_TRANSFER &transfer = urbOf(irp)->UrbBulkOrInterruptTransfer;
        const Answer brought = with ? *with : answer(bufferOf(transfer), transfer.TransferBufferLength);
        guard.unlock();
        finish(irp, brought);
        return true;
    }
    return false;
}

void FakeBus::finish(PIRP irp, const Answer &brought)
{
    _URB_BULK_OR_INTERRUPT_TRANSFER &transfer = urbOf(irp)->UrbBulkOrInterruptTransfer;
    transfer.TransferBufferLength = static_cast<ULONG>(brought.length);
    transfer.Hdr.Status = NT_SUCCESS(brought.status) ? USBD_STATUS_SUCCESS : static_cast<USBD_STATUS>(0xC0000004);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    finishIrp(irp, brought.status);
    KeLowerIrql(old);
}

void FakeBus::cancelled(PIRP irp)
{
    {
        std::lock_guard guard(lock_);
        pipe_.erase(std::find(pipe_.begin(), pipe_.end(), irp));
    }
    finish(irp, {STATUS_CANCELLED, 0});
}

void FakeBus::work()
{
    for (;;) {
        {
            std::unique_lock guard(lock_);
            arrived_.wait(guard, [this] { return !pipe_.empty() || !serving_; });
            if (!serving_)
                return;
        }
        if (!completeOne())
            std::this_thread::yield();
    }
}

} // namespace usbtest
