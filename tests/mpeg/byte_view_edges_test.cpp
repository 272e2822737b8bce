// Views of bytes at their edges: negative positions, views of views, and the self-test shown failing.
#include "byte_views.h"
#include "foundation/CapturedLog.h"
#include "foundation/ScratchDir.h"
#include "mpeg/byte_sequence_check.h"
#include "mpeg/unibuffer.h"

#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>
#include <vector>

using testing::HasSubstr;
using testing::Not;

using namespace mpeg_test;

namespace {

// --- duo

TEST(Duo, ANegativePositionLandsBeforeTheSecondArrayNotTheFirst) {
    // Both arrays stand inside one, so that every position has a byte: 4 to 6 and 20 to 24.
    Bytes memory = counting(30);
    unibuffer::duo both(array_byte_sequence(memory.data() + 4, 3),
                        array_byte_sequence(memory.data() + 20, 5));
    EXPECT_EQ(both[-1], 20 - 3 - 1);
    EXPECT_EQ(both[-2], 20 - 3 - 2);
    EXPECT_EQ(both[0], 4);
    EXPECT_EQ(both[2], 6);
    EXPECT_EQ(both[3], 20);
    EXPECT_EQ(both[7], 24);
    both[-1] = 99;
    EXPECT_EQ(memory[16], 99);
    const byte_sequence& constant = both;
    EXPECT_EQ(constant[-2], 15);
}

TEST(Duo, EitherArrayMayBeEmpty) {
    Bytes none;
    Bytes some = counting(3, 7);
    unibuffer::duo behind(view(none), view(some));
    EXPECT_EQ(contents(behind), some);
    unibuffer::duo before(view(some), view(none));
    EXPECT_EQ(contents(before), some);
    EXPECT_EQ(unibuffer::duo(view(none), view(none)).get_length(), 0);
}

TEST(Duo, KeepsCopiesOfItsViewsButNoBytes) {
    Bytes first = counting(2);
    Bytes second = counting(2, 2);
    const auto made = [&] {
        const array_byte_sequence a = view(first);
        const array_byte_sequence b = view(second);
        return unibuffer::duo(a, b);
    };
    unibuffer::duo both = made();
    first[0] = 9;
    EXPECT_EQ(contents(both), Bytes({9, 1, 2, 3}));
}

// --- windows

TEST(Windows, OfWindowsAddTheirOffsets) {
    Bytes packet = counting(188);
    array_byte_sequence whole = view(packet);
    subsequence payload(whole, 4);
    subsequence pes(payload, 9, 10);
    EXPECT_EQ(pes[0], 13);
    EXPECT_EQ(subsequence(pes, 4).get_length(), 6) << "of the window, not of the packet";
    pes[1] = 200;
    EXPECT_EQ(packet[14], 200);
    const constsubsequence fixed(pes, 1);
    const constsubsequence inner(fixed, 0, 1);
    EXPECT_EQ(inner[0], 200);
}

TEST(Windows, TakeALengthAsItIsGiven) {
    Bytes bytes = counting(10);
    array_byte_sequence whole = view(bytes);
    EXPECT_EQ(subsequence(whole, 8, 100).get_length(), 100);
    EXPECT_EQ(constsubsequence(whole, 8, 100).get_length(), 100);
    EXPECT_EQ(subsequence(whole, 12).get_length(), -2) << "the rest behind the end";
}

TEST(Windows, SeeWhatHappensToTheirParent) {
    Bytes bytes = counting(10);
    array_byte_sequence whole = view(bytes);
    const constsubsequence window(whole, 5);
    bytes[5] = 77;
    EXPECT_EQ(window[0], 77);
}

// --- composites

TEST(Composite, JoinsPayloadsOfPacketsIntoOneStream) {
    // Three packets of 188 bytes whose payloads begin at different offsets, with a 188-byte run of numbers.
    const std::array<int, 3> offsets{4, 100, 187};
    std::array<Bytes, 3> packets;
    std::vector<array_byte_sequence> payloads;
    int next = 0;
    for (std::size_t i = 0; i < packets.size(); ++i) {
        packets[i] = Bytes(188, 0xEE);
        for (int at = offsets[i]; at < 188; ++at)
            packets[i][static_cast<std::size_t>(at)] = static_cast<unsigned char>(next++);
        payloads.emplace_back(packets[i].data() + offsets[i], 188 - offsets[i]);
    }
    frankenstein_byte_sequence stream;
    for (array_byte_sequence& payload : payloads)
        stream.append(payload);
    ASSERT_EQ(stream.get_length(), next);
    for (int i = 0; i < next; ++i)
        ASSERT_EQ(stream[i], static_cast<unsigned char>(i)) << i;
    // Written through the composite, the byte is in its packet, and nowhere else.
    stream[184] = 0xAB;
    EXPECT_EQ(packets[1][100], 0xAB);
    stream[next - 1] = 0xCD;
    EXPECT_EQ(packets[2][187], 0xCD);
    EXPECT_EQ(packets[0][3], 0xEE);
    EXPECT_EQ(packets[1][99], 0xEE);
}

TEST(Composite, PassesOverEmptyPiecesAndTakesOnePieceTwice) {
    Bytes none;
    Bytes some = counting(3);
    array_byte_sequence empty = view(none);
    array_byte_sequence piece = view(some);
    frankenstein_byte_sequence composite;
    for (array_byte_sequence* each : {&empty, &piece, &empty, &piece, &empty})
        composite.append(*each);
    EXPECT_EQ(contents(composite), Bytes({0, 1, 2, 0, 1, 2}));
    composite[5] = 9;
    EXPECT_EQ(composite[2], 9);
}

TEST(Composite, MayBeMadeOfViewsOfAnyKind) {
    Bytes first = counting(4);
    Bytes second = counting(4, 4);
    Bytes third = counting(10);
    array_byte_sequence whole = view(third);
    unibuffer::duo pair(view(first), view(second));
    subsequence window(whole, 8);
    frankenstein_byte_sequence inner;
    inner.append(pair);
    inner.append(window);
    frankenstein_byte_sequence outer;
    outer.append(inner);
    EXPECT_EQ(contents(outer), counting(10));
    outer[9] = 77;
    EXPECT_EQ(third[9], 77);
}

TEST(Composite, ANegativePositionIsOneOfTheFirstPiece) {
    Bytes memory = counting(10);
    array_byte_sequence piece(memory.data() + 5, 2);
    frankenstein_byte_sequence composite;
    composite.append(piece);
    EXPECT_EQ(composite[-1], 4);
}

// A piece whose length changes, which none may do while it is part of a composite.
class Growing : public byte_sequence {
public:
    explicit Growing(Bytes& bytes) : m_bytes(bytes) {}
    using byte_sequence::operator[];
    unsigned char& operator[](int position) override { return m_bytes[static_cast<std::size_t>(position)]; }
    [[nodiscard]] int get_length() const override { return static_cast<int>(m_bytes.size()); }

private:
    Bytes& m_bytes;
};

TEST(Composite, KeepsItsTotalButAsksEachPieceForItsLength) {
    Bytes first = counting(2);
    Bytes second = counting(2, 50);
    Growing growing(first);
    array_byte_sequence fixed = view(second);
    frankenstein_byte_sequence composite;
    composite.append(growing);
    composite.append(fixed);
    EXPECT_EQ(composite[2], 50);
    first.push_back(2);
    EXPECT_EQ(composite.get_length(), 4);
    EXPECT_EQ(composite[2], 2);
    EXPECT_EQ(composite[3], 50);
}

TEST(CompositeDeathTest, AConstWindowIsNoReadablePiece) {
    // A composite reads through the writable access, which a const window has not got.
    Bytes bytes = counting(4);
    const array_byte_sequence parent = view(bytes);
    constsubsequence window(parent, 0);
    frankenstein_byte_sequence composite;
    composite.append(window);
    EXPECT_EQ(composite.get_length(), 4);
    const byte_sequence& constant = composite;
    EXPECT_DEATH(static_cast<void>(constant[0]), "");
}

// --- the self-test

// The three views of the self-test, which a test may break.
class SelfTest : public testing::Test {
protected:
    // A view of so many bytes that gives or takes away what it is told to.
    class Broken : public array_byte_sequence {
    public:
        Broken(Bytes& bytes, int length) : array_byte_sequence(bytes.data(), length), m_bytes(bytes) {}
        using byte_sequence::operator[];
        unsigned char& operator[](int position) override {
            if (position == wrong_at && ++reads > right_reads) {
                spoilt = static_cast<unsigned char>(m_bytes[static_cast<std::size_t>(position)] + 1);
                return spoilt;
            }
            return array_byte_sequence::operator[](position);
        }
        [[nodiscard]] int get_length() const override {
            return array_byte_sequence::get_length() + extra_length;
        }

