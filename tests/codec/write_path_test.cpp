// writeData / writeVar against the simulator: function codes, registers on the wire, error texts, log lines,
// the per-batch no-retry list and what happens to the connection afterwards.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "codec_fixtures.h"
#include "common/held_log_line.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

using codec_test::makeItem;
using zelt_standin::Host;
using zelt_standin::LogLevel;

constexpr int kReadCoils = 1;
constexpr int kReadHoldingRegisters = 3;
constexpr int kReadInputRegisters = 4;
constexpr int kWriteSingleCoil = 5;
constexpr int kWriteSingleRegister = 6;
constexpr int kWriteMultipleCoils = 15;
constexpr int kWriteMultipleRegisters = 16;

constexpr int kIllegalDataAddress = 2;
constexpr int kServerDeviceFailure = 4;

struct DeviceOptions {
    QString preset = QStringLiteral("0");
    QString persistent = QStringLiteral("1");
};

// One write batch: owns its data items and hands the LogList to the plugin.
struct Batch {
    LogList list;
    std::vector<std::unique_ptr<DataItem>> items;

    DataItem* add(const ItemInstancePlugin& item, const QString& value) {
        items.push_back(std::make_unique<DataItem>(item));
        items.back()->values[QStringLiteral("value")] = value;
        list.dataItems.append(items.back().get());
        return items.back().get();
    }
    QString error(int index) const { return items.at(static_cast<size_t>(index))->item.lastError; }
};

// A port on 127.0.0.1 where nothing listens: bound once to get a free number, then closed.
uint16_t refusingPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return 0;
    }
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

QByteArray pdu(const char* hex) {
    return QByteArray::fromHex(hex);
}

class WritePathTest : public ::testing::Test {
protected:
    void SetUp() override {
        Host::instance().reset();
        QString error;
        ASSERT_TRUE(sim.start(QStringLiteral("127.0.0.1"), 0, &error)) << error.toStdString();
    }
    void TearDown() override {
        plugin.stopPlugin();
        sim.stop();
    }

    DeviceInstancePlugin device(const DeviceOptions& options = {}) const {
        DeviceInstancePlugin result;
        result.id = 1;
        result.name = QStringLiteral("dev");
        result.address = QStringLiteral("127.0.0.1");
        result.settings[QStringLiteral("port")] = QString::number(sim.port());
        result.settings[QStringLiteral("write_preset")] = options.preset;
        result.settings[QStringLiteral("persistent_connection")] = options.persistent;
        return result;
    }

    // Writes one item in a batch of its own; the item's last error lands in *error.
    bool writeOne(const ItemInstancePlugin& item, const QString& value, const DeviceOptions& options = {},
                  QString* error = nullptr) {
        Batch batch;
        batch.list.device = device(options);
        batch.add(item, value);
        const bool result = plugin.writeData(&batch.list);
        if (error) {
            *error = batch.error(0);
        }
        return result;
    }

    // Waits (bounded) until the simulator sees the expected number of open client connections.
    bool openConnectionsBecome(int expected) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            if (sim.openConnections() == expected) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return sim.openConnections() == expected;
    }

    std::vector<modbus_sim::RequestRecord> writes() const {
        std::vector<modbus_sim::RequestRecord> result;
        for (const modbus_sim::RequestRecord& record : sim.requestLog()) {
            if (record.function != kReadHoldingRegisters && record.function != kReadInputRegisters &&
                record.function != kReadCoils) {
                result.push_back(record);
            }
        }
        return result;
    }

    modbus_sim::Simulator sim;
    Modbus plugin;
};

TEST_F(WritePathTest, Int32MinusTwoBigHighSinglePreset) {
    QString error;
    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40011"), QStringLiteral("4"), QString::number(INT32)),
                         QStringLiteral("-2"), {}, &error));
    EXPECT_EQ(error, QString());
    const std::vector<modbus_sim::RequestRecord> log = sim.requestLog();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].function, kWriteSingleRegister);
    EXPECT_EQ(log[0].pdu, pdu("06000affff"));
    EXPECT_EQ(log[1].function, kWriteSingleRegister);
    EXPECT_EQ(log[1].pdu, pdu("06000bfffe"));
    EXPECT_EQ(sim.holdingRegisters(10, 2), (std::vector<uint16_t>{0xFFFF, 0xFFFE}));
}

