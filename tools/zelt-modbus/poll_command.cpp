#include <QTextStream>
#include <cstdio>
#include <string>

#include "tools/zelt-modbus/batch_output.h"
#include "tools/zelt-modbus/cli.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/interrupt.h"
#include "tools/zelt-modbus/session.h"

namespace zelt_cli {

namespace {

constexpr int kDefaultIntervalMs = 1000;

}  // namespace

int runPoll(const QStringList& arguments) {
    CommandLine command(
        QStringLiteral("poll"),
        QStringLiteral("Polls every device of the configuration, as the host does, and prints the "
                       "values.\nExits 0 when every poll succeeded, 1 otherwise."));
    command.addOption(QStringLiteral("config"), QStringLiteral("FILE"),
                      QStringLiteral("configuration file (JSON)"));
    command.addOption(QStringLiteral("count"), QStringLiteral("N"),
                      QStringLiteral("number of polls (default: until interrupted)"));
    command.addOption(QStringLiteral("interval"), QStringLiteral("MS"),
                      QStringLiteral("time between the starts of two polls (default 1000)"));
    command.addFlag(QStringLiteral("json"), QStringLiteral("one JSON object per line per device and poll"));
    command.addFlag(QStringLiteral("verbose"), QStringLiteral("also print the plugin's debug log"));
    if (int exitCode = 0; !command.parse(arguments, &exitCode)) return exitCode;
    if (!command.has(QStringLiteral("config"))) {
        QTextStream(stderr) << "zelt-modbus poll: --config is required\n" << command.usage();
        return kExitUsage;
    }
    int count = 0;
    int intervalMs = 0;
    if (!readNumberOption(command, QStringLiteral("count"), 1, 0, &count) ||
        !readNumberOption(command, QStringLiteral("interval"), 0, kDefaultIntervalMs, &intervalMs))
        return kExitUsage;

    Config config;
    QString error;
    if (!readConfigFile(command.value(QStringLiteral("config")), &config, &error))
        return fail(error, kExitUsage);

    installInterruptHandler();
    PluginSession session;
    session.setVerbose(command.flag(QStringLiteral("verbose")));
    if (!session.start(command.pluginPath(), config, &error)) return fail(error);

    QTextStream out(stdout);
    const bool json = command.flag(QStringLiteral("json"));
    std::string line;  // reused: its capacity stays from one poll to the next
    bool allOk = true;
    for (int poll = 1; count == 0 || poll <= count; ++poll) {
        if (poll > 1 && !sleepUnlessInterrupted(intervalMs)) break;
        for (const DeviceConfig& device : session.config().devices) {
            if (interrupted()) break;
            const BatchResult result = session.poll(device);
            allOk = allOk && result.ok;
            if (json) {
                line.clear();
                appendPollJsonLine(line, poll, result);
                std::fwrite(line.data(), 1, line.size(), stdout);
                std::fflush(stdout);
            } else {
                printPoll(out, poll, result);
            }
        }
        if (interrupted()) break;
    }
    session.stop();
    return allOk ? 0 : 1;
}

}  // namespace zelt_cli
