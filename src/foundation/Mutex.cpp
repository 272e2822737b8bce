#include "foundation/Mutex.h"

Mutex::Mutex() noexcept {
    pthread_mutex_init(&m_mutex, nullptr);
}

Mutex::~Mutex() {
    pthread_mutex_destroy(&m_mutex);
}

void Mutex::lock() noexcept NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&m_mutex);
}

void Mutex::unlock() noexcept NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&m_mutex);
}
