// Units behind one gateway that the connection cannot address (libmodbus takes 0-247 and 255 on TCP): such a
// device fails with the text it gets on a connection of its own, and none of its requests is ever sent under
// its neighbour's unit id.

#include <gtest/gtest.h>

#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;

namespace {

const QString kInvalidUnitText = QStringLiteral("Could not connect. Invalid argument");

class UnitAddressingTest : public plugin_test::PluginAndSimulatorTest {
protected:
    void SetUp() override {
        PluginAndSimulatorTest::SetUp();
        // Every unit holds its own number, so that a request served by another unit shows.
        for (int unit : {1, 44, 248, 255})
            sim.setHoldingRegisters(unit, 0, {static_cast<uint16_t>(100 + unit)});
    }

    DeviceInstancePlugin unit(int id, const QString& serverId, const QString& share = QStringLiteral("1")) {
        return makeDevice(
            id, sim.port(),
            {{"server_id", serverId}, {"persistent_connection", "1"}, {"share_connection", share}});
    }

    // Polls register 40001 of `device`; its value, or its device error.
    QString poll(const DeviceInstancePlugin& device, bool* ok = nullptr) {
        Batch batch(device);
        batch.add(makeItem("value", "40001", "4", "2"));
        const bool result = plugin.readData(&batch.list);
        if (ok) *ok = result;
        return result ? batch.value("value") : batch.list.device.lastError;
    }
};

TEST_F(UnitAddressingTest, AUnitTheConnectionCannotAddressNeverReadsItsNeighboursRegisters) {
    const DeviceInstancePlugin first = unit(1, "1");
    ASSERT_EQ(poll(first), QStringLiteral("101"));
    int deviceId = 1;
    for (const QString& serverId :
         {QStringLiteral("300"), QStringLiteral("248"), QStringLiteral("254"), QStringLiteral("256")}) {
        SCOPED_TRACE(serverId.toStdString());
        const int before = sim.totalRequests();
        const DeviceInstancePlugin unaddressable = unit(++deviceId, serverId);
        bool ok = true;
        EXPECT_EQ(poll(unaddressable, &ok), kInvalidUnitText);
        EXPECT_FALSE(ok);
        // Paused as a device that cannot be connected is.
        EXPECT_EQ(poll(unaddressable, &ok), kInvalidUnitText + QStringLiteral("; next attempt in 1 s"));
        EXPECT_FALSE(ok);
        EXPECT_EQ(sim.totalRequests(), before);
        // The neighbour goes on, on the same connection.
        EXPECT_EQ(poll(first), QStringLiteral("101"));
    }
    EXPECT_EQ(sim.acceptedConnections(), 1);
    for (const modbus_sim::RequestRecord& record : sim.requestLog()) EXPECT_EQ(record.unit, 1);
}

TEST_F(UnitAddressingTest, AloneAndSharedTheUnaddressableUnitFailsWithTheSameText) {
    EXPECT_EQ(poll(unit(7, "300", "0")), kInvalidUnitText);
    EXPECT_EQ(poll(unit(8, "300", "1")), kInvalidUnitText);
    EXPECT_EQ(sim.totalRequests(), 0);
}

TEST_F(UnitAddressingTest, AWriteOfAnUnaddressableUnitSendsNothing) {
    ASSERT_EQ(poll(unit(1, "1")), QStringLiteral("101"));
    const int before = sim.totalRequests();
    Batch write(unit(2, "300"));
    DataItem* setpoint = write.add(makeItem("value", "40001", "4", "2"));
    setpoint->values.insert(QStringLiteral("value"), QStringLiteral("7"));
    EXPECT_FALSE(plugin.writeData(&write.list));
    EXPECT_EQ(write.list.device.lastError, kInvalidUnitText);
    EXPECT_EQ(sim.totalRequests(), before);
    EXPECT_EQ(sim.holdingRegisters(1, 0, 1), std::vector<uint16_t>{101});
}

TEST_F(UnitAddressingTest, UnitsZeroAndBelowAreUnitOneAndUnit255IsAddressed) {
    EXPECT_EQ(poll(unit(1, "0")), QStringLiteral("101"));
    EXPECT_EQ(poll(unit(2, "-1")), QStringLiteral("101"));
    EXPECT_EQ(poll(unit(3, "255")), QStringLiteral("355"));
    EXPECT_EQ(poll(unit(4, "44")), QStringLiteral("144"));
    std::vector<int> units;
    for (const modbus_sim::RequestRecord& record : sim.requestLog())
        if (record.function == 3) units.push_back(record.unit);
    EXPECT_EQ(units, (std::vector<int>{1, 1, 255, 44}));
}

}  // namespace
