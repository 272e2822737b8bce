#include "VerifierSession.h"

#include "Analysis.h"
#include "PacketReader.h"
#include "ReportValues.h"
#include "Reports.h"
#include "capture/Failure.h"
#include "capture/Limits.h"
#include "foundation/ErrnoText.h"
#include "foundation/UniqueFd.h"
#include "mpeg/packet_view.h"
#include "mpeg/regular_file.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel::flowscope {
namespace {

using capture::format;

constexpr int exitSuccess = 0;
constexpr int exitFailure = 1;
constexpr auto heartbeatPeriod = std::chrono::seconds(5);
// Packets between two looks at the clock and at the service's queue: some milliseconds of work.
constexpr std::uint64_t packetsPerLook = 8192;
constexpr const char* cancelled = "cancelled: no report is written";

// The service keeps the beginning of a text: of a path for which there is no room only the end is told, so
// that what is said of the file is told whole.
std::string forService(const std::string& file, const std::string& text) {
    constexpr std::string_view omitted = "...";
    constexpr std::string_view separator = ": ";
    const std::string_view path(file);
    if (path.size() + separator.size() + text.size() <= capture::resultsBytes)
        return file + std::string(separator) + text;
    const std::size_t others = omitted.size() + separator.size() + text.size();
    const std::size_t room = capture::resultsBytes - std::min(others, capture::resultsBytes);
    std::string_view end = path.substr(path.size() - std::min(room, path.size()));
    // Not from within a character of UTF-8 on.
    while (!end.empty() && (static_cast<unsigned char>(end.front()) & 0xC0) == 0x80)
        end.remove_prefix(1);
    return std::string(omitted) + std::string(end) + std::string(separator) + text;
}

std::atomic<bool> endAsked{false};
void askForEnd(int) {
    endAsked = true;
}

} // namespace

VerifierSession::VerifierSession(Options options)
    : m_options(std::move(options)), m_link("FlowScope"),
      m_nextHeartbeat(std::chrono::steady_clock::now() + heartbeatPeriod) {}

int VerifierSession::run() {
    std::signal(SIGTERM, askForEnd);
    std::signal(SIGINT, askForEnd);
    // Unless it is to outlive its terminal.
    struct sigaction hangup {};
    if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN)
        std::signal(SIGHUP, askForEnd);
    m_link.connect(m_options.outQueue, m_options.inQueue);
    m_link.sendHeartbeat();
    Analysis analysis(m_options.durationSeconds);
    std::string failure = examineBeginning();
    if (failure.empty())
        failure = analyse(analysis);
    if (failure.empty())
        failure = missing(analysis);
    if (failure.empty())
        failure = writeReport(analysis);
    if (!failure.empty())
        return fail(failure);
    std::string text = summary(analysis);
    if (analysis.full())
        text += format(" in its first %d s", m_options.durationSeconds.value_or(0));
    std::fprintf(stderr, "%s: %s\nReport: %s\n", m_options.file.c_str(), text.c_str(),
                 m_options.reportPath().c_str());
    m_link.sendResults(forService(m_options.file, text));
    m_link.sendExit();
    return exitSuccess;
}

int VerifierSession::fail(const std::string& why) {
    std::fprintf(stderr, "flowScope: %s: %s\n", m_options.file.c_str(), why.c_str());
    m_link.sendResults(forService(m_options.file, why));
    m_link.sendExit();
    return exitFailure;
}

void VerifierSession::refuse(const Options& options) {
    capture::ServiceLink link("FlowScope");
    link.connect(options.outQueue, options.inQueue);
    link.sendResults("wrong command line: " + options.error);
    link.sendExit();
}

// What a report cannot do without.
std::string VerifierSession::missing(const Analysis& analysis) {
    const auto& programs = analysis.programs();
    if (std::none_of(programs.begin(), programs.end(), [](const Program& each) { return each.mapped; }))
        return "no program: no PAT and PMT were found";
    if (analysis.video() == nullptr)
        return "no MPEG-2 or H.264 video in any program";
    if (analysis.video()->frames() == 0)
        return format("no picture in %sthe video of program %d, PID %d",
                      analysis.full() ? "the part that was read of " : "", analysis.asset()->number,
                      analysis.videoPid());
    return {};
}

