#pragma once
// A plain-socket Modbus TCP client for the simulator tests: sends bytes as given and reads answers by their
// MBAP length, so that malformed answers are seen exactly as they arrive.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>

namespace simulator_test {

constexpr int kMbapHeaderLength = 7;
// Hang guard for answers that must come; a healthy answer takes microseconds.
constexpr int kAnswerWaitMs = 5000;
// How long the tests listen for an answer that must not come.
constexpr int kSilenceWaitMs = 300;

// An ADU: transaction id, protocol id 0, length, unit id, PDU (given as hex).
inline QByteArray adu(uint16_t transactionId, uint8_t unit, const QByteArray& pduHex) {
    const QByteArray pdu = QByteArray::fromHex(pduHex);
    QByteArray frame;
    frame.append(static_cast<char>(transactionId >> 8));
    frame.append(static_cast<char>(transactionId & 0xFF));
    frame.append(2, '\0');
    frame.append(static_cast<char>((pdu.size() + 1) >> 8));
    frame.append(static_cast<char>((pdu.size() + 1) & 0xFF));
    frame.append(static_cast<char>(unit));
    frame.append(pdu);
    return frame;
}

// Waits until `condition` holds or `timeoutMs` passes; true when it held.
inline bool waitFor(const std::function<bool()>& condition, int timeoutMs = kAnswerWaitMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class RawClient {
public:
    RawClient() = default;
    ~RawClient() { close(); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connectTo(uint16_t port) {
        close();
        fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            lastError = errno;
            close();
            return false;
        }
        return true;
    }

    void close() {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }

    bool send(const QByteArray& bytes) {
        return fd >= 0 && ::send(fd, bytes.constData(), bytes.size(), MSG_NOSIGNAL) == bytes.size();
    }

    // Reads up to `size` bytes, waiting at most `timeoutMs` for the first; empty on timeout, close or error
    // (then `lastError` holds errno, 0 for an orderly close, ETIMEDOUT for a timeout).
    QByteArray readSome(int size, int timeoutMs = kAnswerWaitMs) {
        pollfd wait = {fd, POLLIN, 0};
        const int ready = ::poll(&wait, 1, timeoutMs);
        if (ready <= 0) {
            lastError = ETIMEDOUT;
            return {};
        }
        QByteArray bytes(size, '\0');
        const ssize_t n = ::recv(fd, bytes.data(), size, 0);
        if (n <= 0) {
            lastError = n == 0 ? 0 : errno;
            return {};
        }
        bytes.resize(static_cast<int>(n));
        return bytes;
    }

    // Reads exactly `size` bytes; fewer when the wait ends early.
    QByteArray readExact(int size, int timeoutMs = kAnswerWaitMs) {
        QByteArray bytes;
        while (bytes.size() < size) {
            const QByteArray chunk = readSome(size - bytes.size(), timeoutMs);
            if (chunk.isEmpty()) break;
            bytes.append(chunk);
        }
        return bytes;
    }

    // One answer frame by its MBAP length field.
    QByteArray readFrame(int timeoutMs = kAnswerWaitMs) {
        QByteArray frame = readExact(kMbapHeaderLength, timeoutMs);
        if (frame.size() < kMbapHeaderLength) return frame;
        const int length = (static_cast<uint8_t>(frame.at(4)) << 8) | static_cast<uint8_t>(frame.at(5));
        if (length > 1) frame.append(readExact(length - 1, timeoutMs));
        return frame;
    }

    QByteArray exchange(const QByteArray& request) { return send(request) ? readFrame() : QByteArray(); }

    // Reads until the peer closes or resets; the bytes that came before. `lastError` tells which.
    QByteArray readUntilClosed(int timeoutMs = kAnswerWaitMs) {
        QByteArray bytes;
        for (;;) {
            const QByteArray chunk = readSome(kMbapHeaderLength, timeoutMs);
            if (chunk.isEmpty()) return bytes;
            bytes.append(chunk);
        }
    }

    int lastError = 0;

private:
    int fd = -1;
};

}  // namespace simulator_test
