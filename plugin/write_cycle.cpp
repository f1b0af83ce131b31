// Writes a batch of item values to a device: picks the Modbus function per item, encodes the value text with
// the device's word and byte orders, and never retries an item that already failed in the same batch.

#include <modbus.h>

#include <QByteArray>
#include <QString>
#include <QVector>
#include <algorithm>
#include <chrono>
#include <climits>
#include <mutex>

#include "codec/address_space.h"
#include "codec/value_encoding.h"
#include "identity/zelt_identity.h"
#include "plugin/diagnostics.h"
#include "plugin/modbus.h"
#include "plugin/request_runner.h"

namespace {

const QString kValueKey = QStringLiteral("value");
const QString kRegisterKey = QStringLiteral("register");
const QString kRegisterTypeKey = QStringLiteral("register_type");
const QString kTypeKey = QStringLiteral("type");

const QChar kBitSeparator = QLatin1Char('.');
const QChar kRangeSeparator = QLatin1Char('-');

constexpr unsigned int kMultiplePresets = 1;  // "write_preset": 0 single (FC 5 / 6), 1 multiple (FC 15 / 16)
constexpr int kBytesPerRegister = 2;
constexpr int kLastBitOfRegister = 15;
constexpr quint16 kLowByteMask = 0xFF;

const QString kAddressOutOfRange = QStringLiteral("Address out of range");
const QString kNothingToWrite = QStringLiteral("Nothing to write");

const QString kBitOff = QStringLiteral("0");
const QString kBitOn = QStringLiteral("1");
const QString kInvalidBitValue = QStringLiteral("Invalid bool/bit value to write. Val: ");

// Two entries of a batch are the same item when they are one entry, or carry the same configured item (its
// uid). Items without a uid (hand-made batches) are told apart by entry only.
bool sameItem(DataItem const* a, DataItem const* b) {
    if (a == b) return true;
    return !a->item.uid.isEmpty() && a->item.uid == b->item.uid && a->item.deviceId == b->item.deviceId;
}

}  // namespace

