#include "mpeg/mpeg.h"

#include <cstdlib>

unsigned char byte_sequence::operator[](int position) const {
    // Reading goes through the writable access of the same object, which changes nothing by itself.
    return const_cast<byte_sequence&>(*this)[position];
}

unsigned char& constsubsequence::operator[](int /*position*/) {
    std::abort();
}

void frankenstein_byte_sequence::append(byte_sequence& piece) {
    m_pieces.push_back(&piece);
    m_length += piece.get_length();
}

unsigned char& frankenstein_byte_sequence::operator[](int position) {
    for (byte_sequence* piece : m_pieces) {
        const int length = piece->get_length();
        if (position < length)
            return (*piece)[position];
        position -= length;
    }
    std::abort();
}
