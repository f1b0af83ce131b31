#pragma once
// How the results of poll and write batches are shown: a table for people, one JSON object for programs.

#include <QJsonObject>
#include <QTextStream>

#include "tools/zelt-modbus/batch_result.h"
#include "tools/zelt-modbus/poll_json.h"

namespace zelt_cli {

// {"ok": ..., "error": ..., "items": [{"uid": ..., "error": ...}]}
QJsonObject writeToJson(const BatchResult& result);

void printPoll(QTextStream& out, int poll, const BatchResult& result);
void printWrite(QTextStream& out, const BatchResult& result);

// The JSON object on one line, as the line-oriented outputs print it.
QString jsonLine(const QJsonObject& object);

}  // namespace zelt_cli
