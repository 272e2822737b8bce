// Everything a capture needs to know about the equipment and the capture engine: encoder receptions, decoder,
// tuning, VTR options and the parameters of one capture run. Loaded from and saved to an XML profile
// ("CaptureSettings"), the form in which the service hands it to a capture worker.
//
// One nested struct per element of the profile; the comment beside a member is its attribute. Initializers
// are the defaults. IPv4 addresses are 32-bit in host order, first octet most significant. Texts are
// terminated; what is too long for its field is cut. Keys name the unit of a number (seconds, minutes, ms);
// offsets and counts without one are frames or plain numbers.
#pragma once

#include <array>
#include <cstdint>

class CSettings {
public:
    static constexpr int MAX_ENCODERS = 2;

    enum EncoderType : int {
        ENCODER_ORMOND = 0,  // "ORMOND"
        ENCODER_HARMONIC = 1 // "HARMONIC"
    };

    // Numbered like the capture job types of Job::JobType.
    enum JobType : int {
        JOB_VTR = 0,            // "VTR"
        JOB_MANUAL = 1,         // "MANUAL"
        JOB_TIMED = 2,          // "TIMED"
        JOB_TIMED_REENCODE = 3, // "TIMED_REENCODE"
        JOB_SCHEDULED = 4,      // has no name in a profile: scheduled captures are written as timed ones
        JOB_MEZZANINE = 5,      // "MEZZANINE"
        JOB_ROLLING = 6,        // "ROLLING"
        JOB_MPEG_NORMALIZE = 7, // "MPEG_NORMALIZE"
        JOB_NONE = 8            // no "JOB_TYPE"
    };

    // "ENCODER_RECEPTION_%d"
    struct EncoderReception {
        std::uint32_t ipAddress = 0;                // IP_ADDRESS
        int port = 0;                               // PORT
        std::uint32_t snmpIpAddress = 0;            // SNMP_IP_ADDRESS
        int snmpPort = 0;                           // SNMP_PORT
        int gopFrameCount = 15;                     // GOP_FRAME_COUNT
        bool motorolaQuadByteAlignment = false;     // MOTOROLA_QUAD_BYTE_ALIGNMENT
        int frameOffset = 0;                        // FRAME_OFFSET
        int frameOffsetNoVitc = 0;                  // FRAME_OFFSET_NO_VITC
        int vtrEncInitDelay = 2;                    // VTR_ENC_INIT_DELAY
        int vtrEncFrameDeltaSeconds = 30;           // VTR_ENC_FRAME_DELTA_SECONDS_V_3_1
        int vtrEncSampleNumber = 2;                 // VTR_ENC_SAMPLE_NUMBER
        int vtrEncSamplePeriod = 100;               // VTR_ENC_SAMPLE_PERIOD
        EncoderType encoderType = ENCODER_ORMOND;   // ENCODER_TYPE
        bool rawFiles = false;                      // RAW_FILES
        bool convertMpeg2Audio = false;             // CONVERT_MPEG2_AUDIO
        char filePrefix[260] = {};                  // FILE_PREFIX
        char mainCaptureDirectory[260] = {};        // MAIN_CAPTURE_DIRECTORY
        char scheduleCaptureDirectory[260] = {};    // SCHEDULE_CAPTURE_DIRECTORY
        char batchCaptureDirectory[260] = {};       // BATCH_CAPTURE_DIRECTORY
        char rollingCaptureDirectory[260] = {};     // ROLLING_CAPTURE_DIRECTORY
        char mezzanineCaptureDirectory[260] = {};   // MEZZANINE_CAPTURE_DIRECTORY
        bool lockMainCaptureDirectory = false;      // LOCK_MAIN_CAPTURE_DIRECTORY
        bool lockScheduleCaptureDirectory = false;  // LOCK_SCHEDULE_CAPTURE_DIRECTORY
        bool lockBatchCaptureDirectory = false;     // LOCK_BATCH_CAPTURE_DIRECTORY
        bool lockRollingCaptureDirectory = false;   // LOCK_ROLLING_CAPTURE_DIRECTORY
        bool lockMezzanineCaptureDirectory = false; // LOCK_MEZZANINE_CAPTURE_DIRECTORY
        char profile[260] = {};                     // PROFILE

        // Not in the profile: fixed tuning of the engine.
        int sdTransportRateCeiling = 3750000; // bits per second
        int sdVideoRateCeiling = 3180000;     // bits per second
        int engineNumber = 4;
        bool engineFlag = true;
    };

    // "DECODER_OPTIONS"
    struct DecoderOptions {
        std::uint32_t ipAddress = 0;        // DECODER_IP_ADDRESS: the stream's
        int port = 0;                       // DECODER_PORT
        int startAppend = 20;               // DECODER_START_APPEND_v3.1.0.4
        int endAppend = 20;                 // DECODER_END_APPEND_v3.1.0.4
        std::uint32_t interfaceAddress = 0; // DECODER_INTERFACE
        int option = 0;                     // DECODEROPTION
        bool saveLogFile = false;           // DEV_SAVE_LOG_FILE
        bool forceMonitor = true;           // FORCE_DECODER_MONITOR
        int editclTimeoutSec = 420;         // EDITCL_TIMEOUT_SEC
        std::uint32_t controlAddress = 0;   // DECODER_CONTROL_ADDRESS
        std::uint32_t output0 = 0;          // DECODER_OUTPUT_0
        std::uint32_t output1 = 0;          // DECODER_OUTPUT_1
        std::uint32_t output2 = 0;          // DECODER_OUTPUT_2
    };

