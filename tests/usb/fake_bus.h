// A USB stack made to be awkward, and a camera device on top of it. The stack serves reads on any number of processors
// at once, inside the call that sends them, late, with errors or not at all, whatever a test tells it; its commands
// succeed.
#pragma once

#include "assembly.h"

#include "drv/usb/stream.h"

#include <ntddk.h>
#include <usb.h>
#include <usbdlib.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace usbtest {

constexpr unsigned kWidth = 64, kHeight = 16; // 8 bits
constexpr unsigned kBuffer = (kWidth + 4) * (kHeight + 4) * 2;
constexpr unsigned kOneFrame = (kWidth + 4) * kHeight; // of the stream
// What a selected setting gives the streaming pipe.
inline const auto kPipeHandle = reinterpret_cast<USBD_PIPE_HANDLE>(0x1234);
constexpr const char *kTestDriver = "testcamera";

// What a read brings.
struct Answer {
    NTSTATUS status = STATUS_SUCCESS;
    std::size_t length = 0;
};

class FakeBus {
public:
    explicit FakeBus(ntos::Machine &machine, unsigned bufferBytes = kBuffer) : machine_(machine)
    {
        self_ = this;
        machine.registerDriver({kTestDriver, entry, {}});
        if (machine.loadDriver(kTestDriver) < 0)
            std::abort();
        camera_ = machine.open("\\Device\\TestCamera");
        ext = GetDevExt(cameraDevice_);
        ext->FrameBufSize = bufferBytes;
        for (unsigned index = 0; index < kFrameBuffers; ++index) {
            memory_[index].assign(kFrameHeaderSize + bufferBytes, 0xEE);
            ext->Frame[index] = memory_[index].data();
        }
        requestsBefore_ = machine.counters().requests;
    }
    ~FakeBus()
    {
        serve(0);
        camera_.close();
        machine_.unloadDriver(kTestDriver);
    }
    FakeBus(const FakeBus &) = delete;

    // Runs a routine inside the camera driver, in the calling thread at PASSIVE_LEVEL.
    NTSTATUS status(const std::function<NTSTATUS(PDEVICE_OBJECT)> &routine)
    {
        const auto *pointer = &routine;
        return camera_.deviceControl(0x222000, &pointer, sizeof pointer, nullptr, 0).status;
    }
    // The camera is idle, and nothing of a stream or capture is left.
    void expectIdle()
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

    // Reads are served by this many threads from now on; 0: they stay on the pipe.
    void serve(unsigned processors)
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
    std::size_t waiting() // on the pipe
    {
        std::lock_guard guard(lock_);
        return pipe_.size();
    }
    // Takes the oldest read off the pipe, fills and completes it; without an answer of its own it is filled as every
    // other one. Reads are filled in the order of the pipe, but nothing keeps the order in which the threads that took
    // them complete them.
    bool completeOne(std::optional<Answer> with = {})
    {
        std::unique_lock guard(lock_);
        for (auto at = pipe_.begin(); at != pipe_.end(); ++at) {
            const PIRP irp = *at;
            if (IoSetCancelRoutine(irp, nullptr) == nullptr)
                continue; // its cancel routine is on the way and takes it off the pipe
            pipe_.erase(at);
            const Answer brought = with ? *with : fill(irp);
            guard.unlock();
            finish(irp, brought);
            return true;
        }
        return false;
    }

    DEVICE_EXTENSION *ext;
    // Reads are answered before the call that sends them returns.
    std::atomic<bool> synchronous{false};
    std::atomic<bool> abortFails{false};
    // Fills a read, in the order of the pipe; called with the pipe locked. At first: the lines of one frame after the
    // other.
    std::function<Answer(std::uint8_t *data, std::size_t size)> answer = [this](std::uint8_t *data, std::size_t size) {
        for (std::size_t at = 0; at < size; ++at) {
            if (sent_ == frame_.size()) {
                frame_ = Stream(kWidth).lines(0, kHeight - 1, frameNumber_++).bytes;
                sent_ = 0;
            }
            data[at] = frame_[sent_++];
        }
        return Answer{STATUS_SUCCESS, size};
    };
    // Called when a read arrives, before it is on the pipe.
    std::function<void()> onRead = [] {};
    std::function<void(std::uint8_t command, std::uint8_t argument)> onCommand = [](auto...) {};
    std::atomic<unsigned> deepest{0}; // nesting of reads sent inside completions
    std::vector<ULONG> lengths;       // of the reads, in the order they arrived

private:
    // One configuration, one interface: setting 0 idle, 1 and 2 with the streaming pipe.
    static constexpr std::uint8_t kConfiguration[] = {9, 2, 50, 0, 1, 1,    0, 0x80, 250, // setting
                                                      9, 4, 0,  0, 0, 0xFF, 0, 0,    0,   // 0
                                                      9, 4, 0,  1, 1, 0xFF, 0, 0,    0,   7, 5, 0x82, 2, 0, 2, 0,  // 1
                                                      9, 4, 0,  2, 1, 0xFF, 0, 0,    0,   7, 5, 0x82, 2, 0, 2, 0}; // 2

    // --------------------------------------------------------------------------------------------- the two devices

