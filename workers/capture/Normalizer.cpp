#include "Normalizer.h"

#include "Failure.h"
#include "mpeg/packet_view.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <utility>

namespace kestrel::capture {
namespace {

constexpr std::size_t pcrAt = 6;
constexpr std::size_t pcrBytes = 6;
bool hasPcr(const unsigned char* packet) noexcept {
    return pcrOf(packet) >= 0;
}

bool isScrambled(const unsigned char* packet) noexcept {
    return (packet[3] & 0xC0) != 0;
}

} // namespace

Normalizer::Normalizer(bool keepNulls, Sink sink, Log log)
    : m_keepNulls(keepNulls), m_sink(std::move(sink)), m_log(std::move(log)), m_pids(ts::pid_count) {}

void Normalizer::log(const std::string& line) const {
    if (m_log)
        m_log(line);
}

Normalizer::Pid& Normalizer::pidOf(const unsigned char* packet) {
    return m_pids[static_cast<std::size_t>(ts::pid(packet))];
}

bool Normalizer::take(std::size_t bytes) {
    m_window.added(bytes);
    return work(false);
}

bool Normalizer::finish() {
    if (!work(true))
        return false;
    // Nothing comes any more that could be waited for.
    for (const auto& rebase : m_rebases)
        if (rebase->waiting != none)
            rewrite(*rebase, none);
    m_timeline.settle(m_window);
    return emit(m_window.count());
}

bool Normalizer::work(bool last) {
    if (m_shape != SourceShape::transport && !begin(last))
        return m_shape == SourceShape::unknown;
    for (;;) {
        const std::size_t at = m_window.unread();
        const SyncStep step = nextPacket(m_window.bytes(), at, m_inSync, last);
        if (step.what == SyncStep::What::more)
            break;
        if (step.what == SyncStep::What::gap) {
            if (m_inSync || m_counts.strayPlaces == 0)
                ++m_counts.strayPlaces;
            m_inSync = false;
            m_counts.strayBytes += step.next - at;
            m_window.skip(step.next - at);
            continue;
        }
        m_inSync = true;
        takePacket();
        if (m_window.count() - m_emitted > mostHeld) {
            // A PID that has gone silent: what waits for it goes on, at the pace there was.
            for (const auto& waiting : m_rebases)
                if (waiting->waiting != none)
                    rewrite(*waiting, none);
            m_timeline.settle(m_window);
        }
        if (m_timeline.timed() - m_emitted >= writePackets && !emit(settled()))
            return false;
    }
    releaseEmitted();
    return true;
}

// Whether packets can be taken.
bool Normalizer::begin(bool whole) {
    m_shape = shapeOf(m_window.bytes(), whole);
    if (m_shape != SourceShape::transport)
        return false;
    const auto more = [&](std::size_t wanted) { return !whole && m_window.bytes().size() < wanted; };
    // The programs should be known before their first packet goes on.
    if (!more(shapeSearchBytes))
        readAhead(whole);
    if (more(shapeSearchBytes) || (!m_read.complete() && more(mostAhead))) {
        m_shape = SourceShape::unknown;
        return false;
    }
    m_tablesLate = m_tablesLate || (m_anyEarly && m_read.complete());
    m_inSync = m_window.bytes().front() == ts::sync_byte;
    followPrograms();
    countWithTables();
    return true;
}

// Frames that come before the source's own tables count where these are put in front.
void Normalizer::countWithTables() {
    if (!m_tablesLate)
        return;
    m_copies.clear();
    m_read.copyAll(m_copies);
    for (const Packet& copy : m_copies)
        m_frames.take(copy.data());
}

// From where it ended before.
void Normalizer::readAhead(bool last) {
    const auto bytes = m_window.bytes();
    while (!m_read.complete()) {
        const bool inSync = m_ahead == 0 ? bytes.front() == ts::sync_byte : m_inSync;
        const SyncStep step = nextPacket(bytes, m_ahead, inSync, last);
        if (step.what == SyncStep::What::more)
            break;
        m_inSync = step.what == SyncStep::What::packet;
        if (m_inSync)
            lookAt(bytes.data() + m_ahead);
        m_ahead = step.next;
    }
}

void Normalizer::lookAt(const unsigned char* packet) {
    const bool empty = !ts::has_payload(packet) && !ts::has_adaptation(packet);
    if ((packet[1] & 0x80) || empty)
        return;
    const int number = ts::pid(packet);
    // Also of a map that comes before the PAT that names it.
    if (Pid& pid = pidOf(packet); pid.first < 0 && ts::has_payload(packet))
        pid.first = ts::continuity_counter(packet);
    if (!m_read.carries(number)) {
        // Of a multiplex that is there in part only, some of the programs that its PAT names never come: with
        // one known, the packet may be of that, or of one whose map is still to come.
        if (number >= firstProgramPid && number != ts::null_pid) {
            m_anyEarly = true;
            m_tablesLate = m_tablesLate || !m_read.anyProgram();
        }
        return;
    }
    if (!isScrambled(packet))
        m_read.take(packet, 0);
}

void Normalizer::takePacket() {
    const unsigned char* source = m_window.unreadBytes();
    ++m_counts.taken;
    if (dropped(source)) {
        m_window.skip(packetSize);
        return;
    }
    const std::size_t index = m_window.accept();
    const unsigned char* packet = m_window.packet(index);
    const int number = ts::pid(packet);
    if (number == ts::null_pid)
        return;
    Pid& pid = pidOf(packet);
    PacketWindow::Note& note = m_window.note(index);
    note.duplicate = isDuplicate(packet, pid);
    if (note.duplicate) {
        ++m_counts.duplicates;
        pid.wasDuplicate = true;
        return;
    }
    checkCounter(packet, pid);
    pid.seen = true;
    pid.wasDuplicate = false;
    std::memcpy(pid.last.data(), packet, packetSize);
    if (!isScrambled(packet)) {
        if (m_read.carries(number) && m_read.take(packet, 0))
            followPrograms();
        if (pid.rebase)
            rebase(index, pid);
    }
    m_frames.take(packet);
    m_timeline.take(m_window, index, m_read);
}

bool Normalizer::dropped(const unsigned char* packet) {
    if (packet[1] & 0x80) {
        if (++m_counts.transportErrors <= loggedContinuityErrors)
            log(format("packet %" PRIu64 " dropped: transport error, PID %d", m_counts.taken - 1,
                       ts::pid(packet)));
        return true;
    }
    if (ts::pid(packet) == ts::null_pid) {
        m_counts.nulls += m_keepNulls ? 0 : 1;
        return !m_keepNulls;
    }
    if (!ts::has_payload(packet) && !ts::has_adaptation(packet)) {
        ++m_counts.reserved;
        return true;
    }
    return false;
}

// The same bytes but for the PCR, once (2.4.3.3).
bool Normalizer::isDuplicate(const unsigned char* packet, const Pid& pid) const noexcept {
    if (!pid.seen || pid.wasDuplicate || !ts::has_payload(packet) || packet[3] != pid.last[3])
        return false;
    if (!hasPcr(packet))
        return std::equal(pid.last.begin(), pid.last.end(), packet);
    constexpr std::size_t behind = pcrAt + pcrBytes;
    return std::equal(packet, packet + pcrAt, pid.last.begin()) &&
           std::equal(packet + behind, packet + packetSize, pid.last.begin() + behind);
}

void Normalizer::checkCounter(const unsigned char* packet, const Pid& pid) {
    if (!pid.seen || isDiscontinuity(packet))
        return;
    const int before = ts::continuity_counter(pid.last.data());
    const int expected = (before + (ts::has_payload(packet) ? 1 : 0)) & 0x0F;
    const int found = ts::continuity_counter(packet);
    if (found == expected)
        return;
    if (++m_counts.continuityErrors <= loggedContinuityErrors)
        log(format("continuity error of the source at packet %" PRIu64 ": expected %d not %d : PID %d",
                   m_counts.taken - 1, expected, found, ts::pid(packet)));
    if (m_counts.continuityErrors == loggedContinuityErrors)
        log("further continuity errors are only counted");
}

void Normalizer::followPrograms() {
    for (const auto& rebase : m_rebases)
        rebase->active = false;
    for (const int number : m_read.mpeg2Videos()) {
        Pid& pid = m_pids[static_cast<std::size_t>(number)];
        if (!pid.rebase && m_rebases.size() < mostRebased)
            pid.rebase = m_rebases.emplace_back(std::make_unique<Rebase>(number)).get();
        if (pid.rebase)
            pid.rebase->active = true;
    }
    m_timeline.follow(m_read);
}

// The beginning of a PES packet is rewritten when the next packet of the PID is there, as headers may go on
// in it.
void Normalizer::rebase(std::size_t index, Pid& pid) {
    Rebase& rebase = *pid.rebase;
    if (rebase.waiting != none)
        rewrite(rebase, index);
    if (rebase.active && ts::payload_unit_start(m_window.packet(index)))
        rebase.waiting = index;
}

void Normalizer::rewrite(Rebase& rebase, std::size_t next) {
    unsigned char* const begin = m_window.packet(rebase.waiting);
    m_window.note(rebase.waiting).rewritten = true;
    rebase.waiting = none;
    if (next == none) {
        const ts::writable_bytes payload = ts::payload(begin);
        array_byte_sequence view(payload.data(), static_cast<int>(payload.size()));
        rebase.stage.mangle(view, 0);
        return;
    }
    m_window.note(next).rewritten = true;
    const std::unique_ptr<byte_sequence> pes(unibuffer::pes_beginning(begin, m_window.packet(next)));
    rebase.stage.mangle(*pes, 0);
}

// Packets in front of which nothing is to change any more.
std::size_t Normalizer::settled() const noexcept {
    std::size_t end = m_timeline.timed();
    for (const auto& rebase : m_rebases)
        end = std::min(end, rebase->waiting);
    return end;
}

bool Normalizer::emit(std::size_t end) {
    std::size_t run = m_emitted;
    const auto flush = [&] {
        const auto packets = m_window.packets(run, m_emitted);
        m_counts.written += m_emitted - run;
        run = m_emitted;
        return packets.empty() || m_sink(packets);
    };
    if (m_emitted < end && std::exchange(m_tablesLate, false) && !beginWithTables())
        return false;
    for (; m_emitted < end; ++m_emitted) {
        const PacketWindow::Note& note = m_window.note(m_emitted);
        const Ticks period = note.time - m_emittedTime > sparse ? sparseTablePeriod : tablePeriod;
        m_emittedTime = note.time;
        if (m_written.oldest() <= note.time - period && (!flush() || !insertTables(note.time, period)))
            return false;
        unsigned char* const packet = m_window.packet(m_emitted);
        const int pid = ts::pid(packet);
        if (pid == ts::null_pid)
            continue;
        number(packet, pidOf(packet), note);
        if (!note.duplicate && m_written.carries(pid) && !isScrambled(packet))
            m_written.take(packet, note.time);
    }
    return flush();
}

// All that are known, as if the source began with them: its own counters stay.
bool Normalizer::beginWithTables() {
    m_copies.clear();
    m_read.copyAll(m_copies);
    for (std::size_t i = m_copies.size(); i-- > 0;) {
        Pid& pid = pidOf(m_copies[i].data());
        pid.first = (pid.first - 1) & 0x0F;
        m_copies[i][3] = static_cast<unsigned char>(0x10 | pid.first);
        if (pid.counter < 0)
            pid.counter = pid.first;
        pid.inserted = true;
    }
    for (const Packet& copy : m_copies)
        m_written.take(copy.data(), m_window.note(m_emitted).time);
    return writeCopies();
}

// Those that are due at that time or were before it, in the order of time.
bool Normalizer::insertTables(Ticks now, Ticks period) {
    m_copies.clear();
    for (Ticks due = m_written.oldest(); due <= now - period; due = m_written.oldest()) {
        const std::size_t before = m_copies.size();
        if (m_counts.tables + before > tableAllowance + 2 * (m_counts.written - m_counts.tables)) {
            if (m_counts.tablesLeftOut++ == 0)
                log("PAT and PMT are not repeated any more: more of them than of all other packets are "
                    "needed");
            return true;
        }
        // What has fallen back further than any two PCRs are apart was held up, and is due once.
        const Ticks next = std::max(due + period, now - longestStep);
        m_written.repeat(due, next, m_copies);
        if (m_copies.size() == before) {
            m_written.repeat(now - period, now, m_copies); // the others need not wait with it
            break;
        }
    }
    for (Packet& copy : m_copies) {
        Pid& pid = pidOf(copy.data());
        pid.counter = (pid.counter + 1) & 0x0F;
        pid.inserted = true;
        copy[3] = static_cast<unsigned char>(0x10 | pid.counter);
    }
    return writeCopies();
}

bool Normalizer::writeCopies() {
    m_counts.tables += m_copies.size();
    m_counts.written += m_copies.size();
    return m_copies.empty() || m_sink({m_copies.front().data(), m_copies.size() * packetSize});
}

void Normalizer::number(unsigned char* packet, Pid& pid, const PacketWindow::Note& note) {
    const int found = ts::continuity_counter(packet);
    // A duplicate that a table was put in front of is one no more: a section may come again at any time.
    const bool repeats = note.duplicate && !pid.inserted;
    if (Rebase* rebase = pid.rebase) {
        if (repeats && rebase->sentValid) {
            std::array<unsigned char, pcrBytes> pcr{};
            const bool keeps = hasPcr(packet);
            std::copy_n(packet + pcrAt, pcrBytes, pcr.begin());
            std::memcpy(packet, rebase->sent.data(), packetSize);
            if (keeps)
                std::copy(pcr.begin(), pcr.end(), packet + pcrAt);
        } else {
            rebase->sentValid = note.rewritten;
            if (note.rewritten)
                std::memcpy(rebase->sent.data(), packet, packetSize);
        }
    }
    if (pid.counter < 0)
        pid.counter = found; // a stream without faults keeps its counters
    else if (ts::has_payload(packet) && !repeats)
        pid.counter = (pid.counter + 1) & 0x0F;
    pid.inserted = false;
    if (pid.counter == found)
        return;
    ++m_counts.renumbered;
    packet[3] = static_cast<unsigned char>((packet[3] & 0xF0) | pid.counter);
}

void Normalizer::releaseEmitted() noexcept {
    m_window.release(m_emitted);
    for (const auto& rebase : m_rebases)
        if (rebase->waiting != none)
            rebase->waiting -= m_emitted;
    m_timeline.released(m_emitted);
    m_emitted = 0;
}

} // namespace kestrel::capture
