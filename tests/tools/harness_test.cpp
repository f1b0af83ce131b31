// The developer harness against a simulator at its compiled-in address, 127.0.0.1:502.
#include <gtest/gtest.h>

#include <QProcess>
#include <QString>
#include <chrono>
#include <thread>

#include "common/program_command.h"
#include "tools/sim/simulator.h"

namespace {

constexpr int kFirstLoopTimeoutMs = 20000;

TEST(Harness, WritesThenReadsAndPrintsTheFirstValueAndTheBatchError) {
    modbus_sim::Simulator sim;
    QString error;
    ASSERT_TRUE(sim.start(QStringLiteral("127.0.0.1"), 502, &error)) << error.toStdString();

    QProcess harness;
    zelt_test::startProgram(harness, QStringLiteral(ZELT_BINARY_DIR "/tools/modbus-harness"), QStringList());
    ASSERT_TRUE(harness.waitForStarted(kFirstLoopTimeoutMs));
    QString printed;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kFirstLoopTimeoutMs);
    while (!printed.contains(QLatin1String("Error:")) && std::chrono::steady_clock::now() < deadline) {
        harness.waitForReadyRead(100);
        printed += QString::fromUtf8(harness.readAllStandardError());
    }
    harness.kill();
    harness.waitForFinished(kFirstLoopTimeoutMs);

    EXPECT_EQ(printed, QStringLiteral("VALUE 0: 107\nError:\n"));
    // Little endian with swapped bytes is the plain word swap: 107 lands in the first register.
    EXPECT_EQ(sim.holdingRegisters(0, 2), (std::vector<uint16_t>{0x006B, 0x0000}));
    std::vector<std::tuple<int, int, int>> requests;
    for (const modbus_sim::RequestRecord& record : sim.requestLog())
        if (record.function == 3 || record.function == 6)
            requests.emplace_back(record.function, record.address, record.count);
    // The whole batch is written with single-register writes (no "write_preset"); the items without a value
    // write 0. Then the four items are read in the fewest requests of at most 20 registers: the first takes
    // every item that ends within 20 registers of its start, the second the rest.
    EXPECT_EQ(requests, (std::vector<std::tuple<int, int, int>>{{6, 0, -1},
                                                                {6, 1, -1},
                                                                {6, 2, -1},
                                                                {6, 3, -1},
                                                                {6, 18, -1},
                                                                {6, 24, -1},
                                                                {3, 0, 19},
                                                                {3, 24, 1}}));
}

}  // namespace
