#include "verifier/VerifierXml.h"

#include "capture_profile/XmlFile.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <strings.h>

namespace {

constexpr int SD_LINES = 576;
constexpr int DOLBY_5P1_CHANNELS = 5;

// The value that an element of a report carries.
const char* valueOf(const TiXmlElement* element) {
    return element == nullptr ? nullptr : element->Attribute("value");
}

const char* childValue(const TiXmlHandle& parent, const char* name) {
    return valueOf(parent.FirstChildElement(name).ToElement());
}

// The decimal number at the beginning of a text, 0 when there is none.
int integerOf(const char* text) {
    if (text == nullptr)
        return 0;
    const long value = std::strtol(text, nullptr, 10);
    if (value > std::numeric_limits<int>::max())
        return std::numeric_limits<int>::max();
    return value < std::numeric_limits<int>::min() ? std::numeric_limits<int>::min()
                                                   : static_cast<int>(value);
}

const char* yesNo(bool yes) {
    return yes ? "TRUE" : "FALSE";
}

bool isTrue(const char* text) {
    return text != nullptr && strcasecmp(text, "true") == 0;
}

bool contains(const char* text, const char* part) {
    return text != nullptr && std::strstr(text, part) != nullptr;
}

const char* withInteger(const char* text, int* number) {
    if (number != nullptr)
        *number = integerOf(text);
    return text;
}

} // namespace

VerifierXml::VerifierXml(const char* reportPath) {
    init(reportPath);
}

VerifierXml::~VerifierXml() = default;

int VerifierXml::init(const char* reportPath) {
    m_document = std::make_unique<TiXmlDocument>();
    root = TiXmlHandle(nullptr);
    m_problem = kestrel::xmlFileProblem(reportPath == nullptr ? "" : reportPath, *m_document).value_or("");
    loaded = m_problem.empty() && m_document->RootElement() != nullptr;
    if (!loaded)
        return 1;
    root = TiXmlHandle(m_document->RootElement());
    return 0;
}

TiXmlHandle VerifierXml::programTable() const {
    return root.FirstChildElement("Media")
        .FirstChildElement("SystemInformation")
        .FirstChildElement("PMTTable");
}

TiXmlHandle VerifierXml::videoStream() const {
    return root.FirstChildElement("Media").FirstChildElement("VideoStream");
}

TiXmlHandle VerifierXml::audioStream(int i) const {
    return i < 0 ? TiXmlHandle(nullptr) : root.FirstChildElement("Media").ChildElement("AudioStream", i);
}

const char* VerifierXml::getPmtPid() const {
    return childValue(programTable(), "Pid");
}

const char* VerifierXml::getPcrPid() const {
    return childValue(programTable(), "PcrPid");
}

const char* VerifierXml::getVideoPid(int* pid) const {
    return withInteger(childValue(videoStream(), "Pid"), pid);
}

const char* VerifierXml::getVideoBitrate() const {
    return childValue(videoStream(), "ElementaryBitrate");
}

const char* VerifierXml::getGopLength() const {
    return childValue(videoStream(), "GopSize");
}

const char* VerifierXml::getGopStructure() const {
    return childValue(videoStream(), "GopStructure");
}

const char* VerifierXml::getVideoFrameRate() const {
    return childValue(videoStream(), "FrameRate");
}

const char* VerifierXml::getVideoAspectRatio() const {
    return childValue(videoStream(), "AspectRatio");
}

const char* VerifierXml::getVideoRes() const {
    return childValue(videoStream(), "VideoResolution");
}

const char* VerifierXml::getDuration() const {
    return childValue(root.FirstChildElement("MediaSummary"), "AssetDuration");
}

const char* VerifierXml::getTransportRate() const {
    return childValue(root.FirstChildElement("MediaSummary"), "MuxBitrate");
}

const char* VerifierXml::getAudioPid(int i, int* pid) const {
    return withInteger(childValue(audioStream(i), "Pid"), pid);
}

const char* VerifierXml::getAudioMode(int i) const {
    return childValue(audioStream(i), "AudioMode");
}

const char* VerifierXml::getAudioSurroundMode(int i) const {
    return getAudioMode(i);
}

const char* VerifierXml::getAudioSamplingRate(int i, int* rate) const {
    const char* const text = childValue(audioStream(i), "SamplingRate");
    return withInteger(text != nullptr ? text : childValue(audioStream(i), "SamplingFrequency"), rate);
}

