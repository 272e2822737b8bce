// A directory of its own for each test, and the log lines that a test provokes.
#pragma once

#include "foundation/Logger.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

class ScratchDir {
public:
    ScratchDir() {
        std::string name = (std::filesystem::temp_directory_path() / "kestrel-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        m_path = name;
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    [[nodiscard]] std::string path(std::string_view name) const { return m_path + "/" + std::string(name); }

    // Makes a file and returns its path.
    [[nodiscard]] std::string file(std::string_view name, std::string_view content) const {
        std::ofstream out(path(name), std::ios::binary);
        out << content;
        return path(name);
    }

private:
    std::string m_path;
};

inline std::string contentOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Collects what is logged while it lives, as "[module:level] text" lines.
class CapturedLog {
public:
    CapturedLog() {
        LogUtil* log = LogUtil::GetInstance();
        log->setShowTimestamp(false);
        log->addStreamLogger(&m_lines);
    }
    ~CapturedLog() { LogUtil::Cleanup(); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    [[nodiscard]] std::string text() const { return m_lines.str(); }

private:
    std::ostringstream m_lines;
};
