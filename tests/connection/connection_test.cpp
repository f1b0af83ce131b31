// Connection against the device simulator over loopback.

#include "connection/connection.h"

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <modbus.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "common/scripted_server.h"
#include "host/plugin_interface.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

namespace {

using modbus_sim::FaultKind;
using modbus_sim::FaultRule;
using modbus_sim::Simulator;
using zelt_standin::Host;
using zelt_standin::LogLevel;

// libmodbus error codes (MODBUS_ENOBASE + n) as the connection reports them.
constexpr int kIllegalDataAddress = 112345680;
constexpr int kServerBusy = 112345684;
constexpr int kBadData = 112345691;
constexpr int kTooManyData = 112345694;
// Hang guard for waits on the simulator's counters.
constexpr int kWaitMs = 5000;
// Short response timeout for tests that expect no answer.
constexpr unsigned int kShortTimeoutUs = 200000;

bool waitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

FaultRule exceptionRule(int function, int code) {
    FaultRule rule;
    rule.kind = FaultKind::Exception;
    rule.function = function;
    rule.exceptionCode = code;
    return rule;
}

class ConnectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        Host::instance().reset();
        simulator.setHoldingRegisters(0, {0x1111, 0x2222, 0x3333});
        simulator.setInputRegisters(0, {0xA1, 0xA2});
        simulator.setCoils(0, {1, 0, 1});
        simulator.setDiscreteInputs(0, {0, 1});
        ASSERT_TRUE(simulator.start());
    }

    Connection::Network network(int serverId = 1) const {
        Connection::Network net;
        net.host = QStringLiteral("127.0.0.1");
        net.port = simulator.port();
        net.serverId = serverId;
        return net;
    }

    std::unique_ptr<Connection> connect(int serverId = 1) {
        int err = 0;
        auto connection = std::make_unique<Connection>(network(serverId), &host, &err);
        EXPECT_TRUE(connection->isConnected()) << err;
        return connection;
    }

    // A port nobody listens on: one the system just handed out and took back.
    static uint16_t closedPort() {
        Simulator probe;
        probe.start();
        const uint16_t port = probe.port();
        probe.stop();
        return port;
    }

    PluginInterface host;
    Simulator simulator;
};

TEST_F(ConnectionTest, ReadsEveryTable) {
    auto connection = connect();
    int err = 0;
    unsigned char bits[3] = {};
    EXPECT_EQ(connection->readBits(OutputCoil, 0, 3, bits, &err), 3);
    EXPECT_EQ(std::vector<unsigned char>(bits, bits + 3), std::vector<unsigned char>({1, 0, 1}));
    EXPECT_EQ(connection->readBits(InputCoil, 0, 2, bits, &err), 2);
    EXPECT_EQ(std::vector<unsigned char>(bits, bits + 2), std::vector<unsigned char>({0, 1}));
    unsigned short words[3] = {};
    EXPECT_EQ(connection->readWords(HoldingRegister, 0, 3, words, &err), 3);
    EXPECT_EQ(std::vector<unsigned short>(words, words + 3),
              std::vector<unsigned short>({0x1111, 0x2222, 0x3333}));
    EXPECT_EQ(connection->readWords(InputRegister, 0, 2, words, &err), 2);
    EXPECT_EQ(std::vector<unsigned short>(words, words + 2), std::vector<unsigned short>({0xA1, 0xA2}));
    EXPECT_EQ(simulator.requestCount(1), 1);
    EXPECT_EQ(simulator.requestCount(2), 1);
    EXPECT_EQ(simulator.requestCount(3), 1);
    EXPECT_EQ(simulator.requestCount(4), 1);
    EXPECT_EQ(connection->getDeviceError(), 0);
}

TEST_F(ConnectionTest, NegativeUnitIdConnectsAsUnitOne) {
    auto connection = connect(-5);
    EXPECT_EQ(connection->slave(), 1);
    int err = 0;
    unsigned short word = 0;
    ASSERT_EQ(connection->readWords(HoldingRegister, 0, 1, &word, &err), 1);
    ASSERT_EQ(simulator.requestLog().size(), 1u);
    EXPECT_EQ(simulator.requestLog().at(0).unit, 1);
}

TEST_F(ConnectionTest, UnitZeroIsPassedThrough) {
    auto connection = connect(0);
    EXPECT_EQ(connection->slave(), 0);
    int err = 0;
    unsigned short word = 0;
    ASSERT_EQ(connection->readWords(HoldingRegister, 1, 1, &word, &err), 1);
    EXPECT_EQ(word, 0x2222);
    ASSERT_EQ(simulator.requestLog().size(), 1u);
    EXPECT_EQ(simulator.requestLog().at(0).unit, 0);
}

