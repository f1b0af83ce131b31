#pragma once
// A Modbus device simulator for tests and the command line, speaking Modbus TCP or RTU over TCP (the framing
// of a serial device behind a transparent serial-to-Ethernet converter). Standard requests are answered by
// libmodbus's own server side (modbus_reply over a modbus_mapping_t); Read Device Identification (FC 43 / MEI
// 14), Report Slave ID (FC 17) and the injected faults are answered here. Every client socket gets a thread
// of its own. Either framing can run inside TLS (Modbus/TCP Security, see setTls).

#include <QByteArray>
#include <QString>
#include <QtGlobal>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "tools/sim/sim_tls.h"

namespace modbus_sim {

// What the byte stream of a connection carries.
enum class Framing {
    Tcp,  // MBAP header (transaction id, protocol id, length, unit id), then the PDU
    Rtu,  // unit id, PDU, CRC-16/MODBUS low byte first: no header, no transaction id; unit 0 is broadcast
};

enum class UnknownUnitReply {
    Silence,           // requests for a unit that is not served are never answered
    GatewayException,  // answered with exception 11 (gateway target device failed to respond)
};

enum class FaultKind {
    Exception,           // answer with Modbus exception `exceptionCode`
    Delay,               // answer normally after `delayMs`
    Silence,             // never answer
    CloseAfter,          // close the client socket after `afterRequests` requests (this one unanswered)
    Reset,               // send half of the answer, then reset the connection (RST)
    ByteByByte,          // send the answer one byte at a time, `delayMs` apart
    WrongTransactionId,  // answer with transaction id + 1
    WrongLength,         // answer with MBAP length field `lengthField`
    WrongProtocolId,     // answer with protocol id 1
    TrailingGarbage,     // append `garbage` after the answer
    HeaderOnly,          // answer with only the 7-byte MBAP header (length 1)
    BusyEvery,           // every `everyRequests`th matching request: exception 6 (server device busy)
    BadCrc,              // RTU: answer with the CRC's last byte inverted (Modbus TCP has no CRC: unchanged)
    GarbageBefore,       // send `garbage` before the answer (a converter's heartbeat or registration packet)
    Split,               // send the answer in chunks of `chunkBytes` bytes, `delayMs` apart
    OtherUnitFirst,      // first an answer to the same request from unit (unit + 1) % 248, then the answer
};

// A fault applies to a request when every given selector matches (-1 = any). `address` matches when the
// request's address range covers it (single writes cover their one address; requests without an address never
// match an address selector). The first matching rule in the order added decides. Faults apply only to served
// units. Exception and Silence leave the tables untouched (a write is not carried out); the other kinds carry
// the request out and then alter or hold back the answer. CloseAfter counts per connection: the first
// `afterRequests` matching requests are answered (later rules still apply to them), the next one closes it.
// BusyEvery counts alike, but over the whole simulator (every connection): each `everyRequests`th matching
// request that reaches the rule is answered with exception 6 and not carried out; the others pass on to the
// later rules. Values of `everyRequests` below 1 act as 1.
struct FaultRule {
    FaultKind kind = FaultKind::Exception;
    int unit = -1;
    int function = -1;
    int address = -1;
    int exceptionCode = 1;
    int delayMs = 0;
    int afterRequests = 0;
    int lengthField = 0;
    int everyRequests = 1;
    int chunkBytes = 3;  // values below 1 act as 1
    // Neither a Modbus TCP header nor an RTU frame: unit 0xDE would need function 0xAD, which no answer has.
    QByteArray garbage = QByteArray::fromHex("deadbeef");
};

struct RequestRecord {
    int unit = 0;
    int function = 0;  // -1 for a frame without a PDU
    int address = -1;  // start address of requests that have one (FC 1-6, 15, 16, 22, 23 read part), else -1
    int count = -1;    // quantity of requests that have one (FC 1-4, 15, 16, 23 read part), else -1
    QByteArray pdu;    // the whole request PDU, function code first
    // Steady-clock times in microseconds since the simulator was created or last started: when the whole
    // request had arrived, and when the answer (its last byte, for byte_by_byte) was handed to the socket,
    // which is before the client can read it (-1 when no whole answer was sent: silence, reset, close).
    qint64 receivedUs = 0;
    qint64 answeredUs = -1;
    int connection = 0;     // 1-based, in the order the served connections were accepted
    int transactionId = 0;  // from the request's MBAP header; 0 in RTU framing
    bool dropped = false;   // arrived within the minimum request gap, so never looked at nor answered
    // Modbus/TCP Security: whether the connection is TLS, whether its handshake resumed a session, the role
    // its client certificate carries (empty: none), and why that role may not use this request's function
    // (empty when it may; such a request is answered with exception 1 and not carried out).
    bool tls = false;
    bool tlsResumed = false;
    QString role;
    QString refusal;
};

struct DeviceIdentification {
    std::map<int, QByteArray> objects;  // object id (0x00.. and extended ids) -> value bytes
    int objectsPerResponse = 0;  // 0: as many as fit in one response; otherwise paging with more-follows
    bool enabled = true;         // false: FC 43 is answered with exception 1 (illegal function)
    int conformityLevel = 0;     // 0: derived from the objects present (0x81, 0x82 or 0x83)
};

// The largest plant-network settings the map file and the command line accept: far more connections than a
// gateway offers (it stays below the open-files limit), and waits far beyond any client timeout worth
// testing.
constexpr int kMaxConnectionLimit = 1024;
constexpr int kMaxSettingMs = 60000;
// RTU framing: a frame whose first bytes have come but whose rest does not follow within this time is given
// up on (its first byte dropped), the way a serial device ends a frame at a silence on the line. Far above
// the gaps inside one request sent over loopback or through a converter's packing interval.
constexpr int kRtuFrameGapMs = 250;

class Session;

class Simulator {
public:
    Simulator();
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    // Listens on address:port (port 0 picks a free one). False with a reason when it cannot.
    bool start(const QString& address = QStringLiteral("127.0.0.1"), uint16_t port = 0,
               QString* error = nullptr);
    void stop();
    bool running() const;
    uint16_t port() const;
    QString address() const;

