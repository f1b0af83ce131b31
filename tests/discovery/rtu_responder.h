#pragma once
// A TCP server that speaks RTU frames as a transparent serial-to-Ethernet converter passes them on: it finds
// requests in the byte stream by their function code and CRC (skipping whatever else arrives, such as the
// MBAP frames of a Modbus TCP probe) and sends back the raw bytes a test's handler scripts for each request.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "discovery/frames.h"

namespace rtu_test {

struct RtuRequest {
    int connection = 0;  // 1 for the first accepted connection, then counting up
    int unit = 0;
    QByteArray pdu;
};

// The RTU frame of `unit` carrying `pdu`, its CRC appended low byte first.
inline QByteArray rtuFrame(int unit, const QByteArray& pdu) {
    return ModbusDiscovery::wrapRtu(static_cast<unsigned char>(unit), pdu);
}

// Serves one connection at a time. Each accepted connection first gets `greeting` (a converter's heartbeat);
// the handler's answer to a request is sent as it is (empty: stay silent). A connection is closed after
// `closeAfterRequests` requests when that is positive.
class RtuResponder {
public:
    using Handler = std::function<QByteArray(const RtuRequest&)>;

    // Listens on `address` and `port` (0: any free port).
    RtuResponder(const char* address, uint16_t port, Handler handler, QByteArray greeting = QByteArray(),
                 int closeAfterRequests = 0)
        : handler(std::move(handler)), greeting(std::move(greeting)), closeAfterRequests(closeAfterRequests) {
        listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in bindAddress{};
        bindAddress.sin_family = AF_INET;
        bindAddress.sin_port = htons(port);
        socklen_t length = sizeof(bindAddress);
        const int one = 1;
        if (listenFd < 0 || ::inet_pton(AF_INET, address, &bindAddress.sin_addr) != 1 ||
            ::setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) != 0 ||
            ::bind(listenFd, reinterpret_cast<sockaddr*>(&bindAddress), sizeof(bindAddress)) != 0 ||
            ::listen(listenFd, kBacklog) != 0 ||
            ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&bindAddress), &length) != 0) {
            return;
        }
        listenPort = ntohs(bindAddress.sin_port);
        worker = std::thread([this] { serve(); });
    }

    ~RtuResponder() {
        stopping = true;
        if (worker.joinable()) {
            worker.join();
        }
        if (listenFd >= 0) {
            ::close(listenFd);
        }
    }
    RtuResponder(const RtuResponder&) = delete;
    RtuResponder& operator=(const RtuResponder&) = delete;

    bool ok() const { return listenPort != 0; }
    quint16 port() const { return listenPort; }

    std::vector<RtuRequest> requests() const {
        std::lock_guard<std::mutex> lock(mutex);
        return received;
    }

    // Waits (bounded) until `count` requests have arrived; a silent request is recorded before the client
    // gives up on it, but on another thread.
    std::vector<RtuRequest> requestsOnceThereAre(size_t count) const {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait_for(lock, std::chrono::seconds(kWaitSeconds), [&] { return received.size() >= count; });
        return received;
    }

private:
    static constexpr int kBacklog = 8;
    static constexpr int kPollMs = 20;
    static constexpr int kWaitSeconds = 30;
    static constexpr quint8 kFcReportSlaveId = 0x11;
    static constexpr quint8 kFcMei = 0x2B;
    static constexpr int kCrcSize = 2;
    static constexpr int kReportSlaveIdRequestSize = 4;  // unit, function, CRC
    static constexpr int kDeviceIdRequestSize = 7;       // unit, function, MEI type, read code, object, CRC
    static constexpr int kReadRequestSize = 8;           // unit, function, address, quantity, CRC

    static int requestSize(quint8 function) {
        switch (function) {
            case kFcReportSlaveId:
                return kReportSlaveIdRequestSize;
            case kFcMei:
                return kDeviceIdRequestSize;
            default:
                return kReadRequestSize;
        }
    }

    // Takes the whole requests off the front of the buffer; a byte that starts no request with a good CRC is
    // dropped. Returns false when the connection is to be closed.
    bool handleBuffered(int client, int connection, QByteArray* buffer, int* served) {
        while (buffer->size() >= 2) {
            const int size = requestSize(static_cast<quint8>(buffer->at(1)));
            if (buffer->size() < size) {
                return true;
            }
            // Not parseRtu: that takes answers, and the four-byte Report Slave ID request is shorter than
            // any.
            const QByteArray body = buffer->left(size - kCrcSize);
            const quint16 crc = static_cast<quint16>(static_cast<quint8>(buffer->at(size - 2)) |
                                                     (static_cast<quint8>(buffer->at(size - 1)) << 8));
            if (crc != ModbusDiscovery::crc16Modbus(body)) {
                buffer->remove(0, 1);
                continue;
            }
            buffer->remove(0, size);
            const RtuRequest request{connection, static_cast<quint8>(body.at(0)), body.mid(1)};
            {
                std::lock_guard<std::mutex> lock(mutex);
                received.push_back(request);
            }
            arrived.notify_all();
            const QByteArray answer = handler(request);
            if (!answer.isEmpty()) {
                (void)::send(client, answer.constData(), static_cast<size_t>(answer.size()), MSG_NOSIGNAL);
            }
            if (closeAfterRequests > 0 && ++*served >= closeAfterRequests) {
                return false;
            }
        }
        return true;
    }

    bool waitReadable(int fd) const {
        while (!stopping) {
            pollfd entry{fd, POLLIN, 0};
            if (::poll(&entry, 1, kPollMs) > 0) {
                return true;
            }
        }
        return false;
    }

    void serve() {
        int connections = 0;
        while (waitReadable(listenFd)) {
            const int client = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) {
                continue;
            }
            const int connection = ++connections;
            if (!greeting.isEmpty()) {
                (void)::send(client, greeting.constData(), static_cast<size_t>(greeting.size()),
                             MSG_NOSIGNAL);
            }
            QByteArray buffer;
            int served = 0;
            while (waitReadable(client)) {
                char chunk[256];
                const ssize_t count = ::recv(client, chunk, sizeof(chunk), 0);
                if (count <= 0) {
                    break;
                }
                buffer.append(chunk, static_cast<int>(count));
                if (!handleBuffered(client, connection, &buffer, &served)) {
                    break;
                }
            }
            ::close(client);
        }
    }

    Handler handler;
    QByteArray greeting;
    int closeAfterRequests = 0;
    int listenFd = -1;
    quint16 listenPort = 0;
    std::atomic<bool> stopping{false};
    mutable std::mutex mutex;
    mutable std::condition_variable arrived;
    std::vector<RtuRequest> received;
    std::thread worker;
};

}  // namespace rtu_test
