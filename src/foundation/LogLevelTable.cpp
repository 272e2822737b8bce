#include "foundation/LogLevelTable.h"

#include <algorithm>
#include <cstring>

namespace kestrel {

LogLevelTable::LogLevelTable(std::int32_t defaultLevel)
    : m_default(std::make_shared<std::atomic<std::int32_t>>(defaultLevel)) {}

std::unique_ptr<LogLevelTable> LogLevelTable::with(const char* module, std::int32_t level) const {
    std::unique_ptr<LogLevelTable> table(new LogLevelTable(*this));
    const auto place = std::find_if(table->m_entries.begin(), table->m_entries.end(),
                                    [&](const auto& entry) { return entry->module.compare(module) > 0; });
    table->m_entries.insert(place, std::shared_ptr<Entry>(new Entry{module, level}));
    return table;
}

LogLevelTable::Entry* LogLevelTable::find(const char* module) const noexcept {
    std::size_t first = 0;
    std::size_t last = m_entries.size();
    while (first < last) {
        const std::size_t middle = first + (last - first) / 2;
        const int order = std::strcmp(m_entries[middle]->module.c_str(), module);
        if (order == 0)
            return m_entries[middle].get();
        if (order < 0)
            first = middle + 1;
        else
            last = middle;
    }
    return nullptr;
}

std::int32_t LogLevelTable::levelOf(const char* module) const noexcept {
    const Entry* entry = find(module);
    return entry ? entry->level.load(std::memory_order_relaxed) : m_default->load(std::memory_order_relaxed);
}

std::int32_t LogLevelTable::lowestLevel() const noexcept {
    std::int32_t lowest = defaultLevel();
    for (const auto& entry : m_entries)
        lowest = std::min(lowest, entry->level.load(std::memory_order_relaxed));
    return lowest;
}

bool LogLevelTable::setLevel(const char* module, std::int32_t level) noexcept {
    Entry* entry = find(module);
    if (entry)
        entry->level.store(level, std::memory_order_relaxed);
    return entry != nullptr;
}

} // namespace kestrel