    // "MPEG_ENGINE"
    struct MpegEngine {
        bool mpeg2UseBeginningSplicePoint = true; // MPEG2_USE_BEGINNING_SPLICE_POINT
        bool mpeg2UseEndSplicePoint = false;      // MPEG2_USE_END_SPLICE_POINT
        bool mpeg4UseBeginningSplicePoint = true; // MPEG4_USE_BEGINNING_SPLICE_POINT
        bool mpeg4UseEndSplicePoint = false;      // MPEG4_USE_END_SPLICE_POINT
    };

    // "ENCODER_INTERFACE"
    struct EncoderInterface {
        int splicepointLeadTimeMs = 10000;           // SPLICEPOINT_LEAD_TIME_MS
        int maxFramesOff = 3;                        // MAX_FRAMES_OFF
        int timedAndManualEncFrameDeltaSeconds = 20; // TIMED_AND_MANUAL_ENC_FRAME_DELTA_SECONDS
        int timedAndManualEncSampleNumber = 2;       // TIMED_AND_MANUAL_ENC_SAMPLE_NUMBER
        int timedAndManualEncSamplePeriod = 100;     // TIMED_AND_MANUAL_ENC_SAMPLE_PERIOD
        int timedAndManualEncInitDelay = 2;          // TIMED_AND_MANUAL_ENC_INIT_DELAY
        int encoderLeadTimeSecs = 20;                // ENCODER_LEAD_TIME_SECS
        int encoder614xLeadTimeSecs = 52;            // ENCODER_614x_LEAD_TIME_SECS: the 6140 and 6142
    };

    // "AUDIO_ENGINE"
    struct AudioEngine {
        bool ac3PassThrough = true; // AC3_PASS_THROUGH
    };

    // "VTR_OPTIONS"
    struct VtrOptions {
        int prerollTimeSecs = 8;            // PREROLL_TIME_SECS
        int findStartTimecodeRetries = 5;   // FIND_START_TIMECODE_RETRIES
        int nonVitcPrerollMaxFrameDiff = 1; // NON_VITC_PREROLL_MAX_FRAME_DIFF
        bool vitcSupport = true;            // VITC_SUPPORT
        char port[260] = {};                // PORT: name of the serial port
        bool useInternalCue = false;        // USE_INTERNAL_CUE
    };

    // "MEZZANINE_OPTIONS"
    struct MezzanineOptions {
        int splicePointRetries = 3; // SPLICE_POINT_RETRIES
    };

    // "CMD_PARAMS": one capture run
    struct CmdParams {
        char outputFile[260] = {};      // OUTPUT_FILE
        bool serviceMgrInvoked = true;  // RUN_TYPE: "SERVICE_MGR_INVOKED" or "CMDLINE_STANDALONE"
        char blackFileSuffix[260] = {}; // BLACK_FILE_SUFFIX
        int jobType = JOB_NONE;         // JOB_TYPE: a JobType
        char markInTime[12] = {};       // MARK_IN_TIME
        char markOutTime[12] = {};      // MARK_OUT_TIME
        char duration[260] = {};        // DURATION
        char sourceFile[260] = {};      // SOURCE_FILE
        int rollingDurationMin = -1;    // ROLLING_DURATION_MIN
        bool rollingStartNow = false;   // ROLLING_START_NOW
    };

    // Every default, both receptions alike.
    CSettings() = default;
    // Copies have every field.
    CSettings(const CSettings&) = default;
    CSettings& operator=(const CSettings&) = default;
    virtual ~CSettings() = default;

    // Sets numEncoders to 0; everything else stays.
    void Init();

    // Init, then the record from the profile at path. True when the file was parsed and has a root element,
    // whatever its name. False, with the record otherwise unchanged, for a missing file, anything but a
    // regular file, more than 16 MiB, far more markup than a profile can have, or broken XML.
    // An attribute that is not what its key needs (an integer, a dotted quad) counts as absent.
    bool LoadProfile(const char* path);

    // Writes the whole record to path: to a fresh private file beside it first, which then takes the name, so
    // that a link planted there is not followed and no reader meets half a profile. On failure false with
    // errno set; an earlier file then stays as it was.
    bool SaveProfile(const char* path) const;

    std::array<EncoderReception, MAX_ENCODERS> encoders{};
    int numEncoders = 0; // receptions in use: what the last load found, and how many a save writes
    DecoderOptions decoder{};
    MpegEngine mpegEngine{};
    EncoderInterface encoderInterface{};
    AudioEngine audioEngine{};
    VtrOptions vtr{};
    MezzanineOptions mezzanine{};
    CmdParams cmd{};

    // Not in the profile.
    int decoderStreamNumber = 0; // which stream of the decoder a re-encode plays
    char logPath[260] = "c:\\Logs\\mpegcap.log";
    std::array<int, 8> engineNumbers{2, 60000, 0, 600000, 50, 1, 5111, 1}; // fixed tuning of the engine
};
