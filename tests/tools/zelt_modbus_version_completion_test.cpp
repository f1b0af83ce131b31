// --version of zelt-modbus (before and after a command) and of modbus-sim, and the bash completion of
// zelt-modbus run by bash against the built tool.

#include <gtest/gtest.h>
#include <modbus.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTemporaryDir>

#include "tools/zelt_modbus_runner.h"

namespace {

using zelt_modbus_test::runProgram;
using zelt_modbus_test::runTool;
using zelt_modbus_test::ToolRun;

const char* const kCommands[] = {"demo", "poll",     "write",   "discover", "inspect",
                                 "map",  "simulate", "columns", "identify"};
constexpr int kBashTimeoutMs = 60000;

// The project version as the top-level CMakeLists.txt declares it, read independently of the tool.
QString projectVersion() {
    QFile file(QStringLiteral(ZELT_SOURCE_DIR "/CMakeLists.txt"));
    if (!file.open(QIODevice::ReadOnly)) return {};
    const QRegularExpression project(QStringLiteral(R"(project\(modbus_tcp VERSION ([0-9.]+))"));
    return project.match(QString::fromUtf8(file.readAll())).captured(1);
}

// The libmodbus this process runs with, which the tools run with too.
QString runtimeLibmodbus() {
    return QStringLiteral("%1.%2.%3")
        .arg(libmodbus_version_major)
        .arg(libmodbus_version_minor)
        .arg(libmodbus_version_micro);
}

QString expectedToolVersion() {
    return QStringLiteral(
               "zelt-modbus %1\n"
               "plugin modbus_tcp %1\n"
               "host contract 1.0.7\n"
               "libmodbus %2\n")
        .arg(projectVersion(), runtimeLibmodbus());
}

TEST(ZeltModbusVersion, TopLevelVersionPrintsOneFactALine) {
    ASSERT_FALSE(projectVersion().isEmpty());
    const ToolRun run = runTool({QStringLiteral("--version")});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out, expectedToolVersion());
    EXPECT_EQ(run.err, QString());
}

TEST(ZeltModbusVersion, EveryCommandAnswersVersionBeforeItsOwnOptions) {
    for (const char* name : kCommands) {
        SCOPED_TRACE(name);
        // --version wins over options the command would refuse or act on.
        const ToolRun run =
            runTool({QLatin1String(name), QStringLiteral("--bogus"), QStringLiteral("--version")});
        EXPECT_EQ(run.exitCode, 0);
        EXPECT_EQ(run.out, expectedToolVersion());
        EXPECT_EQ(run.err, QString());
    }
}

TEST(ZeltModbusVersion, UsageNamesVersion) {
    const ToolRun run = runTool({QStringLiteral("--help")});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.endsWith(QStringLiteral(
        "Run 'zelt-modbus COMMAND --help' for the options of a command, 'zelt-modbus --version' for "
        "the\nversions of the tool, the plugin, the host contract and libmodbus.\n")))
        << run.out.toStdString();
}

TEST(ModbusSimVersion, VersionNamesTheSimulatorAndLibmodbus) {
    const ToolRun run =
        runProgram(QStringLiteral(ZELT_BINARY_DIR "/tools/modbus-sim"), {QStringLiteral("--version")});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out,
              QStringLiteral("modbus-sim %1\nlibmodbus %2\n").arg(projectVersion(), runtimeLibmodbus()));
    EXPECT_EQ(run.err, QString());
}

// Runs the completion function the way bash does on <TAB> for `words` (the last one is the word under the
// cursor), with a `zelt-modbus` on PATH that runs the built tool, from `directory`. The candidates, sorted.
class ZeltModbusCompletion : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bin.isValid());
        ASSERT_TRUE(work.isValid());
        // A cross build's tool runs under its emulator; the wrapper hides that from the completion.
        QStringList command = zelt_test::commandFor(zelt_modbus_test::toolPath());
        for (QString& word : command) word = QStringLiteral("'%1'").arg(word);
        QFile wrapper(bin.filePath(QStringLiteral("zelt-modbus")));
        ASSERT_TRUE(wrapper.open(QIODevice::WriteOnly));
        wrapper.write(
            QStringLiteral("#!/bin/sh\nexec %1 \"$@\"\n").arg(command.join(QLatin1Char(' '))).toUtf8());
        wrapper.close();
        ASSERT_TRUE(wrapper.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    }

    QStringList complete(const QStringList& words) {
        const QString script = QStringLiteral(
            "source \"$1\"; shift\n"
            "COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1))\n"
            "_zelt_modbus\n"
            "[ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\\n' \"${COMPREPLY[@]}\"\n");
        QProcess bash;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PATH"),
                           bin.path() + QLatin1Char(':') + environment.value(QStringLiteral("PATH")));
        bash.setProcessEnvironment(environment);
        bash.setWorkingDirectory(work.path());
        bash.start(QStringLiteral("bash"),
                   QStringList{QStringLiteral("--norc"), QStringLiteral("--noprofile"), QStringLiteral("-c"),
                               script, QStringLiteral("bash"),
                               QStringLiteral(ZELT_SOURCE_DIR "/tools/completion/zelt-modbus.bash")} +
                       words);
        EXPECT_TRUE(bash.waitForFinished(kBashTimeoutMs));
        EXPECT_EQ(bash.exitCode(), 0);
        EXPECT_EQ(bash.readAllStandardError(), QByteArray());
        QStringList candidates =
            QString::fromUtf8(bash.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        candidates.sort();
        return candidates;
    }

    QTemporaryDir bin;
    QTemporaryDir work;
};

