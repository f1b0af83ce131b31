#include "discovery/options.h"

#include <QJsonArray>
#include <QJsonValue>
#include <QPair>
#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "discovery/candidate.h"

namespace ModbusDiscovery {

namespace {

constexpr int kMinTimeoutMs = 1000;
constexpr int kMaxTimeoutMs = 300000;
constexpr int kMinTcpPort = 1;
constexpr int kMaxTcpPort = 65535;
// Unit 0 is the TCP broadcast/default unit; some gateways answer only there.
constexpr int kMinUnitId = 0;
constexpr int kMaxUnitId = 255;
constexpr int kMinDatabits = 5;
constexpr int kMaxDatabits = 8;
constexpr int kOneStopBit = 1;
constexpr int kTwoStopBits = 2;
const QString kSecureTransportText = QString::number(kTransportModbusTcpSecurity);

QString jsonValueToString(const QJsonValue& value) {
    switch (value.type()) {
        case QJsonValue::String:
            return value.toString().trimmed();
        case QJsonValue::Double: {
            // Cut off the fraction; saturate instead of overflowing on absurd numbers.
            const double number = std::trunc(value.toDouble());
            constexpr double kLimit = 9.2e18;
            qint64 integer = 0;
            if (number >= kLimit) {
                integer = std::numeric_limits<qint64>::max();
            } else if (number <= -kLimit) {
                integer = std::numeric_limits<qint64>::min();
            } else if (!std::isnan(number)) {
                integer = static_cast<qint64>(number);
            }
            return QString::number(integer);
        }
        case QJsonValue::Bool:
            return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
        default:
            return QString();
    }
}

// The host puts settings at the top level, under "options" or under "user_defined_fields"; the first
// non-empty one wins.
QString getField(const QJsonObject& object, const QString& key, const QString& fallback) {
    if (object.contains(key)) {
        const QString text = jsonValueToString(object.value(key));
        if (!text.isEmpty()) {
            return text;
        }
    }
    for (const QString& nested : {QStringLiteral("options"), QStringLiteral("user_defined_fields")}) {
        const QJsonValue inner = object.value(nested);
        if (inner.isObject() && inner.toObject().contains(key)) {
            const QString text = jsonValueToString(inner.toObject().value(key));
            if (!text.isEmpty()) {
                return text;
            }
        }
    }
    return fallback;
}

bool hasField(const QJsonObject& object, const QString& key) {
    if (object.contains(key)) {
        return true;
    }
    for (const QString& nested : {QStringLiteral("options"), QStringLiteral("user_defined_fields")}) {
        const QJsonValue inner = object.value(nested);
        if (inner.isObject() && inner.toObject().contains(key)) {
            return true;
        }
    }
    return false;
}

// Single numbers are taken first, ranges expanded afterwards in their order of appearance.
QList<int> parseIntList(const QString& text, int min, int max, int limit) {
    QList<int> values;
    QList<QPair<int, int>> ranges;
    const QStringList pieces = text.split(QLatin1Char(','), Qt::SkipEmptyParts);
    for (const QString& rawPiece : pieces) {
        const QString piece = rawPiece.trimmed();
        const int dash = piece.indexOf(QLatin1Char('-'));
        if (dash <= 0) {
            bool ok = false;
            const int value = piece.toInt(&ok);
            if (ok && value >= min && value <= max && !values.contains(value) && values.size() < limit) {
                values.append(value);
            }
            continue;
        }
        bool lowOk = false;
        bool highOk = false;
        int low = piece.left(dash).trimmed().toInt(&lowOk);
        int high = piece.mid(dash + 1).trimmed().toInt(&highOk);
        if (!lowOk || !highOk) {
            continue;
        }
        if (low > high) {
            std::swap(low, high);
        }
        ranges.append(qMakePair(low, high));
    }
    for (const auto& range : ranges) {
        // Clamp first so the walk never runs outside [min, max] nor overflows.
        const int from = std::max(range.first, min);
        const int to = std::min(range.second, max);
        for (int value = from; value <= to; ++value) {
            if (values.size() >= limit) {
                return values;
            }
            if (!values.contains(value)) {
                values.append(value);
            }
            if (value == to) {
                break;
            }
        }
        if (values.size() >= limit) {
            return values;
        }
    }
    return values;
}

int clampedTimeout(const QString& text) {
    bool ok = false;
    const int value = text.toInt(&ok);
    if (!ok || value <= 0) {
        return kDefaultTimeoutMs;
    }
    return std::min(std::max(value, kMinTimeoutMs), kMaxTimeoutMs);
}

bool switchedOn(const QString& text) {
    return text != QLatin1String("0") && text.compare(QLatin1String("false"), Qt::CaseInsensitive) != 0;
}

void addExistingDevices(const QJsonObject& request, QStringList* existingUids) {
    const QJsonValue devices = request.value(QStringLiteral("existing_devices"));
    if (!devices.isArray()) {
        return;
    }
    for (const QJsonValue& entry : devices.toArray()) {
        if (!entry.isObject()) {
            continue;
        }
        const QJsonObject device = entry.toObject();
        const QString uid =
            getField(device, QStringLiteral("uid_hint"), getField(device, QStringLiteral("uid"), QString()));
        if (!uid.isEmpty()) {
            existingUids->append(uid);
        }
        // The uid a scan would compute for this device also marks it as known. A unit id no scan can reach
        // marks nothing: narrowed to 8 bits it would hide the real device at the unit it wraps to.
        bool unitIsNumber = false;
        const qlonglong unit =
            getField(device, QStringLiteral("server_id"), QString()).toLongLong(&unitIsNumber);
        if (unitIsNumber && (unit < kMinUnitId || unit > kMaxUnitId)) {
            continue;
        }
        Candidate candidate;
        candidate.address = getField(device, QStringLiteral("address"), QString());
        candidate.port = getField(device, QStringLiteral("port"), QString()).toUShort();
        candidate.unitId = unitIsNumber ? static_cast<quint8>(unit) : 0;
        candidate.deviceInterface = getField(device, QStringLiteral("device_interface"), QString());
        const QString computed = uidFor(candidate);
        if (!computed.isEmpty() && !existingUids->contains(computed)) {
            existingUids->append(computed);
        }
    }
}

}  // namespace

QList<quint16> parsePortList(const QString& text, const QList<quint16>& fallback) {
    QList<quint16> ports;
    for (const int value : parseIntList(text, kMinTcpPort, kMaxTcpPort, kMaxTcpScanPorts)) {
        ports.append(static_cast<quint16>(value));
    }
    return ports.isEmpty() ? fallback : ports;
}

QList<quint8> parseUnitIdList(const QString& text, const QList<quint8>& fallback) {
    QList<quint8> units;
    for (const int value : parseIntList(text, kMinUnitId, kMaxUnitId, kMaxTcpUnitIds)) {
        units.append(static_cast<quint8>(value));
    }
    return units.isEmpty() ? fallback : units;
}

Options optionsFromRequest(const QJsonObject& request, QStringList* log) {
    Q_UNUSED(log);  // bad input falls back silently; nothing to tell the user here
    Options options;
    options.timeoutMs =
        clampedTimeout(getField(request, QStringLiteral("timeout_ms"), QStringLiteral("60000")));

    const QString interfaceKey = QStringLiteral("network_interface");
    options.networkInterface =
        hasField(request, interfaceKey) ? getField(request, interfaceKey, QString()) : QStringLiteral("eth0");

    // Only the exact setting text: anything else keeps the plain scan a request without it always had.
    if (getField(request, QStringLiteral("transport"), QString()) == kSecureTransportText) {
        options.transport = kTransportModbusTcpSecurity;
        options.tls.caCertificates = getField(request, QStringLiteral("tls_ca_certificates"), QString());
        options.tls.certificate = getField(request, QStringLiteral("tls_certificate"), QString());
        options.tls.privateKey = getField(request, QStringLiteral("tls_private_key"), QString());
        options.tls.serverName = getField(request, QStringLiteral("tls_server_name"), QString());
    }
    const quint16 defaultPort = static_cast<quint16>(options.secure() ? kDefaultSecurePort : kDefaultTcpPort);
    options.tcpPorts = parsePortList(
        getField(request, QStringLiteral("tcp_ports"), QString::number(defaultPort)), {defaultPort});
    options.unitIds = parseUnitIdList(getField(request, QStringLiteral("server_ids"), QStringLiteral("1")),
                                      {static_cast<quint8>(kDefaultUnitId)});
    options.tcpSubnetScan =
        switchedOn(getField(request, QStringLiteral("tcp_subnet_scan"), QStringLiteral("1")));
    // Off unless asked for exactly: RTU probing sends frames a Modbus TCP device never expects.
    options.rtuOverTcp =
        getField(request, QStringLiteral("rtu_over_tcp"), QStringLiteral("0")) == QLatin1String("1");
    options.deviceInterface = getField(request, QStringLiteral("device_interface"), QString());

    const int baudrate = getField(request, QStringLiteral("baudrate"), QStringLiteral("9600")).toInt();
    if (baudrate > 0) {
        options.baudrate = baudrate;
    }
    const QString parity = getField(request, QStringLiteral("parity"), QStringLiteral("N")).toUpper();
    if (!parity.isEmpty()) {
        options.parity = parity.left(1);
    }
    const int databits = getField(request, QStringLiteral("databits"), QStringLiteral("8")).toInt();
    if (databits >= kMinDatabits && databits <= kMaxDatabits) {
        options.databits = databits;
    }
    const int stopbits = getField(request, QStringLiteral("stopbits"), QStringLiteral("1")).toInt();
    if (stopbits == kOneStopBit || stopbits == kTwoStopBits) {
        options.stopbits = stopbits;
    }
    options.serialMode = getField(request, QStringLiteral("serial_mode"), QStringLiteral("1")).toInt();
    const int interframeDelay =
        getField(request, QStringLiteral("interframe_delay"), QStringLiteral("200")).toInt();
    if (interframeDelay >= 0) {
        options.interframeDelay = interframeDelay;
    }

    addExistingDevices(request, &options.existingUids);
    return options;
}

}  // namespace ModbusDiscovery
