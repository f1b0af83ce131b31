#pragma once
// Modbus/TCP Security settings of the simulator: the same MBAP frames inside TLS 1.2 or 1.3, the device and
// its clients authenticated by X.509 certificates, the client's role taken from its certificate.

#include <QString>

namespace modbus_sim {

// The port Modbus/TCP Security devices listen on.
constexpr int kModbusTlsPort = 802;
// A handshake that has not finished within this time is given up on (its connection closed). Far above
// what a handshake over loopback or a plant network takes, also under qemu.
constexpr int kTlsHandshakeTimeoutMs = 10000;

enum class TlsFault {
    None,
    // The certificate faults are served by choosing other certificate files (see tlsServerSettingsForKit);
    // the simulator itself serves them as any certificate.
    ExpiredCertificate,  // the device certificate's notAfter lies in the past
    WrongCa,             // the device certificate is signed by an authority the client does not trust
    WrongName,           // the device certificate names wrong.example only
    // The device does not ask for a client certificate; requests then run without a role, and a device
    // that does not demand client certificates allows every function.
    NoClientCertificateDemanded,
    // The port speaks plain Modbus TCP. A frame whose protocol id is not 0 (a TLS ClientHello read as an
    // MBAP header is one) is answered with a plain Modbus exception frame, so that a TLS client reads Modbus
    // bytes where it expects a TLS record ("wrong version number").
    PlainTcp,
    StallHandshake,  // the connection is accepted, the ClientHello read and never answered
};

struct TlsServerSettings {
    bool enabled = false;
    QString caFile;           // PEM: the authorities a client certificate must be signed by
    QString certificateFile;  // PEM: the device certificate (followed by any intermediates)
    QString keyFile;          // PEM: the device certificate's private key
    // SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT: a client without a certificate is refused.
    bool requireClientCertificate = true;
    TlsFault fault = TlsFault::None;
};

// Fault names as the command line and the map file spell them: none, expired_certificate, wrong_ca,
// wrong_name, no_client_certificate_demanded, plain_tcp, stall_handshake.
QString tlsFaultName(TlsFault fault);
bool tlsFaultFromName(const QString& name, TlsFault* fault);
QString tlsFaultNames();

}  // namespace modbus_sim
