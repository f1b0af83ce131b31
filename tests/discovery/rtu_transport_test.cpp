// The RTU-over-TCP probe of the socket transport against an RTU responder on loopback.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <QList>
#include <QString>
#include <chrono>
#include <vector>

#include "common/closed_port.h"
#include "common/time_scale.h"
#include "discovery/constants.h"
#include "discovery/identify_result.h"
#include "discovery/rtu_responder.h"
#include "discovery/transport.h"

namespace {

using ModbusDiscovery::IdentifyResult;
using ModbusDiscovery::QtTransport;
using rtu_test::rtuFrame;
using rtu_test::RtuRequest;
using rtu_test::RtuResponder;
using test_support::closedPort;

const QString kLoopback = QStringLiteral("127.0.0.1");
const char kLoopbackText[] = "127.0.0.1";
// Far above what an answer on loopback needs, so that an answer is never taken for silence; every silent
// request of a test costs one such budget.
constexpr int kConnectMs = 5000 * zelt_test::kTimeScale;
constexpr int kReadMs = 1000 * zelt_test::kTimeScale;
// Long enough that a probe that waited it out on a closed connection could not pass for a quick one.
constexpr int kLongReadMs = 30000;
const QByteArray kHeartbeat = "HB\r\n";
const QByteArray kBasicObjects = QByteArray::fromHex("2b0e0100");
const QByteArray kRegularObjects = QByteArray::fromHex("2b0e0200");
const QByteArray kReportSlaveId = QByteArray::fromHex("11");

QByteArray slaveIdAnswer(int unit, const QByteArray& text) {
    QByteArray pdu = QByteArray::fromHex("11");
    pdu.append(static_cast<char>(2 + text.size()));
    pdu.append(QByteArray::fromHex("01ff"));
    pdu.append(text);
    return rtuFrame(unit, pdu);
}

QByteArray exceptionAnswer(int unit, const RtuRequest& request) {
    QByteArray pdu;
    pdu.append(static_cast<char>(static_cast<quint8>(request.pdu.at(0)) | 0x80));
    pdu.append('\x01');  // illegal function
    return rtuFrame(unit, pdu);
}

// A Read Device Identification answer without more to follow, holding the given objects.
QByteArray deviceIdAnswer(int unit, quint8 readCode, const QList<QPair<quint8, QByteArray>>& objects) {
    QByteArray pdu = QByteArray::fromHex("2b0e");
    pdu.append(static_cast<char>(readCode));
    pdu.append(QByteArray::fromHex("010000"));
    pdu.append(static_cast<char>(objects.size()));
    for (const auto& object : objects) {
        pdu.append(static_cast<char>(object.first));
        pdu.append(static_cast<char>(object.second.size()));
        pdu.append(object.second);
    }
    return rtuFrame(unit, pdu);
}

struct Asked {
    int connection;
    int unit;
    QByteArray pdu;
};

void expectAsked(const std::vector<RtuRequest>& requests, const std::vector<Asked>& expected) {
    ASSERT_EQ(requests.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(requests[i].connection, expected[i].connection);
        EXPECT_EQ(requests[i].unit, expected[i].unit);
        EXPECT_EQ(requests[i].pdu.toHex(), expected[i].pdu.toHex());
    }
}

TEST(RtuTransportTest, FindsTheOneAnsweringUnitPastHeartbeatsAndStrayFrames) {
    RtuResponder responder(
        kLoopbackText, 0,
        [](const RtuRequest& request) -> QByteArray {
            if (request.unit != 3) {
                return QByteArray();
            }
            if (request.pdu == kBasicObjects) {
                // A heartbeat and a late answer of unit 2 come first.
                return kHeartbeat + slaveIdAnswer(2, "Late") + exceptionAnswer(3, request);
            }
            if (request.pdu == kReportSlaveId) {
                // A frame of the right unit for another function is no answer either.
                return rtuFrame(3, QByteArray::fromHex("03020007")) + slaveIdAnswer(3, "Meter R7");
            }
            return exceptionAnswer(3, request);
        },
        kHeartbeat);
    ASSERT_TRUE(responder.ok());
    QtTransport transport;
    const QList<IdentifyResult> results =
        transport.rtuIdentify(kLoopback, responder.port(), {2, 3}, kConnectMs, kReadMs, nullptr);

    ASSERT_EQ(results.size(), 1);
    const IdentifyResult& result = results.at(0);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.unitId, 3);
    EXPECT_EQ(result.vendor, "");
    EXPECT_EQ(result.productCode, "Meter R7");
    EXPECT_EQ(result.version, "");
    EXPECT_EQ(result.vendorUrl, "");
    EXPECT_EQ(result.productName, "");
    EXPECT_EQ(result.modelName, "Meter R7");
    EXPECT_EQ(result.userApplication, "");
    EXPECT_EQ(result.source, "slave-id");
    // A silent unit is asked for the basic objects and Report Slave ID; the answering one for both object
    // categories (it answered with exceptions) and then Report Slave ID. One connection serves them all.
    expectAsked(responder.requestsOnceThereAre(5), {{1, 2, kBasicObjects},
                                                    {1, 2, kReportSlaveId},
                                                    {1, 3, kBasicObjects},
                                                    {1, 3, kRegularObjects},
                                                    {1, 3, kReportSlaveId}});
}

