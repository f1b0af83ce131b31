#pragma once
// Which device a commissioning command talks to: --address/--port/--unit, or a device of a configuration
// file (--config FILE --device ID), whose "port", "server_id" and "transport" settings are used; and how:
// --transport.

#include <QString>

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
};

void addTargetOptions(CommandLine* command);

// --transport tcp|rtu, which overrides the configured device's "transport".
void addTransportOption(CommandLine* command);
// Leaves *transport as it is when the option is absent. False after printing the problem and the usage; the
// caller exits with kExitUsage.
bool readTransportOption(const CommandLine& command, const QString& commandName, Transport* transport);

// False after printing the problem; the caller exits with kExitUsage.
bool readTarget(const CommandLine& command, const QString& commandName, DeviceTarget* target);

}  // namespace zelt_cli
