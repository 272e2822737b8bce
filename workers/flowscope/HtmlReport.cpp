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

struct Plot {
    const char* title;
    const char* unit;
    std::vector<double> values; // one of each step
    int stepSeconds;
    double limit = 0;     // a line that the values should stay below; 0: none
    std::size_t from = 0; // the first step that has a value
    // In the plot's place where there is no value.
    const char* without = "The stream is too short for a plot.";

    [[nodiscard]] std::size_t seconds() const {
        return values.size() * static_cast<std::size_t>(stepSeconds);
    }
};

// Steps from left to right, from zero up to the largest; all plots of a page show the same seconds.
std::string drawn(const Plot& plot, std::size_t seconds) {
    constexpr double WIDTH = 900;
    constexpr double HEIGHT = 220;
    constexpr double LEFT = 70;
    constexpr double BOTTOM = 30;
    constexpr double TOP = 10;
    std::string svg = format("<h2>%s</h2>\n", plot.title);
    if (plot.values.empty())
        return svg + "<p>" + plot.without + "</p>\n";
    const double most =
        std::max({*std::max_element(plot.values.begin(), plot.values.end()), plot.limit, 1e-9});
    const auto y = [&](double value) { return HEIGHT - value / most * (HEIGHT - TOP); };
    const auto x = [&](std::size_t step) {
        const std::size_t time = step * static_cast<std::size_t>(plot.stepSeconds);
        return LEFT + (WIDTH - LEFT) * static_cast<double>(time) / static_cast<double>(seconds);
    };
    std::string points;
    for (std::size_t i = plot.from; i < plot.values.size(); ++i)
        points += format("%.1f,%.1f %.1f,%.1f ", x(i), y(plot.values[i]), x(i + 1), y(plot.values[i]));
    svg += format("<svg viewBox=\"0 0 %.0f %.0f\" role=\"img\" aria-label=\"%s\">\n", WIDTH, HEIGHT + BOTTOM,
                  plot.title);
    svg += format("<line x1=\"%.0f\" y1=\"%.0f\" x2=\"%.0f\" y2=\"%.0f\" stroke=\"#888\"/>\n", LEFT, HEIGHT,
                  WIDTH, HEIGHT);
    if (plot.limit > 0)
        svg += format("<line class=\"limit\" x1=\"%.0f\" y1=\"%.1f\" x2=\"%.0f\" y2=\"%.1f\" "
                      "stroke=\"#b3261e\" stroke-dasharray=\"6 4\"/>\n",
                      LEFT, y(plot.limit), WIDTH, y(plot.limit));
    svg += "<polyline fill=\"none\" stroke=\"#1f5fa8\" stroke-width=\"1.5\" points=\"" + points + "\"/>\n";
    const auto text = [&](double at, double line, const char* anchor, const std::string& words) {
        svg += format("<text x=\"%.0f\" y=\"%.0f\" font-size=\"13\" text-anchor=\"%s\">", at, line, anchor) +
               words + "</text>\n";
    };
    text(0, 16, "start", format("%.4g", most));
    text(0, HEIGHT, "start", plot.unit);
    text(LEFT, HEIGHT + 20, "start", "0 s");
    text(WIDTH, HEIGHT + 20, "end", format("%zu s", seconds));
    return svg + "</svg>\n";
}

// Behind those of a clock that comes late, or whose rate is constant only since it has jumped.
std::size_t firstValue(const std::vector<double>& peaks) {
    const auto found = std::find_if(peaks.begin(), peaks.end(), [](double each) { return each > 0; });
    return found == peaks.end() ? 0 : static_cast<std::size_t>(found - peaks.begin());
}

std::string plots(const Analysis& analysis) {
    std::vector<double> megabits = analysis.rates().bitsPerSecond();
    for (double& rate : megabits)
        rate /= 1e6;
    const PeakProfile& intervals = analysis.clock().intervals();
    std::vector<Plot> all;
    all.push_back({"Bit rate over time", "Mb/s", std::move(megabits), analysis.rates().stepSeconds()});
    all.push_back({"Longest PCR interval over time", "ms", intervals.peaks(), intervals.stepSeconds(), 100,
                   firstValue(intervals.peaks())});
    if (analysis.clock().count() == 0)
        all.back().without = "There is no PCR.";
    if (analysis.pcrJitterUs()) {
        const PeakProfile jitter = analysis.clock().jitterOverTime();
        all.push_back({"PCR jitter over time", "\xC2\xB5s", jitter.peaks(), jitter.stepSeconds(),
                       ClockCheck::jitterLimitUs, firstValue(jitter.peaks())});
    }
    std::size_t seconds = 1;
    for (const Plot& plot : all)
        seconds = std::max(seconds, plot.seconds());
    std::string result;
    for (const Plot& plot : all)
        result += drawn(plot, seconds);
    return result;
}

