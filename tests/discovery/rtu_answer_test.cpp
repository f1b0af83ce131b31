// Finding one unit's answer among the bytes an RTU-over-TCP link delivers.
#include "discovery/rtu_answer.h"

#include <gtest/gtest.h>

#include <QByteArray>

#include "discovery/frames.h"

namespace {

using ModbusDiscovery::findRtuAnswer;

constexpr quint8 kUnit = 3;
constexpr quint8 kFcReportSlaveId = 0x11;
constexpr quint8 kFcMei = 0x2B;

QByteArray frame(quint8 unit, const QByteArray& pdu) {
    return ModbusDiscovery::wrapRtu(unit, pdu);
}

// Report Slave ID answer: byte count 10, slave id 1, run indicator on, then the text.
QByteArray slaveIdPdu() {
    return QByteArray::fromHex("110a01ff") + "Meter R7";
}

// Read Device Identification answer, basic objects, no more to follow: vendor ACME and product code X-1.
QByteArray deviceIdPdu() {
    return QByteArray::fromHex("2b0e010100000200") + '\x04' + "ACME" + QByteArray::fromHex("0103") + "X-1";
}

TEST(FindRtuAnswer, FindsAWholeAnswerAndHandsBackItsPdu) {
    QByteArray pdu;
    EXPECT_TRUE(findRtuAnswer(frame(kUnit, slaveIdPdu()), kUnit, kFcReportSlaveId, &pdu));
    EXPECT_EQ(pdu, slaveIdPdu());
    EXPECT_TRUE(findRtuAnswer(frame(kUnit, slaveIdPdu()), kUnit, kFcReportSlaveId, nullptr));

    EXPECT_TRUE(findRtuAnswer(frame(kUnit, deviceIdPdu()), kUnit, kFcMei, &pdu));
    EXPECT_EQ(pdu, deviceIdPdu());
}

TEST(FindRtuAnswer, AcceptsTheExceptionOfTheRequestedFunction) {
    QByteArray pdu;
    EXPECT_TRUE(findRtuAnswer(frame(kUnit, QByteArray::fromHex("ab01")), kUnit, kFcMei, &pdu));
    EXPECT_EQ(pdu, QByteArray::fromHex("ab01"));
    EXPECT_TRUE(findRtuAnswer(frame(kUnit, QByteArray::fromHex("9101")), kUnit, kFcReportSlaveId, &pdu));
    EXPECT_EQ(pdu, QByteArray::fromHex("9101"));
    // The exception of another function is no answer to this one.
    EXPECT_FALSE(findRtuAnswer(frame(kUnit, QByteArray::fromHex("9101")), kUnit, kFcMei, &pdu));
}

TEST(FindRtuAnswer, SkipsHeartbeatsOtherUnitsAndOtherFunctions) {
    const QByteArray stream = QByteArray("HB\r\n") + frame(5, slaveIdPdu()) +
                              frame(kUnit, QByteArray::fromHex("03020007")) + frame(kUnit, slaveIdPdu()) +
                              QByteArray("HB\r\n");
    QByteArray pdu;
    EXPECT_TRUE(findRtuAnswer(stream, kUnit, kFcReportSlaveId, &pdu));
    EXPECT_EQ(pdu, slaveIdPdu());
    EXPECT_FALSE(findRtuAnswer(stream, 4, kFcReportSlaveId, &pdu));
}

TEST(FindRtuAnswer, AFalseStartAnnouncingMoreBytesDoesNotHideTheAnswer) {
    // Unit 3, function 17 and a byte count of 64: the start of a frame that never comes.
    const QByteArray stream = QByteArray::fromHex("031140") + frame(kUnit, slaveIdPdu());
    QByteArray pdu;
    EXPECT_TRUE(findRtuAnswer(stream, kUnit, kFcReportSlaveId, &pdu));
    EXPECT_EQ(pdu, slaveIdPdu());
}

TEST(FindRtuAnswer, AnIncompleteOrDamagedFrameIsNoAnswer) {
    const QByteArray whole = frame(kUnit, slaveIdPdu());
    QByteArray pdu = "untouched";
    EXPECT_FALSE(findRtuAnswer(whole.left(whole.size() - 1), kUnit, kFcReportSlaveId, &pdu));
    EXPECT_EQ(pdu, "untouched");
    QByteArray damaged = whole;
    damaged[5] = static_cast<char>(damaged.at(5) ^ 0x01);
    EXPECT_FALSE(findRtuAnswer(damaged, kUnit, kFcReportSlaveId, &pdu));
    EXPECT_FALSE(findRtuAnswer(QByteArray(), kUnit, kFcReportSlaveId, &pdu));
    EXPECT_FALSE(findRtuAnswer(QByteArray(1, static_cast<char>(kUnit)), kUnit, kFcReportSlaveId, &pdu));
    EXPECT_EQ(pdu, "untouched");
}

TEST(FindRtuAnswer, ADeviceIdAnswerIsSizedByItsObjects) {
    // The object count says three, but only two objects come before the CRC.
    QByteArray shortOfAnObject = deviceIdPdu();
    shortOfAnObject[6] = '\x03';
    EXPECT_FALSE(findRtuAnswer(frame(kUnit, shortOfAnObject), kUnit, kFcMei, nullptr));
    // Another MEI type than Read Device Identification.
    QByteArray otherMei = deviceIdPdu();
    otherMei[1] = '\x0d';
    EXPECT_FALSE(findRtuAnswer(frame(kUnit, otherMei), kUnit, kFcMei, nullptr));
    // No objects at all is a whole answer of ten bytes.
    const QByteArray empty = QByteArray::fromHex("2b0e0101000000");
    QByteArray pdu;
    EXPECT_TRUE(findRtuAnswer(frame(kUnit, empty), kUnit, kFcMei, &pdu));
    EXPECT_EQ(pdu, empty);
}

TEST(FindRtuAnswer, ReadAnswersAreSizedByTheirByteCount) {
    QByteArray pdu;
    EXPECT_TRUE(findRtuAnswer(frame(kUnit, QByteArray::fromHex("03020007")), kUnit, 0x03, &pdu));
    EXPECT_EQ(pdu, QByteArray::fromHex("03020007"));
    EXPECT_TRUE(findRtuAnswer(frame(kUnit, QByteArray::fromHex("010101")), kUnit, 0x01, &pdu));
    EXPECT_EQ(pdu, QByteArray::fromHex("010101"));
    // A function whose answer size is not known here is never taken for an answer.
    EXPECT_FALSE(findRtuAnswer(frame(kUnit, QByteArray::fromHex("1000000001")), kUnit, 0x10, &pdu));
}

}  // namespace
