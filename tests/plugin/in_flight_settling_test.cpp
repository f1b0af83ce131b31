// Reads answered while several requests are in flight settle as they do one at a time: no retry beyond
// "retries", and a stream that went out of step is not used again.

#include <gtest/gtest.h>

#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;

namespace {

constexpr int kBusyAddress = 20;
constexpr int kLastAddress = 40;

class InFlightSettlingTest : public plugin_test::PluginAndSimulatorTest {
protected:
    void SetUp() override {
        PluginAndSimulatorTest::SetUp();
        sim.setHoldingRegisters(0, {7});
        sim.setHoldingRegisters(kBusyAddress, {8});
        sim.setHoldingRegisters(kLastAddress, {9});
    }

    // Three items that three requests read (limit 10), in flight together.
    void addItems(Batch& batch) {
        batch.add(makeItem("a", "0", "3", "2"));
        batch.add(makeItem("b", QString::number(kBusyAddress), "3", "2"));
        batch.add(makeItem("c", QString::number(kLastAddress), "3", "2"));
        batch.add(makeItem("retries", "__diagnostics.retries", "3", "2"));
    }

    // Every read of the busy address is answered busy.
    void makeBusy() {
        modbus_sim::FaultRule busy;
        busy.kind = modbus_sim::FaultKind::BusyEvery;
        busy.function = 3;
        busy.address = kBusyAddress;
        busy.everyRequests = 1;
        sim.addFault(busy);
    }

    int readsOf(int address) const {
        int reads = 0;
        for (const modbus_sim::RequestRecord& record : sim.requestLog())
            if (record.function == 3 && record.address == address) ++reads;
        return reads;
    }
};

TEST_F(InFlightSettlingTest, WithoutRetriesABusyAnswerInFlightIsNotSentAgain) {
    makeBusy();
    Batch batch(makeDevice(1, sim.port(), {{"max_outstanding_requests", "4"}, {"max_read_registers", "10"}}));
    addItems(batch);
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Slave device or server is busy"));
    EXPECT_EQ(readsOf(kBusyAddress), 1);
    EXPECT_EQ(batch.error("b"), QStringLiteral("Slave device or server is busy"));
    EXPECT_EQ(batch.value("a"), QStringLiteral("7"));
    EXPECT_EQ(batch.value("c"), QStringLiteral("9"));
    EXPECT_EQ(batch.value("retries"), QStringLiteral("0"));
}

TEST_F(InFlightSettlingTest, WithOneRetryABusyAnswerInFlightIsSentOnceMore) {
    makeBusy();
    Batch batch(makeDevice(
        1, sim.port(), {{"max_outstanding_requests", "4"}, {"max_read_registers", "10"}, {"retries", "1"}}));
    addItems(batch);
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(readsOf(kBusyAddress), 2);
    EXPECT_EQ(batch.value("retries"), QStringLiteral("1"));
}

TEST_F(InFlightSettlingTest, AnAnswerWithAnUnknownTransactionIdClosesTheConnection) {
    modbus_sim::FaultRule wrongId;
    wrongId.kind = modbus_sim::FaultKind::WrongTransactionId;
    wrongId.function = 3;
    wrongId.address = kLastAddress;
    sim.addFault(wrongId);
    Batch batch(makeDevice(1, sim.port(), {{"max_outstanding_requests", "4"}, {"max_read_registers", "10"}}));
    addItems(batch);
    // A bad frame fails only its items: it says nothing of the device as a whole.
    EXPECT_TRUE(plugin.readData(&batch.list)) << batch.list.device.lastError.toStdString();
    EXPECT_EQ(batch.value("a"), QStringLiteral("7"));
    EXPECT_EQ(batch.value("b"), QStringLiteral("8"));
    EXPECT_EQ(batch.value("c"), QString());
    EXPECT_EQ(batch.error("c"), QStringLiteral("Invalid data"));
    // The stream may be out of step: the read is asked again on a new connection (where the device gives
    // the same wrong number, which closes that one too).
    EXPECT_EQ(sim.acceptedConnections(), 2);
    EXPECT_TRUE(plugin_test::waitUntil([&] { return sim.closedConnections() == 2; }));
    EXPECT_EQ(sim.requestCount(3), 4);
}

}  // namespace
