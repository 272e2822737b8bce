// The delivery specification: nineteen rules, each of which can be switched off.
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/StringUtil.h"
#include "verifier/VerifierJob.h"
#include "verifier/VerifierXml.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>

namespace {

// By index in VerifierJob::ValidationErrorEnabledStr.
enum Rule {
    FILE_IS_MPEG2 = 0,
    PMT_PID = 1,
    PCR_PID = 2,
    VIDEO_PID = 3,
    GOP_LENGTH_24 = 4,
    GOP_LENGTH_NOT_24 = 5,
    GOP_STRUCTURE = 6,
    SD_RESOLUTION = 7,
    SD_QUAD_BYTE_ALIGNED = 8,
    SD_TRANSPORT_RATE = 9,
    SD_VIDEO_RATE = 10,
    HD_TRANSPORT_RATE = 11,
    HD_VIDEO_RATE = 12,
    FIRST_AUDIO_PID = 13,
    AUDIO_PIDS_IN_ORDER = 14,
    AUDIO_RATE = 15,
    DOLBY_RATE = 16,
    AC3_SAMPLING_RATE = 17,
    AUDIO_IS_AC3 = 18,
};
static_assert(AUDIO_IS_AC3 + 1 == VerifierJob::RULE_COUNT);

// What the specification asks for.
constexpr int SPECIFIED_PMT_PID = 480;
constexpr int SPECIFIED_VIDEO_PID = 481; // which also carries the PCR
constexpr int SPECIFIED_AUDIO_PID = 482; // of the first audio stream
constexpr int FILM_RATE = 24;
constexpr int FILM_GOP_LENGTH = 12;
constexpr int VIDEO_GOP_LENGTH = 15;
constexpr int SD_LINES = 480;
constexpr int SD_WIDTHS[] = {528, 352}; // 3/4 D1 and 1/2 D1
constexpr double HD_TRANSPORT_BPS = 19'000'000;
constexpr double HD_VIDEO_BPS = 18'100'000;
constexpr double SD_TRANSPORT_BPS = 3'750'000;
constexpr double SD_VIDEO_BPS = 3'180'000;
constexpr int STEREO_KBPS = 192;
constexpr int SURROUND_KBPS = 384;
constexpr int SAMPLING_HZ = 48'000;

// The decimal number at the beginning of a text, held at the limits of long; 0 when there is none. Not cut to
// 32 bits: 4294967776 is no 480.
long integerOf(const char* text) {
    return text == nullptr ? 0 : std::strtol(text, nullptr, 10);
}

double numberOf(const char* text) {
    return text == nullptr ? 0 : std::strtod(text, nullptr);
}

// One pass over the rules, in their order, collecting messages.
class Check {
public:
    Check(const VerifierJob& job, const VerifierXml& report, std::span<char> out)
        : m_job(job), m_report(report), m_file(job.fileName), m_out(out) {}

    void run() {
        if (enabled(FILE_IS_MPEG2) && !m_report.isMpeg2())
            say("The file " + m_file + " is not MPEG2.\t");
        checkPid(PMT_PID, "PMT PID", m_report.getPmtPid(), SPECIFIED_PMT_PID, "480 decimal/0x1E0 Hex");
        checkPid(PCR_PID, "PCR PID", m_report.getPcrPid(), SPECIFIED_VIDEO_PID, "481 decimal/0x1E1 Hex");
        checkPid(VIDEO_PID, "Video PID", m_report.getVideoPid(), SPECIFIED_VIDEO_PID,
                 "481 decimal/0x1E1 Hex");
        checkGop();
        if (m_report.isHd())
            checkHd();
        else
            checkSd();
        for (int i = 0; i < m_report.getNumAudios(); ++i)
            checkAudio(i);
    }

private:
    [[nodiscard]] bool enabled(Rule rule) const { return m_job.validationErrorEnabled[rule]; }

    void say(const std::string& message) { kestrel::appendText(m_out, message); }

    // A PID that the report lacks is quoted as an empty text.
    void checkPid(Rule rule, const char* what, const char* pid, int wanted, const char* wantedText) {
        if (enabled(rule) && (pid == nullptr || integerOf(pid) != wanted))
            say(std::string("The ") + what + " " + cStringUtil::cValue(pid) + " must be " + wantedText +
                ".\t");
    }

