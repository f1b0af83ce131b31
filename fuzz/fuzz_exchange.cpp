// The reply reader of Connection::exchangePdu fed arbitrary reply bytes in arbitrary chunks over loopback
// TCP. A listener inside the process accepts the connection; a writer thread hands the reply over chunk by
// chunk, each one only after the client has drained the previous, then closes its side. The outcome must
// match the reply's MBAP framing alone (late answers to earlier requests skipped), whatever the chunking.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QByteArray>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "connection/connection.h"
#include "fuzz/fuzz_check.h"

namespace {

constexpr int kMbapHeaderLength = 7;  // transaction id, protocol id, length, unit id
constexpr int kMbapPrefixLength = 6;  // the header without the unit id, which the length field counts
constexpr int kMinLengthField = 2;    // unit id and function code
constexpr int kMaxLengthField = 254;  // unit id and the largest PDU (253 bytes)
constexpr int kChunkSizes = 16;       // the first input byte picks chunks of 1 to 16 bytes, or 0: one chunk
constexpr int kLastFd = 1024;
// Safety nets only: a drained reply ends the exchange long before these.
constexpr unsigned int kResponseTimeoutSec = 2;
constexpr auto kDrainBudget = std::chrono::seconds(2);
constexpr auto kDrainPoll = std::chrono::microseconds(20);

const QByteArray kRequest = QByteArray::fromHex("0300000001");  // read holding register 0, one register

int listener() {
    static int fd = -1;
    if (fd >= 0) return fd;
    fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    FUZZ_CHECK(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);
    FUZZ_CHECK(::listen(fd, 4) == 0);
    return fd;
}

int listenerPort() {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(listener(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// The client's end of an accepted connection: the descriptor whose local address is the server's peer.
int clientEndOf(int server) {
    sockaddr_in peer{};
    socklen_t peerLength = sizeof peer;
    ::getpeername(server, reinterpret_cast<sockaddr*>(&peer), &peerLength);
    for (int fd = 0; fd < kLastFd; ++fd) {
        if (fd == server) continue;
        sockaddr_in local{};
        socklen_t localLength = sizeof local;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0) continue;
        if (local.sin_family == AF_INET && local.sin_port == peer.sin_port &&
            local.sin_addr.s_addr == peer.sin_addr.s_addr) {
            return fd;
        }
    }
    return -1;
}

void writeChunks(int server, int client, const QByteArray& reply, int chunkSize,
                 const std::atomic<bool>* done) {
    int offset = 0;
    while (offset < reply.size() && !*done) {
        const int length = qMin(chunkSize, reply.size() - offset);
        if (::send(server, reply.constData() + offset, length, MSG_NOSIGNAL) != length) break;
        offset += length;
        const auto deadline = std::chrono::steady_clock::now() + kDrainBudget;
        for (;;) {
            int pending = 0;
            if (*done || client < 0 || ::ioctl(client, FIONREAD, &pending) != 0 || pending == 0) break;
            if (std::chrono::steady_clock::now() >= deadline) break;
            std::this_thread::sleep_for(kDrainPoll);
        }
    }
    ::shutdown(server, SHUT_WR);
}

// The transaction id of the one request the exchange sends (each connection numbers its requests from 1), and
// how far behind it a late answer to an earlier request may be numbered.
constexpr int kRequestTransactionId = 1;
constexpr int kLateAnswerWindow = 1024;
constexpr int kTransactionIdSpace = 65536;

// What the reader must return for these reply bytes: the PDU length, or -1 when the frame is incomplete or
// its length field is out of range. Whole frames numbered as answers to earlier requests come late and are
// skipped; `*start` receives where the answer taken begins.
int expectedLength(const QByteArray& reply, int* start) {
    int offset = 0;
    for (;;) {
        if (reply.size() - offset < kMbapHeaderLength) return -1;
        const int lengthField =
            (static_cast<quint8>(reply.at(offset + 4)) << 8) | static_cast<quint8>(reply.at(offset + 5));
        if (lengthField < kMinLengthField || lengthField > kMaxLengthField) return -1;
        if (reply.size() - offset < kMbapPrefixLength + lengthField) return -1;
        const int id =
            (static_cast<quint8>(reply.at(offset)) << 8) | static_cast<quint8>(reply.at(offset + 1));
        const int behind = (kRequestTransactionId - id + kTransactionIdSpace) % kTransactionIdSpace;
        if (behind == 0 || behind > kLateAnswerWindow) {
            *start = offset;
            return lengthField - 1;
        }
        offset += kMbapPrefixLength + lengthField;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const int chunkSize =
        data[0] % (kChunkSizes + 1) == 0 ? static_cast<int>(size) : data[0] % (kChunkSizes + 1);
    const QByteArray reply(reinterpret_cast<const char*>(data + 1), static_cast<int>(size - 1));

    Connection::Network network;
    network.host = QStringLiteral("127.0.0.1");
    network.port = listenerPort();
    int err = 0;
    Connection connection(network, nullptr, &err);
    FUZZ_CHECK(connection.isConnected());
    connection.setResponseTimeout(kResponseTimeoutSec, 0);
    const int server = ::accept(listener(), nullptr, nullptr);
    FUZZ_CHECK(server >= 0);
    const int one = 1;
    ::setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

    std::atomic<bool> done{false};
    std::thread writer(writeChunks, server, clientEndOf(server), reply, chunkSize, &done);
    QByteArray response;
    err = 0;
    const int result = connection.exchangePdu(kRequest, &response, &err);
    done = true;
    writer.join();
    ::close(server);

    int start = 0;
    const int expected = expectedLength(reply, &start);
    FUZZ_CHECK(result == expected);
    if (expected >= 0) {
        FUZZ_CHECK(response == reply.mid(start + kMbapHeaderLength, expected));
    } else {
        FUZZ_CHECK(err != 0);
    }
    return 0;
}