TEST_F(ConnectionTest, FailedConnectLogsAndReportsErrno) {
    for (int serverId : {-3, 1}) {
        SCOPED_TRACE(serverId);
        Host::instance().reset();
        Connection::Network net = network(serverId);
        net.port = closedPort();
        int err = 0;
        Connection connection(net, &host, &err);
        EXPECT_FALSE(connection.isConnected());
        EXPECT_FALSE(static_cast<bool>(connection));  // the failed connect gave up the context
        EXPECT_EQ(err, ECONNREFUSED);
        EXPECT_EQ(Host::instance().logTexts(LogLevel::Debug),
                  QStringList({QStringLiteral("Could not connect: Connection refused")}));
    }
}

TEST_F(ConnectionTest, UnitIdLibmodbusRefusesIsLoggedAsGivenAndGivesUpTheContext) {
    // libmodbus accepts unit ids 0 to 247 and 255 on TCP.
    int err = 0;
    Connection connection(network(300), &host, &err);
    EXPECT_FALSE(connection.isConnected());
    EXPECT_FALSE(static_cast<bool>(connection));
    EXPECT_EQ(err, EINVAL);
    EXPECT_EQ(Host::instance().logTexts(LogLevel::Debug),
              QStringList({QStringLiteral("Could not set server ID to 300: Invalid argument")}));
    EXPECT_EQ(connection.errToStr(err), QStringLiteral("Invalid argument"));
    EXPECT_EQ(simulator.acceptedConnections(), 0);
}

TEST_F(ConnectionTest, HostNameConnects) {
    Connection::Network net = network();
    net.host = QStringLiteral("localhost");
    int err = 0;
    Connection connection(net, &host, &err);
    ASSERT_TRUE(connection.isConnected()) << err;
    unsigned short word = 0;
    EXPECT_EQ(connection.readWords(HoldingRegister, 2, 1, &word, &err), 1);
    EXPECT_EQ(word, 0x3333);
}

TEST_F(ConnectionTest, ReadBitsRejectsRegisterTypes) {
    auto connection = connect();
    for (RegisterType type : {InputRegister, HoldingRegister}) {
        SCOPED_TRACE(static_cast<int>(type));
        Host::instance().clearLogs();
        unsigned char bits[2] = {};
        int err = 12345;
        errno = ENOENT;
        EXPECT_EQ(connection->readBits(type, 0, 2, bits, &err), -1);
        // The non-bit marker -1 is overwritten by errno, as the caller's error handling expects.
        EXPECT_EQ(err, ENOENT);
        EXPECT_EQ(connection->getDeviceError(), ENOENT);
        EXPECT_EQ(Host::instance().logTexts(LogLevel::Debug),
                  QStringList({QStringLiteral("readBits called with non-bit input type")}));
    }
    EXPECT_EQ(simulator.totalRequests(), 0);
}

TEST_F(ConnectionTest, ReadWordsIgnoresBitTypes) {
    auto connection = connect();
    for (RegisterType type : {OutputCoil, InputCoil, Auto}) {
        SCOPED_TRACE(static_cast<int>(type));
        connection->setDeviceError(ECONNRESET);
        unsigned short words[2] = {7, 7};
        int err = 12345;
        EXPECT_EQ(connection->readWords(type, 0, 2, words, &err), 0);
        EXPECT_EQ(err, 12345);
        EXPECT_EQ(words[0], 7);
        EXPECT_EQ(connection->getDeviceError(), 0);
    }
    EXPECT_EQ(simulator.totalRequests(), 0);
    EXPECT_TRUE(Host::instance().logLines().isEmpty());
}

TEST_F(ConnectionTest, ItemExceptionKeepsDeviceErrorAndDeviceExceptionReplacesIt) {
    auto connection = connect();
    connection->setDeviceError(ECONNRESET);
    simulator.addFault(exceptionRule(3, 2));
    unsigned short word = 0;
    int err = 0;
    EXPECT_EQ(connection->readWords(HoldingRegister, 0, 1, &word, &err), -1);
    EXPECT_EQ(err, kIllegalDataAddress);
    EXPECT_EQ(connection->getDeviceError(), ECONNRESET);

    simulator.clearFaults();
    simulator.addFault(exceptionRule(3, 6));
    EXPECT_EQ(connection->readWords(HoldingRegister, 0, 1, &word, &err), -1);
    EXPECT_EQ(err, kServerBusy);
    EXPECT_EQ(connection->getDeviceError(), kServerBusy);
    EXPECT_TRUE(connection->isConnected());
}

