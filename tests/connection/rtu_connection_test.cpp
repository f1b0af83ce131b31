// Connection over RTU framing against a scripted server: every request the driver sends, and what goes wrong
// behind serial-to-Ethernet converters (heartbeats, garbage, split answers, other units' answers, bad CRCs,
// late answers), with values that differ per unit so that an answer taken from the wrong frame shows.

#include <errno.h>
#include <gtest/gtest.h>
#include <modbus.h>

#include <QByteArray>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "common/scripted_rtu_server.h"
#include "connection/connection.h"
#include "host/plugin_interface.h"
#include "tools/standin/standin_host.h"

namespace {

using test_support::rtuFrame;
using test_support::rtuFrameHex;
using test_support::RtuReply;
using test_support::RtuRequest;
using test_support::ScriptedRtuServer;

constexpr int kResponseTimeoutMs = 1000;

int wordAt(const QByteArray& bytes, int offset) {
    return (static_cast<quint8>(bytes.at(offset)) << 8) | static_cast<quint8>(bytes.at(offset + 1));
}

void appendWord(QByteArray* bytes, int value) {
    bytes->append(static_cast<char>((value >> 8) & 0xFF));
    bytes->append(static_cast<char>(value & 0xFF));
}

// The answer PDU a device with these tables gives: holding register a of unit u holds u * 1000 + a, input
// register a holds u * 2000 + a, coil a is set when a + u is odd, discrete input a when a + u is even.
QByteArray answerPdu(const RtuRequest& request) {
    const int function = static_cast<quint8>(request.pdu.at(0));
    QByteArray pdu;
    pdu.append(static_cast<char>(function));
    if (function == 3 || function == 4) {
        const int address = wordAt(request.pdu, 1);
        const int count = wordAt(request.pdu, 3);
        pdu.append(static_cast<char>(2 * count));
        for (int i = 0; i < count; ++i)
            appendWord(&pdu, request.unit * (function == 3 ? 1000 : 2000) + address + i);
    } else if (function == 1 || function == 2) {
        const int address = wordAt(request.pdu, 1);
        const int count = wordAt(request.pdu, 3);
        QByteArray bits((count + 7) / 8, '\0');
        for (int i = 0; i < count; ++i)
            if ((address + i + request.unit + (function == 1 ? 1 : 0)) % 2 == 0)
                bits[i / 8] = static_cast<char>(bits.at(i / 8) | (1 << (i % 8)));
        pdu.append(static_cast<char>(bits.size()));
        pdu.append(bits);
    } else if (function == 5 || function == 6 || function == 0x16) {
        pdu = request.pdu;  // the echo
    } else if (function == 0x0F || function == 0x10) {
        pdu = request.pdu.left(5);
    } else if (function == 0x11) {
        pdu.append(QByteArray::fromHex("04") + QByteArray(1, static_cast<char>(request.unit)) +
                   QByteArray::fromHex("ff4142"));
    } else if (function == 0x2B) {
        pdu = QByteArray::fromHex("2b0e01830000020003414243010458312d31");
    }
    return pdu;
}

QByteArray answerFrame(const RtuRequest& request) {
    return rtuFrame(QByteArray(1, static_cast<char>(request.unit)) + answerPdu(request));
}

RtuReply whole(const QByteArray& bytes) {
    return RtuReply{{bytes}, 0};
}

class RtuConnectionTest : public ::testing::Test {
protected:
    void SetUp() override { zelt_standin::Host::instance().reset(); }

    std::unique_ptr<Connection> connect(ScriptedRtuServer& server, int unit = 1) {
        Connection::Network net;
        net.host = QStringLiteral("127.0.0.1");
        net.port = server.port();
        net.serverId = unit;
        net.responseTimeoutMs = kResponseTimeoutMs;
        net.transport = Transport::RtuOverTcp;
        int err = 0;
        auto connection = std::make_unique<Connection>(net, &host, &err);
        EXPECT_TRUE(connection->isConnected()) << err;
        return connection;
    }

    std::vector<unsigned short> holding(Connection& connection, int address, int count, int* err) {
        std::vector<unsigned short> words(static_cast<size_t>(count), 0);
        if (connection.readWords(HoldingRegister, address, count, words.data(), err) != count) return {};
        return words;
    }

