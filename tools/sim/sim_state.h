#pragma once
// The simulator's shared state: settings, register tables, counters and the client sessions.

#include <modbus.h>
#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "tools/sim/sim_roles.h"
#include "tools/sim/simulator.h"

namespace modbus_sim {

class Session;

struct MappingDeleter {
    void operator()(modbus_mapping_t* mapping) const { modbus_mapping_free(mapping); }
};
using MappingPtr = std::unique_ptr<modbus_mapping_t, MappingDeleter>;

struct Simulator::State {
    State();
    ~State();

    // The tables requests for `unit` use: its own, or the shared ones. Called with `mutex` held.
    modbus_mapping_t* tablesFor(int unit) const;
    // The unit's own tables, made (all 0) on the first call; null for ids outside 0-255 or when they cannot
    // be allocated. Called with `mutex` held.
    modbus_mapping_t* ownTables(int unit);

    // Guards every member up to the lifecycle block.
    mutable std::mutex mutex;
    // The shared tables, and the tables of the units that have their own.
    modbus_mapping_t* mapping = nullptr;
    std::map<int, MappingPtr> unitTables;
    Framing framing = Framing::Tcp;
    std::set<int> units;
    UnknownUnitReply unknownUnitReply = UnknownUnitReply::Silence;
    std::set<int> deadUnits;
    UnknownUnitReply deadUnitReply = UnknownUnitReply::Silence;
    int connectionLimit = 0;
    int serialLineMs = 0;
    int minimumRequestGapMs = 0;
    DeviceIdentification identification;
    bool hasReportSlaveId = false;
    QByteArray reportSlaveId;
    std::vector<FaultRule> faults;
    // Bumped by clearFaults so sessions forget their per-rule request counts.
    int faultGeneration = 0;
    // Matching requests counted per busy-every rule (by index), over all connections.
    std::map<size_t, int> busyEveryCounts;
    std::map<int, int> functionCounts;
    int totalRequests = 0;
    int discardedBytes = 0;
    std::vector<RequestRecord> requestLog;
    // Bumped by clearRequestLog, so that a session does not stamp its answer time on someone else's record.
    int requestLogGeneration = 0;
    int acceptedConnections = 0;
    int rejectedConnections = 0;
    int openConnections = 0;
    int closedConnections = 0;
    TlsServerSettings tls;
    QString tlsKitDirectory;
    TlsFault tlsKitFault = TlsFault::None;
    bool tlsKitCreated = false;
    int tlsHandshakes = 0;
    int tlsResumedHandshakes = 0;
    int tlsFailedHandshakes = 0;
    std::vector<QString> tlsHandshakeErrors;

    // Lifecycle: start and stop are serialized by lifecycleMutex; sessions are guarded by sessionsMutex.
    std::mutex lifecycleMutex;
    std::atomic<bool> running{false};
    int listenFd = -1;
    // Written once by stop(); every thread polls the read end next to its socket and so wakes at once.
    int stopPipe[2] = {-1, -1};
    std::thread acceptThread;
    uint16_t port = 0;
    QString address;
    // What the connections accepted while running serve: the TLS context (null: plain Modbus TCP, also for
    // the plain_tcp and stall_handshake faults) and the TLS fault (None when TLS is off).
    SSL_CTX* tlsContext = nullptr;
    TlsFault servedTlsFault = TlsFault::None;
    std::mutex sessionsMutex;
    std::list<std::unique_ptr<Session>> sessions;
    // Held by the session whose request is on the simulated serial line.
    std::mutex serialLine;
    // Zero of the request log's times; set before any session thread exists.
    std::chrono::steady_clock::time_point epoch = std::chrono::steady_clock::now();

    qint64 elapsedUs() const;

    void acceptLoop();
    void reapFinishedSessions(bool all);
};

// One client connection: its socket, its thread and its libmodbus server context.
class Session {
public:
    Session(Simulator::State* state, int fd, int stopFd, int connection, qint64 acceptedUs, Framing framing,
            SSL_CTX* tlsContext, TlsFault tlsFault);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void start();
    void join();
    bool finished() const { return done.load(); }

private:
    enum class Outcome { Continue, Close, Closed };
    enum class Arrival { Bytes, Quiet, Closed };
    enum class Wait { Ready, TimedOut, Stopped };

