// The JSON line of a poll is written without building a document; it must be byte for byte the compact text
// QJsonDocument gives for the same object, whatever the texts hold.
#include "tools/zelt-modbus/poll_json.h"

#include <gtest/gtest.h>

#include <QJsonDocument>
#include <string>

namespace {

using zelt_cli::BatchResult;
using zelt_cli::ItemResult;

std::string documentLine(int poll, const BatchResult& result) {
    return QJsonDocument(zelt_cli::pollToJson(poll, result)).toJson(QJsonDocument::Compact).toStdString() +
           "\n";
}

std::string writtenLine(int poll, const BatchResult& result) {
    std::string line;
    zelt_cli::appendPollJsonLine(line, poll, result);
    return line;
}

ItemResult item(const QString& uid, const QString& value, const QString& error, const QDateTime& timestamp) {
    ItemResult result;
    result.uid = uid;
    result.name = uid + QStringLiteral(" name");
    result.value = value;
    result.error = error;
    result.timestamp = timestamp;
    return result;
}

const QDateTime kFirstTime = QDateTime::fromMSecsSinceEpoch(1795000000123, Qt::UTC);
const QDateTime kSecondTime = QDateTime::fromMSecsSinceEpoch(1795000000999, Qt::UTC);

TEST(PollJsonLine, PlainPollIsTheDocumentsCompactLine) {
    BatchResult result;
    result.deviceId = 7;
    result.deviceName = QStringLiteral("meter");
    result.ok = true;
    result.items = {item(QStringLiteral("voltage"), QStringLiteral("230.5"), QString(), kFirstTime),
                    item(QStringLiteral("energy"), QStringLiteral("-12"), QString(), kFirstTime)};
    const std::string expected =
        "{\"device\":7,\"error\":\"\",\"items\":[{\"error\":\"\",\"name\":\"voltage name\",\"timestamp\":"
        "\"2026-11-18T11:06:40.123Z\",\"uid\":\"voltage\",\"value\":\"230.5\"},{\"error\":\"\",\"name\":"
        "\"energy name\",\"timestamp\":\"2026-11-18T11:06:40.123Z\",\"uid\":\"energy\",\"value\":\"-12\"}],"
        "\"name\":\"meter\",\"ok\":true,\"poll\":3}\n";
    EXPECT_EQ(writtenLine(3, result), expected);
    EXPECT_EQ(documentLine(3, result), expected);
}

TEST(PollJsonLine, EscapesAndNonAsciiTextsAsTheDocumentDoes) {
    BatchResult result;
    result.deviceId = -1;
    result.deviceName = QStringLiteral("Zähler \"Halle 3\" \\ Ω");
    result.error = QStringLiteral("line\nbreak\ttab\rreturn\bback\fform\x01\x1f end");
    result.items = {
        item(QStringLiteral("emoji"), QString::fromUtf8("\xF0\x9F\x94\x8C plug"), QString(), kFirstTime),
        item(QStringLiteral("lone high"), QString(QChar(0xD83D)) + QStringLiteral("x"), QString(),
             kSecondTime),
        item(QStringLiteral("lone low"), QString(QChar(0xDC0C)), QStringLiteral("\x7f delete"), kSecondTime),
        item(QStringLiteral("nul"), QString(QChar(0)) + QStringLiteral("a"), QStringLiteral("€ 3 bytes"),
             kFirstTime)};
    EXPECT_EQ(writtenLine(12345, result), documentLine(12345, result));
    // Spelled out, so that a change of Qt's own writer cannot carry both sides along with it.
    const std::string line = writtenLine(12345, result);
    EXPECT_NE(line.find("\"error\":\"line\\nbreak\\ttab\\rreturn\\bback\\fform\\u0001\\u001f end\""),
              std::string::npos);
    EXPECT_NE(line.find("\"name\":\"Z\xC3\xA4hler \\\"Halle 3\\\" \\\\ \xCE\xA9\""), std::string::npos);
    EXPECT_NE(line.find("\"value\":\"\xF0\x9F\x94\x8C plug\""), std::string::npos);
    EXPECT_NE(line.find("\"value\":\"\\ud83dx\""), std::string::npos);
    EXPECT_NE(line.find("\"value\":\"\\udc0c\""), std::string::npos);
    EXPECT_NE(line.find("\"value\":\"\\u0000a\""), std::string::npos);
    EXPECT_NE(line.find("\"timestamp\":\"2026-11-18T11:06:40.999Z\""), std::string::npos);
}

TEST(PollJsonLine, FailedPollWithoutItemsAndAnInvalidTime) {
    BatchResult result;
    result.deviceId = 2;
    result.error = QStringLiteral("Connection refused");
    EXPECT_EQ(writtenLine(1, result),
              "{\"device\":2,\"error\":\"Connection refused\",\"items\":[],\"name\":\"\",\"ok\":false,"
              "\"poll\":1}\n");
    result.items = {
        item(QStringLiteral("a"), QString(), QStringLiteral("Illegal data address"), QDateTime())};
    EXPECT_EQ(writtenLine(1, result), documentLine(1, result));
}

TEST(PollJsonLine, LongTextsGrowTheLineBeyondItsFirstGuess) {
    BatchResult result;
    result.deviceId = 4;
    result.deviceName = QString(500, QChar(0x2603));  // three UTF-8 bytes each
    for (int i = 0; i < 40; ++i)
        result.items.append(item(QStringLiteral("u%1").arg(i), QString(300 + i, QLatin1Char('\n')),
                                 QString(i, QChar(0x00e9)), i % 2 ? kFirstTime : kSecondTime));
    const std::string line = writtenLine(2, result);
    EXPECT_EQ(line, documentLine(2, result));
    EXPECT_GT(line.size(), 40u * 600u);
}

TEST(PollJsonLine, AppendsToWhatTheLineHolds) {
    BatchResult result;
    result.deviceId = 1;
    std::string line = "before\n";
    zelt_cli::appendPollJsonLine(line, 9, result);
    EXPECT_EQ(line,
              "before\n{\"device\":1,\"error\":\"\",\"items\":[],\"name\":\"\",\"ok\":false,\"poll\":9}\n");
}

}  // namespace