    // The framing of every connection (default Tcp). Set it before start(); connections already open keep the
    // framing they were accepted with.
    void setFraming(Framing framing);
    Framing framing() const;

    // Modbus/TCP Security (see sim_tls.h). Set it before start(); connections already open keep what they
    // were accepted with. start() fails with a reason when the files cannot be loaded.
    void setTls(const TlsServerSettings& settings);
    // Serve the certificate kit in `dir` with `fault`: at start() the kit is made there when it is missing
    // (for the listen address) and its files chosen as tlsServerSettingsForKit does. An empty `dir` turns
    // TLS off.
    void setTlsKit(const QString& dir, TlsFault fault = TlsFault::None);
    // The settings served (after start(), those chosen from a kit), and whether start() made the kit.
    TlsServerSettings tls() const;
    QString tlsKitDirectory() const;
    bool tlsKitCreated() const;
    // Handshakes completed (resumed ones among them) and failed since the simulator was created, with the
    // failures' reasons in order (OpenSSL's reason text, "handshake timed out" or "connection closed").
    int tlsHandshakes() const;
    int tlsResumedHandshakes() const;
    int tlsFailedHandshakes() const;
    std::vector<QString> tlsHandshakeErrors() const;

    // Unit ids served; empty set (the default) serves every unit id.
    void setUnits(const std::set<int>& units);
    void setUnknownUnitReply(UnknownUnitReply reply);
    // Units that do not answer although the simulator does (a dead device behind a live gateway): a request
    // for one gets `reply`, whatever setUnits says, and no fault applies to it. An empty set revives them.
    void setDeadUnits(const std::set<int>& units, UnknownUnitReply reply = UnknownUnitReply::Silence);
    std::set<int> deadUnits() const;
    UnknownUnitReply deadUnitReply() const;

