// zelt-modbus poll against the simulator over loopback: values of every type in every byte order, strings,
// bits, coils, discrete inputs, input registers, identity items, item errors, device errors and exit codes.

#include <gtest/gtest.h>

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <algorithm>

#include "common/golden_vectors.h"
#include "tools/sim/simulator.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_modbus_test::itemOf;
using zelt_modbus_test::jsonLines;
using zelt_modbus_test::pollLines;
using zelt_modbus_test::runTool;
using zelt_modbus_test::uidsOf;
using zelt_modbus_test::writeFile;

constexpr int kHoldingBase = 40001;  // "Auto" address of holding register 0
constexpr int kVectorStride = 4;     // room for the widest value
constexpr int kOrderStride = 100;
constexpr int kFaultyInputRegister = 500;
constexpr int kIllegalDataAddress = 2;
constexpr int kFcReadHoldingRegisters = 3;
constexpr int kFcReadInputRegisters = 4;

const char* const kIdentityObjects[] = {"ACME Meters", "AM-7",   "2.3",         "https://acme.invalid",
                                        "AM-7 meter",  "AM-7/X", "metering app"};
const char* const kIdentityFields[] = {"vendor",       "product_code", "version",         "vendor_url",
                                       "product_name", "model",        "user_application"};

QString text(const char* value) {
    return QString::fromUtf8(value);
}

class PollCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        const auto& vectors = golden::vectors();
        for (int order = 0; order < golden::kOrderCount; ++order)
            for (size_t v = 0; v < vectors.size(); ++v)
                simulator.setHoldingRegisters(order * kOrderStride + static_cast<int>(v) * kVectorStride,
                                              vectors[v].registers[order]);
        // "Hi there" in registers 400..403, bits 0 and 15 of register 410.
        simulator.setHoldingRegisters(400, {0x4869, 0x2074, 0x6865, 0x7265});
        simulator.setHoldingRegisters(410, {0x8001});
        simulator.setInputRegisters(0, {0xFFFF, 0x1234});
        simulator.setCoils(0, {1, 0, 1});
        simulator.setDiscreteInputs(0, {0, 1});
        modbus_sim::DeviceIdentification identification;
        for (int i = 0; i < 7; ++i) identification.objects[i] = QByteArray(kIdentityObjects[i]);
        simulator.setDeviceIdentification(identification);
        modbus_sim::FaultRule fault;
        fault.kind = modbus_sim::FaultKind::Exception;
        fault.function = kFcReadInputRegisters;
        fault.address = kFaultyInputRegister;
        fault.exceptionCode = kIllegalDataAddress;
        simulator.addFault(fault);
        QString error;
        ASSERT_TRUE(simulator.start(QStringLiteral("127.0.0.1"), 0, &error)) << error.toStdString();
    }

    static QJsonObject item(const QString& uid, const QString& address, int type,
                            const QString& precision = QString()) {
        QJsonObject settings{{QStringLiteral("register"), address},
                             {QStringLiteral("type"), QString::number(type)}};
        if (!precision.isEmpty()) settings.insert(QStringLiteral("floating_point_precision"), precision);
        return QJsonObject{{QStringLiteral("uid"), uid}, {QStringLiteral("settings"), settings}};
    }

    // Devices 1 to 4 read the golden vectors in the four byte orders; device 1 also reads everything else.
    QString writeConfig() {
        QJsonArray devices;
        const auto& vectors = golden::vectors();
        for (int order = 0; order < golden::kOrderCount; ++order) {
            QJsonArray items;
            for (size_t v = 0; v < vectors.size(); ++v)
                items.append(item(QStringLiteral("o%1_v%2").arg(order).arg(v),
                                  QString::number(kHoldingBase + order * kOrderStride +
                                                  static_cast<int>(v) * kVectorStride),
                                  vectors[v].type));
            if (order == 0) {
                items.append(item(QStringLiteral("text"), QStringLiteral("40401-40404"), STRING));
                items.append(item(QStringLiteral("bit0"), QStringLiteral("40411.0"), BIT));
                items.append(item(QStringLiteral("bit15"), QStringLiteral("40411.15"), BIT));
                items.append(item(QStringLiteral("bit1"), QStringLiteral("40411.1"), BIT));
                items.append(item(QStringLiteral("in_int16"), QStringLiteral("30001"), INT16));
                items.append(item(QStringLiteral("in_uint16"), QStringLiteral("30002"), UINT16));
                items.append(item(QStringLiteral("coil1"), QStringLiteral("00001"), BIT));
                items.append(item(QStringLiteral("coil2"), QStringLiteral("00002"), BIT));
                items.append(item(QStringLiteral("input2"), QStringLiteral("10002"), BIT));
                items.append(item(QStringLiteral("pi2"), QString::number(kHoldingBase + 420), FLOAT, "2"));
                items.append(
                    item(QStringLiteral("refused"), QString::number(30001 + kFaultyInputRegister), UINT16));
            }
            const auto& byteOrder = golden::kByteOrders[order];
            devices.append(
                QJsonObject{{QStringLiteral("id"), order + 1},
                            {QStringLiteral("name"), QString::fromLatin1(byteOrder.name)},
                            {QStringLiteral("address"), QStringLiteral("127.0.0.1")},
                            {QStringLiteral("settings"),
                             QJsonObject{{QStringLiteral("port"), QString::number(simulator.port())},
                                         {QStringLiteral("endianness"), byteOrder.littleEndian ? "1" : "0"},
                                         {QStringLiteral("byte_order"), byteOrder.byteSwapped ? "1" : "0"}}},
                            {QStringLiteral("items"), items}});
        }
        // 3.14159 as a FLOAT, read with precision 2.
        simulator.setHoldingRegisters(420, {0x4049, 0x0FD0});
        const QString path = dir.filePath(QStringLiteral("meters.json"));
        EXPECT_TRUE(
            writeFile(path, QJsonDocument(QJsonObject{{QStringLiteral("devices"), devices}}).toJson()));
        return path;
    }

    QTemporaryDir dir;
    modbus_sim::Simulator simulator;
};