        int wrong_at = -1;   // where a wrong byte is given
        int right_reads = 0; // how often the right one is given before
        int extra_length = 0;

    private:
        Bytes& m_bytes;
        int reads = 0;
        unsigned char spoilt = 0;
    };

    int check(byte_sequence& composite) {
        return kestrel::check_byte_sequences(first, firstArray, second, secondArray, composite);
    }
    int check() {
        unibuffer::duo composite(view(firstArray), view(secondArray));
        return check(composite);
    }

    Bytes firstArray = counting(40);
    Bytes secondArray = counting(50, 40);
    Broken first{firstArray, 40};
    Broken second{secondArray, 50};
    CapturedLog log;
};

constexpr const char* LENGTH_BROKEN = "[CaptureTests:Error] \tbyte_sequence get_length() broken\r\n";
constexpr const char* ARRAY_BROKEN = "[CaptureTests:Error] \tbyte_sequence abs.operator[] broken\r\n";
constexpr const char* COMPOSITE_BROKEN = "[CaptureTests:Error] \tbyte_sequence fbs.operator[] broken\r\n";
constexpr const char* BROKEN = "[CaptureTests:Error] \tbyte_sequence operator[] broken\r\n";

TEST_F(SelfTest, PassesWithoutALineAndRaisesEveryByte) {
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(firstArray, counting(40, 1));
    EXPECT_EQ(secondArray, counting(50, 41));
}

TEST_F(SelfTest, OneIsTheLengthOfTheComposite) {
    for (const int length : {0, 89, 91}) {
        Bytes bytes = counting(length);
        array_byte_sequence composite = view(bytes);
        EXPECT_EQ(check(composite), 1) << length;
    }
    EXPECT_EQ(log.text(), std::string(LENGTH_BROKEN) + LENGTH_BROKEN + LENGTH_BROKEN);
    EXPECT_EQ(firstArray, counting(40)) << "nothing has been written";
}

TEST_F(SelfTest, TwoIsAByteOfTheFirstArray) {
    firstArray[39] = 0;
    EXPECT_EQ(check(), 2);
    EXPECT_EQ(log.text(), ARRAY_BROKEN);
}

TEST_F(SelfTest, ThreeIsAByteOfTheSecondArray) {
    secondArray[49] = 0;
    EXPECT_EQ(check(), 3);
    EXPECT_EQ(log.text(), ARRAY_BROKEN);
}

TEST_F(SelfTest, FourIsAByteOfTheComposite) {
    for (const std::size_t at : {0U, 39U, 40U, 89U}) {
        Bytes bytes = counting(90);
        bytes[at] = 200;
        array_byte_sequence composite = view(bytes);
        EXPECT_EQ(check(composite), 4) << at;
        // The bytes before the wrong one have been raised, it and what follows have not.
        EXPECT_EQ(bytes[at], 200);
        if (at > 0) {
            EXPECT_EQ(bytes[at - 1], at);
        }
    }
    EXPECT_THAT(log.text(), HasSubstr(COMPOSITE_BROKEN));
    EXPECT_THAT(log.text(), Not(HasSubstr(ARRAY_BROKEN)));
}

TEST_F(SelfTest, FiveIsAChangeThatDoesNotReachTheFirstArray) {
    // A composite of copies: what is written through it stays there.
    Bytes copies = counting(90);
    array_byte_sequence composite = view(copies);
    EXPECT_EQ(check(composite), 5);
    EXPECT_EQ(log.text(), BROKEN);
}

TEST_F(SelfTest, FiveIsAlsoAViewThatDiffersFromItsArray) {
    first.wrong_at = 39;
    first.right_reads = 1; // check 2 reads it once
    EXPECT_EQ(check(), 5);
    EXPECT_EQ(log.text(), BROKEN);
}

TEST_F(SelfTest, SixIsTheSameOfTheSecondArray) {
    Bytes copies = counting(50, 40);
    unibuffer::duo composite(view(firstArray), view(copies));
    EXPECT_EQ(check(composite), 6);
    EXPECT_EQ(log.text(), BROKEN);
}

TEST_F(SelfTest, SixIsAlsoAViewThatDiffersFromItsArray) {
    second.wrong_at = 0;
    second.right_reads = 1;
    EXPECT_EQ(check(), 6);
    EXPECT_EQ(log.text(), BROKEN);
}

TEST_F(SelfTest, SaysThatItRunsAndNothingElse) {
    EXPECT_EQ(byte_sequence::testHarness(), 0);
    EXPECT_EQ(log.text(), "[CaptureTests:Info]  Running testHarness\r\n");
}

} // namespace