    static NTSTATUS finishIrp(PIRP irp, NTSTATUS status)
    {
        irp->IoStatus.Status = status;
        irp->IoStatus.Information = 0;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    }
    static NTSTATUS cameraDispatch(PDEVICE_OBJECT device, PIRP irp)
    {
        if (IoGetCurrentIrpStackLocation(irp)->MajorFunction != IRP_MJ_DEVICE_CONTROL)
            return finishIrp(irp, STATUS_SUCCESS);
        const std::function<NTSTATUS(PDEVICE_OBJECT)> *routine;
        std::memcpy(&routine, irp->AssociatedIrp.SystemBuffer, sizeof routine);
        return finishIrp(irp, (*routine)(device));
    }
    static void unload(PDRIVER_OBJECT)
    {
        ExDeleteResourceLite(&GetDevExt(cameraDevice_)->BufferLock);
        IoDeleteDevice(cameraDevice_);
        IoDeleteDevice(busDevice_);
    }
    static NTSTATUS entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
    {
        driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = busDispatch;
        for (const int major : {IRP_MJ_CREATE, IRP_MJ_CLOSE, IRP_MJ_CLEANUP, IRP_MJ_DEVICE_CONTROL})
            driver->MajorFunction[major] = cameraDispatch;
        driver->DriverUnload = unload;
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"\\Device\\TestCamera");
        IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &busDevice_);
        IoCreateDevice(driver, sizeof(DEVICE_EXTENSION), &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &cameraDevice_);
        DEVICE_EXTENSION *ext = GetDevExt(cameraDevice_);
        ext->LowerDeviceObject = busDevice_;
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
        for (PDEVICE_OBJECT device : {busDevice_, cameraDevice_})
            device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
        return STATUS_SUCCESS;
    }

    // --------------------------------------------------------------------------------------------------- requests

    static PURB urbOf(PIRP irp)
    {
        // The bus is the lowest driver: the location is its own for as long as it holds the request.
        return static_cast<PURB>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1);
    }
    static NTSTATUS busDispatch(PDEVICE_OBJECT, PIRP irp)
    {
        const PURB urb = urbOf(irp);
        NTSTATUS status = STATUS_SUCCESS;
        switch (urb->UrbHeader.Function) {
        case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
            return self_->read(irp);
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
            if (self_->abortFails)
                status = STATUS_DEVICE_DATA_ERROR;
            else
                while (self_->completeOne(Answer{STATUS_CANCELLED, 0}))
                    ;
            break;
        case URB_FUNCTION_VENDOR_DEVICE: {
            _URB_CONTROL_VENDOR_OR_CLASS_REQUEST &request = urb->UrbControlVendorClassRequest;
            auto *bytes = static_cast<std::uint8_t *>(request.TransferBuffer);
            if ((request.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0) {
                const std::uint8_t reply[] = {0x90, 0x12, 0x34};
                std::memcpy(bytes, reply, sizeof reply);
                request.TransferBufferLength = sizeof reply;
            } else {
                self_->onCommand(bytes[0], bytes[1]);
            }
            break;
        }
        default:
            status = STATUS_NOT_SUPPORTED;
        }
        return finishIrp(irp, status);
    }

    NTSTATUS read(PIRP irp)
    {
        static thread_local unsigned depth = 0;
        onRead();
        std::unique_lock guard(lock_);
        lengths.push_back(urbOf(irp)->UrbBulkOrInterruptTransfer.TransferBufferLength);
        if (!synchronous) {
            IoMarkIrpPending(irp);
            // A request that was cancelled on its way is taken as if it were not: the stack is awkward.
            IoSetCancelRoutine(irp, cancelled);
            pipe_.push_back(irp);
            arrived_.notify_one();
            return STATUS_PENDING;
        }
        const Answer brought = fill(irp);
        guard.unlock();
        deepest = std::max(deepest.load(), ++depth);
        finish(irp, brought);
        --depth;
        return brought.status;
    }
    Answer fill(PIRP irp)
    {
        const _URB_BULK_OR_INTERRUPT_TRANSFER &urb = urbOf(irp)->UrbBulkOrInterruptTransfer;
        void *buffer = urb.TransferBufferMDL != nullptr
                           ? MmGetSystemAddressForMdlSafe(urb.TransferBufferMDL, NormalPagePriority)
                           : urb.TransferBuffer;
        return answer(static_cast<std::uint8_t *>(buffer), urb.TransferBufferLength);
    }
    static void finish(PIRP irp, const Answer &brought)
    {
        _URB_BULK_OR_INTERRUPT_TRANSFER &transfer = urbOf(irp)->UrbBulkOrInterruptTransfer;
        transfer.TransferBufferLength = static_cast<ULONG>(brought.length);
        transfer.Hdr.Status = NT_SUCCESS(brought.status) ? USBD_STATUS_SUCCESS : static_cast<USBD_STATUS>(0xC0000004);
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        finishIrp(irp, brought.status);
        KeLowerIrql(old);
    }
    static void cancelled(PDEVICE_OBJECT, PIRP irp)
    {
        IoReleaseCancelSpinLock(irp->CancelIrql);
        {
            std::lock_guard guard(self_->lock_);
            std::erase(self_->pipe_, irp);
        }
        finish(irp, {STATUS_CANCELLED, 0});
    }
    void work()
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

    static inline FakeBus *self_;
    static inline PDEVICE_OBJECT busDevice_, cameraDevice_;
    ntos::Machine &machine_;
    ntos::File camera_;
    std::array<Bytes, kFrameBuffers> memory_;
    std::size_t requestsBefore_;
    std::mutex lock_;
    std::condition_variable arrived_;
    std::deque<PIRP> pipe_;
    bool serving_ = false;
    std::vector<std::thread> servers_;
    Bytes frame_; // the stream of the frame being sent
    std::size_t sent_ = 0;
    unsigned frameNumber_ = 0;
};

} // namespace usbtest