TEST_F(WritePathTest, Uint16KeepsTheLowSixteenBitsAndNegativeIsZero) {
    const ItemInstancePlugin item =
        makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(UINT16));
    EXPECT_TRUE(writeOne(item, QStringLiteral("70000")));
    EXPECT_EQ(sim.holdingRegisters(0, 1), (std::vector<uint16_t>{4464}));
    sim.setHoldingRegisters(0, {0x1234});
    EXPECT_TRUE(writeOne(item, QStringLiteral("-1")));
    EXPECT_EQ(sim.holdingRegisters(0, 1), (std::vector<uint16_t>{0}));
    ASSERT_EQ(sim.requestLog().size(), 2u);
    EXPECT_EQ(sim.requestLog()[0].pdu, pdu("0600001170"));
    EXPECT_EQ(sim.requestLog()[1].pdu, pdu("0600000000"));
}

TEST_F(WritePathTest, FloatThatIsNoNumberWritesZeroWithoutError) {
    sim.setHoldingRegisters(4, {0x1111, 0x2222});
    QString error;
    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40005"), QStringLiteral("4"), QString::number(FLOAT)),
                         QStringLiteral("abc"), {QStringLiteral("1")}, &error));
    EXPECT_EQ(error, QString());
    EXPECT_EQ(sim.holdingRegisters(4, 2), (std::vector<uint16_t>{0x0000, 0x0000}));
    EXPECT_EQ(sim.requestCount(kWriteMultipleRegisters), 1);
}

TEST_F(WritePathTest, ValueBeyondTheDoubleRangeWritesZeroNotInfinity) {
    for (const char* value : {"1e400", "-1e400"}) {
        SCOPED_TRACE(value);
        sim.setHoldingRegisters(4, {0x1111, 0x2222, 0x3333, 0x4444});
        QString error;
        EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40005"), QStringLiteral("4"), QString::number(DOUBLE)),
                             QString::fromLatin1(value), {QStringLiteral("1")}, &error));
        EXPECT_EQ(error, QString());
        EXPECT_EQ(sim.holdingRegisters(4, 4), (std::vector<uint16_t>{0x0000, 0x0000, 0x0000, 0x0000}));
    }
    EXPECT_EQ(sim.requestCount(kWriteMultipleRegisters), 2);
}

TEST_F(WritePathTest, StringTooLongAndShortStringPadded) {
    const ItemInstancePlugin item =
        makeItem(QStringLiteral("40001-40002"), QStringLiteral("4"), QString::number(STRING));
    QString error;
    EXPECT_TRUE(writeOne(item, QStringLiteral("ABCDE"), {}, &error));
    EXPECT_EQ(error, QStringLiteral("String too long. Size 5 bytes but expected 4 bytes"));
    EXPECT_EQ(sim.totalRequests(), 0);
    EXPECT_TRUE(Host::instance().hasLog(
        LogLevel::Debug,
        QStringLiteral("Failed to write item. Register: 4 Offset: 40001-40002 Error: String too long. Size 5 "
                       "bytes but expected 4 bytes")));

    // Single preset, yet a string always goes out with FC 16.
    EXPECT_TRUE(writeOne(item, QStringLiteral("ABC"), {}, &error));
    EXPECT_EQ(sim.requestCount(kWriteMultipleRegisters), 1);
    EXPECT_EQ(sim.requestCount(kWriteSingleRegister), 0);
    ASSERT_EQ(sim.requestLog().size(), 1u);
    EXPECT_EQ(sim.requestLog()[0].pdu, pdu("100000000204414243"
                                           "00"));
    EXPECT_EQ(sim.holdingRegisters(0, 2), (std::vector<uint16_t>{0x4142, 0x4300}));
    EXPECT_TRUE(Host::instance().hasLog(LogLevel::Debug,
                                        QStringLiteral("Writing string. Offset: 0 Value: ABC Length: 2")));
}

TEST_F(WritePathTest, StringByteAndWordOrders) {
    struct Row {
        const char* littleEndian;
        const char* byteSwapped;
        std::vector<uint16_t> registers;
    };
    const Row rows[] = {{"0", "0", {0x4142, 0x4344}},
                        {"0", "1", {0x4241, 0x4443}},
                        {"1", "0", {0x4344, 0x4142}},
                        {"1", "1", {0x4443, 0x4241}}};
    for (const Row& row : rows) {
        SCOPED_TRACE(QStringLiteral("string_endianness %1 string_byte_order %2")
                         .arg(row.littleEndian, row.byteSwapped)
                         .toStdString());
        Batch batch;
        batch.list.device = device();
        batch.list.device.settings[QStringLiteral("string_endianness")] =
            QString::fromLatin1(row.littleEndian);
        batch.list.device.settings[QStringLiteral("string_byte_order")] =
            QString::fromLatin1(row.byteSwapped);
        // The number orders must not matter.
        batch.list.device.settings[QStringLiteral("endianness")] = QStringLiteral("1");
        batch.list.device.settings[QStringLiteral("byte_order")] = QStringLiteral("1");
        batch.add(makeItem(QStringLiteral("40001-2"), QStringLiteral("4"), QString::number(STRING)),
                  QStringLiteral("ABCD"));
        EXPECT_TRUE(plugin.writeData(&batch.list));
        EXPECT_EQ(sim.holdingRegisters(0, 2), row.registers);
    }
}

