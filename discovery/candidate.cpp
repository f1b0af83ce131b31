#include "discovery/candidate.h"

#include <QRegularExpression>

#include "discovery/constants.h"

namespace ModbusDiscovery {

namespace {

// Preset for discovered devices: deliberately two below the 125-register limit of one read.
constexpr int kPresetMaxReadRegisters = 123;
// Value of the device setting "transport" that frames requests as RTU on the TCP connection.
const QString kRtuOverTcpText = QString::number(kTransportRtuOverTcp);
const QString kSecureTransportText = QString::number(kTransportModbusTcpSecurity);
const QString kSecureName = QStringLiteral("Modbus/TCP Security");

quint16 effectivePort(const Candidate& candidate) {
    return candidate.port == 0 ? static_cast<quint16>(kDefaultTcpPort) : candidate.port;
}

void fillIfEmpty(QString* target, const QString& value) {
    if (target->isEmpty() && !value.isEmpty()) {
        *target = value;
    }
}

QString withoutUnpairedSurrogates(const QString& text) {
    QString valid;
    valid.reserve(text.size());
    for (int i = 0; i < text.size(); ++i) {
        const QChar character = text.at(i);
        if (!character.isSurrogate()) {
            valid.append(character);
        } else if (character.isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            valid.append(character);
            valid.append(text.at(++i));
        }
    }
    return valid;
}

void insertIfSet(QJsonObject* fields, const QString& key, const QString& value) {
    if (!value.isEmpty()) {
        fields->insert(key, value);
    }
}

// Names the device by its certificate, since nothing could be asked of it.
QString refusedDescription(const Candidate& candidate, const QString& portText) {
    const QString subject = candidate.certificateSubject.isEmpty() ? QStringLiteral("without a subject")
                                                                   : candidate.certificateSubject;
    const QString verdict = candidate.tls.certificate.isEmpty()
                                ? QStringLiteral("a client certificate is needed")
                                : QStringLiteral("it refused the gateway's client certificate");
    return QStringLiteral("%1 device at %2:%3 (certificate %4, expires %5); %6")
        .arg(kSecureName, candidate.address, portText, subject, candidate.certificateExpiry, verdict);
}

}  // namespace

void applyIdentify(Candidate* candidate, const IdentifyResult& result) {
    if (!candidate || !result.ok) {
        return;
    }
    candidate->unitId = result.unitId;
    fillIfEmpty(&candidate->vendor, result.vendor);
    fillIfEmpty(&candidate->productCode, result.productCode);
    fillIfEmpty(&candidate->version, result.version);
    fillIfEmpty(&candidate->vendorUrl, result.vendorUrl);
    fillIfEmpty(&candidate->productName, result.productName);
    fillIfEmpty(&candidate->modelName, result.modelName);
    fillIfEmpty(&candidate->userApplication, result.userApplication);
}

QString sanitizeUidPart(QString text) {
    static const QRegularExpression kSeparators(QStringLiteral("[.:/]"));
    static const QRegularExpression kDisallowed(QStringLiteral("[^A-Za-z0-9_]+"));
    // A regular expression matches nothing in a text that is no valid UTF-16, which would leave it
    // unsanitized.
    text = withoutUnpairedSurrogates(text);
    text.replace(kSeparators, QStringLiteral("_"));
    text.remove(kDisallowed);
    while (text.contains(QLatin1String("__"))) {
        text.replace(QLatin1String("__"), QLatin1String("_"));
    }
    return text;
}

QString uidFor(const Candidate& candidate) {
    // One multi-argument arg(): a chained one would replace a "%1" left in an earlier argument.
    return QStringLiteral("modbus_%1_%2_%3")
        .arg(sanitizeUidPart(candidate.address), QString::number(effectivePort(candidate)),
             QString::number(candidate.unitId));
}

QString identityLabel(const Candidate& candidate) {
    if (!candidate.modelName.isEmpty()) {
        return candidate.modelName;
    }
    if (!candidate.productName.isEmpty()) {
        return candidate.productName;
    }
    return candidate.productCode;
}

QJsonObject candidateToJson(const Candidate& candidate) {
    const quint16 port = effectivePort(candidate);
    const QString label = identityLabel(candidate);
    const QString portText = QString::number(static_cast<uint>(port));
    const QString unitText = QString::number(static_cast<uint>(candidate.unitId));

    QString name;
    if (label.isEmpty()) {
        name = QStringLiteral("Modbus %1").arg(candidate.address);
    } else if (label.contains(candidate.address)) {
        name = label;
    } else {
        name = QStringLiteral("%1 (%2)").arg(label, candidate.address);
    }

    const bool secure = candidate.source == kSourceTlsScan;
    QString description;
    if (secure && candidate.clientCertificateRefused) {
        description = refusedDescription(candidate, portText);
    } else if (!candidate.vendor.isEmpty() || !label.isEmpty()) {
        description = QStringLiteral("%1 %2").arg(candidate.vendor, label).trimmed();
        if (!candidate.version.isEmpty()) {
            description += QStringLiteral(" %1").arg(candidate.version);
        }
        description += QStringLiteral(" at %1:%2 unit %3").arg(candidate.address, portText, unitText);
        if (secure) {
            description += QStringLiteral(" (%1)").arg(kSecureName);
        }
    } else {
        description = QStringLiteral("%1 at %2:%3 unit %4")
                          .arg(secure ? kSecureName : QStringLiteral("Modbus TCP"), candidate.address,
                               portText, unitText);
    }

    QJsonObject fields;
    fields.insert(QStringLiteral("port"), portText);
    fields.insert(QStringLiteral("server_id"), unitText);
    fields.insert(QStringLiteral("persistent_connection"), QStringLiteral("1"));
    fields.insert(QStringLiteral("max_read_registers"), QString::number(kPresetMaxReadRegisters));
    fields.insert(QStringLiteral("write_preset"), QStringLiteral("1"));
    fields.insert(QStringLiteral("endianness"), QStringLiteral("0"));
    fields.insert(QStringLiteral("byte_order"), QStringLiteral("0"));
    fields.insert(QStringLiteral("string_endianness"), QStringLiteral("0"));
    fields.insert(QStringLiteral("string_byte_order"), QStringLiteral("0"));
    if (candidate.source == kSourceRtuOverTcpScan) {
        fields.insert(QStringLiteral("transport"), kRtuOverTcpText);
    }
    if (secure) {
        // The gateway's own settings as the request gave them; a key given as PEM text goes nowhere else.
        fields.insert(QStringLiteral("transport"), kSecureTransportText);
        insertIfSet(&fields, QStringLiteral("tls_ca_certificates"), candidate.tls.caCertificates);
        insertIfSet(&fields, QStringLiteral("tls_certificate"), candidate.tls.certificate);
        insertIfSet(&fields, QStringLiteral("tls_private_key"), candidate.tls.privateKey);
        insertIfSet(&fields, QStringLiteral("tls_server_name"), candidate.tls.serverName);
    }

    const QString uid = uidFor(candidate);
    QJsonObject object;
    object.insert(QStringLiteral("external_id"), uid);
    object.insert(QStringLiteral("uid_hint"), uid);
    object.insert(QStringLiteral("name"), name);
    object.insert(QStringLiteral("description"), description);
    object.insert(QStringLiteral("address"), candidate.address);
    object.insert(QStringLiteral("user_defined_fields"), fields);
    return object;
}

}  // namespace ModbusDiscovery
