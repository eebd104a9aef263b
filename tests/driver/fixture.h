// A rig for each test: a broken rule of the kernel, or something left at shutdown, fails the test.
#pragma once

#include "rig.h"

#include <gtest/gtest.h>

namespace rig {

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
