#pragma once
// Plans the read requests of one poll: which registers (or coils) each request asks for and which items it
// serves. Pure: it sees addresses and lengths only, so the poll can be planned and tested without a device.

#include <QtGlobal>
#include <array>
#include <set>
#include <utility>
#include <vector>

namespace request_plan {

// Coils, discrete inputs, input registers, holding registers: the codes of RegisterType.
constexpr int kTableCount = 4;

struct PlanItem {
    int table = 0;      // 0..3 as above
    int offset = 0;     // 0-based protocol address
    qint64 length = 1;  // registers (coils for tables 0 and 1) the request for it must cover, at least 1
};

struct PlannedRequest {
    int table = 0;
    int start = 0;
    int count = 0;
    std::vector<int> items;  // indexes into the planned items, in input order
};

// Addresses learned unreadable, per table: a request that covers one is refused as a whole.
using Holes = std::array<std::set<int>, kTableCount>;

// The addresses of `table`, or null for a code that names none of the four tables: a stored table code is
// never used as an index unchecked.
inline std::set<int>* tableSet(Holes& holes, int table) {
    return table >= 0 && table < kTableCount ? &holes[static_cast<size_t>(table)] : nullptr;
}
inline const std::set<int>* tableSet(const Holes& holes, int table) {
    return table >= 0 && table < kTableCount ? &holes[static_cast<size_t>(table)] : nullptr;
}

// Covers `items` (sorted by table, then offset; every item ends at or below 65535) with requests of at most
// `limit` (1..125) addresses each, in table then address order. Each request starts at the lowest item not
// yet planned and takes the following items while they still end within `limit` of its start, so a run takes
// the fewest such requests; an item longer than `limit` alone is a request of its own length. With
// `readGaps` false a request ends at a gap between items; a gap that holds a hole ends it too. An item that
// covers a hole is left out and its index appended to `*unreadable` (when given). An item of a table code
// outside 0..3 is left out too, and not counted unreadable: the caller reports it.
std::vector<PlannedRequest> planRequests(const std::vector<PlanItem>& items, int limit, bool readGaps,
                                         const Holes& holes, std::vector<int>* unreadable);

// Splits a request the device refused into the requests of its first half of items (rounded down) and of the
// rest, each spanning just its own items: halving finds the refused address in about log2(items) requests.
// A request of fewer than two items comes back as the first, and the second is empty (no items, count 0).
std::pair<PlannedRequest, PlannedRequest> splitRequest(const PlannedRequest& request,
                                                       const std::vector<PlanItem>& items);

}  // namespace request_plan