    void run();
    // Before the first request: the TLS handshake, or a fault's stalling; false when the connection ends.
    bool startConnection();
    // TLS (sim_session_tls.cpp): the handshake within kTlsHandshakeTimeoutMs, its counting, and the byte I/O
    // over the TLS session.
    bool acceptTls();
    bool handshakeFailed(const QString& reason);
    Arrival receiveTls(char* data, int size, int quietMs, int* received);
    bool sendTls(const QByteArray& bytes);
    // close_notify, when a session was established.
    void endTls();
    // Waits until the socket is ready for `events` (timeoutMs -1: for ever) or the simulator stops.
    Wait waitForSocket(short events, int timeoutMs);
    // Reads and drops everything until the client closes or the simulator stops.
    void discardUntilClosed();
    // Up to `size` bytes of what arrives, over TLS or the plain socket; Quiet when nothing did within
    // `quietMs` (-1: wait for ever).
    Arrival receiveSome(char* data, int size, int quietMs, int* received);
    // The next request as an MBAP frame, read by the connection's framing; false once the connection ends.
    bool readMbapRequest(QByteArray* request);
    bool readRtuRequest(QByteArray* request);
    // RTU: drops the first pending byte while looking for a frame.
    void discardPendingByte();
    // Appends what arrives to `pending`; Quiet when nothing did within `quietMs` (-1: wait for ever).
    Arrival receiveMore(int quietMs);
    bool readExact(char* data, int size);
    bool waitForStop(int ms);
    bool sendAll(const QByteArray& bytes);
    // sendAll for a whole answer, after stampAnswer.
    bool sendAnswer(const QByteArray& bytes);
    // The answer in `chunkBytes` pieces, `delayMs` apart; the answer time is taken before the last piece.
    Outcome sendInChunks(const QByteArray& bytes, int chunkBytes, int delayMs);
    // An MBAP answer as the connection's framing puts it on the wire.
    QByteArray toWire(const QByteArray& answer) const;
    // Takes the answer time of the current request and logs it. It is taken before the (last) bytes are
    // handed to the socket, so that whoever has read the answer finds its time in the log.
    void stampAnswer();
    Outcome handleReceived(const QByteArray& request);
    Outcome handle(const QByteArray& request, const RequestRecord& record);
    // libmodbus's answer from the tables of `unit`.
    QByteArray standardAnswer(const QByteArray& request, int unit);
    const FaultRule* selectFault(const RequestRecord& record, FaultRule* storage, bool* closeNow);
    Outcome deliver(const FaultRule* fault, const QByteArray& request, const RequestRecord& record,
                    const QByteArray& answer);
    // The answer another unit would give to `request`: a read from that unit's tables, otherwise `answer`
    // under that unit's id (so that a write is not carried out twice).
    QByteArray otherUnitAnswer(const QByteArray& request, const RequestRecord& record,
                               const QByteArray& answer);
    void resetConnection();

    Simulator::State* state;
    int fd;
    int stopFd;
    Framing framing;
    SSL_CTX* tlsContext;
    TlsFault tlsFault;
    SSL* ssl = nullptr;
    bool tlsEstablished = false;
    bool tlsResumed = false;
    ClientAuthority authority;
    // RTU: bytes received but not yet taken as a request.
    QByteArray pending;
    std::thread thread;
    std::atomic<bool> done{false};
    modbus_t* context = nullptr;
    // modbus_reply writes its answer into capture[0]; the bytes are read back from capture[1].
    int capture[2] = {-1, -1};
    // Matching requests counted per close-after rule (by index) on this connection.
    std::map<size_t, int> closeAfterCounts;
    int faultGeneration = 0;
    int connection;
    // When the last answer left on this connection (at first: when it was accepted), for the minimum gap.
    qint64 lastAnswerUs;
    // When the answer to the request being handled left; -1 while none has.
    qint64 answeredUs = -1;
    // Where the request being handled sits in the request log.
    size_t logIndex = 0;
    int logGeneration = 0;
};

}  // namespace modbus_sim
