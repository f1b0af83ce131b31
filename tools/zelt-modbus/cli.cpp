#include "tools/zelt-modbus/cli.h"

#include <algorithm>

#include "tools/zelt-modbus/plugin_loader.h"

namespace zelt_cli {

CommandLine::CommandLine(QString name, QString summary)
    : commandName(std::move(name)), commandSummary(std::move(summary)) {
    addOption(QStringLiteral("plugin"), QStringLiteral("PATH"), QStringLiteral("plugin file to load"));
    addFlag(QStringLiteral("help"), QStringLiteral("show this help"));
}

void CommandLine::addFlag(const QString& name, const QString& help) {
    specs.append({name, QString(), help});
}

void CommandLine::addOption(const QString& name, const QString& valueName, const QString& help) {
    specs.append({name, valueName, help});
}

bool CommandLine::parse(const QStringList& arguments, int* exitCode) {
    QTextStream err(stderr);
    for (int i = 0; i < arguments.size(); ++i) {
        const QString argument = arguments.at(i);
        QString name = argument.startsWith(QLatin1String("--")) ? argument.mid(2) : QString();
        QString inlineValue;
        bool hasInlineValue = false;
        if (const int equals = name.indexOf(QLatin1Char('=')); equals >= 0) {
            inlineValue = name.mid(equals + 1);
            name = name.left(equals);
            hasInlineValue = true;
        }
        auto spec = std::find_if(specs.cbegin(), specs.cend(), [&](const Spec& s) { return s.name == name; });
        if (name.isEmpty() || spec == specs.cend()) {
            err << "zelt-modbus " << commandName << ": unknown argument " << argument << "\n" << usage();
            *exitCode = kExitUsage;
            return false;
        }
        if (spec->valueName.isEmpty()) {
            flags.append(name);
            continue;
        }
        if (!hasInlineValue) {
            if (i + 1 >= arguments.size()) {
                err << "zelt-modbus " << commandName << ": --" << name << " needs a value\n" << usage();
                *exitCode = kExitUsage;
                return false;
            }
            inlineValue = arguments.at(++i);
        }
        values.insert(name, inlineValue);
    }
    if (flag(QStringLiteral("help"))) {
        QTextStream(stdout) << usage();
        *exitCode = 0;
        return false;
    }
    return true;
}

QString CommandLine::pluginPath() const {
    return value(QStringLiteral("plugin"), defaultPluginPath());
}

QString CommandLine::usage() const {
    QString text =
        QStringLiteral("Usage: zelt-modbus %1 [options]\n%2\n\nOptions:\n").arg(commandName, commandSummary);
    for (const Spec& spec : specs) {
        const QString left = spec.valueName.isEmpty()
                                 ? QStringLiteral("--%1").arg(spec.name)
                                 : QStringLiteral("--%1 %2").arg(spec.name, spec.valueName);
        text += QStringLiteral("  %1  %2\n").arg(left, -24).arg(spec.help);
    }
    return text;
}

Table::Table(QStringList header) {
    rows.append(std::move(header));
}

void Table::addRow(QStringList row) {
    rows.append(std::move(row));
}

void Table::print(QTextStream& out) const {
    QList<int> widths;
    for (const QStringList& row : rows) {
        for (int i = 0; i < row.size(); ++i) {
            if (widths.size() <= i) widths.append(0);
            widths[i] = std::max(widths[i], static_cast<int>(row.at(i).size()));
        }
    }
    for (int r = 0; r < rows.size(); ++r) {
        QStringList cells;
        for (int i = 0; i < rows.at(r).size(); ++i)
            cells.append(i + 1 == rows.at(r).size() ? rows.at(r).at(i)
                                                    : rows.at(r).at(i).leftJustified(widths[i]));
        // Padding after the last non-empty cell would only leave trailing blanks.
        QString line = QStringLiteral("  ") + cells.join(QStringLiteral("  "));
        while (line.endsWith(QLatin1Char(' '))) line.chop(1);
        out << line << "\n";
        if (r == 0) {
            QStringList rules;
            for (int width : widths) rules.append(QString(width, QLatin1Char('-')));
            out << "  " << rules.join(QStringLiteral("  ")) << "\n";
        }
    }
}

bool readNumberOption(const CommandLine& command, const QString& name, int minimum, int fallback, int* out) {
    if (!command.has(name)) {
        *out = fallback;
        return true;
    }
    bool ok = false;
    *out = command.value(name).toInt(&ok);
    if (ok && *out >= minimum) return true;
    QTextStream(stderr) << "zelt-modbus: --" << name << " needs a whole number of at least " << minimum
                        << ", not \"" << command.value(name) << "\"\n"
                        << command.usage();
    return false;
}

int fail(const QString& message, int exitCode) {
    QTextStream(stderr) << "zelt-modbus: " << message << "\n";
    return exitCode;
}

}  // namespace zelt_cli