TEST_F(ConnectionTest, DeviceErrorKeepsOnlyDeviceLevelCodes) {
    struct Row {
        int code;
        bool stored;
    };
    const Row rows[] = {
        {0, true},          {ETIMEDOUT, true},  {ECONNRESET, true}, {112345677, true},  {112345679, false},
        {112345680, false}, {112345681, false}, {112345682, true},  {112345683, false}, {112345684, true},
        {112345686, false}, {112345688, true},  {112345689, true},  {kBadData, false},  {kTooManyData, false},
    };
    auto connection = connect();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.code);
        connection->setDeviceError(ENOENT);
        EXPECT_EQ(connection->setDeviceError(row.code), row.stored);
        EXPECT_EQ(connection->getDeviceError(), row.stored ? row.code : ENOENT);
    }
}

TEST_F(ConnectionTest, ErrorTexts) {
    auto connection = connect();
    struct Row {
        int code;
        const char* text;
    };
    const Row rows[] = {
        {115, "Timeout"},
        {-1, "Non-bit input type. Input or Output Coil required."},
        {ECONNRESET, "Connection reset by peer"},
        {ETIMEDOUT, "Connection timed out"},
        {kIllegalDataAddress, "Illegal data address"},
        {kServerBusy, "Slave device or server is busy"},
        {kBadData, "Invalid data"},
        {kTooManyData, "Too many data"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.code);
        EXPECT_EQ(connection->errToStr(row.code).toStdString(), row.text);
    }
}

TEST_F(ConnectionTest, WritesLogAndReachTheDevice) {
    auto connection = connect();
    int err = 0;
    EXPECT_EQ(connection->writeBit(5, 1, &err, false), 1);
    EXPECT_EQ(connection->writeBit(6, 1, &err, true), 1);
    EXPECT_EQ(connection->writeWord(10, 0xBEEF, &err), 1);
    const unsigned short words[] = {0x4142, 0x4300};
    EXPECT_EQ(connection->writeString(20, 2, words, &err), 2);
    EXPECT_EQ(simulator.coils(5, 2), std::vector<uint8_t>({1, 1}));
    EXPECT_EQ(simulator.holdingRegisters(10, 1), std::vector<uint16_t>({0xBEEF}));
    EXPECT_EQ(simulator.holdingRegisters(20, 2), std::vector<uint16_t>({0x4142, 0x4300}));
    EXPECT_EQ(simulator.requestCount(5), 1);
    EXPECT_EQ(simulator.requestCount(15), 1);
    EXPECT_EQ(simulator.requestCount(6), 1);
    EXPECT_EQ(simulator.requestCount(16), 1);
    EXPECT_EQ(Host::instance().logTexts(LogLevel::Debug),
              QStringList({QStringLiteral("Writing bit. Register: 5 Data: 0x1"),
                           QStringLiteral("Writing bit. Register: 6 Data: 0x1"),
                           QStringLiteral("Writing word. Register: 10 Data: 0xbeef Res: 1"),
                           QStringLiteral("Writing string. Register: 20")}));
    EXPECT_TRUE(Host::instance().logTexts(LogLevel::Error).isEmpty());
    EXPECT_EQ(connection->getDeviceError(), 0);
}

TEST_F(ConnectionTest, FailedWritesLogAtErrorLevel) {
    auto connection = connect();
    simulator.addFault(exceptionRule(5, 2));
    simulator.addFault(exceptionRule(6, 2));
    simulator.addFault(exceptionRule(16, 4));
    int err = 0;
    EXPECT_EQ(connection->writeBit(3, 0, &err, false), -1);
    EXPECT_EQ(err, kIllegalDataAddress);
    EXPECT_EQ(connection->writeWord(4, 0x0A, &err), -1);
    EXPECT_EQ(err, kIllegalDataAddress);
    EXPECT_EQ(connection->getDeviceError(), 0);
    const unsigned short words[] = {1, 2};
    EXPECT_EQ(connection->writeString(7, 2, words, &err), -1);
    EXPECT_EQ(err, 112345682);
    EXPECT_EQ(connection->getDeviceError(), 112345682);
    EXPECT_EQ(Host::instance().logTexts(LogLevel::Debug),
              QStringList({QStringLiteral("Writing bit. Register: 3 Data: 0x0"),
                           QStringLiteral("Writing word. Register: 4 Data: 0xa Res: -1"),
                           QStringLiteral("Writing string. Register: 7")}));
    EXPECT_EQ(Host::instance().logTexts(LogLevel::Error),
              QStringList({QStringLiteral("Could not write bit: Illegal data address"),
                           QStringLiteral("Could not write word: Illegal data address"),
                           QStringLiteral("Could not write words: Slave device or server failure")}));
    EXPECT_EQ(simulator.holdingRegisters(4, 1), std::vector<uint16_t>({0}));
}

