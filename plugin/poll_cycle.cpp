#include <modbus.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <exception>

#include "codec/address_space.h"
#include "plugin/diagnostics.h"
#include "plugin/modbus.h"
#include "plugin/modbus_identity_specs.h"
#include "plugin/read_entry.h"
#include "plugin/request_runner.h"
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

// Registers (or coils) a read of the item covers, as the request for it is sized.
qint64 readFootprint(const ReadEntry& entry) {
    if (entry.table == OutputCoil || entry.table == InputCoil) return 1;
    return std::max<qint64>(1, qint64(entry.span) + entry.requestLength);
}

bool byTableAndOffset(const ReadEntry& a, const ReadEntry& b) {
    if (a.table != b.table) return a.table < b.table;
    return a.offset < b.offset;
}

const QString kInvalidRegisterAddress = QStringLiteral("Invalid register address");

struct ByteOrders {
    bool littleEndian;
    bool byteSwapped;
    bool stringLittleEndian;
    bool stringByteSwapped;
};

// Reads [first, last) of one table; `runner` is null when a caller drives the connection itself. True when
// every request was answered.
bool readEntries(Modbus& plugin, Connection& connection, RequestRunner* runner, ReadEntryIterator first,
                 ReadEntryIterator last, ByteOrders const& orders, unsigned char maxReadRegisters);

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

    std::shared_ptr<DeviceState> state = deviceState(device.id);
    if (!state) return false;
    std::lock_guard<std::mutex> deviceLock(state->mutex);
    const DeviceOptions options = deviceOptions(device.settings);

    // Each item's settings are parsed at most once per poll (not at all while they are unchanged since the
    // last one); sorting and splitting work on the parsed fields.
    std::vector<ParsedItem>& parsedItems = state->parsedItems;
    parsedItems.resize(static_cast<size_t>(list->dataItems.size()));
    std::vector<ReadEntry>& readList = state->readList;
    readList.clear();
    std::vector<ReadEntry>& diagnosticList = state->diagnosticList;
    diagnosticList.clear();
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
        if (parsed.diagnostic)
            diagnosticList.push_back(parsed);
        else if (!parsed.identity)
            readList.push_back(parsed);
    }

    // While every item of the batch is parsed as it was, sorting the same keys again gives the last order.
    // A batch with null entries is sorted anew each time.
    std::vector<unsigned int>& sortedSlots = state->sortedSlots;
    if (state->sortedSlotsValid && !hasNullEntry && !reparsedAny &&
        state->sortedBatchSize == parsedItems.size() && sortedSlots.size() == readList.size()) {
        for (size_t i = 0; i < readList.size(); ++i) readList[i] = parsedItems[sortedSlots[i]].entry;
    } else {
        std::sort(readList.begin(), readList.end(), byTableAndOffset);
        sortedSlots.clear();
        for (const ReadEntry& sorted : readList) sortedSlots.push_back(sorted.slot);
        state->sortedBatchSize = parsedItems.size();
        state->sortedSlotsValid = !hasNullEntry;
    }
    // A typo in an address must show on the item, not leave it silently unread.
    readList.erase(std::remove_if(readList.begin(), readList.end(),
                                  [](const ReadEntry& readEntry) {
                                      if (readEntry.offset >= 0) return false;
                                      readEntry.dataItem->item.setLastError(kInvalidRegisterAddress);
                                      return true;
                                  }),
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

    const auto started = std::chrono::steady_clock::now();
    std::shared_ptr<TcpDeviceConnection> used;
    const bool ok = pollDevice(list, *state, options, batchSize, &used);
    finishPoll(*state, device, ok, used.get(), started);
    return ok;
}

