#pragma once
// A plugin object, alone or with one simulated device on loopback, with the stand-in host reset around each
// test.

#include <gtest/gtest.h>

#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace plugin_test {

class PluginTest : public ::testing::Test {
protected:
    void SetUp() override { zelt_standin::Host::instance().reset(); }
    void TearDown() override {
        plugin.stopPlugin();
        zelt_standin::Host::instance().reset();
    }

    Modbus plugin;
};

class PluginAndSimulatorTest : public ::testing::Test {
protected:
    void SetUp() override {
        zelt_standin::Host::instance().reset();
        ASSERT_TRUE(sim.start());
    }
    void TearDown() override {
        plugin.stopPlugin();
        sim.stop();
        zelt_standin::Host::instance().reset();
    }

    modbus_sim::Simulator sim;
    Modbus plugin;
};

// A rule that answers matching requests with a Modbus exception.
inline modbus_sim::FaultRule exceptionFault(int function, int exceptionCode, int address = -1) {
    modbus_sim::FaultRule fault;
    fault.kind = modbus_sim::FaultKind::Exception;
    fault.function = function;
    fault.exceptionCode = exceptionCode;
    fault.address = address;
    return fault;
}

}  // namespace plugin_test
