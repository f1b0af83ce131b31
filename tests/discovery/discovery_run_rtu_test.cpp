// The discovery run with RTU-over-TCP probing, driven by a scripted transport: which ports are asked in RTU
// frames, with which units and budgets, what the answers become, and when the probing stops.
#include <gtest/gtest.h>

#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QString>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "discovery/candidate.h"
#include "discovery/constants.h"
#include "discovery/discovery_run.h"
#include "discovery/options.h"
#include "discovery/transport.h"

namespace {

using ModbusDiscovery::Candidate;
using ModbusDiscovery::IdentifyResult;
using ModbusDiscovery::Options;
using ModbusDiscovery::StopCheck;

const QString kHost = QStringLiteral("10.2.0.7");

struct TcpCall {
    quint16 port = 0;
    bool reachableGiven = false;
};

struct RtuCall {
    QString host;
    quint16 port = 0;
    QList<quint8> unitIds;
    int connectTimeoutMs = 0;
    int readTimeoutMs = 0;
};

// Ports listed as open report reachable; answers come from tables per port. `onRtuCall` runs inside every
// RTU call with the stop check the run handed in.
class ScriptedTransport : public ModbusDiscovery::Transport {
public:
    QList<IdentifyResult> tcpIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                      int connectTimeoutMs, int readTimeoutMs, bool* reachable) override {
        Q_UNUSED(host);
        Q_UNUSED(unitIds);
        Q_UNUSED(connectTimeoutMs);
        Q_UNUSED(readTimeoutMs);
        {
            std::lock_guard<std::mutex> lock(mutex);
            tcpCalls.push_back({port, reachable != nullptr});
        }
        if (reachable) {
            *reachable = openPorts.contains(port);
        }
        if (onTcpCall) {
            onTcpCall();
        }
        return tcpAnswers.value(port);
    }

    QList<IdentifyResult> rtuIdentify(const QString& host, quint16 port, const QList<quint8>& unitIds,
                                      int connectTimeoutMs, int readTimeoutMs,
                                      const StopCheck& shouldStop) override {
        {
            std::lock_guard<std::mutex> lock(mutex);
            rtuCalls.push_back({host, port, unitIds, connectTimeoutMs, readTimeoutMs});
        }
        if (onRtuCall) {
            onRtuCall(shouldStop);
        }
        return rtuAnswers.value(port);
    }

    std::vector<TcpCall> recordedTcpCalls() const {
        std::lock_guard<std::mutex> lock(mutex);
        return tcpCalls;
    }
    std::vector<RtuCall> recordedRtuCalls() const {
        std::lock_guard<std::mutex> lock(mutex);
        return rtuCalls;
    }

    QList<quint16> openPorts;
    QMap<quint16, QList<IdentifyResult>> tcpAnswers;
    QMap<quint16, QList<IdentifyResult>> rtuAnswers;
    std::function<void()> onTcpCall;
    std::function<void(const StopCheck&)> onRtuCall;

private:
    mutable std::mutex mutex;
    std::vector<TcpCall> tcpCalls;
    std::vector<RtuCall> rtuCalls;
};

IdentifyResult identified(quint8 unit, const QString& vendor, const QString& model, const QString& version) {
    IdentifyResult result;
    result.ok = true;
    result.unitId = unit;
    result.vendor = vendor;
    result.modelName = model;
    result.version = version;
    result.source = QStringLiteral("device-id");
    return result;
}

Options rtuOptions(const QList<quint16>& ports) {
    Options options;
    options.networkInterface = QStringLiteral("veth-test");
    options.tcpHosts = QStringList{kHost};
    options.tcpPorts = ports;
    options.unitIds = {1, 2, 3};
    options.timeoutMs = 10000;
    options.rtuOverTcp = true;
    return options;
}

QList<Candidate> run(const Options& options, ScriptedTransport& transport,
                     std::atomic<bool>* cancel = nullptr) {
    return ModbusDiscovery::discoverDevices(options, transport, nullptr, cancel);
}

