// A rig for each test: a broken rule of the kernel, or something left at shutdown, fails the test.
#pragma once

#include "rig.h"

#include <gtest/gtest.h>

namespace rig {

constexpr NtStatus kAnyFailure = 1;

inline void expectStatus(NtStatus got, NtStatus wanted)
{
    EXPECT_TRUE(wanted == kAnyFailure ? !ntos::succeeded(got) : got == wanted) << std::hex << got;
}

class DriverTest : public ::testing::Test {
protected:
    explicit DriverTest(const ntos::Options &options = {}) : rig(options)
    {
        rig.machine.verifier().setHandler([](const ntos::Violation &broken) { ADD_FAILURE() << broken.line(); });
    }
    void TearDown() override
    {
        EXPECT_EQ("", rig.finish());
    }
    // What is still there after the last camera has gone.
    std::string left()
    {
        std::string found = rig.ids().empty() ? "" : "a name ";
        found += rig.machine.symbolicLink("QorinInfer01r00") ? "a slave name " : "";
        found += rig.machine.deviceNameExists("\\Device\\UsbVQTR42X0") ? "a device " : "";
        found += vqt::Camera::listInterfaces().empty() ? "" : "an interface ";
        return found + (rig.machine.pool("42QV").blocks == 0 ? "" : "pool");
    }
    Rig rig;
};

} // namespace rig
