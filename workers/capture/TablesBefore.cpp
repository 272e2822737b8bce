#include "TablesBefore.h"

#include "PacketWindow.h"
#include "ProgramTables.h"
#include "mpeg/packet_view.h"

#include <algorithm>
#include <array>
#include <map>

namespace kestrel::capture {
namespace {

// How far back they are looked for, one after the other, until all are found: they come several times a
// second as a rule. Whole packets, so that a file without foreign bytes is in step from the first one.
constexpr std::array<std::uint64_t, 4> reaches{5'600 * packetSize, 22'400 * packetSize, 89'600 * packetSize,
                                               358'400 * packetSize};

// A part of a file, as far as its tables are concerned.
class TableReader {
public:
    [[nodiscard]] MaybeFailure read(SourceFile& file, const std::atomic<bool>& stopped) {
        bool inSync = false;
        for (bool ended = false; !ended && !stopped;) {
            std::size_t got = 0;
            if (auto failed = file.read(m_window.room(), got))
                return failed;
            m_window.added(got);
            ended = got == 0;
            takePackets(inSync, ended);
            m_window.release(m_window.count());
        }
        return std::nullopt;
    }
    [[nodiscard]] const ProgramTables& tables() const noexcept { return m_tables; }

    [[nodiscard]] std::vector<Packet> packets() const {
        std::vector<Packet> copies;
        m_tables.copyAll(copies);
        std::map<int, int> counters = m_counters;
        for (auto copy = copies.rbegin(); copy != copies.rend(); ++copy) {
            int& counter = counters[ts::pid(copy->data())];
            (*copy)[3] = static_cast<unsigned char>(((*copy)[3] & 0xF0) | counter);
            counter = (counter + 15) & 15;
        }
        return copies;
    }

private:
    void takePackets(bool& inSync, bool ended) {
        for (;;) {
            const std::size_t at = m_window.unread();
            const SyncStep step = nextPacket(m_window.bytes(), at, inSync, ended);
            if (step.what == SyncStep::What::more)
                return;
            inSync = step.what == SyncStep::What::packet;
            if (inSync)
                takePacket(m_window.packet(m_window.accept()));
            else
                m_window.skip(step.next - at);
        }
    }
    void takePacket(const unsigned char* packet) {
        const int pid = ts::pid(packet);
        if ((packet[1] & 0x80) || !m_tables.carries(pid))
            return;
        m_tables.take(packet, 0);
        m_counters[pid] = ts::continuity_counter(packet);
    }

    PacketWindow m_window;
    ProgramTables m_tables;
    std::map<int, int> m_counters; // of the last packet of each PID
};

} // namespace

MaybeFailure tablesBefore(SourceFile& file, std::uint64_t place, const std::atomic<bool>& stopped,
                          std::vector<Packet>& packets) {
    packets.clear();
    for (const std::uint64_t reach : reaches) {
        TableReader reader;
        file.part(place - std::min(place, reach), place);
        if (auto failed = reader.read(file, stopped))
            return failed;
        if (stopped)
            return std::nullopt;
        if (reader.tables().anyProgram())
            packets = reader.packets();
        if (place <= reach || (reader.tables().anyProgram() && reader.tables().complete()))
            break;
    }
    return std::nullopt;
}

} // namespace kestrel::capture
