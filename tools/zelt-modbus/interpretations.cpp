#include "tools/zelt-modbus/interpretations.h"

#include <QMap>

#include "tools/sim/simulator.h"
#include "tools/zelt-modbus/config.h"
#include "tools/zelt-modbus/register_table.h"
#include "tools/zelt-modbus/session.h"

namespace zelt_cli {

namespace {

const QString kLoopback = QStringLiteral("127.0.0.1");
const QString kOff = QStringLiteral("0");
const QString kOn = QStringLiteral("1");

QString flagText(bool on) {
    return on ? kOn : kOff;
}

QString uidFor(int order, int index, const ValueType& type) {
    return QStringLiteral("order%1_r%2_%3").arg(order).arg(index).arg(type.name);
}

}  // namespace

QList<ByteOrder> byteOrders() {
    return {{false, false, QStringLiteral("A B C D")},
            {false, true, QStringLiteral("B A D C")},
            {true, false, QStringLiteral("D C B A")},
            {true, true, QStringLiteral("C D A B")}};
}

QList<ValueType> valueTypes() {
    return {{QStringLiteral("INT16"), 1, 1, false},  {QStringLiteral("UINT16"), 2, 1, false},
            {QStringLiteral("INT32"), 3, 2, false},  {QStringLiteral("UINT32"), 4, 2, false},
            {QStringLiteral("FLOAT"), 5, 2, true},   {QStringLiteral("INT64"), 8, 4, false},
            {QStringLiteral("UINT64"), 9, 4, false}, {QStringLiteral("DOUBLE"), 6, 4, true},
            {QStringLiteral("STRING"), 7, 0, false}};
}

bool decodeAllWays(const QString& pluginPath, const std::vector<uint16_t>& words, QList<Interpretation>* out,
                   QString* error) {
    modbus_sim::Simulator simulator;
    if (!simulator.start(kLoopback, 0, error)) return false;
    simulator.setHoldingRegisters(0, words);

    const int count = static_cast<int>(words.size());
    const QList<ByteOrder> orders = byteOrders();
    QMap<QString, Interpretation> byUid;
    Config config;
    for (int order = 0; order < orders.size(); ++order) {
        DeviceConfig device;
        device.id = order + 1;
        device.name = orders.at(order).layout;
        device.address = kLoopback;
        const QString little = flagText(orders.at(order).littleEndian);
        const QString swapped = flagText(orders.at(order).byteSwapped);
        device.settings = {{QStringLiteral("port"), QString::number(simulator.port())},
                           {QStringLiteral("persistent_connection"), kOn},
                           {QStringLiteral("endianness"), little},
                           {QStringLiteral("byte_order"), swapped},
                           {QStringLiteral("string_endianness"), little},
                           {QStringLiteral("string_byte_order"), swapped}};
        for (const ValueType& type : valueTypes()) {
            const int span = type.registers == 0 ? count : type.registers;
            for (int index = 0; index + span <= count; ++index) {
                if (type.registers == 0 && index > 0) break;
                ItemConfig item;
                item.uid = uidFor(order, index, type);
                item.name = item.uid;
                // The block sits at holding register 0 of the simulator; a STRING takes the whole block, with
                // the count form of the range so that a block of one register stays a range of one.
                item.settings = {
                    {QStringLiteral("register"),
                     type.registers == 0 ? QStringLiteral("%1-%2")
                                               .arg(registerText(RegisterTable::HoldingRegisters, 0))
                                               .arg(count)
                                         : registerText(RegisterTable::HoldingRegisters, index)},
                    {QStringLiteral("type"), QString::number(type.code)}};
                device.items.append(item);
                Interpretation interpretation;
                interpretation.index = index;
                interpretation.registers = span;
                interpretation.type = type;
                interpretation.order = order;
                byUid.insert(item.uid, interpretation);
            }
        }
        config.devices.append(device);
    }

    PluginSession session;
    session.setVerbose(false);
    if (!session.start(pluginPath, config, error)) return false;
    for (const DeviceConfig& device : session.config().devices) {
        const BatchResult result = session.poll(device);
        for (const ItemResult& item : result.items) {
            if (!byUid.contains(item.uid)) continue;
            byUid[item.uid].value = item.value;
            byUid[item.uid].error =
                item.error.isEmpty() && item.value.isEmpty() && !result.ok ? result.error : item.error;
        }
    }
    session.stop();
    simulator.stop();
    // In the order the items were made: by byte order, then type, then register.
    out->clear();
    for (const DeviceConfig& device : config.devices)
        for (const ItemConfig& item : device.items) out->append(byUid.value(item.uid));
    return true;
}

}  // namespace zelt_cli