    // Plant-network behaviour; 0 turns each off (the default).
    // At most `limit` open connections: one accepted while `limit` are open is closed at once (FIN) without
    // being served. A connection counts as open until its session notices its close.
    void setConnectionLimit(int limit);
    // One serial line behind a TCP gateway: the requests of all connections are served one at a time, each
    // holding the line `msPerRequest` before its answer (or its silence) goes out. Dropped requests (see
    // below) never reach the line.
    void setSerialLine(int msPerRequest);
    // A device that needs a pause: a request arriving less than `ms` after the last answer sent on its
    // connection (or after the connection was accepted) is dropped: logged and counted, never answered.
    void setMinimumRequestGap(int ms);

    // Register tables, shared by every served unit that has no tables of its own (see below). Each table
    // holds 65536 entries, all 0 at start.
    void setHoldingRegisters(int address, const std::vector<uint16_t>& values);
    void setInputRegisters(int address, const std::vector<uint16_t>& values);
    void setCoils(int address, const std::vector<uint8_t>& values);
    void setDiscreteInputs(int address, const std::vector<uint8_t>& values);
    std::vector<uint16_t> holdingRegisters(int address, int count) const;
    std::vector<uint16_t> inputRegisters(int address, int count) const;
    std::vector<uint8_t> coils(int address, int count) const;
    std::vector<uint8_t> discreteInputs(int address, int count) const;

    // A unit's own tables: the first call of any of these for a unit gives it four tables of its own (all 0
    // at that moment), used by every request for that unit from then on (reads, writes, FC 22, FC 23). Units
    // without tables of their own keep using the shared ones. Unit ids outside 0-255 (no request carries
    // them) get no tables: their setters do nothing and their getters read the shared tables.
    void setHoldingRegisters(int unit, int address, const std::vector<uint16_t>& values);
    void setInputRegisters(int unit, int address, const std::vector<uint16_t>& values);
    void setCoils(int unit, int address, const std::vector<uint8_t>& values);
    void setDiscreteInputs(int unit, int address, const std::vector<uint8_t>& values);
    // The unit's own tables, or the shared ones.
    std::vector<uint16_t> holdingRegisters(int unit, int address, int count) const;
    std::vector<uint16_t> inputRegisters(int unit, int address, int count) const;
    std::vector<uint8_t> coils(int unit, int address, int count) const;
    std::vector<uint8_t> discreteInputs(int unit, int address, int count) const;

    // JSON map file (format in the README); false with a reason when it cannot be read.
    bool loadMapFile(const QString& path, QString* error);
    bool loadMapJson(const QByteArray& json, QString* error);

    // Identification. Without a Report Slave ID payload, FC 17 is answered with exception 1.
    void setDeviceIdentification(const DeviceIdentification& identification);
    void setReportSlaveId(const QByteArray& payload);
    void clearReportSlaveId();

    void addFault(const FaultRule& rule);
    void clearFaults();

    // What the simulator received, for assertions. Every request frame is counted and logged, also those for
    // units not served and those a fault answers. clearRequestLog also zeroes the request counts (not the
    // connection counters). A connection counts as closed as soon as its session notices the close.
    int requestCount(int function) const;
    int totalRequests() const;
    std::vector<RequestRecord> requestLog() const;
    void clearRequestLog();
    // RTU framing: bytes the reader dropped while looking for a request frame (frames whose CRC fails, bytes
    // that start no request, the first byte of a frame left unfinished for kRtuFrameGapMs). These frames are
    // neither logged nor answered. clearRequestLog zeroes this count too.
    int discardedBytes() const;
    // acceptedConnections counts the served connections only; those closed at once by the connection limit
    // count as rejectedConnections instead (and never as open or closed).
    int acceptedConnections() const;
    int rejectedConnections() const;
    int openConnections() const;
    int closedConnections() const;

private:
    friend class Session;
    // Chooses the TLS settings (from the kit, when one is set) and builds the server context.
    bool startTls(const QString& address, QString* error);
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace modbus_sim
