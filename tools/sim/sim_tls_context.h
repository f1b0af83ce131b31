#pragma once
// The OpenSSL server context of a simulator serving Modbus/TCP Security.

#include <openssl/ssl.h>

#include <QString>

#include "tools/sim/sim_tls.h"

namespace modbus_sim {

// A context serving `settings`: TLS 1.2 at least, the device certificate and key, client certificates
// verified against the CA file (demanded unless settings say otherwise), session resumption by tickets and
// by a server-side session cache. Null with a reason (file names and OpenSSL reasons only) when it cannot.
SSL_CTX* newTlsServerContext(const TlsServerSettings& settings, QString* error);

}  // namespace modbus_sim
