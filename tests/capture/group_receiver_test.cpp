// A multicast group, and the network devices on which it is received.
#include "capture/UdpReceiver.h"
#include "capture/captured_log.h"
#include "capture/received_packets.h"
#include "capture/worker_process.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>

using namespace kestrel::capture;
using namespace capture_test;

namespace {

// Runs a command of the network's own tool in the network namespace of this thread.
bool network(const std::string& command) {
    return std::system(("ip " + command + " 2>/dev/null").c_str()) == 0;
}

bool makeDevice() {
    return (network("link add camera0 type dummy") ||
            network("link add camera0 type veth peer name camera1 && ip link set camera1 up")) &&
           network("addr add 10.9.0.1/24 dev camera0") && network("link set camera0 up") &&
           network("route add 239.0.0.0/8 dev camera0");
}

// The log of this process in a file, which may be read while the receiver's thread writes.
class LogInAFile {
public:
    LogInAFile() {
        m_lines << std::unitbuf;
        LogUtil::GetInstance()->addStreamLogger(&m_lines);
    }
    ~LogInAFile() { LogUtil::Cleanup(); }
    LogInAFile(const LogInAFile&) = delete;
    LogInAFile& operator=(const LogInAFile&) = delete;

    bool has(const std::string& part) const { return readText(m_name).find(part) != std::string::npos; }

private:
    TemporaryDirectory m_directory;
    const std::string m_name = m_directory.path("log");
    std::ofstream m_lines{m_name};
};

// A receiver of 239.1.1.1 in this thread's network namespace.
struct GroupReceiver {
    GroupReceiver() : receiver(source(), ring, wake) {}
    static StreamSource source() {
        StreamSource group;
        group.address = 0xEF010101;
        group.port = 5000;
        return group;
    }
    void start() {
        const auto failed = receiver.open();
        ASSERT_FALSE(failed) << failed->text;
        ASSERT_FALSE(receiver.start());
    }
    void waitForMore(int milliseconds) {
        pollfd wait{wake.fd(), POLLIN, 0};
        ::poll(&wait, 1, milliseconds);
        wake.clear();
    }

    PacketRing ring{4096};
    WakeEvent wake;
    UdpReceiver receiver;
};

// As when the network is started anew. In a network namespace of its own, so that it is seen by nobody else.
TEST(UdpReceiver, AGroupIsReceivedAgainWhenItsNetworkDeviceIsMadeAnew) {
    std::thread([] {
        if (::unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "no network namespace to be had: " << std::strerror(errno);
        if (!makeDevice())
            GTEST_SKIP() << "no network device to be had";
        const LogInAFile log;
        GroupReceiver group;
        ASSERT_NO_FATAL_FAILURE(group.start());
        const Packets sent(7, Packet{0x47});
        Sender("239.1.1.1", 5000, "10.9.0.1").send(sent);
        ASSERT_EQ(collect(group.ring, group.wake, sent.size()).size(), sent.size());

        ASSERT_TRUE(network("link delete camera0"));
        // As long as there is none, joining again fails, which must not be the end of it.
        const auto deadline = Clock::now() + std::chrono::seconds(15);
        while (!log.has("Cannot join group 239.1.1.1 again: ") && Clock::now() < deadline) {
            group.waitForMore(20);
        }
        EXPECT_TRUE(log.has("Cannot join group 239.1.1.1 again: "));
        ASSERT_TRUE(makeDevice());
        Packets again;
        while (again.empty() && Clock::now() < deadline) {
            Sender("239.1.1.1", 5000, "10.9.0.1").send(sent);
            group.waitForMore(100);
            const auto part = group.ring.readable();
            again.assign(part.begin(), part.end());
        }
        group.receiver.stop();
        EXPECT_FALSE(again.empty());
        EXPECT_TRUE(log.has("Nothing has come of group 239.1.1.1 for 2 s: it is joined again every 3 s"));
    }).join();
}

void sendOn(const std::string& address, const Packet& packet, int port = 5000) {
    const kestrel::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    in_addr device{};
    ASSERT_EQ(::inet_pton(AF_INET, address.c_str(), &device), 1);
    ASSERT_EQ(::setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_IF, &device, sizeof device), 0);
    sockaddr_in group{};
    group.sin_family = AF_INET;
    group.sin_port = htons(static_cast<std::uint16_t>(port));
    group.sin_addr.s_addr = htonl(0xEF010101);
    ASSERT_EQ(::sendto(fd.get(), packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&group),
                       sizeof group),
              static_cast<ssize_t>(packet.size()));
}

