// Items whose registers do not all lie in the 16-bit address space never reach the device, and writes that
// would carry no registers at all are refused before anything is sent.

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

const QString kOutOfRange = QStringLiteral("Address out of range");
const QString kNothingToWrite = QStringLiteral("Nothing to write");

constexpr int kReadHoldingRegisters = 3;
constexpr int kWriteMultipleRegisters = 16;

// The data requests the simulator received: everything but the identification exchanges.
std::vector<modbus_sim::RequestRecord> dataRequests(const modbus_sim::Simulator& sim) {
    std::vector<modbus_sim::RequestRecord> result;
    for (const modbus_sim::RequestRecord& record : sim.requestLog())
        if (record.function != 43 && record.function != 17) result.push_back(record);
    return result;
}

class AddressRangeTest : public plugin_test::PluginAndSimulatorTest {
protected:
    DeviceInstancePlugin device(const char* preset) {
        return makeDevice(1, sim.port(), {{QStringLiteral("write_preset"), QString::fromLatin1(preset)}});
    }

    // Writes one item in a batch of its own and returns the item's last error.
    QString writeOne(const char* preset, const char* address, const char* registerType, VarType type,
                     const char* value) {
        Batch batch(device(preset));
        DataItem* dataItem = batch.add(makeItem(QStringLiteral("item"), QString::fromLatin1(address),
                                                QString::fromLatin1(registerType), QString::number(type)));
        dataItem->values.insert(QStringLiteral("value"), QString::fromLatin1(value));
        plugin.writeData(&batch.list);
        return dataItem->item.lastError;
    }
};

TEST_F(AddressRangeTest, WritesReachingPastTheLastRegisterSendNothing) {
    const struct {
        const char* preset;
        const char* address;
        const char* registerType;
        VarType type;
        const char* value;
    } kRows[] = {
        {"0", "65534", "3", DOUBLE, "1.5"},      // registers 65534..65537
        {"1", "65534", "3", DOUBLE, "1.5"},      //
        {"0", "65535", "3", FLOAT, "2"},         // registers 65535..65536
        {"0", "70000", "3", UINT16, "1"},        //
        {"0", "65536", "3", UINT16, "1"},        //
        {"0", "65537", "0", BIT, "1"},           // coil
        {"1", "65537", "0", BIT, "1"},           //
        {"0", "499999", "4", UINT16, "1"},       // six digits: holding register 99998
        {"0", "2147483647", "3", UINT64, "1"},   // the largest offset there is
        {"0", "65536.3", "3", BIT, "1"},         // one bit of a register
        {"1", "65535-65536", "3", STRING, "A"},  // two registers from 65535
        {"1", "65536-1", "3", STRING, "A"},      //
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(
            QStringLiteral("%1 %2 preset %3").arg(row.address).arg(row.type).arg(row.preset).toStdString());
        sim.clearRequestLog();
        EXPECT_EQ(writeOne(row.preset, row.address, row.registerType, row.type, row.value), kOutOfRange);
        EXPECT_EQ(sim.totalRequests(), 0);
    }
}

TEST_F(AddressRangeTest, LastRegistersOfTheAddressSpaceAreStillWritten) {
    EXPECT_EQ(writeOne("0", "65535", "3", UINT16, "7"), QString());
    EXPECT_EQ(writeOne("1", "65532", "3", DOUBLE, "0"), QString());
    EXPECT_EQ(writeOne("0", "65535", "0", BIT, "1"), QString());
    EXPECT_EQ(writeOne("1", "65534-65535", "3", STRING, "AB"), QString());
    EXPECT_EQ(sim.holdingRegisters(65534, 2), (std::vector<uint16_t>{0x4142, 0x0000}));
    EXPECT_EQ(sim.coils(65535, 1), (std::vector<uint8_t>{1}));
    EXPECT_EQ(sim.totalRequests(), 4);
}

TEST_F(AddressRangeTest, WritesWithoutRegistersSendNothing) {
    EXPECT_EQ(writeOne("1", "40001", "4", static_cast<VarType>(12), "5"), kNothingToWrite);
    EXPECT_EQ(writeOne("0", "40001", "4", static_cast<VarType>(12), "5"), kNothingToWrite);
    EXPECT_EQ(writeOne("1", "40001-0", "4", STRING, ""), kNothingToWrite);
    EXPECT_EQ(writeOne("0", "40001-0", "4", STRING, ""), kNothingToWrite);
    EXPECT_EQ(sim.totalRequests(), 0);
}

TEST_F(AddressRangeTest, PollSkipsItemsOutsideTheAddressSpace) {
    sim.setHoldingRegisters(0, {11});
    sim.setHoldingRegisters(65535, {22});
    Batch batch(makeDevice(1, sim.port()));
    batch.add(makeItem(QStringLiteral("wraps"), QStringLiteral("65536"), QStringLiteral("3"),
                       QString::number(UINT16)));
    batch.add(makeItem(QStringLiteral("crosses"), QStringLiteral("65535"), QStringLiteral("3"),
                       QString::number(FLOAT)));
    batch.add(makeItem(QStringLiteral("six digits"), QStringLiteral("499999"), QStringLiteral("4"),
                       QString::number(UINT16)));
    batch.add(
        makeItem(QStringLiteral("coil"), QStringLiteral("65536"), QStringLiteral("0"), QString::number(BIT)));
    batch.add(makeItem(QStringLiteral("text"), QStringLiteral("65535-65536"), QStringLiteral("3"),
                       QString::number(STRING)));
    batch.add(
        makeItem(QStringLiteral("first"), QStringLiteral("0"), QStringLiteral("3"), QString::number(UINT16)));
    batch.add(makeItem(QStringLiteral("last"), QStringLiteral("65535"), QStringLiteral("3"),
                       QString::number(UINT16)));

    EXPECT_TRUE(plugin.readData(&batch.list));
    for (const char* uid : {"wraps", "crosses", "six digits", "coil", "text"}) {
        SCOPED_TRACE(uid);
        EXPECT_EQ(batch.error(QString::fromLatin1(uid)), kOutOfRange);
        EXPECT_EQ(batch.value(QString::fromLatin1(uid)), QString());
    }
    EXPECT_EQ(batch.value(QStringLiteral("first")), QStringLiteral("11"));
    EXPECT_EQ(batch.value(QStringLiteral("last")), QStringLiteral("22"));
    EXPECT_EQ(batch.error(QStringLiteral("last")), QString());

    const std::vector<modbus_sim::RequestRecord> requests = dataRequests(sim);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].function, kReadHoldingRegisters);
    EXPECT_EQ(requests[0].address, 0);
    EXPECT_EQ(requests[0].count, 1);
    EXPECT_EQ(requests[1].function, kReadHoldingRegisters);
    EXPECT_EQ(requests[1].address, 65535);
    EXPECT_EQ(requests[1].count, 1);
    EXPECT_EQ(sim.requestCount(kWriteMultipleRegisters), 0);
}

}  // namespace
