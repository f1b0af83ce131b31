#include "identity/zelt_identity.h"

#include <gtest/gtest.h>

#include <memory>

#include "plugin/modbus_identity_specs.h"
#include "tools/standin/standin_host.h"

using zelt_standin::Host;

namespace {

class IdentityTest : public ::testing::Test {
protected:
    void SetUp() override { Host::instance().reset(); }
    void TearDown() override {
        for (DataItem* item : list.dataItems) delete item;
        Host::instance().reset();
    }

    DataItem* addDataItem(const QString& uid, const QString& address) {
        ItemInstancePlugin item;
        item.uid = uid;
        item.settings.insert(QStringLiteral("register"), address);
        item.setLastError(QStringLiteral("old error"));
        auto* dataItem = new DataItem(item);
        list.dataItems.append(dataItem);
        return dataItem;
    }

    PluginInterface host;
    LogList list;
};

QStringList uids(const QList<ItemInstancePlugin>& items) {
    QStringList result;
    for (const ItemInstancePlugin& item : items) result << item.uid;
    return result;
}

QStringList fields(const QList<zelt_identity::Spec>& specs) {
    QStringList result;
    for (const zelt_identity::Spec& spec : specs) result << spec.field;
    return result;
}

}  // namespace

TEST_F(IdentityTest, FieldKeyIsTheTextAfterTheCaseSensitivePrefix) {
    EXPECT_EQ(zelt_identity::fieldKey(QStringLiteral("__identity.model")), QStringLiteral("model"));
    EXPECT_EQ(zelt_identity::fieldKey(QStringLiteral("__Identity.model")), QString());
    EXPECT_EQ(zelt_identity::fieldKey(QStringLiteral("40001")), QString());
    EXPECT_TRUE(zelt_identity::isIdentityAddress(QStringLiteral("__identity.")));
    EXPECT_FALSE(zelt_identity::isIdentityAddress(QStringLiteral("__identity")));
}

TEST_F(IdentityTest, UidAndReadInterval) {
    EXPECT_EQ(zelt_identity::uidFor(3, QStringLiteral("vendor")), QStringLiteral("identity_3_vendor"));
    EXPECT_EQ(zelt_identity::uidFor(12, QStringLiteral("model")), QStringLiteral("identity_12_model"));
    EXPECT_EQ(zelt_identity::readIntervalMs(), 604800000);
}

TEST_F(IdentityTest, EnsureItemsIgnoresDeviceZeroAndNullHost) {
    EXPECT_EQ(zelt_identity::ensureItems(&host, 0, modbusIdentityStubSpecs()), 0);
    EXPECT_EQ(zelt_identity::ensureItems(nullptr, 1, modbusIdentityStubSpecs()), 0);
    EXPECT_TRUE(Host::instance().addedItems().isEmpty());
}

TEST_F(IdentityTest, EnsureItemsTwiceCreatesOnlyOnce) {
    EXPECT_EQ(zelt_identity::ensureItems(&host, 4, modbusIdentityStubSpecs()), 4);
    EXPECT_EQ(zelt_identity::ensureItems(&host, 4, modbusIdentityStubSpecs()), 0);
    EXPECT_EQ(uids(Host::instance().addedItems()),
              QStringList({"identity_4_vendor", "identity_4_product_code", "identity_4_version",
                           "identity_4_model"}));
}

TEST_F(IdentityTest, ExistingItemKeepsItsSettings) {
    ItemInstancePlugin known;
    known.uid = QStringLiteral("identity_4_vendor");
    known.name = QStringLiteral("renamed by the user");
    Host::instance().addKnownItem(known);
    EXPECT_EQ(zelt_identity::ensureItems(&host, 4, {modbusIdentitySpec("vendor", "Vendor", "d")}), 0);
    ItemInstancePlugin found;
    ASSERT_TRUE(Host::instance().findItem(QStringLiteral("identity_4_vendor"), &found));
    EXPECT_EQ(found.name, QStringLiteral("renamed by the user"));
}

