#include "plugin/diagnostics.h"

#include <QHash>
#include <climits>

namespace diagnostics {

namespace {

enum class Name {
    Requests,
    FailedRequests,
    Timeouts,
    Exceptions,
    Retries,
    Connects,
    ConnectFailures,
    ResponseMs,
    ResponseMsAvg,
    ResponseMsMax,
    PollMs,
    Connected,
    BackoffS,
    LastError,
    LastOk,
    TlsHandshakes,
    TlsResumed,
    TlsCertificateDaysLeft,
    TlsClientCertificateDaysLeft,
};

struct NameTable {
    QVector<QString> ordered;
    QHash<QString, Name> byName;
};

NameTable const& table() {
    static NameTable const kTable = [] {
        const std::pair<const char*, Name> kNames[] = {
            {"requests", Name::Requests},
            {"failed_requests", Name::FailedRequests},
            {"timeouts", Name::Timeouts},
            {"exceptions", Name::Exceptions},
            {"retries", Name::Retries},
            {"connects", Name::Connects},
            {"connect_failures", Name::ConnectFailures},
            {"response_ms", Name::ResponseMs},
            {"response_ms_avg", Name::ResponseMsAvg},
            {"response_ms_max", Name::ResponseMsMax},
            {"poll_ms", Name::PollMs},
            {"connected", Name::Connected},
            {"backoff_s", Name::BackoffS},
            {"last_error", Name::LastError},
            {"last_ok", Name::LastOk},
            {"tls_handshakes", Name::TlsHandshakes},
            {"tls_resumed", Name::TlsResumed},
            {"tls_certificate_days_left", Name::TlsCertificateDaysLeft},
            {"tls_client_certificate_days_left", Name::TlsClientCertificateDaysLeft},
        };
        NameTable names;
        for (auto const& entry : kNames) {
            names.ordered.append(QString::fromLatin1(entry.first));
            names.byName.insert(QString::fromLatin1(entry.first), entry.second);
        }
        return names;
    }();
    return kTable;
}

// Days as a number, or empty while they are not known (before a handshake, or without a certificate).
QString days(int value) {
    return value == INT_MIN ? QStringLiteral("") : QString::number(value);
}

// Milliseconds with one decimal, as a person reads them.
QString milliseconds(double ms) {
    return QString::number(ms, 'f', 1);
}

}  // namespace

QVector<QString> const& names() {
    return table().ordered;
}

QString valueOf(QString const& address, DeviceView const& view) {
    auto const found = table().byName.constFind(address.mid(kPrefix.size()));
    if (found == table().byName.constEnd()) return QString();
    DeviceHealth const& health = *view.health;
    switch (found.value()) {
        case Name::Requests:
            return QString::number(health.requests);
        case Name::FailedRequests:
            return QString::number(health.failedRequests);
        case Name::Timeouts:
            return QString::number(health.timeouts);
        case Name::Exceptions:
            return QString::number(health.exceptions);
        case Name::Retries:
            return QString::number(health.retries);
        case Name::Connects:
            return QString::number(health.connects);
        case Name::ConnectFailures:
            return QString::number(health.connectFailures);
        case Name::ResponseMs:
            return milliseconds(health.lastResponseMs);
        case Name::ResponseMsAvg:
            return milliseconds(health.averageResponseMs());
        case Name::ResponseMsMax:
            return milliseconds(health.maxResponseMs);
        case Name::PollMs:
            return milliseconds(health.lastPollMs);
        case Name::Connected:
            return view.connected ? QStringLiteral("1") : QStringLiteral("0");
        case Name::BackoffS:
            return QString::number(view.backoffSeconds);
        case Name::LastError:
            return view.lastError.isNull() ? QStringLiteral("") : view.lastError;
        case Name::LastOk:
            return health.lastOk.isNull() ? QStringLiteral("") : health.lastOk.toString(Qt::ISODate);
        case Name::TlsHandshakes:
            return QString::number(health.tlsHandshakes);
        case Name::TlsResumed:
            return QString::number(health.tlsResumed);
        case Name::TlsCertificateDaysLeft:
            return days(health.tlsCertificateDaysLeft);
        case Name::TlsClientCertificateDaysLeft:
            return days(health.tlsClientCertificateDaysLeft);
    }
    return QString();
}

}  // namespace diagnostics
