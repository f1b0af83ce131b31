#include "model/config_run.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <numeric>
#include <thread>

#include "common/plugin_batch.h"
#include "common/time_scale.h"
#include "model/fault_injection.h"
#include "model/request_audit.h"
#include "model/value_texts.h"
#include "model/write_effects.h"
#include "tools/sim/sim_pki.h"
#include "tools/standin/standin_host.h"

namespace model_check {

namespace {

constexpr int kCleanRounds = 2;
constexpr int kConcurrentOperations = 3;
constexpr int kFaultRounds = 2;
constexpr int kFaultOperations = 2;
constexpr int kRecoveryRounds = 1;
constexpr int kWritePercent = 30;
constexpr int kShufflePercent = 30;
constexpr int kRestartPercent = 50;
constexpr int kMostItemsPerWrite = 3;
// Every connection is closed within this after stopPlugin, late answers included.
constexpr std::chrono::milliseconds kQuiesceBudget(30000 * zelt_test::kTimeScale);
constexpr uint64_t kRunSalt = 0xA5A5A5A5ULL;

}  // namespace

ConfigRun::ConfigRun(const ConfigModel& config, Violations& violations)
    : config(config), violations(violations), random(config.seed ^ kRunSalt) {}

ConfigRun::~ConfigRun() {
    plugin.stopPlugin();
    for (auto& sim : sims) sim->stop();
    zelt_standin::Host::instance().reset();
}

bool ConfigRun::makeCertificateKit(QString* error) {
    if (pkiMade) return true;
    if (!pki.isValid()) {
        *error = QStringLiteral("no directory for the certificate kit");
        return false;
    }
    pkiMade = modbus_sim::makeTestPki(pki.path(), QStringLiteral("127.0.0.1"), error);
    return pkiMade;
}

bool ConfigRun::startSimulators(QString* error) {
    for (int s = 0; s < config.simCount; ++s) {
        auto sim = std::make_unique<modbus_sim::Simulator>();
        if (config.rtuSimulators[static_cast<size_t>(s)]) sim->setFraming(modbus_sim::Framing::Rtu);
        if (config.tlsSimulators[static_cast<size_t>(s)]) {
            if (!makeCertificateKit(error)) return false;
            sim->setTlsKit(pki.path(), modbus_sim::TlsFault::None);
        }
        if (!sim->start(QStringLiteral("127.0.0.1"), 0, error)) return false;
        // Every unit with tables of its own, and the shared tables, hold data of their own.
        const std::set<int> tableUnits = config.tableUnits(s);
        std::vector<int> units(tableUnits.cbegin(), tableUnits.cend());
        units.push_back(kSharedTables);
        for (int unit : units) {
            UnitTables& tables = model[{s, unit}];
            fillRandom(tables, random);
            storeTables(*sim, unit, tables);
        }
        installPermanentFaults(*sim, config, s);
        installIdentity(*sim, config.identities[static_cast<size_t>(s)]);
        sims.push_back(std::move(sim));
    }
    for (const DeviceModel& device : config.devices) {
        QMap<QString, QString> settings = device.settings;
        if (device.tls) {
            settings.insert(QStringLiteral("tls_ca_certificates"), pki.filePath(QStringLiteral("ca.pem")));
            settings.insert(QStringLiteral("tls_certificate"), pki.filePath(QStringLiteral("client.pem")));
            settings.insert(QStringLiteral("tls_private_key"), pki.filePath(QStringLiteral("client.key")));
        }
        hostDevices.push_back(
            plugin_test::makeDevice(device.id, sims[static_cast<size_t>(device.sim)]->port(), settings));
        std::vector<ItemInstancePlugin> items;
        for (const ItemModel& item : device.items)
            items.push_back(plugin_test::makeItem(item.uid, item.registerText, item.registerTypeText,
                                                  item.typeText, item.precisionText));
        hostItems.push_back(items);
    }
    return true;
}

void ConfigRun::quiesce(const QString& where) {
    plugin.stopPlugin();
    for (int s = 0; s < config.simCount; ++s) {
        const modbus_sim::Simulator& sim = *sims[static_cast<size_t>(s)];
        if (!plugin_test::waitUntil([&sim] { return sim.openConnections() == 0; }, kQuiesceBudget))
            violations.add(Check::Connections,
                           QStringLiteral("seed %1, %2: simulator %3 still has %4 connection(s) "
                                          "open after stopPlugin")
                               .arg(config.seed)
                               .arg(where)
                               .arg(s)
                               .arg(sim.openConnections()));
    }
}

void ConfigRun::clearRequestLogs() {
    for (auto& sim : sims) sim->clearRequestLog();
}

void ConfigRun::auditOtherSimulators(const DeviceModel& device, const QString& where) {
    for (int s = 0; s < config.simCount; ++s) {
        if (s == device.sim) continue;
        const std::vector<modbus_sim::RequestRecord> records = sims[static_cast<size_t>(s)]->requestLog();
        if (!records.empty())
            violations.add(Check::Unit,
                           QStringLiteral("%1: a batch of device %2 (simulator %3) sent %4 request(s) to "
                                          "simulator %5, the first FC %6 unit %7")
                               .arg(where)
                               .arg(device.id)
                               .arg(device.sim)
                               .arg(records.size())
                               .arg(s)
                               .arg(records.front().function)
                               .arg(records.front().unit));
    }
}

void ConfigRun::compareTables(const QString& where) {
    for (auto& entry : model) {
        const int s = entry.first.first;
        const int unit = entry.first.second;
        const QString difference =
            firstDifference(readWritable(*sims[static_cast<size_t>(s)], unit), entry.second);
        if (difference.isNull()) continue;
        violations.add(Check::Tables, QStringLiteral("seed %1, %2: simulator %3 unit %4: %5")
                                          .arg(config.seed)
                                          .arg(where)
                                          .arg(s)
                                          .arg(unit)
                                          .arg(difference));
        // Taken over, so that one stray write is reported once.
        const WritableTables actual = readWritable(*sims[static_cast<size_t>(s)], unit);
        entry.second.holding = actual.holding;
        entry.second.coils = actual.coils;
    }
}

std::vector<size_t> ConfigRun::writableItems(size_t index) const {
    std::vector<size_t> writable;
    const DeviceModel& device = config.devices[index];
    for (size_t i = 0; i < device.items.size(); ++i) {
        const ItemModel& item = device.items[i];
        // A bit of an input register is read from the input registers and written to the holding registers:
        // left out until it is settled what "mask_write" does with it.
        if (!item.validTable || (item.table == Table::InputRegisters && item.isRegisterBit())) continue;
        writable.push_back(i);
    }
    return writable;
}

bool ConfigRun::concurrentWriter(size_t index) const {
    const DeviceModel& device = config.devices[index];
    if (writableItems(index).empty()) return false;
    if (!device.addressable()) return true;
    for (size_t other = 0; other < config.devices.size(); ++other) {
        const DeviceModel& neighbour = config.devices[other];
        if (other != index && neighbour.sim == device.sim && neighbour.unit == device.unit) return false;
    }
    return true;
}

std::vector<int> ConfigRun::snapshotUnits(size_t index, bool alone) const {
    const DeviceModel& device = config.devices[index];
    std::vector<int> units;
    if (alone) {
        // No other batch runs: every table of the simulator must stay as it is but the device's unit's.
        for (const auto& entry : model)
            if (entry.first.first == device.sim) units.push_back(entry.first.second);
    } else if (device.addressable()) {
        units.push_back(device.unit);
    }
    return units;
}

void ConfigRun::operate(size_t index, Random& rng, const Phase& phase, bool alone, bool writeAllowed) {
    if (writeAllowed && phase.writes && !writableItems(index).empty() && rng.percent(kWritePercent))
        write(index, rng, phase, alone);
    else
        poll(index, rng, phase, alone);
}

void ConfigRun::poll(size_t index, Random& rng, const Phase& phase, bool alone) {
    const DeviceModel& device = config.devices[index];
    modbus_sim::Simulator& sim = *sims[static_cast<size_t>(device.sim)];
    const QString where = QStringLiteral("seed %1, %2").arg(config.seed).arg(phase.name);
    std::vector<size_t> order(device.items.size());
    std::iota(order.begin(), order.end(), 0);
    // The host may hand the same items over in another order.
    if (rng.percent(kShufflePercent)) rng.shuffle(order);
    plugin_test::Batch batch(hostDevices[index]);
    PolledItems polled;
    for (size_t i : order) polled.emplace_back(&device.items[i], batch.add(hostItems[index][i]));
    if (alone) clearRequestLogs();
    const bool ok = plugin.readData(&batch.list);
    ++pollCount;
    const UnitTables* tables = device.addressable() ? &model.at({device.sim, device.unit}) : nullptr;
    checkPoll(BatchContext{config, device, phase.strictness, where}, tables, batch.list, polled, ok,
              violations);
    if (alone) {
        auditPoll(device, sim.requestLog(), phase.retryBound && !config.unitHasHoles(device.sim, device.unit),
                  violations, where);
        auditOtherSimulators(device, where);
    }
}

void ConfigRun::write(size_t index, Random& rng, const Phase& phase, bool alone) {
    const DeviceModel& device = config.devices[index];
    modbus_sim::Simulator& sim = *sims[static_cast<size_t>(device.sim)];
    const QString where = QStringLiteral("seed %1, %2").arg(config.seed).arg(phase.name);
    std::vector<size_t> writable = writableItems(index);
    rng.shuffle(writable);
    writable.resize(std::min(writable.size(), static_cast<size_t>(rng.between(1, kMostItemsPerWrite))));

    std::vector<const ItemModel*> items;
    QStringList values;
    plugin_test::Batch batch(hostDevices[index]);
    std::vector<const DataItem*> written;
    for (size_t i : writable) {
        const ItemModel& item = device.items[i];
        items.push_back(&item);
        values.append(randomValueText(item, rng));
        DataItem* data = batch.add(hostItems[index][i]);
        data->values.insert(QStringLiteral("value"), values.last());
        written.push_back(data);
    }
    const std::vector<WriteStep> steps = planWrites(config, device, items, values);

    const std::vector<int> units = snapshotUnits(index, alone);
    std::map<int, WritableTables> before;
    for (int unit : units) before[unit] = readWritable(sim, unit);
    if (alone) clearRequestLogs();
    const bool ok = plugin.writeData(&batch.list);
    ++writeCount;

    checkWrite(BatchContext{config, device, phase.strictness, where}, batch.list, steps, written, ok,
               violations);
    if (alone) {
        auditWrite(config, device, sim.requestLog(), steps, phase.strictness == Strictness::Exact, violations,
                   where);
        auditOtherSimulators(device, where);
    }
    for (int unit : units) {
        const WritableTables after = readWritable(sim, unit);
        QString difference;
        if (device.addressable() && unit == device.unit)
            difference = phase.strictness == Strictness::Exact
                             ? exactEffectDifference(before[unit], after, steps)
                             : possibleEffectDifference(before[unit], after, steps);
        else
            difference = unchangedDifference(before[unit], after);
        if (!difference.isNull())
            violations.add(Check::WriteEffect,
                           QStringLiteral("%1: write of device %2 (unit %3): on unit %4, %5")
                               .arg(where)
                               .arg(device.id)
                               .arg(device.unit)
                               .arg(unit)
                               .arg(difference));
        UnitTables& tables = model.at({device.sim, unit});
        tables.holding = after.holding;
        tables.coils = after.coils;
    }
}

void ConfigRun::sequentialPhase(const Phase& phase, int rounds) {
    for (int round = 0; round < rounds; ++round) {
        std::vector<size_t> order(config.devices.size());
        std::iota(order.begin(), order.end(), 0);
        random.shuffle(order);
        for (size_t index : order) operate(index, random, phase, true, true);
    }
}

void ConfigRun::concurrentPhase(const Phase& phase, int operations, bool audit) {
    clearRequestLogs();
    std::vector<Random> randoms;
    std::set<int> writers;
    for (size_t index = 0; index < config.devices.size(); ++index) {
        randoms.push_back(random.split());
        if (concurrentWriter(index)) writers.insert(config.devices[index].id);
    }
    // The threads start together, as the host's pollers do.
    std::mutex mutex;
    std::condition_variable start;
    bool go = false;
    std::vector<std::thread> threads;
    for (size_t index = 0; index < config.devices.size(); ++index) {
        threads.emplace_back([&, index] {
            {
                std::unique_lock<std::mutex> lock(mutex);
                start.wait(lock, [&go] { return go; });
            }
            const bool writer = writers.count(config.devices[index].id) > 0;
            for (int n = 0; n < operations; ++n) operate(index, randoms[index], phase, false, writer);
        });
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        go = true;
    }
    start.notify_all();
    for (std::thread& thread : threads) thread.join();
    if (!audit) return;
    const QString where = QStringLiteral("seed %1, %2").arg(config.seed).arg(phase.name);
    for (int s = 0; s < config.simCount; ++s)
        auditConcurrent(config, s, sims[static_cast<size_t>(s)]->requestLog(), writers, violations, where);
}

void ConfigRun::faultPhase() {
    Phase phase;
    phase.name = config.faultPhaseConcurrent ? QStringLiteral("concurrent fault phase")
                                             : QStringLiteral("sequential fault phase");
    // A late identity answer is dropped by its transaction id, and the time-out leaves room for it: no data
    // request may fail for it.
    phase.strictness = config.onlyLateIdentity() ? Strictness::Exact : Strictness::Lenient;
    // A write queued behind a late data answer may be carried out after its batch gave up on it: no writes
    // then.
    phase.writes = !config.hasFault(FaultKind::DataDelay);
    phase.retryBound = std::all_of(config.faults.cbegin(), config.faults.cend(),
                                   [](const TransientFault& fault) { return fault.kind == FaultKind::Busy; });
    // The identity is probed once per plugin run: a late identity answer needs a fresh run.
    if (config.hasFault(FaultKind::IdentityDelay)) quiesce(QStringLiteral("before the fault phase"));
    const QString kTimeoutKey = QStringLiteral("response_timeout_ms");
    if (config.faultResponseTimeoutMs > 0)
        for (DeviceInstancePlugin& device : hostDevices)
            device.settings.insert(kTimeoutKey, QString::number(config.faultResponseTimeoutMs));
    installTransientFaults(sims, config);
    clearRequestLogs();
    if (config.faultPhaseConcurrent)
        concurrentPhase(phase, kFaultOperations, false);
    else
        sequentialPhase(phase, kFaultRounds);
    // Late answers go out at once from now on; then every request sent is in the logs.
    clearTransientFaults(sims, config);
    quiesce(phase.name);
    if (config.faultResponseTimeoutMs > 0)
        for (DeviceInstancePlugin& device : hostDevices)
            device.settings.insert(kTimeoutKey, QString::number(config.responseTimeoutMs));
    if (config.faultPhaseConcurrent) {
        std::set<int> writers;
        for (size_t index = 0; index < config.devices.size(); ++index)
            if (phase.writes && concurrentWriter(index)) writers.insert(config.devices[index].id);
        for (int s = 0; s < config.simCount; ++s)
            auditConcurrent(config, s, sims[static_cast<size_t>(s)]->requestLog(), writers, violations,
                            QStringLiteral("seed %1, %2").arg(config.seed).arg(phase.name));
    }
    compareTables(QStringLiteral("after the fault phase"));
    clearRequestLogs();
}

bool ConfigRun::run(QString* error) {
    zelt_standin::Host::instance().reset();
    if (!startSimulators(error)) return false;

    Phase clean;
    clean.name = QStringLiteral("sequential phase");
    sequentialPhase(clean, kCleanRounds);
    clean.name = QStringLiteral("concurrent phase");
    concurrentPhase(clean, kConcurrentOperations, true);
    compareTables(QStringLiteral("after the concurrent phase"));

    if (!config.faults.empty()) {
        faultPhase();
    } else if (random.percent(kRestartPercent)) {
        quiesce(QStringLiteral("restart"));
        clearRequestLogs();
    } else {
        return true;
    }
    clean.name = QStringLiteral("recovery phase");
    sequentialPhase(clean, kRecoveryRounds);
    compareTables(QStringLiteral("at the end"));
    return true;
}

}  // namespace model_check
