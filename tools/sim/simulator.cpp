// The simulator's public face: settings, register tables, counters, and listening for clients.

#include "tools/sim/simulator.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/sim/sim_protocol.h"
#include "tools/sim/sim_state.h"
#include "tools/sim/sim_tls_context.h"
#include "tools/sim/sim_tls_kit.h"

namespace modbus_sim {

namespace {

constexpr int kListenBacklog = 64;

// Clips [address, address + count) to the table; false when nothing is left.
bool clipRange(int* address, int* count) {
    if (*address < 0 || *address >= kTableSize || *count <= 0) return false;
    *count = std::min(*count, kTableSize - *address);
    return true;
}

template <typename T, typename Table>
void storeValues(Table* table, int address, const std::vector<T>& values) {
    int count = static_cast<int>(values.size());
    if (!clipRange(&address, &count)) return;
    for (int i = 0; i < count; ++i) table[address + i] = static_cast<Table>(values[i]);
}

template <typename T, typename Table>
std::vector<T> loadValues(const Table* table, int address, int count) {
    if (!clipRange(&address, &count)) return {};
    return std::vector<T>(table + address, table + address + count);
}

// Bits are kept as 0 or 1, so that the getters give back what a read answers.
std::vector<uint8_t> toBits(const std::vector<uint8_t>& values) {
    std::vector<uint8_t> bits;
    bits.reserve(values.size());
    for (uint8_t value : values) bits.push_back(value ? 1 : 0);
    return bits;
}

void closeFd(int* fd) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
}

}  // namespace

Simulator::State::State() {
    mapping = modbus_mapping_new(kTableSize, kTableSize, kTableSize, kTableSize);
}

Simulator::State::~State() {
    modbus_mapping_free(mapping);
}

modbus_mapping_t* Simulator::State::tablesFor(int unit) const {
    const auto own = unitTables.find(unit);
    return own != unitTables.end() ? own->second.get() : mapping;
}

modbus_mapping_t* Simulator::State::ownTables(int unit) {
    if (unit < 0 || unit > kMaxUnitId) return nullptr;
    const auto own = unitTables.find(unit);
    if (own != unitTables.end()) return own->second.get();
    MappingPtr tables(modbus_mapping_new(kTableSize, kTableSize, kTableSize, kTableSize));
    if (!tables) return nullptr;
    return unitTables.emplace(unit, std::move(tables)).first->second.get();
}

