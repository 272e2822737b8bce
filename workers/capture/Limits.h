// Every size, count and waiting time of the capture worker, with its unit.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kestrel::capture {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Bytes of a transport packet (ISO/IEC 13818-1, 2.4.3.2).
inline constexpr std::size_t packetSize = 188;

// The UDP port on which an encoder's stream is expected when nothing names another.
inline constexpr int defaultStreamPort = 5000;

// Packets between receiver and writer, per encoder: 49 MB, five seconds at 80 Mb/s, for a disk that stalls.
inline constexpr std::size_t ringPackets = std::size_t{1} << 18;

// Bytes asked for the socket's receive buffer, and below which the receiver does not let datagrams gather.
inline constexpr int socketBufferBytes = 32 * 1024 * 1024;
inline constexpr int smallSocketBufferBytes = 512 * 1024;

// Datagrams taken with one system call, and bytes of the largest.
inline constexpr std::size_t receiveBatch = 32;
inline constexpr std::size_t datagramBytes = 65536;

// How long the receiver lets datagrams gather in the socket, so that it is not woken for each.
inline constexpr milliseconds gatherTime{4};
// A group of which nothing has come is left and joined again, first after, then every.
inline constexpr milliseconds rejoinAfter{2000};
inline constexpr milliseconds rejoinEvery{3000};

// Packets written to disk at once: just under 64 KiB.
inline constexpr std::size_t writePackets = 348;
// Longest time that received packets stay in memory before they are written.
inline constexpr milliseconds writeDelay{200};
// Bytes after which the kernel is asked to begin writing back, so that dirty pages never pile up.
inline constexpr std::size_t writebackBytes = 8 * 1024 * 1024;

// Packets kept back until it is known what kind of picture they begin.
inline constexpr std::size_t heldPackets = 4096;

// Packets of a group of pictures kept back until it is known whether mark-in lies in it: 24 MB.
inline constexpr std::size_t heldGroupPackets = std::size_t{1} << 17;
// How long before mark-in a group of pictures may begin that it lies in, in seconds of its frames.
inline constexpr double longestGroupSeconds = 30;
// Periods by which a frame may be shown for longer than one without anything missing.
inline constexpr std::int64_t longestShown = 2;

// How far labels may jump across a mark whose frame then counts as lost on the way, in seconds.
inline constexpr double lostSeconds = 1;

// From the arrival of a packet until it is worked on: longer, and the log tells.
inline constexpr milliseconds lateTime{1000};

// A port that another recorder has may be free soon: one whose recording ends when this one begins. How long
// it is waited for, and how often it is tried meanwhile.
inline constexpr milliseconds portWait{6000};
inline constexpr milliseconds portRetry{100};

// Packets worked on between two looks at the time and at what other threads want.
inline constexpr std::size_t portionPackets = 1024;

// Shortest timed capture, in frames.
inline constexpr int minimumFrames = 5;

// Lines about continuity errors a second; further ones are counted.
inline constexpr int continuityLinesPerSecond = 20;

// Bytes of the results text that the service keeps.
inline constexpr std::size_t resultsBytes = 299;

inline constexpr milliseconds heartbeatPeriod{5000};
inline constexpr milliseconds statusPeriod{1000};
// How long the results text and the exit message wait for room in the service's queue.
inline constexpr milliseconds finalSendTime{4000};

// What a recording waits for; tests shorten them.
struct Timing {
    milliseconds noStream{10000};       // until a program is seen
    milliseconds noRandomAccess{30000}; // until a random access point of that program is seen
    milliseconds stall{2000};           // without a packet: the stream has stopped
    milliseconds givenUp{10000};        // a timed capture past its duration, without a frame
    milliseconds longestReturn{5000};   // from playing a frame to its coming back, where nothing else tells
};

} // namespace kestrel::capture
