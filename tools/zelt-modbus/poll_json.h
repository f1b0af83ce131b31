#pragma once
// The JSON line of one device's poll, as `zelt-modbus poll --json` prints it.

#include <QJsonObject>
#include <string>

#include "tools/zelt-modbus/batch_result.h"

namespace zelt_cli {

// {"poll": n, "device": id, "name": ..., "ok": ..., "error": ..., "items": [{uid, name, value, error,
// timestamp}]}
QJsonObject pollToJson(int poll, const BatchResult& result);

// Appends to `line` the UTF-8 bytes of the compact JSON text of pollToJson(poll, result) and a newline,
// without building the object: a poll of thousands of items prints one such line many times a second.
void appendPollJsonLine(std::string& line, int poll, const BatchResult& result);

}  // namespace zelt_cli