TEST_F(WritePathTest, HugeRangesAreRefusedWithoutARequest) {
    // Far beyond what one FC 16 request may carry: libmodbus refuses before anything is sent.
    const char* const ranges[] = {"40001-1000000", "1-4294967295", "0-4294967295"};
    for (const char* range : ranges) {
        SCOPED_TRACE(range);
        Host::instance().clearLogs();
        EXPECT_TRUE(
            writeOne(makeItem(QString::fromLatin1(range), QStringLiteral("3"), QString::number(STRING)),
                     QStringLiteral("AB")));
    }
    EXPECT_EQ(sim.totalRequests(), 0);
    // "0-4294967295" spans 2^32 registers, which wraps to 0: the text no longer fits.
    EXPECT_TRUE(Host::instance().hasLog(
        LogLevel::Debug,
        QStringLiteral("Failed to write item. Register: 3 Offset: 0-4294967295 Error: String too "
                       "long. Size 2 bytes but expected 0 bytes")));
}

TEST_F(WritePathTest, RangeMeansStringWhateverTheType) {
    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40001-1"), QStringLiteral("4"), QString::number(INT32)),
                         QStringLiteral("12")));
    EXPECT_EQ(sim.holdingRegisters(0, 1), (std::vector<uint16_t>{0x3132}));
    EXPECT_EQ(sim.requestCount(kWriteMultipleRegisters), 1);
}

TEST_F(WritePathTest, BitOutOfRangeAndInvalidBitValue) {
    QString error;
    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40001.16"), QStringLiteral("4"), QString::number(BIT)),
                         QStringLiteral("1"), {}, &error));
    EXPECT_EQ(error, QStringLiteral("Bit value out of range"));
    EXPECT_EQ(sim.totalRequests(), 0);

    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40001.3"), QStringLiteral("4"), QString::number(BIT)),
                         QStringLiteral("true"), {}, &error));
    EXPECT_EQ(error, QStringLiteral("Invalid bool/bit value to write. Val: true"));
    // The register was read, nothing was written.
    EXPECT_EQ(sim.requestCount(kReadHoldingRegisters), 1);
    EXPECT_EQ(sim.totalRequests(), 1);
}

TEST_F(WritePathTest, RangeIsCheckedBeforeBit) {
    // "40001.-1" contains "-", so it is written as a string over "40001." to "1" (2 registers from offset 0).
    QString error;
    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40001.-1"), QStringLiteral("4"), QString::number(BIT)),
                         QStringLiteral("1"), {}, &error));
    EXPECT_EQ(error, QString());
    ASSERT_EQ(sim.requestLog().size(), 1u);
    EXPECT_EQ(sim.requestLog()[0].pdu, pdu("10000000020431000000"));
}

TEST_F(WritePathTest, BitInRegisterReadModifyWrite) {
    sim.setHoldingRegisters(7, {0x00F0});
    const ItemInstancePlugin item =
        makeItem(QStringLiteral("40008.15"), QStringLiteral("4"), QString::number(BIT));
    EXPECT_TRUE(writeOne(item, QStringLiteral("1")));
    EXPECT_EQ(sim.holdingRegisters(7, 1), (std::vector<uint16_t>{0x80F0}));
    EXPECT_TRUE(
        Host::instance().hasLog(LogLevel::Debug, QStringLiteral("Writing bit. Offset: 7 Value: 1 (33008)")));
    const ItemInstancePlugin low =
        makeItem(QStringLiteral("40008.4"), QStringLiteral("4"), QString::number(BIT));
    EXPECT_TRUE(writeOne(low, QStringLiteral("0")));
    EXPECT_EQ(sim.holdingRegisters(7, 1), (std::vector<uint16_t>{0x80E0}));
    const std::vector<modbus_sim::RequestRecord> log = sim.requestLog();
    ASSERT_EQ(log.size(), 4u);
    EXPECT_EQ(log[0].pdu, pdu("0300070001"));
    EXPECT_EQ(log[1].pdu, pdu("06000780f0"));
    EXPECT_EQ(log[2].pdu, pdu("0300070001"));
    EXPECT_EQ(log[3].pdu, pdu("06000780e0"));
}