// As where two networks lead to the encoders: while one is away the other is used, and when it returns each
// datagram comes on both.
TEST(UdpReceiver, AGroupThatIsJoinedOnAnotherDeviceIsLeftOnTheOneBefore) {
    std::thread([] {
        if (::unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "no network namespace to be had: " << std::strerror(errno);
        for (const std::string one : {"0", "1"})
            if (!((network("link add camera" + one + " type dummy") ||
                   network("link add camera" + one + " type veth peer name far" + one +
                           " && ip link set far" + one + " up")) &&
                  network("addr add 10.9." + one + ".1/24 dev camera" + one) &&
                  network("link set camera" + one + " up") &&
                  network("route add 239.0.0.0/8 dev camera" + one + " metric 1" + one)))
                GTEST_SKIP() << "no network devices to be had";
        GroupReceiver group;
        ASSERT_NO_FATAL_FAILURE(group.start());
        const Packet first = packetOf(0x100);
        const Packet second = packetOf(0x101);
        sendOn("10.9.0.1", first);
        ASSERT_EQ(collect(group.ring, group.wake, 1), Packets{first});

        ASSERT_TRUE(network("route delete 239.0.0.0/8 dev camera0"));
        Packets got;
        const auto deadline = Clock::now() + std::chrono::seconds(15);
        while (got.empty() && Clock::now() < deadline) {
            sendOn("10.9.1.1", second);
            group.waitForMore(100);
            const auto part = group.ring.readable();
            got.assign(part.begin(), part.end());
            group.ring.consume(part.size());
        }
        ASSERT_FALSE(got.empty()) << "it is joined where the route leads now";

        ASSERT_TRUE(network("route add 239.0.0.0/8 dev camera0 metric 10"));
        for (int i = 0; i < 10; ++i) {
            sendOn("10.9.0.1", first);
            sendOn("10.9.1.1", second);
        }
        group.receiver.stop();
        const auto part = group.ring.readable();
        got.insert(got.end(), part.begin(), part.end());
        EXPECT_EQ(std::count(got.begin(), got.end(), first), 0) << "each would be there twice";
        EXPECT_GE(std::count(got.begin(), got.end(), second), 10);
    }).join();
}

bool waitUntil(GroupReceiver& group, const std::function<bool()>& what) {
    const auto deadline = Clock::now() + std::chrono::seconds(15);
    bool seen = what();
    while (!seen && Clock::now() < deadline) {
        group.waitForMore(20);
        seen = what();
    }
    return seen;
}

// The devices on which 239.1.1.1 is received in this thread's network namespace.
std::set<std::string> devicesOfGroup() {
    std::set<std::string> devices;
    std::ifstream table("/proc/thread-self/net/igmp");
    std::string device;
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string first;
        words >> first;
        if (!line.empty() && std::isdigit(static_cast<unsigned char>(line[0])) != 0)
            words >> device;
        else if (first == "010101EF") // in the order of the network's bytes
            devices.insert(device);
    }
    return devices;
}

// Until the network has a route for groups, as on a machine without one.
TEST(UdpReceiver, AGroupWithoutARouteIsReceivedOnLoopbackUntilThereIsOne) {
    std::thread([] {
        if (::unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "no network namespace to be had: " << std::strerror(errno);
        if (!network("link set lo up"))
            GTEST_SKIP() << "no network device to be had";
        const LogInAFile log;
        GroupReceiver group;
        ASSERT_NO_FATAL_FAILURE(group.start());
        EXPECT_TRUE(log.has("Warning] No route for group 239.1.1.1: joined on the loopback interface\r\n"));
        EXPECT_EQ(devicesOfGroup(), std::set<std::string>{"lo"});
        const Packet first = packetOf(0x100);
        sendOn("127.0.0.1", first);
        EXPECT_EQ(collect(group.ring, group.wake, 1), Packets{first});

        // It is joined there again as long as there is no other.
        EXPECT_TRUE(waitUntil(group, [&] { return log.has("Nothing has come of group 239.1.1.1 for 2 s"); }));
        sendOn("127.0.0.1", first);
        EXPECT_EQ(collect(group.ring, group.wake, 1), Packets{first});
        EXPECT_FALSE(log.has("Cannot join"));

        if (makeDevice()) {
            EXPECT_TRUE(
                waitUntil(group, [] { return devicesOfGroup() == std::set<std::string>{"camera0"}; }));
            const Packet second = packetOf(0x101);
            sendOn("10.9.0.1", second);
            EXPECT_EQ(collect(group.ring, group.wake, 1), Packets{second});
        }
        group.receiver.stop();
    }).join();
}

// As for a service whose unit leaves AF_NETLINK out: false where this process may not forbid itself anything.
bool forbidNetlink() {
    sock_filter refusal[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_socket, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_NETLINK, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{std::size(refusal), refusal};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST(UdpReceiver, AGroupWhoseDeviceCannotBeToldIsReceivedWithAWarning) {
    std::thread([] {
        if (!forbidNetlink())
            GTEST_SKIP() << "no filter for system calls to be had: " << std::strerror(errno);
        StreamSource source = GroupReceiver::source();
        source.port = freePort();
        source.interfaceAddress = 0x7F000001;
        PacketRing ring(64);
        WakeEvent wake;
        UdpReceiver receiver(source, ring, wake);
        const CapturedLog log;
        const auto failed = receiver.open();
        ASSERT_FALSE(failed) << failed->text;
        EXPECT_EQ(log.count("Warning] Group 239.1.1.1: it cannot be told on which network device it is "
                            "received, so where its route moves it may be received on two\r\n"),
                  1)
            << log.text();
        ASSERT_FALSE(receiver.start());
        const Packet packet = packetOf(0x100);
        sendOn("127.0.0.1", packet, source.port);
        EXPECT_EQ(collect(ring, wake, 1), Packets{packet});
        receiver.stop();
    }).join();
}

} // namespace
