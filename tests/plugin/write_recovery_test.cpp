// A device that is only ever written to: after it restarts, the next write batch fails on the dead connection
// and the one after it connects again, while a Modbus exception answer keeps the connection.

#include <gtest/gtest.h>

#include <QString>
#include <vector>

#include "codec/var_type.h"
#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"

namespace {

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;

constexpr int kWriteSingleRegister = 6;
constexpr int kServerDeviceFailure = 4;

class WriteRecoveryTest : public plugin_test::PluginAndSimulatorTest {
protected:
    // One write batch of one UINT16 item at holding register 0; the device's last error lands in *error.
    bool writeBatch(const char* value, QString* error = nullptr) {
        Batch batch(makeDevice(1, port,
                               {{QStringLiteral("persistent_connection"), QStringLiteral("1")},
                                {QStringLiteral("write_preset"), QStringLiteral("0")}}));
        DataItem* dataItem = batch.add(makeItem(QStringLiteral("setpoint"), QStringLiteral("0"),
                                                QStringLiteral("3"), QString::number(UINT16)));
        dataItem->values.insert(QStringLiteral("value"), QString::fromLatin1(value));
        const bool result = plugin.writeData(&batch.list);
        if (error) *error = batch.list.device.lastError;
        return result;
    }

    void restartDevice() {
        sim.stop();
        QString error;
        ASSERT_TRUE(sim.start(QStringLiteral("127.0.0.1"), port, &error)) << error.toStdString();
    }

    quint16 port = 0;
};

TEST_F(WriteRecoveryTest, BatchAfterAFailedConnectionConnectsAgain) {
    port = sim.port();
    ASSERT_TRUE(writeBatch("1"));
    EXPECT_EQ(sim.acceptedConnections(), 1);
    restartDevice();

    // The old socket is dead: this batch finds out and fails.
    QString error;
    EXPECT_FALSE(writeBatch("2", &error));
    EXPECT_EQ(error, QStringLiteral("Connection reset by peer"));

    // The next one opens a new connection and writes.
    EXPECT_TRUE(writeBatch("3", &error));
    EXPECT_EQ(error, QString());
    // The counter runs on across the restart: one connection before, one after.
    EXPECT_EQ(sim.acceptedConnections(), 2);
    EXPECT_EQ(sim.holdingRegisters(0, 1), (std::vector<uint16_t>{3}));
    EXPECT_TRUE(writeBatch("4"));
    EXPECT_EQ(sim.acceptedConnections(), 2);
    EXPECT_EQ(sim.holdingRegisters(0, 1), (std::vector<uint16_t>{4}));
}

TEST_F(WriteRecoveryTest, ExceptionAnswerKeepsTheConnection) {
    port = sim.port();
    sim.addFault(plugin_test::exceptionFault(kWriteSingleRegister, kServerDeviceFailure));
    QString error;
    EXPECT_FALSE(writeBatch("1", &error));
    EXPECT_EQ(error, QStringLiteral("Slave device or server failure"));
    sim.clearFaults();
    EXPECT_TRUE(writeBatch("2"));
    EXPECT_EQ(sim.acceptedConnections(), 1);
    EXPECT_EQ(sim.closedConnections(), 0);
    EXPECT_EQ(sim.holdingRegisters(0, 1), (std::vector<uint16_t>{2}));
}

}  // namespace
