#include "capture/ResultsText.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

using namespace kestrel::capture;

namespace {

std::string text(const std::vector<ResultsPart>& parts, std::size_t room = resultsBytes) {
    return resultsText(parts, room);
}

TEST(ResultsText, WhatFitsIsToldWhole) {
    EXPECT_EQ(text({}), "");
    EXPECT_EQ(text({{"Recorded", false}}), "Recorded");
    EXPECT_EQ(text({{"Error: a.", true}, {" Recorded", false}, {"; b", true}}), "Error: a. Recorded; b");
    EXPECT_EQ(text({{std::string(149, 'a'), true}, {std::string(150, 'b'), true}}),
              std::string(149, 'a') + std::string(150, 'b'));
}

TEST(ResultsText, OneThatIsTooLongIsCut) {
    EXPECT_EQ(text({{std::string(1000, 'x'), true}}), std::string(299, 'x'));
}

TEST(ResultsText, AFailureIsKeptBeforeAnythingElse) {
    const std::string failure(200, 'f');
    const std::string other(200, 'o');
    EXPECT_EQ(text({{failure, true}, {other, false}}), failure + other.substr(0, 99));
    EXPECT_EQ(text({{other, false}, {failure, true}}), other.substr(0, 99) + failure) << "wherever it stands";
}

TEST(ResultsText, NoPartIsCutAwayWhole) {
    const std::string a(500, 'a'), b(500, 'b'), c(500, 'c');
    EXPECT_EQ(text({{a, true}, {b, true}}), a.substr(0, 200) + b.substr(0, 99));
    EXPECT_EQ(text({{a, false}, {b, true}, {c, false}}),
              a.substr(0, 99) + b.substr(0, 101) + c.substr(0, 99));
    EXPECT_EQ(text({{a, true}, {b, true}, {c, true}}, 30),
              a.substr(0, 10) + b.substr(0, 10) + c.substr(0, 10));
    EXPECT_EQ(text({{a, true}, {b, true}}, 0), "");
    // A short one leaves its room to the others.
    EXPECT_EQ(text({{a, true}, {"; Encoder 1: Recorded", false}}),
              a.substr(0, 278) + "; Encoder 1: Recorded");
}

TEST(ResultsText, TheRoomIsUsedAndNotMore) {
    for (std::size_t room = 0; room < 500; ++room)
        for (std::size_t parts = 1; parts < 5; ++parts) {
            const std::vector<ResultsPart> all(parts, {std::string(100, 'x'), parts % 2 == 0});
            EXPECT_EQ(text(all, room).size(), std::min(room, parts * 100)) << room << ", " << parts;
        }
}

} // namespace
