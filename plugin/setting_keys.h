#pragma once
// Names of the item and device settings and of the value entry, built once instead of on every lookup.

#include <QMap>
#include <QString>

namespace setting_keys {

// Item settings.
inline const QString kRegister = QStringLiteral("register");
inline const QString kRegisterType = QStringLiteral("register_type");
inline const QString kType = QStringLiteral("type");
inline const QString kPrecision = QStringLiteral("floating_point_precision");

// Device settings.
inline const QString kPort = QStringLiteral("port");
inline const QString kServerId = QStringLiteral("server_id");
inline const QString kEndianness = QStringLiteral("endianness");
inline const QString kByteOrder = QStringLiteral("byte_order");
inline const QString kStringEndianness = QStringLiteral("string_endianness");
inline const QString kStringByteOrder = QStringLiteral("string_byte_order");
inline const QString kMaxReadRegisters = QStringLiteral("max_read_registers");
inline const QString kPersistentConnection = QStringLiteral("persistent_connection");
inline const QString kWritePreset = QStringLiteral("write_preset");
inline const QString kResponseTimeoutMs = QStringLiteral("response_timeout_ms");
inline const QString kConnectTimeoutMs = QStringLiteral("connect_timeout_ms");
inline const QString kRequestPauseMs = QStringLiteral("request_pause_ms");
inline const QString kRetries = QStringLiteral("retries");
inline const QString kShareConnection = QStringLiteral("share_connection");
inline const QString kBackoffMaxMs = QStringLiteral("backoff_max_ms");
inline const QString kReadGaps = QStringLiteral("read_gaps");
inline const QString kMaxOutstandingRequests = QStringLiteral("max_outstanding_requests");
inline const QString kMaskWrite = QStringLiteral("mask_write");
inline const QString kTransport = QStringLiteral("transport");
inline const QString kTlsCaCertificates = QStringLiteral("tls_ca_certificates");
inline const QString kTlsCertificate = QStringLiteral("tls_certificate");
inline const QString kTlsPrivateKey = QStringLiteral("tls_private_key");
inline const QString kTlsServerName = QStringLiteral("tls_server_name");

// The entry of DataItem::values that holds the value text.
inline const QString kValue = QStringLiteral("value");

// The text of a setting, or a null text when it is not set; no copy of the map, no default built.
inline QString const& settingText(QMap<QString, QString> const& settings, QString const& key) {
    static QString const kUnset;
    auto const found = settings.constFind(key);
    return found == settings.constEnd() ? kUnset : found.value();
}

}  // namespace setting_keys
