#pragma once
// Which device a commissioning command talks to: --address/--port/--unit, or a device of a configuration
// file (--config FILE --device ID), whose "port", "server_id", "transport" and "tls_*" settings are used; and
// how: --transport, and for Modbus/TCP Security the certificate options --tls-ca, --tls-cert, --tls-key and
// --tls-server-name.

#include <QString>

#include "connection/tls_settings.h"
#include "connection/transport.h"
#include "tools/zelt-modbus/cli.h"

namespace zelt_cli {

constexpr int kDefaultModbusPort = 502;
constexpr int kDefaultUnit = 1;

struct DeviceTarget {
    QString address;
    int port = kDefaultModbusPort;
    int unit = kDefaultUnit;
    int responseTimeoutMs = 0;
    Transport transport = Transport::ModbusTcp;
    TlsSettings tls;  // with Transport::ModbusTcpSecurity
};

void addTargetOptions(CommandLine* command);

// --transport tcp|rtu|tls, which overrides the configured device's "transport".
void addTransportOption(CommandLine* command);
// Leaves *transport as it is when the option is absent. False after printing the problem and the usage; the
// caller exits with kExitUsage.
bool readTransportOption(const CommandLine& command, const QString& commandName, Transport* transport);

// --tls-ca, --tls-cert, --tls-key and --tls-server-name, which override the configured device's "tls_*".
void addTlsOptions(CommandLine* command);
// Puts the options given over *tls, then checks what Modbus/TCP Security needs: an authority, and a
// certificate and its key together; options without --transport tls (or a configured one) are refused.
// False after printing the problem and the usage; the caller exits with kExitUsage.
bool readTlsOptions(const CommandLine& command, const QString& commandName, Transport transport,
                    TlsSettings* tls);

// False after printing the problem; the caller exits with kExitUsage.
bool readTarget(const CommandLine& command, const QString& commandName, DeviceTarget* target);

}  // namespace zelt_cli
