#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>

#include "tools/zelt-modbus/cli.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/config_writer.h"
#include "tools/zelt-modbus/device_link.h"
#include "tools/zelt-modbus/device_target.h"
#include "tools/zelt-modbus/interrupt.h"
#include "tools/zelt-modbus/register_map.h"

namespace zelt_cli {

namespace {

constexpr int kDefaultMaxRequests = 2000;
constexpr int kDefaultRate = 20;
constexpr int kExitInterrupted = 130;
constexpr double kMsPerSecond = 1000.0;
// The stored "type" codes of the items a map writes.
const QString kBitType = QStringLiteral("0");
const QString kUint16Type = QStringLiteral("2");

QString runText(RegisterTable table, const AddressRun& run) {
    return run.first == run.last
               ? registerText(table, run.first)
               : QStringLiteral("%1-%2").arg(registerText(table, run.first), registerText(table, run.last));
}

QString seconds(qint64 ms) {
    return QString::number(ms / kMsPerSecond, 'f', 1);
}

// One device per readable run: the plugin reads the gaps between the items of a device along with them, and a
// device refuses the whole request when it covers a hole.
Config mapConfig(const DeviceTarget& target, const QList<TableMap>& maps) {
    Config config;
    for (const TableMap& map : maps) {
        for (const AddressRun& run : map.runs) {
            DeviceConfig device;
            device.id = config.devices.size() + 1;
            device.name = QStringLiteral("%1 %2").arg(tableKey(map.table), runText(map.table, run));
            device.address = target.address;
            device.settings = {{QStringLiteral("port"), QString::number(target.port)},
                               {QStringLiteral("server_id"), QString::number(target.unit)}};
            // Modbus TCP is what the plugin assumes without the setting: only the converter needs it spelt
            // out.
            if (target.transport != Transport::ModbusTcp)
                device.settings.insert(kTransportSetting, transportSetting(target.transport));
            if (target.transport == Transport::ModbusTcpSecurity) setTlsSettings(&device, target.tls);
            for (int offset = run.first; offset <= run.last; ++offset) {
                ItemConfig item;
                item.uid = QStringLiteral("%1_%2").arg(tableKey(map.table)).arg(offset);
                item.name = QStringLiteral("%1 %2").arg(tableKey(map.table), registerText(map.table, offset));
                item.settings = {{QStringLiteral("register"), registerText(map.table, offset)},
                                 {QStringLiteral("type"), isBitTable(map.table) ? kBitType : kUint16Type}};
                if (!hasAutoAddress(offset))
                    item.settings.insert(QStringLiteral("register_type"),
                                         QString::number(static_cast<int>(map.table)));
                device.items.append(item);
            }
            config.devices.append(device);
        }
    }
    return config;
}

bool readTables(const CommandLine& command, QList<RegisterTable>* tables) {
    const QString text =
        command.value(QStringLiteral("tables"), QStringLiteral("holding,input,coils,discrete"));
    for (const QString& piece : text.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        RegisterTable table;
        if (!tableFromKey(piece.trimmed(), &table)) {
            QTextStream(stderr) << "zelt-modbus map: --tables: unknown table \"" << piece.trimmed()
                                << "\" (expected holding, input, coils, discrete)\n"
                                << command.usage();
            return false;
        }
        if (!tables->contains(table)) tables->append(table);
    }
    if (!tables->isEmpty()) return true;
    QTextStream(stderr) << "zelt-modbus map: --tables: no table given\n" << command.usage();
    return false;
}

bool readRange(const CommandLine& command, MapLimits* limits) {
    if (!command.has(QStringLiteral("range"))) return true;
    const QStringList parts = command.value(QStringLiteral("range")).split(QLatin1Char('-'));
    bool okFirst = false;
    bool okLast = false;
    if (parts.size() == 2) {
        limits->first = parts.at(0).toInt(&okFirst);
        limits->last = parts.at(1).toInt(&okLast);
    }
    if (okFirst && okLast && limits->first >= 0 && limits->first <= limits->last &&
        limits->last <= kLastOffset)
        return true;
    QTextStream(stderr) << "zelt-modbus map: --range needs two 0-based offsets A-B with A <= B <= "
                        << kLastOffset << ", not \"" << command.value(QStringLiteral("range")) << "\"\n"
                        << command.usage();
    return false;
}

QString tableSummary(const TableMap& map) {
    QString summary;
    if (map.unsupported)
        summary = QStringLiteral("not served (exception 1)");
    else if (map.runs.isEmpty())
        summary = QStringLiteral("nothing readable");
    else
        summary =
            QStringLiteral("%1 readable run%2").arg(map.runs.size()).arg(map.runs.size() == 1 ? "" : "s");
    return summary + QStringLiteral(", %1 request%2, %3 s")
                         .arg(map.requests)
                         .arg(map.requests == 1 ? "" : "s")
                         .arg(seconds(map.elapsedMs));
}

QJsonObject mapJson(const DeviceTarget& target, const MapLimits& limits, const QList<TableMap>& maps,
                    int requests, qint64 elapsedMs, const QString& ending) {
    QJsonArray tables;
    for (const TableMap& map : maps) {
        QJsonArray runs;
        for (const AddressRun& run : map.runs)
            runs.append(QJsonObject{{QStringLiteral("first"), run.first},
                                    {QStringLiteral("last"), run.last},
                                    {QStringLiteral("count"), run.last - run.first + 1},
                                    {QStringLiteral("registers"), runText(map.table, run)}});
        QJsonObject table{{QStringLiteral("table"), tableKey(map.table)},
                          {QStringLiteral("runs"), runs},
                          {QStringLiteral("requests"), map.requests},
                          {QStringLiteral("elapsed_ms"), map.elapsedMs},
                          {QStringLiteral("unsupported"), map.unsupported}};
        if (!map.stopped.isEmpty()) table.insert(QStringLiteral("stopped"), map.stopped);
        tables.append(table);
    }
    QJsonObject root{{QStringLiteral("address"), target.address}, {QStringLiteral("port"), target.port},
                     {QStringLiteral("unit"), target.unit},       {QStringLiteral("first"), limits.first},
                     {QStringLiteral("last"), limits.last},       {QStringLiteral("tables"), tables},
                     {QStringLiteral("requests"), requests},      {QStringLiteral("elapsed_ms"), elapsedMs}};
    if (!ending.isEmpty()) root.insert(QStringLiteral("ended"), ending);
    return root;
}

}  // namespace

int runMap(const QStringList& arguments) {
    CommandLine command(
        QStringLiteral("map"),
        QStringLiteral("Finds the addresses each table of a device answers, reading blocks and splitting the "
                       "ones it refuses\n(exception 2 or 3). A table ends early on any other error or a "
                       "timeout.\nExits 0 when every table was mapped to its end, 1 otherwise, 130 when "
                       "interrupted."));
    addTargetOptions(&command);
    command.addOption(QStringLiteral("tables"), QStringLiteral("LIST"),
                      QStringLiteral("tables to map (default holding,input,coils,discrete)"));
    command.addOption(QStringLiteral("range"), QStringLiteral("A-B"),
                      QStringLiteral("0-based offsets to map (default 0-9998: 40001-49999 and alike)"));
    command.addOption(QStringLiteral("max-requests"), QStringLiteral("N"),
                      QStringLiteral("stop after this many requests in all (default 2000)"));
    command.addOption(QStringLiteral("rate"), QStringLiteral("N"),
                      QStringLiteral("at most this many requests per second (default 20)"));
    command.addOption(QStringLiteral("config-out"), QStringLiteral("FILE"),
                      QStringLiteral("write a configuration for poll: one item per readable address"));
    command.addFlag(QStringLiteral("json"), QStringLiteral("print one JSON object"));
    if (int exitCode = 0; !command.parse(arguments, &exitCode)) return exitCode;

    DeviceTarget target;
    if (!readTarget(command, QStringLiteral("map"), &target)) return kExitUsage;
    QList<RegisterTable> tables;
    MapLimits limits;
    if (!readTables(command, &tables) || !readRange(command, &limits) ||
        !readNumberOption(command, QStringLiteral("max-requests"), 1, kDefaultMaxRequests,
                          &limits.maxRequests) ||
        !readNumberOption(command, QStringLiteral("rate"), 1, kDefaultRate, &limits.ratePerSecond))
        return kExitUsage;

    installInterruptHandler();
    DeviceLink link(target.address, target.port, target.unit, target.responseTimeoutMs, target.transport,
                    target.tls);
    RegisterMapper mapper(
        [&link](RegisterTable table, int first, int count) {
            std::vector<uint16_t> words;
            std::vector<uint8_t> bits;
            return link.read(table, first, count, &words, &bits);
        },
        limits);
    QElapsedTimer timer;
    timer.start();
    QList<TableMap> maps;
    bool complete = true;
    for (RegisterTable table : tables) {
        TableMap map;
        const bool goOn = mapper.mapTable(table, &map);
        maps.append(map);
        complete = complete && map.stopped.isEmpty();
        if (!goOn) {
            complete = false;
            break;
        }
    }
    link.close();
    const qint64 elapsedMs = timer.elapsed();

    QTextStream out(stdout);
    if (command.flag(QStringLiteral("json"))) {
        out << QJsonDocument(
                   mapJson(target, limits, maps, mapper.totalRequests(), elapsedMs, mapper.endReason()))
                   .toJson(QJsonDocument::Indented);
    } else {
        out << "Mapping " << link.describe() << ", offsets " << limits.first << "-" << limits.last
            << ", at most " << limits.ratePerSecond << " requests per second and " << limits.maxRequests
            << " in all.\n";
        for (const TableMap& map : maps) {
            out << "\n" << tableTitle(map.table) << ": " << tableSummary(map) << "\n";
            if (!map.stopped.isEmpty()) out << "  stopped: " << map.stopped << "\n";
            if (map.runs.isEmpty()) continue;
            Table rows({QStringLiteral("registers"), QStringLiteral("offsets"), QStringLiteral("count")});
            for (const AddressRun& run : map.runs)
                rows.addRow({runText(map.table, run), QStringLiteral("%1-%2").arg(run.first).arg(run.last),
                             QString::number(run.last - run.first + 1)});
            rows.print(out);
        }
        out << "\n" << mapper.totalRequests() << " requests in " << seconds(elapsedMs) << " s.";
        if (!mapper.endReason().isEmpty()) out << " Ended early: " << mapper.endReason() << ".";
        out << "\n";
    }
    out.flush();

    if (command.has(QStringLiteral("config-out"))) {
        const Config config = mapConfig(target, maps);
        QString error;
        const QString path = command.value(QStringLiteral("config-out"));
        if (!writeConfigFile(path, configToJson(config), &error)) return fail(error);
        int items = 0;
        for (const DeviceConfig& device : config.devices) items += device.items.size();
        QTextStream(stderr) << "zelt-modbus map: wrote " << path << ": " << config.devices.size()
                            << (config.devices.size() == 1 ? " device, " : " devices, ") << items
                            << (items == 1 ? " item\n" : " items\n");
    }
    if (interrupted()) {
        QTextStream(stderr) << "zelt-modbus map: interrupted; the map above is what was found until then\n";
        return kExitInterrupted;
    }
    return complete ? 0 : 1;
}

}  // namespace zelt_cli
