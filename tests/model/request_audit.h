#pragma once
// The requests the simulator received, held against the devices that may have sent them: the unit each
// carries, the table and addresses it reads, the registers and bits it writes, and how often it went out.

#include <QString>
#include <set>
#include <vector>

#include "model/model_config.h"
#include "model/violations.h"
#include "model/write_effects.h"
#include "tools/sim/simulator.h"

namespace model_check {

struct RequestRange {
    int function = 0;
    int first = 0;
    int last = 0;
};

// What a device's poll may read: per table, the span from its lowest item start to its highest item end;
// with "read_gaps" 0 only the addresses of its items.
class ReadAllowance {
public:
    explicit ReadAllowance(const DeviceModel& device);
    // True when a poll of the device may send this read; else false with the check it breaks and why.
    bool allows(const RequestRange& request, Check* check, QString* why) const;

private:
    bool named[kTableCount] = {};
    int low[kTableCount] = {};
    int high[kTableCount] = {};
    std::set<int> addresses[kTableCount];
    bool readGaps = true;
};

// The requests that may write `step`'s item (a bit of a register also reads it first).
std::vector<RequestRange> writeAllowances(const WriteStep& step, const DeviceModel& device);

// The requests received while one device's poll ran alone. `retryBound`: no fault but busy answers was
// active, so no read may go out more often than the device's "retries" allow.
void auditPoll(const DeviceModel& device, const std::vector<modbus_sim::RequestRecord>& records,
               bool retryBound, Violations& violations, const QString& where);
// The requests received while one device's write batch ran alone.
// `faultFree`: no fault was active, so every bit of a register that goes by FC 22 must show one.
void auditWrite(const ConfigModel& config, const DeviceModel& device,
                const std::vector<modbus_sim::RequestRecord>& records, const std::vector<WriteStep>& steps,
                bool faultFree, Violations& violations, const QString& where);
// The requests a simulator received while several devices ran at once; `writers` are the ids of the devices
// that may have written.
void auditConcurrent(const ConfigModel& config, int sim,
                     const std::vector<modbus_sim::RequestRecord>& records, const std::set<int>& writers,
                     Violations& violations, const QString& where);

}  // namespace model_check
