// Discovery requests from arbitrary bytes: whatever parses as a JSON object goes through optionsFromRequest;
// the raw text also goes through the port and unit id list parsers.

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <cstddef>
#include <cstdint>

#include "discovery/options.h"
#include "fuzz/fuzz_check.h"

namespace {

constexpr int kMaxTcpPorts = 65535;
constexpr int kMaxUnitIds = 256;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));

    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    if (document.isObject()) {
        QStringList log;
        const ModbusDiscovery::Options options = ModbusDiscovery::optionsFromRequest(document.object(), &log);
        FUZZ_CHECK(options.timeoutMs > 0);
        FUZZ_CHECK(!options.tcpPorts.isEmpty());
        FUZZ_CHECK(!options.unitIds.isEmpty());
        for (const quint16 port : options.tcpPorts) FUZZ_CHECK(port != 0);
    }

    const QString text = QString::fromUtf8(bytes);
    const QList<quint16> ports = ModbusDiscovery::parsePortList(text, {502});
    FUZZ_CHECK(ports.size() <= kMaxTcpPorts);
    const QList<quint8> units = ModbusDiscovery::parseUnitIdList(text, {1});
    FUZZ_CHECK(units.size() <= kMaxUnitIds);
    return 0;
}
