#pragma once
// The TLS settings a simulator serves from a certificate kit directory, making the kit first when it is
// missing, and the device settings a client of the plugin needs to reach it.

#include <QString>
#include <cstdint>

#include "tools/sim/sim_tls.h"

namespace modbus_sim {

// Settings serving the kit in `dir` with `fault`: ca.pem as the client authority, and device.pem/device.key,
// or for the certificate faults device-expired, device-other-ca or device-wrong-name. A directory without
// ca.pem, device.pem and device.key first gets the kit of makeTestPki (*created is then true); the fault
// certificates are made when a certificate fault needs them and they are missing.
bool tlsServerSettingsForKit(const QString& dir, const QString& listenAddress, TlsFault fault,
                             TlsServerSettings* settings, bool* created, QString* error);

// The plugin's device settings that reach a simulator serving the kit in `dir` as client.pem (file paths
// only), e.g. "transport": "2", "port": "802", "tls_ca_certificates": "<dir>/ca.pem", ...
QString tlsDeviceSettingsText(const QString& dir, uint16_t port, const QString& serverName);

}  // namespace modbus_sim
