#pragma once
// The plant-network settings of a device, read from its stored texts in one place. A missing, empty,
// non-numeric or out-of-range text reads as the default, so a typo never leaves a device without a time-out.

#include <QMap>
#include <QString>

#include "connection/tls_settings.h"
#include "connection/transport.h"

struct DeviceOptions {
    static constexpr int kDefaultResponseTimeoutMs = 500;
    static constexpr int kDefaultConnectTimeoutMs = 500;
    static constexpr int kDefaultRequestPauseMs = 0;
    static constexpr int kDefaultRetries = 0;
    static constexpr bool kDefaultShareConnection = true;
    static constexpr int kDefaultBackoffMaxMs = 10000;
    static constexpr bool kDefaultReadGaps = true;
    static constexpr int kDefaultMaxOutstandingRequests = 1;
    static constexpr bool kDefaultMaskWrite = false;
    static constexpr Transport kDefaultTransport = Transport::ModbusTcp;

    int responseTimeoutMs = kDefaultResponseTimeoutMs;
    int connectTimeoutMs = kDefaultConnectTimeoutMs;
    int requestPauseMs = kDefaultRequestPauseMs;
    int retries = kDefaultRetries;
    bool shareConnection = kDefaultShareConnection;
    int backoffMaxMs = kDefaultBackoffMaxMs;
    bool readGaps = kDefaultReadGaps;
    int maxOutstandingRequests = kDefaultMaxOutstandingRequests;
    bool maskWrite = kDefaultMaskWrite;
    Transport transport = kDefaultTransport;
    TlsSettings tls;  // read only with Transport::ModbusTcpSecurity
};

DeviceOptions deviceOptions(QMap<QString, QString> const& settings);

// How requests travel: "transport", Modbus TCP when missing or unknown.
Transport deviceTransport(QMap<QString, QString> const& settings);

// The unit id a poll addresses: "server_id", at least 1 (unit 0 is the broadcast id; polling never addresses
// it).
int deviceUnitId(QMap<QString, QString> const& settings);
// The TCP port: "port" as a 16-bit number; when missing, not a number or 0, 802 for Modbus/TCP Security and
// 502 otherwise.
quint16 devicePort(QMap<QString, QString> const& settings);