TEST_F(PollCommandTest, PrintsEveryValueOfEveryDeviceAndPollAsJsonLines) {
    const QString config = writeConfig();
    const auto run = runTool({QStringLiteral("poll"), QStringLiteral("--config"), config,
                              QStringLiteral("--count"), QStringLiteral("2"), QStringLiteral("--interval"),
                              QStringLiteral("50"), QStringLiteral("--json")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QList<QJsonObject> lines = pollLines(run.out);
    ASSERT_EQ(lines.size(), 2 * golden::kOrderCount) << run.out.toStdString();

    const auto& vectors = golden::vectors();
    for (int poll = 1; poll <= 2; ++poll) {
        for (int order = 0; order < golden::kOrderCount; ++order) {
            const QJsonObject line = lines.at((poll - 1) * golden::kOrderCount + order);
            SCOPED_TRACE(QStringLiteral("poll %1 order %2").arg(poll).arg(order).toStdString());
            EXPECT_EQ(line.value("poll").toInt(), poll);
            EXPECT_EQ(line.value("device").toInt(), order + 1);
            EXPECT_EQ(line.value("name").toString(), text(golden::kByteOrders[order].name));
            EXPECT_TRUE(line.value("ok").toBool());
            EXPECT_EQ(line.value("error").toString(), QString());
            for (size_t v = 0; v < vectors.size(); ++v) {
                SCOPED_TRACE(vectors[v].name);
                const QJsonObject value = itemOf(line, QStringLiteral("o%1_v%2").arg(order).arg(v));
                EXPECT_EQ(value.value("value").toString(), text(vectors[v].text));
                EXPECT_EQ(value.value("error").toString(), QString());
                EXPECT_EQ(value.value("name").toString(), QStringLiteral("o%1_v%2").arg(order).arg(v));
                const QString stamp = value.value("timestamp").toString();
                EXPECT_TRUE(stamp.endsWith(QLatin1Char('Z'))) << stamp.toStdString();
                EXPECT_TRUE(QDateTime::fromString(stamp, Qt::ISODateWithMs).isValid()) << stamp.toStdString();
            }
            // Configured items first, in the file's order, then the device's identity items.
            const QStringList uids = uidsOf(line);
            QStringList identity;
            for (const QString& uid : uids)
                if (uid.startsWith(QStringLiteral("identity_"))) identity.append(uid);
            QStringList expectedIdentity;
            for (const char* field : kIdentityFields)
                expectedIdentity.append(QStringLiteral("identity_%1_%2").arg(order + 1).arg(text(field)));
            std::sort(identity.begin(), identity.end());
            std::sort(expectedIdentity.begin(), expectedIdentity.end());
            EXPECT_EQ(identity, expectedIdentity);
            EXPECT_FALSE(uids.first().startsWith(QStringLiteral("identity_")));
            EXPECT_EQ(uids.first(), QStringLiteral("o%1_v0").arg(order));
            for (int i = 0; i < uids.size() - identity.size(); ++i)
                EXPECT_FALSE(uids.at(i).startsWith(QStringLiteral("identity_"))) << i;
            for (int i = 0; i < 7; ++i) {
                const QJsonObject identityItem = itemOf(
                    line, QStringLiteral("identity_%1_%2").arg(order + 1).arg(text(kIdentityFields[i])));
                EXPECT_EQ(identityItem.value("value").toString(), text(kIdentityObjects[i]))
                    << kIdentityFields[i];
                EXPECT_EQ(identityItem.value("error").toString(), QString());
            }
        }
    }

    const QJsonObject first = lines.first();
    struct Row {
        const char* uid;
        const char* value;
        const char* error;
    };
    const Row rows[] = {
        {"text", "Hi there", ""},
        {"bit0", "1", ""},
        {"bit15", "1", ""},
        {"bit1", "0", ""},
        {"in_int16", "-1", ""},
        {"in_uint16", "4660", ""},
        {"coil1", "1", ""},
        {"coil2", "0", ""},
        {"input2", "1", ""},
        {"pi2", "3.14", ""},
        {"refused", "", "Illegal data address"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.uid);
        const QJsonObject value = itemOf(first, text(row.uid));
        EXPECT_EQ(value.value("value").toString(), text(row.value));
        EXPECT_EQ(value.value("error").toString(), text(row.error));
    }
}

TEST_F(PollCommandTest, PrintsATablePerDeviceAndPoll) {
    const QString config = writeConfig();
    const auto run = runTool({QStringLiteral("poll"), QStringLiteral("--config"), config,
                              QStringLiteral("--count"), QStringLiteral("1")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_TRUE(run.out.contains(QStringLiteral("Poll 1, device 1 Big/High (127.0.0.1): ok\n")));
    EXPECT_TRUE(run.out.contains(QStringLiteral("Poll 1, device 4 Little/Low (127.0.0.1): ok\n")));
    EXPECT_TRUE(
        run.out.contains(QRegularExpression(QStringLiteral("\n  text +40401-40404 +STRING +Hi there\n"))))
        << run.out.toStdString();
    EXPECT_TRUE(run.out.contains(
        QRegularExpression(QStringLiteral("\n  refused +30501 +UINT16 +Illegal data address\n"))));
    EXPECT_TRUE(run.out.contains(
        QRegularExpression(QStringLiteral("\n  Vendor +__identity.vendor +STRING +ACME Meters\n"))));
}

TEST_F(PollCommandTest, ADeviceThatCannotBeReachedFailsThePollWithExitOne) {
    modbus_sim::Simulator closed;
    ASSERT_TRUE(closed.start());
    const uint16_t closedPort = closed.port();
    closed.stop();
    const QString path = dir.filePath(QStringLiteral("two.json"));
    const QByteArray json = QStringLiteral(R"({"devices": [
        {"id": 1, "name": "up", "address": "127.0.0.1", "settings": {"port": "%1"},
         "items": [{"uid": "a", "settings": {"register": "30002", "type": "2"}}]},
        {"id": 2, "name": "down", "address": "127.0.0.1", "settings": {"port": "%2"},
         "items": [{"uid": "b", "settings": {"register": "40001", "type": "2"}}]}]})")
                                .arg(simulator.port())
                                .arg(closedPort)
                                .toUtf8();
    ASSERT_TRUE(writeFile(path, json));
    const auto run = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path,
                              QStringLiteral("--count"), QStringLiteral("1"), QStringLiteral("--json")});
    EXPECT_EQ(run.exitCode, 1);
    const QList<QJsonObject> lines = pollLines(run.out);
    ASSERT_EQ(lines.size(), 2) << run.out.toStdString();
    EXPECT_TRUE(lines.at(0).value("ok").toBool());
    EXPECT_EQ(itemOf(lines.at(0), QStringLiteral("a")).value("value").toString(), QStringLiteral("4660"));
    EXPECT_FALSE(lines.at(1).value("ok").toBool());
    EXPECT_EQ(lines.at(1).value("error").toString(), QStringLiteral("Could not connect. Connection refused"));
    // A failed connect leaves the items as the host gave them.
    const QJsonObject item = itemOf(lines.at(1), QStringLiteral("b"));
    EXPECT_EQ(item.value("value").toString(), QString());
    EXPECT_EQ(item.value("error").toString(), QString());
    // The four identity stubs exist from the start; nothing was published into them.
    EXPECT_EQ(uidsOf(lines.at(1)), (QStringList{"b", "identity_2_vendor", "identity_2_product_code",
                                                "identity_2_version", "identity_2_model"}));
}

