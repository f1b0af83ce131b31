#pragma once
// What a device's polls and writes have met since the plugin's init: counts and round trips, kept per device
// (per unit behind a gateway), so that the bad device among many can be found.

#include <QDateTime>
#include <QtGlobal>
#include <array>
#include <climits>

struct DeviceHealth {
    static constexpr int kRecentResponses = 100;

    quint64 requests = 0;         // every request sent, each try counted
    quint64 failedRequests = 0;   // requests whose items failed, after their retries
    quint64 timeouts = 0;         // tries that got no answer in time
    quint64 exceptions = 0;       // Modbus exception answers
    quint64 retries = 0;          // tries after the first
    quint64 connects = 0;         // connections opened for the device (or first used by it, when shared)
    quint64 connectFailures = 0;  // failed connection attempts
    double lastResponseMs = 0;
    double maxResponseMs = 0;
    double lastPollMs = 0;
    QDateTime lastOk;  // UTC; null before the first poll without error
    // Modbus/TCP Security: handshakes made for the device, how many of them resumed a session, and the days
    // until the device's certificate (from the last handshake) and the gateway's own expire; INT_MIN:
    // unknown.
    quint64 tlsHandshakes = 0;
    quint64 tlsResumed = 0;
    int tlsCertificateDaysLeft = INT_MIN;
    int tlsClientCertificateDaysLeft = INT_MIN;
    // When expiry was last warned of (plugin clock, ms); a day later it is warned of again.
    qint64 tlsExpiryWarnedMs = LLONG_MIN;

    void recordResponse(double ms);
    // Mean of the last kRecentResponses round trips; 0 before the first.
    double averageResponseMs() const;

private:
    std::array<double, kRecentResponses> recent{};
    int recentCount = 0;
    int recentNext = 0;
};
