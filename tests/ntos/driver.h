// A driver for the layer's own tests: a stack of two devices over a root-enumerated one, whose behaviour each test
// sets.
//
//   lower   unnamed, answers what reaches it
//   upper   \Device\NtTest, linked as \DosDevices\NtTest, forwards what it does not answer
#pragma once

#include <ntifs.h>
#include <usb.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ntos/machine.h"

namespace nt_test {

struct Behaviour {
    // Device control requests; null: the device's default (upper forwards, lower completes with STATUS_NOT_SUPPORTED).
    std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)> upper, lower;
    // Called before a Plug and Play or power request is handled; a failing status refuses it.
    std::function<NTSTATUS(PIO_STACK_LOCATION)> pnp, power;
    std::vector<UCHAR> pnpSeen;
    bool namedLinkLeft = false; // the upper device forgets its link at removal
    bool leakPool = false;
    PDEVICE_OBJECT upperDevice = nullptr, lowerDevice = nullptr;
};
extern Behaviour behaviour;

constexpr char kHardwareId[] = "root\\nttest";
constexpr char kName[] = "\\\\.\\NtTest";
constexpr std::uint32_t code(unsigned function, unsigned method)
{
    return (0x22u << 16) | (function << 2) | method;
}

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0);
NTSTATUS forward(PDEVICE_OBJECT device, PIRP irp); // copy, no completion routine
PDEVICE_OBJECT below(PDEVICE_OBJECT device);
extern "C" NTSTATUS NtTestEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registry);

// A booted machine with the device started. A violation that no test expects stops the program.
class LayerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        behaviour = {};
        machine.registerDriver({"nttest", NtTestEntry, {kHardwareId}, "Test Works"});
        device = machine.addRootDevice(kHardwareId);
        ASSERT_EQ(ntos::DeviceState::started, device.state());
    }
    void TearDown() override
    {
        const auto report = machine.shutdown();
        if (expectClean) {
            EXPECT_TRUE(report.clean()) << report.leaks.front();
        }
        behaviour = {};
    }
    // Runs the request and returns the violations it caused, as code and parameter.
    std::vector<std::pair<unsigned, unsigned>> violationsOf(const std::function<void()> &run);

    ntos::Machine machine{{.manualClock = true}};
    ntos::Device device;
    bool expectClean = true;
};

} // namespace nt_test
