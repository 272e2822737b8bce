// Profile files of a test: a directory of its own, files written into it, and XML read back with TinyXML.
#pragma once

#include "capture_profile/CSettings.h"
#include "foundation/ScratchDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <string>
#include <tinyxml.h>
#include <utility>
#include <vector>

class ProfileFiles : public testing::Test {
protected:
    std::string path(const std::string& name) const { return m_directory.path(name); }
    const std::string& directory() const { return m_directory.path(); }

    std::string write(const std::string& content, const std::string& name = "profile.xml") const {
        return m_directory.file(name, content);
    }

    // Loads a profile with the given elements under its root.
    bool load(CSettings& settings, const std::string& elements) const {
        return settings.LoadProfile(write("<CaptureSettings>" + elements + "</CaptureSettings>").c_str());
    }

    CSettings loaded(const std::string& elements) const {
        CSettings settings;
        EXPECT_TRUE(load(settings, elements)) << elements;
        return settings;
    }

    std::size_t filesInDirectory() const {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator(m_directory.path()), {}));
    }

private:
    ScratchDir m_directory;
};

using Attributes = std::vector<std::pair<std::string, std::string>>;

// The attributes of an element in the order of the document.
inline Attributes attributesOf(const TiXmlElement& element) {
    Attributes result;
    for (const TiXmlAttribute* a = element.FirstAttribute(); a != nullptr; a = a->Next())
        result.emplace_back(a->Name(), a->Value());
    return result;
}

// The attributes of the element of that name under the root of a saved profile.
inline Attributes savedAttributes(const std::string& file, const char* element) {
    TiXmlDocument document;
    if (!document.LoadFile(file.c_str()) || document.RootElement() == nullptr) {
        ADD_FAILURE() << "cannot read " << file << ": " << document.ErrorDesc();
        return {};
    }
    const TiXmlElement* found = document.RootElement()->FirstChildElement(element);
    return found != nullptr ? attributesOf(*found) : Attributes{};
}

// "<name key="value" .../>"
inline std::string element(const std::string& name, const Attributes& attributes) {
    std::string text = "<" + name;
    for (const auto& [key, value] : attributes) {
        text += ' ';
        text += key;
        text += "=\"";
        text += value;
        text += '"';
    }
    return text + "/>";
}

// The members that a profile carries, in the order of its keys, texts in brackets.
inline std::string describe(const CSettings::EncoderReception& e) {
    std::ostringstream out;
    out << e.ipAddress << ' ' << e.port << ' ' << e.snmpIpAddress << ' ' << e.snmpPort << ' '
        << e.gopFrameCount << ' ' << e.motorolaQuadByteAlignment << ' ' << e.frameOffset << ' '
        << e.frameOffsetNoVitc << ' ' << e.vtrEncInitDelay << ' ' << e.vtrEncFrameDeltaSeconds << ' '
        << e.vtrEncSampleNumber << ' ' << e.vtrEncSamplePeriod << ' ' << e.encoderType << ' ' << e.rawFiles
        << ' ' << e.convertMpeg2Audio << " [" << e.filePrefix << "] [" << e.mainCaptureDirectory << "] ["
        << e.scheduleCaptureDirectory << "] [" << e.batchCaptureDirectory << "] ["
        << e.rollingCaptureDirectory << "] [" << e.mezzanineCaptureDirectory << "] "
        << e.lockMainCaptureDirectory << ' ' << e.lockScheduleCaptureDirectory << ' '
        << e.lockBatchCaptureDirectory << ' ' << e.lockRollingCaptureDirectory << ' '
        << e.lockMezzanineCaptureDirectory << " [" << e.profile << "]";
    return out.str();
}

inline std::string describe(const CSettings::DecoderOptions& d) {
    std::ostringstream out;
    out << d.ipAddress << ' ' << d.port << ' ' << d.startAppend << ' ' << d.endAppend << ' '
        << d.interfaceAddress << ' ' << d.option << ' ' << d.saveLogFile << ' ' << d.forceMonitor << ' '
        << d.editclTimeoutSec << ' ' << d.controlAddress << ' ' << d.output0 << ' ' << d.output1 << ' '
        << d.output2;
    return out.str();
}

