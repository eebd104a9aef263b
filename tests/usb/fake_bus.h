// A USB stack made to be awkward, and a camera device on top of it. The stack serves reads on any number of processors
// at once, inside the call that sends them, late, with errors or not at all, whatever a test tells it; its commands
// succeed.
#pragma once

#include "assembly.h"

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
// What a selected setting gives the streaming pipe.
inline const auto kPipeHandle = reinterpret_cast<USBD_PIPE_HANDLE>(0x1234);
constexpr unsigned kOneFrame = (kWidth + 4) * kHeight; // of the stream

// What a read brings.
struct Answer {
    NTSTATUS status = STATUS_SUCCESS;
    std::size_t length = 0;
};

class FakeBus {
public:
    explicit FakeBus(ntos::Machine &machine, unsigned bufferBytes = kBuffer);
    ~FakeBus();
    FakeBus(const FakeBus &) = delete;

    // Runs a routine inside the camera driver, in the calling thread at PASSIVE_LEVEL.
    void run(const std::function<void(PDEVICE_OBJECT)> &routine);
    NTSTATUS status(NTSTATUS (*routine)(PDEVICE_OBJECT));
    // The camera is idle, and nothing of a stream or capture is left.
    void expectIdle();

    // Reads are served by this many threads from now on; 0: they stay on the pipe.
    void serve(unsigned processors);
    std::size_t waiting(); // on the pipe
    // The oldest that is waiting; without an answer of its own it is filled as every other one.
    bool completeOne(std::optional<Answer> with = {});

    // The given one of the driver's allocations of requests and MDLs fails, until the faults are turned off.
    void failAllocation(unsigned number);

    DEVICE_EXTENSION *ext;
    // Reads are answered before the call that sends them returns.
    std::atomic<bool> synchronous{false};
    std::atomic<bool> abortFails{false};
    // Fills a read, in the order of the pipe; called with the pipe locked. At first: the lines of one frame after the
    // other.
    std::function<Answer(std::uint8_t *data, std::size_t size)> answer;
    // Called when a read arrives, before it is on the pipe.
    std::function<void()> onRead;
    std::function<void(std::uint8_t command, std::uint8_t argument)> onCommand;
    std::atomic<unsigned> deepest{0}; // nesting of reads sent inside completions
    std::vector<ULONG> lengths;       // of the reads, in the order they arrived

    NTSTATUS dispatch(PIRP irp);
    void cancelled(PIRP irp);

private:
    NTSTATUS read(PIRP irp, _URB_BULK_OR_INTERRUPT_TRANSFER &transfer);
    void finish(PIRP irp, const Answer &brought);
    void work();

    ntos::Machine &machine_;
    ntos::File camera_;
    std::size_t requestsBefore_;
    std::mutex lock_;
    std::condition_variable arrived_;
    std::deque<PIRP> pipe_;
    bool serving_ = false;
    std::vector<std::thread> servers_;
    Bytes frame_; // the stream of the frame being sent
    std::size_t sent_ = 0;
    unsigned frameNumber_ = 0;
    std::atomic<unsigned> allocations_{0};
};

} // namespace usbtest
