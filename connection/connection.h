#pragma once
// One client connection to a Modbus server over TCP, in Modbus TCP frames or in RTU frames for serial devices
// behind a transparent converter. libmodbus keeps the context (server id, timeouts, error texts); the socket
// is connected and every request exchanged here with poll(), so that a host holding more than FD_SETSIZE
// descriptors never reaches libmodbus's select(). Errors come back as -1 plus an errno value or a libmodbus
// code (MODBUS_ENOBASE and up) in an int* out-parameter; errToStr turns a code into text.
//
// The work is shared out: connection.cpp (life cycle, addressing, errors), connection_requests.cpp (the
// reads and writes), connection_exchange.cpp (one request and its answer in either framing),
// connection_pipeline.cpp (reads in flight).

#include <QByteArray>
#include <QString>
#include <chrono>
#include <memory>
#include <vector>

#include "connection/register_type.h"
#include "connection/rtu_framing.h"
#include "connection/tls_settings.h"
#include "connection/tls_stream.h"
#include "connection/transport.h"

struct _modbus;
typedef struct _modbus modbus_t;
class PluginInterface;

class Connection {
public:
    struct Network {
        QString host;
        int port = 502;
        int serverId = 1;
        int connectTimeoutMs = kDefaultTimeoutMs;
        int responseTimeoutMs = kDefaultTimeoutMs;
        int requestPauseMs = 0;
        Transport transport = Transport::ModbusTcp;
        TlsSettings tls;  // with ModbusTcpSecurity
    };
    // The serial variant is an empty shell: nothing builds a serial context.
    struct Serial {};

    // The most registers one FC 3 / FC 4 request may ask for (Modbus application protocol, 6.3 and 6.4).
    static constexpr unsigned char max_read_registers = 125;
    // libmodbus's own default response time-out, also used for connecting unless a device sets its own.
    static constexpr int kDefaultTimeoutMs = 500;
    // Connect failures of Modbus/TCP Security, below libmodbus's codes and above any errno: the handshake or
    // the device's certificate failed (errToStr gives "TLS: " and OpenSSL's reason), or the gateway's own
    // certificates could not be read (errToStr names the setting and the file).
    static constexpr int kTlsFailure = 100000;
    static constexpr int kTlsSetupFailure = 100001;

    Connection() = default;
    Connection(Network const& net, PluginInterface* plugin, int* err);
    Connection(Serial, PluginInterface& plugin, int* err, int, int);
    Connection(Connection&& other) noexcept;
    Connection& operator=(Connection&& other) noexcept;
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;
    ~Connection();

    // True while this object owns a libmodbus context.
    explicit operator bool() const { return ctx != nullptr; }

    [[nodiscard]] int connect(int slave, int* err);
    void disconnect();
    bool isConnected() const { return connected; }
    void setConnected(bool value) { connected = value; }
    int slave() const { return slaveId; }
    Transport framing() const { return transport; }
    // Addresses the following requests to `unit`: units behind one gateway share a connection. False, with
    // the unit addressed before kept, for an id that cannot be addressed (on Modbus TCP 248-254, above 255
    // and negative, as libmodbus refuses them; over RTU also 255): the caller must then send nothing, or the
    // request would reach the previous unit.
    [[nodiscard]] bool setSlave(int unit);
    // Waits this long before a request after an answer or a new connection: some devices and gateways drop
    // requests that come sooner.
    void setRequestPause(int ms) { requestPauseMs = ms; }
    void flush();
    // Between batches on a connection kept open: the TLS buffers go until the next request.
    void releaseIdleBuffers();

    bool getResponseTimeout(unsigned int* sec, unsigned int* usec) const;
    bool setResponseTimeout(unsigned int sec, unsigned int usec);
    bool setResponseTimeoutMs(int ms);

    int readBits(RegisterType type, int addr, int count, unsigned char* dest, int* err) const;
    int readWords(RegisterType type, int addr, int count, unsigned short* dest, int* err) const;
    int writeBit(int addr, unsigned char value, int* err, bool multiple) const;
    int writeWord(int addr, unsigned short value, int* err) const;
    int writeString(int addr, int count, unsigned short const* words, int* err) const;
    // FC 22: the device sets the register to (current AND andMask) OR (orMask AND NOT andMask), so bits
    // outside the masks keep whatever another master wrote meanwhile. 1 when written.
    int maskWriteRegister(int addr, unsigned short andMask, unsigned short orMask, int* err) const;

    // One read of a pipelined batch: what to read and where its values go (words for registers, bits for
    // coils, room for `count` of them), and what came of it.
    struct PipelinedRead {
        RegisterType table = HoldingRegister;
        int address = 0;
        int count = 0;
        unsigned short* words = nullptr;
        unsigned char* bits = nullptr;
        int result = -1;        // the count read, or -1
        int error = 0;          // the error code when result is -1 and the read was sent or refused locally
        bool sent = false;      // the request went out
        bool answered = false;  // the device answered it (with values or an exception)
        double responseMs = 0;  // from sending to the answer
    };
    enum class Pipeline {
        Kept,     // the device answered every request in flight, in order
        Refused,  // an answer missing past the time-out, an unknown transaction id or answers out of order
        Broken,   // the connection failed
    };
    // Sends up to `window` of `reads` before reading their answers, matched by transaction id. Reads that got
    // no answer keep result -1 (with the error when they were sent).
    Pipeline readPipelined(std::vector<PipelinedRead>& reads, int window);