void Simulator::State::acceptLoop() {
    for (;;) {
        pollfd fds[2] = {{listenFd, POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
        const int ready = ::poll(fds, 2, -1);
        if (ready < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;
        if ((fds[0].revents & POLLIN) == 0) {
            if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) return;
            continue;
        }
        const int client = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        // Answers sent a byte at a time must leave as separate segments.
        const int one = 1;
        ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        const qint64 acceptedUs = elapsedUs();
        int connection = 0;
        Framing connectionFraming = Framing::Tcp;
        {
            std::lock_guard<std::mutex> lock(mutex);
            connectionFraming = framing;
            if (connectionLimit > 0 && openConnections >= connectionLimit) {
                ++rejectedConnections;
            } else {
                connection = ++acceptedConnections;
                ++openConnections;
            }
        }
        if (connection == 0) {
            // A gateway out of connection slots takes the connection and drops it before reading anything.
            ::close(client);
            continue;
        }
        reapFinishedSessions(false);
        std::lock_guard<std::mutex> lock(sessionsMutex);
        sessions.push_back(std::make_unique<Session>(this, client, stopPipe[0], connection, acceptedUs,
                                                     connectionFraming, tlsContext, servedTlsFault));
        sessions.back()->start();
    }
}

void Simulator::State::reapFinishedSessions(bool all) {
    std::list<std::unique_ptr<Session>> finished;
    {
        std::lock_guard<std::mutex> lock(sessionsMutex);
        for (auto it = sessions.begin(); it != sessions.end();) {
            if (all || (*it)->finished()) {
                finished.push_back(std::move(*it));
                it = sessions.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& session : finished) session->join();
}

qint64 Simulator::State::elapsedUs() const {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - epoch)
        .count();
}

Simulator::Simulator() : state(std::make_unique<State>()) {}

Simulator::~Simulator() {
    stop();
}

bool Simulator::start(const QString& address, uint16_t port, QString* error) {
    std::lock_guard<std::mutex> lifecycle(state->lifecycleMutex);
    auto fail = [&](const QString& reason) {
        if (error) *error = reason;
        closeFd(&state->listenFd);
        closeFd(&state->stopPipe[0]);
        closeFd(&state->stopPipe[1]);
        SSL_CTX_free(state->tlsContext);
        state->tlsContext = nullptr;
        return false;
    };
    if (state->running) {
        if (error) *error = QStringLiteral("already running on %1:%2").arg(state->address).arg(state->port);
        return false;
    }
    if (!state->mapping) return fail(QStringLiteral("could not allocate the register tables"));
    QString tlsError;
    if (!startTls(address, &tlsError)) return fail(tlsError);

    sockaddr_in bindAddress{};
    bindAddress.sin_family = AF_INET;
    bindAddress.sin_port = htons(port);
    if (::inet_pton(AF_INET, address.toLatin1().constData(), &bindAddress.sin_addr) != 1) {
        return fail(QStringLiteral("not an IPv4 address: %1").arg(address));
    }
    if (::pipe2(state->stopPipe, O_CLOEXEC) != 0)
        return fail(QStringLiteral("pipe: %1").arg(strerror(errno)));
    state->listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (state->listenFd < 0) return fail(QStringLiteral("socket: %1").arg(strerror(errno)));
    const int one = 1;
    ::setsockopt(state->listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (::bind(state->listenFd, reinterpret_cast<sockaddr*>(&bindAddress), sizeof(bindAddress)) != 0) {
        return fail(QStringLiteral("bind %1:%2: %3").arg(address).arg(port).arg(strerror(errno)));
    }
    if (::listen(state->listenFd, kListenBacklog) != 0) {
        return fail(QStringLiteral("listen: %1").arg(strerror(errno)));
    }
    sockaddr_in bound{};
    socklen_t boundLength = sizeof(bound);
    ::getsockname(state->listenFd, reinterpret_cast<sockaddr*>(&bound), &boundLength);
    state->port = ntohs(bound.sin_port);
    state->address = address;
    // No session runs while stopped, so the log's zero can move without a lock.
    state->epoch = std::chrono::steady_clock::now();
    state->running = true;
    state->acceptThread = std::thread([this] { state->acceptLoop(); });
    return true;
}

void Simulator::stop() {
    std::lock_guard<std::mutex> lifecycle(state->lifecycleMutex);
    if (!state->running) return;
    const char wake = 1;
    while (::write(state->stopPipe[1], &wake, 1) < 0 && errno == EINTR) {
    }
    if (state->acceptThread.joinable()) state->acceptThread.join();
    closeFd(&state->listenFd);
    // Sessions see the stop pipe, close their sockets and end.
    state->reapFinishedSessions(true);
    closeFd(&state->stopPipe[0]);
    closeFd(&state->stopPipe[1]);
    SSL_CTX_free(state->tlsContext);
    state->tlsContext = nullptr;
    state->running = false;
}

bool Simulator::startTls(const QString& address, QString* error) {
    TlsServerSettings settings;
    QString kitDirectory;
    TlsFault kitFault = TlsFault::None;
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        settings = state->tls;
        kitDirectory = state->tlsKitDirectory;
        kitFault = state->tlsKitFault;
    }
    if (!kitDirectory.isEmpty()) {
        bool created = false;
        if (!tlsServerSettingsForKit(kitDirectory, address, kitFault, &settings, &created, error))
            return false;
        std::lock_guard<std::mutex> lock(state->mutex);
        state->tls = settings;
        state->tlsKitCreated = created;
    }
    state->servedTlsFault = settings.enabled ? settings.fault : TlsFault::None;
    // These two faults never complete a handshake, so they need no certificate.
    const bool handshakes = settings.enabled && settings.fault != TlsFault::PlainTcp &&
                            settings.fault != TlsFault::StallHandshake;
    if (!handshakes) return true;
    state->tlsContext = newTlsServerContext(settings, error);
    return state->tlsContext != nullptr;
}

void Simulator::setTls(const TlsServerSettings& settings) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->tls = settings;
    state->tlsKitDirectory.clear();
    state->tlsKitCreated = false;
}

void Simulator::setTlsKit(const QString& dir, TlsFault fault) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->tlsKitDirectory = dir;
    state->tlsKitFault = fault;
    state->tlsKitCreated = false;
    // The files are chosen at start(); what is known now shows in tls() already.
    state->tls = TlsServerSettings();
    state->tls.enabled = !dir.isEmpty();
    state->tls.fault = dir.isEmpty() ? TlsFault::None : fault;
}

TlsServerSettings Simulator::tls() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->tls;
}

