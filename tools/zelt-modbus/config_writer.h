#pragma once
// Writes configurations in the format `zelt-modbus poll --config` reads, so that the commissioning commands
// hand their findings straight to poll. Pure: the callers write the text to a file.

#include <QByteArray>
#include <QJsonArray>
#include <QString>

#include "tools/zelt-modbus/config.h"

namespace zelt_cli {

// The configuration as indented JSON; settings stay texts, devices and items keep their order.
QByteArray configToJson(const Config& config);

// One device per discovery candidate (candidateToJson objects): its name, address and
// "user_defined_fields" as settings, no items yet. Ids count from 1 in the candidates' order.
Config configFromCandidates(const QJsonArray& candidates);

// Writes `json` to `path`; false with a reason.
bool writeConfigFile(const QString& path, const QByteArray& json, QString* error);

}  // namespace zelt_cli