namespace {

// How a bit of a register is written in this batch.
struct BitWrite {
    // With function 22, so that the device changes that bit alone; else read, change and write back.
    bool maskWrite = false;
    // The device just answered function 22 with "illegal function".
    bool refused = false;
};

// One item's write; a failed request leaves its error code in *err (untouched when nothing failed). `runner`
// is null when a caller drives the connection itself.
bool writeItem(Modbus& plugin, Connection& conn, RequestRunner* runner, ItemInstancePlugin& item,
               bool littleEndian, bool byteSwapped, bool stringLittleEndian, bool stringByteSwapped,
               const QString& value, bool multiple, BitWrite& bitWrite, int* errOut) {
    using M = Modbus;
    auto send = [&](RequestRunner::Request const& request, int* error) {
        return runner ? runner->run(request, error) : request(conn, error);
    };
    RegisterType const table = M::getType(item);
    int const offset = M::getOffset(item);
    if (offset < 0) {
        plugin.writeLogDebug(QStringLiteral("Wrong offset format. Item: %1, Offset: %2")
                                 .arg(item.name, QString::number(offset)));
        item.setLastError(QStringLiteral("Wrong offset format"));
        return false;
    }

    if (!codec::fitsAddressSpace(offset, 1)) {
        item.setLastError(kAddressOutOfRange);
        return false;
    }

    int& err = *errOut;

    // Discrete inputs are written like coils, by design.
    if (table == OutputCoil || table == InputCoil) {
        unsigned char const state = static_cast<unsigned char>(value.toUShort() & kLowByteMask);
        return send([&](Connection& link, int* e) { return link.writeBit(offset, state, e, multiple); },
                    &err) > 0;
    }

    QString const address = item.settings.value(kRegisterKey);

    // A range is a string, whatever the item's type; always FC 16.
    if (address.contains(kRangeSeparator)) {
        unsigned int const span = M::getSpan(item);
        QByteArray const bytes = value.toUtf8();
        qint64 const capacity = static_cast<qint64>(span) * kBytesPerRegister;
        if (bytes.size() > capacity) {
            item.setLastError(QStringLiteral("String too long. Size ") + QString::number(bytes.size()) +
                              QStringLiteral(" bytes but expected ") + QString::number(capacity) +
                              QStringLiteral(" bytes"));
            return false;
        }
        if (span == 0) {
            item.setLastError(kNothingToWrite);
            return false;
        }
        if (!codec::fitsAddressSpace(offset, span)) {
            item.setLastError(kAddressOutOfRange);
            return false;
        }
        // At most the 16-bit address space; libmodbus refuses any count above its write limit before it
        // reads a single word.
        int const count = static_cast<int>(span);
        QVector<quint16> const words =
            codec::encodeString(bytes, count, stringLittleEndian, stringByteSwapped);
        plugin.writeLogDebug(QStringLiteral("Writing string. Offset: %1 Value: %2 Length: %3")
                                 .arg(QString::number(offset), value, QString::number(span)));
        return send([&](Connection& link,
                        int* e) { return link.writeString(offset, count, words.constData(), e); },
                    &err) > 0;
    }

    // One bit of a register: by mask write where the device takes it, else read, change, write back (not
    // atomic on the server: another master's change of another bit in between is lost).
    if (address.contains(kBitSeparator)) {
        int const bit = M::getBit(item);
        if (bit < 0 || bit > kLastBitOfRegister) {
            item.setLastError(QStringLiteral("Bit value out of range"));
            return false;
        }
        unsigned short const mask = static_cast<unsigned short>(1U << bit);
        if (bitWrite.maskWrite) {
            // Nothing to read first: a value that is no bit fails before anything is sent.
            if (value != kBitOff && value != kBitOn) {
                item.setLastError(kInvalidBitValue + value);
                return false;
            }
            unsigned short const andMask = static_cast<unsigned short>(~mask);
            unsigned short const orMask = value == kBitOn ? mask : 0;
            plugin.writeLogDebug(QStringLiteral("Writing bit by mask write. Offset: %1 Bit: %2 Value: %3")
                                     .arg(QString::number(offset), QString::number(bit), value));
            int maskError = 0;
            if (send([&](Connection& link,
                         int* e) { return link.maskWriteRegister(offset, andMask, orMask, e); },
                     &maskError) > 0)
                return true;
            if (maskError != EMBXILFUN) {
                err = maskError;
                item.setLastError(conn.errToStr(maskError));
                return false;
            }
            bitWrite.maskWrite = false;
            bitWrite.refused = true;
        }
        unsigned short word = 0;
        if (send([&](Connection& link, int* e) { return link.readWords(table, offset, 1, &word, e); },
                 &err) != 1) {
            item.setLastError(QStringLiteral("Could not read value. ") + conn.errToStr(err));
            return false;
        }
        if (value == kBitOff) {
            word = static_cast<unsigned short>(word & ~mask);
        } else if (value == kBitOn) {
            word = static_cast<unsigned short>(word | mask);
        } else {
            item.setLastError(kInvalidBitValue + value);
            return false;
        }
        plugin.writeLogDebug(QStringLiteral("Writing bit. Offset: %1 Value: %2 (%3)")
                                 .arg(QString::number(offset), value, QString::number(word)));
        if (multiple) {
            // Only a result of 0 counts as failure here, so a failed FC 16 (-1) passes, as it always has.
            return send([&](Connection& link, int* e) { return link.writeString(offset, 1, &word, e); },
                        &err) != 0;
        }
        return send([&](Connection& link, int* e) { return link.writeWord(offset, word, e); }, &err) > 0;
    }

    unsigned int const type = item.settings.value(kTypeKey).toUInt();
    if (type == BIT) {
        item.setLastError(QStringLiteral("Invalid address format for bit"));
        return false;
    }
    if (type == STRING) {
        item.setLastError(QStringLiteral("Invalid address format for string"));
        return false;
    }

    unsigned int const length = M::getLengthOfVar(static_cast<VarType>(type));
    // An unknown type has no registers.
    if (length == 0) {
        item.setLastError(kNothingToWrite);
        return false;
    }
    if (!codec::fitsAddressSpace(offset, length)) {
        item.setLastError(kAddressOutOfRange);
        return false;
    }
    QVector<quint16> const words =
        codec::encodeNumber(static_cast<VarType>(type), codec::parseNumber(value), littleEndian, byteSwapped);
    plugin.writeLogDebug(QStringLiteral("Writing %2 elements to %1").arg(offset).arg(length));

    if (multiple) {
        return send(
                   [&](Connection& link, int* e) {
                       return link.writeString(offset, static_cast<int>(length), words.constData(), e);
                   },
                   &err) > 0;
    }
    int result = 0;
    for (int i = 0; i < words.size(); ++i) {
        result =
            send([&](Connection& link, int* e) { return link.writeWord(offset + i, words.at(i), e); }, &err);
        if (result < 0) {
            return false;
        }
    }
    return result > 0;
}

}  // namespace

