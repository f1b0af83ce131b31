#pragma once
// A one-client Modbus TCP server whose answers a test scripts PDU by PDU, for replies the simulator never
// gives (for example identification that always says more objects follow).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace plugin_test {

class ScriptedServer {
public:
    // Returns the reply PDU for a request PDU; an empty reply sends nothing.
    using Handler = std::function<QByteArray(const QByteArray& requestPdu)>;

    explicit ScriptedServer(Handler replyFor) : handler(std::move(replyFor)) {
        listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener, 4);
        socklen_t length = sizeof address;
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        listenPort = ntohs(address.sin_port);
        worker = std::thread([this] { serve(); });
    }

    ~ScriptedServer() {
        stopping = true;
        worker.join();
        ::close(listener);
    }

    quint16 port() const { return listenPort; }

    std::vector<QByteArray> requests() const {
        std::lock_guard<std::mutex> lock(mutex);
        return received;
    }

private:
    static constexpr int kPollSliceMs = 20;
    static constexpr int kMbapHeaderSize = 7;

    bool readExact(int fd, unsigned char* buffer, int size) {
        int done = 0;
        while (done < size && !stopping) {
            pollfd descriptor{fd, POLLIN, 0};
            if (::poll(&descriptor, 1, kPollSliceMs) <= 0) continue;
            const ssize_t count = ::recv(fd, buffer + done, size - done, 0);
            if (count <= 0) return false;
            done += static_cast<int>(count);
        }
        return done == size;
    }

    void serve() {
        int client = -1;
        while (!stopping && client < 0) {
            pollfd descriptor{listener, POLLIN, 0};
            if (::poll(&descriptor, 1, kPollSliceMs) > 0) client = ::accept(listener, nullptr, nullptr);
        }
        while (client >= 0 && !stopping) {
            unsigned char header[kMbapHeaderSize];
            if (!readExact(client, header, kMbapHeaderSize)) break;
            const int length = (header[4] << 8) | header[5];
            QByteArray pdu(length - 1, '\0');
            if (length > 1 && !readExact(client, reinterpret_cast<unsigned char*>(pdu.data()), length - 1))
                break;
            {
                std::lock_guard<std::mutex> lock(mutex);
                received.push_back(pdu);
            }
            const QByteArray reply = handler(pdu);
            if (reply.isEmpty()) continue;
            QByteArray frame(reinterpret_cast<const char*>(header), 4);
            frame.append(static_cast<char>((reply.size() + 1) >> 8));
            frame.append(static_cast<char>((reply.size() + 1) & 0xFF));
            frame.append(static_cast<char>(header[6]));
            frame.append(reply);
            ::send(client, frame.constData(), frame.size(), MSG_NOSIGNAL);
        }
        if (client >= 0) ::close(client);
    }

    Handler handler;
    int listener = -1;
    quint16 listenPort = 0;
    std::atomic<bool> stopping{false};
    mutable std::mutex mutex;
    std::vector<QByteArray> received;
    std::thread worker;
};

}  // namespace plugin_test
