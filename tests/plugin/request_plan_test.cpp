// The request planner on tables of cases: the exact requests for a run of items, with gaps, holes, long
// items, the top of the address space and the smallest limit, and a randomised check against a plain
// reference of the same rule.
#include "plugin/request_plan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <string>
#include <tuple>

#include "bench/bench_items.h"
#include "plugin/read_entry.h"

namespace {

using request_plan::Holes;
using request_plan::PlanItem;
using request_plan::PlannedRequest;
using request_plan::planRequests;
using request_plan::splitRequest;

constexpr int kCoils = 0;
constexpr int kDiscreteInputs = 1;
constexpr int kInputRegisters = 2;
constexpr int kHoldingRegisters = 3;
constexpr int kProtocolLimit = 125;
constexpr int kBenchLimit = 123;
constexpr int kLastAddress = 65535;
constexpr int kBenchMixItems = 2000;

// A request as the tests write it: table, start, count and the indexes of its items.
struct Expected {
    int table;
    int start;
    int count;
    std::vector<int> items;
};

bool operator==(const PlannedRequest& request, const Expected& expected) {
    return std::tie(request.table, request.start, request.count, request.items) ==
           std::tie(expected.table, expected.start, expected.count, expected.items);
}

std::string describe(const std::vector<PlannedRequest>& requests) {
    std::string text;
    for (const PlannedRequest& request : requests) {
        text += "{" + std::to_string(request.table) + ", " + std::to_string(request.start) + ", " +
                std::to_string(request.count) + ", {";
        for (size_t i = 0; i < request.items.size(); ++i)
            text += (i ? ", " : "") + std::to_string(request.items[i]);
        text += "}} ";
    }
    return text;
}

void expectRequests(const std::vector<PlannedRequest>& requests, const std::vector<Expected>& expected) {
    bool same = requests.size() == expected.size();
    for (size_t i = 0; same && i < requests.size(); ++i) same = requests[i] == expected[i];
    EXPECT_TRUE(same) << "planned: " << describe(requests);
}

Holes holesOf(int table, std::set<int> addresses) {
    Holes holes;
    holes[static_cast<size_t>(table)] = std::move(addresses);
    return holes;
}

struct PlanCase {
    const char* name;
    std::vector<PlanItem> items;
    int limit;
    bool readGaps;
    Holes holes;
    std::vector<Expected> requests;
    std::vector<int> unreadable;
};

void PrintTo(const PlanCase& row, std::ostream* out) {
    *out << row.name;
}

PlanItem holding(int offset, qint64 length = 1) {
    return {kHoldingRegisters, offset, length};
}

std::vector<PlanItem> holdingRun(int first, int count) {
    std::vector<PlanItem> items;
    for (int offset = first; offset < first + count; ++offset) items.push_back(holding(offset));
    return items;
}

const PlanCase kPlanCases[] = {
    {"EmptyInput", {}, kProtocolLimit, true, {}, {}, {}},
    {"HoldingZeroAndTwoHundredAtLimit123TakeTwoRequests",
     {holding(0), holding(200)},
     kBenchLimit,
     true,
     {},
     {{kHoldingRegisters, 0, 1, {0}}, {kHoldingRegisters, 200, 1, {1}}},
     {}},
    {"GapsAreReadAlong",
     {holding(0, 2), holding(10, 2), holding(120, 4)},
     kProtocolLimit,
     true,
     {},
     {{kHoldingRegisters, 0, 124, {0, 1, 2}}},
     {}},
    {"TheNextItemMustEndWithinTheLimit",
     {holding(0, 2), holding(10, 2), holding(122, 4)},
     kProtocolLimit,
     true,
     {},
     {{kHoldingRegisters, 0, 12, {0, 1}}, {kHoldingRegisters, 122, 4, {2}}},
     {}},
    {"OverlappingItemsEndAtTheLatestEnd",
     {holding(0, 4), holding(1), holding(2, 2), holding(3, 2)},
     4,
     true,
     {},
     {{kHoldingRegisters, 0, 4, {0, 1, 2}}, {kHoldingRegisters, 3, 2, {3}}},
     {}},
    {"TwoItemsAtTheSameAddress",
     {holding(7, 2), holding(7, 2)},
     kProtocolLimit,
     true,
     {},
     {{kHoldingRegisters, 7, 2, {0, 1}}},
     {}},
    {"AStringLongerThanTheLimitIsARequestOfItsOwn",
     {holding(0), holding(2, 200), holding(5), holding(300)},
     kProtocolLimit,
     true,
     {},
     {{kHoldingRegisters, 0, 1, {0}},
      {kHoldingRegisters, 2, 200, {1}},
      {kHoldingRegisters, 5, 1, {2}},
      {kHoldingRegisters, 300, 1, {3}}},
     {}},
    {"EveryTableIsARunOfItsOwn",
     {{kCoils, 0, 1}, {kCoils, 124, 1}, {kDiscreteInputs, 0, 1}, {kInputRegisters, 0, 2}, holding(0, 4)},
     kProtocolLimit,
     true,
     {},
     {{kCoils, 0, 125, {0, 1}},
      {kDiscreteInputs, 0, 1, {2}},
      {kInputRegisters, 0, 2, {3}},
      {kHoldingRegisters, 0, 4, {4}}},
     {}},
    {"CoilsPastTheLimitTakeASecondRequest",
     {{kCoils, 0, 1}, {kCoils, 125, 1}},
     kProtocolLimit,
     true,
     {},
     {{kCoils, 0, 1, {0}}, {kCoils, 125, 1, {1}}},
     {}},
    {"WithoutGapsAGapEndsTheRequest",
     {holding(0, 2), holding(2), holding(4), holding(5, 3), holding(6)},
     kProtocolLimit,
     false,
     {},
     {{kHoldingRegisters, 0, 3, {0, 1}}, {kHoldingRegisters, 4, 4, {2, 3, 4}}},
     {}},
    {"AHoleAtTheStartOfARun",
     holdingRun(0, 5),
     kProtocolLimit,
     true,
     holesOf(kHoldingRegisters, {0}),
     {{kHoldingRegisters, 1, 4, {1, 2, 3, 4}}},
     {0}},
    {"AHoleAtTheEndOfARun",
     holdingRun(0, 5),
     kProtocolLimit,
     true,
     holesOf(kHoldingRegisters, {4}),
     {{kHoldingRegisters, 0, 4, {0, 1, 2, 3}}},
     {4}},
    {"AHoleInTheMiddleOfARun",
     holdingRun(0, 5),
     kProtocolLimit,
     true,
     holesOf(kHoldingRegisters, {2}),
     {{kHoldingRegisters, 0, 2, {0, 1}}, {kHoldingRegisters, 3, 2, {3, 4}}},
     {2}},
    {"AHoleInsideALongItem",
     {holding(0), holding(1, 4), holding(5)},
     kProtocolLimit,
     true,
     holesOf(kHoldingRegisters, {3}),
     {{kHoldingRegisters, 0, 1, {0}}, {kHoldingRegisters, 5, 1, {2}}},
     {1}},
    {"AHoleInAGapSplitsTheRequestThere",
     {holding(0, 2), holding(10, 2)},
     kProtocolLimit,
     true,
     holesOf(kHoldingRegisters, {5}),
     {{kHoldingRegisters, 0, 2, {0}}, {kHoldingRegisters, 10, 2, {1}}},
     {}},
    {"AHoleOfAnotherTableDoesNotMatter",
     holdingRun(0, 3),
     kProtocolLimit,
     true,
     holesOf(kInputRegisters, {1}),
     {{kHoldingRegisters, 0, 3, {0, 1, 2}}},
     {}},
    {"ItemsAtTheLastAddress",
     {{kCoils, kLastAddress, 1}, holding(kLastAddress - 3, 4), holding(kLastAddress)},
     kProtocolLimit,
     true,
     holesOf(kCoils, {0}),
     {{kCoils, kLastAddress, 1, {0}}, {kHoldingRegisters, kLastAddress - 3, 4, {1, 2}}},
     {}},
    {"LimitOne",
     {holding(0), holding(0), holding(1), holding(2, 2)},
     1,
     true,
     {},
     {{kHoldingRegisters, 0, 1, {0, 1}}, {kHoldingRegisters, 1, 1, {2}}, {kHoldingRegisters, 2, 2, {3}}},
     {}},
};

class PlanRequests : public ::testing::TestWithParam<PlanCase> {};

TEST_P(PlanRequests, PlansTheExactRequests) {
    const PlanCase& row = GetParam();
    std::vector<int> unreadable;
    expectRequests(planRequests(row.items, row.limit, row.readGaps, row.holes, &unreadable), row.requests);
    EXPECT_EQ(unreadable, row.unreadable);
}

INSTANTIATE_TEST_SUITE_P(Cases, PlanRequests, ::testing::ValuesIn(kPlanCases),
                         [](const ::testing::TestParamInfo<PlanCase>& info) { return info.param.name; });

// The bench's 2,000 mixed items (200 coils, 200 discrete inputs, 800 input and 800 holding registers of every
// layout, 2,000 registers in each register table without a gap), parsed as a poll parses them.
std::vector<PlanItem> benchMix() {
    const std::unique_ptr<plugin_test::Batch> batch =
        bench::makeBatch(DeviceInstancePlugin(), bench::mixedItems(kBenchMixItems));
    std::vector<PlanItem> items;
    for (DataItem* dataItem : batch->list.dataItems) {
        const ReadEntry entry = makeReadEntry(dataItem);
        const bool bits = entry.table == OutputCoil || entry.table == InputCoil;
        items.push_back({static_cast<int>(entry.table), entry.offset,
                         bits ? 1 : std::max<qint64>(1, qint64(entry.span) + entry.requestLength)});
    }
    std::stable_sort(items.begin(), items.end(), [](const PlanItem& a, const PlanItem& b) {
        return std::tie(a.table, a.offset) < std::tie(b.table, b.offset);
    });
    return items;
}

TEST(PlanRequestsBench, TheMixedItemsFillEveryRequestUpToTheLimit) {
    const std::vector<PlanItem> items = benchMix();
    ASSERT_EQ(items.size(), 2000u);
    const std::vector<PlannedRequest> requests = planRequests(items, kBenchLimit, true, {}, nullptr);
    std::vector<std::tuple<int, int, int>> spans;
    for (const PlannedRequest& request : requests)
        spans.emplace_back(request.table, request.start, request.count);
    std::vector<std::tuple<int, int, int>> expected{
        {kCoils, 0, 123}, {kCoils, 123, 77}, {kDiscreteInputs, 0, 123}, {kDiscreteInputs, 123, 77}};
    // Register items repeat ten layouts over 25 registers. The poll files the input table's string and bit
    // items ("30001-30004", "30001.5") under the holding registers, which leaves 20 registers and a gap of 5
    // in each input repeat: 5 repeats end within 123 registers, and 2,000 registers take 16 requests.
    for (int start = 0; start < 2000; start += 125) expected.emplace_back(kInputRegisters, start, 120);
    for (const auto& span : std::vector<std::pair<int, int>>{{0, 120},
                                                             {120, 121},
                                                             {241, 121},
                                                             {362, 121},
                                                             {483, 123},
                                                             {606, 123},
                                                             {729, 123},
                                                             {852, 123},
                                                             {975, 120},
                                                             {1095, 121},
                                                             {1216, 121},
                                                             {1337, 121},
                                                             {1458, 123},
                                                             {1581, 123},
                                                             {1704, 123},
                                                             {1827, 123},
                                                             {1950, 50}})
        expected.emplace_back(kHoldingRegisters, span.first, span.second);
    EXPECT_EQ(spans, expected);
    // Today's halving by item count takes 52 requests for the same items.
    EXPECT_EQ(requests.size(), 37u);
}

TEST(SplitRequest, SevenItemsSplitIntoThreeAndFour) {
    std::vector<PlanItem> items;
    for (int i = 0; i < 7; ++i) items.push_back(holding(10 + 3 * i, 2));
    const std::vector<PlannedRequest> requests = planRequests(items, kProtocolLimit, true, {}, nullptr);
    expectRequests(requests, {{kHoldingRegisters, 10, 20, {0, 1, 2, 3, 4, 5, 6}}});
    const auto halves = splitRequest(requests.front(), items);
    expectRequests({halves.first, halves.second},
                   {{kHoldingRegisters, 10, 8, {0, 1, 2}}, {kHoldingRegisters, 19, 11, {3, 4, 5, 6}}});
}

TEST(SplitRequest, EachHalfEndsAtItsLatestEnd) {
    const std::vector<PlanItem> items{holding(0, 6), holding(1), holding(2), holding(3)};
    const auto halves = splitRequest({kHoldingRegisters, 0, 6, {0, 1, 2, 3}}, items);
    expectRequests({halves.first, halves.second},
                   {{kHoldingRegisters, 0, 6, {0, 1}}, {kHoldingRegisters, 2, 2, {2, 3}}});
}

TEST(SplitRequest, OneItemCannotBeSplit) {
    const std::vector<PlanItem> items{holding(4, 2)};
    const auto halves = splitRequest({kHoldingRegisters, 4, 2, {0}}, items);
    expectRequests({halves.first}, {{kHoldingRegisters, 4, 2, {0}}});
    EXPECT_TRUE(halves.second.items.empty());
    EXPECT_EQ(halves.second.count, 0);
}

// The same rule written plainly, address by address: a request takes the next item while the request with
// it stays within the limit, covers no hole and, without gaps, only addresses some item needs.
size_t referenceRequestCount(const std::vector<PlanItem>& items, int limit, bool readGaps,
                             const Holes& holes) {
    auto isHole = [&holes](int table, qint64 address) {
        return holes[static_cast<size_t>(table)].count(static_cast<int>(address)) > 0;
    };
    size_t count = 0;
    std::vector<const PlanItem*> current;
    for (const PlanItem& item : items) {
        bool coversHole = false;
        for (qint64 address = item.offset; address < item.offset + item.length; ++address)
            coversHole = coversHole || isHole(item.table, address);
        if (coversHole) continue;
        std::vector<const PlanItem*> joined = current;
        joined.push_back(&item);
        bool fits = current.empty() ? false : current.front()->table == item.table;
        qint64 first = joined.front()->offset;
        qint64 last = 0;
        for (const PlanItem* member : joined) last = std::max(last, member->offset + member->length - 1);
        fits = fits && last - first + 1 <= limit;
        for (qint64 address = first; fits && address <= last; ++address) {
            bool needed = false;
            for (const PlanItem* member : joined)
                needed = needed || (address >= member->offset && address < member->offset + member->length);
            fits = !isHole(item.table, address) && (readGaps || needed);
        }
        if (fits) {
            current = joined;
        } else {
            current = {&item};
            ++count;
        }
    }
    return count;
}

TEST(PlanRequestsProperty, RandomRunsAreCoveredOnceWithinTheLimitAndAsOftenAsTheReference) {
    constexpr int kRounds = 400;
    constexpr int kMostItems = 40;
    constexpr int kAddressSpread = 300;
    constexpr int kMostHoles = 6;
    std::mt19937 random(17);
    auto below = [&random](int bound) { return std::uniform_int_distribution<int>(0, bound - 1)(random); };
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const int limit = 1 + (below(2) ? below(20) : below(kProtocolLimit));
        const bool readGaps = below(4) != 0;
        std::vector<PlanItem> items(static_cast<size_t>(below(kMostItems + 1)));
        for (PlanItem& item : items) {
            item.table = below(request_plan::kTableCount);
            item.offset = below(kAddressSpread);
            item.length = below(10) == 0 ? 1 + below(2 * limit) : 1 + below(4);
        }
        std::sort(items.begin(), items.end(), [](const PlanItem& a, const PlanItem& b) {
            return std::tie(a.table, a.offset) < std::tie(b.table, b.offset);
        });
        Holes holes;
        for (int hole = below(kMostHoles + 1); hole > 0; --hole)
            holes[static_cast<size_t>(below(request_plan::kTableCount))].insert(below(kAddressSpread));

        std::vector<int> unreadable;
        const std::vector<PlannedRequest> requests = planRequests(items, limit, readGaps, holes, &unreadable);

        std::vector<int> seen(items.size(), 0);
        for (int index : unreadable) ++seen[static_cast<size_t>(index)];
        for (size_t r = 0; r < requests.size(); ++r) {
            const PlannedRequest& request = requests[r];
            ASSERT_FALSE(request.items.empty());
            if (r > 0) {
                EXPECT_LE(std::tie(requests[r - 1].table, requests[r - 1].start),
                          std::tie(request.table, request.start));
            }
            EXPECT_TRUE(request.count <= limit || request.items.size() == 1u) << describe({request});
            std::vector<bool> needed(static_cast<size_t>(request.count), false);
            for (int index : request.items) {
                ++seen[static_cast<size_t>(index)];
                const PlanItem& item = items[static_cast<size_t>(index)];
                EXPECT_EQ(item.table, request.table);
                EXPECT_GE(item.offset, request.start);
                EXPECT_LE(item.offset + item.length, qint64(request.start) + request.count);
                for (qint64 a = item.offset; a < item.offset + item.length; ++a)
                    needed[static_cast<size_t>(a - request.start)] = true;
            }
            for (int a = request.start; a < request.start + request.count; ++a) {
                EXPECT_EQ(holes[static_cast<size_t>(request.table)].count(a), 0u) << describe({request});
                if (!readGaps) {
                    EXPECT_TRUE(needed[static_cast<size_t>(a - request.start)]);
                }
            }
        }
        for (size_t i = 0; i < items.size(); ++i) EXPECT_EQ(seen[i], 1) << "item " << i;
        EXPECT_EQ(requests.size(), referenceRequestCount(items, limit, readGaps, holes));
    }
}

}  // namespace