TEST_F(ConnectionTest, ResponseTimeouts) {
    auto connection = connect();
    unsigned int sec = 9;
    unsigned int usec = 9;
    ASSERT_TRUE(connection->getResponseTimeout(&sec, &usec));
    EXPECT_EQ(sec, 0u);  // libmodbus's default of 0.5 s stays in force
    EXPECT_EQ(usec, 500000u);
    EXPECT_TRUE(connection->setResponseTimeout(2, 250000));
    ASSERT_TRUE(connection->getResponseTimeout(&sec, &usec));
    EXPECT_EQ(sec, 2u);
    EXPECT_EQ(usec, 250000u);
    EXPECT_FALSE(connection->setResponseTimeout(0, 1000000));

    int err = 0;
    Connection shell(Connection::Serial{}, host, &err, 0, 0);
    EXPECT_FALSE(shell.getResponseTimeout(&sec, &usec));
    EXPECT_FALSE(shell.setResponseTimeout(1, 0));
    EXPECT_FALSE(shell.isConnected());
    EXPECT_EQ(shell.slave(), 1);
}

TEST_F(ConnectionTest, SilentDeviceTimesOut) {
    auto connection = connect();
    ASSERT_TRUE(connection->setResponseTimeout(0, kShortTimeoutUs));
    FaultRule silence;
    silence.kind = FaultKind::Silence;
    simulator.addFault(silence);
    unsigned short word = 0;
    int err = 0;
    EXPECT_EQ(connection->readWords(HoldingRegister, 0, 1, &word, &err), -1);
    EXPECT_EQ(err, ETIMEDOUT);
    EXPECT_EQ(connection->getDeviceError(), ETIMEDOUT);
    EXPECT_EQ(simulator.requestCount(3), 1);
    QByteArray reply;
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("0300000001"), &reply, &err), -1);
    EXPECT_EQ(err, ETIMEDOUT);
}

TEST_F(ConnectionTest, ExchangePduReturnsTheReplyPdu) {
    auto connection = connect(3);
    QByteArray reply;
    int err = 0;
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("0300000002"), &reply, &err), 6);
    EXPECT_EQ(reply.toHex(), QByteArray("030411112222"));
    simulator.addFault(exceptionRule(3, 2));
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("0300000002"), &reply, &err), 2);
    EXPECT_EQ(reply.toHex(), QByteArray("8302"));
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("0300000002"), nullptr, nullptr), 2);
    ASSERT_EQ(simulator.requestLog().size(), 3u);
    EXPECT_EQ(simulator.requestLog().at(0).unit, 3);
    EXPECT_EQ(connection->getDeviceError(), 0);
}

TEST_F(ConnectionTest, ExchangePduRejectsEmptyRequestsAndMissingContexts) {
    auto connection = connect();
    int err = 0;
    EXPECT_EQ(connection->exchangePdu(QByteArray(), nullptr, &err), -1);
    EXPECT_EQ(err, EINVAL);
    Connection shell(Connection::Serial{}, host, &err, 0, 0);
    err = 0;
    EXPECT_EQ(shell.exchangePdu(QByteArray::fromHex("11"), nullptr, &err), -1);
    EXPECT_EQ(err, EINVAL);
    EXPECT_EQ(simulator.totalRequests(), 0);
}

TEST_F(ConnectionTest, ExchangePduSendsTheLargestRequest) {
    auto connection = connect();
    ASSERT_TRUE(connection->setResponseTimeout(0, kShortTimeoutUs));
    // Unit id plus request fill the largest frame libmodbus handles.
    const QByteArray largest(MODBUS_TCP_MAX_ADU_LENGTH - 1, '\x41');
    int err = 0;
    connection->exchangePdu(largest, nullptr, &err);
    ASSERT_TRUE(waitFor([&] { return simulator.totalRequests() == 1; })) << "err " << err;
    EXPECT_EQ(simulator.requestLog().at(0).pdu, largest);
}

