// The limit program of the request benchmark: one thread a connection, one receive, one answer, and as many
// log lines of the same length as the service writes for a ping. Nothing is parsed.
//   kestrel_bare_server PORT LOGFILE
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

std::FILE* logFile = nullptr;
std::mutex logMutex;

void logLine(const char* module, const char* text) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d.%H:%M:%S", &local);
    const std::lock_guard lock(logMutex);
    std::fprintf(logFile, "%s: [%s:Info] %s\r\n", stamp, module, text);
    std::fflush(logFile);
}

void serve(int socket) {
    char buffer[2001] = {};
    if (recv(socket, buffer, sizeof buffer - 1, 0) > 0) {
        logLine("CSocketHelper", "CSocketHelper::readFromSocket - Received from socket: PING_SERVICE");
        logLine("CSocketHelper", "length of the line: 12");
        logLine("CSocketHelper", "length of the m_Message: 12");
        logLine("CMessageProcessor", "CMessageProcessor::process done with response: TRUE - ALIVE");
        send(socket, "TRUE - ALIVE\n", 13, MSG_NOSIGNAL);
    }
    close(socket);
    logLine("CSocketHelper", "Socket Helper got destructed...");
    logLine("SocketManager", "CSocketManager.destroySocketHelper - destroyed successfully...");
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    logFile = std::fopen(argv[2], "a");
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<unsigned short>(std::atoi(argv[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (logFile == nullptr || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0)
        return 1;
    for (;;) {
        const int client = accept(listener, nullptr, nullptr);
        if (client >= 0)
            std::thread(serve, client).detach();
    }
}
