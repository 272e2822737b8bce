// The limit program of the continuity check: what a reader of transport packets cannot do without. Reads
// 1 MiB at a time and compares each packet's counter with the last of its PID.
#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

int main(int argc, char** argv) {
    constexpr int PACKET = 188;
    constexpr int BLOCK = 1 << 20;
    static unsigned char buffer[BLOCK + PACKET];
    static signed char last[8192];
    std::memset(last, -1, sizeof last);
    const int file = argc > 1 ? open(argv[1], O_RDONLY) : -1;
    if (file < 0)
        return 1;
    long packets = 0;
    long errors = 0;
    int held = 0;
    for (ssize_t got = 0; (got = read(file, buffer + held, BLOCK)) > 0;) {
        held += static_cast<int>(got);
        int at = 0;
        for (; at + PACKET <= held; at += PACKET) {
            const unsigned char* const packet = buffer + at;
            const int pid = (packet[1] & 0x1F) << 8 | packet[2];
            const int counter = packet[3] & 0x0F;
            ++packets;
            if (pid == 0x1FFF)
                continue;
            if (last[pid] >= 0 && ((packet[3] & 0x10) != 0 ? (last[pid] + 1) & 0x0F : last[pid]) != counter)
                ++errors;
            last[pid] = static_cast<signed char>(counter);
        }
        std::memmove(buffer, buffer + at, static_cast<std::size_t>(held - at));
        held -= at;
    }
    std::printf("%ld packets, %ld errors\n", packets, errors);
    return 0;
}
