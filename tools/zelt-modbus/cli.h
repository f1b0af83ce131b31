#pragma once
// Command-line plumbing shared by the subcommands of zelt-modbus: option parsing, tables, errors.

#include <QMap>
#include <QString>
#include <QStringList>
#include <QTextStream>

namespace zelt_cli {

constexpr int kExitUsage = 2;

// Options of one subcommand. Every subcommand also takes --plugin PATH and --help.
class CommandLine {
public:
    CommandLine(QString name, QString summary);

    void addFlag(const QString& name, const QString& help);
    void addOption(const QString& name, const QString& valueName, const QString& help);

    // False when the caller should exit with *exitCode (after --help: 0; after a usage error: 2).
    bool parse(const QStringList& arguments, int* exitCode);

    bool flag(const QString& name) const { return flags.contains(name); }
    bool has(const QString& name) const { return values.contains(name); }
    QString value(const QString& name, const QString& fallback = QString()) const {
        return values.value(name, fallback);
    }
    QString pluginPath() const;
    QString usage() const;

private:
    struct Spec {
        QString name;
        QString valueName;  // empty for flags
        QString help;
    };
    QString commandName;
    QString commandSummary;
    QList<Spec> specs;
    QStringList flags;
    QMap<QString, QString> values;
};

// A plain text table with columns padded to their widest cell.
class Table {
public:
    explicit Table(QStringList header);
    void addRow(QStringList row);
    void print(QTextStream& out) const;

private:
    QList<QStringList> rows;
};

// Reads the whole-number option `name` (at least `minimum`; `fallback` when absent). False after printing the
// problem and the usage; the caller exits with kExitUsage.
bool readNumberOption(const CommandLine& command, const QString& name, int minimum, int fallback, int* out);

// Prints "zelt-modbus: <message>" to standard error and returns 1.
int fail(const QString& message, int exitCode = 1);

int runColumns(const QStringList& arguments);
int runDemo(const QStringList& arguments);
int runPoll(const QStringList& arguments);
int runWrite(const QStringList& arguments);
int runDiscover(const QStringList& arguments);
int runSimulate(const QStringList& arguments);
int runInspect(const QStringList& arguments);
int runMap(const QStringList& arguments);
int runIdentify(const QStringList& arguments);

}  // namespace zelt_cli
