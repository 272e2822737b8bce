// The capture jobs: recording from encoders in one of seven modes, described to the capture worker by a
// settings file.
#pragma once

#include "foundation/QueueMessages.h"
#include "foundation/TimeUtil.h"
#include "jobs/Job.h"
#include "resources/Equipment.h"
#include "timecode/mpeg_timecode.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class CSettings;
class InputField;

// Common base of the capture jobs.
//
// A request's options (profile, VITC input, ...) are set on the shared equipment record, and the job keeps
// what its own request said, so that the settings file does not change with a later request for the same
// device.
class CaptureJob : public Job {
public:
    // Latest report of the worker on one encoder.
    struct statusDetails {
        mpeg_timecode duration;   // recorded so far; all zero before the first report
        std::int64_t number1 = 0; // statusNumber3 of the report
        std::int64_t number2 = 0; // statusNumber1
        std::int64_t number3 = 0; // statusNumber2
    };

    // Reports for an encoder number from here on are dropped.
    static constexpr std::int32_t STATUS_LIMIT = 64;

    CaptureJob();
    explicit CaptureJob(unsigned long id, JobType type = NONE, JobState state = CREATED);
    CaptureJob(const CaptureJob& other);
    CaptureJob& operator=(const CaptureJob& other);
    ~CaptureJob() override;

    CaptureJob* clone() const override;
    // 0, 10012 or 10015, with the text in results.
    int validate() override;
    // Writes the settings file, then builds the worker's command line. Where the file cannot be written the
    // line is built all the same and settingsErrno() tells why.
    const char* getCmdLine(const char* program) override;

    // The fields common to all capture modes; other numbers are ignored.
    void setField(InputField& field);
    // Appends the encoder to encoders and equipment; null is ignored.
    void AddEncoder(Encoder* encoder);
    // Takes a copy; null clears it.
    void SetOutputFile(const char* path);
    // A hook called while the settings file is built; does nothing.
    void setRemoteEncodeSettings(CSettings& settings);
    // "%scapture_%d.log"; made on first request and kept.
    const char* getLogFilename();
    // Writes "/tmp/capture_%d.xml". 0, or the errno of the write that failed.
    int CreateIniFile();
    // What the last getCmdLine met: 0, the errno of the settings file, or ENAMETOOLONG when the line did not
    // fit.
    [[nodiscard]] int settingsErrno() const;
    // Takes the worker's report on one encoder. A negative number, or one from STATUS_LIMIT on, is dropped.
    void UpdateStatus(_CaptureJobStatusData* status);

    std::vector<std::unique_ptr<struct statusDetails>> statusDetails; // by encoder number
    char iniFilename[260] = {};
    char logFilename[260] = {};
    char* outputFile = nullptr; // owned
    std::vector<Encoder*> encoders;

protected:
    // Writes the text of a refusal into results, logs it and returns the code.
    int refuse(long code, const char* text);
    // The job type's own part of the settings, called with the equipment records locked.
    virtual void describe(CSettings& settings) const;

private:
    // What this request said about one encoder.
    struct EncoderOptions {
        std::optional<std::string> profile;
        std::optional<bool> vitcInput;
    };

    void setEncoder(const InputField& field);
    void setEncoderField(InputField& field, int number);
    void describeEncoders(CSettings& settings) const;
    void copyCaptureFields(const CaptureJob& other);

    std::vector<EncoderOptions> m_encoderOptions; // beside encoders
    int m_settingsErrno = 0;
};

// Started and stopped by hand.
class CaptureManualJob : public CaptureJob {
public:
    CaptureManualJob();
    explicit CaptureManualJob(unsigned long id);
    CaptureManualJob(const CaptureManualJob& other);
    CaptureManualJob& operator=(const CaptureManualJob& other);
    ~CaptureManualJob() override;

    CaptureManualJob* clone() const override;
    int validate() override;
    int setFields(std::vector<InputField>& fields) override;

protected:
    void describe(CSettings& settings) const override;
};

// For a fixed time.
class CaptureTimedJob : public CaptureJob {
public:
    CaptureTimedJob();
    explicit CaptureTimedJob(unsigned long id);
    CaptureTimedJob(const CaptureTimedJob& other);
    CaptureTimedJob& operator=(const CaptureTimedJob& other);
    ~CaptureTimedJob() override;

    CaptureTimedJob* clone() const override;
    int validate() override;
    int setFields(std::vector<InputField>& fields) override;

    char duration[12] = {}; // timecode; not checked here

protected:
    void describe(CSettings& settings) const override;
};

// From a start to an end on the calendar.
class CaptureScheduledJob : public CaptureJob {
public:
    CaptureScheduledJob();
    explicit CaptureScheduledJob(unsigned long id);
    CaptureScheduledJob(const CaptureScheduledJob& other);
    CaptureScheduledJob& operator=(const CaptureScheduledJob& other);
    ~CaptureScheduledJob() override;

    CaptureScheduledJob* clone() const override;
    // Beside the base's: 10011, 10010.
    int validate() override;
    int setFields(std::vector<InputField>& fields) override;

    // Real seconds from start to end, 0 when the end is not later.
    [[nodiscard]] std::int64_t elapsedSeconds() const;