void addVideo(std::string& page, const Analysis& analysis) {
    const VideoTrack& video = *analysis.video();
    const VideoFormat& picture = video.format();
    row(page, "Video",
        format("PID %d, %s %s", analysis.videoPid(), encodingText(analysis).c_str(),
               picture.profile.c_str()));
    const std::string size = sizeText(analysis);
    std::string shape = size.empty() ? "size not known: no header that tells it" : size;
    if (!picture.aspect.empty())
        shape += ", " + picture.aspect;
    if (picture.interlaced)
        shape += *picture.interlaced ? ", interlaced" : ", progressive";
    row(page, "Picture", shape);
    row(page, "Frame rate", rateText(picture.rate()));
    row(page, "Duration", durationText(analysis) + " (" + framesText(analysis) + ")");
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

void addAudio(std::string& page, const Analysis& analysis, const Analysis::Audio& audio) {
    const AudioFormat& sound = audio.track.format();
    std::string text = format("PID %d, ", audio.pid) + audioTypeText(analysis, audio);
    if (audio.track.frames() == 0) {
        row(page, "Audio",
            text +
                (audio.track.codec() == AudioCodec::unknown ? ", not looked into" : ", no frame was found"));
        return;
    }
    text += ", " + sound.mode;
    if (sound.allChannels() != 0)
        text += ", " + counted(static_cast<unsigned long long>(sound.allChannels()), "channel");
    row(page, "Audio",
        text + format(", %d Hz, %.0f kb/s", sound.samplingRate, audio.track.bitsPerSecond() / 1000));
}

void addTransport(std::string& page, const Analysis& analysis) {
    const Program& asset = *analysis.asset();
    row(page, "Program", format("%d, PMT PID %d, PCR PID %d", asset.number, asset.pmtPid, asset.pcrPid));
    row(page, "Multiplex",
        megabits(analysis.muxBitsPerSecond()) + format(", %.1f %% null packets", analysis.nullPercent()));
    row(page, "PCR",
        analysis.clock().count() == 0
            ? "none"
            : format("at most every %.1f ms, %llu over 100 ms, ", analysis.clock().longestIntervalMs(),
                     static_cast<unsigned long long>(analysis.clock().tooLong())) +
                  counted(static_cast<unsigned long long>(analysis.clock().jumps()), "jump") + ", " +
                  counted(static_cast<unsigned long long>(analysis.clock().newTimeBases()), "new time base"));
    if (const auto jitter = analysis.pcrJitterUs())
        row(page, "PCR jitter", format("%.3f \xC2\xB5s from a constant rate", *jitter));
    if (const auto offset = analysis.audioOffsetMs())
        row(page, "Audio begins", format("%+.1f ms from the video", *offset));
    for (const Program& program : analysis.programs())
        if (&program != analysis.asset())
            row(page, "Also in the file",
                program.mapped
                    ? format("program %d, ", program.number) + counted(program.streams.size(), "stream")
                    : format("program %d, without a map", program.number));
}

} // namespace

std::string htmlReport(const Analysis& analysis, const std::string& file) {
    std::string page = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>" +
                       escaped(file) + "</title>\n<style>" + STYLE + "</style></head><body>\n<h1>" +
                       escaped(file) + "</h1>\n<p>" + escaped(summary(analysis)) + "</p>\n";
    page += clean(analysis)
                ? "<div class=\"verdict good\">Nothing was found that departs from the standards.</div>\n"
                : "<div class=\"verdict bad\">" + findingsText(analysis) + ": see below.</div>\n";
    page += "<h2>Properties</h2>\n<table>\n";
    addVideo(page, analysis);
    for (const Analysis::Audio& audio : analysis.audios())
        addAudio(page, analysis, audio);
    addTransport(page, analysis);
    page += "</table>\n" + plots(analysis);
    if (!clean(analysis)) {
        page += "<h2>Findings</h2>\n<table>\n";
        for (const auto& [kind, count] : analysis.findings().counts())
            row(page, kind, std::to_string(count));
        page += "</table>\n<ul>\n";
        for (const Finding& finding : analysis.findings().first())
            page += "<li><b>" + escaped(finding.kind) + "</b>: " + escaped(finding.text) + "</li>\n";
        page += "</ul>\n";
        if (analysis.findings().total() > analysis.findings().first().size())
            page += format("<p>Of each kind the first %zu are shown.</p>\n", Findings::mostOfAKind);
    }
    return page + "</body></html>\n";
}

} // namespace kestrel::flowscope
