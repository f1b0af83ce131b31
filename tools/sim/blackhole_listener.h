#pragma once
// A loopback endpoint that never answers a connection attempt, as a powered-off device behind a switch: the
// client's SYN goes unanswered, so connect() runs into its own timeout instead of being refused at once.

#include <QString>
#include <cstdint>
#include <vector>

namespace modbus_sim {

class BlackholeListener {
public:
    BlackholeListener() = default;
    ~BlackholeListener();
    BlackholeListener(const BlackholeListener&) = delete;
    BlackholeListener& operator=(const BlackholeListener&) = delete;

    // Binds address:port (port 0 picks a free one; only 127.0.0.0/8 is accepted) and makes it silent. False
    // with a reason when it cannot.
    bool start(const QString& address = QStringLiteral("127.0.0.1"), uint16_t port = 0,
               QString* error = nullptr);
    void stop();
    uint16_t port() const { return boundPort; }

private:
    int listenFd = -1;
    // Client ends of the connections that fill the accept queue; they are never accepted.
    std::vector<int> fillers;
    uint16_t boundPort = 0;
};

}  // namespace modbus_sim
