// Builds the simulator's OpenSSL server context.

#include "tools/sim/sim_tls_context.h"

#include <openssl/err.h>

#include <QFile>

namespace modbus_sim {

namespace {

// Resumption needs a session id context whenever client certificates are verified; any constant will do,
// as the simulator serves one kind of session.
constexpr unsigned char kSessionIdContext[] = "modbus-sim";

QString openSslReason() {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    const char* reason = code ? ERR_reason_error_string(code) : nullptr;
    return reason ? QString::fromLatin1(reason) : QStringLiteral("unknown OpenSSL error");
}

SSL_CTX* fail(SSL_CTX* context, QString* error, const QString& reason) {
    SSL_CTX_free(context);
    if (error) *error = reason;
    return nullptr;
}

}  // namespace

SSL_CTX* newTlsServerContext(const TlsServerSettings& settings, QString* error) {
    ERR_clear_error();
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    if (!context) return fail(context, error, QStringLiteral("TLS: %1").arg(openSslReason()));
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    const QByteArray certificate = QFile::encodeName(settings.certificateFile);
    const QByteArray key = QFile::encodeName(settings.keyFile);
    const QByteArray ca = QFile::encodeName(settings.caFile);
    if (SSL_CTX_use_certificate_chain_file(context, certificate.constData()) != 1)
        return fail(context, error, QStringLiteral("%1: %2").arg(settings.certificateFile, openSslReason()));
    if (SSL_CTX_use_PrivateKey_file(context, key.constData(), SSL_FILETYPE_PEM) != 1)
        return fail(context, error, QStringLiteral("%1: %2").arg(settings.keyFile, openSslReason()));
    if (SSL_CTX_check_private_key(context) != 1)
        return fail(
            context, error,
            QStringLiteral("%1 does not belong to %2").arg(settings.keyFile, settings.certificateFile));
    if (SSL_CTX_load_verify_locations(context, ca.constData(), nullptr) != 1)
        return fail(context, error, QStringLiteral("%1: %2").arg(settings.caFile, openSslReason()));
    // The CertificateRequest names the authorities, so that a client with several certificates picks one.
    if (STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(ca.constData()))
        SSL_CTX_set_client_CA_list(context, names);
    SSL_CTX_set_verify(context,
                       settings.requireClientCertificate ? SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT
                                                         : SSL_VERIFY_NONE,
                       nullptr);
    SSL_CTX_set_session_id_context(context, kSessionIdContext, sizeof(kSessionIdContext) - 1);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_SERVER);
    return context;
}

}  // namespace modbus_sim
