#include "ReportValues.h"
#include "Reports.h"
#include "capture/Failure.h"

#include <algorithm>
#include <vector>

namespace kestrel::flowscope {
namespace {

using capture::format;

std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '&':
            result += "&amp;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            result += c;
        }
    }
    return result;
}

constexpr const char* STYLE =
    "body{font:15px/1.5 system-ui,sans-serif;max-width:60em;margin:2em auto;padding:0 1em;color:#1a1a1a}"
    "h1{font-size:1.4em;margin-bottom:.2em}h2{font-size:1.1em;margin-top:2em}"
    ".verdict{padding:.6em 1em;border-left:.5em solid;margin:1em 0}"
    ".good{border-color:#2a7d3f;background:#edf7ef}.bad{border-color:#b3261e;background:#fbeeed}"
    "table{border-collapse:collapse;width:100%}td,th{text-align:left;padding:.25em .8em .25em 0;"
    "border-bottom:1px solid #ddd;vertical-align:top}th{font-weight:600;width:14em}"
    "svg{width:100%;height:auto}li{margin:.2em 0}"
    "@media print{body{margin:0;max-width:none}h2{break-after:avoid}svg,tr{break-inside:avoid}}";

void row(std::string& page, const std::string& name, const std::string& text) {
    if (!text.empty())
        page += "<tr><th scope=\"row\">" + escaped(name) + "</th><td>" + escaped(text) + "</td></tr>\n";
}

std::string megabits(double bitsPerSecond) {
    return bitsPerSecond <= 0 ? "" : format("%.3f Mb/s", bitsPerSecond / 1e6);
}

// Steps from left to right, from zero up to the largest.
std::string plot(const std::vector<double>& values, int stepSeconds, const char* label) {
    constexpr double WIDTH = 900;
    constexpr double HEIGHT = 220;
    constexpr double LEFT = 70;
    constexpr double BOTTOM = 30;
    if (values.empty())
        return "<p>The stream is too short for a plot.</p>\n";
    const double most = *std::max_element(values.begin(), values.end());
    std::string points;
    for (std::size_t i = 0; i < values.size(); ++i) {
        const double y = HEIGHT - values[i] / std::max(most, 1.0) * (HEIGHT - 10);
        const auto x = [&](std::size_t step) {
            return LEFT + (WIDTH - LEFT) * static_cast<double>(step) / static_cast<double>(values.size());
        };
        points += format("%.1f,%.1f %.1f,%.1f ", x(i), y, x(i + 1), y);
    }
    return format("<svg viewBox=\"0 0 %.0f %.0f\" role=\"img\" aria-label=\"%s\">\n", WIDTH, HEIGHT + BOTTOM,
                  label) +
           format("<line x1=\"%.0f\" y1=\"%.0f\" x2=\"%.0f\" y2=\"%.0f\" stroke=\"#888\"/>\n", LEFT, HEIGHT,
                  WIDTH, HEIGHT) +
           "<polyline fill=\"none\" stroke=\"#1f5fa8\" stroke-width=\"1.5\" points=\"" + points + "\"/>\n" +
           format("<text x=\"0\" y=\"16\" font-size=\"13\">%.1f</text><text x=\"0\" y=\"%.0f\" "
                  "font-size=\"13\">Mb/s</text>\n",
                  most / 1e6, HEIGHT) +
           format("<text x=\"%.0f\" y=\"%.0f\" font-size=\"13\">0 s</text><text x=\"%.0f\" y=\"%.0f\" "
                  "font-size=\"13\" "
                  "text-anchor=\"end\">%zu s</text>\n</svg>\n",
                  LEFT, HEIGHT + 20, WIDTH, HEIGHT + 20,
                  values.size() * static_cast<std::size_t>(stepSeconds));
}

