#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <tuple>

#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;
using zelt_standin::Host;
using zelt_standin::LogLevel;

namespace {

using Request = std::tuple<int, int, int>;  // function code, start address, count

// The data requests the simulator received (reads of the four tables), in order.
std::vector<Request> dataReads(const modbus_sim::Simulator& sim) {
    std::vector<Request> reads;
    for (const modbus_sim::RequestRecord& record : sim.requestLog())
        if (record.function >= 1 && record.function <= 4)
            reads.emplace_back(record.function, record.address, record.count);
    return reads;
}

class PollCycleTest : public plugin_test::PluginAndSimulatorTest {
protected:
    DeviceInstancePlugin device(QMap<QString, QString> settings = {}) {
        return makeDevice(1, sim.port(), settings);
    }
};

}  // namespace

TEST_F(PollCycleTest, EmptyBatchStillConnectsAndSyncsIdentity) {
    Batch batch(device());
    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(sim.acceptedConnections(), 1);
    // A device without identification objects: basic and regular requests, then Report Slave ID.
    EXPECT_EQ(sim.requestCount(43), 2);
    EXPECT_EQ(sim.requestCount(17), 1);
    const QStringList debug = Host::instance().logTexts(LogLevel::Debug);
    EXPECT_TRUE(debug.contains(QStringLiteral("Going to read 0 from device1")));
    EXPECT_TRUE(debug.contains(QStringLiteral("Done reading 0 from device1")));
    EXPECT_TRUE(dataReads(sim).empty());
}

TEST_F(PollCycleTest, ReadLimitNarrowsTheSettingToEightBitsAndCapsAt125) {
    const struct {
        const char* setting;
        int limit;
    } kRows[] = {{"0", 125}, {"126", 125}, {"256", 125}, {"300", 44}, {"abc", 125}, {"20", 20}};
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.setting);
        Host::instance().clearLogs();
        Batch batch(device({{"max_read_registers", row.setting}}));
        batch.add(makeItem("a", "40001", "4", "2"));
        ASSERT_TRUE(plugin.readData(&batch.list));
        EXPECT_TRUE(Host::instance().hasLog(
            LogLevel::Debug,
            QStringLiteral("Getting ready to read 1 registers of type 3 from 0 to 0. Max read registers: %1")
                .arg(row.limit)));
    }
}

TEST_F(PollCycleTest, FarApartItemsAreSplitIntoOneRequestEach) {
    sim.setHoldingRegisters(0, {7});
    sim.setHoldingRegisters(200, {9});
    Batch batch(device({{"max_read_registers", "123"}}));
    batch.add(makeItem("far", "40201", "4", "2"));
    batch.add(makeItem("near", "40001", "4", "2"));
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(dataReads(sim), (std::vector<Request>{{3, 0, 1}, {3, 200, 1}}));
    EXPECT_EQ(batch.value("near"), QStringLiteral("7"));
    EXPECT_EQ(batch.value("far"), QStringLiteral("9"));
}

