#include "streams/ffprobe.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace kestrel::test {

namespace {

// Runs a shell's command to its end; what it prints, line by line without empty ones.
std::vector<std::string> linesOf(const std::string& command) {
    FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        throw std::runtime_error("cannot run " + command);
    std::vector<std::string> lines;
    std::string line;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
        if (c == '\n') {
            if (!line.empty())
                lines.push_back(line);
            line.clear();
        } else {
            line += static_cast<char>(c);
        }
    }
    // An answer that was cut short is none.
    if (pclose(pipe) != 0)
        throw std::runtime_error("failed: " + command);
    return lines;
}

// What is said of a kept stream never changes, so it is asked once and kept beside it, for every build that
// keeps its streams there.
std::vector<std::string> answerOf(const std::string& command, const std::string& path) {
    if (!path.starts_with(KESTREL_STREAM_DIRECTORY "/") || !std::filesystem::exists(path))
        return linesOf(command);
    const std::string answer = path + "." + std::to_string(std::hash<std::string>{}(command)) + ".answer";
    std::vector<std::string> lines;
    if (std::ifstream in(answer); in) {
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }
    lines = linesOf(command);
    // A name of its own for each process and thread that asks at the same time.
    const std::string part = answer + "." + std::to_string(::gettid()) + ".part";
    std::ofstream out(part);
    for (const std::string& line : lines)
        out << line << '\n';
    out.close();
    if (out)
        std::filesystem::rename(part, answer);
    return lines;
}

std::vector<std::string> fieldsOf(const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream in(line);
    for (std::string field; std::getline(in, field, ',');)
        fields.push_back(field);
    return fields;
}

std::int64_t timeOf(const std::string& text) {
    return text.empty() || text == "N/A" ? -1 : std::stoll(text);
}

} // namespace

std::vector<std::string> Ffprobe::run(const std::string& options) const {
    return answerOf("ffprobe -v error " + options + " '" + m_path + "'", m_path);
}

std::string Ffprobe::stream(const std::string& which, const std::string& entry) const {
    const auto lines =
        run("-select_streams " + which + " -show_entries stream=" + entry + " -of default=nw=1:nk=1");
    return lines.empty() ? "" : lines.front();
}

double Ffprobe::frameRate() const {
    const std::string text = stream("v:0", "r_frame_rate");
    const std::size_t slash = text.find('/');
    return std::stod(text) / (slash == std::string::npos ? 1 : std::stod(text.substr(slash + 1)));
}

int Ffprobe::pid(const std::string& which) const {
    return static_cast<int>(std::strtol(stream(which, "id").c_str(), nullptr, 0));
}

int Ffprobe::streams(const std::string& type) const {
    // Once in the program, once in the list of streams.
    return static_cast<int>(
        run("-select_streams " + type + " -show_entries stream=index -of csv=p=0").size() / 2);
}

std::vector<ProbedPacket> Ffprobe::packets(const std::string& which) const {
    std::vector<ProbedPacket> packets;
    for (const std::string& line :
         run("-select_streams " + which + " -show_entries packet=pts,dts,size,flags -of csv=p=0")) {
        const std::vector<std::string> fields = fieldsOf(line);
        if (fields.size() < 4)
            continue;
        packets.push_back({timeOf(fields[0]), timeOf(fields[1]), std::stoi(fields[2]),
                           fields[3].find('K') != std::string::npos});
    }
    return packets;
}

double Ffprobe::duration(const std::string& which) const {
    return std::stod(stream(which, "duration"));
}

std::string Ffprobe::firstTimecode() const {
    const auto lines = run("-select_streams v:0 -read_intervals %+#2 -show_entries frame_side_data=timecode "
                           "-of default=nw=1:nk=1");
    return lines.empty() ? "" : lines.front();
}

CodedHeaders Ffprobe::codedHeaders() const {
    // "[trace_headers @ 0x...] 33          closed_gop             1 = 1"
    CodedHeaders headers;
    for (const std::string& line : linesOf("ffmpeg -v info -nostats -nostdin -i '" + m_path +
                                           "' -map 0:v:0 -c copy -bsf:v trace_headers -f null - 2>&1")) {
        std::istringstream in(line);
        std::string tag, at, address, position, name, bits, equals;
        long value = 0;
        if (in >> tag >> at >> address >> position >> name >> bits >> equals >> value &&
            tag == "[trace_headers")
            headers[name].push_back(value);
    }
    return headers;
}

std::string Ffprobe::pictureTypes() const {
    std::string types;
    for (const std::string& line : run("-select_streams v:0 -show_entries frame=pict_type -of csv=p=0"))
        types += line.front();
    return types;
}

} // namespace kestrel::test
