// The property answers of a verification.
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/StringUtil.h"
#include "verifier/VerifierJob.h"
#include "verifier/VerifierXml.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <span>

namespace {

using Question = const char* (VerifierXml::*)() const;

// Questions that take an optional second result, as plain questions.
const char* videoPid(const VerifierXml& report) {
    return report.getVideoPid();
}

struct Property {
    const char* listName; // how the lists name it; null: in no list
    bool quick;           // in the quick list
    bool full;            // in the full list
    Question question;    // null: the video PID
};

// By index in VerifierJob::PropertyNameStr; lists and audio groups have no question.
struct SingleAnswer {
    int property;
    Question question;
};

constexpr Question VIDEO_PID = nullptr;

const char* ask(const VerifierXml& report, Question question) {
    return question == VIDEO_PID ? videoPid(report) : (report.*question)();
}

constexpr SingleAnswer SINGLE_ANSWERS[] = {
    {1, &VerifierXml::getVideoEncoding},
    {2, &VerifierXml::getVideoRes},
    {3, &VerifierXml::getVideoAspectRatio},
    {4, &VerifierXml::getTransportRate},
    {5, &VerifierXml::getDropFrame},
    {6, VIDEO_PID},
    {7, &VerifierXml::getPcrPid},
    {8, &VerifierXml::getPmtPid},
    {9, &VerifierXml::getIsHd},
    {10, &VerifierXml::getVideoFrameRate},
    {11, &VerifierXml::getIsCC},
    {12, &VerifierXml::getGopStructure},
    {13, &VerifierXml::getVariableGops},
    {14, &VerifierXml::getVideoBitrate},
    {15, &VerifierXml::getGopLength},
    {16, &VerifierXml::getQuadByteAligned},
    {17, &VerifierXml::getIsMpeg2},
    {18, &VerifierXml::getIsMpeg4},
    {21, &VerifierXml::getDuration},
    {22, &VerifierXml::getVideoCbr},
    {23, &VerifierXml::getNeedsReEncoding},
};
// Four properties are lists.
static_assert(std::size(SINGLE_ANSWERS) == VerifierJob::PROPERTY_COUNT - 4);

// In the order of the lists.
constexpr Property LISTED[] = {
    {"ENCODING", true, true, &VerifierXml::getVideoEncoding},
    {"RESOLUTION", true, true, &VerifierXml::getVideoRes},
    {"ASPECTRATIO", true, true, &VerifierXml::getVideoAspectRatio},
    {"TRANSPORTRATE", true, true, &VerifierXml::getTransportRate},
    {"RUNTIME", false, true, &VerifierXml::getDuration},
    {"DROPFRAME", true, true, &VerifierXml::getDropFrame},
    {"VIDEOPID", true, true, VIDEO_PID},
    {"PCRPID", true, true, &VerifierXml::getPcrPid},
    {"PMTPID", true, true, &VerifierXml::getPmtPid},
    {"ISHD", true, true, &VerifierXml::getIsHd},
    {"VIDEOFRAMERATE", true, true, &VerifierXml::getVideoFrameRate},
    {"ISCC", true, true, &VerifierXml::getIsCC},
    {"GOPSTRUCTURE", true, true, &VerifierXml::getGopStructure},
    {"VARIABLEGOPS", true, true, &VerifierXml::getVariableGops},
    {"VIDEORATE", true, true, &VerifierXml::getVideoBitrate},
    {"GOPLENGTH", true, true, &VerifierXml::getGopLength},
    {"VIDEOCBR", false, true, &VerifierXml::getVideoCbr},
    {"QUADBYTEALIGNED", true, true, &VerifierXml::getQuadByteAligned},
};

std::span<char> buffer(char* out, int size) {
    return {out, out != nullptr && size > 0 ? static_cast<std::size_t>(size) : 0};
}

void pushListed(const VerifierXml& report, bool quick, char* out, int capacity, int& length) {
    for (const Property& property : LISTED)
        if (quick ? property.quick : property.full)
            VerifierJob::pushProperty(property.listName, ask(report, property.question), out, capacity,
                                      length);
}

} // namespace

int VerifierJob::singleAnswer(const VerifierXml& report, char* out, int capacity) {
    if (report.loaded)
        for (const SingleAnswer& answer : SINGLE_ANSWERS)
            if (answer.property == property)
                if (const char* const text = ask(report, answer.question); text != nullptr) {
                    kestrel::copyText(buffer(out, capacity), text);
                    return 0;
                }
    return static_cast<int>(kestrel::error::mpegPropertyFailed);
}

int VerifierJob::getMpegPropertiesQuick(char* out, int capacity) {
    VerifierXml report(reportFilename);
    return quickProperties(report, out, capacity);
}

int VerifierJob::quickProperties(VerifierXml& report, char* out, int capacity) {
    if (!report.loaded)
        return static_cast<int>(kestrel::error::mpegPropertyFailed);
    int length = 0;
    pushListed(report, true, out, capacity, length);
    getAudioInfo(report, out, capacity, length);
    return 0;
}

int VerifierJob::getMpegProperties(char* out, int capacity) {
    VerifierXml report(reportFilename);
    return allProperties(report, out, capacity);
}

int VerifierJob::allProperties(VerifierXml& report, char* out, int capacity) {
    if (!report.loaded)
        return static_cast<int>(kestrel::error::mpegPropertyFailed);
    int length = 0;
    pushListed(report, false, out, capacity, length);
    getAudioInfo(report, out, capacity, length);
    return 0;
}

int VerifierJob::getAudioModes(char* out, int capacity) {
    VerifierXml report(reportFilename);
    return audioModes(report, out, capacity);
}

int VerifierJob::audioModes(VerifierXml& report, char* out, int capacity) {
    if (!report.loaded)
        return static_cast<int>(kestrel::error::mpegPropertyFailed);
    int length = 0;
    getAudioInfo(report, out, capacity, length);
    return 0;
}

void VerifierJob::getAudioInfo(VerifierXml& report, char* out, int capacity, int& length) {
    const int audios = report.getNumAudios();
    const auto push = [&](const char* format, int i, const char* value) {
        char name[40];
        std::snprintf(name, sizeof name, "%s%d", format, i);
        pushProperty(name, value, out, capacity, length);
    };
    const auto shown = [&](int i, const char* value) { return i < audios ? value : audioPlaceholder; };
    // Never more groups than the answer can hold, whatever the profile asks for.
    for (int i = 0; i < audios || (i < numAudios && length < capacity); ++i) {
        const int before = length;
        push("AUDIOPID", i, shown(i, report.getAudioPid(i)));
        push("AUDIOTYPE", i, shown(i, report.getAudioType(i)));
        push("AUDIORATE", i, shown(i, report.getAudioBitrate(i)));
        push("AUDIOSAMPLINGRATE", i, shown(i, report.getAudioSamplingRate(i)));
        push("AUDIOSURROUNDMODE", i, shown(i, report.getAudioSurroundMode(i)));
        if (i >= audios && length == before)
            return;
    }
}

void VerifierJob::pushProperty(const char* name, const char* value, char* out, int capacity, int& length) {
    if (name == nullptr || value == nullptr || length < 0)
        return;
    const std::size_t wanted =
        static_cast<std::size_t>(length) + std::strlen(name) + std::strlen(value) + 2; // "=" and the tab
    if (capacity <= 0 || wanted >= static_cast<std::size_t>(capacity))
        return;
    kestrel::formatText(buffer(out, capacity).subspan(static_cast<std::size_t>(length)), "%s=%s\t", name,
                        value);
    length = static_cast<int>(wanted);
}
