// Reads the role extension of a client certificate and checks requests against the role.

#include "tools/sim/sim_roles.h"

#include <openssl/asn1.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <memory>

#include "tools/sim/sim_pki.h"
#include "tools/sim/sim_protocol.h"

namespace modbus_sim {

namespace {

bool readOnlyFunction(int function) {
    return function == kFunctionReadCoils || function == kFunctionReadDiscreteInputs ||
           function == kFunctionReadHoldingRegisters || function == kFunctionReadInputRegisters ||
           function == kFunctionReportSlaveId || function == kFunctionEncapsulatedInterface;
}

// The role extension's UTF8String; false when the certificate has none or it is not a UTF8String.
bool certificateRole(X509* certificate, QString* role) {
    std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> oid(OBJ_txt2obj(kRoleExtensionOid, 1),
                                                                  ASN1_OBJECT_free);
    if (!oid) return false;
    const int index = X509_get_ext_by_OBJ(certificate, oid.get(), -1);
    if (index < 0) return false;
    const ASN1_OCTET_STRING* value = X509_EXTENSION_get_data(X509_get_ext(certificate, index));
    if (!value) return false;
    const unsigned char* der = ASN1_STRING_get0_data(value);
    ASN1_UTF8STRING* text = d2i_ASN1_UTF8STRING(nullptr, &der, ASN1_STRING_length(value));
    if (!text) return false;
    *role = QString::fromUtf8(reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
                              ASN1_STRING_length(text));
    ASN1_UTF8STRING_free(text);
    return true;
}

}  // namespace

ClientAuthority clientAuthority(X509* certificate) {
    ClientAuthority authority;
    authority.tls = true;
    authority.hasCertificate = certificate != nullptr;
    if (certificate) authority.hasRole = certificateRole(certificate, &authority.role);
    return authority;
}

QString roleRefusal(const ClientAuthority& authority, int function) {
    if (!authority.tls || !authority.hasCertificate) return {};
    if (!authority.hasRole)
        return QStringLiteral("the client certificate has no role (extension %1)")
            .arg(QLatin1String(kRoleExtensionOid));
    if (authority.role == QLatin1String(kOperatorRole)) return {};
    if (authority.role == QLatin1String(kViewerRole)) {
        if (readOnlyFunction(function)) return {};
        return QStringLiteral("role \"%1\" may not use function %2").arg(authority.role).arg(function);
    }
    return QStringLiteral("role \"%1\" is not known").arg(authority.role);
}

}  // namespace modbus_sim