TEST_F(WritePathTest, BitInRegisterReadFails) {
    modbus_sim::FaultRule rule;
    rule.kind = modbus_sim::FaultKind::Exception;
    rule.function = kReadHoldingRegisters;
    rule.exceptionCode = kIllegalDataAddress;
    sim.addFault(rule);
    QString error;
    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40001.2"), QStringLiteral("4"), QString::number(BIT)),
                         QStringLiteral("1"), {}, &error));
    EXPECT_EQ(error, QStringLiteral("Could not read value. Illegal data address"));
    EXPECT_EQ(writes().size(), 0u);
}

TEST_F(WritePathTest, CoilsKeepTheLowEightBits) {
    struct Row {
        const char* value;
        uint8_t coil;
        const char* wire;
    };
    const Row rows[] = {{"2", 1, "050003ff00"},    {"256", 0, "0500030000"}, {"1", 1, "050003ff00"},
                        {"0", 0, "0500030000"},    {"257", 1, "050003ff00"}, {"abc", 0, "0500030000"},
                        {"70000", 0, "0500030000"}};
    const ItemInstancePlugin item =
        makeItem(QStringLiteral("00004"), QStringLiteral("4"), QString::number(BIT));
    for (const Row& row : rows) {
        SCOPED_TRACE(row.value);
        sim.setCoils(3, {static_cast<uint8_t>(row.coil ? 0 : 1)});
        sim.clearRequestLog();
        EXPECT_TRUE(writeOne(item, QString::fromLatin1(row.value)));
        EXPECT_EQ(sim.coils(3, 1), (std::vector<uint8_t>{row.coil}));
        ASSERT_EQ(sim.requestLog().size(), 1u);
        EXPECT_EQ(sim.requestLog()[0].pdu, pdu(row.wire));
    }
}

TEST_F(WritePathTest, BitTypeAndStringTypeNeedTheirAddressForms) {
    QString error;
    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(BIT)),
                         QStringLiteral("1"), {}, &error));
    EXPECT_EQ(error, QStringLiteral("Invalid address format for bit"));
    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(STRING)),
                         QStringLiteral("AB"), {}, &error));
    EXPECT_EQ(error, QStringLiteral("Invalid address format for string"));
    EXPECT_EQ(sim.totalRequests(), 0);
}

TEST_F(WritePathTest, WrongOffset) {
    QString error;
    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40000"), QStringLiteral("4"), QString::number(INT16)),
                         QStringLiteral("1"), {}, &error));
    EXPECT_EQ(error, QStringLiteral("Wrong offset format"));
    EXPECT_TRUE(Host::instance().hasLog(LogLevel::Debug,
                                        QStringLiteral("Wrong offset format. Item: item, Offset: -1")));
    EXPECT_TRUE(Host::instance().hasLog(
        LogLevel::Debug,
        QStringLiteral("Failed to write item. Register: 4 Offset: 40000 Error: Wrong offset format")));
    EXPECT_EQ(sim.totalRequests(), 0);
}

TEST_F(WritePathTest, UnknownTypeWritesNothing) {
    // Type 10 names no value type: nothing goes out, whether the device writes single or multiple presets.
    for (const char* preset : {"0", "1"}) {
        SCOPED_TRACE(preset);
        Host::instance().reset();
        sim.clearRequestLog();
        QString error;
        EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40001"), QStringLiteral("4"), QStringLiteral("10")),
                             QStringLiteral("1"), {QString::fromLatin1(preset)}, &error));
        EXPECT_EQ(error, QStringLiteral("Nothing to write"));
        EXPECT_TRUE(Host::instance().hasLog(
            LogLevel::Debug,
            QStringLiteral("Failed to write item. Register: 4 Offset: 40001 Error: Nothing to write")));
        EXPECT_EQ(sim.totalRequests(), 0);
        EXPECT_TRUE(sim.requestLog().empty());
        EXPECT_EQ(sim.holdingRegisters(0, 1), std::vector<uint16_t>{0});
    }
}

struct FunctionCodeRow {
    const char* name;
    const char* address;
    const char* registerType;
    unsigned int type;
    const char* value;
    const char* preset;
    std::vector<int> functions;  // in the order the simulator received them
    std::vector<QByteArray> writePdus;
};

