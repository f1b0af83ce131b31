#pragma once
// The plant-network settings of a device, read from its stored texts in one place. A missing, empty,
// non-numeric or out-of-range text reads as the default, so a typo never leaves a device without a time-out.

#include <QMap>
#include <QString>

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
};

DeviceOptions deviceOptions(QMap<QString, QString> const& settings);

// The unit id a poll addresses: "server_id", at least 1 (unit 0 is the broadcast id; polling never addresses
// it).
int deviceUnitId(QMap<QString, QString> const& settings);
// The TCP port: "port" as a 16-bit number, 502 when missing, not a number or 0.
quint16 devicePort(QMap<QString, QString> const& settings);