bool Modbus::pollDevice(LogList* list, DeviceState& deviceState, DeviceOptions const& options, int batchSize,
                        std::shared_ptr<TcpDeviceConnection>* used) {
    DeviceInstancePlugin& device = list->device;
    DeviceState* state = &deviceState;
    std::vector<ReadEntry>& readList = state->readList;
    // A device that cannot be reached is left alone until its pause has passed: a poll then costs nothing.
    const qint64 pollStartMs = Backoff::clockMs();
    if (state->backoff.paused(pollStartMs)) {
        device.lastError = state->backoff.pausedText(pollStartMs);
        return false;
    }

    std::shared_ptr<TcpDeviceConnection> entry = tcpDeviceConnection(device, options, nullptr);
    if (!entry) return false;
    *used = entry;
    std::lock_guard<std::mutex> connectionLock(entry->mutex);
    RequestRunner runner(*this, *entry, *state, device, options);

    int error = 0;
    if (!runner.ensureConnected(&error)) {
        Connection& failedConnection = entry->connection;
        writeLogDebug(QStringLiteral("Could not connect to ") + device.address + QStringLiteral(". ") +
                      failedConnection.errToStr(error));
        device.lastError = QStringLiteral("Could not connect. ") + failedConnection.errToStr(error);
        state->backoff.connectFailed(Backoff::clockMs(), options.backoffMaxMs, device.lastError);
        return false;
    }

    syncDeviceIdentity(entry->connection, device.id, list);

    // The host stores the limit as text; narrowing it to 8 bits is part of the stored behaviour.
    const auto maxRead = static_cast<unsigned char>(
        setting_keys::settingText(device.settings, setting_keys::kMaxReadRegisters).toInt());
    const ByteOrders orders{isLittleEndian(device), isByteSwapped(device), isStringLittleEndian(device),
                            isStringByteSwapped(device)};
    for (auto runStart = readList.begin(); runStart != readList.end();) {
        const RegisterType table = runStart->table;
        auto runEnd = std::find_if(runStart, readList.end(),
                                   [table](const ReadEntry& entry) { return entry.table != table; });
        readEntries(*this, entry->connection, &runner, runStart, runEnd, orders, maxRead);
        runStart = runEnd;
    }

    const int deviceError = runner.deviceError();
    if (runner.connectFailed()) {
        state->backoff.connectFailed(
            Backoff::clockMs(), options.backoffMaxMs,
            QStringLiteral("Could not connect. ") + entry->connection.errToStr(runner.lastConnectError()));
    } else {
        state->backoff.pollEnded(Backoff::clockMs(), options.backoffMaxMs, runner.allTimedOut(),
                                 entry->connection.errToStr(deviceError));
    }
    if (deviceError != 0) {
        // Left open on purpose: the device answered, it reported a fault (a transport failure has closed it).
        device.lastError = entry->connection.errToStr(deviceError);
        return false;
    }
    writeLogDebug(QStringLiteral("Done reading ") + QString::number(batchSize) + QStringLiteral(" from ") +
                  device.name);
    keepOrClose(*entry, device);
    return true;
}

void Modbus::finishPoll(DeviceState& state, DeviceInstancePlugin const& device, bool ok,
                        TcpDeviceConnection* used, std::chrono::steady_clock::time_point started) {
    DeviceHealth& health = state.health;
    if (ok) health.lastOk = QDateTime::currentDateTimeUtc();
    if (!state.diagnosticList.empty()) {
        diagnostics::DeviceView view;
        view.health = &health;
        if (used) {
            std::lock_guard<std::mutex> lock(used->mutex);
            view.connected = used->connection.isConnected();
        }
        view.backoffSeconds = state.backoff.remainingSeconds(Backoff::clockMs());
        view.lastError = ok ? QStringLiteral("") : device.lastError;
        for (const ReadEntry& entry : state.diagnosticList) {
            ItemInstancePlugin& item = entry.dataItem->item;
            QString value =
                diagnostics::valueOf(setting_keys::settingText(item.settings, setting_keys::kRegister), view);
            if (value.isNull())
                item.setLastError(diagnostics::kUnknownItem);
            else
                entry.dataItem->values[setting_keys::kValue] = std::move(value);
        }
    }
    health.lastPollMs =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
}

void Modbus::keepOrClose(TcpDeviceConnection& entry, DeviceInstancePlugin const& device) {
    // A shared connection stays open while any device using it wants it kept.
    entry.keepOpen[device.id] =
        setting_keys::settingText(device.settings, setting_keys::kPersistentConnection).toInt() != 0;
    const bool anyKeeps = std::any_of(entry.keepOpen.cbegin(), entry.keepOpen.cend(),
                                      [](auto const& keep) { return keep.second; });
    if (!anyKeeps) entry.connection.disconnect();
}

