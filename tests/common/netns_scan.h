#pragma once
// What the discovery tests over a namespace testbed share: the subnet scan and zelt-modbus discover run from
// the scanner namespace, and the check of the candidates a scan found.

#include <gtest/gtest.h>
#include <net/if.h>

#include <QList>
#include <QString>
#include <QStringList>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "discovery/candidate.h"
#include "discovery/discovery_run.h"
#include "discovery/options.h"
#include "discovery/subnet.h"
#include "discovery/transport.h"
#include "tests/common/netns_testbed.h"
#include "tests/common/program_command.h"
#include "tests/tools/zelt_modbus_runner.h"

namespace netns_testbed {

// The scan runs on a thread inside the scanner namespace, and so do the workers it starts. False when the
// namespace could not be entered; nothing is scanned either when the interface is not the namespace's own.
inline bool scanFromScanner(const Testbed& testbed, const ModbusDiscovery::Options& options, QStringList* log,
                            QList<ModbusDiscovery::Candidate>* found, QStringList* hosts,
                            std::chrono::milliseconds* elapsed) {
    return testbed.runInScanner([&] {
        // Never scan unless the interface really is the one inside this namespace.
        if (::if_nametoindex(testbed.scannerLink.c_str()) == 0) {
            return;
        }
        *hosts = ModbusDiscovery::ipv4HostsOnInterface(options.networkInterface, nullptr);
        ModbusDiscovery::QtTransport transport;
        const auto started = std::chrono::steady_clock::now();
        *found = ModbusDiscovery::discoverDevices(options, transport, log, nullptr);
        *elapsed =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
    });
}

// The tool run in the scanner namespace, through the emulator on a cross build.
inline zelt_modbus_test::ToolRun discoverFromScanner(const Testbed& testbed, const QStringList& arguments) {
    return zelt_modbus_test::runProgram(QStringLiteral("ip"),
                                        QStringList{QStringLiteral("netns"), QStringLiteral("exec"),
                                                    QString::fromStdString(testbed.scannerNamespace)} +
                                            zelt_test::commandFor(zelt_modbus_test::toolPath()) +
                                            QStringList{QStringLiteral("discover")} + arguments);
}

struct ExpectedCandidate {
    QString address;
    int unit;
    QString vendor;
    QString productCode;
    QString version;
    QString modelName;
    QString source;
    QString uid;
};

// `found`, sorted by address, against `expected` one to one; the caller asserts the counts are equal.
template <size_t N>
void expectCandidates(const QList<ModbusDiscovery::Candidate>& found, uint16_t port,
                      const ExpectedCandidate (&expected)[N]) {
    for (size_t i = 0; i < N && static_cast<int>(i) < found.size(); ++i) {
        SCOPED_TRACE(expected[i].address.toStdString());
        const ModbusDiscovery::Candidate& candidate = found.at(static_cast<int>(i));
        EXPECT_EQ(candidate.address, expected[i].address);
        EXPECT_EQ(candidate.port, port);
        EXPECT_EQ(candidate.unitId, expected[i].unit);
        EXPECT_EQ(candidate.vendor, expected[i].vendor);
        EXPECT_EQ(candidate.productCode, expected[i].productCode);
        EXPECT_EQ(candidate.version, expected[i].version);
        EXPECT_EQ(candidate.modelName, expected[i].modelName);
        EXPECT_EQ(candidate.source, expected[i].source);
        EXPECT_EQ(ModbusDiscovery::uidFor(candidate), expected[i].uid);
    }
}

}  // namespace netns_testbed