TEST_F(IdentityTest, ReloadIsRequestedOnlyWhenCreatedAndNotRefreshing) {
    zelt_identity::requestReloadIfIdentityCreated(&host, 0);
    EXPECT_EQ(Host::instance().reloadCount(), 0);
    zelt_identity::requestReloadIfIdentityCreated(&host, 2);
    EXPECT_EQ(Host::instance().reloadCount(), 1);
    Host::instance().setSetting(QStringLiteral("plugin_refreshing"), QStringLiteral("1"));
    zelt_identity::requestReloadIfIdentityCreated(&host, 2);
    EXPECT_EQ(Host::instance().reloadCount(), 1);
}

TEST_F(IdentityTest, RefreshingHostGetsItemsButNoReload) {
    DeviceInstancePlugin device;
    device.id = 7;
    Host::instance().setDevices({device});
    Host::instance().setSetting(QStringLiteral("plugin_refreshing"), QStringLiteral("1"));
    zelt_identity::ensureItemsForAllDevices(&host, modbusIdentityStubSpecs());
    EXPECT_EQ(Host::instance().addedItems().size(), 4);
    EXPECT_EQ(Host::instance().reloadCount(), 0);
}

TEST_F(IdentityTest, ValueSpecsSkipBlankValuesAndKeepFieldOrder) {
    EXPECT_TRUE(modbusIdentityValueSpecs({{"model", "  "}}).isEmpty());
    EXPECT_EQ(fields(modbusIdentityValueSpecs({{"model", "Y"}, {"vendor", "X"}})),
              QStringList({"vendor", "model"}));
    EXPECT_EQ(fields(modbusIdentityValueSpecs({{"user_application", "a"},
                                               {"product_name", "b"},
                                               {"vendor_url", "c"},
                                               {"version", "d"},
                                               {"product_code", "e"}})),
              QStringList({"product_code", "version", "vendor_url", "product_name", "user_application"}));
}

TEST_F(IdentityTest, SpecCarriesRegisterTypeAndRegisterType) {
    const zelt_identity::Spec spec = modbusIdentitySpec("vendor_url", "Vendor URL", "desc");
    EXPECT_EQ(spec.field, QStringLiteral("vendor_url"));
    EXPECT_EQ(spec.label, QStringLiteral("Vendor URL"));
    EXPECT_EQ(spec.description, QStringLiteral("desc"));
    EXPECT_FALSE(spec.flag);
    const QMap<QString, QString> expected{
        {"register", "__identity.vendor_url"}, {"type", "7"}, {"register_type", "4"}};
    EXPECT_EQ(spec.settings, expected);
}

TEST_F(IdentityTest, IsIdentityItemReadsTheRegisterSetting) {
    ItemInstancePlugin item;
    EXPECT_FALSE(isIdentityItem(item));
    item.settings.insert(QStringLiteral("register"), QStringLiteral("__identity.vendor"));
    EXPECT_TRUE(isIdentityItem(item));
    item.settings.insert(QStringLiteral("register"), QStringLiteral("40001"));
    EXPECT_FALSE(isIdentityItem(item));
}

TEST_F(IdentityTest, ApplyValuesMatchesByRegisterAddress) {
    list.device.id = 5;
    DataItem* model = addDataItem(QStringLiteral("anything"), QStringLiteral("__identity.model"));
    DataItem* other = addDataItem(QStringLiteral("x"), QStringLiteral("40001"));
    zelt_identity::applyValues(&list, "register", {{"model", " M1 "}});
    EXPECT_EQ(model->values.value(QStringLiteral("value")), QStringLiteral(" M1 "));
    EXPECT_TRUE(model->timestamp.isValid());
    EXPECT_EQ(model->timestamp.timeSpec(), Qt::UTC);
    EXPECT_EQ(model->item.lastError, QString());
    EXPECT_FALSE(other->values.contains(QStringLiteral("value")));
    EXPECT_EQ(other->item.lastError, QStringLiteral("old error"));
}