namespace {

// One request: the block from `startAddress` covering [first, last). A failed request fails only its own
// items.
bool readRequest(Modbus& plugin, Connection& connection, RequestRunner* runner, ReadEntryIterator first,
                 ReadEntryIterator last, int startAddress, int count, ByteOrders const& orders,
                 unsigned char limit) {
    const ReadEntry& firstEntry = *first;
    const RegisterType table = firstEntry.table;
    const int lastAddress = (last - 1)->offset;
    // The three request lines share their tail; it is formatted once, in one pass.
    const QString requestTail =
        QStringLiteral("%1 registers of type %2 from %3 to %4. Max read registers: %5")
            .arg(QString::number(count), QString::number(static_cast<int>(table)),
                 QString::number(startAddress), QString::number(lastAddress),
                 QString::number(static_cast<int>(limit)));
    auto requestText = [&requestTail](QLatin1String head) { return head + requestTail; };
    plugin.writeLogDebug(requestText(QLatin1String("Getting ready to read ")));

    auto send = [&](RequestRunner::Request const& request, int* error) {
        return runner ? runner->run(request, error) : request(connection, error);
    };
    auto failItems = [&](int error) {
        const QString errorText = connection.errToStr(error);
        for (ReadEntryIterator it = first; it != last; ++it) it->dataItem->item.setLastError(errorText);
    };

    int error = 0;
    if (table == OutputCoil || table == InputCoil) {
        std::vector<unsigned char> bits(std::min(count, kLargestBitRead));
        const int result =
            send([&](Connection& link,
                     int* err) { return link.readBits(table, startAddress, count, bits.data(), err); },
                 &error);
        if (result >= 0) {
            extractBits(first, last, startAddress, bits);
            return true;
        }
        plugin.writeLogDebug(QStringLiteral("Could not read coil. ") + connection.errToStr(error));
        failItems(error);
        return false;
    }
    if (table == InputRegister || table == HoldingRegister) {
        std::vector<unsigned short> words(std::min(count, kLargestRegisterRead));
        plugin.writeLogDebug(requestText(QLatin1String("Reading words ")));
        const int result =
            send([&](Connection& link,
                     int* err) { return link.readWords(table, startAddress, count, words.data(), err); },
                 &error);
        plugin.writeLogDebug(requestText(QLatin1String("Done reading words ")));
        if (result < 0) {
            plugin.writeLogDebug(
                QStringLiteral("Failed to read elements of type %1.").arg(static_cast<int>(table)) +
                connection.errToStr(error));
            failItems(error);
            return false;
        }
        plugin.writeLogDebug(QStringLiteral("Holding/Input register data for ") +
                             firstEntry.dataItem->item.name + QStringLiteral(" to be extracted. Length: ") +
                             QString::number(words.size()) + QStringLiteral(" Byte swapped: ") +
                             flagText(orders.byteSwapped));
        extractWords(first, last, startAddress, words, orders.littleEndian, orders.byteSwapped,
                     orders.stringLittleEndian, orders.stringByteSwapped);
        plugin.writeLogDebug(QStringLiteral("Holding/Input register data extracted!"));
        return true;
    }
    return false;
}

bool readEntries(Modbus& plugin, Connection& connection, RequestRunner* runner, ReadEntryIterator first,
                 ReadEntryIterator last, ByteOrders const& orders, unsigned char maxReadRegisters) {
    if (first == last) return true;
    const unsigned char limit = readLimit(maxReadRegisters);

    const ReadEntry& lastEntry = *(last - 1);
    const int startAddress = first->offset;
    // In 64 bits: a range text may name a span of billions of registers.
    const qint64 endAddress = qint64(lastEntry.offset) + lastEntry.span + lastEntry.requestLength - 1;
    const int count = static_cast<int>(qBound<qint64>(0, endAddress - startAddress + 1, INT_MAX));

    if (count > limit) {
        const ReadEntryIterator mid = first + (last - first) / 2;
        if (mid != first) {
            // Each half is read whatever became of the other: a failed request fails only its own items.
            const bool firstHalf = readEntries(plugin, connection, runner, first, mid, orders, limit);
            const bool secondHalf = readEntries(plugin, connection, runner, mid, last, orders, limit);
            return firstHalf && secondHalf;
        }
    }
    return readRequest(plugin, connection, runner, first, last, startAddress, count, orders, limit);
}

}  // namespace

Modbus::DataItemIterator Modbus::readItems(Connection& connection, DataItemIterator first,
                                           DataItemIterator last, bool littleEndian, bool byteSwapped,
                                           bool stringLittleEndian, bool stringByteSwapped,
                                           unsigned char maxReadRegisters) {
    std::vector<ReadEntry> entries = makeReadEntries(first, last);
    const ByteOrders orders{littleEndian, byteSwapped, stringLittleEndian, stringByteSwapped};
    // Every item of the range is asked for; those of a failed request carry its error text.
    return readEntries(*this, connection, nullptr, entries.begin(), entries.end(), orders, maxReadRegisters)
               ? last
               : first;
}
