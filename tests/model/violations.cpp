#include "model/violations.h"

namespace model_check {

void Violations::add(Check check, const QString& message) {
    std::lock_guard<std::mutex> lock(mutex);
    ++total;
    ++byCheck[check];
    if (messages.size() < kKeptMessages) messages.append(QStringLiteral("[%1] %2").arg(name(check), message));
}

int Violations::count() const {
    std::lock_guard<std::mutex> lock(mutex);
    return total;
}

std::map<Check, int> Violations::counts() const {
    std::lock_guard<std::mutex> lock(mutex);
    return byCheck;
}

QStringList Violations::first() const {
    std::lock_guard<std::mutex> lock(mutex);
    return messages;
}

QString Violations::name(Check check) {
    switch (check) {
        case Check::Value:
            return QStringLiteral("value");
        case Check::Unvalued:
            return QStringLiteral("unvalued");
        case Check::ItemError:
            return QStringLiteral("item-error");
        case Check::PollResult:
            return QStringLiteral("poll-result");
        case Check::WriteResult:
            return QStringLiteral("write-result");
        case Check::Unit:
            return QStringLiteral("unit");
        case Check::Range:
            return QStringLiteral("range");
        case Check::Gaps:
            return QStringLiteral("gaps");
        case Check::Retries:
            return QStringLiteral("retries");
        case Check::OneAtATime:
            return QStringLiteral("one-at-a-time");
        case Check::WriteRequest:
            return QStringLiteral("write-request");
        case Check::MaskWrite:
            return QStringLiteral("mask-write");
        case Check::WriteEffect:
            return QStringLiteral("write-effect");
        case Check::Tables:
            return QStringLiteral("tables");
        case Check::Connections:
            return QStringLiteral("connections");
    }
    return QStringLiteral("?");
}

}  // namespace model_check