    PluginInterface host;
};

TEST_F(RtuConnectionTest, SendsEveryRequestAsAnRtuFrameAndReadsEveryAnswer) {
    ScriptedRtuServer server([](const RtuRequest& request) { return whole(answerFrame(request)); });
    auto connection = connect(server, 7);
    int err = 0;
    unsigned char bits[4] = {};
    ASSERT_EQ(connection->readBits(OutputCoil, 10, 3, bits, &err), 3) << err;
    EXPECT_EQ(std::vector<unsigned char>(bits, bits + 3), std::vector<unsigned char>({1, 0, 1}));
    ASSERT_EQ(connection->readBits(InputCoil, 10, 3, bits, &err), 3) << err;
    EXPECT_EQ(std::vector<unsigned char>(bits, bits + 3), std::vector<unsigned char>({0, 1, 0}));
    EXPECT_EQ(holding(*connection, 10, 2, &err), std::vector<unsigned short>({7010, 7011}));
    unsigned short words[2] = {};
    ASSERT_EQ(connection->readWords(InputRegister, 5, 2, words, &err), 2);
    EXPECT_EQ(std::vector<unsigned short>(words, words + 2), std::vector<unsigned short>({14005, 14006}));
    EXPECT_EQ(connection->writeBit(10, 1, &err, false), 1);
    EXPECT_EQ(connection->writeBit(11, 1, &err, true), 1);
    EXPECT_EQ(connection->writeWord(12, 0x1234, &err), 1);
    const unsigned short values[2] = {0xBEEF, 0x0102};
    EXPECT_EQ(connection->writeString(13, 2, values, &err), 2);
    EXPECT_EQ(connection->maskWriteRegister(4, 0xFFF0, 0x0005, &err), 1);
    QByteArray reply;
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("11"), &reply, &err), 6);
    EXPECT_EQ(reply.toHex(), QByteArray("110407ff4142"));
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("2b0e0100"), &reply, &err), 18) << err;
    EXPECT_EQ(reply.toHex(), QByteArray("2b0e01830000020003414243010458312d31"));

    std::vector<QByteArray> frames;
    for (const RtuRequest& request : server.requests()) frames.push_back(request.frame.toHex());
    EXPECT_EQ(frames, std::vector<QByteArray>(
                          {rtuFrameHex("0701000a0003").toHex(), rtuFrameHex("0702000a0003").toHex(),
                           rtuFrameHex("0703000a0002").toHex(), rtuFrameHex("070400050002").toHex(),
                           rtuFrameHex("0705000aff00").toHex(), rtuFrameHex("070f000b00010101").toHex(),
                           rtuFrameHex("0706000c1234").toHex(), rtuFrameHex("0710000d000204beef0102").toHex(),
                           rtuFrameHex("07160004fff00005").toHex(), rtuFrameHex("0711").toHex(),
                           rtuFrameHex("072b0e0100").toHex()}));
    EXPECT_EQ(connection->getDeviceError(), 0);
}

TEST_F(RtuConnectionTest, AnAnswerIsFoundBehindWhatAConverterAddsOrSplitsUp) {
    struct Case {
        const char* name;
        std::function<RtuReply(const RtuRequest&)> reply;
    };
    const Case cases[] = {
        {"heartbeat before",
         [](const RtuRequest& r) { return whole(QByteArray("heartbeat\r\n") + answerFrame(r)); }},
        {"garbage before",
         [](const RtuRequest& r) { return whole(QByteArray::fromHex("deadbeef") + answerFrame(r)); }},
        {"bytes that look like a long answer's beginning",
         [](const RtuRequest& r) { return whole(QByteArray::fromHex("0903ff") + answerFrame(r)); }},
        {"registration packet, then the answer split into three-byte chunks",
         [](const RtuRequest& r) {
             RtuReply reply{{QByteArray("REG:CONVERTER-0042")}, 20};
             const QByteArray frame = answerFrame(r);
             for (int at = 0; at < frame.size(); at += 3) reply.chunks.push_back(frame.mid(at, 3));
             return reply;
         }},
        {"another unit's answer before",
         [](const RtuRequest& r) {
             RtuRequest other = r;
             other.unit = r.unit + 1;
             return whole(answerFrame(other) + answerFrame(r));
         }},
        {"an answer of another length before",
         [](const RtuRequest& r) {
             RtuRequest longer = r;
             longer.pdu = QByteArray::fromHex("0300000004");
             return whole(answerFrame(longer) + answerFrame(r));
         }},
    };
    for (const Case& test : cases) {
        ScriptedRtuServer server(test.reply);
        auto connection = connect(server, 9);
        int err = 0;
        EXPECT_EQ(holding(*connection, 100, 2, &err), std::vector<unsigned short>({9100, 9101}))
            << test.name << ": " << err;
        EXPECT_EQ(holding(*connection, 200, 1, &err), std::vector<unsigned short>({9200})) << test.name;
        EXPECT_EQ(server.requests().size(), 2u) << test.name;
    }
}

