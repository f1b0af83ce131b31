#include <modbus.h>

#include <algorithm>
#include <climits>
#include <exception>

#include "codec/address_space.h"
#include "plugin/modbus.h"
#include "plugin/modbus_identity_specs.h"
#include "plugin/read_entry.h"
#include "plugin/setting_keys.h"

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

// Registers (or coils) a read of the item covers, as the request for it is sized: span + type length in every
// table, coils and discrete inputs included.
qint64 readFootprint(const ReadEntry& entry) {
    return std::max<qint64>(1, qint64(entry.span) + entry.requestLength);
}

bool byTableAndOffset(const ReadEntry& a, const ReadEntry& b) {
    if (a.table != b.table) return a.table < b.table;
    return a.offset < b.offset;
}

ReadEntryIterator readEntries(Modbus& plugin, Connection& connection, ReadEntryIterator first,
                              ReadEntryIterator last, bool littleEndian, bool byteSwapped,
                              bool stringLittleEndian, bool stringByteSwapped,
                              unsigned char maxReadRegisters);

QString flagText(bool flag) {
    return flag ? QStringLiteral("1") : QStringLiteral("0");
}
}  // namespace

bool Modbus::readData(LogList* list) {
    if (!list) return false;
    // Nothing may escape into the host, whatever was thrown; the batch keeps what was read before.
    QString reason;
    try {
        return readBatch(list);
    } catch (const std::exception& error) {
        reason = QString::fromLocal8Bit(error.what());
    } catch (...) {
        reason = QStringLiteral("unknown exception");
    }
    try {
        writeLogDebug(QStringLiteral("Reading from %1 failed: %2").arg(list->device.name, reason));
    } catch (...) {
        // The host's own log threw: there is nowhere left to tell.
    }
    return false;
}

