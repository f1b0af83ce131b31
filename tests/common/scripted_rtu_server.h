#pragma once
// A loopback server that speaks RTU over TCP with answers a test scripts byte for byte: what a converter puts
// on the stream around an answer (heartbeats, garbage, another unit's answer), answers split into chunks, bad
// CRCs, and bytes sent whenever the test says (a late answer).

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

#include "connection/crc16.h"

namespace test_support {

// `body` (unit id and PDU) with its CRC, low byte first.
inline QByteArray rtuFrame(const QByteArray& body) {
    const uint16_t crc = modbus_crc::crc16(reinterpret_cast<const unsigned char*>(body.constData()),
                                           static_cast<size_t>(body.size()));
    QByteArray frame = body;
    frame.append(static_cast<char>(crc & 0xFF));
    frame.append(static_cast<char>(crc >> 8));
    return frame;
}

inline QByteArray rtuFrameHex(const char* bodyHex) {
    return rtuFrame(QByteArray::fromHex(bodyHex));
}

struct RtuRequest {
    int unit = 0;
    QByteArray pdu;    // function code first
    QByteArray frame;  // as received, CRC included
};

// What the server sends for one request: chunks `gapMs` apart (one chunk: all at once; none: silence).
struct RtuReply {
    std::vector<QByteArray> chunks;
    int gapMs = 0;
};

class ScriptedRtuServer {
public:
    using Handler = std::function<RtuReply(const RtuRequest&)>;

    explicit ScriptedRtuServer(Handler handler) : handler(std::move(handler)) {
        listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (listenFd < 0 || ::bind(listenFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(listenFd, 4) != 0 ||
            ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            return;
        listenPort = ntohs(address.sin_port);
        worker = std::thread([this] { serve(); });
    }

    ~ScriptedRtuServer() {
        stopping = true;
        if (worker.joinable()) worker.join();
        if (listenFd >= 0) ::close(listenFd);
    }

    quint16 port() const { return listenPort; }

    std::vector<RtuRequest> requests() const {
        std::lock_guard<std::mutex> lock(mutex);
        return received;
    }

    // Sends `bytes` on the connection now being served, from the server's own thread; returns once they are
    // handed to the socket (false when no connection is served).
    bool sendNow(const QByteArray& bytes) {
        std::unique_lock<std::mutex> lock(mutex);
        if (client < 0) return false;
        pending.push_back(bytes);
        const size_t target = ++pushed;
        sentChanged.wait_for(lock, std::chrono::seconds(30), [&] { return flushed >= target || client < 0; });
        return flushed >= target;
    }

private:
    // The length of a request frame by its function code, once its first bytes are there; 0 while unknown.
    static int requestLength(const QByteArray& frame) {
        if (frame.size() < 2) return 0;
        switch (static_cast<quint8>(frame.at(1))) {
            case 0x0F:
            case 0x10:
                return frame.size() < 7 ? 0 : 7 + static_cast<quint8>(frame.at(6)) + 2;
            case 0x11:
                return 4;
            case 0x16:
                return 10;
            case 0x2B:
                return 7;
            default:
                return 8;  // FC 1-6: unit, function, two words, CRC
        }
    }

    void flushPending(int fd) {
        std::vector<QByteArray> toSend;
        {
            std::lock_guard<std::mutex> lock(mutex);
            toSend.swap(pending);
        }
        for (const QByteArray& bytes : toSend)
            (void)::send(fd, bytes.constData(), bytes.size(), MSG_NOSIGNAL);
        std::lock_guard<std::mutex> lock(mutex);
        flushed += toSend.size();
        sentChanged.notify_all();
    }

    void setClient(int fd) {
        std::lock_guard<std::mutex> lock(mutex);
        client = fd;
        sentChanged.notify_all();
    }

    void serve() {
        while (!stopping) {
            pollfd listening{listenFd, POLLIN, 0};
            if (::poll(&listening, 1, 20) <= 0) continue;
            const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            setClient(fd);
            QByteArray buffer;
            bool open = true;
            while (open && !stopping) {
                flushPending(fd);
                pollfd entry{fd, POLLIN, 0};
                if (::poll(&entry, 1, 5) <= 0) continue;
                char chunk[512];
                const ssize_t count = ::recv(fd, chunk, sizeof chunk, 0);
                if (count <= 0) break;
                buffer.append(chunk, static_cast<int>(count));
                for (int length = requestLength(buffer); length > 0 && buffer.size() >= length;
                     length = requestLength(buffer)) {
                    RtuRequest request;
                    request.frame = buffer.left(length);
                    request.unit = static_cast<quint8>(buffer.at(0));
                    request.pdu = buffer.mid(1, length - 3);
                    buffer.remove(0, length);
                    {
                        std::lock_guard<std::mutex> lock(mutex);
                        received.push_back(request);
                    }
                    const RtuReply reply = handler(request);
                    for (size_t i = 0; i < reply.chunks.size(); ++i) {
                        if (i > 0 && reply.gapMs > 0)
                            std::this_thread::sleep_for(std::chrono::milliseconds(reply.gapMs));
                        const QByteArray& bytes = reply.chunks[i];
                        if (::send(fd, bytes.constData(), bytes.size(), MSG_NOSIGNAL) < 0) open = false;
                    }
                }
            }
            setClient(-1);
            ::close(fd);
        }
    }

    Handler handler;
    int listenFd = -1;
    quint16 listenPort = 0;
    std::atomic<bool> stopping{false};
    mutable std::mutex mutex;
    std::condition_variable sentChanged;
    std::vector<RtuRequest> received;
    std::vector<QByteArray> pending;
    size_t pushed = 0;
    size_t flushed = 0;
    int client = -1;
    std::thread worker;
};

}  // namespace test_support