TEST(DiscoveryRunRtuTest, AnRtuAnswerOnAPortWithoutModbusTcpBecomesAnRtuCandidate) {
    ScriptedTransport transport;
    transport.openPorts = {4001};
    transport.rtuAnswers.insert(4001, {identified(3, "Serial Co", "RS-9", "3.2")});
    const QList<Candidate> found = run(rtuOptions({4001}), transport);

    const std::vector<RtuCall> calls = transport.recordedRtuCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].host, kHost);
    EXPECT_EQ(calls[0].port, 4001);
    EXPECT_EQ(calls[0].unitIds, (QList<quint8>{1, 2, 3}));
    EXPECT_EQ(calls[0].connectTimeoutMs, ModbusDiscovery::kTcpScanConnectTimeoutMs);
    EXPECT_EQ(calls[0].readTimeoutMs, ModbusDiscovery::kRtuReadTimeoutMs);
    EXPECT_EQ(calls[0].readTimeoutMs, 200);

    ASSERT_EQ(found.size(), 1);
    const Candidate& candidate = found.at(0);
    EXPECT_EQ(candidate.source, "rtu-over-tcp-scan");
    EXPECT_EQ(candidate.address, kHost);
    EXPECT_EQ(candidate.port, 4001);
    EXPECT_EQ(candidate.unitId, 3);
    EXPECT_EQ(ModbusDiscovery::uidFor(candidate), "modbus_10_2_0_7_4001_3");

    const QJsonObject json = ModbusDiscovery::candidateToJson(candidate);
    EXPECT_EQ(json.value("external_id").toString(), "modbus_10_2_0_7_4001_3");
    EXPECT_EQ(json.value("uid_hint").toString(), "modbus_10_2_0_7_4001_3");
    EXPECT_EQ(json.value("name").toString(), "RS-9 (10.2.0.7)");
    EXPECT_EQ(json.value("description").toString(), "Serial Co RS-9 3.2 at 10.2.0.7:4001 unit 3");
    EXPECT_EQ(json.value("address").toString(), kHost);
    const QJsonObject fields = json.value("user_defined_fields").toObject();
    EXPECT_EQ(fields.value("transport").toString(), "1");
    EXPECT_EQ(fields.value("port").toString(), "4001");
    EXPECT_EQ(fields.value("server_id").toString(), "3");
    EXPECT_EQ(fields.size(), 10);
}

TEST(DiscoveryRunRtuTest, SwitchedOffNoPortIsAskedInRtuFrames) {
    ScriptedTransport transport;
    transport.openPorts = {502, 4001};
    transport.rtuAnswers.insert(4001, {identified(3, "Serial Co", "RS-9", "3.2")});
    Options options = rtuOptions({502, 4001});
    options.rtuOverTcp = false;
    const QList<Candidate> found = run(options, transport);

    EXPECT_TRUE(found.isEmpty());
    EXPECT_EQ(transport.recordedRtuCalls().size(), 0u);
    // The Modbus TCP probe is called exactly as without the switch: without a reachable flag.
    const std::vector<TcpCall> tcpCalls = transport.recordedTcpCalls();
    ASSERT_EQ(tcpCalls.size(), 2u);
    EXPECT_FALSE(tcpCalls[0].reachableGiven);
    EXPECT_FALSE(tcpCalls[1].reachableGiven);
}

TEST(DiscoveryRunRtuTest, OnlyOpenPortsWithoutAModbusTcpAnswerAreAskedInRtuFrames) {
    ScriptedTransport transport;
    transport.openPorts = {502, 4001};  // 4002 is closed
    transport.tcpAnswers.insert(502, {identified(1, "ACME", "TCP-1", "1.0")});
    // An RTU answer on the Modbus TCP port would be wrong; it is never asked for.
    transport.rtuAnswers.insert(502, {identified(1, "Wrong", "Wrong", "0")});
    transport.rtuAnswers.insert(4002, {identified(2, "Wrong", "Wrong", "0")});
    const QList<Candidate> found = run(rtuOptions({502, 4001, 4002}), transport);

    const std::vector<RtuCall> calls = transport.recordedRtuCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].port, 4001);
    const std::vector<TcpCall> tcpCalls = transport.recordedTcpCalls();
    ASSERT_EQ(tcpCalls.size(), 3u);
    for (const TcpCall& call : tcpCalls) {
        EXPECT_TRUE(call.reachableGiven) << call.port;
    }
    ASSERT_EQ(found.size(), 1);
    EXPECT_EQ(found.at(0).source, "tcp-scan");
    EXPECT_EQ(found.at(0).port, 502);
    EXPECT_FALSE(ModbusDiscovery::candidateToJson(found.at(0))
                     .value("user_defined_fields")
                     .toObject()
                     .contains("transport"));
}

