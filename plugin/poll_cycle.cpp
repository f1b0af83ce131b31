#include <modbus.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <exception>
#include <numeric>

#include "codec/address_space.h"
#include "connection/request_discipline.h"
#include "plugin/diagnostics.h"
#include "plugin/modbus.h"
#include "plugin/modbus_identity_specs.h"
#include "plugin/read_entry.h"
#include "plugin/request_plan.h"
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

// Registers (or coils) a read of the item covers, as the request for it is sized: span + type length in every
// table, coils and discrete inputs included.
qint64 readFootprint(const ReadEntry& entry) {
    return std::max<qint64>(1, qint64(entry.span) + entry.requestLength);
}

bool byTableAndOffset(const ReadEntry& a, const ReadEntry& b) {
    if (a.table != b.table) return a.table < b.table;
    return a.offset < b.offset;
}

const QString kInvalidRegisterAddress = QStringLiteral("Invalid register address");
const QString kInvalidRegisterType = QStringLiteral("Invalid register type");

// Why an item is never read, or null when it is read. A typo in an address must show on the item, not leave
// it silently unread; only the four Modbus tables may pick a function code or a table of learned addresses;
// an address beyond the 16-bit space would wrap around to another register on the device.
const QString* unreadableReason(const ReadEntry& entry) {
    if (entry.offset < 0) return &kInvalidRegisterAddress;
    if (!isModbusTable(entry.table)) return &kInvalidRegisterType;
    if (!codec::fitsAddressSpace(entry.offset, readFootprint(entry))) return &kAddressOutOfRange;
    return nullptr;
}

struct ByteOrders {
    bool littleEndian;
    bool byteSwapped;
    bool stringLittleEndian;
    bool stringByteSwapped;
};

const QString kIllegalDataAddress = QStringLiteral("Illegal data address");
// What a device once refused may have become readable: a firmware update, a reconfigured gateway.
constexpr qint64 kForgetHolesAfterMs = 60LL * 60 * 1000;
// Reads a poll may spend on finding the holes of the next plan, and how often it plans again to do so.
constexpr int kMostProbesPerPoll = 256;
constexpr int kVerifyRounds = 4;

// What every request of a poll needs besides its own items. `runner` is null when a caller drives the
// connection itself; `holes` is null when nothing is to be learned.
struct ReadContext {
    Modbus& plugin;
    Connection& connection;
    RequestRunner* runner;
    ByteOrders orders;
    unsigned char limit;
    request_plan::Holes* holes;
    // The addresses the device answered for since the holes were learned; null with `holes`.
    request_plan::Holes* verified;
    // Every block the device answered in this poll, and whether it refused one for an illegal address.
    std::vector<request_plan::PlannedRequest> answered;
    bool refusedAddress = false;
    // Reads left for finding unreadable addresses in this poll.
    int probeBudget = kMostProbesPerPoll;
};

request_plan::PlanItem planItem(const ReadEntry& entry) {
    return request_plan::PlanItem{static_cast<int>(entry.table), entry.offset, readFootprint(entry)};
}

std::vector<request_plan::PlanItem> planItems(std::vector<ReadEntry>::const_iterator first,
                                              std::vector<ReadEntry>::const_iterator last) {
    std::vector<request_plan::PlanItem> items;
    items.reserve(static_cast<size_t>(last - first));
    for (; first != last; ++first) items.push_back(planItem(*first));
    return items;
}

// Reads one planned request of `entries`; a request refused for an illegal address is split at its items to
// find what is readable, and what is not is remembered in the context's holes. True when every item of it got
// a value.
bool readPlanned(ReadContext& context, std::vector<ReadEntry>& entries,
                 const request_plan::PlannedRequest& request, int firstAttempt = 0);

void verifyPlan(ReadContext& context, const std::vector<ReadEntry>& readList, bool readGaps);

