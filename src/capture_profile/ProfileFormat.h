// The vocabulary of a capture profile: one table per element, in the order of the document. Reading, writing
// and the order of attributes all follow from these tables.
#pragma once

#include "capture_profile/CSettings.h"

#include <array>
#include <cstdint>
#include <variant>

namespace kestrel::profile {

// How an integer attribute is read.
enum class IntegerRule {
    KeepWhenAbsent,
    // Absent: the integer most recently read in this load stands for it, so that profiles which give one port
    // for both, or none after the first, keep the meaning they have always had.
    PreviousWhenAbsent,
    // Never parsed: always the integer most recently read. Kept on purpose: captures run with the values that
    // come out of this, and an existing profile must not change what it does.
    AlwaysPrevious,
    // Like KeepWhenAbsent, but not counted as most recently read.
    Uncounted,
    // Absent: fallback.
    Fallback,
    // Absent or below least: fallback.
    AtLeast,
    // Absent: keeps its value. Below least: fallback.
    AtLeastWhenPresent
};

// How the words of a yes/no attribute are read, in any case.
enum class BoolRule {
    TrueOnly,    // "TRUE" is true, any other text false
    UnlessFalse, // "FALSE" is false, any other text true
    OnlyToFalse  // "FALSE" is false, any other text changes nothing
};

template <typename Section>
struct IntegerField {
    int Section::*member;
    IntegerRule rule;
    int least;
    int fallback;
};

template <typename Section>
struct BoolField {
    bool Section::*member;
    BoolRule rule;
};

template <typename Section>
struct AddressField {
    std::uint32_t Section::*member;
};

template <typename Section>
struct TextField {
    char (Section::*member)[260];
    const char* fallback; // when absent; null keeps the field
};

template <typename Section>
struct TimecodeField {
    char (Section::*member)[12];
};

template <typename Section>
struct EncoderTypeField {
    CSettings::EncoderType Section::*member;
};

// "SERVICE_MGR_INVOKED" or "CMDLINE_STANDALONE". Letter for letter, unlike the yes/no words: a run is the
// service's unless a profile says exactly otherwise.
template <typename Section>
struct RunTypeField {
    bool Section::*member;
};

template <typename Section>
struct Attribute {
    const char* key;
    std::variant<IntegerField<Section>, BoolField<Section>, AddressField<Section>, TextField<Section>,
                 TimecodeField<Section>, EncoderTypeField<Section>, RunTypeField<Section>>
        field;
};

template <typename Section>
constexpr Attribute<Section> integer(const char* key, int Section::*member,
                                     IntegerRule rule = IntegerRule::KeepWhenAbsent) {
    return {key, IntegerField<Section>{member, rule, 0, 0}};
}

template <typename Section>
constexpr Attribute<Section> integerOr(const char* key, int Section::*member, int fallback) {
    return {key, IntegerField<Section>{member, IntegerRule::Fallback, 0, fallback}};
}

template <typename Section>
constexpr Attribute<Section> integerAtLeast(const char* key, int Section::*member, int least, int fallback,
                                            IntegerRule rule = IntegerRule::AtLeast) {
    return {key, IntegerField<Section>{member, rule, least, fallback}};
}

template <typename Section>
constexpr Attribute<Section> boolean(const char* key, bool Section::*member,
                                     BoolRule rule = BoolRule::TrueOnly) {
    return {key, BoolField<Section>{member, rule}};
}

template <typename Section>
constexpr Attribute<Section> address(const char* key, std::uint32_t Section::*member) {
    return {key, AddressField<Section>{member}};
}

template <typename Section>
constexpr Attribute<Section> text(const char* key, char (Section::*member)[260],
                                  const char* fallback = nullptr) {
    return {key, TextField<Section>{member, fallback}};
}

template <typename Section>
constexpr Attribute<Section> timecode(const char* key, char (Section::*member)[12]) {
    return {key, TimecodeField<Section>{member}};
}

using Encoder = CSettings::EncoderReception;
inline constexpr const char* encoderElement = "ENCODER_RECEPTION_%d";
inline constexpr std::array encoderAttributes{
    address("IP_ADDRESS", &Encoder::ipAddress),
    integer("PORT", &Encoder::port, IntegerRule::PreviousWhenAbsent),
    address("SNMP_IP_ADDRESS", &Encoder::snmpIpAddress),
    integer("SNMP_PORT", &Encoder::snmpPort, IntegerRule::PreviousWhenAbsent),
    integer("GOP_FRAME_COUNT", &Encoder::gopFrameCount),
    boolean("MOTOROLA_QUAD_BYTE_ALIGNMENT", &Encoder::motorolaQuadByteAlignment),
    integer("FRAME_OFFSET", &Encoder::frameOffset),
    integer("FRAME_OFFSET_NO_VITC", &Encoder::frameOffsetNoVitc),
    integer("VTR_ENC_INIT_DELAY", &Encoder::vtrEncInitDelay),
    integer("VTR_ENC_FRAME_DELTA_SECONDS_V_3_1", &Encoder::vtrEncFrameDeltaSeconds),
    integer("VTR_ENC_SAMPLE_NUMBER", &Encoder::vtrEncSampleNumber),
    integer("VTR_ENC_SAMPLE_PERIOD", &Encoder::vtrEncSamplePeriod),
    Attribute<Encoder>{"ENCODER_TYPE", EncoderTypeField<Encoder>{&Encoder::encoderType}},
    boolean("RAW_FILES", &Encoder::rawFiles),
    boolean("CONVERT_MPEG2_AUDIO", &Encoder::convertMpeg2Audio),
    text("FILE_PREFIX", &Encoder::filePrefix),
    text("MAIN_CAPTURE_DIRECTORY", &Encoder::mainCaptureDirectory),
    text("SCHEDULE_CAPTURE_DIRECTORY", &Encoder::scheduleCaptureDirectory),
    text("BATCH_CAPTURE_DIRECTORY", &Encoder::batchCaptureDirectory),
    text("ROLLING_CAPTURE_DIRECTORY", &Encoder::rollingCaptureDirectory),
    text("MEZZANINE_CAPTURE_DIRECTORY", &Encoder::mezzanineCaptureDirectory),
    boolean("LOCK_MAIN_CAPTURE_DIRECTORY", &Encoder::lockMainCaptureDirectory),
    boolean("LOCK_SCHEDULE_CAPTURE_DIRECTORY", &Encoder::lockScheduleCaptureDirectory),
    boolean("LOCK_BATCH_CAPTURE_DIRECTORY", &Encoder::lockBatchCaptureDirectory),
    boolean("LOCK_ROLLING_CAPTURE_DIRECTORY", &Encoder::lockRollingCaptureDirectory),
    boolean("LOCK_MEZZANINE_CAPTURE_DIRECTORY", &Encoder::lockMezzanineCaptureDirectory),
    text("PROFILE", &Encoder::profile),
};

using Decoder = CSettings::DecoderOptions;
inline constexpr const char* decoderElement = "DECODER_OPTIONS";
inline constexpr std::array decoderAttributes{
    address("DECODER_IP_ADDRESS", &Decoder::ipAddress),
    integer("DECODER_PORT", &Decoder::port, IntegerRule::PreviousWhenAbsent),
    integerOr("DECODER_START_APPEND_v3.1.0.4", &Decoder::startAppend, 20),
    integerOr("DECODER_END_APPEND_v3.1.0.4", &Decoder::endAppend, 20),
    address("DECODER_INTERFACE", &Decoder::interfaceAddress),
    // Uncounted, so that the timeout below is the last of the port and the two appends.
    integer("DECODEROPTION", &Decoder::option, IntegerRule::Uncounted),
    boolean("DEV_SAVE_LOG_FILE", &Decoder::saveLogFile),
    boolean("FORCE_DECODER_MONITOR", &Decoder::forceMonitor, BoolRule::OnlyToFalse),
    integer("EDITCL_TIMEOUT_SEC", &Decoder::editclTimeoutSec, IntegerRule::AlwaysPrevious),
    address("DECODER_CONTROL_ADDRESS", &Decoder::controlAddress),
    address("DECODER_OUTPUT_0", &Decoder::output0),
    address("DECODER_OUTPUT_1", &Decoder::output1),
    address("DECODER_OUTPUT_2", &Decoder::output2),
};

// MPEG-4 begins at a splice point unless told not to; the other three only when told to.
using Mpeg = CSettings::MpegEngine;
inline constexpr const char* mpegElement = "MPEG_ENGINE";
inline constexpr std::array mpegAttributes{
    boolean("MPEG2_USE_BEGINNING_SPLICE_POINT", &Mpeg::mpeg2UseBeginningSplicePoint),
    boolean("MPEG2_USE_END_SPLICE_POINT", &Mpeg::mpeg2UseEndSplicePoint),
    boolean("MPEG4_USE_BEGINNING_SPLICE_POINT", &Mpeg::mpeg4UseBeginningSplicePoint, BoolRule::UnlessFalse),
    boolean("MPEG4_USE_END_SPLICE_POINT", &Mpeg::mpeg4UseEndSplicePoint),
};

using Interface = CSettings::EncoderInterface;
inline constexpr const char* interfaceElement = "ENCODER_INTERFACE";
inline constexpr std::array interfaceAttributes{
    integerOr("SPLICEPOINT_LEAD_TIME_MS", &Interface::splicepointLeadTimeMs, 10000),
    integer("MAX_FRAMES_OFF", &Interface::maxFramesOff, IntegerRule::AlwaysPrevious),
    integer("TIMED_AND_MANUAL_ENC_FRAME_DELTA_SECONDS", &Interface::timedAndManualEncFrameDeltaSeconds),
    integer("TIMED_AND_MANUAL_ENC_SAMPLE_NUMBER", &Interface::timedAndManualEncSampleNumber),
    integer("TIMED_AND_MANUAL_ENC_SAMPLE_PERIOD", &Interface::timedAndManualEncSamplePeriod),
    integer("TIMED_AND_MANUAL_ENC_INIT_DELAY", &Interface::timedAndManualEncInitDelay),
    integerAtLeast("ENCODER_LEAD_TIME_SECS", &Interface::encoderLeadTimeSecs, 0, 20,
                   IntegerRule::AtLeastWhenPresent),
    integerAtLeast("ENCODER_614x_LEAD_TIME_SECS", &Interface::encoder614xLeadTimeSecs, 0, 52,
                   IntegerRule::AtLeastWhenPresent),
};

using Audio = CSettings::AudioEngine;
inline constexpr const char* audioElement = "AUDIO_ENGINE";
inline constexpr std::array audioAttributes{
    boolean("AC3_PASS_THROUGH", &Audio::ac3PassThrough, BoolRule::UnlessFalse),
};

using Vtr = CSettings::VtrOptions;
inline constexpr const char* vtrElement = "VTR_OPTIONS";
inline constexpr std::array vtrAttributes{
    integerAtLeast("PREROLL_TIME_SECS", &Vtr::prerollTimeSecs, 8, 8),
    integerAtLeast("FIND_START_TIMECODE_RETRIES", &Vtr::findStartTimecodeRetries, 1, 5),
    integerAtLeast("NON_VITC_PREROLL_MAX_FRAME_DIFF", &Vtr::nonVitcPrerollMaxFrameDiff, 0, 1),
    boolean("VITC_SUPPORT", &Vtr::vitcSupport, BoolRule::UnlessFalse),
    text("PORT", &Vtr::port, "COM1"),
    boolean("USE_INTERNAL_CUE", &Vtr::useInternalCue),
};

using Mezzanine = CSettings::MezzanineOptions;
inline constexpr const char* mezzanineElement = "MEZZANINE_OPTIONS";
inline constexpr std::array mezzanineAttributes{
    integerAtLeast("SPLICE_POINT_RETRIES", &Mezzanine::splicePointRetries, 0, 3),
};

using Cmd = CSettings::CmdParams;
inline constexpr const char* cmdElement = "CMD_PARAMS";
inline constexpr std::array cmdAttributes{
    text("OUTPUT_FILE", &Cmd::outputFile),
    Attribute<Cmd>{"RUN_TYPE", RunTypeField<Cmd>{&Cmd::serviceMgrInvoked}},
    text("BLACK_FILE_SUFFIX", &Cmd::blackFileSuffix),
};

// What follows "JOB_TYPE" for each job type that has a name.
inline constexpr const char* jobTypeKey = "JOB_TYPE";
struct NamedJobType {
    CSettings::JobType type;
    const char* name;
    bool marks, duration, sourceFile, rolling;
};
inline constexpr std::array<NamedJobType, 7> jobTypes{{
    {CSettings::JOB_VTR, "VTR", true, false, false, false},
    {CSettings::JOB_MANUAL, "MANUAL", false, false, false, false},
    {CSettings::JOB_TIMED, "TIMED", false, true, false, false},
    {CSettings::JOB_TIMED_REENCODE, "TIMED_REENCODE", false, false, true, false},
    {CSettings::JOB_MEZZANINE, "MEZZANINE", true, false, true, false},
    {CSettings::JOB_ROLLING, "ROLLING", false, false, false, true},
    {CSettings::JOB_MPEG_NORMALIZE, "MPEG_NORMALIZE", false, false, true, false},
}};
static_assert(jobTypes.size() == CSettings::JOB_NONE - 1, "every type but the scheduled one has a name");

struct JobAttribute {
    Attribute<Cmd> attribute;
    bool NamedJobType::*group;
};
inline constexpr std::array<JobAttribute, 6> jobAttributes{{
    {timecode("MARK_IN_TIME", &Cmd::markInTime), &NamedJobType::marks},
    {timecode("MARK_OUT_TIME", &Cmd::markOutTime), &NamedJobType::marks},
    {text("DURATION", &Cmd::duration), &NamedJobType::duration},
    {text("SOURCE_FILE", &Cmd::sourceFile), &NamedJobType::sourceFile},
    {integerOr("ROLLING_DURATION_MIN", &Cmd::rollingDurationMin, -1), &NamedJobType::rolling},
    {boolean("ROLLING_START_NOW", &Cmd::rollingStartNow), &NamedJobType::rolling},
}};

// The words of the profile.
inline constexpr const char* trueWord = "TRUE";
inline constexpr const char* falseWord = "FALSE";
inline constexpr const char* harmonicWord = "HARMONIC";
inline constexpr const char* ormondWord = "ORMOND";
inline constexpr const char* serviceInvokedWord = "SERVICE_MGR_INVOKED";
inline constexpr const char* standaloneWord = "CMDLINE_STANDALONE";

} // namespace kestrel::profile
