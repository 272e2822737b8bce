// The TCP server: the listening socket and a fixed table of connections, one thread each.
#pragma once

#include "foundation/Mutex.h"
#include "foundation/UniqueFd.h"
#include "service/CSocketHelper.h"

#include <atomic>
#include <memory>
#include <optional>
#include <pthread.h>
#include <vector>

// m_pInternalData guards the instance pointer and the slots.
class CSocketManager {
public:
    // The one instance, made with that many slots and listening on the port; null when the port cannot be
    // used. backlog is the number of connections that may wait for a slot.
    static CSocketManager* SetupSocketServer(unsigned short port, int handles, int backlog = 1);
    // The instance, or null.
    static CSocketManager* getInstance();
    // Ends the instance.
    static void destroyInstance();

    // With that many slots, none below 0, and no listener yet.
    explicit CSocketManager(int handles, int backlog = 1);
    // Shuts live connections down, joins their threads and closes the listener.
    ~CSocketManager();
    CSocketManager(const CSocketManager&) = delete;
    CSocketManager& operator=(const CSocketManager&) = delete;

    // 0, or 10001 (logged) when the port cannot be used.
    int setupSocketServer(unsigned short port);
    // Opens the listening socket, non-blocking. Returns it, or -1.
    int establish(unsigned short port);
    // Accepts connections until the stop flag is set.
    void StartSocketServer();
    // Sets the stop flag and wakes the accept loop.
    void stop() noexcept;

    // Starts a connection thread on the accepted socket, which it owns from then on. slot is -1 when none is
    // free; the socket is then closed.
    bool createSocketHelper(int& slot, int socket);
    // Entry of a connection thread; arg is an owned SocketHandle.
    static void* openSocketHelperHandle(void* arg);
    // The last call of a connection thread: frees its slot.
    void closeSocketHelperHandle(void* helper);
    // Frees the slot of that connection thread; false when it has none.
    bool destroySocketHelper(pthread_t thread);

    // A hook that establish calls first; always 0.
    static int startupWSDll();

    // The instance and its guard.
    static CSocketManager* m_Instance;
    static Mutex m_pInternalData;

private:
    // One connection: both, or neither while it is free.
    struct Slot {
        std::optional<pthread_t> thread;
        std::unique_ptr<CSocketHelper> helper;
    };
    struct SocketHandle {
        CSocketManager* manager;
        CSocketHelper* helper;
    };

    bool slotIsFree();
    void acceptOne();
    void waitForEvent(bool listening) const;
    void wake() const noexcept;
    void shutDownConnections();
    void waitForLeaving();

    const int m_backlog;
    kestrel::UniqueFd m_listener;
    kestrel::UniqueFd m_wake; // an eventfd: the stop flag was set, or a slot was freed
    std::vector<Slot> m_slots GUARDED_BY(m_pInternalData);
    std::vector<pthread_t> m_living; // connection threads that the destructor joins
    int m_handlesInUse GUARDED_BY(m_pInternalData) = 0;
    bool m_closing GUARDED_BY(m_pInternalData) = false;
    int m_leaving GUARDED_BY(m_pInternalData) = 0; // threads without a slot that still close their connection
    pthread_cond_t m_allLeft = PTHREAD_COND_INITIALIZER; // m_leaving came to 0
    std::atomic<bool> m_stop{false};
    bool m_acceptFailing = false; // of the accept loop
};