// Reads the whole plan with up to `window` requests in flight; what the device did not answer is read again
// one request at a time. Whether the device kept up with the requests in flight.
Connection::Pipeline readPipelinedPlan(ReadContext& context, std::vector<ReadEntry>& entries,
                                       const std::vector<request_plan::PlannedRequest>& plan, int window);

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
        // New items or a new order: the plan is made again, and what was learned of the old items is dropped.
        state->itemsChanged = true;
    }
    readList.erase(std::remove_if(readList.begin(), readList.end(),
                                  [](const ReadEntry& readEntry) {
                                      const QString* reason = unreadableReason(readEntry);
                                      if (!reason) return false;
                                      readEntry.dataItem->item.setLastError(*reason);
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
    runner.giveUpAfterTimeout(state->backoff.lastPollTimedOut());

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
    const unsigned char limit = readLimit(maxRead);
    planReads(*state, options, limit, device);
    ReadContext context{*this,         entry->connection, &runner, orders, limit,
                        &state->holes, &state->verified,  {},      false,  kMostProbesPerPoll};
    // Several requests in flight only where the device allows it, never with a pause between requests, and
    // never over RTU, whose answers carry nothing to tell them apart.
    if (options.maxOutstandingRequests > 1 && options.requestPauseMs == 0 && state->plan.size() > 1 &&
        options.transport != Transport::RtuOverTcp && !pipelineRefused(device.id)) {
        if (readPipelinedPlan(context, readList, state->plan, options.maxOutstandingRequests) ==
            Connection::Pipeline::Refused)
            refusePipelining(device);
    } else {
        for (const request_plan::PlannedRequest& request : state->plan)
            readPlanned(context, readList, request);
    }
    if (context.refusedAddress) {
        verifyPlan(context, readList, options.readGaps);
        state->planValid = false;
    }
    for (int unreadable : state->unreadable)
        readList[static_cast<size_t>(unreadable)].dataItem->item.setLastError(kIllegalDataAddress);

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

bool Modbus::pipelineRefused(int deviceId) {
    std::lock_guard<std::mutex> lock(connectionsMutex);
    return pipelineRefusingDevices.contains(deviceId);
}

void Modbus::refusePipelining(DeviceInstancePlugin const& device) {
    {
        std::lock_guard<std::mutex> lock(connectionsMutex);
        if (pipelineRefusingDevices.contains(device.id)) return;
        pipelineRefusingDevices.insert(device.id);
    }
    writeLogWarning(
        QStringLiteral("%1 does not answer requests sent before the previous answer came; it is asked "
                       "one request at a time from now on")
            .arg(device.name));
}

void Modbus::keepOrClose(TcpDeviceConnection& entry, DeviceInstancePlugin const& device) {
    // A shared connection stays open while any device using it wants it kept.
    entry.setKeepOpen(
        device.id,
        setting_keys::settingText(device.settings, setting_keys::kPersistentConnection).toInt() != 0);
    if (!entry.anyKeepsOpen())
        entry.connection.disconnect();
    else
        entry.connection.releaseIdleBuffers();
}

namespace {

// One request: the block from `startAddress` of `count` registers (or coils) covering [first, last). Returns
// 0 when it was answered (the items got their values), else the error code; the items are left as they were.
int readRequest(ReadContext& context, ReadEntryIterator first, ReadEntryIterator last, int startAddress,
                int count, int firstAttempt = 0) {
    Modbus& plugin = context.plugin;
    Connection& connection = context.connection;
    const ByteOrders& orders = context.orders;
    const ReadEntry& firstEntry = *first;
    const RegisterType table = firstEntry.table;
    const int lastAddress = (last - 1)->offset;
    // The three request lines share their tail; it is formatted once, in one pass.
    const QString requestTail =
        QStringLiteral("%1 registers of type %2 from %3 to %4. Max read registers: %5")
            .arg(QString::number(count), QString::number(static_cast<int>(table)),
                 QString::number(startAddress), QString::number(lastAddress),
                 QString::number(static_cast<int>(context.limit)));
    auto requestText = [&requestTail](QLatin1String head) { return head + requestTail; };
    plugin.writeLogDebug(requestText(QLatin1String("Getting ready to read ")));

    auto send = [&](RequestRunner::Request const& request, int* error) {
        return context.runner ? context.runner->run(request, error, firstAttempt)
                              : request(connection, error);
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
            context.answered.push_back(
                request_plan::PlannedRequest{static_cast<int>(table), startAddress, count, {}});
            return 0;
        }
        plugin.writeLogDebug(QStringLiteral("Could not read coil. ") + connection.errToStr(error));
        return error;
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
            return error;
        }
        plugin.writeLogDebug(QStringLiteral("Holding/Input register data for ") +
                             firstEntry.dataItem->item.name + QStringLiteral(" to be extracted. Length: ") +
                             QString::number(words.size()) + QStringLiteral(" Byte swapped: ") +
                             flagText(orders.byteSwapped));
        extractWords(first, last, startAddress, words, orders.littleEndian, orders.byteSwapped,
                     orders.stringLittleEndian, orders.stringByteSwapped);
        plugin.writeLogDebug(QStringLiteral("Holding/Input register data extracted!"));
        context.answered.push_back(
            request_plan::PlannedRequest{static_cast<int>(table), startAddress, count, {}});
        return 0;
    }
    return EINVAL;
}

// Adds [first, last] of `table` to a set of addresses (the holes, or the addresses known readable).
void markAddresses(request_plan::Holes& addresses, int table, qint64 first, qint64 last) {
    std::set<int>* tableAddresses = request_plan::tableSet(addresses, table);
    if (!tableAddresses) return;
    for (qint64 address = first; address <= last; ++address)
        tableAddresses->insert(static_cast<int>(address));
}

// [first, last] of `table` was refused for an illegal address: a single address is a hole, a wider range is
// halved to find which of its addresses are. False when nothing more is to be learned in this poll.
bool splitRefused(ReadContext& context, int table, qint64 first, qint64 last);

// The entries of a request: a range of the sorted list, or a copy of them when an unreadable item lies
// between.
struct RequestEntries {
    ReadEntryIterator first;
    ReadEntryIterator last;
    std::vector<ReadEntry> gathered;
};

void gatherEntries(std::vector<ReadEntry>& entries, const request_plan::PlannedRequest& request,
                   RequestEntries* out) {
    const size_t firstIndex = static_cast<size_t>(request.items.front());
    const bool contiguous =
        static_cast<size_t>(request.items.back()) - firstIndex + 1 == request.items.size();
    out->first = entries.begin() + static_cast<std::ptrdiff_t>(firstIndex);
    out->last = out->first + static_cast<std::ptrdiff_t>(request.items.size());
    if (contiguous) return;
    out->gathered.reserve(request.items.size());
    for (int index : request.items) out->gathered.push_back(entries[static_cast<size_t>(index)]);
    out->first = out->gathered.begin();
    out->last = out->gathered.end();
}

// A request that failed with `error`: one refused for an illegal address is split to find what is readable
// (remembering what is not); otherwise its items get the error text.
void handleFailure(ReadContext& context, std::vector<ReadEntry>& entries,
                   const request_plan::PlannedRequest& request, const RequestEntries& requestEntries,
                   int error) {
    if (error == EMBXILADD && context.holes) {
        context.refusedAddress = true;
        if (request.items.size() > 1) {
            // Somewhere in the request lies an address the device does not have: its halves show which items
            // are readable. Holes in the gaps between them are found after the plan (verifyPlan).
            const auto halves =
                request_plan::splitRequest(request, planItems(entries.cbegin(), entries.cend()));
            readPlanned(context, entries, halves.first);
            readPlanned(context, entries, halves.second);
            return;
        }
        // The device refused this item's whole span, which says nothing of any single address in it: an
        // address is unreadable only when a read of it alone was refused, so that an item overlapping this
        // one is never hidden behind an address it can read.
        splitRefused(context, request.table, request.start, qint64(request.start) + request.count - 1);
    }
    const QString errorText = context.connection.errToStr(error);
    for (ReadEntryIterator it = requestEntries.first; it != requestEntries.last; ++it)
        it->dataItem->item.setLastError(errorText);
}

bool readPlanned(ReadContext& context, std::vector<ReadEntry>& entries,
                 const request_plan::PlannedRequest& request, int firstAttempt) {
    if (request.items.empty()) return true;
    RequestEntries requestEntries;
    gatherEntries(entries, request, &requestEntries);
    const int error = readRequest(context, requestEntries.first, requestEntries.last, request.start,
                                  request.count, firstAttempt);
    if (error == 0) return true;
    handleFailure(context, entries, request, requestEntries, error);
    return false;
}

Connection::Pipeline readPipelinedPlan(ReadContext& context, std::vector<ReadEntry>& entries,
                                       const std::vector<request_plan::PlannedRequest>& plan, int window) {
    std::vector<std::vector<unsigned short>> words(plan.size());
    std::vector<std::vector<unsigned char>> bits(plan.size());
    std::vector<Connection::PipelinedRead> reads(plan.size());
    for (size_t i = 0; i < plan.size(); ++i) {
        const request_plan::PlannedRequest& request = plan[i];
        Connection::PipelinedRead& read = reads[i];
        read.table = static_cast<RegisterType>(request.table);
        read.address = request.start;
        read.count = request.count;
        if (read.table == OutputCoil || read.table == InputCoil) {
            bits[i].resize(static_cast<size_t>(std::min(request.count, kLargestBitRead)));
            read.bits = bits[i].data();
        } else {
            words[i].resize(static_cast<size_t>(std::min(request.count, kLargestRegisterRead)));
            read.words = words[i].data();
        }
    }
    const Connection::Pipeline outcome = context.runner->runPipelined(reads, window);
    const ByteOrders& orders = context.orders;
    for (size_t i = 0; i < plan.size(); ++i) {
        const request_plan::PlannedRequest& request = plan[i];
        const Connection::PipelinedRead& read = reads[i];
        if (request.items.empty()) continue;
        RequestEntries requestEntries;
        gatherEntries(entries, request, &requestEntries);
        if (read.result >= 0) {
            context.answered.push_back(
                request_plan::PlannedRequest{request.table, request.start, request.count, {}});
            if (read.bits)
                extractBits(requestEntries.first, requestEntries.last, request.start, bits[i]);
            else
                extractWords(requestEntries.first, requestEntries.last, request.start, words[i],
                             orders.littleEndian, orders.byteSwapped, orders.stringLittleEndian,
                             orders.stringByteSwapped);
        } else if (context.runner->settledInFlight(read)) {
            handleFailure(context, entries, request, requestEntries, read.error);
        } else {
            // Busy (asked again as a retry), or never answered while in flight (asked again afresh).
            readPlanned(context, entries, request, read.answered ? 1 : 0);
        }
    }
    return outcome;
}

// Reads a block for what the device answers, not for any item: 0 when answered, else the error code.
int probeBlock(ReadContext& context, int table, int start, int count) {
    auto send = [&](RequestRunner::Request const& request, int* error) {
        return context.runner ? context.runner->run(request, error) : request(context.connection, error);
    };
    int error = 0;
    const RegisterType type = static_cast<RegisterType>(table);
    if (type == OutputCoil || type == InputCoil) {
        std::vector<unsigned char> bits(static_cast<size_t>(std::min(count, kLargestBitRead)));
        send([&](Connection& link, int* err) { return link.readBits(type, start, count, bits.data(), err); },
             &error);
    } else {
        std::vector<unsigned short> words(static_cast<size_t>(std::min(count, kLargestRegisterRead)));
        send(
            [&](Connection& link, int* err) { return link.readWords(type, start, count, words.data(), err); },
            &error);
    }
    return error;
}

// Finds the unreadable addresses of [first, last] by halving; false when the device answered anything but
// an illegal address, or the poll's budget is spent (nothing more is to be learned then).
bool probeRange(ReadContext& context, int table, qint64 first, qint64 last) {
    if (context.probeBudget <= 0) return false;
    --context.probeBudget;
    const int error = probeBlock(context, table, static_cast<int>(first), static_cast<int>(last - first + 1));
    if (error == 0) {
        markAddresses(*context.verified, table, first, last);
        return true;
    }
    if (error != EMBXILADD) return false;
    return splitRefused(context, table, first, last);
}

bool splitRefused(ReadContext& context, int table, qint64 first, qint64 last) {
    if (first == last) {
        markAddresses(*context.holes, table, first, last);
        return true;
    }
    const qint64 middle = first + (last - first) / 2;
    return probeRange(context, table, first, middle) && probeRange(context, table, middle + 1, last);
}

// After a poll in which the device refused an address: the next plan, made with what is known now, may span
// addresses no request has read yet. They are read now, so that from the next poll on no request is refused.
// Bounded: a device that refuses everything ends it.
void verifyPlan(ReadContext& context, const std::vector<ReadEntry>& readList, bool readGaps) {
    request_plan::Holes& verified = *context.verified;
    for (const request_plan::PlannedRequest& block : context.answered)
        markAddresses(verified, block.table, block.start, qint64(block.start) + block.count - 1);
    const std::vector<request_plan::PlanItem> items = planItems(readList.cbegin(), readList.cend());
    for (int round = 0; round < kVerifyRounds; ++round) {
        bool probed = false;
        for (const request_plan::PlannedRequest& request :
             request_plan::planRequests(items, context.limit, readGaps, *context.holes, nullptr)) {
            const std::set<int>* known = request_plan::tableSet(verified, request.table);
            const std::set<int>* holes = request_plan::tableSet(*context.holes, request.table);
            if (!known || !holes) continue;
            auto unknown = [&](qint64 address) {
                return !known->count(static_cast<int>(address)) && !holes->count(static_cast<int>(address));
            };
            const qint64 end = qint64(request.start) + request.count;
            for (qint64 address = request.start; address < end; ++address) {
                if (!unknown(address)) continue;
                qint64 last = address;
                while (last + 1 < end && unknown(last + 1)) ++last;
                probed = true;
                if (!probeRange(context, request.table, address, last)) return;
                address = last;
            }
        }
        if (!probed) return;
    }
}

// Reads [first, last) of one table in the fewest requests the limit allows; true when every request was
// answered.
bool readEntries(ReadContext& context, ReadEntryIterator first, ReadEntryIterator last) {
    const std::vector<request_plan::PlanItem> items = planItems(first, last);
    std::vector<ReadEntry> entries(first, last);
    bool all = true;
    for (const request_plan::PlannedRequest& request :
         request_plan::planRequests(items, context.limit, true, request_plan::Holes{}, nullptr))
        all = readPlanned(context, entries, request) && all;
    return all;
}

}  // namespace

void Modbus::planReads(DeviceState& state, DeviceOptions const& options, unsigned char limit,
                       DeviceInstancePlugin const& device) {
    // What was learned of the device is forgotten when its settings change, and after an hour.
    const qint64 now = Backoff::clockMs();
    const bool settingsChanged =
        !state.plannedSettings.isSharedWith(device.settings) && state.plannedSettings != device.settings;
    const bool itemsChanged = state.itemsChanged || !state.sortedSlotsValid;
    state.itemsChanged = false;
    if (settingsChanged || itemsChanged || now - state.holesLearnedAtMs > kForgetHolesAfterMs) {
        for (std::set<int>& tableHoles : state.holes) tableHoles.clear();
        for (std::set<int>& tableVerified : state.verified) tableVerified.clear();
        state.holesLearnedAtMs = now;
        state.planValid = false;
    }
    if (settingsChanged) state.plannedSettings = device.settings;
    const size_t holeCount =
        std::accumulate(state.holes.cbegin(), state.holes.cend(), size_t(0),
                        [](size_t sum, const std::set<int>& table) { return sum + table.size(); });
    if (state.planValid && state.planLimit == limit && state.planReadGaps == options.readGaps &&
        state.planHoleCount == holeCount && state.planItemCount == state.readList.size())
        return;
    state.unreadable.clear();
    state.plan = request_plan::planRequests(planItems(state.readList.cbegin(), state.readList.cend()), limit,
                                            options.readGaps, state.holes, &state.unreadable);
    state.planValid = state.sortedSlotsValid;
    state.planLimit = limit;
    state.planReadGaps = options.readGaps;
    state.planHoleCount = holeCount;
    state.planItemCount = state.readList.size();
}

Modbus::DataItemIterator Modbus::readItems(Connection& connection, DataItemIterator first,
                                           DataItemIterator last, bool littleEndian, bool byteSwapped,
                                           bool stringLittleEndian, bool stringByteSwapped,
                                           unsigned char maxReadRegisters) {
    std::vector<ReadEntry> entries = makeReadEntries(first, last);
    ReadContext context{*this,
                        connection,
                        nullptr,
                        ByteOrders{littleEndian, byteSwapped, stringLittleEndian, stringByteSwapped},
                        readLimit(maxReadRegisters),
                        nullptr,
                        nullptr,
                        {},
                        false,
                        0};
    // Every item of the range is asked for; those of a failed request carry its error text.
    return readEntries(context, entries.begin(), entries.end()) ? last : first;
}
