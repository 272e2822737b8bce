#include "service/CSocketHelper.h"

#include "foundation/Logger.h"
#include "foundation/OwnedText.h"
#include "foundation/StringUtil.h"

#include <cstring>
#include <exception>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr const char* MODULE = "CSocketHelper";
// Bytes that are read and dropped behind an over-long request.
constexpr int MAX_DROPPED = 1 << 20;

} // namespace

CSocketHelper::CSocketHelper(int socket, IMessageProcessor* processor)
    : m_socket(socket), m_processor(processor) {}

CSocketHelper::~CSocketHelper() {
    // The order is historical: the shutdown after the close finds no socket and does nothing. It is left out,
    // since by then another thread may own a descriptor of that number.
    if (m_socket >= 0)
        close(m_socket);
    m_socket = -1;
    m_processor.reset();
    kestrel::dropOwned(m_Message);
    LogUtil::Info(MODULE, "Socket Helper got destructed...");
}

void CSocketHelper::readFromSocket() {
    try {
        while (!serveOneRequest()) {
        }
    } catch (const std::exception& failure) {
        LogUtil::Error(MODULE, "CSocketHelper::readFromSocket");
        LogUtil::Debug(MODULE, "%s", failure.what());
    } catch (...) {
        LogUtil::Error(MODULE, "CSocketHelper::readFromSocket");
    }
}

// True when the connection has been served.
bool CSocketHelper::serveOneRequest() {
    char buffer[MAX_REQUEST + 1] = {};
    const ssize_t received = recv(m_socket, buffer, MAX_REQUEST, 0);
    if (received <= 0) {
        LogUtil::Debug(MODULE, "CSocketHelper::readFromSocket - Exiting...");
        return true;
    }
    LogUtil::Info(MODULE, "CSocketHelper::readFromSocket - Received from socket: %s", buffer);
    LogUtil::Info(MODULE, "length of the line: %d", static_cast<int>(std::strlen(buffer)));

    cStringUtil line(buffer);
    kestrel::replaceOwned(m_Message, line.cstrTrim(" \t\r\n"));
    LogUtil::Info(MODULE, "length of the m_Message: %d", static_cast<int>(std::strlen(m_Message)));

    char response[RESPONSE_SIZE] = {};
    const bool served = m_processor->process(m_Message, response, RESPONSE_SIZE) && sendToSocket(response);
    if (served && received == MAX_REQUEST)
        dropRest();
    return served || m_sendingFailed;
}

// A socket that is closed with unread data resets the connection, and the client may lose its answer.
void CSocketHelper::dropRest() const {
    char rest[4096];
    for (int i = 0; i < MAX_DROPPED / static_cast<int>(sizeof rest); ++i)
        if (recv(m_socket, rest, sizeof rest, MSG_DONTWAIT) <= 0)
            return;
}

bool CSocketHelper::sendToSocket(char* text) {
    try {
        std::string line(text);
        line += '\n';
        // A client that has gone must not raise SIGPIPE. A short send is not retried: answers fit a socket
        // buffer.
        const ssize_t sent = send(m_socket, line.data(), line.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            LogUtil::Error(MODULE, "CSocketHelper::sendToSocket - Error while sending...");
            return false;
        }
        LogUtil::Debug(MODULE, "CSocketHelper::sendToSocket sent len %d- Exiting", static_cast<int>(sent));
        return true;
    } catch (...) {
        // Unlike a client that has gone, which the next read finds, this ends the connection by itself.
        m_sendingFailed = true;
        LogUtil::Error(MODULE, "CSocketHelper::sendToSocket");
        return false;
    }
}

void CSocketHelper::shutDown() const noexcept {
    ::shutdown(m_socket, SHUT_RD);
}
