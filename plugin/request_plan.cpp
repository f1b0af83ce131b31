#include "plugin/request_plan.h"

#include <algorithm>
#include <climits>

namespace request_plan {

namespace {

qint64 lastAddressOf(const PlanItem& item) {
    return qint64(item.offset) + std::max<qint64>(1, item.length) - 1;
}

// Whether a hole of `table` lies in [first, last].
bool holeWithin(const Holes& holes, int table, qint64 first, qint64 last) {
    const std::set<int>* tableHoles = tableSet(holes, table);
    if (!tableHoles || first > last) return false;
    const auto hole = tableHoles->lower_bound(static_cast<int>(std::max<qint64>(first, INT_MIN)));
    return hole != tableHoles->end() && *hole <= last;
}

int countOf(qint64 start, qint64 last) {
    return static_cast<int>(std::min<qint64>(last - start + 1, INT_MAX));
}

PlannedRequest spanning(const PlannedRequest& request, const std::vector<PlanItem>& items,
                        std::vector<int>::const_iterator first, std::vector<int>::const_iterator last) {
    PlannedRequest part;
    part.table = request.table;
    part.items.assign(first, last);
    if (part.items.empty()) return part;
    qint64 start = LLONG_MAX;
    qint64 end = LLONG_MIN;
    for (int index : part.items) {
        const PlanItem& item = items[static_cast<size_t>(index)];
        start = std::min<qint64>(start, item.offset);
        end = std::max(end, lastAddressOf(item));
    }
    part.start = static_cast<int>(start);
    part.count = countOf(start, end);
    return part;
}

}  // namespace

std::vector<PlannedRequest> planRequests(const std::vector<PlanItem>& items, int limit, bool readGaps,
                                         const Holes& holes, std::vector<int>* unreadable) {
    const qint64 span = std::max(1, limit);
    std::vector<PlannedRequest> requests;
    bool open = false;
    qint64 start = 0;
    qint64 end = 0;
    for (size_t i = 0; i < items.size(); ++i) {
        const PlanItem& item = items[i];
        if (!tableSet(holes, item.table)) continue;
        const qint64 itemLast = lastAddressOf(item);
        if (holeWithin(holes, item.table, item.offset, itemLast)) {
            if (unreadable) unreadable->push_back(static_cast<int>(i));
            continue;
        }
        const qint64 joinedEnd = std::max(end, itemLast);
        const bool joins = open && requests.back().table == item.table && joinedEnd - start + 1 <= span &&
                           (readGaps || item.offset <= end + 1) &&
                           !holeWithin(holes, item.table, end + 1, qint64(item.offset) - 1);
        if (joins) {
            end = joinedEnd;
        } else {
            requests.push_back(PlannedRequest{item.table, item.offset, 0, {}});
            open = true;
            start = item.offset;
            end = itemLast;
        }
        requests.back().items.push_back(static_cast<int>(i));
        requests.back().count = countOf(start, end);
    }
    return requests;
}

std::pair<PlannedRequest, PlannedRequest> splitRequest(const PlannedRequest& request,
                                                       const std::vector<PlanItem>& items) {
    if (request.items.size() < 2) return {request, PlannedRequest{request.table, request.start, 0, {}}};
    const auto middle = request.items.begin() + static_cast<std::ptrdiff_t>(request.items.size() / 2);
    return {spanning(request, items, request.items.begin(), middle),
            spanning(request, items, middle, request.items.end())};
}

}  // namespace request_plan
