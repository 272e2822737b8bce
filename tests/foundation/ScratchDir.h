// A directory of its own for each test, and what is in its files.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

// Removed at its end, with all that is in it.
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

    // The directory itself, without a slash at its end.
    [[nodiscard]] const std::string& path() const noexcept { return m_path; }
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

// All of a file; "" of one that cannot be opened.
inline std::string contentOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return std::move(text).str();
}