TEST_F(ConnectionTest, ExchangePduRefusesAnOversizedRequest) {
    auto connection = connect();
    const QByteArray tooLarge(MODBUS_TCP_MAX_ADU_LENGTH, '\x41');
    int err = 0;
    EXPECT_EQ(connection->exchangePdu(tooLarge, nullptr, &err), -1);
    EXPECT_EQ(err, kTooManyData);
    EXPECT_TRUE(connection->isConnected());
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("0300000001"), nullptr, &err), 4);
    ASSERT_EQ(simulator.requestLog().size(), 1u);
    EXPECT_EQ(simulator.requestLog().at(0).pdu.toHex(), QByteArray("0300000001"));
}

TEST_F(ConnectionTest, ExchangePduOnAResetConnection) {
    auto connection = connect();
    FaultRule reset;
    reset.kind = FaultKind::Reset;
    simulator.addFault(reset);
    int err = 0;
    QByteArray reply = "unchanged";
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("0300000001"), &reply, &err), -1);
    EXPECT_EQ(err, ECONNRESET);
    EXPECT_FALSE(connection->isConnected());
    EXPECT_TRUE(static_cast<bool>(connection));  // the context stays until the cache replaces the object
    EXPECT_EQ(reply, QByteArray("unchanged"));
    // Flushed: no byte of the half answer is taken for the next reply, which fails on the dead socket.
    simulator.clearFaults();
    err = 0;
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("0300000001"), &reply, &err), -1);
    EXPECT_TRUE(err == EPIPE || err == ECONNRESET) << err;
    EXPECT_EQ(reply, QByteArray("unchanged"));
}

namespace {

// The descriptor of this process whose local address is `local`; -1 when there is none.
int descriptorBoundTo(const sockaddr_in& local) {
    constexpr int kDescriptorsSearched = 4096;
    for (int fd = 0; fd < kDescriptorsSearched; ++fd) {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
            address.sin_family == AF_INET && address.sin_port == local.sin_port &&
            address.sin_addr.s_addr == local.sin_addr.s_addr)
            return fd;
    }
    return -1;
}

}  // namespace

TEST_F(ConnectionTest, ExchangePduOnAConnectionResetBeforeItFlushesWhatHadArrived) {
    // A bare listener: the test accepts, sends one stray byte and resets the connection itself.
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(listener, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    Connection::Network net = network();
    net.port = ntohs(address.sin_port);
    int err = 0;
    Connection connection(net, &host, &err);
    ASSERT_TRUE(connection.isConnected()) << err;

    sockaddr_in client{};
    length = sizeof client;
    const int served = ::accept4(listener, reinterpret_cast<sockaddr*>(&client), &length, SOCK_CLOEXEC);
    ::close(listener);
    ASSERT_GE(served, 0);
    const int socket = descriptorBoundTo(client);
    ASSERT_GE(socket, 0);
    ASSERT_EQ(::send(served, "\x5a", 1, MSG_NOSIGNAL), 1);
    const linger reset = {1, 0};  // close() sends RST instead of FIN
    ::setsockopt(served, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    ::close(served);
    pollfd closed{socket, POLLIN, 0};
    ASSERT_EQ(::poll(&closed, 1, kWaitMs), 1);
    ASSERT_TRUE(closed.revents & (POLLHUP | POLLERR)) << closed.revents;
    char peeked = 0;
    ASSERT_EQ(::recv(socket, &peeked, 1, MSG_PEEK | MSG_DONTWAIT), 1);
    EXPECT_EQ(peeked, '\x5a');

    QByteArray reply = "unchanged";
    EXPECT_EQ(connection.exchangePdu(QByteArray::fromHex("0300000001"), &reply, &err), -1);
    EXPECT_EQ(err, ECONNRESET);
    EXPECT_FALSE(connection.isConnected());
    EXPECT_TRUE(static_cast<bool>(connection));
    EXPECT_EQ(reply, QByteArray("unchanged"));
    // The stray byte is gone: what is left to read is the end of the stream.
    EXPECT_EQ(::recv(socket, &peeked, 1, MSG_PEEK | MSG_DONTWAIT), 0);
}

TEST_F(ConnectionTest, ExchangePduFlushesWhatIsLeftOfARefusedReply) {
    auto connection = connect();
    // A length field beyond the largest frame: the reply is refused after its header, and the rest of it,
    // already in the socket, must not be read as the start of the next reply.
    FaultRule wrongLength;
    wrongLength.kind = FaultKind::WrongLength;
    wrongLength.lengthField = 255;
    simulator.addFault(wrongLength);
    int err = 0;
    QByteArray reply;
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("0300000002"), &reply, &err), -1);
    EXPECT_EQ(err, kBadData);
    EXPECT_TRUE(connection->isConnected());

    simulator.clearFaults();
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("0300010001"), &reply, &err), 4);
    EXPECT_EQ(reply.toHex(), QByteArray("03022222"));
}

