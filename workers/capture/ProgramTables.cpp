#include "ProgramTables.h"

#include "mpeg/mpeg2.h"
#include "mpeg/packet_view.h"

#include <algorithm>
#include <set>

namespace kestrel::capture {
namespace {

constexpr int patPid = 0;
constexpr int patTableId = 0;
constexpr int pmtTableId = 2;
// PIDs below have meanings of their own (table 2-3).
constexpr int firstFreePid = 0x10;
constexpr std::size_t crcBytes = 4;
constexpr std::size_t patHead = 8;
constexpr std::size_t pmtHead = 12;

int number13(const unsigned char* field) noexcept {
    return (field[0] & 0x1F) << 8 | field[1];
}

bool ordinary(int pid) noexcept {
    return pid >= firstFreePid && pid < ts::null_pid;
}

// The section as packets of its PID.
void packetize(const ProgramTables::Section& section, std::vector<Packet>& packets) {
    std::size_t done = 0;
    for (bool first = true; done < section.bytes.size(); first = false) {
        Packet packet;
        packet.fill(0xFF);
        packet[0] = ts::sync_byte;
        packet[1] = static_cast<unsigned char>((first ? 0x40 : 0) | section.pid >> 8);
        packet[2] = static_cast<unsigned char>(section.pid);
        packet[3] = 0x10;
        std::size_t at = ts::header_size;
        if (first)
            packet[at++] = 0; // pointer_field
        const std::size_t part = std::min(packet.size() - at, section.bytes.size() - done);
        std::copy_n(section.bytes.begin() + static_cast<std::ptrdiff_t>(done), part,
                    packet.begin() + static_cast<std::ptrdiff_t>(at));
        done += part;
        packets.push_back(packet);
    }
}

} // namespace

bool ProgramTables::take(const unsigned char* packet, Ticks now) {
    const int pid = ts::pid(packet);
    auto found = m_collectors.find(pid);
    if (found == m_collectors.end())
        found = m_collectors
                    .try_emplace(pid, pid == patPid ? patTableId : pmtTableId,
                                 [this, pid](std::span<const unsigned char> section) { hear(pid, section); })
                    .first;
    m_now = now;
    m_changed = false;
    if (!found->second.take(packet))
        return false;
    if (m_changed) {
        // Here, as it may do away with the collector that spoke.
        if (pid == patPid)
            followPat();
        readPrograms();
    }
    findOldest();
    return m_changed;
}

void ProgramTables::hear(int pid, std::span<const unsigned char> bytes) {
    const Section heard{
        pid, bytes[3] << 8 | bytes[4], bytes[6], bytes[5] >> 1 & 0x1F, {bytes.begin(), bytes.end()}, m_now};
    // Another version replaces the whole table; another transport_stream_id the whole PAT.
    std::erase_if(m_sections, [&](const Section& other) {
        return other.pid == pid &&
               (other.extension == heard.extension ? other.version != heard.version : pid == patPid);
    });
    const auto same = std::find_if(m_sections.begin(), m_sections.end(), [&](const Section& other) {
        return other.pid == pid && other.extension == heard.extension && other.number == heard.number;
    });
    if (same != m_sections.end()) {
        same->sent = m_now;
        if (same->bytes != heard.bytes) {
            same->bytes = heard.bytes;
            m_changed = true;
        }
    } else if (m_sections.size() < mostSections) {
        m_sections.push_back(heard);
        m_changed = true;
    }
}

void ProgramTables::followPat() {
    std::set<int> wanted;
    for (const Section& section : m_sections)
        if (carriesPat(section))
            for (std::size_t at = patHead; at + 4 <= section.bytes.size() - crcBytes; at += 4) {
                const unsigned char* entry = section.bytes.data() + at;
                const int pid = number13(entry + 2);
                if ((entry[0] | entry[1]) != 0 && ordinary(pid) && wanted.size() < mostPids)
                    wanted.insert(pid);
            }
    m_followed.reset();
    m_followed.set(patPid);
    for (const int pid : wanted)
        m_followed.set(static_cast<std::size_t>(pid));
    std::erase_if(m_sections, [this](const Section& section) { return !carries(section.pid); });
    std::erase_if(m_collectors, [this](const auto& entry) { return !carries(entry.first); });
}

void ProgramTables::readPrograms() {
    m_pcrs.clear();
    m_videos.clear();
    for (const Section& section : m_sections) {
        if (carriesPat(section) || section.bytes.size() < pmtHead + crcBytes)
            continue;
        const unsigned char* bytes = section.bytes.data();
        if (const int pcr = number13(bytes + 8); ordinary(pcr))
            m_pcrs.push_back(pcr);
        const std::size_t end = section.bytes.size() - crcBytes;
        std::size_t at = pmtHead + (static_cast<std::size_t>(bytes[10] & 0x0F) << 8 | bytes[11]);
        while (at + 5 <= end) {
            const unsigned char* entry = bytes + at;
            const int type = MPEG::PMT::PIDInfo::stream_type(entry);
            const int pid = MPEG::PMT::PIDInfo::elementary_PID(entry);
            if ((type == 1 || type == 2) && ordinary(pid) && !carries(pid))
                m_videos.push_back(pid);
            at += 5 + static_cast<std::size_t>(MPEG::PMT::PIDInfo::ES_info_length(entry));
        }
    }
}

void ProgramTables::findOldest() noexcept {
    m_oldest = never;
    for (const Section& section : m_sections)
        m_oldest = std::min(m_oldest, section.sent);
}

bool ProgramTables::complete() const noexcept {
    const auto known = [this](int pid) {
        return std::any_of(m_sections.begin(), m_sections.end(),
                           [pid](const Section& section) { return section.pid == pid; });
    };
    for (std::size_t pid = 0; pid < m_followed.size(); ++pid)
        if (m_followed[pid] && !known(static_cast<int>(pid)))
            return false;
    return true;
}

bool ProgramTables::anyProgram() const noexcept {
    return !std::all_of(m_sections.begin(), m_sections.end(), carriesPat);
}

bool ProgramTables::isPcr(int pid) const noexcept {
    return std::find(m_pcrs.begin(), m_pcrs.end(), pid) != m_pcrs.end();
}

void ProgramTables::copyAll(std::vector<Packet>& copies) const {
    for (const bool pat : {true, false})
        for (const Section& section : m_sections)
            if (carriesPat(section) == pat)
                packetize(section, copies);
}

void ProgramTables::repeat(Ticks until, Ticks now, std::vector<Packet>& copies) {
    for (Section& section : m_sections) {
        const auto collector = m_collectors.find(section.pid);
        if (section.sent > until || (collector != m_collectors.end() && collector->second.open()))
            continue;
        packetize(section, copies);
        section.sent = now;
    }
    findOldest();
}

} // namespace kestrel::capture
