#pragma once
// Every table and value type read from the data of tests/tools/data/pymodbus_server.py, and what each reads
// as: the same over every transport, since the transport only carries the frames.

#include <gtest/gtest.h>

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QLatin1String>
#include <QList>
#include <QString>
#include <cstdint>
#include <iterator>

#include "tools/zelt_modbus_runner.h"

namespace pymodbus_test {

struct Row {
    const char* uid;
    const char* value;
};

const Row kTypeRows[] = {
    {"float", "1"},
    {"int32", "-2"},
    {"uint16", "4660"},
    {"text", "PYMB"},
    {"bit0", "1"},
    {"bit1", "0"},
    {"bit3", "1"},
    {"uint32", "123456"},
    {"in_int16", "-1"},
    {"in_uint16", "4660"},
    {"coil1", "1"},
    {"coil2", "0"},
    {"coil3", "1"},
    {"input1", "0"},
    {"input2", "1"},
    {"identity_1_vendor", "PyModbus Test Vendor"},
    {"identity_1_product_code", "PYM-1"},
    {"identity_1_version", "3.0"},
    {"identity_1_vendor_url", "https://pymodbus.invalid"},
    {"identity_1_product_name", "PyModbus test server"},
    {"identity_1_model", "PYM-1 model"},
    {"identity_1_user_application", "zelt-modbus test"},
};

// Device 1 with an item of every type; `transport` is left out of the settings when null, as a user would.
inline QByteArray typesConfig(uint16_t port, const char* transport) {
    const QString settings =
        transport
            ? QStringLiteral(R"({"port": "%1", "transport": "%2"})").arg(port).arg(QLatin1String(transport))
            : QStringLiteral(R"({"port": "%1"})").arg(port);
    return QStringLiteral(R"({"devices": [{"id": 1, "name": "pymodbus", "address": "127.0.0.1",
        "settings": %1, "items": [
        {"uid": "float", "settings": {"register": "40001", "type": "5"}},
        {"uid": "int32", "settings": {"register": "40003", "type": "3"}},
        {"uid": "uint16", "settings": {"register": "40005", "type": "2"}},
        {"uid": "text", "settings": {"register": "40006-40009", "type": "7"}},
        {"uid": "bit0", "settings": {"register": "40010.0", "type": "0"}},
        {"uid": "bit1", "settings": {"register": "40010.1", "type": "0"}},
        {"uid": "bit3", "settings": {"register": "40010.3", "type": "0"}},
        {"uid": "uint32", "settings": {"register": "40011", "type": "4"}},
        {"uid": "in_int16", "settings": {"register": "30001", "type": "1"}},
        {"uid": "in_uint16", "settings": {"register": "30002", "type": "2"}},
        {"uid": "coil1", "settings": {"register": "00001", "type": "0"}},
        {"uid": "coil2", "settings": {"register": "00002", "type": "0"}},
        {"uid": "coil3", "settings": {"register": "00003", "type": "0"}},
        {"uid": "input1", "settings": {"register": "10001", "type": "0"}},
        {"uid": "input2", "settings": {"register": "10002", "type": "0"}}]}]})")
        .arg(settings)
        .toUtf8();
}

// Every poll line of a run of typesConfig holds kTypeRows, and nothing failed.
inline void expectTypeRows(const QList<QJsonObject>& lines) {
    for (const QJsonObject& line : lines) {
        SCOPED_TRACE(line.value("poll").toInt());
        EXPECT_TRUE(line.value("ok").toBool());
        EXPECT_EQ(line.value("error").toString(), QString());
        EXPECT_EQ(line.value("items").toArray().size(), static_cast<int>(std::size(kTypeRows)));
        for (const Row& row : kTypeRows) {
            SCOPED_TRACE(row.uid);
            const QJsonObject item = zelt_modbus_test::itemOf(line, QLatin1String(row.uid));
            EXPECT_EQ(item.value("value").toString(), QString::fromUtf8(row.value));
            EXPECT_EQ(item.value("error").toString(), QString());
        }
    }
}

}  // namespace pymodbus_test