const char* VerifierXml::getAudioBitrate(int i, double* bps) const {
    const char* const text = childValue(audioStream(i), "AudioBitrate");
    if (bps != nullptr)
        *bps = text == nullptr ? 0 : std::strtod(text, nullptr);
    return text;
}

TiXmlElement* VerifierXml::getStreamXmlElement(int pid) const {
    TiXmlElement* stream =
        programTable().FirstChildElement("Elements").FirstChildElement("Stream").ToElement();
    for (; stream != nullptr; stream = stream->NextSiblingElement("Stream")) {
        const char* const value = valueOf(stream->FirstChildElement("Pid"));
        if (value != nullptr && integerOf(value) == pid)
            return stream;
    }
    return nullptr;
}

const char* VerifierXml::streamTypeDesc(int pid) const {
    const TiXmlElement* const stream = getStreamXmlElement(pid);
    const TiXmlElement* const type = stream == nullptr ? nullptr : stream->FirstChildElement("StreamType");
    return type == nullptr ? nullptr : type->Attribute("Desc");
}

const char* VerifierXml::getVideoEncodingDesc() const {
    int pid = 0;
    getVideoPid(&pid);
    return streamTypeDesc(pid);
}

const char* VerifierXml::getAudioType(int i) const {
    int pid = 0;
    getAudioPid(i, &pid);
    return streamTypeDesc(pid);
}

int VerifierXml::getNumAudios() const {
    int count = 0;
    const TiXmlElement* audio = root.FirstChildElement("Media").FirstChildElement("AudioStream").ToElement();
    for (; audio != nullptr; audio = audio->NextSiblingElement("AudioStream"))
        ++count;
    return count;
}

int VerifierXml::getAudioBitrateKbps(int i) const {
    double bps = 0;
    if (getAudioBitrate(i, &bps) == nullptr)
        return -1;
    const double kbps = bps / 1000.0;
    // A text may name any number; only those that an int holds are a rate.
    return kbps > -1e9 && kbps < 1e9 ? static_cast<int>(kbps) : -1;
}

int VerifierXml::numAudioChannels(int i) const {
    return integerOf(childValue(audioStream(i), "NumberOfChannels"));
}

// 5.1 is reported as five channels; the low-frequency one is not counted.
bool VerifierXml::isDolby5p1(int i) const {
    return numAudioChannels(i) == DOLBY_5P1_CHANNELS;
}

bool VerifierXml::isAC3(int i) const {
    return contains(getAudioType(i), "AC3");
}

bool VerifierXml::isMpeg4() const {
    return contains(getVideoEncodingDesc(), "H.264");
}

bool VerifierXml::isMpeg2() const {
    return !isMpeg4();
}

int VerifierXml::horResolution() const {
    const char* const text = getVideoRes();
    return contains(text, "x") ? integerOf(text) : -1;
}

int VerifierXml::vertResolution() const {
    const char* const text = getVideoRes();
    return contains(text, "x") ? integerOf(std::strchr(text, 'x') + 1) : -1;
}

bool VerifierXml::isHd() const {
    return vertResolution() > SD_LINES;
}

bool VerifierXml::isQuadByteAligned() const {
    return isTrue(childValue(videoStream(), "QuadByteAligned"));
}

const char* VerifierXml::getIsMpeg2() const {
    return yesNo(isMpeg2());
}

// Material that is not H.264 is the material that needs re-encoding.
const char* VerifierXml::getNeedsReEncoding() const {
    return yesNo(isMpeg2());
}

const char* VerifierXml::getIsMpeg4() const {
    return yesNo(isMpeg4());
}

const char* VerifierXml::getIsHd() const {
    return yesNo(isHd());
}

const char* VerifierXml::getQuadByteAligned() const {
    return yesNo(isQuadByteAligned());
}

const char* VerifierXml::getVideoCbr() const {
    return yesNo(isTrue(childValue(videoStream(), "ConstantBitrate")));
}

const char* VerifierXml::getIsCC() const {
    return yesNo(isTrue(childValue(videoStream(), "ClosedCaptions")));
}

const char* VerifierXml::getDropFrame() const {
    return yesNo(isTrue(childValue(videoStream(), "DropFrame")));
}

// The first structure is the pattern; a second one says whether the encoder departs from it.
const char* VerifierXml::getVariableGops() const {
    const char* const value = valueOf(videoStream().ChildElement("GopStructure", 1).ToElement());
    return yesNo(value != nullptr && std::strcmp(value, "Adaptive Gop") == 0);
}

const char* VerifierXml::getVideoEncoding() const {
    return isMpeg2() ? "MPEG2" : "H264";
}
