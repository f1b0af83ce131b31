#include "connection/tls_endpoint.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <QFile>
#include <climits>
#include <map>

#include "connection/tls_credentials.h"

namespace {

// Offered first on a CPU without AES instructions (the 32-bit Arm gateways), where it is several times
// faster.
constexpr const char* kChaChaFirstSuites =
    "TLS_CHACHA20_POLY1305_SHA256:TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384";
constexpr const char* kChaChaFirstCiphers =
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:ECDHE-ECDSA-AES128-GCM-SHA256:"
    "ECDHE-RSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384";
// AES-128 with SHA-256 first where the CPU has AES instructions: its key schedule, paid again on every
// resumed reconnect, is the cheapest.
constexpr const char* kAesFirstSuites =
    "TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256:TLS_AES_256_GCM_SHA384";
constexpr const char* kAesFirstCiphers =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
    "ECDHE-RSA-AES256-GCM-SHA384:ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305";
constexpr qint64 kMostCpuinfoBytes = 256 * 1024;
// Endpoints of devices that left the host would otherwise stay for the life of the process: beyond this many,
// those no connection holds are dropped (their next connect makes a full handshake).
constexpr size_t kMostKeptEndpoints = 512;

bool cpuLacksAes() {
    static const bool lacks = [] {
        QFile cpuinfo(QStringLiteral("/proc/cpuinfo"));
        return cpuinfo.open(QIODevice::ReadOnly) && TlsEndpoint::lacksAes(cpuinfo.read(kMostCpuinfoBytes));
    }();
    return lacks;
}

QByteArray cacheKey(QString const& target, TlsSettings const& settings) {
    return target.toUtf8() + '/' + settings.digest();
}

std::mutex& cacheMutex() {
    static std::mutex mutex;
    return mutex;
}

std::map<QByteArray, std::shared_ptr<TlsEndpoint>>& cache() {
    static std::map<QByteArray, std::shared_ptr<TlsEndpoint>> endpoints;
    return endpoints;
}

}  // namespace

bool TlsEndpoint::lacksAes(QByteArray const& cpuinfo) {
    // x86 lists "aes" among its "flags", Arm among its "Features".
    for (QByteArray const& line : cpuinfo.split('\n')) {
        if (!line.startsWith("flags") && !line.startsWith("Features")) continue;
        const int colon = line.indexOf(':');
        if (colon < 0) continue;
        for (QByteArray const& flag : line.mid(colon + 1).simplified().split(' '))
            if (flag == "aes") return false;
    }
    return true;
}

std::shared_ptr<TlsEndpoint> TlsEndpoint::forTarget(QString const& target, TlsSettings const& settings,
                                                    QString* error, QStringList* warnings) {
    const QByteArray key = cacheKey(target, settings);
    const QString stamp = tlsFileStamp(settings);
    {
        std::lock_guard<std::mutex> lock(cacheMutex());
        auto found = cache().find(key);
        if (found != cache().end() && found->second->fileStamp == stamp) return found->second;
    }
    const TlsCredentials credentials = loadTlsCredentials(settings);
    *warnings = credentials.warnings;
    if (!credentials.ok()) {
        *error = credentials.error;
        return {};
    }
    std::shared_ptr<TlsEndpoint> endpoint(new TlsEndpoint);
    endpoint->fileStamp = stamp;
    SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
    endpoint->ctx = ctx;
    if (!ctx) {
        *error = QStringLiteral("TLS: cannot set up a context");
        return {};
    }
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
    // A record's header and body in one read: every read below asks OpenSSL first and waits on the socket
    // only when it has nothing buffered, so bytes read ahead are never waited for.
    SSL_CTX_set_read_ahead(ctx, 1);
    if (cpuLacksAes()) {
        SSL_CTX_set_ciphersuites(ctx, kChaChaFirstSuites);
        SSL_CTX_set_cipher_list(ctx, kChaChaFirstCiphers);
    } else {
        SSL_CTX_set_ciphersuites(ctx, kAesFirstSuites);
        SSL_CTX_set_cipher_list(ctx, kAesFirstCiphers);
    }
    X509_STORE* store = SSL_CTX_get_cert_store(ctx);
    for (CertificatePtr const& authority : credentials.authorities)
        X509_STORE_add_cert(store, authority.get());
    if (!credentials.chain.empty()) {
        SSL_CTX_use_certificate(ctx, credentials.chain.front().get());
        for (size_t i = 1; i < credentials.chain.size(); ++i)
            SSL_CTX_add1_chain_cert(ctx, credentials.chain[i].get());
        SSL_CTX_use_PrivateKey(ctx, credentials.key.get());
        endpoint->clientDaysLeft = daysUntilExpiry(credentials.chain.front().get());
    } else {
        endpoint->clientDaysLeft = INT_MIN;
    }
    ERR_clear_error();
    // Sessions are kept here, one per endpoint, not in OpenSSL's cache: the newest is the one to resume.
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
    SSL_CTX_set_app_data(ctx, endpoint.get());
    SSL_CTX_sess_set_new_cb(ctx, &TlsEndpoint::onNewSession);
    std::lock_guard<std::mutex> lock(cacheMutex());
    if (cache().size() >= kMostKeptEndpoints) {
        for (auto kept = cache().begin(); kept != cache().end();)
            kept = kept->second.use_count() == 1 ? cache().erase(kept) : std::next(kept);
    }
    cache()[key] = endpoint;
    return endpoint;
}

TlsEndpoint::~TlsEndpoint() {
    if (session) SSL_SESSION_free(session);
    if (ctx) SSL_CTX_free(ctx);
}

int TlsEndpoint::onNewSession(SSL* ssl, SSL_SESSION* session) {
    auto* endpoint = static_cast<TlsEndpoint*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
    if (!endpoint) return 0;
    if (auto* offered = static_cast<std::atomic<bool>*>(SSL_get_app_data(ssl))) *offered = true;
    endpoint->keepSession(session);
    return 1;  // the reference is the endpoint's now
}

SSL_SESSION* TlsEndpoint::sessionToResume() {
    std::lock_guard<std::mutex> lock(sessionMutex);
    if (!session || !SSL_SESSION_is_resumable(session)) return nullptr;
    // A copy of its own for each connection: OpenSSL changes the session a connection resumed when a new
    // ticket arrives on it, and connections of one endpoint (devices with a connection each) run on their own
    // threads.
    return SSL_SESSION_dup(session);
}

void TlsEndpoint::keepSession(SSL_SESSION* newSession) {
    std::lock_guard<std::mutex> lock(sessionMutex);
    if (session) SSL_SESSION_free(session);
    session = newSession;
}
