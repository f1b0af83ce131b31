#pragma once
// The client of the commissioning commands: one request at a time over the plugin's own Connection, each
// answered, refused with an exception, or timed out, so that the caller can tell a hole in the map from a
// silent device. The Connection frames the requests for the transport, Modbus TCP or RTU over TCP, and makes
// the TLS session of Modbus/TCP Security.

#include <QString>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "connection/tls_settings.h"
#include "connection/tls_stream.h"
#include "connection/transport.h"
#include "tools/zelt-modbus/register_table.h"

class Connection;

namespace zelt_cli {

constexpr int kDefaultResponseTimeoutMs = 1000;
// Exceptions that say "not here" about the addresses asked for, not about the device.
constexpr int kIllegalDataAddress = 2;
constexpr int kIllegalDataValue = 3;
// The protocol's largest reads.
constexpr int kMaxRegistersPerRead = 125;
constexpr int kMaxBitsPerRead = 2000;

struct ReadOutcome {
    enum Kind { Ok, Exception, Timeout, Failed };
    Kind kind = Failed;
    int exceptionCode = 0;  // for Exception
    QString error;          // libmodbus's text for every kind but Ok
};

class DeviceLink {
public:
    DeviceLink(QString host, int port, int unit, int responseTimeoutMs = kDefaultResponseTimeoutMs,
               Transport transport = Transport::ModbusTcp, TlsSettings tls = TlsSettings());
    ~DeviceLink();
    DeviceLink(const DeviceLink&) = delete;
    DeviceLink& operator=(const DeviceLink&) = delete;

    bool connect(QString* error);
    void close();
    QString describe() const;
    // What the TLS handshake of the last connection established; null without one. Kept after close().
    const TlsHandshake* tlsHandshake() const { return handshake ? &*handshake : nullptr; }

    // Reads `count` registers (words) or bits (one 0/1 value per entry in `bits`) of `table` from `offset`.
    ReadOutcome read(RegisterTable table, int offset, int count, std::vector<uint16_t>* words,
                     std::vector<uint8_t>* bits);

private:
    QString host;
    int port;
    int unit;
    int responseTimeoutMs;
    Transport transport;
    TlsSettings tls;
    std::unique_ptr<Connection> connection;
    std::optional<TlsHandshake> handshake;
};

}  // namespace zelt_cli