TEST_F(PollCycleTest, StringLongerThanTheLimitIsReadInOneRequest) {
    sim.setHoldingRegisters(
        0, {0x4142, 0x4344, 0x4546, 0x4748, 0x494A, 0x4B4C, 0x4D4E, 0x4F50, 0x5152, 0x5354, 0x5556, 0x5758});
    Batch batch(device({{"max_read_registers", "5"}}));
    batch.add(makeItem("text", "40001-40012", "4", "7"));
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(dataReads(sim), (std::vector<Request>{{3, 0, 12}}));
    EXPECT_EQ(batch.value("text"), QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWX"));
}

TEST_F(PollCycleTest, TwoItemsAtTheSameAddressAreBothExtracted) {
    sim.setHoldingRegisters(4, {0x8001});
    Batch batch(device());
    batch.add(makeItem("signed", "40005", "4", "1"));
    batch.add(makeItem("unsigned", "40005", "4", "2"));
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(dataReads(sim), (std::vector<Request>{{3, 4, 1}}));
    EXPECT_EQ(batch.value("signed"), QStringLiteral("-32767"));
    EXPECT_EQ(batch.value("unsigned"), QStringLiteral("32769"));
}

TEST_F(PollCycleTest, AFailedRequestFailsOnlyItsOwnItemsAndTheRunGoesOn) {
    sim.setHoldingRegisters(200, {7});
    sim.addFault(plugin_test::exceptionFault(3, 2, 0));
    Batch batch(device({{"max_read_registers", "123"}}));
    batch.add(makeItem("first", "40001", "4", "2"));
    DataItem* second = batch.add(makeItem("second", "40201", "4", "2"));
    second->values.insert(QStringLiteral("value"), QStringLiteral("old"));

    // An illegal data address is an item fault, not a device fault: the poll itself succeeds.
    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(dataReads(sim), (std::vector<Request>{{3, 0, 1}, {3, 200, 1}}));
    EXPECT_FALSE(Host::instance().hasLog(LogLevel::Debug, QStringLiteral("There was an error, returning f")));
    EXPECT_EQ(batch.error("first"), QStringLiteral("Illegal data address"));
    EXPECT_EQ(batch.value("second"), QStringLiteral("7"));
    EXPECT_EQ(batch.error("second"), QString());
    EXPECT_TRUE(Host::instance().hasLog(
        LogLevel::Debug, QStringLiteral("Failed to read elements of type 3.Illegal data address")));
    // The device answered: its connection stays.
    EXPECT_EQ(sim.acceptedConnections(), 1);
}

TEST_F(PollCycleTest, EveryTableTypeOrderAndGapInOnePoll) {
    sim.setCoils(0, {1, 0, 0});
    sim.setDiscreteInputs(0, {0, 0, 0, 0, 1});
    sim.setInputRegisters(0, {0xFFFF, 0xFFFE, 0x3F80, 0x0000});
    sim.setHoldingRegisters(0, {0xFFFF, 0xFFFF, 0x0001, 0x0002, 0x4048, 0xF5C3});
    sim.setHoldingRegisters(10, {0x3FF8, 0x0000, 0x0000, 0x0000, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFE, 0x0001,
                                 0x0002, 0x0003, 0x0004, 0x0008, 0x4142, 0x4344, 0x4500});

    Batch batch(device({{"max_read_registers", "10"}}));
    batch.add(makeItem("h_string", "40024-40026", "4", "7"));
    batch.add(makeItem("c3", "00003", "4", "0"));
    batch.add(makeItem("h_int16", "40001", "4", "1"));
    batch.add(makeItem("h_uint16", "40002", "4", "2"));
    batch.add(makeItem("h_int32", "40003", "4", "3"));
    batch.add(makeItem("h_float", "40005", "4", "5", "2"));
    batch.add(makeItem("h_double", "40011", "4", "6"));
    batch.add(makeItem("h_int64", "40015", "4", "8"));
    batch.add(makeItem("h_uint64", "40019", "4", "9"));
    batch.add(makeItem("h_bit", "40023.3", "4", "0"));
    batch.add(makeItem("c1", "00001", "4", "0"));
    batch.add(makeItem("d1", "10001", "4", "0"));
    batch.add(makeItem("d5", "10005", "4", "0"));
    batch.add(makeItem("i_int32", "30001", "4", "3"));
    batch.add(makeItem("i_float", "30003", "4", "5"));
    DataItem* invalid = batch.add(makeItem("invalid", "abc", "3", "2"));
    invalid->values.insert(QStringLiteral("value"), QStringLiteral("as given"));
    DataItem* identity = batch.add(makeItem("identity_1_vendor", "__identity.vendor", "4", "7"));

    ASSERT_TRUE(plugin.readData(&batch.list));

    EXPECT_EQ(dataReads(sim),
              (std::vector<Request>{{1, 0, 3}, {2, 0, 5}, {4, 0, 4}, {3, 0, 6}, {3, 10, 8}, {3, 18, 8}}));
    const std::pair<const char*, const char*> kExpected[] = {
        {"c1", "1"},
        {"c3", "0"},
        {"d1", "0"},
        {"d5", "1"},
        {"i_int32", "-2"},
        {"i_float", "1"},
        {"h_int16", "-1"},
        {"h_uint16", "65535"},
        {"h_int32", "65538"},
        {"h_float", "3.14"},
        {"h_double", "1.5000"},
        {"h_int64", "-2"},
        {"h_uint64", "281483566841860"},
        {"h_bit", "1"},
        {"h_string", "ABCDE"},
    };
    for (const auto& expected : kExpected) {
        SCOPED_TRACE(expected.first);
        EXPECT_EQ(batch.value(expected.first), QString::fromLatin1(expected.second));
        EXPECT_EQ(batch.error(expected.first), QString());
    }
    EXPECT_EQ(invalid->values.value(QStringLiteral("value")), QStringLiteral("as given"));
    EXPECT_FALSE(identity->values.contains(QStringLiteral("value")));
    EXPECT_TRUE(Host::instance().hasLog(LogLevel::Debug, QStringLiteral("Done reading 17 from device1")));
    EXPECT_TRUE(Host::instance().hasLog(
        LogLevel::Debug,
        QStringLiteral("Holding/Input register data for h_int16 to be extracted. Length: 6 Byte "
                       "swapped: 0")));
    EXPECT_TRUE(
        Host::instance().hasLog(LogLevel::Debug, QStringLiteral("Holding/Input register data extracted!")));
    EXPECT_TRUE(Host::instance().hasLog(
        LogLevel::Debug,
        QStringLiteral("Reading words 6 registers of type 3 from 0 to 4. Max read registers: 10")));
    EXPECT_TRUE(Host::instance().hasLog(
        LogLevel::Debug,
        QStringLiteral("Done reading words 6 registers of type 3 from 0 to 4. Max read registers: 10")));
}

TEST_F(PollCycleTest, RefusedConnectionSetsTheDeviceErrorOnly) {
    const quint16 closedPort = sim.port();
    sim.stop();
    Batch batch(makeDevice(1, closedPort));
    batch.add(makeItem("a", "40001", "4", "2"));
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Could not connect. Connection refused"));
    EXPECT_EQ(batch.error("a"), QString());
    EXPECT_TRUE(Host::instance().hasLog(
        LogLevel::Debug, QStringLiteral("Could not connect to 127.0.0.1. Connection refused")));
}

TEST_F(PollCycleTest, ServerBusyOnTheLastTableIsADeviceErrorAndKeepsTheConnection) {
    sim.setInputRegisters(0, {5});
    sim.addFault(plugin_test::exceptionFault(3, 6));
    Batch batch(device({{"persistent_connection", "0"}}));
    batch.add(makeItem("input", "30001", "4", "2"));
    batch.add(makeItem("holding", "40001", "4", "2"));
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("input"), QStringLiteral("5"));
    EXPECT_EQ(batch.error("holding"), QStringLiteral("Slave device or server is busy"));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Slave device or server is busy"));
    EXPECT_FALSE(Host::instance().hasLog(LogLevel::Debug, QStringLiteral("Done reading 2 from device1")));
    EXPECT_EQ(sim.closedConnections(), 0);

    sim.clearFaults();
    sim.setHoldingRegisters(0, {6});
    Batch next(device({{"persistent_connection", "0"}}));
    next.add(makeItem("holding", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&next.list));
    EXPECT_EQ(next.value("holding"), QStringLiteral("6"));
}