TEST_F(ConnectionTest, ExchangePduHeaderOnlyReplyIsBadData) {
    auto connection = connect();
    FaultRule headerOnly;
    headerOnly.kind = FaultKind::HeaderOnly;
    simulator.addFault(headerOnly);
    int err = 0;
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("0300000001"), nullptr, &err), -1);
    EXPECT_EQ(err, kBadData);
}

TEST_F(ConnectionTest, ExchangePduBadLengthFieldIsBadData) {
    auto connection = connect();
    for (int lengthField : {0, 255}) {
        SCOPED_TRACE(lengthField);
        simulator.clearFaults();
        FaultRule wrongLength;
        wrongLength.kind = FaultKind::WrongLength;
        wrongLength.lengthField = lengthField;
        simulator.addFault(wrongLength);
        int err = 0;
        EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("0300000001"), nullptr, &err), -1);
        EXPECT_EQ(err, kBadData);
    }
}

TEST_F(ConnectionTest, ExchangePduReadsALongIdentificationReplyWhole) {
    modbus_sim::DeviceIdentification identification;
    identification.objects = {{0, "ACME Industrial Automation"}, {1, "X-100-SERIES"}, {2, "v1.2.3-build-45"}};
    simulator.setDeviceIdentification(identification);
    auto connection = connect();
    QByteArray reply;
    int err = 0;
    const int length = connection->exchangePdu(QByteArray::fromHex("2b0e0100"), &reply, &err);
    const QByteArray expected = QByteArray::fromHex("2b0e0181000003") + QByteArray::fromHex("001a") +
                                "ACME Industrial Automation" + QByteArray::fromHex("010c") + "X-100-SERIES" +
                                QByteArray::fromHex("020f") + "v1.2.3-build-45";
    ASSERT_GE(expected.size(), 40);
    EXPECT_EQ(length, expected.size());
    EXPECT_EQ(reply.toHex(), expected.toHex());
    // Nothing of the long reply is left behind to spoil the next exchange.
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("0300000001"), &reply, &err), 4);
    EXPECT_EQ(reply.toHex(), QByteArray("03021111"));
    unsigned short word = 0;
    EXPECT_EQ(connection->readWords(HoldingRegister, 1, 1, &word, &err), 1);
    EXPECT_EQ(word, 0x2222);
}

TEST_F(ConnectionTest, ExchangePduReadsAReplySentByteByByte) {
    FaultRule slow;
    slow.kind = FaultKind::ByteByByte;
    slow.delayMs = 2;
    simulator.addFault(slow);
    simulator.setReportSlaveId(QByteArray::fromHex("01ff4142"));
    auto connection = connect();
    QByteArray reply;
    int err = 0;
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("11"), &reply, &err), 6);
    EXPECT_EQ(reply.toHex(), QByteArray("110401ff4142"));
}

TEST_F(ConnectionTest, MoveIntoAFreshObjectKeepsTheConnectionOpen) {
    auto source = connect();
    ASSERT_TRUE(waitFor([&] { return simulator.openConnections() == 1; }));
    Connection target(std::move(*source));
    EXPECT_TRUE(target.isConnected());
    EXPECT_FALSE(source->isConnected());
    EXPECT_FALSE(static_cast<bool>(*source));
    source.reset();
    unsigned short word = 0;
    int err = 0;
    EXPECT_EQ(target.readWords(HoldingRegister, 0, 1, &word, &err), 1);
    EXPECT_EQ(word, 0x1111);
    EXPECT_EQ(simulator.closedConnections(), 0);
    EXPECT_EQ(simulator.openConnections(), 1);
}

TEST_F(ConnectionTest, MoveAssignmentSwapsWithTheTarget) {
    Simulator other;
    other.setHoldingRegisters(0, {0x9999});
    ASSERT_TRUE(other.start());
    auto source = connect(4);
    int err = 0;
    Connection::Network otherNet = network(7);
    otherNet.port = other.port();
    Connection target(otherNet, &host, &err);
    ASSERT_TRUE(target.isConnected());
    target.setDeviceError(ETIMEDOUT);

    target = std::move(*source);
    EXPECT_EQ(target.slave(), 4);
    EXPECT_EQ(target.getDeviceError(), 0);
    EXPECT_EQ(source->slave(), 7);
    EXPECT_EQ(source->getDeviceError(), ETIMEDOUT);
    EXPECT_TRUE(source->isConnected());
    unsigned short word = 0;
    EXPECT_EQ(source->readWords(HoldingRegister, 0, 1, &word, &err), 1);
    EXPECT_EQ(word, 0x9999);
    EXPECT_EQ(target.readWords(HoldingRegister, 0, 1, &word, &err), 1);
    EXPECT_EQ(word, 0x1111);

    source.reset();  // closes the other simulator's connection, not this one's
    EXPECT_TRUE(waitFor([&] { return other.closedConnections() == 1; }));
    EXPECT_EQ(simulator.closedConnections(), 0);
    EXPECT_EQ(target.readWords(HoldingRegister, 2, 1, &word, &err), 1);
    EXPECT_EQ(word, 0x3333);
}

