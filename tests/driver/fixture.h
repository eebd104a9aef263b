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
    Rig rig;
};

} // namespace rig
