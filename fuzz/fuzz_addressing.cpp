// Item addresses from arbitrary "register", "register_type" and "type" texts through the static address
// functions of the plugin.

#include <fuzzer/FuzzedDataProvider.h>

#include <QString>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_check.h"
#include "host/records.h"
#include "plugin/modbus.h"

namespace {

QString textOf(const std::string& text) {
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    ItemInstancePlugin item;
    item.settings[QStringLiteral("register")] = textOf(input.ConsumeRandomLengthString());
    item.settings[QStringLiteral("register_type")] = textOf(input.ConsumeRandomLengthString());
    if (input.ConsumeBool()) {
        item.settings[QStringLiteral("type")] = textOf(input.ConsumeRemainingBytesAsString());
    }

    Modbus::getType(item);
    Modbus::getOffset(item);
    Modbus::getSpan(item);
    Modbus::getBit(item);
    return 0;
}
