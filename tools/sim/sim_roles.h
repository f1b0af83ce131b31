#pragma once
// What a client may do on a Modbus/TCP Security connection, decided by the role its certificate carries.

#include <QString>

typedef struct x509_st X509;

namespace modbus_sim {

// Who sent the requests of a connection, as its handshake showed.
struct ClientAuthority {
    bool tls = false;             // false: plain Modbus TCP, everything is allowed
    bool hasCertificate = false;  // false over TLS: the device did not demand one, everything is allowed
    bool hasRole = false;         // the certificate carries the role extension
    QString role;
};

// The authority of a TLS client that presented `certificate` (null: none).
ClientAuthority clientAuthority(X509* certificate);

// Why `authority` may not use `function`; empty when it may. "operator" may use every function, "viewer"
// only the reads (1-4, 17 and 43); a certificate without a role, or with a role not known here, may use none.
QString roleRefusal(const ClientAuthority& authority, int function);

}  // namespace modbus_sim
