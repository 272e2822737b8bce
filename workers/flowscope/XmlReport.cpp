#include "ReportValues.h"
#include "Reports.h"
#include "capture/Failure.h"

#include <tinyxml.h>

namespace kestrel::flowscope {
namespace {

using capture::format;

TiXmlElement& add(TiXmlElement& parent, const char* name) {
    auto* const element = new TiXmlElement(name);
    parent.LinkEndChild(element); // which owns it from here on
    return *element;
}

// What is not known is left out.
void value(TiXmlElement& parent, const char* name, const std::string& text) {
    if (!text.empty())
        add(parent, name).SetAttribute("value", text.c_str());
}

const char* yesNo(bool yes) {
    return yes ? "true" : "false";
}

void addAsset(TiXmlElement& parent, const Program& program) {
    TiXmlElement& table = add(parent, "PMTTable");
    value(table, "Pid", std::to_string(program.pmtPid));
    value(table, "PcrPid", std::to_string(program.pcrPid));
    value(table, "ProgramNumber", std::to_string(program.number));
    TiXmlElement& elements = add(table, "Elements");
    for (const StreamEntry& stream : program.streams) {
        TiXmlElement& entry = add(elements, "Stream");
        value(entry, "Pid", std::to_string(stream.pid));
        TiXmlElement& type = add(entry, "StreamType");
        type.SetAttribute("value", stream.type);
        type.SetAttribute("Desc", stream.description.c_str());
        value(entry, "Language", stream.language);
    }
}

// In one element: the service reads no report with thousands of them, and a multiplex may have many programs.
void addOther(TiXmlElement& parent, const Program& program) {
    TiXmlElement& entry = add(parent, "OtherProgram");
    entry.SetAttribute("number", program.number);
    entry.SetAttribute("pmtPid", program.pmtPid);
    if (!program.mapped)
        return;
    entry.SetAttribute("pcrPid", program.pcrPid);
    std::string streams;
    for (const StreamEntry& stream : program.streams)
        streams += (streams.empty() ? "" : ", ") + std::to_string(stream.pid) + " " + stream.description;
    entry.SetAttribute("streams", streams.c_str());
}

void addVideo(TiXmlElement& media, const Analysis& analysis) {
    const VideoTrack& video = *analysis.video();
    const VideoFormat& picture = video.format();
    TiXmlElement& stream = add(media, "VideoStream");
    value(stream, "Pid", std::to_string(analysis.videoPid()));
    value(stream, "Encoding", encodingText(analysis));
    value(stream, "Profile", picture.profile);
    value(stream, "VideoResolution", sizeText(analysis));
    if (picture.interlaced)
        value(stream, "Interlaced", yesNo(*picture.interlaced));
    value(stream, "AspectRatio", picture.aspect);
    value(stream, "FrameRate", rateText(picture.rate()));
    value(stream, "ElementaryBitrate", bitRateText(analysis.videoBitsPerSecond()));
    value(stream, "ConstantBitrate", yesNo(analysis.constantBitRate()));
    value(stream, "GopSize", std::to_string(video.gops().size()));
    value(stream, "GopStructure", video.gops().structure());
    if (video.gops().adaptive())
        value(stream, "GopStructure", "Adaptive Gop");
    value(stream, "QuadByteAligned", yesNo(video.quadByteAligned()));
    value(stream, "DropFrame", yesNo(video.dropFrame()));
    value(stream, "ClosedCaptions", yesNo(video.closedCaptions()));
    value(stream, "Frames", std::to_string(video.frames()));
    value(stream, "FirstTimecode", timecodeText(analysis));
}

void addAudio(TiXmlElement& media, const Analysis& analysis, const Analysis::Audio& audio) {
    const AudioFormat& sound = audio.track.format();
    TiXmlElement& stream = add(media, "AudioStream");
    value(stream, "Pid", std::to_string(audio.pid));
    value(stream, "AudioType", audioTypeText(analysis, audio));
    value(stream, "AudioMode", sound.mode);
    value(stream, "AudioBitrate", bitRateText(audio.track.bitsPerSecond()));
    if (sound.samplingRate != 0)
        value(stream, "SamplingRate", std::to_string(sound.samplingRate));
    if (sound.channels != 0) {
        // The service takes five channels for 5.1: the low-frequency one is told apart.
        value(stream, "NumberOfChannels", std::to_string(sound.channels));
        value(stream, "LowFrequencyChannel", yesNo(sound.lowFrequency));
    }
}

void addTransport(TiXmlElement& root, const Analysis& analysis) {
    TiXmlElement& transport = add(root, "Transport");
    const auto number = [&](const char* name, std::uint64_t count) {
        value(transport, name, std::to_string(count));
    };
    number("Packets", analysis.packets());
    number("NullPackets", analysis.nullPackets());
    value(transport, "NullPacketPercent", format("%.2f", analysis.nullPercent()));
    number("DuplicatePackets", analysis.duplicates());
    number("ContinuityErrors", analysis.findings().count("continuity"));
    number("TransportErrors", analysis.findings().count("transport error"));
    number("PcrCount", analysis.clock().count());
    value(transport, "PcrIntervalMaxMs", format("%.3f", analysis.clock().longestIntervalMs()));
    number("PcrIntervalsOver100Ms", analysis.clock().tooLong());
    number("PcrJumps", analysis.clock().jumps());
    number("PcrNewTimeBases", analysis.clock().newTimeBases());
    if (const auto jitter = analysis.pcrJitterUs())
        value(transport, "PcrJitterUs", format("%.3f", *jitter));
    if (const auto offset = analysis.audioOffsetMs())
        value(transport, "AudioOffsetMs", format("%.3f", *offset));
    // One attribute, so that a long recording has no more elements than a short one.
    std::string rates;
    for (const double rate : analysis.rates().bitsPerSecond()) {
        rates += rates.empty() ? "" : " ";
        rates += format("%.0f", rate);
    }
    TiXmlElement& profile = add(transport, "BitrateOverTime");
    profile.SetAttribute("stepSeconds", analysis.rates().stepSeconds());
    profile.SetAttribute("value", rates.c_str());
}

void addFindings(TiXmlElement& root, const Analysis& analysis) {
    TiXmlElement& findings = add(root, "Findings");
    findings.SetAttribute("count", std::to_string(analysis.findings().total()).c_str());
    for (const auto& [kind, count] : analysis.findings().counts()) {
        TiXmlElement& entry = add(findings, "Kind");
        entry.SetAttribute("name", kind.c_str());
        entry.SetAttribute("count", std::to_string(count).c_str());
    }
    for (const Finding& finding : analysis.findings().first()) {
        TiXmlElement& entry = add(findings, "Finding");
        entry.SetAttribute("kind", finding.kind.c_str());
        entry.SetAttribute("text", finding.text.c_str());
    }
}

} // namespace

std::string xmlReport(const Analysis& analysis, const std::string& file) {
    TiXmlDocument document;
    document.LinkEndChild(new TiXmlDeclaration("1.0", "UTF-8", ""));
    auto* const root = new TiXmlElement("FlowScopeReport");
    document.LinkEndChild(root);
    root->SetAttribute("file", file.c_str());
    TiXmlElement& media = add(*root, "Media");
    TiXmlElement& system = add(media, "SystemInformation");
    addAsset(system, *analysis.asset());
    for (const Program& program : analysis.programs())
        if (&program != analysis.asset())
            addOther(system, program);
    addVideo(media, analysis);
    for (const Analysis::Audio& audio : analysis.audios())
        addAudio(media, analysis, audio);
    TiXmlElement& whole = add(*root, "MediaSummary");
    value(whole, "AssetDuration", durationText(analysis));
    value(whole, "MuxBitrate", bitRateText(analysis.muxBitsPerSecond()));
    value(whole, "DurationSeconds", format("%.3f", analysis.videoSeconds()));
    addTransport(*root, analysis);
    addFindings(*root, analysis);
    TiXmlPrinter printer;
    printer.SetIndent("  ");
    document.Accept(&printer);
    return printer.Str();
}

} // namespace kestrel::flowscope
