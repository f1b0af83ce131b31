#pragma once
// A slow wire for benchmarks and tests: a TCP relay on loopback that forwards every connection's bytes to a
// target (a simulator) and back, each chunk held for a fixed one-way latency. It delays, it does not
// throttle: any number of chunks may be on their way at once, so requests a client sends before reading the
// answers overlap on the wire as they would on a long link. Connection set-up itself is not delayed.

#include <QString>
#include <chrono>
#include <cstdint>
#include <memory>

namespace modbus_sim {

// Connections the relay serves at once; further ones are closed as soon as they are accepted, so a runaway
// client cannot make it start threads without end.
constexpr int kMaxRelayConnections = 64;

class WireRelay {
public:
    WireRelay();
    ~WireRelay();
    WireRelay(const WireRelay&) = delete;
    WireRelay& operator=(const WireRelay&) = delete;

    // Listens on 127.0.0.1 (a free port) and relays each accepted connection to 127.0.0.1:targetPort, every
    // chunk of bytes in either direction delivered `oneWay` after it was read. False with a reason when it
    // cannot listen.
    bool start(uint16_t targetPort, std::chrono::microseconds oneWay, QString* error = nullptr);
    // Closes every connection (bytes still on their way are dropped) and joins every thread.
    void stop();
    uint16_t port() const;
    // Connections relayed since start (each with a connection to the target).
    int relayedConnections() const;

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace modbus_sim
