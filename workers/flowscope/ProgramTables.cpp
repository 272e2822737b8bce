#include "ProgramTables.h"

#include "StreamTypes.h"
#include "capture/Failure.h"
#include "mpeg/packet_view.h"

#include <algorithm>

namespace kestrel::flowscope {
namespace {

using capture::format;

constexpr std::size_t MOST_PROGRAMS = 64;
constexpr std::size_t CRC = 4;

bool sameStreams(const std::vector<StreamEntry>& a, const std::vector<StreamEntry>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const StreamEntry& x, const StreamEntry& y) {
        return x.pid == y.pid && x.type == y.type;
    });
}

std::vector<StreamEntry> streamsOf(std::span<const unsigned char> section) {
    constexpr std::size_t HEAD = 12;
    constexpr std::size_t ENTRY = 5;
    std::vector<StreamEntry> streams;
    std::size_t at = HEAD + ((section[10] & 0x0FU) << 8 | section[11]);
    while (at + ENTRY + CRC <= section.size()) {
        const std::size_t length = (section[at + 3] & 0x0FU) << 8 | section[at + 4];
        if (at + ENTRY + length + CRC > section.size())
            break;
        streams.push_back(describeStream(section.subspan(at, ENTRY + length)));
        at += ENTRY + length;
    }
    return streams;
}

} // namespace

const StreamEntry* Program::video() const noexcept {
    const auto found = std::find_if(streams.begin(), streams.end(),
                                    [](const StreamEntry& stream) { return stream.video.has_value(); });
    return found == streams.end() ? nullptr : &*found;
}

ProgramTables::Collector::Collector(int tableId)
    : sections(std::make_shared<Sections>()),
      collector(tableId, [queue = sections](std::span<const unsigned char> section) {
          queue->emplace_back(section.begin(), section.end());
      }) {}

bool ProgramTables::take(const unsigned char* packet, unsigned long long number, Findings& findings) {
    const int pid = ts::pid(packet);
    const auto map = m_maps.find(pid);
    if (pid != 0 && map == m_maps.end())
        return false;
    Collector& collector = pid == 0 ? m_association : map->second;
    collector.collector.take(packet);
    if (collector.sections->empty())
        return false;
    Sections sections;
    sections.swap(*collector.sections);
    bool news = false;
    for (const auto& section : sections)
        news = (pid == 0 ? takeAssociation(section, number, findings)
                         : takeMap(pid, section, number, findings)) ||
               news;
    return news;
}

bool ProgramTables::takeAssociation(std::span<const unsigned char> section, unsigned long long number,
                                    Findings& findings) {
    bool news = false;
    // 2.4.4.3: entries of four bytes between the head and the CRC.
    for (std::size_t at = 8; at + 4 + CRC <= section.size(); at += 4) {
        const int program = section[at] << 8 | section[at + 1];
        const int pid = (section[at + 2] & 0x1F) << 8 | section[at + 3];
        if (program == 0 || pid == 0) // 0: the network information table
            continue;
        const int place = section[6] << 10 | static_cast<int>(at); // section_number first
        if (const auto known = m_places.find(program); known == m_places.end()) {
            if (m_programs.size() >= MOST_PROGRAMS)
                continue;
            const auto before = std::find_if(m_programs.begin(), m_programs.end(), [&](const Program& each) {
                return m_places.at(each.number) > place;
            });
            Program entry;
            entry.number = program;
            entry.pmtPid = pid;
            m_programs.insert(before, std::move(entry));
            m_places.emplace(program, place);
        } else if (Program& entry =
                       *std::find_if(m_programs.begin(), m_programs.end(),
                                     [&](const Program& each) { return each.number == program; });
                   entry.pmtPid != pid) {
            findings.add("program",
                         format("packet %llu, PID 0: the map of program %d moves from PID %d to PID %d",
                                number, program, entry.pmtPid, pid));
            entry.pmtPid = pid;
        } else {
            continue;
        }
        m_maps.try_emplace(pid, 2);
        news = true;
    }
    return news;
}

// The program that a map on that PID is of. A map whose number the association table does not have is that of
// the PID's only program: the tables contradict each other, and the streams are there all the same.
Program* ProgramTables::programOf(int pid, int number) {
    Program* only = nullptr;
    int sharing = 0;
    for (Program& program : m_programs) {
        if (program.pmtPid != pid)
            continue;
        if (program.number == number)
            return &program;
        only = &program;
        ++sharing;
    }
    return sharing == 1 ? only : nullptr;
}

bool ProgramTables::takeMap(int pid, std::span<const unsigned char> section, unsigned long long number,
                            Findings& findings) {
    if (section.size() < 12 + CRC)
        return false;
    const int programNumber = section[3] << 8 | section[4];
    Program* const program = programOf(pid, programNumber);
    if (program == nullptr)
        return false;
    std::vector<StreamEntry> streams = streamsOf(section);
    const int clockPid = (section[8] & 0x1F) << 8 | section[9];
    if (program->mapped) {
        std::vector<StreamEntry>& latest = m_latest[program->number];
        const bool moved = clockPid != program->clockPid;
        if (moved)
            findings.add("program",
                         format("packet %llu, PID %d: the PCR of program %d moves from PID %d to PID %d",
                                number, pid, program->number, program->clockPid, clockPid));
        program->clockPid = clockPid;
        if (sameStreams(latest, streams))
            return moved;
        findings.add("program", format("packet %llu, PID %d: the streams of program %d change", number, pid,
                                       program->number));
        latest = std::move(streams);
        // What is reported of a program with video is what its pictures and sounds were found by.
        if (program->video() == nullptr)
            program->streams = latest;
        return true;
    }
    if (program->number != programNumber)
        findings.add("program", format("packet %llu, PID %d: it has the map of program %d, not of program %d",
                                       number, pid, programNumber, program->number));
    program->mapped = true;
    program->pcrPid = program->clockPid = clockPid;
    program->streams = streams;
    m_latest[program->number] = std::move(streams);
    return true;
}

const Program* ProgramTables::find(int number) const noexcept {
    const auto found = std::find_if(m_programs.begin(), m_programs.end(),
                                    [&](const Program& each) { return each.number == number; });
    return found == m_programs.end() ? nullptr : &*found;
}

void ProgramTables::decide(int number, int pid, std::span<const unsigned char> payload) {
    for (Program& program : m_programs)
        for (StreamEntry& stream : program.streams)
            if (program.number == number && stream.pid == pid)
                decideByPayload(payload, stream);
}

bool ProgramTables::complete() const noexcept {
    return !m_programs.empty() &&
           std::all_of(m_programs.begin(), m_programs.end(), [](const Program& each) { return each.mapped; });
}

} // namespace kestrel::flowscope
