#pragma once
// How the results of poll and write batches are shown: a table for people, one JSON object for programs.

#include <QJsonObject>
#include <QTextStream>

#include "tools/zelt-modbus/session.h"

namespace zelt_cli {

// {"poll": n, "device": id, "name": ..., "ok": ..., "error": ..., "items": [{uid, name, value, error,
// timestamp}]}
QJsonObject pollToJson(int poll, const BatchResult& result);
// {"ok": ..., "error": ..., "items": [{"uid": ..., "error": ...}]}
QJsonObject writeToJson(const BatchResult& result);

// The line pollToJson gives, written straight to `out` with its newline, without building the object.
void writePollJson(QTextStream& out, int poll, const BatchResult& result);

void printPoll(QTextStream& out, int poll, const BatchResult& result);
void printWrite(QTextStream& out, const BatchResult& result);

// The JSON object on one line, as the line-oriented outputs print it.
QString jsonLine(const QJsonObject& object);

}  // namespace zelt_cli