TEST_F(WritePathTest, FunctionCodeTable) {
    const FunctionCodeRow rows[] = {
        {"coil single", "00001", "4", BIT, "1", "0", {5}, {pdu("050000ff00")}},
        {"coil multiple",
         "00001",
         "4",
         BIT,
         "1",
         "1",
         {15},
         {pdu("0f00000001010"
              "1")}},
        {"input coil single", "10001", "4", BIT, "1", "0", {5}, {pdu("050000ff00")}},
        {"input coil table 1",
         "5",
         "1",
         BIT,
         "1",
         "1",
         {15},
         {pdu("0f00050001010"
              "1")}},
        {"bit in register single", "40002.0", "4", BIT, "1", "0", {3, 6}, {pdu("0600010001")}},
        {"bit in register multiple",
         "40002.0",
         "4",
         BIT,
         "1",
         "1",
         {3, 16},
         {pdu("10000100010200"
              "01")}},
        {"bit in input register", "1.0", "2", BIT, "1", "0", {4, 6}, {pdu("0600010001")}},
        {"string single", "40001-1", "4", STRING, "AB", "0", {16}, {pdu("1000000001024142")}},
        {"string multiple", "40001-1", "4", STRING, "AB", "1", {16}, {pdu("1000000001024142")}},
        {"int16 single", "40001", "4", INT16, "-1", "0", {6}, {pdu("060000ffff")}},
        {"int16 multiple", "40001", "4", INT16, "-1", "1", {16}, {pdu("100000000102ffff")}},
        {"uint32 single",
         "40001",
         "4",
         UINT32,
         "305419896",
         "0",
         {6, 6},
         {pdu("0600001234"), pdu("0600015678")}},
        {"uint32 multiple", "40001", "4", UINT32, "305419896", "1", {16}, {pdu("10000000020412345678")}},
        {"double single",
         "40001",
         "4",
         DOUBLE,
         "1",
         "0",
         {6, 6, 6, 6},
         {pdu("0600003ff0"), pdu("0600010000"), pdu("0600020000"), pdu("0600030000")}},
        {"double multiple",
         "40001",
         "4",
         DOUBLE,
         "1",
         "1",
         {16},
         {pdu("100000000408"
              "3ff0000000000000")}},
        {"uint64 multiple",
         "3",
         "3",
         UINT64,
         "1",
         "1",
         {16},
         {pdu("100003000408"
              "0000000000000001")}},
    };
    for (const FunctionCodeRow& row : rows) {
        SCOPED_TRACE(row.name);
        sim.clearRequestLog();
        QString error;
        EXPECT_TRUE(writeOne(makeItem(QString::fromLatin1(row.address), QString::fromLatin1(row.registerType),
                                      QString::number(row.type)),
                             QString::fromLatin1(row.value), {QString::fromLatin1(row.preset)}, &error));
        EXPECT_EQ(error, QString());
        std::vector<int> functions;
        for (const modbus_sim::RequestRecord& record : sim.requestLog()) {
            functions.push_back(record.function);
        }
        EXPECT_EQ(functions, row.functions);
        std::vector<QByteArray> writePdus;
        for (const modbus_sim::RequestRecord& record : writes()) {
            writePdus.push_back(record.pdu);
        }
        EXPECT_EQ(writePdus, row.writePdus);
    }
}

TEST_F(WritePathTest, FailedItemIsNotRetriedInTheSameBatch) {
    modbus_sim::FaultRule rule;
    rule.kind = modbus_sim::FaultKind::Exception;
    rule.function = kWriteSingleRegister;
    rule.address = 20;
    rule.exceptionCode = kIllegalDataAddress;
    sim.addFault(rule);

    Batch batch;
    batch.list.device = device();
    const ItemInstancePlugin failing = makeItem(QStringLiteral("40021"), QStringLiteral("4"),
                                                QString::number(UINT16), QStringLiteral("failing"));
    const ItemInstancePlugin fine = makeItem(QStringLiteral("40022"), QStringLiteral("4"),
                                             QString::number(UINT16), QStringLiteral("fine"));
    batch.add(failing, QStringLiteral("1"));
    batch.add(fine, QStringLiteral("2"));
    batch.add(failing, QStringLiteral("3"));
    batch.add(fine, QStringLiteral("4"));

    // An item-level exception is no device error: the batch as a whole succeeds.
    EXPECT_TRUE(plugin.writeData(&batch.list));
    EXPECT_EQ(batch.list.device.lastError, QString());
    const std::vector<modbus_sim::RequestRecord> log = sim.requestLog();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].pdu, pdu("0600140001"));
    EXPECT_EQ(log[1].pdu, pdu("0600150002"));
    EXPECT_EQ(log[2].pdu, pdu("0600150004"));
    EXPECT_EQ(sim.holdingRegisters(21, 1), (std::vector<uint16_t>{4}));

    Host& host = Host::instance();
    EXPECT_EQ(host.countLog(LogLevel::Info, QStringLiteral("Not going to retry writing failing")), 1);
    EXPECT_EQ(host.countLog(LogLevel::Info, QStringLiteral("Not going to retry writing fine")), 0);
    EXPECT_EQ(host.countLog(LogLevel::Debug,
                            QStringLiteral("Failed to write failing. Register: 4 Offset: 40021 Error: ")),
              1);
    EXPECT_EQ(host.countLog(LogLevel::Debug, QStringLiteral("Writing value 3 to failing in dev")), 0);
    EXPECT_EQ(
        host.countLog(LogLevel::Debug, QStringLiteral("Wrote fine. Register: 4 Offset: 40022 Value: 4")), 1);
    EXPECT_EQ(host.countLog(LogLevel::Error, QStringLiteral("Could not write word: Illegal data address")),
              1);
}

