#include "service/CSocketManager.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "foundation/PosixWrappers.h"
#include "service/CMessageProcessor.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <utility>

namespace {

constexpr const char* MODULE = "SocketManager";
// How long the accept loop leaves a listener alone that cannot be accepted from (no descriptor left).
constexpr int ACCEPT_PAUSE_MS = 100;

// A client whose host has vanished sends nothing more, not even an end. Its slot is free again after
// 60 + 6 * 10 seconds.
constexpr int KEEP_ALIVE_IDLE_SECONDS = 60;
constexpr int KEEP_ALIVE_INTERVAL_SECONDS = 10;
constexpr int KEEP_ALIVE_PROBES = 6;

// Of a listener, whose connections have it from there.
void watchPeers(int listener) {
    const auto set = [listener](int level, int option, int value) {
        return setsockopt(listener, level, option, &value, sizeof value) == 0;
    };
    if (!set(SOL_SOCKET, SO_KEEPALIVE, 1) || !set(IPPROTO_TCP, TCP_KEEPIDLE, KEEP_ALIVE_IDLE_SECONDS) ||
        !set(IPPROTO_TCP, TCP_KEEPINTVL, KEEP_ALIVE_INTERVAL_SECONDS) ||
        !set(IPPROTO_TCP, TCP_KEEPCNT, KEEP_ALIVE_PROBES))
        LogUtil::Warning(MODULE, "Connections cannot be watched for the end of their hosts: errno %d", errno);
}

} // namespace

CSocketManager* CSocketManager::m_Instance = nullptr;
Mutex CSocketManager::m_pInternalData;

CSocketManager* CSocketManager::SetupSocketServer(unsigned short port, int handles, int backlog) {
    std::unique_ptr<CSocketManager> failed;
    MutexLock lock(m_pInternalData);
    if (m_Instance == nullptr)
        m_Instance = new CSocketManager(handles, backlog);
    if (m_Instance->setupSocketServer(port) != 0)
        failed.reset(std::exchange(m_Instance, nullptr));
    // Destroyed after the lock is gone, which its destructor takes.
    return m_Instance;
}

CSocketManager* CSocketManager::getInstance() {
    MutexLock lock(m_pInternalData);
    return m_Instance;
}

void CSocketManager::destroyInstance() {
    CSocketManager* instance = nullptr;
    {
        MutexLock lock(m_pInternalData);
        std::swap(instance, m_Instance);
    }
    delete instance;
}

CSocketManager::CSocketManager(int handles, int backlog)
    : m_backlog(backlog), m_wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_slots(static_cast<std::size_t>(std::max(handles, 0))) {
    // Now, so that the end needs no memory: a thread that is not joined would go on in an object that is
    // gone.
    m_living.reserve(m_slots.size());
    LogUtil::Info(MODULE, "Socket Manager got constructed using %d handles...", handles);
}

CSocketManager::~CSocketManager() {
    try {
        LogUtil::Debug(MODULE, "Destructing Socket Manager ...");
        m_stop = true;
        m_listener.reset();
        shutDownConnections();
        for (const pthread_t thread : m_living)
            joinPosixThread(thread, nullptr);
        waitForLeaving();
        LogUtil::Info(MODULE, "Socket Manager got destructed...");
    } catch (...) {
        LogUtil::Error(MODULE, "Exception while destructing SocketManager... ");
    }
}

// From here on a connection thread that ends leaves its handle for the join.
void CSocketManager::shutDownConnections() {
    MutexLock lock(m_pInternalData);
    m_closing = true;
    for (const Slot& slot : m_slots) {
        if (!slot.thread)
            continue;
        m_living.push_back(*slot.thread);
        if (slot.helper)
            slot.helper->shutDown();
    }
}

// For threads that freed their slot, and so are not joined, but still close their connection.
void CSocketManager::waitForLeaving() {
    MutexLock lock(m_pInternalData);
    while (m_leaving > 0)
        pthread_cond_wait(&m_allLeft, m_pInternalData.native());
}

int CSocketManager::setupSocketServer(unsigned short port) {
    m_listener.reset(establish(port));
    if (!m_listener.valid()) {
        LogUtil::Fatal(MODULE, "Could not use port %d.", port);
        return static_cast<int>(kestrel::error::portNotUsable);
    }
    LogUtil::Info(MODULE, "CSocketManager setup successful for connections on port %d...", port);
    return 0;
}

int CSocketManager::startupWSDll() {
    return 0;
}

int CSocketManager::establish(unsigned short port) {
    if (startupWSDll() != 0) {
        LogUtil::Error(MODULE, "WSAStartup failed");
        return -1;
    }
    if (!m_wake.valid()) {
        LogUtil::Error(MODULE, "no descriptor left to wake the accept loop with");
        return -1;
    }
    kestrel::UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!listener.valid()) {
        LogUtil::Error(MODULE, "socket failed with error %d", errno);
        return -1;
    }
    const int on = 1;
    if (setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        LogUtil::Error(MODULE, "setsockopt(,,SO_REUSEADDR,,) failed with error %d", errno);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(port);
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        LogUtil::Error(MODULE, "bind failed with error %d", errno);
        return -1;
    }
    watchPeers(listener.get());
    // Two sockets may be bound to one port before either listens; the second then fails here.
    if (listen(listener.get(), m_backlog) != 0) {
        LogUtil::Error(MODULE, "listen failed with error %d", errno);
        return -1;
    }
    return listener.release();
}

