#include <gtest/gtest.h>

#include "common/plugin_batch.h"
#include "common/plugin_fixture.h"
#include "common/scripted_server.h"
#include "plugin/modbus.h"
#include "tools/sim/simulator.h"
#include "tools/standin/standin_host.h"

using plugin_test::Batch;
using plugin_test::makeDevice;
using plugin_test::makeItem;
using zelt_standin::Host;
using zelt_standin::LogLevel;

namespace {

class IdentitySyncTest : public plugin_test::PluginAndSimulatorTest {
protected:
    // Requests of one function code in the simulator's log, as PDUs.
    std::vector<QByteArray> requestsOf(int function) const {
        std::vector<QByteArray> pdus;
        for (const modbus_sim::RequestRecord& record : sim.requestLog())
            if (record.function == function) pdus.push_back(record.pdu);
        return pdus;
    }

    void fullIdentification(int objectsPerResponse) {
        modbus_sim::DeviceIdentification identification;
        identification.objects = {{0, "ACME"},  {1, "X-100"},     {2, "2.1"},   {3, "http://acme.example"},
                                  {4, "Meter"}, {5, "X-100 Pro"}, {6, "fw app"}};
        identification.objectsPerResponse = objectsPerResponse;
        sim.setDeviceIdentification(identification);
    }
};

const QMap<QString, QString> kAllSeven = {{"vendor", "ACME"},
                                          {"product_code", "X-100"},
                                          {"version", "2.1"},
                                          {"vendor_url", "http://acme.example"},
                                          {"product_name", "Meter"},
                                          {"model", "X-100 Pro"},
                                          {"user_application", "fw app"}};

QMap<QString, QString> publishedIdentity(const Batch& batch) {
    QMap<QString, QString> values;
    for (const DataItem* dataItem : batch.list.dataItems) {
        const QString address = dataItem->item.settings.value(QStringLiteral("register"));
        if (address.startsWith(QLatin1String("__identity.")))
            values.insert(address.mid(11), dataItem->values.value(QStringLiteral("value")));
    }
    return values;
}

}  // namespace

TEST_F(IdentitySyncTest, PagedIdentificationGivesSevenItemsOneReloadAndIsPublishedEveryPoll) {
    fullIdentification(2);
    Host::instance().setDevices({makeDevice(1, sim.port())});
    plugin.init();
    ASSERT_EQ(Host::instance().reloadCount(), 1);  // the four stubs

    Batch batch(makeDevice(1, sim.port()));
    batch.add(makeItem("value", "40001", "4", "2"));
    ASSERT_TRUE(plugin.readData(&batch.list));

    QStringList created;
    for (const ItemInstancePlugin& item : Host::instance().addedItems()) created << item.uid;
    EXPECT_EQ(created, QStringList({"identity_1_vendor", "identity_1_product_code", "identity_1_version",
                                    "identity_1_model", "identity_1_vendor_url", "identity_1_product_name",
                                    "identity_1_user_application"}));
    EXPECT_EQ(Host::instance().reloadCount(), 2);
    EXPECT_EQ(publishedIdentity(batch), kAllSeven);
    EXPECT_TRUE(
        Host::instance().hasLog(LogLevel::Info, QStringLiteral("Read 7 identity value(s) for device 1")));
    // Basic (objects 0-2) in two pages, then regular from object 0 in four pages.
    const std::vector<QByteArray> identification = requestsOf(43);
    EXPECT_EQ(identification,
              (std::vector<QByteArray>{QByteArray::fromHex("2b0e0100"), QByteArray::fromHex("2b0e0102"),
                                       QByteArray::fromHex("2b0e0200"), QByteArray::fromHex("2b0e0202"),
                                       QByteArray::fromHex("2b0e0204"), QByteArray::fromHex("2b0e0206")}));
    EXPECT_EQ(sim.requestCount(17), 0);

    for (int poll = 0; poll < 2; ++poll) {
        Batch later(makeDevice(1, sim.port()));
        later.add(makeItem("value", "40001", "4", "2"));
        ASSERT_TRUE(plugin.readData(&later.list));
        EXPECT_EQ(publishedIdentity(later), kAllSeven);
    }
    EXPECT_EQ(sim.requestCount(43), 6);
    EXPECT_EQ(Host::instance().reloadCount(), 2);
}