TEST(DiscoveryRunRtuTest, AtMostTheRtuUnitCapIsAskedPerPort) {
    ScriptedTransport transport;
    transport.openPorts = {4001};
    Options options = rtuOptions({4001});
    options.unitIds.clear();
    for (int unit = 0; unit <= 255; ++unit) {
        options.unitIds.append(static_cast<quint8>(unit));
    }
    run(options, transport);

    const std::vector<RtuCall> calls = transport.recordedRtuCalls();
    ASSERT_EQ(calls.size(), 1u);
    ASSERT_EQ(calls[0].unitIds.size(), ModbusDiscovery::kMaxRtuUnitIds);
    ASSERT_EQ(calls[0].unitIds.size(), 247);
    EXPECT_EQ(calls[0].unitIds.first(), 0);
    EXPECT_EQ(calls[0].unitIds.last(), 246);
}

TEST(DiscoveryRunRtuTest, ASpentBudgetStartsNoRtuProbe) {
    ScriptedTransport transport;
    transport.openPorts = {4001};
    Options options = rtuOptions({4001});
    options.timeoutMs = 1000;
    // The Modbus TCP probe itself uses up the whole budget, as a silent port can.
    transport.onTcpCall = [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(options.timeoutMs + 50));
    };
    transport.rtuAnswers.insert(4001, {identified(3, "Serial Co", "RS-9", "3.2")});
    const QList<Candidate> found = run(options, transport);

    EXPECT_EQ(transport.recordedTcpCalls().size(), 1u);
    EXPECT_EQ(transport.recordedRtuCalls().size(), 0u);
    EXPECT_TRUE(found.isEmpty());
}

TEST(DiscoveryRunRtuTest, TheRtuProbeIsToldToStopWhenTheRunEnds) {
    ScriptedTransport transport;
    transport.openPorts = {4001, 4002};
    std::atomic<bool> cancel{false};
    std::vector<bool> stopAnswers;
    transport.onRtuCall = [&](const StopCheck& shouldStop) {
        ASSERT_TRUE(static_cast<bool>(shouldStop));
        stopAnswers.push_back(shouldStop());
        cancel = true;
        stopAnswers.push_back(shouldStop());
    };
    run(rtuOptions({4001, 4002}), transport, &cancel);

    EXPECT_EQ(stopAnswers, (std::vector<bool>{false, true}));
    // The second port is not probed at all once the run has been cancelled.
    EXPECT_EQ(transport.recordedTcpCalls().size(), 1u);
    EXPECT_EQ(transport.recordedRtuCalls().size(), 1u);
}

TEST(DiscoveryRunRtuTest, AKnownRtuDeviceIsNotReturned) {
    ScriptedTransport transport;
    transport.openPorts = {4001};
    transport.rtuAnswers.insert(
        4001, {identified(3, "Serial Co", "RS-9", "3.2"), identified(4, "Serial Co", "RS-10", "3.3")});
    Options options = rtuOptions({4001});
    options.existingUids = QStringList{QStringLiteral("modbus_10_2_0_7_4001_3")};
    const QList<Candidate> found = run(options, transport);

    ASSERT_EQ(found.size(), 1);
    EXPECT_EQ(found.at(0).unitId, 4);
    EXPECT_EQ(found.at(0).modelName, "RS-10");
    EXPECT_EQ(found.at(0).source, "rtu-over-tcp-scan");
}

}  // namespace
