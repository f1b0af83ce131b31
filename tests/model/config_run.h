#pragma once
// One configuration from start to end: its simulators and their data, the plugin, and the phases that drive
// the plugin as the host does (devices one after another, then from a thread each), with faults and after
// them, each batch checked against the model.

#include <QString>
#include <QTemporaryDir>
#include <atomic>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "host/records.h"
#include "model/batch_checks.h"
#include "model/model_config.h"
#include "model/model_random.h"
#include "model/unit_tables.h"
#include "model/violations.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"

namespace model_check {

class ConfigRun {
public:
    ConfigRun(const ConfigModel& config, Violations& violations);
    ~ConfigRun();
    ConfigRun(const ConfigRun&) = delete;
    ConfigRun& operator=(const ConfigRun&) = delete;

    // Every phase; false with a reason when the simulators could not start.
    bool run(QString* error);
    long polls() const { return pollCount.load(); }
    long writes() const { return writeCount.load(); }

private:
    struct Phase {
        QString name;
        Strictness strictness = Strictness::Exact;
        bool writes = true;
        // No fault but busy answers was injected: no read may be sent more often than the device's retries
        // allow.
        bool retryBound = true;
    };

    bool startSimulators(QString* error);
    // The certificates of the Modbus/TCP Security simulators and their devices, made once per configuration.
    bool makeCertificateKit(QString* error);
    // Stops the plugin and waits until the simulators have seen every connection close, so that each request
    // sent so far is in their logs and nothing arrives later.
    void quiesce(const QString& where);
    void compareTables(const QString& where);
    void clearRequestLogs();
    // A batch that ran alone sent nothing to the simulators of other devices.
    void auditOtherSimulators(const DeviceModel& device, const QString& where);

    void sequentialPhase(const Phase& phase, int rounds);
    void concurrentPhase(const Phase& phase, int operations, bool audit);
    void faultPhase();
    // One poll or write of a device; `alone` when no other batch runs, so that the simulator's log holds this
    // batch's requests only.
    void operate(size_t index, Random& random, const Phase& phase, bool alone, bool writeAllowed);
    void poll(size_t index, Random& random, const Phase& phase, bool alone);
    void write(size_t index, Random& random, const Phase& phase, bool alone);

    std::vector<size_t> writableItems(size_t index) const;
    // May write in a concurrent phase: no other device reads or writes its unit, or nothing it sends counts.
    bool concurrentWriter(size_t index) const;
    std::vector<int> snapshotUnits(size_t index, bool alone) const;

    const ConfigModel& config;
    Violations& violations;
    Random random;
    std::vector<std::unique_ptr<modbus_sim::Simulator>> sims;
    Modbus plugin;
    // The model's tables by simulator and unit (kSharedTables for the shared ones).
    std::map<std::pair<int, int>, UnitTables> model;
    std::vector<DeviceInstancePlugin> hostDevices;
    std::vector<std::vector<ItemInstancePlugin>> hostItems;
    std::atomic<long> pollCount{0};
    std::atomic<long> writeCount{0};
    QTemporaryDir pki;
    bool pkiMade = false;
};

}  // namespace model_check
