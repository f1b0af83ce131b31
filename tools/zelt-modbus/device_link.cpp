#include "tools/zelt-modbus/device_link.h"

#include <errno.h>
#include <modbus.h>

namespace zelt_cli {

namespace {

constexpr int kMicrosecondsPerMs = 1000;
constexpr int kMsPerSecond = 1000;

}  // namespace

DeviceLink::DeviceLink(QString host, int port, int unit, int responseTimeoutMs)
    : host(std::move(host)), port(port), unit(unit), responseTimeoutMs(responseTimeoutMs) {}

DeviceLink::~DeviceLink() {
    close();
}

QString DeviceLink::describe() const {
    return QStringLiteral("%1:%2 unit %3").arg(host).arg(port).arg(unit);
}

bool DeviceLink::connect(QString* error) {
    close();
    context = modbus_new_tcp(host.toUtf8().constData(), port);
    if (!context) {
        *error =
            QStringLiteral("cannot use %1: %2").arg(describe(), QString::fromUtf8(modbus_strerror(errno)));
        return false;
    }
    // A unit libmodbus cannot address would leave its default unit in place: nothing is sent then.
    if (modbus_set_slave(context, unit) != 0) {
        *error =
            QStringLiteral("cannot use %1: %2").arg(describe(), QString::fromUtf8(modbus_strerror(errno)));
        close();
        return false;
    }
    modbus_set_response_timeout(context, responseTimeoutMs / kMsPerSecond,
                                (responseTimeoutMs % kMsPerSecond) * kMicrosecondsPerMs);
    if (modbus_connect(context) != 0) {
        *error = QStringLiteral("cannot connect to %1: %2")
                     .arg(describe(), QString::fromUtf8(modbus_strerror(errno)));
        close();
        return false;
    }
    return true;
}

void DeviceLink::close() {
    if (!context) return;
    modbus_close(context);
    modbus_free(context);
    context = nullptr;
}

ReadOutcome DeviceLink::read(RegisterTable table, int offset, int count, std::vector<uint16_t>* words,
                             std::vector<uint8_t>* bits) {
    ReadOutcome outcome;
    if (!context) {
        QString error;
        if (!connect(&error)) {
            outcome.error = error;
            return outcome;
        }
    }
    int result = -1;
    switch (table) {
        case RegisterTable::Coils:
            bits->assign(count, 0);
            result = modbus_read_bits(context, offset, count, bits->data());
            break;
        case RegisterTable::DiscreteInputs:
            bits->assign(count, 0);
            result = modbus_read_input_bits(context, offset, count, bits->data());
            break;
        case RegisterTable::InputRegisters:
            words->assign(count, 0);
            result = modbus_read_input_registers(context, offset, count, words->data());
            break;
        case RegisterTable::HoldingRegisters:
            words->assign(count, 0);
            result = modbus_read_registers(context, offset, count, words->data());
            break;
    }
    if (result >= 0) {
        outcome.kind = ReadOutcome::Ok;
        return outcome;
    }
    const int code = errno;
    outcome.error = QString::fromUtf8(modbus_strerror(code));
    if (code > MODBUS_ENOBASE && code < MODBUS_ENOBASE + MODBUS_EXCEPTION_MAX) {
        outcome.kind = ReadOutcome::Exception;
        outcome.exceptionCode = code - MODBUS_ENOBASE;
        return outcome;
    }
    outcome.kind = code == ETIMEDOUT ? ReadOutcome::Timeout : ReadOutcome::Failed;
    // A late answer to this request would be taken for the answer to the next one.
    close();
    return outcome;
}

}  // namespace zelt_cli
