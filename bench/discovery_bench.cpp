// Wall time of one subnet scan against the floor that the probe budgets impose. The scan runs between two
// network namespaces that this program creates and removes (root and iproute2 needed): the scanner side holds
// 10.77.0.1/24, the device side four answering simulators and one listener that never answers; the other 248
// addresses of the /24 are unassigned, so their connects end on the connect budget while ARP is unresolved.
//
// Usage: discovery_bench [runs]   (default 3)
#include <net/if.h>

#include <QString>
#include <QStringList>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "discovery/constants.h"
#include "discovery/discovery_run.h"
#include "discovery/options.h"
#include "discovery/transport.h"
#include "tests/common/netns_testbed.h"
#include "tools/sim/simulator.h"

namespace {

constexpr uint16_t kPort = 502;
constexpr int kHostsScanned = 253;  // .2 to .254: the /24 without the scanner's own address
constexpr int kRunTimeoutMs = 60000;
// A host that accepts and never answers is asked five times for unit 1 and five times for unit 255, each
// exchange waiting out the read budget.
constexpr int kSilentHostExchanges = 10;
constexpr int kMaxRuns = 20;

const char* const kDevices[] = {"10.77.0.10", "10.77.0.11", "10.77.0.12", "10.77.0.13"};
const char kSilentHost[] = "10.77.0.14";

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::min(std::max(std::atoi(argv[1]), 1), kMaxRuns) : 3;

    netns_testbed::Testbed testbed;
    std::vector<std::string> deviceAddresses;
    for (const char* device : kDevices) {
        deviceAddresses.push_back(std::string(device) + "/24");
    }
    deviceAddresses.push_back(std::string(kSilentHost) + "/24");
    std::string error;
    if (!testbed.create("10.77.0.1/24", deviceAddresses, &error)) {
        std::fprintf(stderr, "cannot build the namespace testbed (root and iproute2 needed): %s\n",
                     error.c_str());
        return 1;
    }

    std::vector<std::unique_ptr<modbus_sim::Simulator>> simulators;
    std::unique_ptr<netns_testbed::SilentListener> silent;
    bool started = true;
    const bool entered = testbed.runInDevices([&] {
        for (const char* device : kDevices) {
            auto simulator = std::make_unique<modbus_sim::Simulator>();
            modbus_sim::DeviceIdentification identification;
            identification.objects = {{0x00, "ACME"}, {0x01, "PC-1"}, {0x02, "1.0"}, {0x05, device}};
            simulator->setDeviceIdentification(identification);
            started = simulator->start(device, kPort) && started;
            simulators.push_back(std::move(simulator));
        }
        silent = std::make_unique<netns_testbed::SilentListener>(kSilentHost, kPort);
        started = silent->ok() && started;
    });
    if (!entered || !started) {
        std::fprintf(stderr, "cannot start the devices inside %s\n", testbed.deviceNamespace.c_str());
        return 1;
    }

    ModbusDiscovery::Options options;
    options.networkInterface = QString::fromStdString(testbed.scannerLink);
    options.tcpPorts = {kPort};
    options.unitIds = {1};
    options.timeoutMs = kRunTimeoutMs;

    // First the whole /24 as the host would scan it; then the same hosts without the silent listener, where
    // the connect budget of the unassigned addresses sets the floor.
    QStringList withoutSilent;
    for (int host = 2; host <= 254; ++host) {
        const QString address = QStringLiteral("10.77.0.%1").arg(host);
        if (address != QLatin1String(kSilentHost)) {
            withoutSilent.append(address);
        }
    }
    const int rounds =
        (kHostsScanned + ModbusDiscovery::kMaxSynWorkers - 1) / ModbusDiscovery::kMaxSynWorkers;
    const int roundsWithoutSilent =
        (withoutSilent.size() + ModbusDiscovery::kMaxSynWorkers - 1) / ModbusDiscovery::kMaxSynWorkers;
    struct Scenario {
        const char* name;
        QStringList hosts;
        double floorMs;
        const char* floorText;
    };
    const Scenario scenarios[] = {
        {"subnet of the interface", QStringList(),
         std::max<double>(rounds * ModbusDiscovery::kTcpScanConnectTimeoutMs,
                          kSilentHostExchanges * ModbusDiscovery::kTcpScanReadTimeoutMs),
         "max(ceil(hosts / 48) x 80 ms, 10 exchanges x 400 ms of the silent listener)"},
        {"same hosts without the silent listener", withoutSilent,
         static_cast<double>(roundsWithoutSilent * ModbusDiscovery::kTcpScanConnectTimeoutMs),
         "ceil(hosts / 48) x 80 ms"},
    };

    bool allFound = true;
    for (const Scenario& scenario : scenarios) {
        options.tcpHosts = scenario.hosts;
        const int hosts = scenario.hosts.isEmpty() ? kHostsScanned : scenario.hosts.size();
        std::vector<double> wallMs;
        for (int run = 0; run < runs; ++run) {
            double elapsed = -1;
            int found = -1;
            testbed.runInScanner([&] {
                if (::if_nametoindex(testbed.scannerLink.c_str()) == 0) {
                    return;  // never scan anything but the namespace's own interface
                }
                ModbusDiscovery::QtTransport transport;
                const auto start = std::chrono::steady_clock::now();
                found = ModbusDiscovery::discoverDevices(options, transport, nullptr, nullptr).size();
                elapsed = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                              .count();
            });
            if (elapsed < 0) {
                std::fprintf(stderr, "the scan could not run inside %s\n", testbed.scannerNamespace.c_str());
                return 1;
            }
            allFound = allFound && found == static_cast<int>(std::size(kDevices));
            wallMs.push_back(elapsed);
            std::printf("%s, run %d: %.0f ms, %d devices found\n", scenario.name, run + 1, elapsed, found);
        }
        std::sort(wallMs.begin(), wallMs.end());
        const double median = wallMs[wallMs.size() / 2];
        std::printf("%s: %d hosts, port %u, %d workers\n", scenario.name, hosts, kPort,
                    std::min(hosts, ModbusDiscovery::kMaxSynWorkers));
        std::printf("  wall time (median of %d): %.0f ms (min %.0f, max %.0f)\n", runs, median,
                    wallMs.front(), wallMs.back());
        std::printf("  floor: %.0f ms = %s\n", scenario.floorMs, scenario.floorText);
        std::printf("  ratio: %.3f (goal: at most 1.2)\n", median / scenario.floorMs);
    }
    std::printf(
        "reproduce: cmake --build build -j2 --target discovery_bench && sudo build/bench/discovery_bench "
        "%d\n",
        runs);
    return allFound ? 0 : 2;
}