    void checkGop() {
        const long length = integerOf(m_report.getGopLength());
        if (integerOf(m_report.getVideoFrameRate()) > FILM_RATE) {
            if (enabled(GOP_LENGTH_NOT_24) && length != VIDEO_GOP_LENGTH)
                say("The GOP length must be 15.\t");
        } else if (enabled(GOP_LENGTH_24) && length != FILM_GOP_LENGTH) {
            say("The GOP length must be 12 for 24 Frames Per Second material.\t");
        }
        if (enabled(GOP_STRUCTURE) &&
            std::strcmp(cStringUtil::cValue(m_report.getGopStructure()), "IBBP") != 0)
            say("The GOP structure must be IBBP.\t");
    }

    void checkHd() {
        if (enabled(HD_TRANSPORT_RATE) && numberOf(m_report.getTransportRate()) > HD_TRANSPORT_BPS)
            say("The transport rate of the HD file " + m_file + " is greater than 19.0 Mbs.\t");
        if (enabled(HD_VIDEO_RATE) && numberOf(m_report.getVideoBitrate()) > HD_VIDEO_BPS)
            say("The video bit rate in HD file " + m_file + " cannot be greater than 18.1 Mbs.\t");
    }

    void checkSd() {
        const int width = m_report.horResolution();
        if (enabled(SD_RESOLUTION) &&
            (m_report.vertResolution() != SD_LINES || (width != SD_WIDTHS[0] && width != SD_WIDTHS[1])))
            say("The file " + m_file + " is not 1/2 D1 or 3/4 D1.\t");
        if (enabled(SD_QUAD_BYTE_ALIGNED) && m_report.isMpeg2() && !m_report.isQuadByteAligned())
            say("The file " + m_file + " does not satisfy the Quad Byte Alignment requirement.\t");
        if (enabled(SD_TRANSPORT_RATE) && numberOf(m_report.getTransportRate()) > SD_TRANSPORT_BPS)
            say("The transport rate of the SD file " + m_file + " is greater than 3.75 Mbs.\t");
        if (enabled(SD_VIDEO_RATE) && numberOf(m_report.getVideoBitrate()) > SD_VIDEO_BPS)
            say("The video bit rate in SD file " + m_file + " cannot be greater than 3.18 Mbs.\t");
    }

    void checkAudio(int i) {
        int pid = 0;
        const std::string text = cStringUtil::cValue(m_report.getAudioPid(i, &pid));
        if (i == 0) {
            if (enabled(FIRST_AUDIO_PID) && pid != SPECIFIED_AUDIO_PID)
                say("The first audio PID in the file " + m_file +
                    " must start at 482 Decimal or 0x1E2 Hex.\t");
        } else if (enabled(AUDIO_PIDS_IN_ORDER) && std::int64_t{m_lastPid} + 1 != pid) {
            // The only message without a tab behind it; clients have learnt to live with that.
            say("The audio PIDs in the file " + m_file +
                " must start at 482 and increment by 1.  The last PID was " + m_lastPidText +
                " and this PID is " + text);
        }
        m_lastPid = pid;
        m_lastPidText = text;
        checkAudioCoding(i, text);
    }

    void checkAudioCoding(int i, const std::string& pid) {
        const std::string where = " in the file " + m_file + " for PID " + pid;
        const int kbps = m_report.getAudioBitrateKbps(i);
        if (enabled(AUDIO_RATE) && kbps != STEREO_KBPS && kbps != SURROUND_KBPS)
            say("The audio rate" + where + " must be either 192 or 384 Kbs.\t");
        if (!m_report.isAC3(i)) {
            if (enabled(AUDIO_IS_AC3))
                say("The audio" + where + " is not AC3.\t");
            return;
        }
        if (enabled(DOLBY_RATE) && m_report.isDolby5p1(i) && kbps != SURROUND_KBPS)
            say("The AC3 audio rate" + where + " for Dolby 5.1 must be 384 Kbs.\t");
        int rate = 0;
        m_report.getAudioSamplingRate(i, &rate);
        if (enabled(AC3_SAMPLING_RATE) && rate != SAMPLING_HZ)
            say("The audio sampling rate" + where + " must be 48kHz.\t");
    }

    const VerifierJob& m_job;
    const VerifierXml& m_report;
    const std::string m_file;
    const std::span<char> m_out;
    int m_lastPid = 0;
    std::string m_lastPidText;
};

} // namespace

int VerifierJob::getValidationErrors(char* out, int capacity) {
    const VerifierXml report(reportFilename);
    return validationErrors(report, out, capacity);
}

int VerifierJob::validationErrors(const VerifierXml& report, char* out, int capacity) {
    if (!report.loaded)
        return static_cast<int>(kestrel::error::mpegPropertyFailed);
    const std::span<char> messages(out,
                                   out != nullptr && capacity > 0 ? static_cast<std::size_t>(capacity) : 0);
    Check(*this, report, messages).run();
    return 0;
}
