// Thin wrappers over POSIX threads, mutexes and message queues. Each returns 0 on success and 1 when the
// system call failed, unless it says otherwise, and some write a line to the C-level file log on failure.
// errno is left as the system call set it.
#pragma once

#include <cstddef>
#include <mqueue.h>
#include <pthread.h>

// Starts a thread with default attributes.
int createPosixThread(pthread_t* handle, void* (*fn)(void*), void* arg);
// Waits for the end of a thread and stores its result, unless result is null.
int joinPosixThread(pthread_t thread, void** result);
// Ends the calling thread with this result; never returns.
[[noreturn]] void exitPosixThread(void* value);
// Sends a signal to a thread of this process; signal 0 only probes.
int sendSignalToThread(pthread_t thread, int signal);
// Checks that a stack size in bytes is acceptable. It changes nothing: the attribute object is a temporary.
int setPosixThreadStackSize(std::size_t size);
// Stores the default stack size in bytes.
int getPosixThreadStackSize(std::size_t* size);

// Initialises, with default attributes, or destroys a mutex.
int initPosixMutex(pthread_mutex_t* mutex);
int destroyPosixMutex(pthread_mutex_t* mutex);
// trylockPosixMutex returns 1 when the mutex is held already.
int lockPosixMutex(pthread_mutex_t* mutex);
int trylockPosixMutex(pthread_mutex_t* mutex);
int unlockPosixMutex(pthread_mutex_t* mutex);

// Message queues. On Linux a queue descriptor is a file descriptor: it can be waited on with poll(2), which
// is how the system waits for messages. Every descriptor opened here is closed on exec. attr is always four
// numbers in the order of mq_attr: flags, maximum number of messages, maximum message size in bytes, current
// number of messages.

// Creates a queue, opened for reading and writing. Returns its descriptor, or a negative value when it cannot
// be created or a queue of that name exists. mode is subject to the umask.
int createMsgQueue(const char* name, int mode, long attr[4]);
// Opens an existing queue; access 0 reads, 1 writes, 2 does both, any other value reads. Further arguments
// are ignored. Returns its descriptor, or a negative value.
int connectToMsgQueue(const char* name, int access, ...);
// Sends one message of length bytes at the fixed priority 16.
int sendMsg(mqd_t queue, const char* bytes, int length);
int sendPriorityMsg(mqd_t queue, const char* bytes, int length, unsigned priority);
// Receives one message into buffer, whose size in bytes must be at least the queue's message size. An empty
// message counts as a failure.
int receiveMsg(mqd_t queue, char* buffer, int size, int* received);
int receivePriorityMsg(mqd_t queue, char* buffer, int size, int* received, unsigned* priority);
// Reads or sets the attributes of a queue; of those set only the flags have an effect.
int getQueueAttr(mqd_t queue, long attr[4]);
int setQueueAttr(mqd_t queue, long attr[4]);
// Closes a descriptor.
int closeMsgQueue(mqd_t queue);
// Removes the name of a queue; the queue goes when its last descriptor is closed.
int unlinkMsgQueue(const char* name);
// Writes one line that names the current errno.
void printQueueError();
