// A device refuses a read of one item's whole span: that says nothing of any single address in it. Items that
// overlap the refused one but whose every address is readable are read on every poll.

#include <gtest/gtest.h>

#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"

using plugin_test::Batch;
using plugin_test::exceptionFault;
using plugin_test::makeDevice;
using plugin_test::makeItem;

namespace {

const QString kIllegalDataAddress = QStringLiteral("Illegal data address");
constexpr int kFirstHole = 10;
constexpr int kLastHole = 19;

class LearnedHoleOverlapTest : public plugin_test::PluginAndSimulatorTest {
protected:
    void SetUp() override {
        PluginAndSimulatorTest::SetUp();
        std::vector<uint16_t> counting(30);
        for (size_t i = 0; i < counting.size(); ++i) counting[i] = static_cast<uint16_t>(500 + i);
        sim.setHoldingRegisters(0, counting);
        for (int hole = kFirstHole; hole <= kLastHole; ++hole) sim.addFault(exceptionFault(3, 2, hole));
    }

    // Reads of the holding registers that covered a hole since the log was cleared.
    int refusedReads() const {
        int refused = 0;
        for (const modbus_sim::RequestRecord& record : sim.requestLog())
            if (record.function == 3 && record.address <= kLastHole &&
                record.address + record.count > kFirstHole)
                ++refused;
        return refused;
    }
};

TEST_F(LearnedHoleOverlapTest, ItemsBesideARefusedStringAreReadOnEveryPoll) {
    for (const char* window : {"1", "8"}) {
        SCOPED_TRACE(window);
        Batch batch(makeDevice(1, sim.port(), {{"max_outstanding_requests", window}}));
        batch.add(makeItem("text", "40001-40012", "4", "7"));
        batch.add(makeItem("first", "40001", "4", "2"));
        batch.add(makeItem("fifth", "40005", "4", "2"));
        for (int poll = 1; poll <= 3; ++poll) {
            SCOPED_TRACE(poll);
            sim.clearRequestLog();
            EXPECT_TRUE(plugin.readData(&batch.list)) << batch.list.device.lastError.toStdString();
            EXPECT_EQ(batch.value("first"), QStringLiteral("500"));
            EXPECT_EQ(batch.error("first"), QString());
            EXPECT_EQ(batch.value("fifth"), QStringLiteral("504"));
            EXPECT_EQ(batch.error("fifth"), QString());
            EXPECT_EQ(batch.error("text"), kIllegalDataAddress);
            if (poll > 1) {
                EXPECT_EQ(refusedReads(), 0);
            }
        }
    }
}

TEST_F(LearnedHoleOverlapTest, AFloatInsideAWideIntegerOverTheHoleIsRead) {
    // Registers 8..11: a UINT64 over the first two holes; the FLOAT at 8..9 shares its first two registers.
    sim.setHoldingRegisters(8, {0x47F1, 0x2000});
    Batch batch(makeDevice(1, sim.port()));
    batch.add(makeItem("wide", "40009", "4", "9"));
    batch.add(makeItem("float", "40009", "4", "5", "1"));
    for (int poll = 1; poll <= 3; ++poll) {
        SCOPED_TRACE(poll);
        sim.clearRequestLog();
        EXPECT_TRUE(plugin.readData(&batch.list));
        EXPECT_EQ(batch.value("float"), QStringLiteral("123456"));
        EXPECT_EQ(batch.error("float"), QString());
        EXPECT_EQ(batch.error("wide"), kIllegalDataAddress);
        if (poll > 1) {
            EXPECT_EQ(refusedReads(), 0);
        }
    }
}

}  // namespace
