// Bad configuration files end zelt-modbus poll and write with the reader's message and exit 2, before a
// single connection reaches the device.

#include <gtest/gtest.h>

#include "tools/sim/simulator.h"
#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_modbus_test::runTool;
using zelt_modbus_test::writeFile;

struct Row {
    const char* name;
    const char* json;     // %1 is the simulator's port
    const char* message;  // %1 is the file's path
};

const Row kRows[] = {
    {"invalid JSON", R"({"devices": [{"id": 1, "address": "127.0.0.1" "settings": {}}]})",
     "zelt-modbus: %1: invalid JSON at line 1, column 48: unterminated object\n"},
    {"missing id", R"({"devices": [{"address": "127.0.0.1", "settings": {"port": "%1"}}]})",
     "zelt-modbus: %1: devices[0]: missing \"id\"\n"},
    {"missing address", R"({"devices": [{"id": 1, "settings": {"port": "%1"}}]})",
     "zelt-modbus: %1: devices[0]: missing \"address\"\n"},
    {"duplicate uid", R"({"devices": [{"id": 1, "address": "127.0.0.1", "settings": {"port": "%1"},
        "items": [{"uid": "t1", "settings": {"register": "40001"}}, {"uid": "t1", "settings": {"register": "40002"}}]}]})",
     "zelt-modbus: %1: devices[0].items[1]: duplicate uid \"t1\"\n"},
    {"setting not text", R"({"devices": [{"id": 1, "address": "127.0.0.1", "settings": {"port": %1}}]})",
     "zelt-modbus: %1: devices[0].settings.port: expected a text, not %2\n"},
};

class BadConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        ASSERT_TRUE(simulator.start());
    }
    QTemporaryDir dir;
    modbus_sim::Simulator simulator;
};

TEST_F(BadConfigTest, EachBadFileIsRefusedWithExitTwoAndNoTraffic) {
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        const QString path = dir.filePath(QStringLiteral("meter.json"));
        const QString port = QString::number(simulator.port());
        ASSERT_TRUE(
            writeFile(path, QString::fromUtf8(row.json).replace(QStringLiteral("%1"), port).toUtf8()));
        const QString expected = QString::fromUtf8(row.message)
                                     .replace(QStringLiteral("%1"), path)
                                     .replace(QStringLiteral("%2"), port);
        const QList<QStringList> commands{
            {QStringLiteral("poll"), QStringLiteral("--config"), path, QStringLiteral("--count"),
             QStringLiteral("1")},
            {QStringLiteral("write"), QStringLiteral("--config"), path, QStringLiteral("--device"),
             QStringLiteral("1"), QStringLiteral("--item"), QStringLiteral("t1"), QStringLiteral("--value"),
             QStringLiteral("1")}};
        for (const QStringList& arguments : commands) {
            SCOPED_TRACE(arguments.first().toStdString());
            const auto run = runTool(arguments);
            EXPECT_EQ(run.exitCode, 2);
            EXPECT_EQ(run.err, expected);
            EXPECT_EQ(run.out, QString());
        }
    }
    EXPECT_EQ(simulator.acceptedConnections(), 0);
    EXPECT_EQ(simulator.totalRequests(), 0);
}

TEST_F(BadConfigTest, AnUnreadableFileIsRefusedWithExitTwo) {
    const QString path = dir.filePath(QStringLiteral("missing.json"));
    const auto run = runTool({QStringLiteral("poll"), QStringLiteral("--config"), path});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.err, QStringLiteral("zelt-modbus: %1: cannot read: No such file or directory\n").arg(path));
}

}  // namespace
