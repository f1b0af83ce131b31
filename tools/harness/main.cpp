// Developer harness: drives one plugin object against one Modbus TCP server in an endless write-then-read
// loop.
#include <QDebug>
#include <chrono>
#include <thread>

#include "plugin/modbus.h"

namespace {

const char* kTestDeviceAddress = "127.0.0.1";
constexpr auto kLoopPause = std::chrono::milliseconds(5000);

DataItem* makeItem(const char* address, const char* type, const char* precision) {
    ItemInstancePlugin item;
    item.name = QStringLiteral("test");
    item.settings.insert(QStringLiteral("register"), QString::fromLatin1(address));
    item.settings.insert(QStringLiteral("register_type"), QStringLiteral("4"));
    item.settings.insert(QStringLiteral("type"), QString::fromLatin1(type));
    item.settings.insert(QStringLiteral("floating_point_precision"), QString::fromLatin1(precision));
    return new DataItem(item);
}

}  // namespace

int main() {
    LogList list;
    list.device.id = 1;
    list.device.name = QStringLiteral("test");
    list.device.address = QString::fromLatin1(kTestDeviceAddress);
    list.device.settings = {
        {"persistent_connection", "1"},
        {"endianness", "1"},
        {"byte_order", "1"},
        {"string_endianness", "1"},
        {"string_byte_order", "0"},
        {"max_read_registers", "20"},
        {"serial_mode", "1"},
        {"device_interface", "ttyUSB0"},
        {"baudrate", "19200"},
        {"parity", "N"},
        {"databits", "8"},
        {"stopbits", "1"},
        {"server_id", "1"},
        {"port", "502"},
    };
    list.dataItems = {makeItem("40001", "3", "4"), makeItem("40003", "5", "8"), makeItem("40019", "1", "4"),
                      makeItem("40025", "1", "4")};

    Modbus plugin;
    for (;;) {
        list.dataItems.first()->values.insert(QStringLiteral("value"), QStringLiteral("107.00000000000001"));
        plugin.writeData(&list);
        plugin.readData(&list);
        qWarning().noquote() << "VALUE 0: " + list.dataItems.first()->values.value(QStringLiteral("value"));
        qWarning().noquote() << "Error:" + list.device.lastError;
        std::this_thread::sleep_for(kLoopPause);
    }
}