bool Modbus::writeData(LogList* list) {
    if (list == nullptr) {
        return false;
    }
    try {
        DeviceInstancePlugin& device = list->device;
        QString const itemCount = QString::number(list->dataItems.size());
        writeLogDebug(QStringLiteral("Going to write ") + itemCount + QStringLiteral(" to ") + device.name);

        std::shared_ptr<DeviceState> state = deviceState(device.id);
        if (!state) {
            return false;
        }
        std::lock_guard<std::mutex> deviceLock(state->mutex);
        DeviceOptions const options = deviceOptions(device.settings);
        // A write is always tried, also while polls of the device are paused: it is what a user asked for.
        std::shared_ptr<TcpDeviceConnection> entry = tcpDeviceConnection(device, options, nullptr);
        if (!entry) {
            return false;
        }
        std::lock_guard<std::mutex> lock(entry->mutex);
        RequestRunner runner(*this, *entry, *state, device, options);

        int connectError = 0;
        if (!runner.ensureConnected(&connectError)) {
            device.lastError =
                QStringLiteral("Could not connect. ") + entry->connection.errToStr(connectError);
            state->backoff.connectFailed(Backoff::clockMs(), options.backoffMaxMs, device.lastError);
            return false;
        }
        Connection& connection = entry->connection;

        writeLogDebug(QStringLiteral("Write going to write to ") + device.name);

        bool const littleEndian = isLittleEndian(device);
        bool const byteSwapped = isByteSwapped(device);
        bool const stringLittleEndian = isStringLittleEndian(device);
        bool const stringByteSwapped = isStringByteSwapped(device);
        bool const multiple =
            device.settings.value(QStringLiteral("write_preset")).toUInt() == kMultiplePresets;

        BitWrite bitWrite;
        bitWrite.maskWrite = options.maskWrite && !state->maskWriteRefused;
        QList<DataItem const*> failed;  // items not to be tried again in this batch
        for (DataItem* dataItem : list->dataItems) {
            if (dataItem == nullptr) {
                continue;
            }
            ItemInstancePlugin& item = dataItem->item;
            if (zelt_identity::isIdentityAddress(item.settings.value(kRegisterKey))) {
                continue;
            }
            if (diagnostics::isDiagnosticAddress(item.settings.value(kRegisterKey))) {
                item.setLastError(diagnostics::kReadOnly);
                continue;
            }
            bool const failedBefore =
                std::any_of(failed.cbegin(), failed.cend(),
                            [dataItem](DataItem const* other) { return sameItem(dataItem, other); });
            if (failedBefore) {
                writeLogInfo(QStringLiteral("Not going to retry writing %1").arg(item.name));
                continue;
            }

            QString const value = dataItem->values.value(kValueKey);
            writeLogDebug(QStringLiteral("Writing value ") + value + QStringLiteral(" to ") + item.name +
                          QStringLiteral(" in ") + device.name);
            int error = 0;
            bool const written =
                writeItem(*this, connection, &runner, item, littleEndian, byteSwapped, stringLittleEndian,
                          stringByteSwapped, value, multiple, bitWrite, &error);
            if (bitWrite.refused) {
                bitWrite.refused = false;
                state->maskWriteRefused = true;
                writeLogWarning(QStringLiteral("%1 refuses function 22 (mask write); its bits are written by "
                                               "reading and writing the register from now on")
                                    .arg(device.name));
            }
            if (!written) {
                writeLogDebug(QStringLiteral("Failed to write %1. Register: %2 Offset: %3 Error: %4")
                                  .arg(item.name, item.settings.value(kRegisterTypeKey),
                                       item.settings.value(kRegisterKey), item.lastError));
                failed.append(dataItem);
            } else {
                writeLogDebug(QStringLiteral("Wrote %1. Register: %2 Offset: %3 Value: %4")
                                  .arg(item.name, item.settings.value(kRegisterTypeKey),
                                       item.settings.value(kRegisterKey), value));
                writeLogDebug(QStringLiteral("Writing ") + item.name + QStringLiteral(" to ") + device.name +
                              QStringLiteral(" done"));
            }
        }

        int const deviceError = runner.deviceError();
        if (runner.sentRequests() > 0 && !runner.allTimedOut() && !runner.connectFailed()) {
            state->backoff.succeeded();
        }
        if (deviceError != 0) {
            // The connection stays open: the device answered, it only reported a fault.
            device.lastError = connection.errToStr(deviceError);
            return false;
        }

        writeLogDebug(QStringLiteral("Done writing ") + itemCount + QStringLiteral(" to ") + device.name);
        keepOrClose(*entry, device);
        return true;
    } catch (...) {
        return false;  // nothing may escape into the host
    }
}

bool Modbus::writeVar(Connection& conn, ItemInstancePlugin& item, bool littleEndian, bool byteSwapped,
                      bool stringLittleEndian, bool stringByteSwapped, QString value, bool multiple) {
    int err = 0;
    BitWrite readModifyWrite;
    return writeItem(*this, conn, nullptr, item, littleEndian, byteSwapped, stringLittleEndian,
                     stringByteSwapped, value, multiple, readModifyWrite, &err);
}