TEST_F(WritePathTest, NoRetryListLivesForOneBatch) {
    Batch first;
    first.list.device = device();
    const ItemInstancePlugin bad = makeItem(QStringLiteral("40001.20"), QStringLiteral("4"),
                                            QString::number(BIT), QStringLiteral("bad"));
    first.add(bad, QStringLiteral("1"));
    EXPECT_TRUE(plugin.writeData(&first.list));
    Batch second;
    second.list.device = device();
    second.add(bad, QStringLiteral("1"));
    EXPECT_TRUE(plugin.writeData(&second.list));
    EXPECT_EQ(second.error(0), QStringLiteral("Bit value out of range"));
    EXPECT_EQ(Host::instance().countLog(LogLevel::Info, QStringLiteral("Not going to retry writing bad")), 0);
}

TEST_F(WritePathTest, IdentityItemsAreSkipped) {
    Batch batch;
    batch.list.device = device();
    ItemInstancePlugin identity = makeItem(QStringLiteral("__identity.vendor"), QStringLiteral("4"),
                                           QString::number(STRING), QStringLiteral("Vendor"));
    batch.add(identity, QStringLiteral("ACME"));
    batch.add(makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(UINT16)),
              QStringLiteral("7"));
    EXPECT_TRUE(plugin.writeData(&batch.list));
    EXPECT_EQ(batch.error(0), QString());
    ASSERT_EQ(sim.requestLog().size(), 1u);
    EXPECT_EQ(sim.requestLog()[0].pdu, pdu("0600000007"));
    for (const QString& line : Host::instance().logTexts(LogLevel::Debug)) {
        EXPECT_FALSE(line.contains(QStringLiteral("Vendor"))) << line.toStdString();
    }
    EXPECT_TRUE(Host::instance().hasLog(LogLevel::Debug, QStringLiteral("Going to write 2 to dev")));
    EXPECT_TRUE(Host::instance().hasLog(LogLevel::Debug, QStringLiteral("Done writing 2 to dev")));
}

TEST_F(WritePathTest, LogLinesOfASuccessfulBatch) {
    Batch batch;
    batch.list.device = device({QStringLiteral("1")});
    batch.add(makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(INT16),
                       QStringLiteral("temp")),
              QStringLiteral("5"));
    EXPECT_TRUE(plugin.writeData(&batch.list));
    const QStringList expected = {
        QStringLiteral("Going to write 1 to dev"),
        QStringLiteral("Write going to write to dev"),
        QStringLiteral("Writing value 5 to temp in dev"),
        QStringLiteral("Writing 1 elements to 0"),
        QStringLiteral("Writing string. Register: 0"),  // the connection's own line for FC 16
        QStringLiteral("Wrote temp. Register: 4 Offset: 40001 Value: 5"),
        QStringLiteral("Writing temp to dev done"),
        QStringLiteral("Done writing 1 to dev"),
    };
    QStringList debug = Host::instance().logTexts(LogLevel::Debug);
    QStringList relevant;
    for (const QString& line : debug) {
        if (expected.contains(line)) {
            relevant.append(line);
        }
    }
    EXPECT_EQ(relevant, expected);
    EXPECT_TRUE(Host::instance().logTexts(LogLevel::Info).isEmpty());
}

