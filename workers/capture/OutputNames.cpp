#include "OutputNames.h"

#include <array>
#include <filesystem>
#include <system_error>

namespace kestrel::capture {
namespace {

// Position of the extension's dot in the last component, or the end. A leading dot begins a name.
std::size_t extensionAt(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::size_t name = slash == std::string::npos ? 0 : slash + 1;
    const std::size_t dot = path.rfind('.');
    return dot == std::string::npos || dot <= name ? path.size() : dot;
}

} // namespace

std::string outputPath(const std::string& outputFile, const std::string& directory) {
    if (outputFile.empty() || outputFile.front() == '/' || directory.empty())
        return outputFile;
    // Appended part by part: g++ 12 warns of chains of + whose parts are literals (GCC bug 105651).
    std::string path = directory;
    if (path.back() != '/')
        path += '/';
    return path.append(outputFile);
}

std::string absolutePath(const std::string& path) {
    std::error_code failed;
    const std::filesystem::path whole = std::filesystem::absolute(path, failed);
    return failed || path.empty() ? path : whole.string();
}

std::string encoderPath(const std::string& output, int encoder) {
    if (encoder == 0)
        return output;
    const std::size_t dot = extensionAt(output);
    std::string path = output.substr(0, dot);
    path.append("_").append(std::to_string(encoder + 1));
    return path.append(output, dot);
}

std::string segmentPath(const std::string& output, std::time_t begin, int attempt) {
    std::tm local{};
    localtime_r(&begin, &local);
    std::array<char, 32> stamp{};
    std::strftime(stamp.data(), stamp.size(), "_%Y%m%d_%H%M%S", &local);
    const std::size_t dot = extensionAt(output);
    std::string path = output.substr(0, dot);
    path.append(stamp.data());
    if (attempt > 1)
        path.append("-").append(std::to_string(attempt));
    if (dot == output.size())
        return path.append(".ts");
    return path.append(output, dot);
}

} // namespace kestrel::capture
