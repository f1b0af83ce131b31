// The register mapper's walk over a table, against a device model given as its read function: which requests
// it sends in which order, the runs it finds, and where it stops.
#include <gtest/gtest.h>

#include <QSet>
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

TEST(RegisterMapper, SplitsARefusedBlockInHalvesUntilTheRunsAreKnown) {
    ModelDevice device;
    device.readable = addresses(0, 9) + addresses(15, 19);
    RegisterMapper mapper = mapperFor(device, 0, 19);
    TableMap map;
    EXPECT_TRUE(mapper.mapTable(RegisterTable::HoldingRegisters, &map));
    const std::vector<Request> expected{{0, 20}, {0, 10}, {10, 10}, {10, 5}, {10, 2}, {10, 1}, {11, 1},
                                        {12, 3}, {12, 1}, {13, 2},  {13, 1}, {14, 1}, {15, 5}};
    EXPECT_EQ(device.requests, expected);
    EXPECT_EQ(runsOf(map), (std::vector<std::pair<int, int>>{{0, 9}, {15, 19}}));
    EXPECT_EQ(map.requests, 13);
    EXPECT_EQ(mapper.totalRequests(), 13);
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
    EXPECT_EQ(device.requests, (std::vector<Request>{{0, 4}, {0, 2}, {0, 1}, {1, 1}, {2, 2}}));
    EXPECT_EQ(runsOf(map), (std::vector<std::pair<int, int>>{{2, 3}}));
}

TEST(RegisterMapper, TheRequestLimitEndsTheWholeMapWithWhatWasFound) {
    ModelDevice device;
    device.readable = addresses(0, 9) + addresses(15, 19);
    RegisterMapper mapper = mapperFor(device, 0, 19, 3);
    TableMap map;
    EXPECT_FALSE(mapper.mapTable(RegisterTable::HoldingRegisters, &map));
    EXPECT_EQ(device.requests, (std::vector<Request>{{0, 20}, {0, 10}, {10, 10}}));
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

}  // namespace
