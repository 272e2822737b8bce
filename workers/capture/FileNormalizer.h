// Normalizes one file into another, in a thread of its own.
#pragma once

#include "Failure.h"
#include "Normalizer.h"
#include "SourceFile.h"
#include "WakeEvent.h"
#include "WriteBehind.h"
#include "foundation/Mutex.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace kestrel::capture {

struct NormalizePlan {
    std::string source;
    std::string output;
    bool overwrite = false;
    bool keepNulls = false;
    std::string mainDirectory; // that the output must not leave when it is locked
    bool lockDirectory = false;
};

// How far it is, and how it ended.
struct NormalizeStatus {
    bool over = false;
    bool succeeded = false; // when over
    std::string text;       // results, when over
    std::uint64_t frames = 0;
    int frameRateCode = 0;
    std::uint64_t continuityErrors = 0;
    std::uint64_t bytes = 0; // written
};

// The output grows in whole packets and is a transport stream at any moment (see SegmentFile).
class FileNormalizer {
public:
    // ended is signalled when it is over.
    FileNormalizer(NormalizePlan plan, WakeEvent& ended);
    ~FileNormalizer();
    FileNormalizer(const FileNormalizer&) = delete;
    FileNormalizer& operator=(const FileNormalizer&) = delete;

    // Checks both files and begins. Nothing is written before the source has shown that it is a transport
    // stream.
    [[nodiscard]] MaybeFailure start();
    // Ends it where it stands; what was written stays.
    void cancel() noexcept { m_cancel.store(true, std::memory_order_relaxed); }
    // Waits for the end.
    void join();

    [[nodiscard]] NormalizeStatus status() const EXCLUDES(m_mutex);

private:
    void run() noexcept;
    [[nodiscard]] bool copy();
    [[nodiscard]] bool readSome(bool& more);
    [[nodiscard]] bool write(std::span<const unsigned char> packets);
    [[nodiscard]] bool fail(Failure why);
    void finish(bool whole);
    [[nodiscard]] std::string amount() const;
    void publish() EXCLUDES(m_mutex);

    const NormalizePlan m_plan;
    WakeEvent& m_ended;
    SourceFile m_source;
    WriteBehind m_output;
    Normalizer m_normalizer;
    MaybeFailure m_failure;
    std::thread m_thread;
    std::atomic<bool> m_cancel{false};

    mutable Mutex m_mutex;
    NormalizeStatus m_status GUARDED_BY(m_mutex);
};

} // namespace kestrel::capture