TEST_F(WritePathTest, BitInRegisterMultipleFailureStillCountsAsSuccess) {
    modbus_sim::FaultRule rule;
    rule.kind = modbus_sim::FaultKind::Exception;
    rule.function = kWriteMultipleRegisters;
    rule.exceptionCode = kIllegalDataAddress;
    sim.addFault(rule);
    rule.function = kWriteSingleRegister;
    sim.addFault(rule);

    const ItemInstancePlugin item = makeItem(QStringLiteral("40001.1"), QStringLiteral("4"),
                                             QString::number(BIT), QStringLiteral("flag"));
    Batch multiple;
    multiple.list.device = device({QStringLiteral("1")});
    multiple.add(item, QStringLiteral("1"));
    multiple.add(item, QStringLiteral("0"));
    EXPECT_TRUE(plugin.writeData(&multiple.list));
    // Both entries went out: the failed FC 16 did not put the item on the no-retry list.
    EXPECT_EQ(sim.requestCount(kWriteMultipleRegisters), 2);
    Host& host = Host::instance();
    EXPECT_EQ(
        host.countLog(LogLevel::Debug, QStringLiteral("Wrote flag. Register: 4 Offset: 40001.1 Value: 1")),
        1);
    EXPECT_EQ(host.countLog(LogLevel::Info, QStringLiteral("Not going to retry writing flag")), 0);
    for (const QString& line : host.logTexts(LogLevel::Debug)) {
        EXPECT_FALSE(line.startsWith(QStringLiteral("Failed to write"))) << line.toStdString();
    }

    host.clearLogs();
    Batch single;
    single.list.device = device({QStringLiteral("0")});
    single.add(item, QStringLiteral("1"));
    single.add(item, QStringLiteral("0"));
    EXPECT_TRUE(plugin.writeData(&single.list));
    EXPECT_EQ(sim.requestCount(kWriteSingleRegister), 1);
    EXPECT_EQ(host.countLog(LogLevel::Debug,
                            QStringLiteral("Failed to write flag. Register: 4 Offset: 40001.1 Error: ")),
              1);
    EXPECT_EQ(host.countLog(LogLevel::Info, QStringLiteral("Not going to retry writing flag")), 1);
}

TEST_F(WritePathTest, SingleWordsStopAtTheFirstFailure) {
    modbus_sim::FaultRule rule;
    rule.kind = modbus_sim::FaultKind::Exception;
    rule.function = kWriteSingleRegister;
    rule.address = 1;
    rule.exceptionCode = kIllegalDataAddress;
    sim.addFault(rule);
    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(DOUBLE)),
                         QStringLiteral("1")));
    const std::vector<modbus_sim::RequestRecord> log = sim.requestLog();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].address, 0);
    EXPECT_EQ(log[1].address, 1);
    EXPECT_TRUE(Host::instance().hasLog(
        LogLevel::Debug, QStringLiteral("Failed to write item. Register: 4 Offset: 40001 Error: ")));
}

TEST_F(WritePathTest, NonPersistentConnectionIsClosedAfterASuccessfulBatch) {
    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(UINT16)),
                         QStringLiteral("1"), {QStringLiteral("0"), QStringLiteral("0")}));
    EXPECT_TRUE(openConnectionsBecome(0));
    EXPECT_EQ(sim.acceptedConnections(), 1);
    // The next batch connects again.
    EXPECT_TRUE(writeOne(makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(UINT16)),
                         QStringLiteral("2"), {QStringLiteral("0"), QStringLiteral("0")}));
    EXPECT_EQ(sim.acceptedConnections(), 2);
    EXPECT_EQ(sim.holdingRegisters(0, 1), (std::vector<uint16_t>{2}));
}

TEST_F(WritePathTest, PersistentConnectionIsReused) {
    const ItemInstancePlugin item =
        makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(UINT16));
    EXPECT_TRUE(writeOne(item, QStringLiteral("1")));
    EXPECT_TRUE(writeOne(item, QStringLiteral("2")));
    EXPECT_EQ(sim.acceptedConnections(), 1);
    EXPECT_TRUE(openConnectionsBecome(1));
}

TEST_F(WritePathTest, DeviceErrorFailsTheBatchAndKeepsTheConnectionOpen) {
    modbus_sim::FaultRule rule;
    rule.kind = modbus_sim::FaultKind::Exception;
    rule.function = kWriteSingleRegister;
    rule.exceptionCode = kServerDeviceFailure;
    sim.addFault(rule);
    Batch batch;
    batch.list.device = device({QStringLiteral("0"), QStringLiteral("0")});
    batch.add(makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(UINT16)),
              QStringLiteral("1"));
    EXPECT_FALSE(plugin.writeData(&batch.list));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Slave device or server failure"));
    EXPECT_FALSE(Host::instance().hasLog(LogLevel::Debug, QStringLiteral("Done writing 1 to dev")));
    EXPECT_TRUE(openConnectionsBecome(1));
    EXPECT_EQ(sim.closedConnections(), 0);

    // The kept connection serves the next batch.
    sim.clearFaults();
    Batch next;
    next.list.device = device({QStringLiteral("0"), QStringLiteral("0")});
    next.add(makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(UINT16)),
             QStringLiteral("9"));
    EXPECT_TRUE(plugin.writeData(&next.list));
    EXPECT_EQ(sim.acceptedConnections(), 1);
    EXPECT_EQ(sim.holdingRegisters(0, 1), (std::vector<uint16_t>{9}));
}