void CSocketManager::StartSocketServer() {
    try {
        while (!m_stop) {
            // While every slot is in use new clients wait in the backlog, and a freed slot wakes this thread.
            const bool free = slotIsFree();
            waitForEvent(free);
            if (free && !m_stop)
                acceptOne();
        }
        LogUtil::Debug(MODULE, "CSocketManager.startSocketServer - Exiting successfully...");
    } catch (...) {
        LogUtil::Error(MODULE, "CSocketManager.startSocketServer");
    }
}

void CSocketManager::stop() noexcept {
    m_stop = true;
    wake();
}

void CSocketManager::wake() const noexcept {
    eventfd_write(m_wake.get(), 1);
}

bool CSocketManager::slotIsFree() {
    MutexLock lock(m_pInternalData);
    return m_handlesInUse < static_cast<int>(m_slots.size());
}

void CSocketManager::waitForEvent(bool listening) const {
    const bool useListener = listening && !m_acceptFailing;
    pollfd events[2] = {{m_wake.get(), POLLIN, 0}, {m_listener.get(), POLLIN, 0}};
    poll(events, useListener ? 2 : 1, listening && m_acceptFailing ? ACCEPT_PAUSE_MS : -1);
    if ((events[0].revents & POLLIN) != 0) {
        eventfd_t ignored = 0;
        eventfd_read(m_wake.get(), &ignored);
    }
}

void CSocketManager::acceptOne() {
    const int socket = accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) {
        const int error = errno;
        const bool failing =
            error != EAGAIN && error != EWOULDBLOCK && error != EINTR && error != ECONNABORTED;
        if (failing && !m_acceptFailing)
            LogUtil::Error(MODULE, "accept failed with error %d", error);
        m_acceptFailing = failing;
        return;
    }
    m_acceptFailing = false;
    LogUtil::Debug(MODULE, "CSocketManager.startSocketServer - got a valid connection");
    int slot = -1;
    createSocketHelper(slot, socket);
    // The first slot is served but not logged so; log readers count the others as signs of load.
    if (slot > 0)
        LogUtil::Info(MODULE, "CSocketManager.startSocketServer - got a valid handle");
}

bool CSocketManager::createSocketHelper(int& slot, int socket) {
    kestrel::UniqueFd owned(socket);
    MutexLock lock(m_pInternalData);
    const auto free =
        std::find_if(m_slots.begin(), m_slots.end(), [](const Slot& candidate) { return !candidate.thread; });
    if (free == m_slots.end() || m_closing) {
        slot = -1;
        LogUtil::Error(MODULE, "CSocketManager.createSocketHelper - Max handles %d already in use.",
                       static_cast<int>(m_slots.size()));
        return false;
    }
    slot = static_cast<int>(free - m_slots.begin());
    auto processor = std::make_unique<CMessageProcessor>();
    free->helper = std::make_unique<CSocketHelper>(owned.get(), processor.get());
    // Its own only now: where there is no memory for it, both are let go here.
    static_cast<void>(owned.release());
    static_cast<void>(processor.release());
    auto handle = std::make_unique<SocketHandle>(SocketHandle{this, free->helper.get()});
    pthread_t thread{};
    // The new thread waits for this lock before it looks for its slot.
    if (createPosixThread(&thread, openSocketHelperHandle, handle.get()) != 0) {
        free->helper.reset();
        return false;
    }
    static_cast<void>(handle.release());
    free->thread = thread;
    ++m_handlesInUse;
    LogUtil::Debug(MODULE, "Number of handles: %d", m_handlesInUse);
    return true;
}

void* CSocketManager::openSocketHelperHandle(void* arg) {
    const std::unique_ptr<SocketHandle> handle(static_cast<SocketHandle*>(arg));
    handle->helper->readFromSocket();
    handle->manager->closeSocketHelperHandle(handle->helper);
    return nullptr;
}

void CSocketManager::closeSocketHelperHandle(void* /*helper*/) {
    destroySocketHelper(pthread_self());
}

// The slot is free before the connection is closed, so that a client that saw the end finds it free; and the
// lock is given back before, so that the next client's thread is started while this one writes its last
// lines.
bool CSocketManager::destroySocketHelper(pthread_t thread) {
    std::unique_ptr<CSocketHelper> helper;
    int inUse = 0;
    {
        MutexLock lock(m_pInternalData);
        const auto slot = std::find_if(m_slots.begin(), m_slots.end(), [&](const Slot& candidate) {
            return candidate.thread && pthread_equal(*candidate.thread, thread) != 0;
        });
        if (slot == m_slots.end())
            return false;
        helper = std::move(slot->helper);
        if (!m_closing)
            pthread_detach(thread);
        slot->thread.reset();
        if (m_handlesInUse == static_cast<int>(m_slots.size()))
            wake();
        inUse = --m_handlesInUse;
        ++m_leaving;
    }
    helper.reset();
    LogUtil::Debug(MODULE, "Number of handles: %d", inUse);
    LogUtil::Info(MODULE, "CSocketManager.destroySocketHelper - destroyed successfully...");
    MutexLock lock(m_pInternalData);
    if (--m_leaving == 0)
        pthread_cond_broadcast(&m_allLeft);
    return true;
}