// What can be told before the pass: a file that is none, and packets of another size.
std::string VerifierSession::examineBeginning() const {
    struct stat status {};
    if (stat(m_options.file.c_str(), &status) != 0)
        return "cannot be read: " + errnoText(errno);
    if (!S_ISREG(status.st_mode))
        return "is not a regular file";
    const RegularFile file(m_options.file.c_str());
    if (!file)
        return "cannot be read: " + errnoText(errno);
    constexpr std::size_t BEGINNING = 8192; // in which the first packet is to begin
    std::array<unsigned char, BEGINNING + PacketReader::run * 204> bytes{};
    const std::size_t count = std::fread(bytes.data(), 1, bytes.size(), file.get());
    if (count == 0)
        return "is empty";
    if (count < static_cast<std::size_t>(ts::packet_size))
        return "is shorter than one transport packet of 188 bytes";
    constexpr std::size_t SHORT = PacketReader::run * 204; // too short to tell much by
    const auto packetsOf = [&](std::size_t size) {
        const auto first = findPackets(bytes.data(), count, size);
        return first && *first < BEGINNING;
    };
    if (packetsOf(ts::packet_size) || (count < SHORT && bytes[0] == ts::sync_byte))
        return "";
    if (count < SHORT)
        return "no sync byte 0x47 at its beginning: expected 188-byte packets";
    if (packetsOf(192))
        return "has packets of 192 bytes (with a time stamp before each); expected 188";
    if (packetsOf(204))
        return "has packets of 204 bytes (with parity bytes behind each); expected 188";
    return "is not an MPEG transport stream: no sync bytes 188 bytes apart";
}

std::string VerifierSession::analyse(Analysis& analysis) {
    const RegularFile file(m_options.file.c_str());
    if (!file)
        return "cannot be read: " + errnoText(errno);
    m_fileBytes = file.length();
    PacketReader reader(fileno(file.get()));
    std::uint64_t packets = 0;
    while (!reader.ended()) {
        const unsigned char* const packet = reader.next();
        if (packet == nullptr || ++packets % packetsPerLook == 0) {
            if (attend(reader.position()))
                return cancelled;
        }
        if (const auto stray = reader.takeStray())
            analysis.skip(stray->position, stray->bytes);
        if (packet != nullptr && !analysis.take(packet))
            break;
    }
    if (reader.error() != 0)
        return format("cannot be read from byte %llu on: ",
                      static_cast<unsigned long long>(reader.position())) +
               errnoText(reader.error());
    if (attend(reader.position()))
        return cancelled;
    if (const auto rest = reader.cutPacket(); !rest.empty())
        analysis.endWithin(rest);
    analysis.end();
    return {};
}

bool VerifierSession::attend(std::uint64_t position) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= m_nextHeartbeat) {
        m_nextHeartbeat = now + heartbeatPeriod;
        m_link.sendHeartbeat();
        const double share =
            static_cast<double>(position) / static_cast<double>(std::max<std::int64_t>(m_fileBytes, 1));
        m_link.sendResults(format("%s: %.0f %% read", m_options.file.c_str(), 100 * std::min(share, 1.0)));
    }
    return endAsked || m_link.cancelReceived();
}

// Written beside its name and renamed, so that nobody reads half a report.
std::string VerifierSession::writeReport(const Analysis& analysis) const {
    const std::string text = m_options.format == "html" ? htmlReport(analysis, m_options.file)
                                                        : xmlReport(analysis, m_options.file);
    const std::string path = m_options.reportPath();
    // Short, so that a report may have as long a name as a file can have.
    const std::string part =
        path.substr(0, path.rfind('/') + 1) + ".flowscope-" + std::to_string(getpid()) + ".part";
    const UniqueFd out(open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!out.valid())
        return "the report cannot be written to " + part + ": " + errnoText(errno);
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = write(out.get(), text.data() + done, text.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            const int error = errno;
            unlink(part.c_str());
            return "the report cannot be written to " + part + ": " + errnoText(error);
        }
        done += static_cast<std::size_t>(count);
    }
    if (fsync(out.get()) != 0 || rename(part.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(part.c_str());
        return "the report cannot be renamed to " + path + ": " + errnoText(error);
    }
    return {};
}

} // namespace kestrel::flowscope