TEST_F(IdentitySyncTest, DeviceWithReportSlaveIdOnlyGivesTheModel) {
    modbus_sim::DeviceIdentification identification;
    identification.enabled = false;
    sim.setDeviceIdentification(identification);
    sim.setReportSlaveId(QByteArray::fromHex("01ff4142"));
    Batch batch(makeDevice(2, sim.port()));
    ASSERT_TRUE(plugin.readData(&batch.list));
    const QList<ItemInstancePlugin> created = Host::instance().addedItems();
    ASSERT_EQ(created.size(), 1);
    EXPECT_EQ(created.first().uid, QStringLiteral("identity_2_model"));
    EXPECT_EQ(publishedIdentity(batch), (QMap<QString, QString>{{"model", "AB"}}));
    // An exception to the basic request means no regular request, but Report Slave ID.
    EXPECT_EQ(requestsOf(43), std::vector<QByteArray>{QByteArray::fromHex("2b0e0100")});
    EXPECT_EQ(requestsOf(17), std::vector<QByteArray>{QByteArray::fromHex("11")});
}

TEST_F(IdentitySyncTest, DeviceWithoutIdentityIsLoggedOnceAndNotAskedAgain) {
    modbus_sim::DeviceIdentification identification;
    identification.enabled = false;
    sim.setDeviceIdentification(identification);
    Batch batch(makeDevice(3, sim.port()));
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(Host::instance().countLog(LogLevel::Info,
                                        QStringLiteral("No Modbus identity (43/14 or 17) on device 3")),
              1);
    EXPECT_TRUE(Host::instance().addedItems().isEmpty());
    Batch again(makeDevice(3, sim.port()));
    ASSERT_TRUE(plugin.readData(&again.list));
    EXPECT_EQ(sim.requestCount(43), 1);
    EXPECT_EQ(sim.requestCount(17), 1);
    EXPECT_EQ(Host::instance().countLog(LogLevel::Info,
                                        QStringLiteral("No Modbus identity (43/14 or 17) on device 3")),
              1);
}

TEST_F(IdentitySyncTest, VendorUrlAloneIsAValueAndSkipsReportSlaveId) {
    modbus_sim::DeviceIdentification identification;
    identification.objects = {{3, "http://only.example"}};
    sim.setDeviceIdentification(identification);
    Batch batch(makeDevice(4, sim.port()));
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(publishedIdentity(batch), (QMap<QString, QString>{{"vendor_url", "http://only.example"}}));
    EXPECT_EQ(sim.requestCount(17), 0);
}

TEST_F(IdentitySyncTest, StopMakesTheNextPollProbeAgain) {
    fullIdentification(0);
    Batch batch(makeDevice(1, sim.port()));
    ASSERT_TRUE(plugin.readData(&batch.list));
    const int afterFirst = sim.requestCount(43);
    plugin.stopPlugin();
    Batch again(makeDevice(1, sim.port()));
    ASSERT_TRUE(plugin.readData(&again.list));
    EXPECT_EQ(sim.requestCount(43), 2 * afterFirst);
    EXPECT_EQ(publishedIdentity(again), kAllSeven);
}

