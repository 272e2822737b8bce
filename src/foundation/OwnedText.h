// The owned heap texts that published records carry as plain char pointers.
#pragma once

#include <cstring>

namespace kestrel {

// Frees the text and makes the field null.
inline void dropOwned(char*& field) noexcept {
    delete[] field;
    field = nullptr;
}

// Replaces the field's text by a copy of text; null clears it. text may be the field's own.
inline void replaceOwned(char*& field, const char* text) {
    char* copy = nullptr;
    if (text != nullptr) {
        const std::size_t size = std::strlen(text) + 1;
        copy = new char[size];
        std::memcpy(copy, text, size);
    }
    delete[] field;
    field = copy;
}

} // namespace kestrel
