// Names of the TLS faults on the command line and in the map file.

#include <QStringList>

#include "tools/sim/sim_tls.h"

namespace modbus_sim {

namespace {

struct TlsFaultName {
    TlsFault fault;
    const char* name;
};

constexpr TlsFaultName kTlsFaultNames[] = {
    {TlsFault::None, "none"},
    {TlsFault::ExpiredCertificate, "expired_certificate"},
    {TlsFault::WrongCa, "wrong_ca"},
    {TlsFault::WrongName, "wrong_name"},
    {TlsFault::NoClientCertificateDemanded, "no_client_certificate_demanded"},
    {TlsFault::PlainTcp, "plain_tcp"},
    {TlsFault::StallHandshake, "stall_handshake"},
};

}  // namespace

QString tlsFaultName(TlsFault fault) {
    for (const auto& entry : kTlsFaultNames) {
        if (entry.fault == fault) return QLatin1String(entry.name);
    }
    return QStringLiteral("unknown");
}

bool tlsFaultFromName(const QString& name, TlsFault* fault) {
    for (const auto& entry : kTlsFaultNames) {
        if (name == QLatin1String(entry.name)) {
            *fault = entry.fault;
            return true;
        }
    }
    return false;
}

QString tlsFaultNames() {
    QStringList names;
    for (const auto& entry : kTlsFaultNames) names << QLatin1String(entry.name);
    return names.join(QStringLiteral(", "));
}

}  // namespace modbus_sim
