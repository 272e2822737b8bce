#include "service/StopClient.h"

#include "foundation/FixedText.h"
#include "foundation/UniqueFd.h"
#include "service/ManagerLib.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace kestrel {

namespace {

constexpr timeval ANSWER_TIMEOUT{30, 0};
constexpr std::size_t ANSWER_SIZE = 100;

} // namespace

int stopService() {
    const UniqueFd server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!server.valid()) {
        std::printf("Could not create socket to send stop message: errno=%d\n", errno);
        return -1;
    }
    if (setsockopt(server.get(), SOL_SOCKET, SO_RCVTIMEO, &ANSWER_TIMEOUT, sizeof ANSWER_TIMEOUT) != 0) {
        std::printf("Could not set socket timeout: setsockopt errno=%d\n", errno);
        return -1;
    }
    const int port = CManagerLib::ServicePort();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<unsigned short>(port));
    address.sin_addr.s_addr = inet_addr("127.0.0.1");
    if (connect(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::printf("Could not connect to port %d to send stop message: errno=%d\n", port, errno);
        return -1;
    }
    // One buffer for both ways: a short answer without a terminating zero is followed by the rest of the
    // request.
    char line[ANSWER_SIZE + 1] = {};
    formatText(line, "%s\r\n", "STOP_SERVICE");
    const int length = static_cast<int>(std::strlen(line));
    const int sent =
        static_cast<int>(send(server.get(), line, static_cast<std::size_t>(length), MSG_NOSIGNAL));
    if (sent != length) {
        std::printf("Error %d sending stop message on port %d [len=%d, actual=%d]\n", errno, port, length,
                    sent);
        return -1;
    }
    if (recv(server.get(), line, ANSWER_SIZE, 0) < 1)
        std::printf("No response from Service.  Check that it is running\n");
    else
        std::puts(line);
    return 0;
}

} // namespace kestrel
