#include "FileNormalizer.h"

#include "CaptureDuration.h"
#include "CountedNoun.h"
#include "OutputNames.h"
#include "RecordingPlan.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <exception>
#include <system_error>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

} // namespace

FileNormalizer::FileNormalizer(NormalizePlan plan, WakeEvent& ended)
    : m_plan(std::move(plan)), m_ended(ended),
      m_normalizer(
          m_plan.keepNulls, [this](std::span<const unsigned char> packets) { return write(packets); },
          [this](const std::string& line) {
              LogUtil::Warning(module, "%s: %s", m_plan.source.c_str(), line.c_str());
          }) {}

FileNormalizer::~FileNormalizer() {
    cancel();
    join();
}

MaybeFailure FileNormalizer::start() {
    if (auto failed = m_source.open(m_plan.source))
        return failed;
    RecordingPlan output;
    output.output = m_plan.output;
    output.source = m_plan.source;
    output.overwrite = m_plan.overwrite;
    output.mainDirectory = m_plan.mainDirectory;
    output.lockDirectory = m_plan.lockDirectory;
    if (auto failed = checkOutput(output))
        return failed;
    LogUtil::Info(module, "Normalizing %s (%s) into %s, null packets %s", absolutePath(m_plan.source).c_str(),
                  counted(m_source.bytes(), "byte").c_str(), absolutePath(m_plan.output).c_str(),
                  m_plan.keepNulls ? "kept" : "dropped");
    try {
        m_thread = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        return failure(error::captureThreadNotLaunched);
    }
    return std::nullopt;
}

void FileNormalizer::join() {
    if (m_thread.joinable())
        m_thread.join();
}

NormalizeStatus FileNormalizer::status() const {
    const MutexLock lock(m_mutex);
    return m_status;
}

void FileNormalizer::run() noexcept {
    bool whole = false;
    try {
        whole = copy();
    } catch (const std::exception& problem) {
        m_failure = detailed(failure(error::startCaptureFailed), problem.what());
    }
    finish(whole);
    m_ended.signal();
}

// Whether the whole source was taken.
bool FileNormalizer::copy() {
    for (bool more = true; more;) {
        if (m_cancel.load(std::memory_order_relaxed))
            return false;
        if (!readSome(more))
            return false;
        publish();
    }
    if (!m_normalizer.finish())
        return m_failure ? false : fail(m_source.shapeFailure(m_normalizer.shape()));
    if (m_normalizer.counts().written == 0)
        return fail(detailed(failure(error::sourceLengthNotPackets, 0), "no packets but null packets"));
    return true;
}

bool FileNormalizer::readSome(bool& more) {
    std::size_t got = 0;
    if (auto failed = m_source.read(m_normalizer.room(), got))
        return fail(*failed);
    more = got > 0;
    if (!more || m_normalizer.take(got))
        return true;
    return m_failure ? false : fail(m_source.shapeFailure(m_normalizer.shape()));
}

bool FileNormalizer::write(std::span<const unsigned char> packets) {
    if (!m_output.isOpen())
        if (auto failed = m_output.create(m_plan.output, m_plan.overwrite))
            return fail(*failed);
    if (auto failed = m_output.append(packets))
        return fail(*failed);
    return true;
}

bool FileNormalizer::fail(Failure why) {
    m_failure = std::move(why);
    return false;
}

void FileNormalizer::finish(bool whole) {
    try {
        if (m_output.isOpen()) {
            if (auto failed = m_output.close(); failed && !m_failure)
                m_failure = failed;
            LogUtil::Info(module, "%s closed, %s", m_plan.output.c_str(),
                          counted(m_output.bytes(), "byte").c_str());
        }
        publish();
        const bool some = m_output.bytes() > 0;
        std::string text;
        if (m_failure)
            text = m_failure->text + (some ? " Normalized " + amount() : "");
        else if (whole)
            text = "Normalized " + amount();
        else
            text = some ? "Cancelled after " + amount() : "Cancelled: nothing written";
        const MutexLock lock(m_mutex);
        m_status.succeeded = !m_failure;
        m_status.text = std::move(text);
        m_status.over = true;
    } catch (const std::exception&) {
        const MutexLock lock(m_mutex);
        m_status.over = true;
    }
}

std::string FileNormalizer::amount() const {
    const NormalizerCounts& counts = m_normalizer.counts();
    std::string text =
        format("%s (%s, %.1f MB), ", lengthText(m_normalizer.frames(), m_normalizer.frameRateCode()).c_str(),
               counted(m_normalizer.frames(), "frame").c_str(), static_cast<double>(m_output.bytes()) / 1e6) +
        counted(counts.renumbered, "continuity counter") + " renumbered, " +
        counted(counts.nulls, "null packet") + " dropped, " + counted(counts.tables, "packet") +
        " of PAT and PMT added";
    const auto also = [&text](std::uint64_t count, const char* noun, const char* what) {
        if (count != 0)
            text.append(", ").append(counted(count, noun)).append(what);
    };
    also(counts.continuityErrors, "continuity error", " in the source");
    also(counts.transportErrors, "packet", " with transport errors dropped");
    also(counts.reserved, "packet", " without content dropped");
    also(counts.strayBytes, "byte", " between packets dropped");
    return text;
}

void FileNormalizer::publish() {
    const MutexLock lock(m_mutex);
    m_status.frames = m_normalizer.frames();
    m_status.frameRateCode = m_normalizer.frameRateCode();
    m_status.continuityErrors = m_normalizer.counts().continuityErrors;
    m_status.bytes = m_output.bytes();
}

} // namespace kestrel::capture
