#include "Orders.h"

#include <charconv>
#include <optional>
#include <sstream>
#include <vector>

namespace kestrel::deck_simulator {
namespace {

std::optional<int> number(const std::string& text, int base) {
    int value = 0;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return problem == std::errc() && end == text.data() + text.size() && value >= 0 ? std::optional(value)
                                                                                    : std::nullopt;
}

struct FaultWord {
    std::string_view word;
    Fault::Kind kind;
    // Base of the number that follows the word; 0 when none does.
    int base;
};

constexpr FaultWord faultWords[] = {
    {"well", Fault::Kind::none, 0},       {"nak", Fault::Kind::nak, 16},
    {"garbage", Fault::Kind::garbage, 0}, {"checksum", Fault::Kind::checksum, 0},
    {"partial", Fault::Kind::partial, 0}, {"silent", Fault::Kind::silent, 0},
    {"late", Fault::Kind::late, 10},
};

struct StateWord {
    std::string_view word;
    Order::Kind kind;
    bool on;
};

constexpr StateWord stateWords[] = {
    {"unplug", Order::Kind::line, false},      {"plug", Order::Kind::line, true},
    {"local", Order::Kind::local, true},       {"remote", Order::Kind::local, false},
    {"eject", Order::Kind::cassette, false},   {"insert", Order::Kind::cassette, true},
    {"vitc", Order::Kind::vitc, true},         {"novitc", Order::Kind::vitc, false},
    {"timecode", Order::Kind::timecode, true}, {"notimecode", Order::Kind::timecode, false},
    {"old", Order::Kind::old, true},           {"where", Order::Kind::where, true},
};

std::optional<Order> faultOrder(const FaultWord& entry, const std::vector<std::string>& words) {
    Order order{Order::Kind::fault, true, {}, {}};
    order.fault.kind = entry.kind;
    std::size_t next = 1;
    if (entry.base != 0) {
        const auto value = next < words.size() ? number(words[next++], entry.base) : std::nullopt;
        if (!value || (entry.base == 16 && *value > 0xFF))
            return std::nullopt;
        if (entry.base == 16)
            order.fault.bits = static_cast<std::uint8_t>(*value);
        else
            order.fault.delay = std::chrono::milliseconds(*value);
    }
    for (int* field : {&order.fault.blocks, &order.fault.after})
        if (next < words.size()) {
            const auto value = number(words[next++], 10);
            if (!value)
                return std::nullopt;
            *field = *value;
        }
    return next == words.size() ? std::optional(order) : std::nullopt;
}

} // namespace

std::optional<Order> parseOrder(std::string_view line) {
    std::istringstream in{std::string(line)};
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word);
    if (words.empty())
        return std::nullopt;
    for (const FaultWord& entry : faultWords)
        if (words[0] == entry.word)
            return faultOrder(entry, words);
    if (words[0] == "lag" && words.size() == 2) {
        const auto value = number(words[1], 10);
        return value ? std::optional(Order{Order::Kind::lag, true, {}, std::chrono::milliseconds(*value)})
                     : std::nullopt;
    }
    for (const StateWord& entry : stateWords)
        if (words[0] == entry.word && words.size() == 1)
            return Order{entry.kind, entry.on, {}, {}};
    return std::nullopt;
}

std::string orderHelp() {
    return "  well                  answer well again\n"
           "  nak BITS [N [M]]      answer with NAK, BITS in hexadecimal (nak 01)\n"
           "  garbage [N [M]]       answer with bytes that are no reply\n"
           "  checksum [N [M]]      answer with a wrong checksum\n"
           "  partial [N [M]]       break answers off after one byte\n"
           "  silent [N [M]]        do not answer\n"
           "  late MS [N [M]]       answer after so many milliseconds\n"
           "                        N: for N blocks only; M: after M blocks more\n"
           "  unplug, plug          the line is gone, and back\n"
           "  local, remote         who may give commands\n"
           "  eject, insert         the cassette\n"
           "  vitc, novitc          whether VITC can be read\n"
           "  timecode, notimecode  whether the tape has any\n"
           "  old                   the deck does not choose between LTC and VITC\n"
           "  lag MS                a cue-up begins so many milliseconds late, the status is the old one\n"
           "                        until then; 0: at once\n"
           "  where                 print the state\n";
}

} // namespace kestrel::deck_simulator
