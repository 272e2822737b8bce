#include "minimal_queries.h"

#include <array>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel::bench {

namespace {

constexpr int PACKET = 188;
constexpr long BLOCK_PACKETS = 5577; // just under 1 MiB

int pidOf(const unsigned char* packet) {
    return (packet[1] & 0x1F) << 8 | packet[2];
}

// The decoding time of the PES packet that begins here, or -1. With both, only one that has a DTS of its own.
long long timeOf(const unsigned char* packet, bool both) {
    if ((packet[1] & 0x40) == 0)
        return -1;
    const int payload = (packet[3] & 0x20) != 0 ? 5 + packet[4] : 4;
    if (payload > PACKET - 19)
        return -1;
    const unsigned char* const pes = packet + payload;
    const int flags = pes[7] >> 6;
    if (flags < (both ? 3 : 2))
        return -1;
    const unsigned char* const field = pes + (flags == 3 ? 14 : 9);
    return static_cast<long long>(field[0] >> 1 & 7) << 30 | field[1] << 22 | (field[2] >> 1) << 15 |
           field[3] << 7 | field[4] >> 1;
}

} // namespace

long minimalScan(const char* path, long packets, int pid) {
    static unsigned char buffer[BLOCK_PACKETS * PACKET];
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    long found = 0;
    while (packets > 0) {
        const long wanted = packets < BLOCK_PACKETS ? packets : BLOCK_PACKETS;
        const ssize_t got = read(file, buffer, static_cast<std::size_t>(wanted) * PACKET);
        if (got < PACKET)
            break;
        for (long at = 0; at + PACKET <= got; at += PACKET)
            found += pidOf(buffer + at) == pid ? 1 : 0;
        packets -= got / PACKET;
    }
    close(file);
    return found;
}

long long minimalBounds(const char* path, int pid) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    std::array<unsigned char, PACKET> packet{};
    struct stat status {};
    fstat(file, &status);
    long long first = -1;
    for (long long at = 0; first < 0 && pread(file, packet.data(), PACKET, at) == PACKET; at += PACKET)
        if (pidOf(packet.data()) == pid)
            first = timeOf(packet.data(), false);
    long long last = -1;
    for (long long at = status.st_size / PACKET * PACKET - PACKET;
         at >= 0 && last < 0 && pread(file, packet.data(), PACKET, at) == PACKET; at -= PACKET)
        if (pidOf(packet.data()) == pid)
            last = timeOf(packet.data(), true);
    close(file);
    return last - first;
}

} // namespace kestrel::bench
