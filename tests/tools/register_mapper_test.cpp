// The register mapper's walk over a table, against a device model given as its read function: which requests
// it sends in which order, the runs it finds, and where it stops.
#include <gtest/gtest.h>

#include <QSet>
#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tools/zelt-modbus/register_map.h"

namespace {

using zelt_cli::AddressRun;
using zelt_cli::MapLimits;
using zelt_cli::ReadOutcome;
using zelt_cli::RegisterMapper;
using zelt_cli::RegisterTable;
using zelt_cli::TableMap;

using Request = std::pair<int, int>;  // first address, count

constexpr int kNoLimit = 1000;

// A device whose table answers exactly the addresses in `readable`: a block that touches any other address is
// refused with `refusal` (exception 2 unless set otherwise), and a block starting at `silentFrom` or later is
// never answered.
struct ModelDevice {
    QSet<int> readable;
    int refusal = zelt_cli::kIllegalDataAddress;
    int silentFrom = -1;
    std::vector<Request> requests;

    ReadOutcome read(int first, int count) {
        requests.emplace_back(first, count);
        ReadOutcome outcome;
        if (silentFrom >= 0 && first >= silentFrom) {
            outcome.kind = ReadOutcome::Timeout;
            outcome.error = QStringLiteral("Connection timed out");
            return outcome;
        }
        for (int address = first; address < first + count; ++address)
            if (!readable.contains(address)) {
                outcome.kind = ReadOutcome::Exception;
                outcome.exceptionCode = refusal;
                outcome.error = QStringLiteral("Refused");
                return outcome;
            }
        outcome.kind = ReadOutcome::Ok;
        return outcome;
    }
};

QSet<int> addresses(int first, int last) {
    QSet<int> set;
    for (int address = first; address <= last; ++address) set.insert(address);
    return set;
}

RegisterMapper mapperFor(ModelDevice& device, int first, int last, int maxRequests = kNoLimit) {
    MapLimits limits;
    limits.first = first;
    limits.last = last;
    limits.maxRequests = maxRequests;
    limits.ratePerSecond = 0;  // unpaced: the model answers at once
    return RegisterMapper(
        [&device](RegisterTable, int first, int count) { return device.read(first, count); }, limits);
}

std::vector<std::pair<int, int>> runsOf(const TableMap& map) {
    std::vector<std::pair<int, int>> runs;
    for (const AddressRun& run : map.runs) runs.emplace_back(run.first, run.last);
    return runs;
}

TEST(RegisterMapper, HalvesARefusedBlockToItsFirstHoleThenReadsHolesAloneAndGrowsTheNextRun) {
    ModelDevice device;
    device.readable = addresses(0, 9) + addresses(15, 19);
    RegisterMapper mapper = mapperFor(device, 0, 19);
    TableMap map;
    EXPECT_TRUE(mapper.mapTable(RegisterTable::HoldingRegisters, &map));
    // The block of 20 is halved to its first hole at 10; 11 to 14 are read alone; the run from 15 is read on
    // as far as the previous run was long (10), here to the end of the range.
    const std::vector<Request> expected{{0, 20}, {0, 10}, {10, 5}, {10, 2}, {10, 1}, {11, 1},
                                        {12, 1}, {13, 1}, {14, 1}, {15, 1}, {16, 4}};
    EXPECT_EQ(device.requests, expected);
    EXPECT_EQ(runsOf(map), (std::vector<std::pair<int, int>>{{0, 9}, {15, 19}}));
    EXPECT_EQ(map.requests, 11);
    EXPECT_EQ(mapper.totalRequests(), 11);
    EXPECT_EQ(map.stopped, QString());
    EXPECT_FALSE(map.unsupported);
}

TEST(RegisterMapper, ReadsInBlocksOfTheProtocolsLimitAndJoinsNeighbouringRuns) {
    ModelDevice device;
    device.readable = addresses(0, 299);
    RegisterMapper mapper = mapperFor(device, 0, 299);
    TableMap map;
    EXPECT_TRUE(mapper.mapTable(RegisterTable::InputRegisters, &map));
    EXPECT_EQ(device.requests, (std::vector<Request>{{0, 125}, {125, 125}, {250, 50}}));
    EXPECT_EQ(runsOf(map), (std::vector<std::pair<int, int>>{{0, 299}}));

    ModelDevice coils;
    coils.readable = addresses(0, 2499);
    RegisterMapper bitMapper = mapperFor(coils, 0, 2499);
    TableMap bitMap;
    EXPECT_TRUE(bitMapper.mapTable(RegisterTable::Coils, &bitMap));
    EXPECT_EQ(coils.requests, (std::vector<Request>{{0, 2000}, {2000, 500}}));
    EXPECT_EQ(runsOf(bitMap), (std::vector<std::pair<int, int>>{{0, 2499}}));
}

TEST(RegisterMapper, ExceptionThreeSplitsLikeExceptionTwo) {
    ModelDevice device;
    device.readable = addresses(2, 3);
    device.refusal = zelt_cli::kIllegalDataValue;
    RegisterMapper mapper = mapperFor(device, 0, 3);
    TableMap map;
    EXPECT_TRUE(mapper.mapTable(RegisterTable::HoldingRegisters, &map));
    EXPECT_EQ(device.requests, (std::vector<Request>{{0, 4}, {0, 2}, {0, 1}, {1, 1}, {2, 1}, {3, 1}}));
    EXPECT_EQ(runsOf(map), (std::vector<std::pair<int, int>>{{2, 3}}));
}

TEST(RegisterMapper, TheRequestLimitEndsTheWholeMapWithWhatWasFound) {
    ModelDevice device;
    device.readable = addresses(0, 9) + addresses(15, 19);
    RegisterMapper mapper = mapperFor(device, 0, 19, 3);
    TableMap map;
    EXPECT_FALSE(mapper.mapTable(RegisterTable::HoldingRegisters, &map));
    EXPECT_EQ(device.requests, (std::vector<Request>{{0, 20}, {0, 10}, {10, 5}}));
    EXPECT_EQ(runsOf(map), (std::vector<std::pair<int, int>>{{0, 9}}));
    EXPECT_EQ(mapper.endReason(), QStringLiteral("request limit of 3 reached"));
    // The limit counts over every table: the next table sends nothing.
    TableMap next;
    EXPECT_FALSE(mapper.mapTable(RegisterTable::InputRegisters, &next));
    EXPECT_EQ(device.requests.size(), 3u);
    EXPECT_EQ(next.requests, 0);
}

TEST(RegisterMapper, IllegalFunctionAtTheStartMarksTheTableUnsupported) {
    ModelDevice device;
    device.refusal = 1;
    RegisterMapper mapper = mapperFor(device, 0, 999);
    TableMap map;
    EXPECT_TRUE(mapper.mapTable(RegisterTable::DiscreteInputs, &map));
    EXPECT_TRUE(map.unsupported);
    EXPECT_EQ(map.requests, 1);
    EXPECT_EQ(map.stopped, QString());
    EXPECT_TRUE(map.runs.isEmpty());
}

TEST(RegisterMapper, AnotherExceptionOrSilenceStopsTheTableAndSaysWhere) {
    ModelDevice failing;
    failing.readable = addresses(0, 124);
    failing.refusal = 4;
    RegisterMapper mapper = mapperFor(failing, 0, 299);
    TableMap map;
    EXPECT_TRUE(mapper.mapTable(RegisterTable::HoldingRegisters, &map));
    EXPECT_EQ(failing.requests, (std::vector<Request>{{0, 125}, {125, 125}}));
    EXPECT_EQ(map.stopped, QStringLiteral("exception 4 at 40126-40250: Refused"));
    EXPECT_EQ(runsOf(map), (std::vector<std::pair<int, int>>{{0, 124}}));

    ModelDevice silent;
    silent.readable = addresses(0, 299);
    silent.silentFrom = 125;
    RegisterMapper silentMapper = mapperFor(silent, 0, 299);
    TableMap silentMap;
    // A silent table ends only that table; the next one is mapped.
    EXPECT_TRUE(silentMapper.mapTable(RegisterTable::InputRegisters, &silentMap));
    EXPECT_EQ(silentMap.stopped, QStringLiteral("no answer at 30126-30250: Connection timed out"));
    EXPECT_EQ(runsOf(silentMap), (std::vector<std::pair<int, int>>{{0, 124}}));
}

// The fewest requests any walk needs: a read alone for each unreadable address, and for each readable run
// one read per largest block it takes.
int floorOf(const QSet<int>& readable, int first, int last, int largestBlock) {
    int requests = 0;
    int run = 0;
    for (int address = first; address <= last + 1; ++address) {
        if (address <= last && readable.contains(address)) {
            ++run;
            continue;
        }
        requests += (run + largestBlock - 1) / largestBlock;
        run = 0;
        if (address <= last) ++requests;
    }
    return requests;
}

constexpr int kMapLast = 1999;
constexpr int kWalkBudget = 100000;

// Readable runs and stretches of holes taking turns, their lengths drawn from [least, most] (raw generator
// output, so that every standard library draws the same maps).
QSet<int> turns(unsigned seed, int readableLeast, int readableMost, int holesLeast, int holesMost) {
    std::mt19937 random(seed);
    auto between = [&random](int least, int most) {
        return least + static_cast<int>(random() % static_cast<unsigned>(most - least + 1));
    };
    QSet<int> readable;
    int address = between(0, holesMost);
    while (address <= kMapLast) {
        const int run = between(readableLeast, readableMost);
        readable += addresses(address, std::min(kMapLast, address + run - 1));
        address += run + between(holesLeast, holesMost);
    }
    return readable;
}

QSet<int> periodic(int readableRun, int holes) {
    QSet<int> readable;
    for (int address = 0; address <= kMapLast; ++address)
        if (address % (readableRun + holes) < readableRun) readable.insert(address);
    return readable;
}

// A sparse device: readable runs of 1 to 40 addresses, 50 to 400 apart.
QSet<int> sparse(unsigned seed) {
    return turns(seed, 1, 40, 50, 400);
}

struct WalkCase {
    const char* name;
    std::function<QSet<int>()> readable;
    double ceiling;  // requests over the floor
};

constexpr double kNearFloor = 1.10;

const WalkCase kWalkCases[] = {
    {"dense readable", [] { return addresses(0, kMapLast); }, kNearFloor},
    {"dense unreadable", [] { return QSet<int>(); }, kNearFloor},
    {"alternating", [] { return periodic(1, 1); }, kNearFloor},
    {"3 readable, 2 holes", [] { return periodic(3, 2); }, kNearFloor},
    {"16 readable, 100 holes", [] { return periodic(16, 100); }, kNearFloor},
    {"random runs and holes of 1 to 300", [] { return turns(7, 1, 300, 1, 300); }, kNearFloor},
    {"sparse", [] { return sparse(7); }, kNearFloor},
    // Short random runs cannot be walked near the floor by any walk: each answer is one bit, and where a run
    // of up to 20 ends is about four bits more than the floor's one read per run.
    {"random runs and holes of 1 to 20", [] { return turns(7, 1, 20, 1, 20); }, 1.60},
};

TEST(RegisterMapperFloor, WalksEachModelMapNearTheFewestRequestsAnyWalkNeeds) {
    for (const WalkCase& row : kWalkCases) {
        for (const RegisterTable table : {RegisterTable::HoldingRegisters, RegisterTable::Coils}) {
            SCOPED_TRACE(std::string(row.name) + (table == RegisterTable::Coils ? ", coils" : ", registers"));
            ModelDevice device;
            device.readable = row.readable();
            RegisterMapper mapper = mapperFor(device, 0, kMapLast, kWalkBudget);
            TableMap map;
            EXPECT_TRUE(mapper.mapTable(table, &map));
            QSet<int> found;
            for (const AddressRun& run : map.runs) found += addresses(run.first, run.last);
            EXPECT_EQ(found, device.readable);
            const int largest =
                table == RegisterTable::Coils ? zelt_cli::kMaxBitsPerRead : zelt_cli::kMaxRegistersPerRead;
            const int floor = floorOf(device.readable, 0, kMapLast, largest);
            EXPECT_LE(map.requests, row.ceiling * floor) << map.requests << " requests, floor " << floor;
        }
    }
}

TEST(RegisterMapperFloor, ASparseDeviceOfFourTablesTakesAtMostATenthMoreThanTheFloor) {
    ModelDevice device;
    int requests = 0;
    int floor = 0;
    unsigned seed = 1;
    for (const RegisterTable table : {RegisterTable::Coils, RegisterTable::DiscreteInputs,
                                      RegisterTable::InputRegisters, RegisterTable::HoldingRegisters}) {
        device.readable = sparse(seed++);
        RegisterMapper mapper = mapperFor(device, 0, kMapLast, kWalkBudget);
        TableMap map;
        EXPECT_TRUE(mapper.mapTable(table, &map));
        requests += map.requests;
        floor +=
            floorOf(device.readable, 0, kMapLast,
                    zelt_cli::isBitTable(table) ? zelt_cli::kMaxBitsPerRead : zelt_cli::kMaxRegistersPerRead);
    }
    // Halving refused blocks, the walk before this one, took 15,132 requests for these tables.
    EXPECT_EQ(floor, 7494);
    EXPECT_EQ(requests, 7724);
    EXPECT_LE(requests, kNearFloor * floor);
}

}  // namespace