QString Simulator::tlsKitDirectory() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->tlsKitDirectory;
}

bool Simulator::tlsKitCreated() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->tlsKitCreated;
}

int Simulator::tlsHandshakes() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->tlsHandshakes;
}

int Simulator::tlsResumedHandshakes() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->tlsResumedHandshakes;
}

int Simulator::tlsFailedHandshakes() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->tlsFailedHandshakes;
}

std::vector<QString> Simulator::tlsHandshakeErrors() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->tlsHandshakeErrors;
}

bool Simulator::running() const {
    return state->running;
}

uint16_t Simulator::port() const {
    std::lock_guard<std::mutex> lifecycle(state->lifecycleMutex);
    return state->port;
}

QString Simulator::address() const {
    std::lock_guard<std::mutex> lifecycle(state->lifecycleMutex);
    return state->address;
}

void Simulator::setFraming(Framing framing) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->framing = framing;
}

Framing Simulator::framing() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->framing;
}

void Simulator::setUnits(const std::set<int>& units) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->units = units;
}

void Simulator::setUnknownUnitReply(UnknownUnitReply reply) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->unknownUnitReply = reply;
}

void Simulator::setDeadUnits(const std::set<int>& units, UnknownUnitReply reply) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->deadUnits = units;
    state->deadUnitReply = reply;
}

std::set<int> Simulator::deadUnits() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->deadUnits;
}

UnknownUnitReply Simulator::deadUnitReply() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->deadUnitReply;
}

void Simulator::setConnectionLimit(int limit) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->connectionLimit = std::max(limit, 0);
}

void Simulator::setSerialLine(int msPerRequest) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->serialLineMs = std::max(msPerRequest, 0);
}

void Simulator::setMinimumRequestGap(int ms) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->minimumRequestGapMs = std::max(ms, 0);
}

void Simulator::setHoldingRegisters(int address, const std::vector<uint16_t>& values) {
    std::lock_guard<std::mutex> lock(state->mutex);
    storeValues(state->mapping->tab_registers, address, values);
}

void Simulator::setInputRegisters(int address, const std::vector<uint16_t>& values) {
    std::lock_guard<std::mutex> lock(state->mutex);
    storeValues(state->mapping->tab_input_registers, address, values);
}

void Simulator::setCoils(int address, const std::vector<uint8_t>& values) {
    const std::vector<uint8_t> bits = toBits(values);
    std::lock_guard<std::mutex> lock(state->mutex);
    storeValues(state->mapping->tab_bits, address, bits);
}

void Simulator::setDiscreteInputs(int address, const std::vector<uint8_t>& values) {
    const std::vector<uint8_t> bits = toBits(values);
    std::lock_guard<std::mutex> lock(state->mutex);
    storeValues(state->mapping->tab_input_bits, address, bits);
}

std::vector<uint16_t> Simulator::holdingRegisters(int address, int count) const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return loadValues<uint16_t>(state->mapping->tab_registers, address, count);
}

