// Events between the threads of this process, each a counting semaphore on the heap: every signal lets one
// wait through.
#pragma once

#include <semaphore.h>

// An event is a sem_t pointer; null means not initialised.
class EventWrapper {
public:
    // Results of the waits.
    enum WaitResult : int {
        Signalled = 0,
        TimedOut = 1,
        Invalid = 2,
        Interrupted = 3,
        NotInitialized = 4,
        OtherError = 5
    };

    // Makes the event, with no signal pending. Left null when there is no memory.
    static void InitEvent(sem_t*& event);
    // Sets the pointer to null; nothing is released.
    static void InitEventToZero(sem_t*& event);
    // Whether the pointer is not null.
    static bool IsInitialized(sem_t*& event);
    // Adds one signal; nothing when not initialised. May be called from a signal handler.
    static void SignalEvent(sem_t*& event);
    // Takes away all pending signals.
    static void ResetEvent(sem_t*& event);
    // Destroys the event and sets the pointer to null; nobody may be waiting on it.
    static void CleanupEvent(sem_t*& event);

    // Waits for one signal, at most timeoutMs milliseconds, or for ever with -1. A wait interrupted by a
    // signal handler goes on, unless returnOnInterrupt is set. Returns a WaitResult.
    static int WaitForEventSignal(sem_t*& event, int timeoutMs, bool returnOnInterrupt);

    // Waits for one signal of any event, or of each of them with waitAll, at most timeoutMs milliseconds, or
    // for ever with -1. signalledIndex, unless null, gets the index of the event taken last; among several
    // that are signalled the lowest index comes first. ignoredFlag has no effect. Returns a WaitResult. The
    // wait sleeps until SignalEvent is called; a bare sem_post is noticed within five seconds.
    static int WaitForMultipleEventSignals(int count, sem_t** events, bool waitAll, int timeoutMs,
                                           bool ignoredFlag, int* signalledIndex);

    // The WaitResult for an errno value.
    static int mapError(int error);
};