bool Modbus::readBatch(LogList* list) {
    DeviceInstancePlugin& device = list->device;
    // Counted as the host handed the batch over: identity items the sync appends are not part of this read.
    const int batchSize = list->dataItems.size();
    writeLogDebug(QStringLiteral("Going to read ") + QString::number(batchSize) + QStringLiteral(" from ") +
                  device.name);

    std::shared_ptr<TcpDeviceConnection> entry = tcpDeviceConnection(device.id, nullptr);
    if (!entry) return false;
    std::lock_guard<std::mutex> deviceLock(entry->mutex);

    // Each item's settings are parsed at most once per poll (not at all while they are unchanged since the
    // last one); sorting and splitting work on the parsed fields.
    std::vector<ParsedItem>& parsedItems = entry->parsedItems;
    parsedItems.resize(static_cast<size_t>(list->dataItems.size()));
    std::vector<ReadEntry>& readList = entry->readList;
    readList.clear();
    bool hasNullEntry = false;
    bool reparsedAny = false;
    for (int i = 0; i < list->dataItems.size(); ++i) {
        DataItem* dataItem = list->dataItems.at(i);
        if (!dataItem) {
            hasNullEntry = true;
            continue;
        }
        ParsedItem& slot = parsedItems[static_cast<size_t>(i)];
        const ReadEntry& parsed = cachedReadEntry(dataItem, slot, &reparsedAny);
        slot.entry.slot = static_cast<unsigned int>(i);
        if (!parsed.identity) readList.push_back(parsed);
    }

    // While every item of the batch is parsed as it was, sorting the same keys again gives the last order.
    // A batch with null entries is sorted anew each time.
    std::vector<unsigned int>& sortedSlots = entry->sortedSlots;
    if (entry->sortedSlotsValid && !hasNullEntry && !reparsedAny &&
        entry->sortedBatchSize == parsedItems.size() && sortedSlots.size() == readList.size()) {
        for (size_t i = 0; i < readList.size(); ++i) readList[i] = parsedItems[sortedSlots[i]].entry;
    } else {
        std::sort(readList.begin(), readList.end(), byTableAndOffset);
        sortedSlots.clear();
        for (const ReadEntry& sorted : readList) sortedSlots.push_back(sorted.slot);
        entry->sortedBatchSize = parsedItems.size();
        entry->sortedSlotsValid = !hasNullEntry;
    }
    readList.erase(std::remove_if(readList.begin(), readList.end(),
                                  [](const ReadEntry& readEntry) { return readEntry.offset < 0; }),
                   readList.end());
    // An address beyond the 16-bit space would wrap around to another register on the device.
    readList.erase(std::remove_if(readList.begin(), readList.end(),
                                  [](const ReadEntry& readEntry) {
                                      if (codec::fitsAddressSpace(readEntry.offset, readFootprint(readEntry)))
                                          return false;
                                      readEntry.dataItem->item.setLastError(kAddressOutOfRange);
                                      return true;
                                  }),
                   readList.end());

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
    const auto maxRead = static_cast<unsigned char>(
        setting_keys::settingText(device.settings, setting_keys::kMaxReadRegisters).toInt());
    const bool littleEndian = isLittleEndian(device);
    const bool byteSwapped = isByteSwapped(device);
    const bool stringLittleEndian = isStringLittleEndian(device);
    const bool stringByteSwapped = isStringByteSwapped(device);
    for (auto runStart = readList.begin(); runStart != readList.end();) {
        const RegisterType table = runStart->table;
        auto runEnd = std::find_if(runStart, readList.end(),
                                   [table](const ReadEntry& entry) { return entry.table != table; });
        readEntries(*this, connection, runStart, runEnd, littleEndian, byteSwapped, stringLittleEndian,
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
    if (setting_keys::settingText(device.settings, setting_keys::kPersistentConnection).toInt() == 0)
        connection.disconnect();
    return true;
}

namespace {

ReadEntryIterator readEntries(Modbus& plugin, Connection& connection, ReadEntryIterator first,
                              ReadEntryIterator last, bool littleEndian, bool byteSwapped,
                              bool stringLittleEndian, bool stringByteSwapped,
                              unsigned char maxReadRegisters) {
    if (first == last) return first;
    const unsigned char limit = readLimit(maxReadRegisters);

    const ReadEntry& firstEntry = *first;
    const ReadEntry& lastEntry = *(last - 1);
    const int startAddress = firstEntry.offset;
    const int lastAddress = lastEntry.offset;
    const RegisterType table = firstEntry.table;
    // In 64 bits: a range text may name a span of billions of registers.
    const qint64 endAddress = qint64(lastAddress) + lastEntry.span + lastEntry.requestLength - 1;
    const int count = static_cast<int>(qBound<qint64>(0, endAddress - startAddress + 1, INT_MAX));

    if (count > limit) {
        const ReadEntryIterator mid = first + (last - first) / 2;
        if (mid != first) {
            const ReadEntryIterator firstHalf =
                readEntries(plugin, connection, first, mid, littleEndian, byteSwapped, stringLittleEndian,
                            stringByteSwapped, limit);
            if (firstHalf == mid)
                return readEntries(plugin, connection, mid, last, littleEndian, byteSwapped,
                                   stringLittleEndian, stringByteSwapped, limit);
            plugin.writeLogDebug(QStringLiteral("There was an error, returning f"));
            return firstHalf;
        }
    }

    // The three request lines share their tail; it is formatted once, in one pass.
    const QString requestTail =
        QStringLiteral("%1 registers of type %2 from %3 to %4. Max read registers: %5")
            .arg(QString::number(count), QString::number(static_cast<int>(table)),
                 QString::number(startAddress), QString::number(lastAddress),
                 QString::number(static_cast<int>(limit)));
    auto requestText = [&requestTail](QLatin1String head) { return head + requestTail; };
    plugin.writeLogDebug(requestText(QLatin1String("Getting ready to read ")));

    int error = 0;
    if (table == OutputCoil || table == InputCoil) {
        std::vector<unsigned char> bits(std::min(count, kLargestBitRead));
        if (connection.readBits(table, startAddress, count, bits.data(), &error) >= 0)
            return extractBits(first, last, startAddress, bits);
        connection.setConnected(false);
        plugin.writeLogDebug(QStringLiteral("Could not read coil. ") + connection.errToStr(error));
        const QString errorText = connection.errToStr(error);
        for (ReadEntryIterator it = first; it != last; ++it) it->dataItem->item.setLastError(errorText);
        return first;
    }
    if (table == InputRegister || table == HoldingRegister) {
        std::vector<unsigned short> words(std::min(count, kLargestRegisterRead));
        plugin.writeLogDebug(requestText(QLatin1String("Reading words ")));
        const int result = connection.readWords(table, startAddress, count, words.data(), &error);
        plugin.writeLogDebug(requestText(QLatin1String("Done reading words ")));
        if (result < 0) {
            connection.setConnected(false);
            plugin.writeLogDebug(
                QStringLiteral("Failed to read elements of type %1.").arg(static_cast<int>(table)) +
                connection.errToStr(error));
            const QString errorText = connection.errToStr(error);
            for (ReadEntryIterator it = first; it != last; ++it) it->dataItem->item.setLastError(errorText);
            return first;
        }
        plugin.writeLogDebug(QStringLiteral("Holding/Input register data for ") +
                             firstEntry.dataItem->item.name + QStringLiteral(" to be extracted. Length: ") +
                             QString::number(words.size()) + QStringLiteral(" Byte swapped: ") +
                             flagText(byteSwapped));
        const ReadEntryIterator rest = extractWords(first, last, startAddress, words, littleEndian,
                                                    byteSwapped, stringLittleEndian, stringByteSwapped);
        plugin.writeLogDebug(QStringLiteral("Holding/Input register data extracted!"));
        return rest;
    }
    return first;
}

}  // namespace

Modbus::DataItemIterator Modbus::readItems(Connection& connection, DataItemIterator first,
                                           DataItemIterator last, bool littleEndian, bool byteSwapped,
                                           bool stringLittleEndian, bool stringByteSwapped,
                                           unsigned char maxReadRegisters) {
    std::vector<ReadEntry> entries = makeReadEntries(first, last);
    const ReadEntryIterator rest =
        readEntries(*this, connection, entries.begin(), entries.end(), littleEndian, byteSwapped,
                    stringLittleEndian, stringByteSwapped, maxReadRegisters);
    return first + (rest - entries.begin());
}
