#pragma once
// What the simulator tests share: the fault selector cases (for faults added in code and from a map file) and
// starting the modbus-sim program.

#include <QProcess>
#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <cstdint>

#include "common/program_command.h"
#include "tools/simulator_raw_client.h"

namespace simulator_test {

const QString kSimulatorProgram = QStringLiteral(ZELT_BINARY_DIR "/tools/modbus-sim");

// Requests against an exception rule for unit 2, function 3, address 10 (code 2), and the PDU each gets.
struct SelectorCase {
    const char* name;
    uint8_t unit;
    const char* pdu;
    const char* answerPdu;
};

constexpr SelectorCase kSelectorCases[] = {
    {"covers the address", 2, "0300080004", "8302"},
    {"starts at the address", 2, "03000a0001", "8302"},
    {"ends before the address", 2, "0300080002", "030400000000"},
    {"starts after the address", 2, "03000b0001", "03020000"},
    {"other unit", 1, "03000a0001", "03020000"},
    {"other function", 2, "04000a0001", "04020000"},
};

// Starts modbus-sim on a free port of 127.0.0.1 with the given arguments; the port it reports, or 0.
inline uint16_t startSimulatorProgram(QProcess& process, const QStringList& arguments) {
    zelt_test::startProgram(process, kSimulatorProgram,
                            arguments + QStringList{QStringLiteral("--port"), QStringLiteral("0")});
    if (!process.waitForReadyRead(kAnswerWaitMs)) return 0;
    const QString line = QString::fromUtf8(process.readLine()).trimmed();
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("^listening on 127\\.0\\.0\\.1:(\\d+)$")).match(line);
    return match.hasMatch() ? static_cast<uint16_t>(match.captured(1).toInt()) : 0;
}

}  // namespace simulator_test
