#pragma once
// A plain Modbus TCP simulator and one over Modbus/TCP Security in a child process forked before the bench
// starts anything else, so that none of their threads, tables or CPU time count in the parent's figures.

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QString>
#include <cstdint>
#include <cstdio>

#include "bench/bench_items.h"
#include "tools/sim/simulator.h"

namespace bench {

struct SimulatorPorts {
    uint16_t plain = 0;
    uint16_t tls = 0;
};

class SimulatorChild {
public:
    // Forks the child and waits for its ports; false (after saying why, where a simulator did not start)
    // when the bench cannot go on. The TLS simulator makes the certificate kit in `kitDir` when it starts.
    bool start(const QString& kitDir) {
        if (::pipe(report_) != 0 || ::pipe(control_) != 0) return false;
        child_ = ::fork();
        if (child_ < 0) return false;
        if (child_ == 0) {
            ::close(report_[0]);
            ::close(control_[1]);
            serve(kitDir, report_[1], control_[0]);
        }
        ::close(report_[1]);
        ::close(control_[0]);
        const bool havePorts = ::read(report_[0], &ports_, sizeof(ports_)) == sizeof(ports_) &&
                               ports_.plain != 0 && ports_.tls != 0;
        ::close(report_[0]);
        if (!havePorts) {
            std::fprintf(stderr, "the simulators did not start\n");
            stop();
            return false;
        }
        return true;
    }

    const SimulatorPorts& ports() const { return ports_; }

    // The child serves until its end of the control pipe closes.
    void stop() {
        if (child_ <= 0) return;
        ::close(control_[1]);
        int status = 0;
        ::waitpid(child_, &status, 0);
        child_ = -1;
    }

private:
    // Reports both ports (zero for one that did not start), then serves until the parent closes `controlFd`.
    [[noreturn]] static void serve(const QString& kitDir, int reportFd, int controlFd) {
        modbus_sim::Simulator plain;
        modbus_sim::Simulator tls;
        tls.setTlsKit(kitDir, modbus_sim::TlsFault::None);
        SimulatorPorts ports;
        if (plain.start()) {
            fillSimulator(&plain);
            ports.plain = plain.port();
        }
        if (tls.start()) {
            fillSimulator(&tls);
            ports.tls = tls.port();
        }
        if (::write(reportFd, &ports, sizeof(ports)) != sizeof(ports)) _exit(1);
        ::close(reportFd);
        char byte;
        while (::read(controlFd, &byte, 1) > 0) {
        }
        plain.stop();
        tls.stop();
        _exit(0);
    }

    int report_[2] = {-1, -1};
    int control_[2] = {-1, -1};
    pid_t child_ = -1;
    SimulatorPorts ports_;
};

}  // namespace bench
