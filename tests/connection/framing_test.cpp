// The framing of requests and answers, without sockets: answer lengths by function code, RTU frames found in
// a byte stream among whatever else it carries, MBAP headers, and the confirmation checks.

#include <gtest/gtest.h>
#include <modbus.h>

#include <QByteArray>
#include <vector>

#include "connection/answer_length.h"
#include "connection/confirmation.h"
#include "connection/mbap_framing.h"
#include "connection/rtu_framing.h"

namespace {

using answer_length::Sizing;

std::vector<unsigned char> bytes(const char* hex) {
    const QByteArray raw = QByteArray::fromHex(hex);
    return std::vector<unsigned char>(raw.begin(), raw.end());
}

QByteArray hexOf(const unsigned char* data, int length) {
    return QByteArray(reinterpret_cast<const char*>(data), length).toHex();
}

struct LengthRow {
    const char* pdu;  // the bytes that have arrived
    Sizing sizing;
    int length;
};

TEST(AnswerLength, SizesEveryAnswerTheDriverAsksForByItsOwnBytes) {
    const LengthRow rows[] = {
        {"", Sizing::NeedMore, 1},
        {"01", Sizing::NeedMore, 2},
        {"0101", Sizing::Known, 3},         // FC 1, one byte of coils
        {"0202", Sizing::Known, 4},         // FC 2
        {"0304", Sizing::Known, 6},         // FC 3, two registers
        {"03fa", Sizing::Known, 252},       // FC 3, 125 registers
        {"0402", Sizing::Known, 4},         // FC 4
        {"05", Sizing::Known, 5},           // FC 5 echo
        {"06", Sizing::Known, 5},           // FC 6 echo
        {"0f", Sizing::Known, 5},           // FC 15: address, quantity
        {"10", Sizing::Known, 5},           // FC 16
        {"1105", Sizing::Known, 7},         // FC 17, byte count 5
        {"16", Sizing::Known, 7},           // FC 22 echo
        {"1704", Sizing::Known, 6},         // FC 23
        {"83", Sizing::Known, 2},           // exception, before any length is guessed
        {"ab", Sizing::Known, 2},           // exception of FC 43
        {"07", Sizing::Unknown, 0},         // read exception status: never asked for
        {"2b", Sizing::NeedMore, 2},        // FC 43: the MEI type first
        {"2b0d", Sizing::Unknown, 0},       // another MEI type
        {"2b0e0183", Sizing::NeedMore, 7},  // the object count is the seventh byte
        {"2b0e01830000", Sizing::NeedMore, 7},
        {"2b0e0183000000", Sizing::Known, 7},  // no objects
        {"2b0e0183000002", Sizing::NeedMore, 9},
        {"2b0e018300000200", Sizing::NeedMore, 9},
        {"2b0e01830000020003", Sizing::NeedMore, 14},  // first object: 3 bytes, then the second's header
        {"2b0e01830000020003414243", Sizing::NeedMore, 14},
        {"2b0e0183000002000341424301", Sizing::NeedMore, 14},
        {"2b0e018300000200034142430104", Sizing::Known, 18},
        {"2b0e018300000200034142430104ffff", Sizing::Known, 18},  // whatever follows is not counted
        {"11fb", Sizing::Known, 253},
        {"11fc", Sizing::Unknown, 0},  // longer than any PDU
    };
    for (const LengthRow& row : rows) {
        const std::vector<unsigned char> pdu = bytes(row.pdu);
        int length = -1;
        EXPECT_EQ(answer_length::answerPduLength(pdu.data(), static_cast<int>(pdu.size()), &length),
                  row.sizing)
            << row.pdu;
        if (row.sizing != Sizing::Unknown) {
            EXPECT_EQ(length, row.length) << row.pdu;
        }
    }
}

TEST(AnswerLength, RefusesADeviceIdentificationLongerThanAnyPdu) {
    // 2B 0E 01 83 00 00 02, then an object of 250 bytes: the second object's header would end past 253.
    std::vector<unsigned char> pdu = bytes("2b0e018300000200fa");
    pdu.resize(7 + 2 + 250 + 2, 0x41);
    int length = -1;
    EXPECT_EQ(answer_length::answerPduLength(pdu.data(), static_cast<int>(pdu.size()), &length),
              Sizing::Unknown);
}

TEST(RtuFraming, FramesEachRequestWithItsUnitAndCrcLowByteFirst) {
    struct Row {
        int unit;
        const char* pdu;
        const char* frame;
    };
    const Row rows[] = {
        {1, "0101000a0003", "0101000a00035c09"}, {1, "0103000a0002", "0103000a0002e409"},
        {1, "0105000aff00", "0105000aff00ac38"}, {1, "0106000a1234", "0106000a1234a4bf"},
        {1, "010f000a0003", "010f000a000335c8"}, {1, "0110000a0002", "0110000a000261ca"},
    };
    for (const Row& row : rows) {
        // The rows name the whole frame body; the PDU is what follows the unit id.
        const std::vector<unsigned char> body = bytes(row.pdu);
        unsigned char frame[rtu_framing::kMaxFrameLength];
        const int length =
            rtu_framing::buildRequest(row.unit, body.data() + 1, static_cast<int>(body.size()) - 1, frame);
        EXPECT_EQ(hexOf(frame, length), QByteArray(row.frame)) << row.pdu;
    }
    unsigned char frame[rtu_framing::kMaxFrameLength];
    const std::vector<unsigned char> reportSlaveId = bytes("11");
    EXPECT_EQ(hexOf(frame, rtu_framing::buildRequest(1, reportSlaveId.data(), 1, frame)),
              QByteArray("0111c02c"));
    const std::vector<unsigned char> tooLong(254, 0x10);
    EXPECT_EQ(rtu_framing::buildRequest(1, tooLong.data(), 254, frame), -1);
    EXPECT_EQ(rtu_framing::buildRequest(1, tooLong.data(), 253, frame), 256);
}

struct ScanRow {
    const char* name;
    const char* stream;
    rtu_framing::Expectation expected;
    rtu_framing::Scan::Status status;
    int offset;  // Found: where the answer starts; otherwise the bytes that may be dropped
    int length;
    bool crcMismatch;
};

using rtu_framing::Scan;

TEST(RtuFraming, FindsTheAnswerAmongWhateverElseTheStreamCarries) {
    const ScanRow rows[] = {
        {"FC 3 answer", "01030200057847", {1, 3, 2}, Scan::Found, 0, 7, false},
        {"FC 1 answer", "010201016048", {1, 2, 1}, Scan::Found, 0, 6, false},
        {"FC 4 answer", "01040201023961", {1, 4, 2}, Scan::Found, 0, 7, false},
        {"FC 5 echo", "0105000aff00ac38", {1, 5, -1}, Scan::Found, 0, 8, false},
        {"FC 6 echo", "0106000a1234a4bf", {1, 6, -1}, Scan::Found, 0, 8, false},
        {"FC 15 echo", "010f000a000335c8", {1, 15, -1}, Scan::Found, 0, 8, false},
        {"FC 16 echo", "0110000a000261ca", {1, 16, -1}, Scan::Found, 0, 8, false},
        {"FC 17 answer", "01110501ff414243ac02", {1, 17, -1}, Scan::Found, 0, 10, false},
        {"FC 22 echo", "01160004fff00005f7e2", {1, 22, -1}, Scan::Found, 0, 10, false},
        {"FC 23 answer", "0117041111222234a7", {1, 23, 4}, Scan::Found, 0, 9, false},
        {"FC 43 answer",
         "012b0e01830000020003414243010458312d31aa2a",
         {1, 43, -1},
         Scan::Found,
         0,
         21,
         false},
        {"exception by its high bit", "018302c0f1", {1, 3, 2}, Scan::Found, 0, 5, false},
        {"exception of FC 43", "01ab02def1", {1, 43, -1}, Scan::Found, 0, 5, false},
        {"garbage before", "deadbeef01030200057847", {1, 3, 2}, Scan::Found, 4, 7, false},
        {"heartbeat before", "6865617274626561740d0a01030200057847", {1, 3, 2}, Scan::Found, 11, 7, false},
        {"another unit's answer before", "020302beefcc6801030200057847", {1, 3, 2}, Scan::Found, 7, 7, false},
        {"a late answer of another length before",
         "0103041234abcd002001030200057847",
         {1, 3, 2},
         Scan::Found,
         9,
         7,
         false},
        {"concatenated answers: the first",
         "0103020005784701030200017984",
         {1, 3, 2},
         Scan::Found,
         0,
         7,
         false},
        {"bytes that look like a long answer's beginning",
         "0103ff01030200057847",
         {1, 3, -1},
         Scan::Found,
         3,
         7,
         false},
        {"trailing bytes", "01030200057847deadbeef", {1, 3, 2}, Scan::Found, 0, 7, false},
        {"split: unit only", "01", {1, 3, 2}, Scan::NeedMore, 0, 0, false},
        {"split: unit and function", "0103", {1, 3, 2}, Scan::NeedMore, 0, 0, false},
        {"truncated", "0103020005", {1, 3, 2}, Scan::NeedMore, 0, 0, false},
        {"truncated after garbage", "aabb0103020005", {1, 3, 2}, Scan::NeedMore, 2, 0, false},
        {"truncated FC 43", "012b0e0183000002000341", {1, 43, -1}, Scan::NeedMore, 0, 0, false},
        {"CRC error", "01030200057848", {1, 3, 2}, Scan::Nothing, 7, 0, true},
        {"CRC error of an exception", "018302c0f0", {1, 3, 2}, Scan::Nothing, 5, 0, true},
        {"another unit only", "020302beefcc68", {1, 3, 2}, Scan::Nothing, 7, 0, false},
        {"another function only", "01040201023961", {1, 3, 2}, Scan::Nothing, 7, 0, false},
        {"another function's exception", "0184022302", {1, 3, 2}, Scan::Nothing, 5, 0, false},
        {"another byte count only", "0103041234abcd0020", {1, 3, 2}, Scan::Nothing, 9, 0, false},
        {"nothing at all", "", {1, 3, 2}, Scan::Nothing, 0, 0, false},
        {"garbage only", "deadbeef", {1, 3, 2}, Scan::Nothing, 4, 0, false},
        {"a unit id at the end may begin it", "aabb01", {1, 3, 2}, Scan::NeedMore, 2, 0, false},
        {"a byte count asked of an answer whose count has not come",
         "0105",
         {1, 5, 2},
         Scan::NeedMore,
         0,
         0,
         false},
    };
    for (const ScanRow& row : rows) {
        const std::vector<unsigned char> stream = bytes(row.stream);
        const Scan scan =
            rtu_framing::findAnswer(stream.data(), static_cast<int>(stream.size()), row.expected);
        EXPECT_EQ(scan.status, row.status) << row.name;
        EXPECT_EQ(scan.crcMismatch, row.crcMismatch) << row.name;
        if (row.status == Scan::Found) {
            EXPECT_EQ(scan.offset, row.offset) << row.name;
            EXPECT_EQ(scan.length, row.length) << row.name;
        } else {
            EXPECT_EQ(scan.discardable, row.offset) << row.name;
        }
    }
}

TEST(RtuFraming, FindsAnAnswerThatArrivesInPiecesOnlyOnceItIsWhole) {
    const std::vector<unsigned char> stream = bytes("6865617274626561740d0a0117041111222234a7");
    for (int arrived = 0; arrived <= static_cast<int>(stream.size()); ++arrived) {
        const Scan scan = rtu_framing::findAnswer(stream.data(), arrived, {1, 23, 4});
        EXPECT_EQ(scan.status == Scan::Found, arrived == static_cast<int>(stream.size())) << arrived;
        if (scan.status == Scan::Found) {
            EXPECT_EQ(scan.offset, 11);
        }
    }
}

TEST(RtuFraming, EveryDamagedByteOfAnAnswerIsNoAnswer) {
    const std::vector<unsigned char> answer = bytes("0103041234abcd0020");
    for (size_t at = 0; at < answer.size(); ++at) {
        std::vector<unsigned char> damaged = answer;
        damaged[at] ^= 0x10;
        const Scan scan =
            rtu_framing::findAnswer(damaged.data(), static_cast<int>(damaged.size()), {1, 3, 4});
        EXPECT_NE(scan.status, Scan::Found) << at;
    }
}

TEST(MbapFraming, FramesARequestUnderItsTransactionId) {
    const std::vector<unsigned char> pdu = bytes("0300000002");
    unsigned char frame[mbap_framing::kPrefixLength + mbap_framing::kMaxFrameLength];
    const int length = mbap_framing::buildRequest(0x1234, 7, pdu.data(), 5, frame);
    EXPECT_EQ(hexOf(frame, length), QByteArray("123400000006070300000002"));
    EXPECT_EQ(mbap_framing::transactionId(frame), 0x1234);
    EXPECT_EQ(mbap_framing::lengthField(frame), 6);
    EXPECT_FALSE(mbap_framing::protocolIdRefused(frame));
    const std::vector<unsigned char> oneByteSet = bytes("0001000100060103");
    EXPECT_FALSE(mbap_framing::protocolIdRefused(oneByteSet.data()));
    const std::vector<unsigned char> bothSet = bytes("0001010100060103");
    EXPECT_TRUE(mbap_framing::protocolIdRefused(bothSet.data()));
}

TEST(Confirmation, ChecksAnAnswerAsLibmodbusChecksIt) {
    struct Row {
        const char* request;
        int expectedLength;
        const char* reply;
        int result;
    };
    const Row rows[] = {
        {"0300000002", 6, "030400010002", 0},
        {"0300000002", 6, "0302000100", EMBBADDATA},    // wrong length
        {"0300000002", 6, "040400010002", EMBBADDATA},  // wrong function
        {"0100000009", 4, "0102ff01", 0},
        {"0100000009", 4, "0103ff01", EMBBADDATA},  // byte count of another quantity
        {"0300000002", 6, "8302", MODBUS_ENOBASE + 2},
        {"0300000002", 6, "8306", MODBUS_ENOBASE + 6},
        {"0300000002", 6, "8402", EMBBADEXC},  // another function's exception
        {"0300000002", 6, "83ff", EMBBADEXC},  // no exception code
        {"0300000002", 6, "830200", EMBBADEXC},
        {"10000a000204", 5, "10000a0002", 0},
        {"10000a000204", 5, "10000a0003", EMBBADDATA},
        {"06000a1234", 5, "06000a1234", 0},
    };
    for (const Row& row : rows) {
        const std::vector<unsigned char> request = bytes(row.request);
        const std::vector<unsigned char> reply = bytes(row.reply);
        EXPECT_EQ(confirmation::check(request.data(), row.expectedLength, reply.data(),
                                      static_cast<int>(reply.size())),
                  row.result)
            << row.request << " " << row.reply;
    }
    EXPECT_EQ(confirmation::bytesForBits(1), 1);
    EXPECT_EQ(confirmation::bytesForBits(8), 1);
    EXPECT_EQ(confirmation::bytesForBits(9), 2);
    EXPECT_EQ(confirmation::bytesForBits(2000), 250);
}

}  // namespace
