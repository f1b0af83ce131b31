#pragma once
// Which device a commissioning command talks to: --address/--port/--unit, or a device of a configuration
// file (--config FILE --device ID), whose "port" and "server_id" settings are used.

#include <QString>

#include "tools/zelt-modbus/cli.h"

namespace zelt_cli {

constexpr int kDefaultModbusPort = 502;
constexpr int kDefaultUnit = 1;

struct DeviceTarget {
    QString address;
    int port = kDefaultModbusPort;
    int unit = kDefaultUnit;
    int responseTimeoutMs = 0;
};

void addTargetOptions(CommandLine* command);

// False after printing the problem; the caller exits with kExitUsage.
bool readTarget(const CommandLine& command, const QString& commandName, DeviceTarget* target);

}  // namespace zelt_cli
