#pragma once
// What TLS connections to one device share across reconnects: the context built from its certificates and
// the session of the last handshake, so that the next connect resumes it instead of paying for a full
// handshake. One endpoint per device address, port and certificate settings, kept for the life of the
// process; its certificates are read again when a file changed on disk.

#include <openssl/ssl.h>

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <atomic>
#include <memory>
#include <mutex>

#include "connection/tls_settings.h"

class TlsEndpoint {
public:
    // The endpoint of `target` ("host:port") with `settings`, made, or made again when a certificate file
    // changed. Null with *error (naming the setting and the file) when the certificates cannot be read;
    // *warnings gets what is worth logging, once per reading of the files.
    static std::shared_ptr<TlsEndpoint> forTarget(QString const& target, TlsSettings const& settings,
                                                  QString* error, QStringList* warnings);

    ~TlsEndpoint();
    TlsEndpoint(TlsEndpoint const&) = delete;
    TlsEndpoint& operator=(TlsEndpoint const&) = delete;

    SSL_CTX* context() const { return ctx; }
    // The session to resume (a copy of the caller's own, to free), or null.
    SSL_SESSION* sessionToResume();
    // A session the device offered for resumption, or none (null) after the device refused one.
    void keepSession(SSL_SESSION* session);
    // Days until the gateway's own certificate expires, or INT_MIN when none is configured.
    int clientCertificateDaysLeft() const { return clientDaysLeft; }

    // A connection that wants to know when its device offers a session (which says the device took the
    // gateway's certificate) points the SSL's app data at an atomic<bool> for that time.
    static void watchForSession(SSL* ssl, std::atomic<bool>* offered) { SSL_set_app_data(ssl, offered); }

    // Whether the CPU lacks AES instructions, going by /proc/cpuinfo's text: ChaCha20-Poly1305 is then
    // faster than AES-GCM and is offered first.
    static bool lacksAes(QByteArray const& cpuinfo);

private:
    TlsEndpoint() = default;
    static int onNewSession(SSL* ssl, SSL_SESSION* session);

    SSL_CTX* ctx = nullptr;
    std::mutex sessionMutex;
    SSL_SESSION* session = nullptr;
    QString fileStamp;
    int clientDaysLeft = 0;
};