std::vector<uint16_t> Simulator::inputRegisters(int address, int count) const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return loadValues<uint16_t>(state->mapping->tab_input_registers, address, count);
}

std::vector<uint8_t> Simulator::coils(int address, int count) const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return loadValues<uint8_t>(state->mapping->tab_bits, address, count);
}

std::vector<uint8_t> Simulator::discreteInputs(int address, int count) const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return loadValues<uint8_t>(state->mapping->tab_input_bits, address, count);
}

void Simulator::setHoldingRegisters(int unit, int address, const std::vector<uint16_t>& values) {
    std::lock_guard<std::mutex> lock(state->mutex);
    if (modbus_mapping_t* tables = state->ownTables(unit))
        storeValues(tables->tab_registers, address, values);
}

void Simulator::setInputRegisters(int unit, int address, const std::vector<uint16_t>& values) {
    std::lock_guard<std::mutex> lock(state->mutex);
    if (modbus_mapping_t* tables = state->ownTables(unit))
        storeValues(tables->tab_input_registers, address, values);
}

void Simulator::setCoils(int unit, int address, const std::vector<uint8_t>& values) {
    const std::vector<uint8_t> bits = toBits(values);
    std::lock_guard<std::mutex> lock(state->mutex);
    if (modbus_mapping_t* tables = state->ownTables(unit)) storeValues(tables->tab_bits, address, bits);
}

void Simulator::setDiscreteInputs(int unit, int address, const std::vector<uint8_t>& values) {
    const std::vector<uint8_t> bits = toBits(values);
    std::lock_guard<std::mutex> lock(state->mutex);
    if (modbus_mapping_t* tables = state->ownTables(unit)) storeValues(tables->tab_input_bits, address, bits);
}

std::vector<uint16_t> Simulator::holdingRegisters(int unit, int address, int count) const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return loadValues<uint16_t>(state->tablesFor(unit)->tab_registers, address, count);
}

std::vector<uint16_t> Simulator::inputRegisters(int unit, int address, int count) const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return loadValues<uint16_t>(state->tablesFor(unit)->tab_input_registers, address, count);
}

std::vector<uint8_t> Simulator::coils(int unit, int address, int count) const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return loadValues<uint8_t>(state->tablesFor(unit)->tab_bits, address, count);
}

std::vector<uint8_t> Simulator::discreteInputs(int unit, int address, int count) const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return loadValues<uint8_t>(state->tablesFor(unit)->tab_input_bits, address, count);
}

void Simulator::setDeviceIdentification(const DeviceIdentification& identification) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->identification = identification;
}

void Simulator::setReportSlaveId(const QByteArray& payload) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->hasReportSlaveId = true;
    state->reportSlaveId = payload;
}

void Simulator::clearReportSlaveId() {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->hasReportSlaveId = false;
    state->reportSlaveId.clear();
}

void Simulator::addFault(const FaultRule& rule) {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->faults.push_back(rule);
}

void Simulator::clearFaults() {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->faults.clear();
    state->busyEveryCounts.clear();
    ++state->faultGeneration;
}

int Simulator::requestCount(int function) const {
    std::lock_guard<std::mutex> lock(state->mutex);
    const auto found = state->functionCounts.find(function);
    return found == state->functionCounts.end() ? 0 : found->second;
}

int Simulator::totalRequests() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->totalRequests;
}

std::vector<RequestRecord> Simulator::requestLog() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->requestLog;
}

void Simulator::clearRequestLog() {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->requestLog.clear();
    ++state->requestLogGeneration;
    state->functionCounts.clear();
    state->totalRequests = 0;
    state->discardedBytes = 0;
}

int Simulator::discardedBytes() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->discardedBytes;
}

int Simulator::acceptedConnections() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->acceptedConnections;
}

int Simulator::rejectedConnections() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->rejectedConnections;
}

int Simulator::openConnections() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->openConnections;
}

int Simulator::closedConnections() const {
    std::lock_guard<std::mutex> lock(state->mutex);
    return state->closedConnections;
}

}  // namespace modbus_sim
