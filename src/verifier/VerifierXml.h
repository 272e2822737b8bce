// The verifier's XML report, read and asked.
#pragma once

#include <memory>
#include <string>
#include <tinyxml.h>

// A report about one transport-stream file. Texts are the report's own and live as long as the reader; what
// the report lacks is null, 0, -1 or "FALSE", never an error.
class VerifierXml {
public:
    explicit VerifierXml(const char* reportPath);
    ~VerifierXml();
    VerifierXml(const VerifierXml&) = delete;
    VerifierXml& operator=(const VerifierXml&) = delete;

    // Reads the report: 0, or 1 when it cannot be read or has no root element.
    int init(const char* reportPath);
    // Why it cannot be read, with the line where it is no XML; empty where it can.
    [[nodiscard]] const std::string& problem() const noexcept { return m_problem; }

    // Whether the report was read.
    bool loaded = false;
    // The first element of the document, whatever its name.
    TiXmlHandle root{nullptr};

    // Texts of the report, null when absent. PIDs are decimal; bit rates are in bits per second. The optional
    // result takes the number in the text, 0 when absent.
    const char* getPmtPid() const;
    const char* getPcrPid() const;
    const char* getVideoPid(int* pid = nullptr) const;
    const char* getVideoBitrate() const;
    const char* getGopLength() const;
    const char* getGopStructure() const;
    const char* getVideoFrameRate() const;
    const char* getVideoAspectRatio() const;
    const char* getVideoRes() const; // width, "x", height
    const char* getDuration() const;
    const char* getTransportRate() const;

    // The same of audio stream i, from 0.
    const char* getAudioPid(int i, int* pid = nullptr) const;
    const char* getAudioMode(int i) const;
    const char* getAudioSurroundMode(int i) const;
    const char* getAudioSamplingRate(int i, int* rate = nullptr) const; // Hz
    const char* getAudioBitrate(int i, double* bps = nullptr) const;

    // The program's entry of that PID, null when there is none.
    TiXmlElement* getStreamXmlElement(int pid) const;
    // What the program's entry says of the stream type, null when there is no entry.
    const char* getVideoEncodingDesc() const;
    const char* getAudioType(int i) const;

    int getNumAudios() const;
    // Whole kilobits per second, cut; -1 when absent.
    int getAudioBitrateKbps(int i) const;
    int numAudioChannels(int i) const;
    bool isDolby5p1(int i) const;
    bool isAC3(int i) const;
    // Video that is not described as H.264 counts as MPEG-2.
    bool isMpeg4() const;
    bool isMpeg2() const;
    // Pixels; -1 when the report has no resolution.
    int horResolution() const;
    int vertResolution() const;
    // Taller than 576 lines.
    bool isHd() const;
    bool isQuadByteAligned() const;

    // "TRUE" or "FALSE".
    const char* getIsMpeg2() const;
    const char* getNeedsReEncoding() const;
    const char* getIsMpeg4() const;
    const char* getIsHd() const;
    const char* getQuadByteAligned() const;
    const char* getVideoCbr() const;
    const char* getIsCC() const;
    const char* getDropFrame() const;
    const char* getVariableGops() const;
    // "MPEG2" or "H264".
    const char* getVideoEncoding() const;

private:
    TiXmlHandle programTable() const;
    TiXmlHandle videoStream() const;
    TiXmlHandle audioStream(int i) const;
    const char* streamTypeDesc(int pid) const;

    std::unique_ptr<TiXmlDocument> m_document;
    std::string m_problem;
};