TEST_F(IdentitySyncTest, EndlessMoreFollowsIsAskedFourTimesPerReadCode) {
    // Every answer carries one object and says more follow from object 1.
    test_support::ScriptedServer server([](const test_support::Request& request) {
        const QByteArray& pdu = request.pdu;
        if (pdu.size() >= 3 && static_cast<unsigned char>(pdu.at(0)) == 0x2B)
            return test_support::replyFrame(request, QByteArray::fromHex("2b0e") + pdu.mid(2, 1) +
                                                         QByteArray::fromHex("01ff0101") +
                                                         QByteArray::fromHex("000441434d45"));
        return test_support::replyFrame(request, QByteArray::fromHex("0300"));  // empty register answer
    });
    Batch batch(makeDevice(5, server.port()));
    ASSERT_TRUE(plugin.readData(&batch.list));
    int basic = 0;
    int regular = 0;
    int slaveId = 0;
    for (const test_support::Request& received : server.requests()) {
        const QByteArray& request = received.pdu;
        if (request.startsWith(QByteArray::fromHex("2b0e01"))) ++basic;
        if (request.startsWith(QByteArray::fromHex("2b0e02"))) ++regular;
        if (request == QByteArray::fromHex("11")) ++slaveId;
    }
    EXPECT_EQ(basic, 4);
    EXPECT_EQ(regular, 4);
    EXPECT_EQ(slaveId, 0);
    EXPECT_EQ(publishedIdentity(batch), (QMap<QString, QString>{{"vendor", "ACME"}}));
    EXPECT_TRUE(
        Host::instance().hasLog(LogLevel::Info, QStringLiteral("Read 1 identity value(s) for device 5")));
}

TEST_F(IdentitySyncTest, ReportSlaveIdWithTrailingDataGivesTheModel) {
    // The byte count (05) is not trusted: everything after the run indicator is the text.
    test_support::ScriptedServer server([](const test_support::Request& request) {
        if (request.pdu.startsWith(QByteArray::fromHex("2b")))
            return test_support::replyFrame(request, QByteArray::fromHex("ab01"));
        if (request.pdu == QByteArray::fromHex("11"))
            return test_support::replyFrame(request, QByteArray::fromHex("110501ff4142"));
        return test_support::replyFrame(request, QByteArray::fromHex("0300"));
    });
    Batch batch(makeDevice(8, server.port()));
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(publishedIdentity(batch), (QMap<QString, QString>{{"model", "AB"}}));
    std::vector<QByteArray> identification;
    for (const test_support::Request& request : server.requests()) identification.push_back(request.pdu);
    EXPECT_EQ(identification,
              (std::vector<QByteArray>{QByteArray::fromHex("2b0e0100"), QByteArray::fromHex("11")}));
}

TEST_F(IdentitySyncTest, DeviceIdZeroAndConnectionWithoutContextDoNothing) {
    fullIdentification(0);
    Batch batch(makeDevice(0, sim.port()));
    ASSERT_TRUE(plugin.readData(&batch.list));
    EXPECT_EQ(sim.requestCount(43), 0);
    EXPECT_EQ(sim.requestCount(17), 0);
    EXPECT_TRUE(Host::instance().logTexts(LogLevel::Info).isEmpty());

    Host::instance().clearLogs();
    Connection noContext;
    Batch other(makeDevice(6, sim.port()));
    plugin.syncDeviceIdentity(noContext, 6, &other.list);
    EXPECT_TRUE(Host::instance().logLines().isEmpty());
    EXPECT_TRUE(other.list.dataItems.isEmpty());
}

TEST_F(IdentitySyncTest, ProbeRestoresTheResponseTimeout) {
    fullIdentification(0);
    int error = 0;
    Connection::Network network;
    network.host = QStringLiteral("127.0.0.1");
    network.port = sim.port();
    PluginInterface host;
    Connection connection(network, &host, &error);
    ASSERT_TRUE(connection.isConnected());
    ASSERT_TRUE(connection.setResponseTimeout(1, 250000));
    Batch batch(makeDevice(7, sim.port()));
    plugin.syncDeviceIdentity(connection, 7, &batch.list);
    unsigned int sec = 0;
    unsigned int usec = 0;
    ASSERT_TRUE(connection.getResponseTimeout(&sec, &usec));
    EXPECT_EQ(sec, 1u);
    EXPECT_EQ(usec, 250000u);
    EXPECT_TRUE(
        Host::instance().hasLog(LogLevel::Info, QStringLiteral("Read 7 identity value(s) for device 7")));
}
