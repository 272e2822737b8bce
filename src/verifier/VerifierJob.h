// The job that checks one transport-stream file against the delivery specification.
#pragma once

#include "jobs/Job.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

class VerifierXml;

// Built from a request, run by the verifier worker, answered from the worker's report.
class VerifierJob : public Job {
public:
    static constexpr int PROPERTY_COUNT = 25;
    static constexpr int RULE_COUNT = 19;
    // Properties below this one are short analyses: the worker reads only the first seconds, and the manager
    // waits for it.
    static constexpr int SHORT_PROPERTIES = 20;

    // Names of properties and rules; the index is the code.
    static const char* const PropertyNameStr[PROPERTY_COUNT];
    static const char* const ValidationErrorEnabledStr[RULE_COUNT];

    VerifierJob();
    // duration: seconds that a short analysis reads. disabledRules: names of rules, separated by ";".
    // numAudios: audio groups that every property list shows, with audioPlaceholder where the file has none.
    VerifierJob(const char* fileName, const char* reportDir, const char* guid, const char* propertyName,
                int duration, bool blocking, bool returnReportXml, const char* disabledRules, int numAudios,
                const char* audioPlaceholder);
    // Every field is copied, and reportFilename made anew.
    VerifierJob(const VerifierJob& other);
    VerifierJob& operator=(const VerifierJob& other);
    ~VerifierJob() override;

    // A new copy, which the caller owns.
    VerifierJob* clone() const override;
    // 0; 10013 without a file name, 10014 when there is no such file, 10012 without a report directory, 10025
    // for an unknown property. The text is in results and in the log.
    int validate() override;
    // The worker's command line, exe first; kept in cmdLine. Names with blanks are quoted, since the launcher
    // splits the line at blanks.
    const char* getCmdLine(const char* exe) override;
    // 0, or why the last command line must not be run: ENAMETOOLONG when it did not fit, EINVAL when a name
    // has a double quote, which no word of such a line can have.
    [[nodiscard]] int commandLineErrno() const;
    // Whether its worker has not ended yet, and the report is still to come or to change.
    [[nodiscard]] bool mayWriteReport() const;
    // The answer from the report: a value, a list of name=value pairs that each end in a tab, the
    // validation errors (empty: the file passed), or the report's path. 0, or 10026 with its text in out and
    // in the log; behind it stands what a worker that failed said.
    int getJobResults(char* out, int capacity) override;
    // What getJobResults answers where it fails.
    [[nodiscard]] std::string failureText();
    // Takes the report that is there now for an earlier job's: it stays until there is a new one, and is
    // never this job's answer. For a job that nobody else knows yet; returns after some ms at most, or 2 s
    // where the file system keeps times in whole seconds.
    void disownReport();
    // Whether the report that is there is still that of the earlier job.
    [[nodiscard]] bool reportIsOlder() const;

    // Index of the exact name in PropertyNameStr, and in ValidationErrorEnabledStr; -1 when there is none.
    static int getPropertyName(const char* name);
    static int getValidationErrorFlag(const char* name);
    // Switches the named rules off; unknown names are ignored.
    void setValidationErrorFlags(const char* list);
    // reportDir, GUID, "-", the file's name without directories, ".report.xml".
    void setReportFilename();
    // Has the report written into, and read from, another directory, given with its trailing separator. False
    // when the path was cut.
    bool setReportDir(const std::string& directory);
    // Whether its worker has failed: the state says so, but for a job that was cancelled before.
    [[nodiscard]] bool hasFailed() const;

    // The lists that getJobResults is made of, each from the report as it is now. 0, or 10026.
    int getMpegPropertiesQuick(char* out, int capacity);
    int getMpegProperties(char* out, int capacity);
    int getAudioModes(char* out, int capacity);
    int getValidationErrors(char* out, int capacity);
    // Appends the audio groups at length, which moves on.
    void getAudioInfo(VerifierXml& report, char* out, int capacity, int& length);
    // Appends "name=value" and a tab at length, which moves on. A null value and a pair without room are left
    // out.
    static void pushProperty(const char* name, const char* value, char* out, int capacity, int& length);

    char fileName[261] = {};                 // the transport stream to verify
    char reportDir[261] = {};                // for reports, with its trailing separator
    char reportFilename[600] = {};           // full path of the report
    std::int32_t property = -1;              // index into PropertyNameStr; -1: unknown
    std::int32_t duration = 0;               // seconds that a short analysis reads
    bool blocking = false;                   // the request waits for the answer
    bool returnReportXml = false;            // the answer is the report's path
    bool validationErrorEnabled[RULE_COUNT]; // by index in ValidationErrorEnabledStr; true: the rule is
                                             // checked
    std::int32_t numAudios = 0;              // audio groups that a list has at least
    char audioPlaceholder[260] = {};         // the value of groups that the file lacks

private:
    // What tells a report from the next one of its path.
    struct ReportMark {
        std::uint64_t device;
        std::uint64_t inode;
        std::int64_t size; // in bytes
        std::chrono::nanoseconds modified;
        bool operator==(const ReportMark&) const = default;
    };
    // None where there is no report.
    [[nodiscard]] std::optional<ReportMark> reportMark() const;
    [[nodiscard]] std::string quoteHolders() const;
    // Of a report that may not have been read. 0, or 10026.
    int answer(VerifierXml& report, char* out, int capacity);
    int singleAnswer(const VerifierXml& report, char* out, int capacity);
    int quickProperties(VerifierXml& report, char* out, int capacity);
    int allProperties(VerifierXml& report, char* out, int capacity);
    int audioModes(VerifierXml& report, char* out, int capacity);
    int validationErrors(const VerifierXml& report, char* out, int capacity);
    void copyFields(const VerifierJob& other);

    std::optional<ReportMark> m_olderReport; // set before others know the job
    int m_commandLineErrno = 0;              // of the last getCmdLine; under m_statusMutex
};
