#include "plugin/device_options.h"

#include "plugin/setting_keys.h"

namespace {

constexpr int kMinTimeoutMs = 1;
constexpr int kMaxTimeoutMs = 60000;
constexpr int kMaxRequestPauseMs = 10000;
constexpr int kMaxRetries = 5;
constexpr int kMaxBackoffMs = 600000;
constexpr int kFirstUnitId = 1;
constexpr quint16 kDefaultPort = 502;
constexpr quint16 kDefaultSecurePort = 802;
constexpr int kMostOutstandingRequests = 16;

int boundedNumber(QMap<QString, QString> const& settings, QString const& key, int low, int high,
                  int fallback) {
    bool ok = false;
    const int value = setting_keys::settingText(settings, key).trimmed().toInt(&ok);
    return ok && value >= low && value <= high ? value : fallback;
}

}  // namespace

int deviceUnitId(QMap<QString, QString> const& settings) {
    const int unit = setting_keys::settingText(settings, setting_keys::kServerId).toInt();
    return unit < kFirstUnitId ? kFirstUnitId : unit;
}

Transport deviceTransport(QMap<QString, QString> const& settings) {
    return static_cast<Transport>(boundedNumber(settings, setting_keys::kTransport, 0,
                                                static_cast<int>(Transport::ModbusTcpSecurity),
                                                static_cast<int>(DeviceOptions::kDefaultTransport)));
}

quint16 devicePort(QMap<QString, QString> const& settings) {
    const quint16 port = setting_keys::settingText(settings, setting_keys::kPort).toUShort();
    if (port != 0) return port;
    return deviceTransport(settings) == Transport::ModbusTcpSecurity ? kDefaultSecurePort : kDefaultPort;
}

DeviceOptions deviceOptions(QMap<QString, QString> const& settings) {
    using namespace setting_keys;
    DeviceOptions options;
    options.responseTimeoutMs = boundedNumber(settings, kResponseTimeoutMs, kMinTimeoutMs, kMaxTimeoutMs,
                                              DeviceOptions::kDefaultResponseTimeoutMs);
    options.connectTimeoutMs = boundedNumber(settings, kConnectTimeoutMs, kMinTimeoutMs, kMaxTimeoutMs,
                                             DeviceOptions::kDefaultConnectTimeoutMs);
    options.requestPauseMs = boundedNumber(settings, kRequestPauseMs, 0, kMaxRequestPauseMs,
                                           DeviceOptions::kDefaultRequestPauseMs);
    options.retries = boundedNumber(settings, kRetries, 0, kMaxRetries, DeviceOptions::kDefaultRetries);
    options.shareConnection =
        boundedNumber(settings, kShareConnection, 0, 1, DeviceOptions::kDefaultShareConnection ? 1 : 0) == 1;
    options.backoffMaxMs =
        boundedNumber(settings, kBackoffMaxMs, 0, kMaxBackoffMs, DeviceOptions::kDefaultBackoffMaxMs);
    options.readGaps = boundedNumber(settings, kReadGaps, 0, 1, DeviceOptions::kDefaultReadGaps ? 1 : 0) == 1;
    options.maxOutstandingRequests =
        boundedNumber(settings, kMaxOutstandingRequests, 1, kMostOutstandingRequests,
                      DeviceOptions::kDefaultMaxOutstandingRequests);
    options.maskWrite =
        boundedNumber(settings, kMaskWrite, 0, 1, DeviceOptions::kDefaultMaskWrite ? 1 : 0) == 1;
    options.transport = deviceTransport(settings);
    if (options.transport == Transport::ModbusTcpSecurity) {
        options.tls.caCertificates = settingText(settings, kTlsCaCertificates);
        options.tls.certificate = settingText(settings, kTlsCertificate);
        options.tls.privateKey = settingText(settings, kTlsPrivateKey);
        options.tls.serverName = settingText(settings, kTlsServerName);
    }
    return options;
}
