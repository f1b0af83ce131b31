#pragma once
// The seven Modbus identification fields as identity item descriptions.

#include <QList>
#include <QMap>
#include <QString>

#include "identity/zelt_identity.h"

zelt_identity::Spec modbusIdentitySpec(const char* field, const char* label, const char* description);
// vendor, product code, revision and model: the items every device gets before it was ever probed.
QList<zelt_identity::Spec> modbusIdentityStubSpecs();
// One spec per field that has a non-blank value, in field order.
QList<zelt_identity::Spec> modbusIdentityValueSpecs(const QMap<QString, QString>& values);
bool isIdentityItem(const ItemInstancePlugin& item);