TEST_F(ZeltModbusCompletion, CompletesCommands) {
    EXPECT_EQ(complete({"zelt-modbus", "po"}), QStringList{"poll"});
    EXPECT_EQ(complete({"zelt-modbus", "d"}), (QStringList{"demo", "discover"}));
    EXPECT_EQ(complete({"zelt-modbus", ""}),
              (QStringList{"--help", "--version", "columns", "demo", "discover", "identify", "inspect", "map",
                           "poll", "simulate", "write"}));
    EXPECT_EQ(complete({"zelt-modbus", "--v"}), QStringList{"--version"});
}

TEST_F(ZeltModbusCompletion, CompletesOptionsOfTheCommand) {
    EXPECT_EQ(complete({"zelt-modbus", "inspect", "--tran"}), QStringList{"--transport"});
    EXPECT_EQ(complete({"zelt-modbus", "columns", ""}),
              (QStringList{"--help", "--json", "--plugin", "--version"}));
    // An option already given is not offered again.
    EXPECT_EQ(complete({"zelt-modbus", "poll", "--json", "--v"}), (QStringList{"--verbose", "--version"}));
    EXPECT_EQ(complete({"zelt-modbus", "poll", "--verbose", "--v"}), QStringList{"--version"});
}

TEST_F(ZeltModbusCompletion, OffersEveryOptionEachCommandsHelpLists) {
    const QRegularExpression optionLine(QStringLiteral("^  (--[a-z0-9-]+)"),
                                        QRegularExpression::MultilineOption);
    for (const char* name : kCommands) {
        SCOPED_TRACE(name);
        QStringList expected{QStringLiteral("--version")};
        const ToolRun help = runTool({QLatin1String(name), QStringLiteral("--help")});
        for (auto it = optionLine.globalMatch(help.out); it.hasNext();)
            expected.append(it.next().captured(1));
        expected.sort();
        EXPECT_GT(expected.size(), 2);
        EXPECT_EQ(complete({"zelt-modbus", name, "--"}), expected);
    }
}

TEST_F(ZeltModbusCompletion, CompletesTheChoicesAnOptionsHelpLists) {
    EXPECT_EQ(complete({"zelt-modbus", "simulate", "--transport", ""}), (QStringList{"rtu", "tcp"}));
    EXPECT_EQ(complete({"zelt-modbus", "simulate", "--transport", "r"}), QStringList{"rtu"});
    EXPECT_EQ(complete({"zelt-modbus", "discover", "--transport", ""}), (QStringList{"tcp", "tls"}));
    // --option=value: bash splits the word at "=".
    EXPECT_EQ(complete({"zelt-modbus", "map", "--transport", "=", "r"}), QStringList{"rtu"});
    EXPECT_EQ(complete({"zelt-modbus", "simulate", "--transport", "="}), (QStringList{"rtu", "tcp"}));
    EXPECT_EQ(complete({"zelt-modbus", "simulate", "--dead-unit-reply", ""}),
              (QStringList{"gateway_exception", "silence"}));
    EXPECT_EQ(complete({"zelt-modbus", "simulate", "--tls-fault", "w"}),
              (QStringList{"wrong_ca", "wrong_name"}));
    EXPECT_EQ(complete({"zelt-modbus", "simulate", "--tls-fault", ""}),
              (QStringList{"expired_certificate", "no_client_certificate_demanded", "plain_tcp",
                           "stall_handshake", "wrong_ca", "wrong_name"}));
    // A text that merely contains "or" is no list.
    EXPECT_EQ(complete({"zelt-modbus", "inspect", "--tls-server-name", ""}), QStringList());
}

TEST_F(ZeltModbusCompletion, CompletesTablesAndRegisterTypes) {
    EXPECT_EQ(complete({"zelt-modbus", "map", "--tables", ""}),
              (QStringList{"coils", "discrete", "holding", "input"}));
    EXPECT_EQ(complete({"zelt-modbus", "map", "--tables", "holding,"}),
              (QStringList{"holding,coils", "holding,discrete", "holding,input"}));
    EXPECT_EQ(complete({"zelt-modbus", "map", "--tables", "holding,input,c"}),
              QStringList{"holding,input,coils"});
    EXPECT_EQ(complete({"zelt-modbus", "inspect", "--register-type", ""}),
              (QStringList{"0", "1", "2", "3", "4"}));
}

TEST_F(ZeltModbusCompletion, CompletesFilesAndNothingForOtherValues) {
    for (const char* file : {"meter.json", "map.json"}) {
        QFile touched(work.filePath(QLatin1String(file)));
        ASSERT_TRUE(touched.open(QIODevice::WriteOnly));
    }
    EXPECT_EQ(complete({"zelt-modbus", "poll", "--config", "me"}), QStringList{"meter.json"});
    EXPECT_EQ(complete({"zelt-modbus", "simulate", "--map", "m"}), (QStringList{"map.json", "meter.json"}));
    ASSERT_TRUE(QDir(work.path()).mkdir(QStringLiteral("kit")));
    EXPECT_EQ(complete({"zelt-modbus", "simulate", "--tls", ""}), QStringList{"kit"});
    // A number, an address or a text has no candidates, and no option is offered in its place.
    EXPECT_EQ(complete({"zelt-modbus", "poll", "--count", ""}), QStringList());
    EXPECT_EQ(complete({"zelt-modbus", "inspect", "--address", ""}), QStringList());
    // Flags take no value: the next word is an option again.
    EXPECT_EQ(complete({"zelt-modbus", "discover", "--json", "--rtu"}), QStringList{"--rtu-over-tcp"});
}

}  // namespace
