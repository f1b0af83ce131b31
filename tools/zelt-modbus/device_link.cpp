#include "tools/zelt-modbus/device_link.h"

#include <errno.h>
#include <modbus.h>

#include "connection/connection.h"
#include "connection/request_discipline.h"

namespace zelt_cli {

namespace {

// libmodbus's texts, not Connection::errToStr: that one shortens a connect time-out to "Timeout", and the
// commands have always printed what libmodbus says.
QString errorText(int code) {
    return QString::fromUtf8(modbus_strerror(code));
}

}  // namespace

DeviceLink::DeviceLink(QString host, int port, int unit, int responseTimeoutMs, Transport transport,
                       TlsSettings tls)
    : host(std::move(host)),
      port(port),
      unit(unit),
      responseTimeoutMs(responseTimeoutMs),
      transport(transport),
      tls(std::move(tls)) {}

DeviceLink::~DeviceLink() {
    close();
}

QString DeviceLink::describe() const {
    return QStringLiteral("%1:%2 unit %3").arg(host).arg(port).arg(unit);
}

bool DeviceLink::connect(QString* error) {
    close();
    Connection::Network network;
    network.host = host;
    network.port = port;
    network.serverId = unit;
    // A libmodbus context waits its response time-out for the connection too; the commands kept that.
    network.connectTimeoutMs = responseTimeoutMs;
    network.responseTimeoutMs = responseTimeoutMs;
    network.transport = transport;
    network.tls = tls;
    int code = 0;
    errno = 0;
    auto made = std::make_unique<Connection>(network, nullptr, &code);
    const int contextError = errno;
    if (*made && made->isConnected()) {
        if (const TlsHandshake* established = made->tlsHandshake()) handshake = *established;
        connection = std::move(made);
        return true;
    }
    // The TLS failures have texts of their own: OpenSSL's reason, or the setting and file that could not be
    // read (never what a key holds).
    if (code == Connection::kTlsFailure || code == Connection::kTlsSetupFailure) {
        *error = QStringLiteral("cannot connect to %1: %2").arg(describe(), made->errToStr(code));
        return false;
    }
    // No code: the context itself could not be made. EINVAL: the unit is one the connection cannot address,
    // refused before anything was sent (a socket that fails to connect reports why it failed instead).
    if (code == 0 || code == EINVAL) {
        *error =
            QStringLiteral("cannot use %1: %2").arg(describe(), errorText(code == 0 ? contextError : code));
        return false;
    }
    *error = QStringLiteral("cannot connect to %1: %2").arg(describe(), errorText(code));
    return false;
}

void DeviceLink::close() {
    connection.reset();
}

ReadOutcome DeviceLink::read(RegisterTable table, int offset, int count, std::vector<uint16_t>* words,
                             std::vector<uint8_t>* bits) {
    ReadOutcome outcome;
    if (!connection) {
        QString error;
        if (!connect(&error)) {
            outcome.error = error;
            return outcome;
        }
    }
    int code = 0;
    int result = -1;
    switch (table) {
        case RegisterTable::Coils:
            bits->assign(count, 0);
            result = connection->readBits(OutputCoil, offset, count, bits->data(), &code);
            break;
        case RegisterTable::DiscreteInputs:
            bits->assign(count, 0);
            result = connection->readBits(InputCoil, offset, count, bits->data(), &code);
            break;
        case RegisterTable::InputRegisters:
            words->assign(count, 0);
            result = connection->readWords(InputRegister, offset, count, words->data(), &code);
            break;
        case RegisterTable::HoldingRegisters:
            words->assign(count, 0);
            result = connection->readWords(HoldingRegister, offset, count, words->data(), &code);
            break;
    }
    if (result >= 0) {
        outcome.kind = ReadOutcome::Ok;
        return outcome;
    }
    outcome.error = errorText(code);
    if (request_discipline::isExceptionAnswer(code)) {
        outcome.kind = ReadOutcome::Exception;
        outcome.exceptionCode = code - MODBUS_ENOBASE;
        return outcome;
    }
    outcome.kind = request_discipline::isTimeout(code) ? ReadOutcome::Timeout : ReadOutcome::Failed;
    // A late answer to this request would be taken for the answer to the next one.
    close();
    return outcome;
}

}  // namespace zelt_cli
