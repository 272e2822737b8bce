// Byte strings as the tests write them down, and files of them.
#pragma once

#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

inline Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The same bytes as characters, for streams and files.
inline std::string asText(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

// All of a file; nothing of one that cannot be opened.
inline Bytes bytesOfFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    Bytes bytes(in ? static_cast<std::size_t>(in.tellg()) : 0);
    in.seekg(0);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}
