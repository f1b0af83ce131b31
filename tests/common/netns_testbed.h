#pragma once
// A two-namespace network for subnet scans that never touch the machine's own interfaces: a scanner namespace
// and a device namespace joined by one veth pair, created on construction and removed on destruction. Work
// runs inside a namespace on a dedicated thread that enters it first (a network namespace belongs to a
// thread, and threads and sockets created there stay in it); such a thread is never reused.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QString>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace netns_testbed {

// Runs a shell command quietly; true when it exits with 0.
inline bool runCommand(const std::string& command) {
    const std::string quiet = command + " >/dev/null 2>&1";
    return std::system(quiet.c_str()) == 0;
}

class Testbed {
public:
    // Names carry the process id and a per-process counter, so parallel runs never collide. Interface names
    // stay within the 15 characters Linux allows.
    Testbed() {
        static std::atomic<int> counter{0};
        const std::string tag = std::to_string(::getpid()) + "x" + std::to_string(counter++);
        scannerNamespace = "zdn-s" + tag;
        deviceNamespace = "zdn-d" + tag;
        scannerLink = "zs" + tag;
        deviceLink = "zd" + tag;
    }
    ~Testbed() { destroy(); }
    Testbed(const Testbed&) = delete;
    Testbed& operator=(const Testbed&) = delete;

    // Creates both namespaces and the veth pair, gives the scanner side `scannerAddress` (with prefix, e.g.
    // "10.77.0.1/24") and the device side every address of `deviceAddresses`, and brings lo and both ends up.
    // On failure `error` names the step that failed.
    bool create(const std::string& scannerAddress, const std::vector<std::string>& deviceAddresses,
                std::string* error) {
        created = true;
        const std::vector<std::string> steps = [&] {
            std::vector<std::string> list = {
                "ip netns add " + scannerNamespace,
                "ip netns add " + deviceNamespace,
                "ip link add " + scannerLink + " type veth peer name " + deviceLink,
                "ip link set " + scannerLink + " netns " + scannerNamespace,
                "ip link set " + deviceLink + " netns " + deviceNamespace,
                "ip -n " + scannerNamespace + " link set lo up",
                "ip -n " + deviceNamespace + " link set lo up",
                "ip -n " + scannerNamespace + " addr add " + scannerAddress + " dev " + scannerLink,
            };
            for (const std::string& address : deviceAddresses) {
                list.push_back("ip -n " + deviceNamespace + " addr add " + address + " dev " + deviceLink);
            }
            list.push_back("ip -n " + scannerNamespace + " link set " + scannerLink + " up");
            list.push_back("ip -n " + deviceNamespace + " link set " + deviceLink + " up");
            // The carrier (RUNNING, which enumeration requires) follows the link a moment later; wait for it.
            list.push_back("for i in $(seq 150); do ip -n " + scannerNamespace + " -o link show dev " +
                           scannerLink + " | grep -q 'state UP' && ip -n " + deviceNamespace +
                           " -o link show dev " + deviceLink +
                           " | grep -q 'state UP' && exit 0; sleep 0.02; done; exit 1");
            return list;
        }();
        for (const std::string& step : steps) {
            if (!runCommand(step)) {
                if (error) {
                    *error = "failed: " + step;
                }
                return false;
            }
        }
        return true;
    }

    // Removing the namespaces removes the veth pair with them. Safe to call more than once.
    void destroy() {
        if (!created) {
            return;
        }
        created = false;
        runCommand("ip netns del " + scannerNamespace);
        runCommand("ip netns del " + deviceNamespace);
        runCommand("ip link del " + scannerLink);  // only if the move into the namespace never happened
    }

    // Runs `work` on a new thread that has entered the namespace, and waits for it. False (and `work` not
    // run) when the namespace cannot be entered.
    static bool runIn(const std::string& name, const std::function<void()>& work) {
        bool entered = false;
        std::thread thread([&] {
            const std::string path = "/var/run/netns/" + name;
            const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0) {
                return;
            }
            entered = ::setns(fd, CLONE_NEWNET) == 0;
            ::close(fd);
            if (entered) {
                work();
            }
        });
        thread.join();
        return entered;
    }

    bool runInScanner(const std::function<void()>& work) const { return runIn(scannerNamespace, work); }
    bool runInDevices(const std::function<void()>& work) const { return runIn(deviceNamespace, work); }

    std::string scannerNamespace;
    std::string deviceNamespace;
    std::string scannerLink;
    std::string deviceLink;

private:
    bool created = false;
};

// A TCP port that completes the handshake (the kernel does that for a listening socket) and never answers.
// Must be constructed inside the namespace it is to listen in.
class SilentListener {
public:
    SilentListener(const char* address, uint16_t port) {
        fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in bindAddress{};
        bindAddress.sin_family = AF_INET;
        bindAddress.sin_port = htons(port);
        const int one = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        listening = fd >= 0 && ::inet_pton(AF_INET, address, &bindAddress.sin_addr) == 1 &&
                    ::bind(fd, reinterpret_cast<sockaddr*>(&bindAddress), sizeof(bindAddress)) == 0 &&
                    ::listen(fd, 16) == 0;
    }
    ~SilentListener() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    SilentListener(const SilentListener&) = delete;
    SilentListener& operator=(const SilentListener&) = delete;

    bool ok() const { return listening; }

private:
    int fd = -1;
    bool listening = false;
};

}  // namespace netns_testbed
