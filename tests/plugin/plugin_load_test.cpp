// The host loads the plugin file with QPluginLoader; these tests load it the same way.
#include <gtest/gtest.h>

#include <QJsonObject>
#include <QPluginLoader>

#include "host/zelt_interface.h"

TEST(PluginLoad, MetadataNamesTheHostInterfaceAndClass) {
    QPluginLoader loader(QStringLiteral(ZELT_PLUGIN_FILE));
    const QJsonObject metaData = loader.metaData();
    EXPECT_EQ(metaData.value(QStringLiteral("IID")).toString(), QStringLiteral("com.dornvale.ZELT/1.0.7"));
    EXPECT_EQ(metaData.value(QStringLiteral("className")).toString(), QStringLiteral("Modbus"));
}

TEST(PluginLoad, InstanceCastsToZeltInterface) {
    QPluginLoader loader(QStringLiteral(ZELT_PLUGIN_FILE));
    QObject* instance = loader.instance();
    ASSERT_NE(instance, nullptr) << loader.errorString().toStdString();
    EXPECT_STREQ(instance->metaObject()->className(), "Modbus");
    EXPECT_NE(qobject_cast<ZeltInterface*>(instance), nullptr);
}