TEST_F(PollCycleTest, BusyOnAnEarlierTableFailsThePollThoughALaterReadSucceeds) {
    sim.setHoldingRegisters(0, {5});
    sim.addFault(plugin_test::exceptionFault(4, 6));
    Batch batch(device());
    batch.add(makeItem("input", "30001", "4", "2"));
    batch.add(makeItem("holding", "40001", "4", "2"));
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.error("input"), QStringLiteral("Slave device or server is busy"));
    EXPECT_EQ(batch.value("holding"), QStringLiteral("5"));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Slave device or server is busy"));
    EXPECT_EQ(sim.acceptedConnections(), 1);
}

TEST_F(PollCycleTest, NonPersistentDeviceIsDisconnectedAfterASuccessfulPoll) {
    Batch batch(device({{"persistent_connection", "0"}}));
    batch.add(makeItem("holding", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_TRUE(plugin_test::waitUntil([&] { return sim.closedConnections() == 1; }));
    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(sim.acceptedConnections(), 2);
}

TEST_F(PollCycleTest, PersistentDeviceKeepsOneConnection) {
    Batch batch(device({{"persistent_connection", "1"}}));
    batch.add(makeItem("holding", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(sim.acceptedConnections(), 1);
    EXPECT_EQ(sim.closedConnections(), 0);
}

TEST_F(PollCycleTest, TimedOutReadGivesTimeoutTextsAndTheNextPollRecovers) {
    modbus_sim::FaultRule fault;
    fault.kind = modbus_sim::FaultKind::Silence;
    fault.function = 3;
    sim.addFault(fault);
    sim.setHoldingRegisters(0, {42});
    Batch batch(device());
    batch.add(makeItem("holding", "40001", "4", "2"));
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.error("holding"), QStringLiteral("Connection timed out"));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Connection timed out"));

    sim.clearFaults();
    Batch next(device());
    next.add(makeItem("holding", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&next.list));
    EXPECT_EQ(next.value("holding"), QStringLiteral("42"));
    EXPECT_EQ(next.error("holding"), QString());
    // The failed read marked the connection broken, so the next poll connected again.
    EXPECT_EQ(sim.acceptedConnections(), 2);
}

TEST_F(PollCycleTest, DroppedConnectionMidPollIsReportedAndRecovered) {
    sim.setHoldingRegisters(0, {1});
    sim.setInputRegisters(0, {2});
    Batch first(device());
    first.add(makeItem("input", "30001", "4", "2"));
    ASSERT_TRUE(plugin.readData(&first.list));  // identity probe done, connection cached

    modbus_sim::FaultRule fault;
    fault.kind = modbus_sim::FaultKind::CloseAfter;
    fault.function = 3;
    fault.afterRequests = 0;
    sim.addFault(fault);
    Batch batch(device());
    batch.add(makeItem("input", "30001", "4", "2"));
    batch.add(makeItem("holding", "40001", "4", "2"));
    EXPECT_FALSE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("input"), QStringLiteral("2"));
    EXPECT_EQ(batch.error("holding"), QStringLiteral("Connection reset by peer"));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Connection reset by peer"));

    sim.clearFaults();
    Batch next(device());
    next.add(makeItem("holding", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&next.list));
    EXPECT_EQ(next.value("holding"), QStringLiteral("1"));
}

TEST_F(PollCycleTest, SilentDeviceFailsWithinTheTimeoutsAndIsNotProbedTwice) {
    modbus_sim::FaultRule fault;
    fault.kind = modbus_sim::FaultKind::Silence;
    sim.addFault(fault);
    Batch batch(device());
    batch.add(makeItem("coil", "00001", "4", "0"));
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(plugin.readData(&batch.list));
    // Hang guard: three identity exchanges of 400 ms and one read of libmodbus's 500 ms, with a wide margin.
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
    EXPECT_EQ(batch.error("coil"), QStringLiteral("Connection timed out"));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Connection timed out"));
    EXPECT_TRUE(Host::instance().hasLog(LogLevel::Info,
                                        QStringLiteral("No Modbus identity (43/14 or 17) on device 1")));
    EXPECT_TRUE(Host::instance().hasLog(LogLevel::Debug,
                                        QStringLiteral("Could not read coil. Connection timed out")));

    sim.clearFaults();
    sim.setCoils(0, {1});
    sim.clearRequestLog();
    Batch next(device());
    next.add(makeItem("coil", "00001", "4", "0"));
    EXPECT_TRUE(plugin.readData(&next.list));
    EXPECT_EQ(next.value("coil"), QStringLiteral("1"));
    EXPECT_EQ(sim.requestCount(43), 0);
    EXPECT_EQ(sim.requestCount(17), 0);
}

TEST_F(PollCycleTest, EmptyBatchOfADeviceWithIdentityCountsOnlyWhatTheHostHandedOver) {
    modbus_sim::DeviceIdentification identification;
    identification.objects = {{0, "ACME"}, {5, "M1"}};
    sim.setDeviceIdentification(identification);
    Host::instance().setDevices({device()});
    plugin.init();
    Batch batch(device());
    EXPECT_TRUE(plugin.readData(&batch.list));
    std::vector<QByteArray> identificationRequests;
    for (const modbus_sim::RequestRecord& record : sim.requestLog())
        if (record.function == 43) identificationRequests.push_back(record.pdu);
    EXPECT_EQ(identificationRequests,
              (std::vector<QByteArray>{QByteArray::fromHex("2b0e0100"), QByteArray::fromHex("2b0e0200")}));
    EXPECT_EQ(batch.list.dataItems.size(), 2);  // the vendor and model items the plugin published
    const QStringList debug = Host::instance().logTexts(LogLevel::Debug);
    EXPECT_TRUE(debug.contains(QStringLiteral("Going to read 0 from device1")));
    EXPECT_TRUE(debug.contains(QStringLiteral("Done reading 0 from device1")));
}

TEST_F(PollCycleTest, RangeOfBillionsOfRegistersIsOutOfRangeWithoutEscaping) {
    for (const char* address : {"40001-4294967295", "40001-2000000000"}) {
        SCOPED_TRACE(address);
        Batch batch(device());
        batch.add(makeItem("huge", address, "4", "7"));
        EXPECT_TRUE(plugin.readData(&batch.list));
        EXPECT_EQ(batch.error("huge"), QStringLiteral("Address out of range"));
    }
    EXPECT_TRUE(dataReads(sim).empty());
}

TEST_F(PollCycleTest, NullBatchIsRefused) {
    EXPECT_FALSE(plugin.readData(nullptr));
}

TEST_F(PollCycleTest, NullEntriesInTheBatchAreSkipped) {
    modbus_sim::DeviceIdentification identification;
    identification.objects = {{0, "ACME"}, {1, "X-100"}, {2, "2.1"}};
    sim.setDeviceIdentification(identification);
    sim.setHoldingRegisters(0, {42});
    Batch batch(device());
    batch.list.dataItems.append(nullptr);
    const DataItem* value = batch.add(makeItem("value", "40001", "4", "2"));
    batch.list.dataItems.append(nullptr);

    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(value->values.value(QStringLiteral("value")), QStringLiteral("42"));
    EXPECT_EQ(dataReads(sim), (std::vector<Request>{{3, 0, 1}}));
    // The host's entries stay where they were; the three identity values are appended after them.
    ASSERT_EQ(batch.list.dataItems.size(), 6);
    EXPECT_EQ(batch.list.dataItems.mid(0, 3),
              (QList<DataItem*>{nullptr, const_cast<DataItem*>(value), nullptr}));
    QStringList identityValues;
    for (int i = 3; i < 6; ++i) {
        ASSERT_NE(batch.list.dataItems.at(i), nullptr);
        identityValues.append(batch.list.dataItems.at(i)->values.value(QStringLiteral("value")));
    }
    identityValues.sort();
    EXPECT_EQ(identityValues, (QStringList{"2.1", "ACME", "X-100"}));

    // The identity is known now and published from memory into the next poll, past the null entry too.
    Batch again(device());
    again.list.dataItems.append(nullptr);
    const DataItem* second = again.add(makeItem("value", "40001", "4", "2"));
    EXPECT_TRUE(plugin.readData(&again.list));
    EXPECT_EQ(second->values.value(QStringLiteral("value")), QStringLiteral("42"));
}

TEST_F(PollCycleTest, ChangedSettingsAreReadAgainOnTheNextPoll) {
    sim.setHoldingRegisters(0, {5, 6});
    Batch batch(device());
    DataItem* item = batch.add(makeItem("moving", "40001", "4", "2"));
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("moving"), QStringLiteral("5"));

    // The same entry, changed in place by the host between two polls.
    item->item.settings[QStringLiteral("register")] = QStringLiteral("40002");
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("moving"), QStringLiteral("6"));

    item->item.settings[QStringLiteral("type")] = QStringLiteral("1");
    sim.setHoldingRegisters(1, {0xFFFF});
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("moving"), QStringLiteral("-1"));
    EXPECT_EQ(dataReads(sim), (std::vector<Request>{{3, 0, 1}, {3, 1, 1}, {3, 1, 1}}));
}

