#include "foundation/Logger.h"
#include "mpeg/byte_sequence_check.h"

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

constexpr const char* module_name = "CaptureTests";
constexpr int first_length = 40;
constexpr int second_length = 50;

int failed(int check, const char* text) {
    LogUtil::Error(module_name, "\t%s broken", text);
    return check;
}

// Whether element k of the view is base + k throughout.
bool counts_from(byte_sequence& view, int length, int base) {
    for (int k = 0; k < length; ++k)
        if (view[k] != base + k)
            return false;
    return true;
}

// Whether element j of both the view and its array is base + j throughout.
bool both_count_from(byte_sequence& view, std::span<const unsigned char> array, int base) {
    for (std::size_t j = 0; j < array.size(); ++j) {
        const int expected = base + static_cast<int>(j);
        if (view[static_cast<int>(j)] != expected || array[j] != expected)
            return false;
    }
    return true;
}

} // namespace

int kestrel::check_byte_sequences(byte_sequence& first, std::span<const unsigned char> first_array,
                                  byte_sequence& second, std::span<const unsigned char> second_array,
                                  byte_sequence& composite) {
    const int in_first = static_cast<int>(first_array.size());
    const int in_second = static_cast<int>(second_array.size());

    if (composite.get_length() != in_first + in_second)
        return failed(1, "byte_sequence get_length()");
    if (!counts_from(first, in_first, 0))
        return failed(2, "byte_sequence abs.operator[]");
    if (!counts_from(second, in_second, in_first))
        return failed(3, "byte_sequence abs.operator[]");
    for (int k = 0; k < in_first + in_second; ++k) {
        if (composite[k] != k)
            return failed(4, "byte_sequence fbs.operator[]");
        composite[k] = static_cast<unsigned char>(k + 1);
    }
    if (!both_count_from(first, first_array, 1))
        return failed(5, "byte_sequence operator[]");
    if (!both_count_from(second, second_array, in_first + 1))
        return failed(6, "byte_sequence operator[]");
    return 0;
}

int byte_sequence::testHarness() {
    LogUtil::Info(module_name, " Running %s", "testHarness");

    std::vector<unsigned char> first_array(first_length);
    std::vector<unsigned char> second_array(second_length);
    std::iota(first_array.begin(), first_array.end(), static_cast<unsigned char>(0));
    std::iota(second_array.begin(), second_array.end(), static_cast<unsigned char>(first_length));
    array_byte_sequence first(first_array.data(), first_length);
    array_byte_sequence second(second_array.data(), second_length);
    frankenstein_byte_sequence composite;
    composite.append(first);
    composite.append(second);
    return kestrel::check_byte_sequences(first, first_array, second, second_array, composite);
}