TEST_F(IdentityTest, ApplyValuesByUidMatchesTheBatchDevice) {
    list.device.id = 5;
    DataItem* vendor = addDataItem(QStringLiteral("identity_5_vendor"), QString());
    DataItem* foreign = addDataItem(QStringLiteral("identity_6_vendor"), QString());
    zelt_identity::applyValuesByUid(&list, {{"vendor", "ACME"}});
    EXPECT_EQ(vendor->values.value(QStringLiteral("value")), QStringLiteral("ACME"));
    EXPECT_EQ(vendor->item.lastError, QString());
    EXPECT_FALSE(foreign->values.contains(QStringLiteral("value")));
    zelt_identity::applyValuesByUid(nullptr, {{"vendor", "ACME"}});
}

TEST_F(IdentityTest, PublishUpdatesPresentItemWithoutAddingACopy) {
    list.device.id = 5;
    ItemInstancePlugin known;
    known.uid = QStringLiteral("identity_5_model");
    Host::instance().addKnownItem(known);
    // Found by its uid alone: the register it names is not the model's, so only the uid can match it.
    DataItem* model = addDataItem(QStringLiteral("identity_5_model"), QStringLiteral("40010"));
    zelt_identity::publishValues(&host, &list, {{"model", "X1"}}, "register");
    ASSERT_EQ(list.dataItems.size(), 1);
    EXPECT_EQ(list.dataItems.at(0), model);
    EXPECT_EQ(model->values.value(QStringLiteral("value")), QStringLiteral("X1"));
    EXPECT_EQ(model->item.lastError, QString());
    EXPECT_TRUE(model->timestamp.isValid());
}

TEST_F(IdentityTest, PublishAppendsOnlyItemsTheHostKnows) {
    list.device.id = 5;
    ItemInstancePlugin known;
    known.uid = QStringLiteral("identity_5_vendor");
    known.name = QStringLiteral("Vendor");
    Host::instance().addKnownItem(known);
    addDataItem(QStringLiteral("t1"), QStringLiteral("40001"));

    zelt_identity::publishValues(&host, &list, {{"vendor", "ACME"}, {"model", "X1"}, {"version", "  "}},
                                 "register");

    ASSERT_EQ(list.dataItems.size(), 2);
    const DataItem* appended = list.dataItems.at(1);
    EXPECT_EQ(appended->item.uid, QStringLiteral("identity_5_vendor"));
    EXPECT_EQ(appended->item.name, QStringLiteral("Vendor"));
    EXPECT_EQ(appended->values.value(QStringLiteral("value")), QStringLiteral("ACME"));
    EXPECT_TRUE(appended->timestamp.isValid());
    EXPECT_EQ(appended->item.lastError, QString());
}

TEST_F(IdentityTest, PublishSkipsFieldsAlreadyPresentByAddress) {
    list.device.id = 5;
    ItemInstancePlugin known;
    known.uid = QStringLiteral("identity_5_model");
    Host::instance().addKnownItem(known);
    // Present under another uid but with the model's address: not appended a second time.
    DataItem* present = addDataItem(QStringLiteral("custom"), QStringLiteral("__identity.model"));
    zelt_identity::publishValues(&host, &list, {{"model", "X1"}}, "register");
    ASSERT_EQ(list.dataItems.size(), 1);
    EXPECT_EQ(present->values.value(QStringLiteral("value")), QStringLiteral("X1"));
}

TEST_F(IdentityTest, PublishWithoutHostOnlyUpdates) {
    list.device.id = 5;
    DataItem* vendor = addDataItem(QStringLiteral("identity_5_vendor"), QString());
    zelt_identity::publishValues(nullptr, &list, {{"vendor", "ACME"}, {"model", "X"}}, "register");
    ASSERT_EQ(list.dataItems.size(), 1);
    EXPECT_EQ(vendor->values.value(QStringLiteral("value")), QStringLiteral("ACME"));
}