TEST_F(PollCycleTest, ASettingThatMovesAnItemPastAnotherReordersTheRequests) {
    sim.setHoldingRegisters(0, {1, 2});
    sim.setHoldingRegisters(300, {3});
    sim.setInputRegisters(0, {4});
    Batch batch(device());
    DataItem* first = batch.add(makeItem("first", "40001", "4", "2"));
    batch.add(makeItem("second", "40002", "4", "2"));
    batch.add(makeItem("far", "40301", "4", "2"));
    ASSERT_TRUE(plugin.readData(&batch.list));
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(dataReads(sim), (std::vector<Request>{{3, 0, 2}, {3, 300, 1}, {3, 0, 2}, {3, 300, 1}}));

    // The first item of the batch moves to the input registers, which are read before the holding registers,
    // and then past the far holding register. The order of the last poll must not be taken again.
    sim.clearRequestLog();
    first->item.settings[QStringLiteral("register")] = QStringLiteral("30001");
    ASSERT_TRUE(plugin.readData(&batch.list));
    first->item.settings[QStringLiteral("register")] = QStringLiteral("40500");
    sim.setHoldingRegisters(499, {5});
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("first"), QStringLiteral("5"));
    EXPECT_EQ(batch.value("second"), QStringLiteral("2"));
    EXPECT_EQ(batch.value("far"), QStringLiteral("3"));
    EXPECT_EQ(dataReads(sim),
              (std::vector<Request>{{4, 0, 1}, {3, 1, 1}, {3, 300, 1}, {3, 1, 1}, {3, 300, 1}, {3, 499, 1}}));
}

