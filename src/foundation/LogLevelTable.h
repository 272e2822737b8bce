// The level of each module, in a form that is read without a lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestrel {

// A sorted list of modules that never changes, with levels that may: changing a level is a store, and only a
// new module makes a new table. The levels belong to all tables of one logging object alike, so that a thread
// still reading an older table sees changes as well. Names are copies, because a reader may still compare
// them when the logging object, and with it the promise that the caller's names live, has ended.
class LogLevelTable {
public:
    explicit LogLevelTable(std::int32_t defaultLevel);

    // A table with one module more.
    [[nodiscard]] std::unique_ptr<LogLevelTable> with(const char* module, std::int32_t level) const;

    // The level of a module, or the default level.
    [[nodiscard]] std::int32_t levelOf(const char* module) const noexcept;
    // The lowest level of any module: messages below it are filtered whatever their module.
    [[nodiscard]] std::int32_t lowestLevel() const noexcept;
    // Changes the level of a module; false when the table does not have it.
    bool setLevel(const char* module, std::int32_t level) noexcept;

    // The level of a module that has none of its own.
    [[nodiscard]] std::int32_t defaultLevel() const noexcept { return *m_default; }
    // Changes it for all such modules at once.
    void setDefaultLevel(std::int32_t level) noexcept { *m_default = level; }

private:
    struct Entry {
        std::string module;
        std::atomic<std::int32_t> level;
    };

    LogLevelTable(const LogLevelTable&) = default;
    [[nodiscard]] Entry* find(const char* module) const noexcept;

    std::shared_ptr<std::atomic<std::int32_t>> m_default;
    std::vector<std::shared_ptr<Entry>> m_entries;
};

} // namespace kestrel