TEST_F(PollCommandTest, SettingsTheFileLeavesOutTakeTheDeclaredDefaults) {
    // Without "type" the stored default is empty, which reads as BIT; without a precision, 4 decimals.
    simulator.setHoldingRegisters(600, {0x4049, 0x0FD0, 0x0003});
    const QString path = dir.filePath(QStringLiteral("defaults.json"));
    const QByteArray json = QStringLiteral(R"({"devices": [{"id": 7, "address": "127.0.0.1",
        "settings": {"port": "%1"}, "items": [
        {"uid": "pi", "settings": {"register": "40601", "type": "5"}},
        {"uid": "untyped", "settings": {"register": "40603"}}]}]})")
                                .arg(simulator.port())
                                .toUtf8();
    ASSERT_TRUE(writeFile(path, json));
    const auto run = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path,
                              QStringLiteral("--count"), QStringLiteral("1"), QStringLiteral("--json")});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QList<QJsonObject> lines = pollLines(run.out);
    ASSERT_EQ(lines.size(), 1);
    EXPECT_EQ(lines.first().value("name").toString(), QStringLiteral("device 7"));
    EXPECT_EQ(itemOf(lines.first(), QStringLiteral("pi")).value("value").toString(),
              QStringLiteral("3.1416"));
    EXPECT_EQ(itemOf(lines.first(), QStringLiteral("untyped")).value("value").toString(),
              QStringLiteral("1"));
    // The default unit id is 1 and the default "max_read_registers" 123 keeps both items in one request.
    bool sawRead = false;
    for (const modbus_sim::RequestRecord& request : simulator.requestLog()) {
        EXPECT_EQ(request.unit, 1);
        if (request.function == kFcReadHoldingRegisters) {
            sawRead = true;
            EXPECT_EQ(request.address, 600);
            EXPECT_EQ(request.count, 3);
        }
    }
    EXPECT_TRUE(sawRead);
}

}  // namespace