TEST_F(PollCycleTest, TheSameItemsInAnotherOrderAreSortedAgain) {
    sim.setHoldingRegisters(0, {7});
    sim.setHoldingRegisters(200, {8});
    Batch forward(device());
    forward.add(makeItem("low", "40001", "4", "2"));
    forward.add(makeItem("high", "40201", "4", "2"));
    ASSERT_TRUE(plugin.readData(&forward.list));

    // The host hands the very same items over in the other order: each position now holds the other's
    // settings.
    Batch backward(device());
    DataItem* high = backward.add(makeItem("high", "40201", "4", "2"));
    DataItem* low = backward.add(makeItem("low", "40001", "4", "2"));
    high->item.settings = forward.list.dataItems.at(1)->item.settings;
    low->item.settings = forward.list.dataItems.at(0)->item.settings;
    ASSERT_TRUE(plugin.readData(&backward.list));
    EXPECT_EQ(backward.value("low"), QStringLiteral("7"));
    EXPECT_EQ(backward.value("high"), QStringLiteral("8"));
    EXPECT_EQ(dataReads(sim), (std::vector<Request>{{3, 0, 1}, {3, 200, 1}, {3, 0, 1}, {3, 200, 1}}));
}

TEST_F(PollCycleTest, ASettingWrittenThroughAReferenceTakenBeforeThePollIsReadAgain) {
    sim.setHoldingRegisters(0, {5, 6});
    Batch batch(device());
    DataItem* item = batch.add(makeItem("moving", "40001", "4", "2"));
    // The host keeps a reference into its own map from before the plugin first saw it; writing through it
    // later changes the map's data in place, without detaching it from any copy.
    QString& registerText = item->item.settings[QStringLiteral("register")];
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("moving"), QStringLiteral("5"));

    registerText = QStringLiteral("40002");
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.value("moving"), QStringLiteral("6"));
    EXPECT_EQ(dataReads(sim), (std::vector<Request>{{3, 0, 1}, {3, 1, 1}}));
}

