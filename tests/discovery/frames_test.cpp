#include "discovery/frames.h"

#include <gtest/gtest.h>

#include <random>

namespace ModbusDiscovery {
namespace {

QByteArray hex(const char* text) {
    return QByteArray::fromHex(text);
}

TEST(RequestPdus, HaveExactBytes) {
    struct Row {
        const char* name;
        QByteArray pdu;
        const char* expected;
    };
    const Row rows[] = {
        {"basic device id from object 0", readDeviceIdPdu(1, 0), "2b0e0100"},
        {"regular device id from object 3", readDeviceIdPdu(2, 3), "2b0e0203"},
        {"one specific object 0x81", readDeviceIdPdu(4, 0x81), "2b0e0481"},
        {"report slave id", reportSlaveIdPdu(), "11"},
        {"read one holding register", readHoldingRegistersPdu(), "0300000001"},
        {"read one coil", readCoilsPdu(), "0100000001"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.pdu.toHex(), QByteArray(row.expected));
    }
}

TEST(Crc16Modbus, MatchesKnownValues) {
    struct Row {
        const char* name;
        QByteArray data;
        quint16 expected;
    };
    const Row rows[] = {
        {"standard check value", QByteArray("123456789"), 0x4B37},
        {"empty input keeps the preset", QByteArray(), 0xFFFF},
        {"unit 1 report slave id", hex("0111"), 0x2CC0},
        {"unit 1 read holding 0 count 1", hex("010300000001"), 0x0A84},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(crc16Modbus(row.data), row.expected);
    }
}

TEST(WrapMbap, WritesHeaderAndPdu) {
    struct Row {
        const char* name;
        quint16 transactionId;
        unsigned char unitId;
        QByteArray pdu;
        const char* expected;
    };
    const Row rows[] = {
        {"device id request", 0x1234, 1, readDeviceIdPdu(1, 0),
         "12340000000501"
         "2b0e0100"},
        {"empty pdu gives the bare header with length 1", 0xFFFF, 0xFF, QByteArray(), "ffff00000001ff"},
        {"report slave id to unit 0", 0, 0, reportSlaveIdPdu(),
         "00000000000200"
         "11"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const QByteArray frame = wrapMbap(row.transactionId, row.unitId, row.pdu);
        EXPECT_EQ(frame.toHex(), QByteArray(row.expected));
        EXPECT_EQ(frame.size(), 7 + row.pdu.size());
    }
}

TEST(WrapMbap, TruncatesLengthToSixteenBits) {
    const QByteArray pdu(0xFFFF, '\x01');
    const QByteArray frame = wrapMbap(1, 2, pdu);
    ASSERT_EQ(frame.size(), 7 + 0xFFFF);
    EXPECT_EQ(frame.left(7).toHex(), QByteArray("00010000000002"));
}

TEST(ParseMbap, AcceptsAndRejectsFrames) {
    struct Row {
        const char* name;
        QByteArray frame;
        bool ok;
        quint16 transactionId;
        unsigned char unitId;
        const char* pdu;
    };
    const QByteArray maxPdu(259, '\x03');
    const QByteArray maxFrame = hex("abcd00000104") + QByteArray(1, '\x09') + maxPdu;
    const Row rows[] = {
        {"device id request", hex("123400000005012b0e0100"), true, 0x1234, 1, "2b0e0100"},
        {"7-byte frame", hex("00010000000101"), false, 0, 0, ""},
        {"protocol identifier 1",
         hex("00010001000201"
             "11"),
         false, 0, 0, ""},
        {"length 1",
         hex("00010000000101"
             "11"),
         false, 0, 0, ""},
        {"length 261", hex("00010000010501") + QByteArray(260, '\x03'), false, 0, 0, ""},
        {"shorter than length + 6",
         hex("00010000000501"
             "2b0e01"),
         false, 0, 0, ""},
        {"extra trailing bytes are ignored",
         hex("00070000000311"
             "1100"
             "deadbeef"),
         true, 7, 0x11, "1100"},
        {"smallest frame: length 2",
         hex("00020000000205"
             "83"),
         true, 2, 5, "83"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        quint16 transactionId = 0;
        unsigned char unitId = 0;
        QByteArray pdu;
        EXPECT_EQ(parseMbap(row.frame, &transactionId, &unitId, &pdu), row.ok);
        EXPECT_EQ(transactionId, row.transactionId);
        EXPECT_EQ(unitId, row.unitId);
        EXPECT_EQ(pdu.toHex(), QByteArray(row.pdu));
    }

    SCOPED_TRACE("length 260 is the largest accepted");
    quint16 transactionId = 0;
    unsigned char unitId = 0;
    QByteArray pdu;
    ASSERT_TRUE(parseMbap(maxFrame, &transactionId, &unitId, &pdu));
    EXPECT_EQ(transactionId, 0xABCD);
    EXPECT_EQ(unitId, 9);
    EXPECT_EQ(pdu, maxPdu);
}

TEST(ParseMbap, AcceptsNullOutPointers) {
    EXPECT_TRUE(parseMbap(hex("123400000005012b0e0100"), nullptr, nullptr, nullptr));
    EXPECT_FALSE(parseMbap(hex("12340001000501"
                               "2b0e0100"),
                           nullptr, nullptr, nullptr));
}

TEST(ParseMbap, RoundTripsWrapMbap) {
    const QByteArray request = readDeviceIdPdu(1, 0);
    quint16 transactionId = 0;
    unsigned char unitId = 0;
    QByteArray pdu;
    ASSERT_TRUE(parseMbap(wrapMbap(0xBEEF, 247, request), &transactionId, &unitId, &pdu));
    EXPECT_EQ(transactionId, 0xBEEF);
    EXPECT_EQ(unitId, 247);
    EXPECT_EQ(pdu, request);
}

TEST(WrapRtu, AppendsCrcLowByteFirst) {
    EXPECT_EQ(wrapRtu(1, reportSlaveIdPdu()).toHex(), QByteArray("0111c02c"));
    EXPECT_EQ(wrapRtu(1, readHoldingRegistersPdu()).toHex(), QByteArray("010300000001840a"));
}

TEST(ParseRtu, ReturnsUnitAndPdu) {
    struct Row {
        const char* name;
        const char* frame;
        unsigned char unitId;
        const char* pdu;
    };
    const Row rows[] = {
        {"two-byte report slave id answer", "0111002c50", 1, "1100"},
        {"exception answer", "018302c0f1", 1, "8302"},
        {"read holding request", "010300000001840a", 1, "0300000001"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        unsigned char unitId = 0;
        QByteArray pdu;
        ASSERT_TRUE(parseRtu(hex(row.frame), &unitId, &pdu));
        EXPECT_EQ(unitId, row.unitId);
        EXPECT_EQ(pdu.toHex(), QByteArray(row.pdu));
        EXPECT_TRUE(parseRtu(hex(row.frame), nullptr, nullptr));
        EXPECT_EQ(wrapRtu(unitId, pdu).toHex(), QByteArray(row.frame));
    }
}

TEST(ParseRtu, RejectsTheFourByteReportSlaveIdRequest) {
    // 01 11 C0 2C carries a correct CRC, but five bytes are the smallest frame accepted.
    unsigned char unitId = 0x55;
    QByteArray pdu("untouched");
    EXPECT_FALSE(parseRtu(wrapRtu(1, reportSlaveIdPdu()), &unitId, &pdu));
    EXPECT_EQ(unitId, 0x55);
    EXPECT_EQ(pdu, QByteArray("untouched"));
}

TEST(ParseRtu, RejectsEveryFlippedByte) {
    const QByteArray frame = hex("0111002c50");
    for (int i = 0; i < frame.size(); ++i) {
        SCOPED_TRACE(i);
        QByteArray damaged = frame;
        damaged[i] = static_cast<char>(damaged.at(i) ^ 0xFF);
        unsigned char unitId = 0x55;
        QByteArray pdu("untouched");
        EXPECT_FALSE(parseRtu(damaged, &unitId, &pdu));
        EXPECT_EQ(unitId, 0x55);
        EXPECT_EQ(pdu, QByteArray("untouched"));
    }
}

TEST(ParseRtu, RejectsShortFrames) {
    struct Row {
        const char* name;
        QByteArray frame;
    };
    const Row rows[] = {
        {"empty", QByteArray()},
        {"four bytes with a valid crc", hex("0111c02c").left(4)},
        {"four bytes", hex("01830000")},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_FALSE(parseRtu(row.frame, nullptr, nullptr));
    }
    // A five-byte frame is the smallest accepted one: unit, exception answer, crc.
    EXPECT_TRUE(parseRtu(wrapRtu(2, hex("8302")), nullptr, nullptr));
}

TEST(FrameParsers, SurviveTruncationsAndRandomBytes) {
    const QByteArray mbap = wrapMbap(0x0102, 3, hex("2b0e01010000020006414243444546010358595a"));
    const QByteArray rtu = wrapRtu(3, hex("110501ff4142"));
    for (int length = 0; length <= mbap.size(); ++length) {
        SCOPED_TRACE(length);
        const QByteArray part = mbap.left(length);
        QByteArray pdu;
        EXPECT_EQ(parseMbap(part, nullptr, nullptr, &pdu), length == mbap.size());
    }
    for (int length = 0; length <= rtu.size(); ++length) {
        SCOPED_TRACE(length);
        QByteArray pdu;
        EXPECT_EQ(parseRtu(rtu.left(length), nullptr, &pdu), length == rtu.size());
    }

    std::mt19937 random(20240517);
    std::uniform_int_distribution<int> sizes(0, 300);
    std::uniform_int_distribution<int> bytes(0, 255);
    for (int round = 0; round < 5000; ++round) {
        QByteArray data(sizes(random), '\0');
        for (char& c : data) {
            c = static_cast<char>(bytes(random));
        }
        // Every other round gets a plausible header, so the length checks are reached too.
        if (round % 2 == 0 && data.size() >= 6) {
            data[2] = 0;
            data[3] = 0;
            data[4] = static_cast<char>(bytes(random) % 2);
        }
        quint16 transactionId = 0;
        unsigned char unitId = 0;
        QByteArray pdu;
        if (parseMbap(data, &transactionId, &unitId, &pdu)) {
            const int length = (static_cast<quint8>(data.at(4)) << 8) | static_cast<quint8>(data.at(5));
            EXPECT_EQ(pdu, data.mid(7, length - 1));
        }
        if (parseRtu(data, &unitId, &pdu)) {
            EXPECT_EQ(pdu, data.mid(1, data.size() - 3));
        }
    }
}

}  // namespace
}  // namespace ModbusDiscovery