TEST_F(RtuConnectionTest, ABadCrcFailsItsRequestByNameAndTheNextSucceeds) {
    bool damage = true;
    ScriptedRtuServer server([&damage](const RtuRequest& request) {
        QByteArray frame = answerFrame(request);
        if (damage) frame[frame.size() - 1] = static_cast<char>(frame.at(frame.size() - 1) ^ 0xFF);
        damage = false;
        return whole(frame);
    });
    auto connection = connect(server, 3);
    int err = 0;
    EXPECT_TRUE(holding(*connection, 0, 2, &err).empty());
    EXPECT_EQ(err, EMBBADCRC);
    EXPECT_EQ(connection->errToStr(err), QStringLiteral("Invalid CRC"));
    EXPECT_EQ(holding(*connection, 0, 2, &err), std::vector<unsigned short>({3000, 3001}));
}

TEST_F(RtuConnectionTest, ALateAnswerIsDroppedAndNeverTakenForTheNextRequest) {
    bool silent = true;
    QByteArray heldBack;
    ScriptedRtuServer server([&](const RtuRequest& request) {
        if (silent) {
            silent = false;
            heldBack = answerFrame(request);
            return RtuReply{};
        }
        return whole(answerFrame(request));
    });
    auto connection = connect(server, 4);
    ASSERT_TRUE(connection->setResponseTimeoutMs(300));
    int err = 0;
    EXPECT_TRUE(holding(*connection, 10, 2, &err).empty());
    EXPECT_EQ(err, ETIMEDOUT);
    // The answer to the request that timed out comes now, before the same read is asked for again: it must
    // not be taken for that read's answer (its values are those of address 10, not 20).
    ASSERT_TRUE(server.sendNow(heldBack));
    EXPECT_EQ(holding(*connection, 20, 2, &err), std::vector<unsigned short>({4020, 4021})) << err;
    EXPECT_EQ(holding(*connection, 10, 2, &err), std::vector<unsigned short>({4010, 4011})) << err;
}

TEST_F(RtuConnectionTest, ALateAnswerThatComesWhileTheNextRequestWaitsIsReadAndDropped) {
    std::atomic<int> served{0};
    std::atomic<bool> lateSent{false};
    QByteArray heldBack;
    ScriptedRtuServer server([&](const RtuRequest& request) {
        if (served++ == 0) {
            heldBack = answerFrame(request);
            return RtuReply{};
        }
        // Were the next request sent before the late answer came, the late answer would reach the client
        // first: the answer to it is held until the late answer has gone out.
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!lateSent && std::chrono::steady_clock::now() < limit)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return whole(answerFrame(request));
    });
    auto connection = connect(server, 5);
    int err = 0;
    EXPECT_TRUE(holding(*connection, 10, 2, &err).empty());
    EXPECT_EQ(err, ETIMEDOUT);
    // The late answer comes after the next request, of the same unit, function and length, has begun.
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        lateSent = server.sendNow(heldBack);
    });
    EXPECT_EQ(holding(*connection, 30, 2, &err), std::vector<unsigned short>({5030, 5031})) << err;
    late.join();
    EXPECT_TRUE(lateSent);
    ASSERT_EQ(server.requests().size(), 2u);
}

TEST_F(RtuConnectionTest, AnExceptionAnswerIsRecognisedByItsHighBit) {
    ScriptedRtuServer server([](const RtuRequest& request) {
        return whole(rtuFrame(QByteArray(1, static_cast<char>(request.unit)) + QByteArray::fromHex("8302")));
    });
    auto connection = connect(server, 2);
    int err = 0;
    EXPECT_TRUE(holding(*connection, 0, 100, &err).empty());
    EXPECT_EQ(err, MODBUS_ENOBASE + MODBUS_EXCEPTION_ILLEGAL_DATA_ADDRESS);
}

