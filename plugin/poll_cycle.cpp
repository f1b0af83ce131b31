#include <modbus.h>

#include <algorithm>
#include <climits>
#include <exception>

#include "codec/address_space.h"
#include "plugin/modbus.h"
#include "plugin/modbus_identity_specs.h"

namespace {
// libmodbus refuses larger reads before it touches the buffer, so no buffer needs to be larger.
constexpr int kLargestBitRead = MODBUS_MAX_READ_BITS;
constexpr int kLargestRegisterRead = MODBUS_MAX_READ_REGISTERS;

// 0 in the narrowed "max_read_registers" and anything above the protocol ceiling read at the ceiling.
unsigned char readLimit(unsigned char maxReadRegisters) {
    if (maxReadRegisters == 0 || maxReadRegisters > Connection::max_read_registers)
        return Connection::max_read_registers;
    return maxReadRegisters;
}

const QString kAddressOutOfRange = QStringLiteral("Address out of range");

// Registers (or coils) a read of the item covers, as the request for it is sized.
qint64 readFootprint(const ItemInstancePlugin& item, RegisterType table) {
    if (table == OutputCoil || table == InputCoil) return 1;
    const auto type = static_cast<VarType>(item.settings.value(QStringLiteral("type")).toInt());
    return std::max<qint64>(1, qint64(Modbus::getSpan(item)) + Modbus::getLengthOfVar(type));
}

QString flagText(bool flag) {
    return flag ? QStringLiteral("1") : QStringLiteral("0");
}
}  // namespace

bool Modbus::readData(LogList* list) {
    if (!list) return false;
    try {
        return readBatch(list);
    } catch (const std::exception& error) {
        // Nothing may escape into the host; the batch keeps what was read before.
        writeLogError(QStringLiteral("Reading from %1 failed: %2")
                          .arg(list->device.name, QString::fromLocal8Bit(error.what())));
        return false;
    }
}

bool Modbus::readBatch(LogList* list) {
    DeviceInstancePlugin& device = list->device;
    // Counted as the host handed the batch over: identity items the sync appends are not part of this read.
    const int batchSize = list->dataItems.size();
    writeLogDebug(QStringLiteral("Going to read ") + QString::number(batchSize) + QStringLiteral(" from ") +
                  device.name);

    std::vector<DataItem*> readList;
    readList.reserve(list->dataItems.size());
    for (DataItem* dataItem : list->dataItems)
        if (dataItem && !isIdentityItem(dataItem->item)) readList.push_back(dataItem);

    std::sort(readList.begin(), readList.end(), [](const DataItem* a, const DataItem* b) {
        const RegisterType tableA = getType(a->item);
        const RegisterType tableB = getType(b->item);
        if (tableA != tableB) return tableA < tableB;
        return getOffset(a->item) < getOffset(b->item);
    });
    readList.erase(std::remove_if(readList.begin(), readList.end(),
                                  [](const DataItem* dataItem) { return getOffset(dataItem->item) < 0; }),
                   readList.end());
    // An address beyond the 16-bit space would wrap around to another register on the device.
    readList.erase(
        std::remove_if(readList.begin(), readList.end(),
                       [](DataItem* dataItem) {
                           ItemInstancePlugin& item = dataItem->item;
                           if (codec::fitsAddressSpace(getOffset(item), readFootprint(item, getType(item))))
                               return false;
                           item.setLastError(kAddressOutOfRange);
                           return true;
                       }),
        readList.end());

    std::shared_ptr<TcpDeviceConnection> entry = tcpDeviceConnection(device.id, nullptr);
    if (!entry) return false;
    std::lock_guard<std::mutex> deviceLock(entry->mutex);
    Connection& connection = entry->connection;

    if (!connection.isConnected()) {
        int error = 0;
        connection = makeConnection(device, &error);
        if (!connection) {
            writeLogDebug(QStringLiteral("Could not connect to ") + device.address + QStringLiteral(". ") +
                          connection.errToStr(error));
            device.lastError = QStringLiteral("Could not connect. ") + connection.errToStr(error);
            connection.setConnected(false);
            return false;
        }
    }

    syncDeviceIdentity(connection, device.id, list);

    // The host stores the limit as text; narrowing it to 8 bits is part of the stored behaviour.
    const auto maxRead =
        static_cast<unsigned char>(device.settings.value(QStringLiteral("max_read_registers")).toInt());
    const bool littleEndian = isLittleEndian(device);
    const bool byteSwapped = isByteSwapped(device);
    const bool stringLittleEndian = isStringLittleEndian(device);
    const bool stringByteSwapped = isStringByteSwapped(device);
    for (auto runStart = readList.begin(); runStart != readList.end();) {
        const RegisterType table = getType((*runStart)->item);
        auto runEnd = std::find_if(runStart, readList.end(), [table](const DataItem* dataItem) {
            return getType(dataItem->item) != table;
        });
        readItems(connection, runStart, runEnd, littleEndian, byteSwapped, stringLittleEndian,
                  stringByteSwapped, maxRead);
        runStart = runEnd;
    }

    const int deviceError = connection.getDeviceError();
    if (deviceError > 0) {
        // Left open on purpose: the device answered, it reported a fault.
        device.lastError = connection.errToStr(deviceError);
        return false;
    }
    writeLogDebug(QStringLiteral("Done reading ") + QString::number(batchSize) + QStringLiteral(" from ") +
                  device.name);
    if (device.settings.value(QStringLiteral("persistent_connection")).toInt() == 0) connection.disconnect();
    return true;
}

