// The driver's share of a running stream: completion routine, resubmission, assembly.
#include "report.h"
#include "rig.h"

#include "drv/usb/stream.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr Geometry kGeometry{1280, 1024, 8};
constexpr double kBytesPerSecond = 40e6;   // what USB 2.0 carries in practice

// A camera that streams: its reads are filled and completed by hand.
class Running {
public:
    explicit Running(unsigned number) : camera_(number, kGeometry), stream_(makeStream(kGeometry, number))
    {
        if (!NT_SUCCESS(SetMainPipeStatusOn(camera_.device()))) {
            std::abort();
        }
    }
    ~Running()
    {
        SetMainPipeStatusOff(camera_.device());
    }

    // Completes the oldest read with the next 48 KiB of an endless stream; the seconds the driver took.
    double block()
    {
        PIRP irp = camera_.takeRead();
        PURB urb = static_cast<PURB>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1);
        STREAM_CONTEXT *context = CONTAINING_RECORD(urb, STREAM_CONTEXT, Urb);
        for (std::size_t filled = 0; filled < kStreamBlockSize;) {
            const std::size_t length = std::min(kStreamBlockSize - filled, stream_.size() - at_);
            std::memcpy(context->Block + filled, stream_.data() + at_, length);
            filled += length;
            at_ = (at_ + length) % stream_.size();
        }
        urb->UrbBulkOrInterruptTransfer.TransferBufferLength = kStreamBlockSize;
        irp->IoStatus.Status = STATUS_SUCCESS;
        irp->IoStatus.Information = 0;
        KIRQL irql;
        KeRaiseIrql(DISPATCH_LEVEL, &irql);
        const Clock::time_point start = Clock::now();
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        KeLowerIrql(irql);
        return seconds;
    }

private:
    Camera camera_;
    std::vector<std::uint8_t> stream_;
    std::size_t at_ = 0;
};

std::vector<Ready> blockPath()
{
    Running camera(40);
    for (int i = 0; i < 500; ++i) {
        camera.block();
    }
    std::vector<double> times(20000);
    for (double &time : times) {
        time = camera.block() * 1e6;
    }
    std::sort(times.begin(), times.end());
    const double median = times[times.size() / 2];
    return {{"block_path_median", "us", median, 0}, {"block_path_p999", "us", times[times.size() * 999 / 1000], median}};
}

// Seconds of driver time that one second of streams costs, in percent of a core.
std::vector<Ready> streamCpu()
{
    std::vector<Ready> ready;
    double single = 0;
    for (unsigned cameras : {1u, 4u, 16u, 36u}) {
        std::vector<std::unique_ptr<Running>> running;
        for (unsigned i = 0; i < cameras; ++i) {
            running.push_back(std::make_unique<Running>(50 + i));
        }
        const int rounds = static_cast<int>(kBytesPerSecond / kStreamBlockSize);
        double best = 1e9;
        for (int repetition = 0; repetition < 5; ++repetition) {
            double total = 0;
            for (int round = 0; round < rounds; ++round) {
                for (auto &camera : running) {
                    total += camera->block();
                }
            }
            best = std::min(best, total);
        }
        const double percent = best * 100;
        single = cameras == 1 ? percent : single;
        // Held against as many times what one camera costs: 1 is linear.
        ready.push_back({"stream_cpu_" + std::to_string(cameras), "% core", percent, single * cameras});
    }
    return ready;
}

} // namespace

void addStream()
{
    add(blockPath);
    add(streamCpu);
}

} // namespace bench