TEST(RtuTransportTest, ReadsDeviceIdentificationAsTheModbusTcpProbeDoes) {
    RtuResponder responder(kLoopbackText, 0, [](const RtuRequest& request) -> QByteArray {
        if (request.pdu == kBasicObjects) {
            return deviceIdAnswer(request.unit, 1, {{0x00, "Serial Co"}, {0x01, "SC-1"}, {0x02, "3.2"}});
        }
        if (request.pdu == kRegularObjects) {
            return deviceIdAnswer(request.unit, 2, {{0x04, "Pump P"}, {0x05, "RS-9"}});
        }
        return slaveIdAnswer(request.unit, "not asked");
    });
    ASSERT_TRUE(responder.ok());
    const QList<IdentifyResult> results =
        ModbusDiscovery::rtuIdentify(kLoopback, responder.port(), {3}, kConnectMs, kReadMs, nullptr);

    ASSERT_EQ(results.size(), 1);
    const IdentifyResult& result = results.at(0);
    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.unitId, 3);
    EXPECT_EQ(result.vendor, "Serial Co");
    EXPECT_EQ(result.productCode, "SC-1");
    EXPECT_EQ(result.version, "3.2");
    EXPECT_EQ(result.vendorUrl, "");
    EXPECT_EQ(result.productName, "Pump P");
    EXPECT_EQ(result.modelName, "RS-9");
    EXPECT_EQ(result.userApplication, "");
    EXPECT_EQ(result.source, "device-id");
    // Identification found: Report Slave ID is not asked.
    expectAsked(responder.requestsOnceThereAre(2), {{1, 3, kBasicObjects}, {1, 3, kRegularObjects}});
}

TEST(RtuTransportTest, UnitsAnsweringOnlyWithExceptionsAreFoundUpToTheCap) {
    RtuResponder responder(kLoopbackText, 0,
                           [](const RtuRequest& request) { return exceptionAnswer(request.unit, request); });
    ASSERT_TRUE(responder.ok());
    QList<quint8> units;
    for (int unit = 0; unit <= 255; ++unit) {
        units.append(static_cast<quint8>(unit));
    }
    QtTransport transport;
    const QList<IdentifyResult> results =
        transport.rtuIdentify(kLoopback, responder.port(), units, kConnectMs, kReadMs, nullptr);

    ASSERT_EQ(results.size(), ModbusDiscovery::kMaxRtuUnitIds);
    for (int i = 0; i < results.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_TRUE(results.at(i).ok);
        EXPECT_EQ(results.at(i).unitId, i);
        EXPECT_EQ(results.at(i).source, "exception");
    }
    // Three requests per unit (both object categories and Report Slave ID), none for a unit past the cap.
    const std::vector<RtuRequest> requests = responder.requestsOnceThereAre(3 * 247);
    ASSERT_EQ(requests.size(), 3u * 247u);
    EXPECT_EQ(requests.back().unit, 246);
}

TEST(RtuTransportTest, StopsBeforeTheNextUnitWhenTheStopCheckSaysSo) {
    RtuResponder responder(kLoopbackText, 0, [](const RtuRequest& request) -> QByteArray {
        if (request.pdu == kReportSlaveId) {
            return slaveIdAnswer(request.unit, "Unit " + QByteArray::number(request.unit));
        }
        return exceptionAnswer(request.unit, request);
    });
    ASSERT_TRUE(responder.ok());
    int checks = 0;
    QtTransport transport;
    const QList<IdentifyResult> results = transport.rtuIdentify(
        kLoopback, responder.port(), {3, 4}, kConnectMs, kReadMs, [&checks] { return ++checks > 1; });

    EXPECT_EQ(checks, 2);
    ASSERT_EQ(results.size(), 1);
    EXPECT_EQ(results.at(0).unitId, 3);
    EXPECT_EQ(results.at(0).modelName, "Unit 3");
    expectAsked(responder.requestsOnceThereAre(3),
                {{1, 3, kBasicObjects}, {1, 3, kRegularObjects}, {1, 3, kReportSlaveId}});
}

TEST(RtuTransportTest, AConnectionClosedByThePeerEndsTheProbeAtOnce) {
    RtuResponder responder(
        kLoopbackText, 0, [](const RtuRequest&) { return QByteArray(); }, QByteArray(), 1);
    ASSERT_TRUE(responder.ok());
    QtTransport transport;
    const auto started = std::chrono::steady_clock::now();
    const QList<IdentifyResult> results =
        transport.rtuIdentify(kLoopback, responder.port(), {1, 2, 3}, kConnectMs, kLongReadMs, nullptr);
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);

    EXPECT_TRUE(results.isEmpty());
    EXPECT_LT(elapsed.count(), kLongReadMs);
    expectAsked(responder.requestsOnceThereAre(1), {{1, 1, kBasicObjects}});
}

TEST(RtuTransportTest, AClosedPortGivesNothing) {
    QtTransport transport;
    EXPECT_TRUE(transport.rtuIdentify(kLoopback, closedPort(), {1}, kConnectMs, kReadMs, nullptr).isEmpty());
}

TEST(RtuTransportTest, ATransportWithoutRtuFindsNothing) {
    class TcpOnly : public ModbusDiscovery::Transport {
    public:
        QList<IdentifyResult> tcpIdentify(const QString&, quint16, const QList<quint8>&, int, int,
                                          bool*) override {
            return QList<IdentifyResult>();
        }
    } transport;
    EXPECT_TRUE(transport.rtuIdentify(kLoopback, 502, {1}, kConnectMs, kReadMs, nullptr).isEmpty());
}

}  // namespace
