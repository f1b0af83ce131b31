// Bits of holding registers written with function 22 ("mask_write" 1): one request per bit, and another
// master's change of another bit of the register between the plugin's read and write is never lost.

#include <gtest/gtest.h>

#include <thread>

#include "common/held_log_line.h"
#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

using plugin_test::Batch;
using plugin_test::exceptionFault;
using plugin_test::makeDevice;
using plugin_test::makeItem;

namespace {

constexpr int kFunctionMaskWrite = 22;
constexpr uint16_t kStart = 0x0F00;
// What the PLC writes meanwhile: bit 0 on.
constexpr uint16_t kPlcBit = 0x0001;

class MaskWriteTest : public plugin_test::PluginAndSimulatorTest {
protected:
    void SetUp() override {
        PluginAndSimulatorTest::SetUp();
        sim.setHoldingRegisters(2, 0, {kStart});
    }

    DeviceInstancePlugin device(const QString& maskWrite, const QString& preset = QStringLiteral("1")) {
        return makeDevice(1, sim.port(),
                          {{"server_id", "2"}, {"mask_write", maskWrite}, {"write_preset", preset}});
    }

    // Writes bit 4 of register 40001 to 1 while the PLC sets bit 0: when the plugin logs `heldLine`, just
    // before its write request goes out (after its read, when it reads).
    bool writeBitWhileThePlcWrites(const DeviceInstancePlugin& target, const QString& heldLine) {
        Batch batch(target);
        DataItem* bit = batch.add(makeItem("bit", "40001.4", "4", "0"));
        bit->values.insert(QStringLiteral("value"), QStringLiteral("1"));
        test_support::HeldLogLine held(heldLine);
        bool ok = false;
        std::thread writer([&] { ok = plugin.writeData(&batch.list); });
        EXPECT_TRUE(held.waitUntilHeld());
        sim.setHoldingRegisters(2, 0, {static_cast<uint16_t>(sim.holdingRegisters(2, 0, 1).at(0) | kPlcBit)});
        held.release();
        writer.join();
        EXPECT_EQ(batch.error("bit"), QString());
        return ok;
    }

    int requests(int function) const { return sim.requestCount(function); }
};

const QString kMaskWriteLine = QStringLiteral("Writing bit by mask write. Offset: 0 Bit: 4 Value: 1");
// Read 0x0F00 (3840), bit 4 set: 3856.
const QString kReadModifyWriteLine = QStringLiteral("Writing bit. Offset: 0 Value: 1 (3856)");

TEST_F(MaskWriteTest, ReadModifyWriteLosesAChangeMadeBetweenItsReadAndWrite) {
    EXPECT_TRUE(writeBitWhileThePlcWrites(device("0"), kReadModifyWriteLine));
    EXPECT_EQ(sim.holdingRegisters(2, 0, 1), std::vector<uint16_t>{kStart | 0x10});
    EXPECT_EQ(requests(3), 1);
    EXPECT_EQ(requests(16), 1);
    EXPECT_EQ(requests(kFunctionMaskWrite), 0);
}

TEST_F(MaskWriteTest, MaskWriteKeepsAChangeOfAnotherBit) {
    EXPECT_TRUE(writeBitWhileThePlcWrites(device("1"), kMaskWriteLine));
    EXPECT_EQ(sim.holdingRegisters(2, 0, 1), std::vector<uint16_t>{kStart | 0x10 | kPlcBit});
    EXPECT_EQ(sim.totalRequests(), requests(kFunctionMaskWrite) + requests(43) + requests(17));
    EXPECT_EQ(requests(kFunctionMaskWrite), 1);
}

TEST_F(MaskWriteTest, OneRequestPerBitAndOnlyThatBitChanges) {
    sim.setHoldingRegisters(2, 0, {0xFFFF, 0x1234});
    for (const char* preset : {"0", "1"}) {
        SCOPED_TRACE(preset);
        sim.clearRequestLog();
        Batch batch(device("1", QString::fromLatin1(preset)));
        DataItem* clear = batch.add(makeItem("clear", "40001.15", "4", "0"));
        clear->values.insert(QStringLiteral("value"), QStringLiteral("0"));
        DataItem* set = batch.add(makeItem("set", "40002.0", "4", "0"));
        set->values.insert(QStringLiteral("value"), QStringLiteral("1"));
        EXPECT_TRUE(plugin.writeData(&batch.list));
        EXPECT_EQ(requests(kFunctionMaskWrite), 2);
        EXPECT_EQ(sim.totalRequests(), 2);
        EXPECT_EQ(sim.holdingRegisters(2, 0, 2), (std::vector<uint16_t>{0x7FFF, 0x1235}));
        for (const modbus_sim::RequestRecord& record : sim.requestLog()) EXPECT_EQ(record.unit, 2);
        sim.setHoldingRegisters(2, 0, {0xFFFF, 0x1234});
    }
    // Another unit's register is untouched.
    EXPECT_EQ(sim.holdingRegisters(1, 0, 2), (std::vector<uint16_t>{0, 0}));
}

TEST_F(MaskWriteTest, ABitValueOtherThanZeroOrOneSendsNothing) {
    Batch batch(device("1"));
    DataItem* bit = batch.add(makeItem("bit", "40001.4", "4", "0"));
    bit->values.insert(QStringLiteral("value"), QStringLiteral("true"));
    const int before = sim.totalRequests();
    plugin.writeData(&batch.list);
    EXPECT_EQ(batch.error("bit"), QStringLiteral("Invalid bool/bit value to write. Val: true"));
    EXPECT_EQ(requests(kFunctionMaskWrite), 0);
    EXPECT_EQ(sim.totalRequests() - before, requests(43) + requests(17));
    EXPECT_EQ(requests(3), 0);
}

TEST_F(MaskWriteTest, ADeviceThatRefusesFunction22IsWrittenByReadAndWriteWithOneWarning) {
    sim.addFault(exceptionFault(kFunctionMaskWrite, 1));
    for (int batchNumber = 1; batchNumber <= 2; ++batchNumber) {
        SCOPED_TRACE(batchNumber);
        Batch batch(device("1"));
        DataItem* bit = batch.add(makeItem("bit", "40001.4", "4", "0"));
        bit->values.insert(QStringLiteral("value"), QStringLiteral("1"));
        EXPECT_TRUE(plugin.writeData(&batch.list)) << batch.list.device.lastError.toStdString();
        EXPECT_EQ(batch.error("bit"), QString());
    }
    EXPECT_EQ(sim.holdingRegisters(2, 0, 1), std::vector<uint16_t>{kStart | 0x10});
    EXPECT_EQ(requests(kFunctionMaskWrite), 1);
    EXPECT_EQ(requests(3), 2);
    EXPECT_EQ(requests(16), 2);
    EXPECT_EQ(
        zelt_standin::Host::instance().countLog(
            zelt_standin::LogLevel::Warning,
            QStringLiteral("device1 refuses function 22 (mask write); its bits are written by reading and "
                           "writing the register from now on")),
        1);
}

}  // namespace