TEST_F(PollCycleTest, CoilAndDiscreteInputReadsPastTheLastAddressAreOutOfRange) {
    Batch batch(device());
    // Bits are requested span + type length wide, like registers: quantity 2 and 10 here.
    batch.add(makeItem("coil", "65535", "0", "3"));
    batch.add(makeItem("inputs", "65530-10", "1", "7"));
    EXPECT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(batch.error("coil"), QStringLiteral("Address out of range"));
    EXPECT_EQ(batch.error("inputs"), QStringLiteral("Address out of range"));
    EXPECT_TRUE(dataReads(sim).empty());

    // The last coil and the last six discrete inputs themselves are still read.
    Batch edge(device());
    edge.add(makeItem("coil", "65535", "0", "2"));
    edge.add(makeItem("inputs", "65530-6", "1", "7"));
    plugin.readData(&edge.list);
    EXPECT_EQ(dataReads(sim), (std::vector<Request>{{1, 65535, 1}, {2, 65530, 6}}));
}

namespace {

// Throws `thrown` from the host's log call at the first line equal to `line`, once.
class ThrowingLogLine {
public:
    ThrowingLogLine(const QString& line, std::function<void()> thrown) {
        Host::instance().setLogSink([this, line, thrown](LogLevel, const QString& text) {
            if (fired || text != line) return;
            fired = true;
            thrown();
        });
    }
    ~ThrowingLogLine() { Host::instance().setLogSink(nullptr); }
    ThrowingLogLine(const ThrowingLogLine&) = delete;
    ThrowingLogLine& operator=(const ThrowingLogLine&) = delete;

private:
    bool fired = false;
};

}  // namespace