inline std::string describe(const CSettings::MpegEngine& m) {
    std::ostringstream out;
    out << m.mpeg2UseBeginningSplicePoint << ' ' << m.mpeg2UseEndSplicePoint << ' '
        << m.mpeg4UseBeginningSplicePoint << ' ' << m.mpeg4UseEndSplicePoint;
    return out.str();
}

inline std::string describe(const CSettings::EncoderInterface& i) {
    std::ostringstream out;
    out << i.splicepointLeadTimeMs << ' ' << i.maxFramesOff << ' ' << i.timedAndManualEncFrameDeltaSeconds
        << ' ' << i.timedAndManualEncSampleNumber << ' ' << i.timedAndManualEncSamplePeriod << ' '
        << i.timedAndManualEncInitDelay << ' ' << i.encoderLeadTimeSecs << ' ' << i.encoder614xLeadTimeSecs;
    return out.str();
}

inline std::string describe(const CSettings::VtrOptions& v) {
    std::ostringstream out;
    out << v.prerollTimeSecs << ' ' << v.findStartTimecodeRetries << ' ' << v.nonVitcPrerollMaxFrameDiff
        << ' ' << v.vitcSupport << " [" << v.port << "] " << v.useInternalCue;
    return out.str();
}

inline std::string describe(const CSettings::CmdParams& c) {
    std::ostringstream out;
    out << '[' << c.outputFile << "] " << c.serviceMgrInvoked << " [" << c.blackFileSuffix << "] "
        << c.jobType << " [" << c.markInTime << "] [" << c.markOutTime << "] [" << c.duration << "] ["
        << c.sourceFile << "] " << c.rollingDurationMin << ' ' << c.rollingStartNow;
    return out.str();
}

// The whole record, line by line.
inline std::string describe(const CSettings& s) {
    std::ostringstream out;
    out << s.numEncoders << '\n'
        << describe(s.encoders[0]) << '\n'
        << describe(s.encoders[1]) << '\n'
        << describe(s.decoder) << '\n'
        << describe(s.mpegEngine) << '\n'
        << describe(s.encoderInterface) << '\n'
        << s.audioEngine.ac3PassThrough << '\n'
        << describe(s.vtr) << '\n'
        << s.mezzanine.splicePointRetries << '\n'
        << describe(s.cmd) << '\n';
    return out.str();
}

// A value other than its default for every key of an encoder reception.
inline Attributes fullEncoder() {
    return {{"IP_ADDRESS", "10.1.2.3"},
            {"PORT", "1001"},
            {"SNMP_IP_ADDRESS", "10.1.2.4"},
            {"SNMP_PORT", "161"},
            {"GOP_FRAME_COUNT", "12"},
            {"MOTOROLA_QUAD_BYTE_ALIGNMENT", "TRUE"},
            {"FRAME_OFFSET", "-3"},
            {"FRAME_OFFSET_NO_VITC", "-4"},
            {"VTR_ENC_INIT_DELAY", "7"},
            {"VTR_ENC_FRAME_DELTA_SECONDS_V_3_1", "31"},
            {"VTR_ENC_SAMPLE_NUMBER", "9"},
            {"VTR_ENC_SAMPLE_PERIOD", "101"},
            {"ENCODER_TYPE", "HARMONIC"},
            {"RAW_FILES", "TRUE"},
            {"CONVERT_MPEG2_AUDIO", "TRUE"},
            {"FILE_PREFIX", "prefix"},
            {"MAIN_CAPTURE_DIRECTORY", "/main"},
            {"SCHEDULE_CAPTURE_DIRECTORY", "/schedule"},
            {"BATCH_CAPTURE_DIRECTORY", "/batch"},
            {"ROLLING_CAPTURE_DIRECTORY", "/rolling"},
            {"MEZZANINE_CAPTURE_DIRECTORY", "/mezzanine"},
            {"LOCK_MAIN_CAPTURE_DIRECTORY", "TRUE"},
            {"LOCK_SCHEDULE_CAPTURE_DIRECTORY", "TRUE"},
            {"LOCK_BATCH_CAPTURE_DIRECTORY", "TRUE"},
            {"LOCK_ROLLING_CAPTURE_DIRECTORY", "TRUE"},
            {"LOCK_MEZZANINE_CAPTURE_DIRECTORY", "TRUE"},
            {"PROFILE", "main profile"}};
}

