#pragma once
// What the checks found, from any thread: each violation with the check it broke and a readable account.

#include <QString>
#include <QStringList>
#include <map>
#include <mutex>

namespace model_check {

enum class Check {
    Value,         // a value differs from the model's
    Unvalued,      // an item of a poll that reached its device has neither value nor error
    ItemError,     // an item error differs from the expected one
    PollResult,    // readData's result or the device error differs
    WriteResult,   // writeData's result or the device error differs
    Unit,          // a request carried another unit than its device's
    Range,         // a read outside the device's items of that table, or of a table no item names
    Gaps,          // with "read_gaps" 0, a read of an address no item covers
    Retries,       // a read sent more often than "retries" allows
    OneAtATime,    // over RTU, a request sent before the one before it on its connection was answered
    WriteRequest,  // a write request its items do not explain (function, address)
    MaskWrite,     // "mask_write" 1 and no FC 22 for a bit of a register
    WriteEffect,   // a write changed other registers or bits than its items name, or not these
    Tables,        // a table of the simulator differs from the model after a phase
    Connections,   // connections still open after stopPlugin
};

class Violations {
public:
    void add(Check check, const QString& message);
    int count() const;
    std::map<Check, int> counts() const;
    // The first violations in full, for the failure message.
    QStringList first() const;

    static QString name(Check check);

private:
    static constexpr int kKeptMessages = 25;

    mutable std::mutex mutex;
    std::map<Check, int> byCheck;
    QStringList messages;
    int total = 0;
};

}  // namespace model_check