TEST_F(ConnectionTest, DisconnectClosesTheSocket) {
    auto connection = connect();
    ASSERT_TRUE(waitFor([&] { return simulator.openConnections() == 1; }));
    connection->disconnect();
    EXPECT_FALSE(connection->isConnected());
    EXPECT_FALSE(static_cast<bool>(*connection));
    EXPECT_TRUE(waitFor([&] { return simulator.closedConnections() == 1; }));
    connection->disconnect();  // twice is harmless
    connection->flush();       // without a context, nothing
}

}  // namespace

namespace {

TEST_F(ConnectionTest, ALateAnswerToAnEarlierRequestIsDroppedNotTakenForTheNextOne) {
    FaultRule late;
    late.kind = FaultKind::Delay;
    late.function = 3;
    late.address = 0;
    late.delayMs = 1200;
    simulator.addFault(late);
    Connection::Network net = network();
    net.responseTimeoutMs = 1000;
    int err = 0;
    Connection connection(net, &host, &err);
    ASSERT_TRUE(connection.isConnected());
    unsigned short word = 0;
    EXPECT_EQ(connection.readWords(HoldingRegister, 0, 1, &word, &err), -1);
    EXPECT_EQ(err, ETIMEDOUT);
    // The answer to the first request comes while the second waits: it is read and dropped.
    EXPECT_EQ(connection.readWords(HoldingRegister, 1, 1, &word, &err), 1);
    EXPECT_EQ(word, 0x2222);
    EXPECT_TRUE(Host::instance().hasLog(
        LogLevel::Debug, QStringLiteral("Dropped a late answer to request 1 while waiting for request 2")));
}

TEST_F(ConnectionTest, AReplyWithAProtocolIdLibmodbusAcceptsIsAccepted) {
    FaultRule protocol;
    protocol.kind = FaultKind::WrongProtocolId;
    protocol.function = 3;
    simulator.addFault(protocol);
    int err = 0;
    Connection connection(network(), &host, &err);
    unsigned short word = 0;
    // Protocol id 0x0001: libmodbus 3.1.6 refuses a protocol id only when both of its bytes are set.
    EXPECT_EQ(connection.readWords(HoldingRegister, 2, 1, &word, &err), 1);
    EXPECT_EQ(word, 0x3333);
}

TEST_F(ConnectionTest, AReplyIsSizedByItsFunctionCodeNotByItsLengthField) {
    FaultRule wrongLength;
    wrongLength.kind = FaultKind::WrongLength;
    wrongLength.function = 3;
    wrongLength.lengthField = 200;
    simulator.addFault(wrongLength);
    int err = 0;
    Connection connection(network(), &host, &err);
    unsigned short words[2] = {};
    EXPECT_EQ(connection.readWords(HoldingRegister, 0, 2, words, &err), 2);
    EXPECT_EQ(words[0], 0x1111);
    EXPECT_EQ(words[1], 0x2222);
}

TEST_F(ConnectionTest, ARequestPauseDelaysEachRequestAfterTheLastAnswer) {
    Connection::Network net = network();
    net.requestPauseMs = 100;
    int err = 0;
    Connection connection(net, &host, &err);
    unsigned short word = 0;
    const auto started = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; ++i) ASSERT_EQ(connection.readWords(HoldingRegister, 0, 1, &word, &err), 1);
    // A pause after the connect and after each of the first two answers.
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(300));
}

}  // namespace