    // Sends one request PDU (function code first) and returns the reply PDU's length, or -1.
    int exchangePdu(QByteArray const& request, QByteArray* response, int* err);

    QString errToStr(int code) const;
    // What the TLS handshake of this connection established; null without one.
    TlsHandshake const* tlsHandshake() const { return handshake ? handshake.get() : nullptr; }
    // Days until the gateway's own certificate expires; INT_MIN without one.
    int tlsClientCertificateDaysLeft() const { return clientCertificateDaysLeft; }
    bool setDeviceError(int code) const;
    int getDeviceError() const { return deviceError; }

private:
    // Which answer bytes a request waits for: an answer sized by its function code, as libmodbus sizes a
    // confirmation, or (Modbus TCP only) whatever the MBAP length field says, for the raw PDUs of identity.
    enum class AnswerSize { ByFunction, ByFrame };
    // The road of every request but those in flight: frames `pdu` for the addressed unit, waits for the
    // request pause, sends it and returns the answer's PDU length with the PDU (function code first) in
    // `reply` (room for kMaxReplyPdu bytes), or -1 with *err set. `byteCount` is what a read's answer must
    // carry (-1: not a read). A broadcast write over RTU has no answer: 0.
    int exchange(const unsigned char* pdu, int length, int byteCount, AnswerSize size, unsigned char* reply,
                 int* err) const;
    int exchangeMbap(const unsigned char* pdu, int length, AnswerSize size, unsigned char* reply,
                     int* err) const;
    int exchangeRtu(const unsigned char* pdu, int length, int byteCount, unsigned char* reply,
                    int* err) const;
    // Numbers `pdu` with the next transaction id and sends it in an MBAP frame.
    int sendMbap(const unsigned char* pdu, int length, int* err) const;
    int receiveMbapFrame(unsigned char* frame, int capacity, std::chrono::steady_clock::time_point deadline,
                         AnswerSize size, int* err) const;
    // Receives the answer to the request numbered `sentId`, dropping answers to earlier requests that came
    // late.
    int receiveMbapAnswer(unsigned short sentId, unsigned char* frame, int capacity, AnswerSize size,
                          int* err) const;
    // Reads until the answer of `unit` to `function` is found among whatever else the stream carries.
    int receiveRtuAnswer(int function, int byteCount, unsigned char* reply, int* err) const;
    // Reads until an answer as `expected` is found among whatever else the stream carries, or `deadline`
    // passes: the PDU's length with the PDU in `reply` (when given), or -1 (EMBBADCRC when the answer came
    // with a CRC that fails). *skipped counts the bytes passed over.
    int searchRtuAnswer(rtu_framing::Expectation const& expected,
                        std::chrono::steady_clock::time_point deadline, unsigned char* reply, int* skipped,
                        int* err) const;
    // After a time-out, a request that its late answer could pass for waits for that answer to come and go.
    void awaitLateRtuAnswer(int function) const;
    void waitForRequestPause() const;
    std::chrono::steady_clock::time_point responseDeadline() const;
    // How long an answer that has begun may wait for each further byte; 0: no such limit.
    std::chrono::microseconds byteTimeout() const;
    int socket() const;
    // Completes the TLS handshake on the connected `socket` before `deadline`; false with *err set.
    bool startTls(int socket, std::chrono::steady_clock::time_point deadline, int* err);
    // Sends a standard request PDU and checks the reply the way libmodbus checks a confirmation; returns the
    // reply PDU's length with the reply in `reply`, or -1 with *err set.
    int transact(const unsigned char* pdu, int length, int expectedReplyPdu, unsigned char* reply,
                 int* err) const;
    // transact for the requests of five bytes: function code and two words (address and quantity or value).
    // True when the reply came; false with errno set.
    bool transactFixed(int function, int first, int second, int expectedReplyPdu, unsigned char* reply) const;
    // The end of every request: `error` (errno as the request failed) into *err and the device error, with
    // `failureLog` (its %1 the error's text) logged when given; `result` passes through.
    int settle(int result, int error, int* err, const char* failureLog = nullptr) const;
    // Reads of a batch one at a time: RTU has no way to tell answers in flight apart.
    Pipeline readOneByOne(std::vector<PipelinedRead>& reads);

    // Room for any answer PDU, and for any request PDU exchangePdu accepts.
    static constexpr int kMaxReplyPdu = 260;

    // After an RTU request timed out: its unit and function, and until when its answer may still come.
    struct LateAnswer {
        int unit = -1;
        int function = -1;
        std::chrono::steady_clock::time_point until{};
    };

    QByteArray host;
    QByteArray service;
    mutable unsigned short transactionId = 0;
    int connectTimeoutMs = kDefaultTimeoutMs;
    int requestPauseMs = 0;
    // When the last answer came or the connection was made: the request pause counts from there.
    mutable std::chrono::steady_clock::time_point lastExchange{};
    Transport transport = Transport::ModbusTcp;
    mutable LateAnswer lateAnswer;
    TlsSettings tls;
    // The bytes of the connection: the socket itself, or TLS over it. Null while not connected.
    std::unique_ptr<ByteStream> stream;
    std::unique_ptr<TlsHandshake> handshake;
    int clientCertificateDaysLeft = 0;
    // Why the last TLS connect failed, for errToStr.
    QString tlsFailure;

    mutable int deviceError = 0;
    bool connected = false;
    int slaveId = 1;
    modbus_t* ctx = nullptr;
    PluginInterface* plugin = nullptr;
};
