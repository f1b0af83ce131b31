#include "discovery/subnet.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QHostAddress>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "discovery/subnet_internal.h"

namespace ModbusDiscovery {
namespace {

quint32 ip(const char* text) {
    return QHostAddress(QString::fromLatin1(text)).toIPv4Address();
}

quint32 maskOf(int prefix) {
    return prefix == 0 ? 0 : 0xFFFFFFFFU << (32 - prefix);
}

InterfaceInfo iface(const char* name, std::initializer_list<QPair<const char*, int>> entries, bool up = true,
                    bool running = true, bool loopback = false) {
    InterfaceInfo info;
    info.name = QString::fromLatin1(name);
    info.humanName = info.name;
    info.up = up;
    info.running = running;
    info.loopback = loopback;
    for (const auto& entry : entries) {
        info.entries.append(qMakePair(ip(entry.first), maskOf(entry.second)));
    }
    return info;
}

// Addresses from..to inclusive, without the ones listed in skip.
QStringList hostRange(const char* from, const char* to, const QStringList& skip = {}) {
    QStringList hosts;
    for (quint32 address = ip(from); address <= ip(to); ++address) {
        const QString text = QHostAddress(address).toString();
        if (!skip.contains(text)) {
            hosts.append(text);
        }
    }
    return hosts;
}

TEST(InterfaceMatches, ComparesSystemAndHumanNamesIgnoringCase) {
    InterfaceInfo info = iface("eth0", {});
    info.humanName = QStringLiteral("Plant LAN");
    struct Row {
        const char* wanted;
        bool expected;
    };
    const Row rows[] = {{"", true}, {"eth0", true}, {"ETH0", true}, {"plant lan", true}, {"eth1", false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.wanted);
        EXPECT_EQ(interfaceMatches(info, QString::fromLatin1(row.wanted)), row.expected);
    }
}

TEST(Ipv4HostsFromInterfaces, EnumeratesSubnets) {
    struct Row {
        const char* name;
        QList<InterfaceInfo> interfaces;
        const char* wanted;
        QStringList expectedHosts;
        QStringList expectedLog;
    };
    const QString limitLine = QStringLiteral("TCP subnet scan is limited to 256 hosts on eth0");
    const Row rows[] = {
        {"a /24 without its own address",
         {iface("eth0", {{"192.168.1.10", 24}})},
         "eth0",
         hostRange("192.168.1.1", "192.168.1.254", {QStringLiteral("192.168.1.10")}),
         {}},
        {"a named /16 stops at 256 hosts",
         {iface("eth0", {{"10.0.0.5", 16}})},
         "eth0",
         hostRange("10.0.0.1", "10.0.1.1", {QStringLiteral("10.0.0.5")}),
         {limitLine}},
        {"an unnamed /16 is skipped", {iface("eth0", {{"10.0.0.5", 16}})}, "", {}, {}},
        {"an unnamed /16 next to a small subnet",
         {iface("eth0", {{"10.0.0.5", 16}}), iface("eth1", {{"192.168.5.1", 29}})},
         "",
         hostRange("192.168.5.2", "192.168.5.6"),
         {}},
        {"/31 and /32 give nothing", {iface("eth0", {{"10.1.1.0", 31}, {"10.2.2.2", 32}})}, "eth0", {}, {}},
        {"up but not running", {iface("eth0", {{"192.168.1.10", 29}}, true, false)}, "", {}, {}},
        {"down", {iface("eth0", {{"192.168.1.10", 29}}, false, true)}, "", {}, {}},
        {"loopback", {iface("lo", {{"127.0.0.1", 8}}, true, true, true)}, "lo", {}, {}},
        {"ETH0 selects eth0",
         {iface("eth1", {{"192.168.9.1", 30}}), iface("eth0", {{"192.168.1.1", 30}})},
         "ETH0",
         {QStringLiteral("192.168.1.2")},
         {}},
        {"two interfaces on one subnet",
         {iface("eth0", {{"192.168.1.2", 29}}), iface("eth1", {{"192.168.1.5", 29}})},
         "",
         {QStringLiteral("192.168.1.1"), QStringLiteral("192.168.1.3"), QStringLiteral("192.168.1.4"),
          QStringLiteral("192.168.1.6")},
         {}},
        {"link-local, zero address and zero mask skipped",
         {iface("eth0", {{"169.254.3.4", 16}, {"0.0.0.0", 24}, {"10.0.0.1", 0}})},
         "eth0",
         {},
         {}},
        {"unknown name", {iface("eth0", {{"192.168.1.10", 29}})}, "eth7", {}, {}},
        {"order: interface, entry, address",
         {iface("eth0", {{"192.168.2.1", 30}, {"192.168.1.1", 30}}), iface("eth1", {{"10.0.0.1", 30}})},
         "",
         {QStringLiteral("192.168.2.2"), QStringLiteral("192.168.1.2"), QStringLiteral("10.0.0.2")},
         {}},
        {"a full list stops the next entry",
         {iface("eth0", {{"10.0.0.5", 16}, {"192.168.1.1", 30}})},
         "eth0",
         hostRange("10.0.0.1", "10.0.1.1", {QStringLiteral("10.0.0.5")}),
         {limitLine, limitLine}},
        {"a /23 named: exactly 256 then stop",
         {iface("eth0", {{"10.0.0.0", 23}})},
         "eth0",
         hostRange("10.0.0.1", "10.0.1.0"),
         {limitLine}},
        {"a /24 of 254 hosts beside others reaches the cap",
         {iface("eth0", {{"192.168.7.1", 29}, {"192.168.1.254", 24}})},
         "eth0",
         hostRange("192.168.7.2", "192.168.7.6") + hostRange("192.168.1.1", "192.168.1.251"),
         {limitLine}},
        {"all-ones address",
         {iface("eth0", {{"255.255.255.255", 24}})},
         "eth0",
         hostRange("255.255.255.1", "255.255.255.254"),
         {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        QStringList log;
        const QStringList hosts =
            ipv4HostsFromInterfaces(row.interfaces, QString::fromLatin1(row.wanted), &log);
        EXPECT_EQ(hosts.size(), row.expectedHosts.size());
        EXPECT_EQ(hosts, row.expectedHosts);
        EXPECT_EQ(log, row.expectedLog);
        EXPECT_LE(hosts.size(), 256);
        EXPECT_EQ(ipv4HostsFromInterfaces(row.interfaces, QString::fromLatin1(row.wanted), nullptr), hosts);
    }
}

TEST(Ipv4HostsFromInterfaces, TheLimitLineNamesTheSystemNameWhateverNameWasAskedFor) {
    InterfaceInfo named = iface("eth0", {{"10.0.0.5", 16}});
    named.humanName = QStringLiteral("Plant network");
    for (const char* wanted : {"eth0", "Plant network"}) {
        SCOPED_TRACE(wanted);
        QStringList log;
        const QStringList hosts = ipv4HostsFromInterfaces({named}, QString::fromLatin1(wanted), &log);
        EXPECT_EQ(hosts, hostRange("10.0.0.1", "10.0.1.1", {QStringLiteral("10.0.0.5")}));
        EXPECT_EQ(log, QStringList{QStringLiteral("TCP subnet scan is limited to 256 hosts on eth0")});
    }
}

TEST(Ipv4HostsFromInterfaces, NamesTheInterfaceInTheLimitLine) {
    QStringList log;
    const QStringList hosts =
        ipv4HostsFromInterfaces({iface("enp3s0", {{"172.16.4.9", 12}})}, QStringLiteral("ENP3S0"), &log);
    EXPECT_EQ(hosts.size(), 256);
    EXPECT_EQ(hosts.first(), QStringLiteral("172.16.0.1"));
    EXPECT_EQ(log, QStringList{QStringLiteral("TCP subnet scan is limited to 256 hosts on enp3s0")});
}

// Runs the real enumeration in a child process inside a fresh network namespace holding one veth pair.
// The namespace has no route anywhere and disappears with the child; nothing is sent.
std::string hostsInPrivateNamespace(const QString& interfaceName, int* status) {
    int fds[2];
    if (pipe(fds) != 0) {
        return std::string();
    }
    const pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        int code = 0;
        if (unshare(CLONE_NEWNET) != 0) {
            code = 77;
        } else if (std::system(
                       "ip link add nsv0 type veth peer name nsv1 && "
                       "ip addr add 192.168.77.10/24 dev nsv0 && ip addr add 10.9.0.5/16 dev nsv1 && "
                       "ip link set lo up && ip link set nsv0 up && ip link set nsv1 up && "
                       // The carrier (RUNNING) comes up a moment after the link; wait for it, bounded.
                       "for i in $(seq 100); do ip -o link show dev nsv0 | grep -q 'state UP' && "
                       "ip -o link show dev nsv1 | grep -q 'state UP' && break; sleep 0.02; done") != 0) {
            code = 78;
        } else {
            QStringList log;
            const QStringList hosts = ipv4HostsOnInterface(interfaceName, &log);
            const QByteArray text =
                (QString::number(hosts.size()) + QLatin1Char('|') + hosts.value(0) + QLatin1Char('|') +
                 hosts.value(hosts.size() - 1) + QLatin1Char('|') + log.join(QLatin1Char(';')))
                    .toUtf8();
            if (write(fds[1], text.constData(), static_cast<size_t>(text.size())) != text.size()) {
                code = 79;
            }
        }
        close(fds[1]);
        _exit(code);
    }
    close(fds[1]);
    if (child < 0) {
        close(fds[0]);
        return std::string();
    }
    // Hang guard: the child gets 10 s.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int childStatus = 0;
    while (waitpid(child, &childStatus, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            waitpid(child, &childStatus, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::string output;
    char buffer[512];
    ssize_t got = 0;
    while ((got = read(fds[0], buffer, sizeof(buffer))) > 0) {
        output.append(buffer, static_cast<size_t>(got));
    }
    close(fds[0]);
    *status = WIFEXITED(childStatus) ? WEXITSTATUS(childStatus) : -1;
    return output;
}

// One interface name asked for inside a private namespace, and what the enumeration must give there
// ("count|first|last|log").
struct NamespaceRow {
    const char* wanted;
    const char* expected;
};

void expectHostsInPrivateNamespace(std::initializer_list<NamespaceRow> rows) {
    for (const NamespaceRow& row : rows) {
        SCOPED_TRACE(row.wanted);
        int status = -1;
        const std::string output = hostsInPrivateNamespace(QString::fromLatin1(row.wanted), &status);
        if (status == 77 || status == 78) {
            GTEST_SKIP() << "no private network namespace with a veth pair here (" << status << ")";
        }
        EXPECT_EQ(status, 0);
        EXPECT_EQ(output, std::string(row.expected));
    }
}

TEST(Ipv4HostsOnInterface, SkipsLoopbackAndUnknownInterfaces) {
    // Listing addresses sends no traffic; on this machine only names that give an empty result are asked for.
    QStringList log;
    EXPECT_EQ(ipv4HostsOnInterface(QStringLiteral("lo"), &log), QStringList());
    EXPECT_EQ(ipv4HostsOnInterface(QStringLiteral("no-such-interface0"), &log), QStringList());
    EXPECT_TRUE(log.isEmpty());

    // In a private namespace whose loopback is up beside a veth pair, the same names give nothing while the
    // veth end gives its subnet: an enumeration that finds nothing at all does not pass.
    if (geteuid() != 0) {
        GTEST_SKIP() << "creating a network namespace needs root";
    }
    expectHostsInPrivateNamespace({
        {"lo", "0|||"},
        {"no-such-interface0", "0|||"},
        {"nsv0", "253|192.168.77.1|192.168.77.254|"},
    });
}

TEST(Ipv4HostsOnInterface, ListsVethAddressesInAPrivateNamespace) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "creating a network namespace needs root";
    }
    expectHostsInPrivateNamespace({
        {"NSV0", "253|192.168.77.1|192.168.77.254|"},
        {"nsv1", "256|10.9.0.1|10.9.1.1|TCP subnet scan is limited to 256 hosts on nsv1"},
        {"", "253|192.168.77.1|192.168.77.254|"},
    });
}

}  // namespace
}  // namespace ModbusDiscovery
