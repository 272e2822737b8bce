// A file opened for questions: only a regular one, so that no FIFO or device holds whoever asks.
#pragma once

#include <cstdio>
#include <memory>

namespace kestrel {

class RegularFile {
public:
    // False as a condition when the path cannot be opened or is no regular file.
    explicit RegularFile(const char* path);

    // Whether there is a file to ask.
    explicit operator bool() const noexcept { return m_file != nullptr; }
    // The stream, open for binary reading at its beginning; null when there is none. Closed with this object.
    [[nodiscard]] FILE* get() const noexcept { return m_file.get(); }
    // Bytes when it was opened.
    [[nodiscard]] long length() const noexcept { return m_length; }

private:
    struct Close {
        void operator()(FILE* file) const noexcept { std::fclose(file); }
    };

    std::unique_ptr<FILE, Close> m_file;
    long m_length = 0;
};

} // namespace kestrel
