#pragma once
// Every way the plugin can read a block of registers: each register as INT16 and UINT16, each pair as INT32,
// UINT32 and FLOAT, each group of four as INT64, UINT64 and DOUBLE, all in the four byte orders, and the
// block as STRING in the four string orders. The values are the plugin's own: the words are served by an
// in-process simulator on loopback, and the plugin file polls them there with one device per byte order and
// one item per interpretation, so a value shown here is exactly what poll will show for those settings.

#include <QList>
#include <QString>
#include <cstdint>
#include <vector>

namespace zelt_cli {

struct ByteOrder {
    bool littleEndian = false;  // "endianness" (or "string_endianness") 1
    bool byteSwapped = false;   // "byte_order" (or "string_byte_order") 1
    QString layout;             // the value's bytes, most significant first, e.g. "C D A B"
};

// Big/High, Big/Low, Little/High, Little/Low: the order of the device settings' choices.
QList<ByteOrder> byteOrders();

struct ValueType {
    QString name;   // the label of the item's "type" choice, e.g. "FLOAT"
    int code;       // the stored "type" value
    int registers;  // 0 for STRING: the whole block
    bool floating;
};

// INT16, UINT16, INT32, UINT32, FLOAT, INT64, UINT64, DOUBLE, STRING.
QList<ValueType> valueTypes();

struct Interpretation {
    int index = 0;      // first register, counted from the start of the block
    int registers = 0;  // registers it spans
    ValueType type;
    int order = 0;  // index into byteOrders()
    QString value;
    QString error;  // the item's error text when the plugin gave no value
};

// Decodes `words` with the plugin file at `pluginPath`. False with a reason when the plugin or the simulator
// cannot be started.
bool decodeAllWays(const QString& pluginPath, const std::vector<uint16_t>& words, QList<Interpretation>* out,
                   QString* error);

}  // namespace zelt_cli
