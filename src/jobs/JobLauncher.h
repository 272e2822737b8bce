// Starts the worker process of a job and watches it to its end.
#pragma once

#include "jobs/Job.h"

#include <memory>
#include <pthread.h>

namespace kestrel {

struct PendingWatch;

} // namespace kestrel

// Each running job has a watching thread: it takes the worker's messages, stops watching when the worker is
// silent for too long, and turns the worker's end into the job's final state. A worker in silence is left
// running, and reaped when it ends.
class JobLauncher {
public:
    // What a watching thread works with, its own once the thread runs.
    struct ThreadData {
        // Copies the command line; null counts as empty.
        explicit ThreadData(const char* commandLine);
        ~ThreadData();
        ThreadData(const ThreadData&) = delete;
        ThreadData& operator=(const ThreadData&) = delete;

        pthread_t thread{};
        int updateQueue = -1;  // worker to manager
        int mgrQueue = -1;     // manager to worker
        Job* job = nullptr;    // not owned
        char* cmdLine;         // owned; what is executed and quoted in messages
        int statusTimeout = 0; // longest silence in seconds; 0 or less: not watched

        // Set by Launch: how the thread tells it about the start. Null when doWork is called alone.
        std::unique_ptr<kestrel::PendingWatch> pending;
    };

    // Creates the job's two queues, starts the worker and watches it: with wait in this thread, returning
    // when the watching has ended, else in a thread of its own, returning when the worker process exists. 0,
    // 10028 (which limit was met stands in the job's results), 10035, or 10036 when no process could be made.
    static int Launch(Job* job, const char* cmdLine, int statusTimeout, bool wait);

    // Body of the watching thread; takes over the ThreadData it is given. Returns null.
    static void* doWork(void* threadData);

    // Replaces any queue of that name by a new one of 10 messages of 1000 bytes. 0, or 10028 with errno.
    static int createQueue(char* name, int& descriptor);

    // Drops the waiting messages, closes the descriptor and removes the name. 0, 10031 or 10032.
    static int flushAndDestroyQueue(char* name, int descriptor);

    // Ends all watching, for a manager that is about to delete its jobs: each worker that still runs is
    // logged and left running, its queues are removed, its job stays in its state. Returns when no watching
    // thread touches a job any more. A later Launch is watched as usual, unless it is forGood:
    // then its worker is left alone like the others, until ResumeWatching.
    static void StopWatching(bool forGood = false);
    static void ResumeWatching();

    // Workers being watched now.
    static int WatchingCount();
};