namespace {

// A read answer for `request` (FC 3) whose registers hold their own addresses.
QByteArray countingAnswer(const test_support::Request& request) {
    const int address =
        (static_cast<quint8>(request.pdu.at(1)) << 8) | static_cast<quint8>(request.pdu.at(2));
    const int count = (static_cast<quint8>(request.pdu.at(3)) << 8) | static_cast<quint8>(request.pdu.at(4));
    QByteArray pdu;
    pdu.append(char(3));
    pdu.append(char(2 * count));
    for (int i = 0; i < count; ++i) {
        pdu.append(char(((address + i) >> 8) & 0xFF));
        pdu.append(char((address + i) & 0xFF));
    }
    QByteArray frame;
    frame.append(char(request.transactionId >> 8));
    frame.append(char(request.transactionId & 0xFF));
    frame.append(char(0));
    frame.append(char(0));
    frame.append(char((pdu.size() + 1) >> 8));
    frame.append(char((pdu.size() + 1) & 0xFF));
    frame.append(char(request.unit));
    return frame + pdu;
}

// A server that answers only once it holds `batch` requests, all at once, in the order given by `reversed`.
test_support::ScriptedServer::Handler batchedAnswers(int batch, bool reversed) {
    auto pending = std::make_shared<std::vector<test_support::Request>>();
    return [pending, batch, reversed](const test_support::Request& request) {
        pending->push_back(request);
        if (static_cast<int>(pending->size()) < batch) return QByteArray();
        QByteArray answers;
        for (int i = 0; i < batch; ++i)
            answers += countingAnswer(pending->at(static_cast<size_t>(reversed ? batch - 1 - i : i)));
        pending->clear();
        return answers;
    };
}

std::vector<Connection::PipelinedRead> fourReads(std::vector<std::vector<unsigned short>>* words) {
    words->assign(4, std::vector<unsigned short>(2));
    std::vector<Connection::PipelinedRead> reads(4);
    for (size_t i = 0; i < reads.size(); ++i) {
        reads[i].table = HoldingRegister;
        reads[i].address = static_cast<int>(10 * i);
        reads[i].count = 2;
        reads[i].words = (*words)[i].data();
    }
    return reads;
}

Connection::Network scriptedNetwork(quint16 port, int responseTimeoutMs) {
    Connection::Network net;
    net.host = QStringLiteral("127.0.0.1");
    net.port = port;
    net.responseTimeoutMs = responseTimeoutMs;
    return net;
}

TEST(ConnectionPipelineTest, ReadPipelinedSendsTheWholeWindowBeforeItWaits) {
    test_support::ScriptedServer server(batchedAnswers(4, false));
    int err = 0;
    Connection connection(scriptedNetwork(server.port(), 2000), nullptr, &err);
    ASSERT_TRUE(connection.isConnected());
    std::vector<std::vector<unsigned short>> words;
    std::vector<Connection::PipelinedRead> reads = fourReads(&words);
    EXPECT_EQ(connection.readPipelined(reads, 4), Connection::Pipeline::Kept);
    for (size_t i = 0; i < reads.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(reads[i].result, 2);
        EXPECT_TRUE(reads[i].answered);
        EXPECT_EQ(words[i], (std::vector<unsigned short>{static_cast<unsigned short>(10 * i),
                                                         static_cast<unsigned short>(10 * i + 1)}));
    }
}

TEST(ConnectionPipelineTest, AnswersOutOfOrderAreMatchedButTheDeviceIsToldApart) {
    test_support::ScriptedServer server(batchedAnswers(4, true));
    int err = 0;
    Connection connection(scriptedNetwork(server.port(), 2000), nullptr, &err);
    std::vector<std::vector<unsigned short>> words;
    std::vector<Connection::PipelinedRead> reads = fourReads(&words);
    EXPECT_EQ(connection.readPipelined(reads, 4), Connection::Pipeline::Refused);
    for (size_t i = 0; i < reads.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(reads[i].result, 2);
        EXPECT_EQ(words[i].front(), 10 * i);
    }
}

TEST(ConnectionPipelineTest, AnAnswerMissingPastTheTimeOutRefusesThePipeline) {
    // Only two requests are ever in flight, and the server waits for four: nothing comes.
    test_support::ScriptedServer server(batchedAnswers(4, false));
    int err = 0;
    Connection connection(scriptedNetwork(server.port(), 200), nullptr, &err);
    std::vector<std::vector<unsigned short>> words;
    std::vector<Connection::PipelinedRead> reads = fourReads(&words);
    EXPECT_EQ(connection.readPipelined(reads, 2), Connection::Pipeline::Refused);
    EXPECT_EQ(reads[0].error, ETIMEDOUT);
    EXPECT_EQ(reads[1].error, ETIMEDOUT);
    EXPECT_TRUE(reads[1].sent);
    EXPECT_FALSE(reads[2].sent);
    EXPECT_EQ(reads[2].result, -1);
}

}  // namespace