    // Built from the request's numbers as they stand: year and month carry no offset of the time record.
    CTimeUtil startTime;
    CTimeUtil endTime;
    CTimeSpanUtil scheduledDuration; // stays zero

protected:
    void describe(CSettings& settings) const override;

private:
    // A request's date and time, as the client wrote it.
    struct GivenTime {
        int month = 0;
        int day = 0;
        int year = 0;
        int hour = 0;
        int minute = 0;
        int second = 0;
        bool followed = false; // by something that is not read

        static std::optional<GivenTime> read(const char* text);
        [[nodiscard]] CTimeUtil asStored() const;
        [[nodiscard]] tm record() const; // not normalised
        [[nodiscard]] std::time_t onTheCalendar() const;
        // Whether the calendar, with its daylight saving, has that time.
        [[nodiscard]] bool possible() const;
        // Whether the following month has that day, too.
        [[nodiscard]] bool hasFollowing() const;
        // The time that the calendar makes of it, in the form of a request.
        [[nodiscard]] std::string calendarText() const;
    };

    void takeTime(const InputField& field, CTimeUtil& time, std::optional<GivenTime>& given);
    void explainTimes(int code, bool endGiven) const;

    std::optional<GivenTime> m_givenStart;
    std::optional<GivenTime> m_givenEnd;
};

// Continuous, in segments.
class CaptureRollingJob : public CaptureJob {
public:
    CaptureRollingJob();
    explicit CaptureRollingJob(unsigned long id);
    CaptureRollingJob(const CaptureRollingJob& other);
    CaptureRollingJob& operator=(const CaptureRollingJob& other);
    ~CaptureRollingJob() override;

    CaptureRollingJob* clone() const override;
    // Beside the base's: 20085.
    int validate() override;
    // "Duration" (minutes, or hh:mm:ss:ff cut to minutes) gives rollingDurationMin, 0 when it cannot be read;
    // a "StartTime" clears rollingStartNow.
    int setFields(std::vector<InputField>& fields) override;

    int rollingDurationMin = 0;
    bool rollingStartNow = true;

protected:
    void describe(CSettings& settings) const override;
};

// From a tape deck, between two timecodes.
class CaptureVTRJob : public CaptureJob {
public:
    CaptureVTRJob();
    explicit CaptureVTRJob(unsigned long id);
    CaptureVTRJob(const CaptureVTRJob& other);
    CaptureVTRJob& operator=(const CaptureVTRJob& other);
    ~CaptureVTRJob() override;

    CaptureVTRJob* clone() const override;
    // Beside the base's: 10023, 10021.
    int validate() override;
    int setFields(std::vector<InputField>& fields) override;
    // Remembers the deck and appends it to equipment; null is ignored.
    void SetVTR(Vtr* deck);

    char markIn[12] = {};
    char markOut[12] = {};
    Vtr* vtr = nullptr; // not owned

protected:
    void describe(CSettings& settings) const override;

private:
    void setInternalCue(InputField& field);
    static void warnOfLongPort(const InputField& field);

    char m_thirdMark[12] = {};         // tested with the marks, never filled
    std::optional<bool> m_internalCue; // what this request said
};

// From a source file through a decoder: a plain re-encode, or the mezzanine variant between two marks.
class CaptureReencodeJob : public CaptureJob {
public:
    CaptureReencodeJob();
    explicit CaptureReencodeJob(unsigned long id, JobType type = CAPTURE_REENCODE_JOB);
    CaptureReencodeJob(const CaptureReencodeJob& other);
    CaptureReencodeJob& operator=(const CaptureReencodeJob& other);
    ~CaptureReencodeJob() override;

    CaptureReencodeJob* clone() const override;
    // Beside the base's: 10013, 10016 and, for a mezzanine, 10023, 10021, 10022.
    int validate() override;
    int setFields(std::vector<InputField>& fields) override;
    void setId(unsigned long newId) override;
    // Remembers the decoder and appends it to equipment; null is ignored.
    void SetDecoder(Decoder* found);

    char sourceFile[260] = {};
    char markIn[12] = {};
    char markOut[12] = {};
    char blackFileSuffix[32] = {}; // "_%ld" with the id
    // A record of the registry, or the job's own placeholder while the request has named options but no
    // address yet.
    Decoder* decoder = nullptr;

protected:
    void describe(CSettings& settings) const override;

private:
    Decoder& decoderOrPlaceholder();
    void takeDecoderAddress(const InputField& field);
    void takeDecoderProfile(const InputField& field);
    void takeDecoderInterface(const InputField& field);
    int validateMezzanine();
    int validateMarks(double framesPerSecond);
    void copyReencodeFields(const CaptureReencodeJob& other);
    void describeDecoder(CSettings& settings) const;

    std::unique_ptr<Decoder> m_placeholder;
    std::optional<unsigned long> m_interfaceAddress; // what this request said; IPv4, host order
};

// Brings an existing MPEG file into normal form; needs no encoder.
class MpegNormalizeJob : public CaptureJob {
public:
    MpegNormalizeJob();
    explicit MpegNormalizeJob(unsigned long id);
    MpegNormalizeJob(const MpegNormalizeJob& other);
    MpegNormalizeJob& operator=(const MpegNormalizeJob& other);
    ~MpegNormalizeJob() override;

    MpegNormalizeJob* clone() const override;
    // Beside the base's: 10013.
    int validate() override;
    int setFields(std::vector<InputField>& fields) override;

    char sourceFile[260] = {};

protected:
    void describe(CSettings& settings) const override;
};