TEST_F(PollCycleTest, NoExceptionOfAnyTypeEscapesIntoTheHost) {
    const struct {
        const char* name;
        std::function<void()> thrown;
        const char* logged;
    } kRows[] = {
        {"std::exception", [] { throw std::runtime_error("host log full"); },
         "Reading from device1 failed: host log full"},
        {"int", [] { throw 7; }, "Reading from device1 failed: unknown exception"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        Host::instance().clearLogs();
        Batch batch(device());
        batch.add(makeItem("a", "40001", "4", "2"));
        {
            ThrowingLogLine throwing(QStringLiteral("Going to read 1 from device1"), row.thrown);
            EXPECT_FALSE(plugin.readData(&batch.list));
        }
        EXPECT_TRUE(Host::instance().hasLog(LogLevel::Debug, QString::fromLatin1(row.logged)));
        EXPECT_TRUE(Host::instance().logTexts(LogLevel::Error).isEmpty());
    }
    EXPECT_TRUE(dataReads(sim).empty());

    // The write boundary too.
    Batch write(device());
    DataItem* item = write.add(makeItem("a", "40001", "4", "2"));
    item->values.insert(QStringLiteral("value"), QStringLiteral("3"));
    ThrowingLogLine throwing(QStringLiteral("Writing value 3 to a in device1"), [] { throw 7; });
    EXPECT_FALSE(plugin.writeData(&write.list));
}
