#pragma once
// A pymodbus server (tests/tools/data/pymodbus_server.py, run by the system's Python) on a free loopback port
// for the length of each test: a Modbus peer that is not written here, speaking Modbus TCP or, with
// pymodbus's RTU framer, RTU frames on the TCP stream. Skips the test without Python.

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <chrono>
#include <cstdint>
#include <thread>

namespace pymodbus_test {

const QString kPython = QStringLiteral("/usr/bin/python3");
const QString kServerScript = QStringLiteral(ZELT_SOURCE_DIR "/tests/tools/data/pymodbus_server.py");
// Python needs a moment to import pymodbus; the guard only bounds a server that never comes up.
constexpr int kStartAttempts = 200;
constexpr int kStartRetryMs = 50;
constexpr int kConnectWaitMs = 200;

inline uint16_t freeLoopbackPort() {
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0)) return 0;
    return probe.serverPort();
}

inline bool acceptsConnections(uint16_t port) {
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, port);
        if (socket.waitForConnected(kConnectWaitMs)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(kStartRetryMs));
    }
    return false;
}

enum class Framer { Socket, Rtu };

inline QString framerName(Framer framer) {
    return framer == Framer::Rtu ? QStringLiteral("rtu") : QStringLiteral("socket");
}

// Starts the script in `server` on a free port and returns that port once it accepts connections.
inline void startServer(QProcess& server, Framer framer, uint16_t* port) {
    *port = freeLoopbackPort();
    ASSERT_NE(*port, 0);
    server.start(kPython,
                 {kServerScript, QString::number(*port), QStringLiteral("--framer"), framerName(framer)});
    ASSERT_TRUE(server.waitForStarted());
    ASSERT_TRUE(acceptsConnections(*port)) << server.readAllStandardError().toStdString();
}

inline void stopServer(QProcess& server) {
    if (server.state() != QProcess::NotRunning) {
        server.kill();
        server.waitForFinished();
    }
}

class PymodbusServerTest : public ::testing::Test {
protected:
    // Fixtures for the RTU framing override this; every server holds the same values whatever its framing.
    virtual Framer framer() const { return Framer::Socket; }

    void SetUp() override {
        if (!QFileInfo::exists(kPython)) GTEST_SKIP() << "no /usr/bin/python3";
        ASSERT_TRUE(dir.isValid());
        ASSERT_NO_FATAL_FAILURE(startServer(server, framer(), &port));
    }
    void TearDown() override { stopServer(server); }

    QTemporaryDir dir;
    QProcess server;
    uint16_t port = 0;
};

}  // namespace pymodbus_test
