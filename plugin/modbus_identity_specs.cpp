#include "plugin/modbus_identity_specs.h"

#include "plugin/setting_keys.h"

namespace {

struct FieldRow {
    const char* field;
    const char* label;
    const char* description;
};

// In the order specs are built and items created.
constexpr FieldRow kIdentityFields[] = {
    {"vendor", "Vendor", "Read Device Identification object 0x00 (vendor name)"},
    {"product_code", "Product code", "Read Device Identification object 0x01 (product code)"},
    {"version", "Revision", "Read Device Identification object 0x02 (major/minor revision)"},
    {"vendor_url", "Vendor URL", "Read Device Identification object 0x03 (vendor URL)"},
    {"product_name", "Product name", "Read Device Identification object 0x04 (product name)"},
    {"model", "Model", "Read Device Identification object 0x05 (model name) or Report Slave ID"},
    {"user_application", "User application",
     "Read Device Identification object 0x06 (user application name)"},
};

constexpr const char* kStubFields[] = {"vendor", "product_code", "version", "model"};

zelt_identity::Spec specFor(const FieldRow& row) {
    return modbusIdentitySpec(row.field, row.label, row.description);
}

}  // namespace

zelt_identity::Spec modbusIdentitySpec(const char* field, const char* label, const char* description) {
    zelt_identity::Spec spec;
    spec.field = QString::fromLatin1(field);
    spec.label = QString::fromLatin1(label);
    spec.description = QString::fromLatin1(description);
    spec.settings.insert(QStringLiteral("register"), QStringLiteral("__identity.") + spec.field);
    spec.settings.insert(QStringLiteral("type"), QStringLiteral("7"));
    spec.settings.insert(QStringLiteral("register_type"), QStringLiteral("4"));
    spec.flag = false;
    return spec;
}

QList<zelt_identity::Spec> modbusIdentityStubSpecs() {
    QList<zelt_identity::Spec> specs;
    for (const char* stub : kStubFields) {
        for (const FieldRow& row : kIdentityFields)
            if (qstrcmp(row.field, stub) == 0) specs.append(specFor(row));
    }
    return specs;
}

QList<zelt_identity::Spec> modbusIdentityValueSpecs(const QMap<QString, QString>& values) {
    QList<zelt_identity::Spec> specs;
    for (const FieldRow& row : kIdentityFields) {
        if (!values.value(QString::fromLatin1(row.field)).trimmed().isEmpty()) specs.append(specFor(row));
    }
    return specs;
}

bool isIdentityItem(const ItemInstancePlugin& item) {
    return zelt_identity::isIdentityAddress(
        setting_keys::settingText(item.settings, setting_keys::kRegister));
}