void addVideo(std::string& page, const Analysis& analysis) {
    const VideoTrack& video = *analysis.video();
    const VideoFormat& picture = video.format();
    row(page, "Video",
        format("PID %d, %s %s", analysis.videoPid(), video.codec() == VideoCodec::mpeg2 ? "MPEG-2" : "H.264",
               picture.profile.c_str()));
    row(page, "Picture",
        format("%dx%d, %s, %s", picture.width, picture.height, picture.aspect.c_str(),
               picture.interlaced ? "interlaced" : "progressive"));
    row(page, "Frame rate", rateText(picture.rate()));
    row(page, "Duration",
        durationText(analysis) + format(" (%lld frames)", static_cast<long long>(analysis.videoFrames())));
    row(page, "Video bit rate",
        megabits(analysis.videoBitsPerSecond()) + (analysis.constantBitRate() ? ", constant" : ", variable"));
    row(page, "GOP",
        format("%d frames, %s%s", video.gops().size(), video.gops().structure().c_str(),
               video.gops().adaptive() ? ", adaptive" : ""));
    row(page, "First time code", timecodeText(analysis));
    row(page, "Drop-frame", video.dropFrame() ? "yes" : "no");
    row(page, "Closed captions", video.closedCaptions() ? "yes" : "no");
    row(page, "Quad-byte aligned", video.quadByteAligned() ? "yes" : "no");
}

void addTransport(std::string& page, const Analysis& analysis) {
    const Program& asset = *analysis.asset();
    row(page, "Program", format("%d, PMT PID %d, PCR PID %d", asset.number, asset.pmtPid, asset.pcrPid));
    row(page, "Multiplex",
        megabits(analysis.muxBitsPerSecond()) +
            format(", %.1f %% null packets",
                   100.0 * static_cast<double>(analysis.nullPackets()) /
                       static_cast<double>(std::max<std::uint64_t>(analysis.packets(), 1))));
    row(page, "PCR",
        format("at most every %.1f ms, %llu over 100 ms, %llu jumps", analysis.clock().longestIntervalMs(),
               static_cast<unsigned long long>(analysis.clock().tooLong()),
               static_cast<unsigned long long>(analysis.clock().jumps())));
    if (analysis.nullPackets() != 0)
        row(page, "PCR jitter", format("%.1f \xC2\xB5s from a constant rate", analysis.clock().jitterUs()));
    if (const auto offset = analysis.audioOffsetMs())
        row(page, "Audio begins", format("%+.1f ms from the video", *offset));
    for (const Program& program : analysis.programs())
        if (&program != analysis.asset())
            row(page, "Also in the file",
                format("program %d, %zu streams", program.number, program.streams.size()));
}

} // namespace

std::string htmlReport(const Analysis& analysis, const std::string& file) {
    std::string page = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>" +
                       escaped(file) + "</title>\n<style>" + STYLE + "</style></head><body>\n<h1>" +
                       escaped(file) + "</h1>\n<p>" + escaped(summary(analysis)) + "</p>\n";
    page += clean(analysis)
                ? "<div class=\"verdict good\">Nothing was found that departs from the standards.</div>\n"
                : format("<div class=\"verdict bad\">%zu findings: see below.</div>\n",
                         analysis.findings().first().size());
    page += "<h2>Properties</h2>\n<table>\n";
    addVideo(page, analysis);
    for (const Analysis::Audio& audio : analysis.audios()) {
        const AudioFormat& sound = audio.track.format();
        row(page, "Audio",
            format("PID %d, %s, %d Hz, %.0f kb/s", audio.pid, sound.mode.c_str(), sound.samplingRate,
                   audio.track.bitsPerSecond() / 1000));
    }
    addTransport(page, analysis);
    page += "</table>\n<h2>Bit rate over time</h2>\n" +
            plot(analysis.rates().bitsPerSecond(), analysis.rates().stepSeconds(), "Bit rate over time");
    if (!clean(analysis)) {
        page += "<h2>Findings</h2>\n<ul>\n";
        for (const Finding& finding : analysis.findings().first())
            page += "<li><b>" + escaped(finding.kind) + "</b>: " + escaped(finding.text) + "</li>\n";
        page += "</ul>\n";
    }
    return page + "</body></html>\n";
}

} // namespace kestrel::flowscope
