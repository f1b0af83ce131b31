#pragma once
// stunnel (Debian's stunnel4) terminating Modbus/TCP Security in front of a plain Modbus TCP server: an
// independent TLS implementation, with client-certificate verification, for the length of a test. The
// certificates come from the simulator's kit, made at test time.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <chrono>
#include <thread>

namespace test_support {

const QString kStunnel = QStringLiteral("/usr/bin/stunnel4");
constexpr int kStunnelStartAttempts = 200;
constexpr int kStunnelRetryMs = 25;

class Stunnel {
public:
    // What stunnel demands of the client: "2" verifies a client certificate it requires, "0" asks for none.
    bool start(QString const& pkiDir, quint16 backendPort, QString const& verify = QStringLiteral("2"),
               QString const& certificateName = QStringLiteral("device")) {
        if (!dir.isValid()) return false;
        QTcpServer probe;
        if (!probe.listen(QHostAddress::LocalHost, 0)) return false;
        listenPort = probe.serverPort();
        probe.close();
        const QString config = dir.filePath(QStringLiteral("stunnel.conf"));
        QFile file(config);
        if (!file.open(QIODevice::WriteOnly)) return false;
        file.write(QStringLiteral("foreground = yes\n"
                                  "pid =\n"
                                  "debug = 3\n"
                                  "[modbus]\n"
                                  "accept = 127.0.0.1:%1\n"
                                  "connect = 127.0.0.1:%2\n"
                                  "cert = %3/%6.pem\n"
                                  "key = %3/%6.key\n"
                                  "CAfile = %3/ca.pem\n"
                                  "verifyChain = %4\n"
                                  "requireCert = %5\n")
                       .arg(listenPort)
                       .arg(backendPort)
                       .arg(pkiDir,
                            verify == QLatin1String("0") ? QStringLiteral("no") : QStringLiteral("yes"),
                            verify == QLatin1String("0") ? QStringLiteral("no") : QStringLiteral("yes"),
                            certificateName)
                       .toUtf8());
        file.close();
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(kStunnel, {config});
        if (!process.waitForStarted()) return false;
        for (int attempt = 0; attempt < kStunnelStartAttempts; ++attempt) {
            QTcpSocket socket;
            socket.connectToHost(QHostAddress::LocalHost, listenPort);
            if (socket.waitForConnected(kStunnelRetryMs)) return true;
            if (process.state() == QProcess::NotRunning) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(kStunnelRetryMs));
        }
        return false;
    }

    ~Stunnel() {
        if (process.state() != QProcess::NotRunning) {
            process.terminate();
            if (!process.waitForFinished(5000)) {
                process.kill();
                process.waitForFinished();
            }
        }
    }

    quint16 port() const { return listenPort; }
    QString output() { return QString::fromUtf8(process.readAll()); }

private:
    QTemporaryDir dir;
    QProcess process;
    quint16 listenPort = 0;
};

}  // namespace test_support
