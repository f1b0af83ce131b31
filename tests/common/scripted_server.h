#pragma once
// A loopback Modbus TCP server whose answers a test scripts, for replies the simulator never gives
// (identification that always says more objects follow, MBAP length fields out of range, ...).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace test_support {

struct Request {
    quint16 transactionId = 0;
    int unit = 0;
    QByteArray pdu;
};

// A loopback server whose answers the test scripts: the handler gets each request and returns the raw bytes
// to send back (empty: stay silent). It serves one connection at a time and closes it when the client does.
class ScriptedServer {
public:
    using Handler = std::function<QByteArray(const Request&)>;

    explicit ScriptedServer(Handler handler) : handler(std::move(handler)) {
        listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        socklen_t length = sizeof(address);
        if (listenFd < 0 || ::bind(listenFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(listenFd, 4) != 0 ||
            ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&address), &length)) {
            return;
        }
        listenPort = ntohs(address.sin_port);
        worker = std::thread([this] { serve(); });
    }

    ~ScriptedServer() {
        stopping = true;
        if (worker.joinable()) {
            worker.join();
        }
        if (listenFd >= 0) {
            ::close(listenFd);
        }
    }

    quint16 port() const { return listenPort; }

    std::vector<Request> requests() const {
        std::lock_guard<std::mutex> lock(mutex);
        return received;
    }

private:
    static bool waitReadable(int fd, const std::atomic<bool>& stopping) {
        while (!stopping) {
            pollfd entry{fd, POLLIN, 0};
            const int ready = ::poll(&entry, 1, 20);
            if (ready > 0) {
                return true;
            }
        }
        return false;
    }

    // Reads exactly `size` bytes; false on close, error or stop.
    bool readExact(int fd, QByteArray* buffer, int size) {
        while (buffer->size() < size) {
            if (!waitReadable(fd, stopping)) {
                return false;
            }
            char chunk[256];
            const ssize_t count = ::recv(fd, chunk, std::min<int>(size - buffer->size(), sizeof(chunk)), 0);
            if (count <= 0) {
                return false;
            }
            buffer->append(chunk, static_cast<int>(count));
        }
        return true;
    }

    void serve() {
        while (!stopping) {
            if (!waitReadable(listenFd, stopping)) {
                return;
            }
            const int client = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) {
                continue;
            }
            while (!stopping) {
                QByteArray header;
                if (!readExact(client, &header, 7)) {
                    break;
                }
                const int length =
                    (static_cast<quint8>(header.at(4)) << 8) | static_cast<quint8>(header.at(5));
                QByteArray pdu;
                if (length > 1 && !readExact(client, &pdu, length - 1)) {
                    break;
                }
                Request request;
                request.transactionId = static_cast<quint16>((static_cast<quint8>(header.at(0)) << 8) |
                                                             static_cast<quint8>(header.at(1)));
                request.unit = static_cast<quint8>(header.at(6));
                request.pdu = pdu;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    received.push_back(request);
                }
                const QByteArray answer = handler(request);
                if (!answer.isEmpty()) {
                    (void)::send(client, answer.constData(), static_cast<size_t>(answer.size()),
                                 MSG_NOSIGNAL);
                }
            }
            ::close(client);
        }
    }

    Handler handler;
    int listenFd = -1;
    quint16 listenPort = 0;
    std::atomic<bool> stopping{false};
    mutable std::mutex mutex;
    std::vector<Request> received;
    std::thread worker;
};

// The MBAP frame answering `request` with `pdu`: same transaction id and unit, length counted for them.
inline QByteArray replyFrame(const Request& request, const QByteArray& pdu) {
    QByteArray frame;
    frame.append(static_cast<char>(request.transactionId >> 8));
    frame.append(static_cast<char>(request.transactionId & 0xFF));
    frame.append('\0');
    frame.append('\0');
    frame.append(static_cast<char>((pdu.size() + 1) >> 8));
    frame.append(static_cast<char>((pdu.size() + 1) & 0xFF));
    frame.append(static_cast<char>(request.unit));
    frame.append(pdu);
    return frame;
}

}  // namespace test_support