TEST_F(RtuConnectionTest, UnitZeroIsABroadcastThatOnlyWrites) {
    ScriptedRtuServer server([](const RtuRequest& request) {
        return request.unit == 0 ? RtuReply{} : whole(answerFrame(request));
    });
    auto connection = connect(server, 1);
    ASSERT_TRUE(connection->setSlave(0));
    int err = 0;
    EXPECT_EQ(connection->writeWord(3, 0x0042, &err), 1);
    const unsigned short values[2] = {1, 2};
    EXPECT_EQ(connection->writeString(4, 2, values, &err), 2);
    unsigned short word = 0;
    EXPECT_EQ(connection->readWords(HoldingRegister, 3, 1, &word, &err), -1);
    EXPECT_EQ(err, EINVAL);
    EXPECT_EQ(connection->errToStr(err), QStringLiteral("Invalid argument"));
    QByteArray reply;
    EXPECT_EQ(connection->exchangePdu(QByteArray::fromHex("11"), &reply, &err), -1);
    EXPECT_EQ(err, EINVAL);
    ASSERT_TRUE(connection->setSlave(1));
    EXPECT_EQ(holding(*connection, 3, 1, &err), std::vector<unsigned short>({1003}));
    std::vector<QByteArray> frames;
    for (const RtuRequest& request : server.requests()) frames.push_back(request.frame.toHex());
    EXPECT_EQ(frames, std::vector<QByteArray>({rtuFrameHex("000600030042").toHex(),
                                               rtuFrameHex("0010000400020400010002").toHex(),
                                               rtuFrameHex("010300030001").toHex()}));
}

TEST_F(RtuConnectionTest, RefusesUnitsNoSerialDeviceCanHave) {
    ScriptedRtuServer server([](const RtuRequest& request) { return whole(answerFrame(request)); });
    auto connection = connect(server, 1);
    for (int unit : {248, 250, 254, 255, 256, -1}) {
        EXPECT_FALSE(connection->setSlave(unit)) << unit;
        EXPECT_EQ(connection->slave(), 1) << unit;
    }
    EXPECT_TRUE(connection->setSlave(247));
    int err = 0;
    EXPECT_EQ(holding(*connection, 1, 1, &err),
              std::vector<unsigned short>({static_cast<unsigned short>(247001 & 0xFFFF)}));
}

TEST_F(RtuConnectionTest, AConnectionToUnit255FailsWithInvalidArgument) {
    ScriptedRtuServer server([](const RtuRequest& request) { return whole(answerFrame(request)); });
    Connection::Network net;
    net.host = QStringLiteral("127.0.0.1");
    net.port = server.port();
    net.serverId = 255;
    net.transport = Transport::RtuOverTcp;
    int err = 0;
    Connection connection(net, &host, &err);
    EXPECT_FALSE(connection.isConnected());
    EXPECT_EQ(err, EINVAL);
}

TEST_F(RtuConnectionTest, ReadsOfABatchGoOneAtATime) {
    ScriptedRtuServer server([](const RtuRequest& request) { return whole(answerFrame(request)); });
    auto connection = connect(server, 6);
    unsigned short first[2] = {};
    unsigned short second[3] = {};
    unsigned char bits[2] = {};
    std::vector<Connection::PipelinedRead> reads(3);
    reads[0] = {HoldingRegister, 0, 2, first, nullptr};
    reads[1] = {InputRegister, 7, 3, second, nullptr};
    reads[2] = {OutputCoil, 1, 2, nullptr, bits};
    EXPECT_EQ(connection->readPipelined(reads, 4), Connection::Pipeline::Kept);
    EXPECT_EQ(std::vector<unsigned short>(first, first + 2), std::vector<unsigned short>({6000, 6001}));
    EXPECT_EQ(std::vector<unsigned short>(second, second + 3),
              std::vector<unsigned short>({12007, 12008, 12009}));
    EXPECT_EQ(std::vector<unsigned char>(bits, bits + 2), std::vector<unsigned char>({1, 0}));
    for (const Connection::PipelinedRead& read : reads) {
        EXPECT_EQ(read.result, read.count);
        EXPECT_TRUE(read.sent);
        EXPECT_TRUE(read.answered);
    }
    EXPECT_EQ(server.requests().size(), 3u);
}

}  // namespace