TEST_F(WritePathTest, RefusedConnection) {
    const uint16_t port = refusingPort();
    ASSERT_NE(port, 0);
    Batch batch;
    batch.list.device = device();
    batch.list.device.settings[QStringLiteral("port")] = QString::number(port);
    DataItem* item = batch.add(
        makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(UINT16)), QStringLiteral("1"));
    EXPECT_FALSE(plugin.writeData(&batch.list));
    EXPECT_EQ(batch.list.device.lastError, QStringLiteral("Could not connect. Connection refused"));
    EXPECT_EQ(item->item.lastError, QString());
    EXPECT_TRUE(Host::instance().hasLog(LogLevel::Debug, QStringLiteral("Going to write 1 to dev")));
    EXPECT_FALSE(Host::instance().hasLog(LogLevel::Debug, QStringLiteral("Write going to write to dev")));
}

TEST_F(WritePathTest, NoConnectionWhileStoppingAndNullBatch) {
    EXPECT_FALSE(plugin.writeData(nullptr));

    // A poll of device 1 is held inside its device lock, so a stop waits for it; a write in that time gets
    // no connection and leaves its batch alone.
    Batch poll;
    poll.list.device = device();
    poll.add(makeItem(QStringLiteral("40001"), QStringLiteral("4"), QString::number(UINT16)), QString());
    test_support::HeldLogLine held(QStringLiteral("Done reading 1 from dev"));
    auto polling = std::async(std::launch::async, [&] { return plugin.readData(&poll.list); });
    ASSERT_TRUE(held.waitUntilHeld());
    auto stop = std::async(std::launch::async, [&] { return plugin.stopPlugin(); });
    const auto deadline = std::chrono::steady_clock::now() + test_support::HeldLogLine::kHangGuard;
    bool stopping = false;
    while (!stopping && std::chrono::steady_clock::now() < deadline) {
        plugin.tcpDeviceConnection(99, &stopping);
        if (!stopping) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_TRUE(stopping);
    sim.clearRequestLog();
    const int acceptedBefore = sim.acceptedConnections();

    Batch write;
    write.list.device = device();
    write.list.device.id = 2;
    write.list.device.lastError = QStringLiteral("untouched");
    DataItem* item =
        write.add(makeItem(QStringLiteral("40002"), QStringLiteral("4"), QString::number(UINT16)),
                  QStringLiteral("77"));
    EXPECT_FALSE(plugin.writeData(&write.list));
    EXPECT_EQ(write.error(0), QString());
    EXPECT_EQ(write.list.device.lastError, QStringLiteral("untouched"));
    EXPECT_EQ(item->values.value(QStringLiteral("value")), QStringLiteral("77"));
    EXPECT_EQ(sim.acceptedConnections(), acceptedBefore);
    EXPECT_TRUE(sim.requestLog().empty());
    EXPECT_EQ(sim.holdingRegisters(1, 1), std::vector<uint16_t>{0});

    held.release();
    EXPECT_TRUE(polling.get());
    EXPECT_TRUE(stop.get());
}

}  // namespace

namespace {

TEST_F(WritePathTest, ItemsWithoutUidAreToldApartByEntry) {
    // Hand-made batches (the developer harness) name every item alike and give none a uid.
    ItemInstancePlugin broken = makeItem(QStringLiteral("40000"), QStringLiteral("4"),
                                         QString::number(UINT16), QStringLiteral("test"));
    ItemInstancePlugin fine = makeItem(QStringLiteral("40003"), QStringLiteral("4"), QString::number(UINT16),
                                       QStringLiteral("test"));
    broken.uid.clear();
    fine.uid.clear();
    Batch batch;
    batch.list.device = device();
    DataItem* first = batch.add(broken, QStringLiteral("1"));
    batch.add(fine, QStringLiteral("77"));
    batch.list.dataItems.append(first);  // the very same entry again is not retried
    EXPECT_TRUE(plugin.writeData(&batch.list));
    EXPECT_EQ(batch.error(0), QStringLiteral("Wrong offset format"));
    EXPECT_EQ(batch.error(1), QString());
    EXPECT_EQ(sim.holdingRegisters(2, 1), std::vector<uint16_t>{77});
    EXPECT_EQ(Host::instance().countLog(LogLevel::Info, QStringLiteral("Not going to retry writing test")),
              1);
}

TEST_F(WritePathTest, ItemNameIsNotReadAsAPlaceholder) {
    QString error;
    writeOne(makeItem(QStringLiteral("40000"), QStringLiteral("4"), QString::number(INT16),
                      QStringLiteral("a%2b")),
             QStringLiteral("1"), {}, &error);
    EXPECT_TRUE(Host::instance().hasLog(LogLevel::Debug,
                                        QStringLiteral("Wrong offset format. Item: a%2b, Offset: -1")));
}

}  // namespace
