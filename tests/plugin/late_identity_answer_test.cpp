// Report Slave ID on a slow device: the probe waits as long as the device's response time-out, and an answer
// that comes later still is read whole and dropped, so that the next read gets its own answer on the same
// connection.

#include <gtest/gtest.h>

#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "common/time_scale.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;

namespace {

constexpr int kFunctionReportSlaveId = 17;
constexpr int kAnswerDelayMs = 700 * zelt_test::kTimeScale;
constexpr int kShortTimeoutMs = 500 * zelt_test::kTimeScale;

class LateIdentityAnswerTest : public plugin_test::PluginAndSimulatorTest {
protected:
    void SetUp() override {
        PluginAndSimulatorTest::SetUp();
        modbus_sim::DeviceIdentification identification;
        identification.enabled = false;  // FC 43 refused: the probe falls back to Report Slave ID
        sim.setDeviceIdentification(identification);
        sim.setReportSlaveId(QByteArray::fromHex("01FF") + QByteArray("METER-7"));
        modbus_sim::FaultRule slow;
        slow.kind = modbus_sim::FaultKind::Delay;
        slow.function = kFunctionReportSlaveId;
        slow.delayMs = kAnswerDelayMs;
        sim.addFault(slow);
        sim.setHoldingRegisters(0, {4242});
    }
};

TEST_F(LateIdentityAnswerTest, AnAnswerWithinTheResponseTimeOutIsTakenAndTheFirstReadIsRight) {
    Batch batch(
        makeDevice(1, sim.port(), {{"response_timeout_ms", QString::number(2000 * zelt_test::kTimeScale)}}));
    batch.add(makeItem("value", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&batch.list)) << batch.list.device.lastError.toStdString();
    EXPECT_EQ(batch.value("value"), QStringLiteral("4242"));
    EXPECT_EQ(batch.error("value"), QString());
    bool identified = false;
    for (const DataItem* dataItem : batch.list.dataItems)
        if (dataItem->values.value(QStringLiteral("value")).contains(QStringLiteral("METER-7")))
            identified = true;
    EXPECT_TRUE(identified);
    EXPECT_EQ(sim.acceptedConnections(), 1);
}

TEST_F(LateIdentityAnswerTest, AnAnswerAfterTheTimeOutIsDroppedAndTheReadGetsItsOwn) {
    // The probe gives up before the identity answer comes; the read sent then is still waiting when it
    // arrives, just ahead of the read's own answer.
    static_assert(kShortTimeoutMs < kAnswerDelayMs && kAnswerDelayMs < 2 * kShortTimeoutMs);
    Batch batch(makeDevice(1, sim.port(), {{"response_timeout_ms", QString::number(kShortTimeoutMs)}}));
    batch.add(makeItem("value", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&batch.list)) << batch.list.device.lastError.toStdString();
    EXPECT_EQ(sim.requestCount(kFunctionReportSlaveId), 1);
    EXPECT_EQ(sim.requestCount(3), 1);
    EXPECT_EQ(batch.value("value"), QStringLiteral("4242"));
    EXPECT_EQ(batch.error("value"), QString());
    EXPECT_EQ(sim.acceptedConnections(), 1);
}

}  // namespace
