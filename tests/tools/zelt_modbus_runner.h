#pragma once
// Runs the zelt-modbus executable for the command-line tests and reads what it printed.

#include <QByteArray>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <ostream>

#include "common/program_command.h"

// Readable failure messages for texts.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

namespace zelt_modbus_test {

inline QString toolPath() {
    return QStringLiteral(ZELT_BINARY_DIR "/tools/zelt-modbus");
}

// Hang guard: a healthy run over loopback ends in well under a second per poll.
constexpr int kRunTimeoutMs = 60000;
constexpr int kNotStarted = -1000;
constexpr int kTimedOut = -1001;

struct ToolRun {
    int exitCode = kNotStarted;
    QString out;
    QString err;
};

inline ToolRun runProgram(const QString& program, const QStringList& arguments,
                          int timeoutMs = kRunTimeoutMs) {
    QProcess process;
    zelt_test::startProgram(process, program, arguments);
    ToolRun run;
    if (!process.waitForStarted(timeoutMs)) return run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(timeoutMs);
        run.exitCode = kTimedOut;
    } else {
        run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : kTimedOut;
    }
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

inline ToolRun runTool(const QStringList& arguments, int timeoutMs = kRunTimeoutMs) {
    return runProgram(toolPath(), arguments, timeoutMs);
}

// Every non-empty output line parsed as a JSON object; a line that is no object gives an empty one.
inline QList<QJsonObject> jsonLines(const QString& text) {
    QList<QJsonObject> objects;
    for (const QString& line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        objects.append(QJsonDocument::fromJson(line.toUtf8()).object());
    return objects;
}

// The JSON lines of `poll`, which polls each device from a thread of its own: a device's lines must come in
// its poll order; lines of different devices interleave as they come. Returned sorted by poll, then device.
inline QList<QJsonObject> pollLines(const QString& text) {
    QList<QJsonObject> lines = jsonLines(text);
    QMap<int, int> lastPollOfDevice;
    for (const QJsonObject& line : lines) {
        const int device = line.value(QStringLiteral("device")).toInt();
        const int poll = line.value(QStringLiteral("poll")).toInt();
        EXPECT_LT(lastPollOfDevice.value(device, 0), poll) << "device " << device << " poll " << poll;
        lastPollOfDevice[device] = poll;
    }
    std::stable_sort(lines.begin(), lines.end(), [](const QJsonObject& a, const QJsonObject& b) {
        const int pollA = a.value(QStringLiteral("poll")).toInt();
        const int pollB = b.value(QStringLiteral("poll")).toInt();
        if (pollA != pollB) return pollA < pollB;
        return a.value(QStringLiteral("device")).toInt() < b.value(QStringLiteral("device")).toInt();
    });
    return lines;
}

// The item with `uid` in a poll line's "items"; empty when absent.
inline QJsonObject itemOf(const QJsonObject& pollLine, const QString& uid) {
    for (const QJsonValue& item : pollLine.value(QStringLiteral("items")).toArray())
        if (item.toObject().value(QStringLiteral("uid")).toString() == uid) return item.toObject();
    return {};
}

inline QStringList uidsOf(const QJsonObject& pollLine) {
    QStringList uids;
    for (const QJsonValue& item : pollLine.value(QStringLiteral("items")).toArray())
        uids.append(item.toObject().value(QStringLiteral("uid")).toString());
    return uids;
}

inline bool writeFile(const QString& path, const QByteArray& content) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) return false;
    return file.write(content) == content.size();
}

}  // namespace zelt_modbus_test