Modbus::DataItemIterator Modbus::readItems(Connection& connection, DataItemIterator first,
                                           DataItemIterator last, bool littleEndian, bool byteSwapped,
                                           bool stringLittleEndian, bool stringByteSwapped,
                                           unsigned char maxReadRegisters) {
    if (first == last) return first;
    const unsigned char limit = readLimit(maxReadRegisters);

    const ItemInstancePlugin& firstItem = (*first)->item;
    const ItemInstancePlugin& lastItem = (*(last - 1))->item;
    const int startAddress = getOffset(firstItem);
    const int lastAddress = getOffset(lastItem);
    const RegisterType table = getType(firstItem);
    const auto lastType = static_cast<VarType>(lastItem.settings.value(QStringLiteral("type")).toInt());
    // In 64 bits: a range text may name a span of billions of registers.
    const qint64 endAddress = qint64(lastAddress) + getSpan(lastItem) + getLengthOfVar(lastType) - 1;
    const int count = static_cast<int>(qBound<qint64>(0, endAddress - startAddress + 1, INT_MAX));

    if (count > limit) {
        const DataItemIterator mid = first + (last - first) / 2;
        if (mid != first) {
            const DataItemIterator firstHalf = readItems(connection, first, mid, littleEndian, byteSwapped,
                                                         stringLittleEndian, stringByteSwapped, limit);
            if (firstHalf == mid)
                return readItems(connection, mid, last, littleEndian, byteSwapped, stringLittleEndian,
                                 stringByteSwapped, limit);
            writeLogDebug(QStringLiteral("There was an error, returning f"));
            return firstHalf;
        }
    }

    auto requestText = [&](const char* format) {
        return QString::fromLatin1(format)
            .arg(count)
            .arg(static_cast<int>(table))
            .arg(startAddress)
            .arg(lastAddress)
            .arg(static_cast<int>(limit));
    };
    writeLogDebug(
        requestText("Getting ready to read %1 registers of type %2 from %3 to %4. Max read registers: %5"));

    int error = 0;
    if (table == OutputCoil || table == InputCoil) {
        std::vector<unsigned char> bits(std::min(count, kLargestBitRead));
        if (connection.readBits(table, startAddress, count, bits.data(), &error) >= 0)
            return extract(first, last, startAddress, bits);
        connection.setConnected(false);
        writeLogDebug(QStringLiteral("Could not read coil. ") + connection.errToStr(error));
        for (DataItemIterator it = first; it != last; ++it)
            (*it)->item.setLastError(connection.errToStr(error));
        return first;
    }
    if (table == InputRegister || table == HoldingRegister) {
        std::vector<unsigned short> words(std::min(count, kLargestRegisterRead));
        writeLogDebug(
            requestText("Reading words %1 registers of type %2 from %3 to %4. Max read registers: %5"));
        const int result = connection.readWords(table, startAddress, count, words.data(), &error);
        writeLogDebug(
            requestText("Done reading words %1 registers of type %2 from %3 to %4. Max read registers: %5"));
        if (result < 0) {
            connection.setConnected(false);
            writeLogDebug(QStringLiteral("Failed to read elements of type %1.").arg(static_cast<int>(table)) +
                          connection.errToStr(error));
            for (DataItemIterator it = first; it != last; ++it)
                (*it)->item.setLastError(connection.errToStr(error));
            return first;
        }
        writeLogDebug(QStringLiteral("Holding/Input register data for ") + firstItem.name +
                      QStringLiteral(" to be extracted. Length: ") + QString::number(words.size()) +
                      QStringLiteral(" Byte swapped: ") + flagText(byteSwapped));
        const DataItemIterator rest = extract(first, last, startAddress, words, littleEndian, byteSwapped,
                                              stringLittleEndian, stringByteSwapped);
        writeLogDebug(QStringLiteral("Holding/Input register data extracted!"));
        return rest;
    }
    return first;
}
