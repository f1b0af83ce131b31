// The host finds the three discovery entry points in the plugin file by their symbols.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <QJsonObject>
#include <QStringList>
#include <atomic>

#include "discovery/candidate.h"
#include "discovery/discovery_run.h"
#include "discovery/options.h"
#include "discovery/transport.h"

namespace {

using CandidateToJson = QJsonObject (*)(const ModbusDiscovery::Candidate&);
using OptionsFromRequest = ModbusDiscovery::Options (*)(const QJsonObject&, QStringList*);
using DiscoverDevices = QList<ModbusDiscovery::Candidate> (*)(const ModbusDiscovery::Options&,
                                                              ModbusDiscovery::Transport&, QStringList*,
                                                              std::atomic<bool>*);

using RtuIdentify = QList<ModbusDiscovery::IdentifyResult> (*)(const QString&, quint16, const QList<quint8>&,
                                                               int, int, const ModbusDiscovery::StopCheck&);

const char kCandidateToJson[] = "_ZN15ModbusDiscovery15candidateToJsonERKNS_9CandidateE";
const char kOptionsFromRequest[] = "_ZN15ModbusDiscovery18optionsFromRequestERK11QJsonObjectP11QStringList";
const char kDiscoverDevices[] =
    "_ZN15ModbusDiscovery15discoverDevicesERKNS_7OptionsERNS_9TransportEP11QStringListPSt6atomicIbE";

// zelt-modbus discover --rtu-over-tcp looks the RTU probe up by this name.
const char kRtuIdentify[] = "_ZN15ModbusDiscovery11rtuIdentifyERK7QStringtRK5QListIhEiiRKSt8functionIFbvEE";

class PluginFile : public ::testing::Test {
protected:
    void SetUp() override {
        handle = ::dlopen(ZELT_PLUGIN_FILE, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handle, nullptr) << ::dlerror();
    }
    void TearDown() override {
        if (handle) {
            ::dlclose(handle);
        }
    }
    void* symbol(const char* name) {
        ::dlerror();
        void* address = ::dlsym(handle, name);
        const char* error = ::dlerror();
        EXPECT_EQ(error, nullptr) << error;
        return address;
    }

    void* handle = nullptr;
};

TEST_F(PluginFile, ExportsCandidateToJson) {
    const auto function = reinterpret_cast<CandidateToJson>(symbol(kCandidateToJson));
    ASSERT_NE(function, nullptr);
    EXPECT_EQ(function, &ModbusDiscovery::candidateToJson);
    ModbusDiscovery::Candidate candidate;
    candidate.address = QStringLiteral("10.0.0.5");
    EXPECT_EQ(function(candidate).value(QStringLiteral("external_id")).toString(), "modbus_10_0_0_5_502_1");
}

TEST_F(PluginFile, ExportsOptionsFromRequest) {
    const auto function = reinterpret_cast<OptionsFromRequest>(symbol(kOptionsFromRequest));
    ASSERT_NE(function, nullptr);
    EXPECT_EQ(function, &ModbusDiscovery::optionsFromRequest);
    const ModbusDiscovery::Options options = function(QJsonObject{{"timeout_ms", "500"}}, nullptr);
    EXPECT_EQ(options.timeoutMs, 1000);
}

TEST_F(PluginFile, ExportsDiscoverDevices) {
    const auto function = reinterpret_cast<DiscoverDevices>(symbol(kDiscoverDevices));
    ASSERT_NE(function, nullptr);
    EXPECT_EQ(function, &ModbusDiscovery::discoverDevices);
    // With the scan switched off the run only writes its probes line: no traffic.
    ModbusDiscovery::Options options;
    options.tcpSubnetScan = false;
    options.tcpPorts = {502};
    ModbusDiscovery::QtTransport transport;
    QStringList log;
    EXPECT_TRUE(function(options, transport, &log, nullptr).isEmpty());
    EXPECT_EQ(log.size(), 1);
}

TEST_F(PluginFile, ExportsTheRtuProbe) {
    const auto function = reinterpret_cast<RtuIdentify>(symbol(kRtuIdentify));
    ASSERT_NE(function, nullptr);
    EXPECT_EQ(function, &ModbusDiscovery::rtuIdentify);
    // Told to stop before its first unit, the probe sends nothing; a closed loopback port is not even
    // reached.
    EXPECT_TRUE(
        function(QStringLiteral("not an address"), 502, {1}, 100, 100, [] { return true; }).isEmpty());
}

}  // namespace
