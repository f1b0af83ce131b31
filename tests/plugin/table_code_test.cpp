// Items whose stored "register_type" names none of the four tables: never read, with an item error, also when
// another request of the poll is refused or requests are in flight.

#include <gtest/gtest.h>

#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"

using plugin_test::Batch;
using plugin_test::exceptionFault;
using plugin_test::makeDevice;
using plugin_test::makeItem;

namespace {

const QString kInvalidRegisterType = QStringLiteral("Invalid register type");

class TableCodeTest : public plugin_test::PluginAndSimulatorTest,
                      public ::testing::WithParamInterface<const char*> {};

TEST_P(TableCodeTest, AnItemOfAnUnknownTableIsReadNowhereAndGetsAnError) {
    sim.setHoldingRegisters(0, {11, 12, 13});
    sim.setInputRegisters(0, {21, 22, 23});
    // A refused read in the same poll makes the plugin learn holes.
    sim.addFault(exceptionFault(3, 2, 2));
    for (const char* window : {"1", "4"}) {
        SCOPED_TRACE(window);
        sim.clearRequestLog();
        Batch batch(makeDevice(1, sim.port(), {{"max_outstanding_requests", window}, {"read_gaps", "0"}}));
        batch.add(makeItem("holding", "0", "3", "2"));
        batch.add(makeItem("hole", "2", "3", "2"));
        batch.add(makeItem("input", "1", "2", "2"));
        batch.add(makeItem("unknown", "1", GetParam(), "2"));
        EXPECT_TRUE(plugin.readData(&batch.list)) << batch.list.device.lastError.toStdString();
        EXPECT_EQ(batch.value("holding"), QStringLiteral("11"));
        EXPECT_EQ(batch.value("input"), QStringLiteral("22"));
        EXPECT_EQ(batch.error("hole"), QStringLiteral("Illegal data address"));
        EXPECT_EQ(batch.value("unknown"), QString());
        EXPECT_EQ(batch.error("unknown"), kInvalidRegisterType);
        for (const modbus_sim::RequestRecord& record : sim.requestLog()) {
            if (record.function == 4) {
                EXPECT_EQ(record.address, 1);
                EXPECT_EQ(record.count, 1);
            }
        }
        EXPECT_EQ(sim.requestCount(4), 1);
    }
}

TEST_P(TableCodeTest, WithRequestsInFlightNoOtherTableIsAskedInItsPlace) {
    sim.setHoldingRegisters(0, {11});
    sim.setHoldingRegisters(100, {12});
    sim.setInputRegisters(0, {21});
    Batch batch(makeDevice(1, sim.port(), {{"max_outstanding_requests", "8"}, {"read_gaps", "0"}}));
    batch.add(makeItem("first", "0", "3", "2"));
    batch.add(makeItem("second", "100", "3", "2"));
    batch.add(makeItem("unknown", "0", GetParam(), "2"));
    EXPECT_TRUE(plugin.readData(&batch.list)) << batch.list.device.lastError.toStdString();
    EXPECT_EQ(batch.value("first"), QStringLiteral("11"));
    EXPECT_EQ(batch.value("second"), QStringLiteral("12"));
    EXPECT_EQ(batch.value("unknown"), QString());
    EXPECT_EQ(batch.error("unknown"), kInvalidRegisterType);
    EXPECT_EQ(sim.requestCount(4), 0);
    EXPECT_EQ(sim.requestCount(3), 2);
}

// 5 and above, 260 (which narrows to the unresolved Auto code 4) and -1 (which narrows to 255).
INSTANTIATE_TEST_SUITE_P(Codes, TableCodeTest, ::testing::Values("5", "260", "-1", "255", "1000"));

}  // namespace