// EDITCL_TIMEOUT_SEC and MAX_FRAMES_OFF are those that a load makes of the rest.
inline Attributes fullDecoder() {
    return {{"DECODER_IP_ADDRESS", "239.1.2.3"},
            {"DECODER_PORT", "5000"},
            {"DECODER_START_APPEND_v3.1.0.4", "21"},
            {"DECODER_END_APPEND_v3.1.0.4", "22"},
            {"DECODER_INTERFACE", "192.168.0.1"},
            {"DECODEROPTION", "3"},
            {"DEV_SAVE_LOG_FILE", "TRUE"},
            {"FORCE_DECODER_MONITOR", "FALSE"},
            {"EDITCL_TIMEOUT_SEC", "22"},
            {"DECODER_CONTROL_ADDRESS", "192.168.0.2"},
            {"DECODER_OUTPUT_0", "239.0.0.1"},
            {"DECODER_OUTPUT_1", "239.0.0.2"},
            {"DECODER_OUTPUT_2", "255.255.255.255"}};
}

inline Attributes fullMpegEngine() {
    return {{"MPEG2_USE_BEGINNING_SPLICE_POINT", "FALSE"},
            {"MPEG2_USE_END_SPLICE_POINT", "TRUE"},
            {"MPEG4_USE_BEGINNING_SPLICE_POINT", "FALSE"},
            {"MPEG4_USE_END_SPLICE_POINT", "TRUE"}};
}

inline Attributes fullEncoderInterface() {
    return {{"SPLICEPOINT_LEAD_TIME_MS", "9000"},
            {"MAX_FRAMES_OFF", "9000"},
            {"TIMED_AND_MANUAL_ENC_FRAME_DELTA_SECONDS", "23"},
            {"TIMED_AND_MANUAL_ENC_SAMPLE_NUMBER", "24"},
            {"TIMED_AND_MANUAL_ENC_SAMPLE_PERIOD", "25"},
            {"TIMED_AND_MANUAL_ENC_INIT_DELAY", "26"},
            {"ENCODER_LEAD_TIME_SECS", "27"},
            {"ENCODER_614x_LEAD_TIME_SECS", "28"}};
}

inline Attributes fullVtrOptions() {
    return {{"PREROLL_TIME_SECS", "12"},
            {"FIND_START_TIMECODE_RETRIES", "6"},
            {"NON_VITC_PREROLL_MAX_FRAME_DIFF", "2"},
            {"VITC_SUPPORT", "FALSE"},
            {"PORT", "/dev/ttyS1"},
            {"USE_INTERNAL_CUE", "TRUE"}};
}

// Every element of a profile, with a command of the given attributes.
inline std::string fullProfile(const Attributes& command) {
    return element("ENCODER_RECEPTION_0", fullEncoder()) + element("ENCODER_RECEPTION_1", fullEncoder()) +
           element("DECODER_OPTIONS", fullDecoder()) + element("MPEG_ENGINE", fullMpegEngine()) +
           element("ENCODER_INTERFACE", fullEncoderInterface()) +
           element("AUDIO_ENGINE", {{"AC3_PASS_THROUGH", "FALSE"}}) +
           element("VTR_OPTIONS", fullVtrOptions()) +
           element("MEZZANINE_OPTIONS", {{"SPLICE_POINT_RETRIES", "4"}}) + element("CMD_PARAMS", command);
}
