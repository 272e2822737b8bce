// What the continuity checker finds when packets of real streams are lost, sent twice or exchanged: that, at
// that packet, and nothing else.
#include "foundation/Bytes.h"
#include "mpeg/mpeg.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"

#include <algorithm>
#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <ostream>
#include <string>
#include <vector>

using namespace kestrel::test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Packet = std::array<unsigned char, 188>;
using Packets = std::vector<Packet>;

Packets packetsOf(const std::string& path) {
    const std::vector<unsigned char> bytes = bytesOfFile(path);
    Packets packets(bytes.size() / 188);
    for (std::size_t i = 0; i < packets.size(); ++i)
        std::copy_n(bytes.data() + i * 188, 188, packets[i].data());
    return packets;
}

int pidOf(const Packet& packet) {
    return (packet[1] & 0x1F) << 8 | packet[2];
}

bool hasPayload(const Packet& packet) {
    return (packet[3] & 0x10) != 0;
}

int counterOf(const Packet& packet) {
    return packet[3] & 0x0F;
}

// One failure: at which packet, and the checker's words.
struct Failure {
    std::size_t index;
    std::string message;
    bool operator==(const Failure&) const = default;
    friend void PrintTo(const Failure& failure, std::ostream* out) {
        *out << failure.index << ": " << failure.message;
    }
};

std::vector<Failure> check(const Packets& packets) {
    continuity_nazi checker;
    std::vector<Failure> failures;
    for (std::size_t i = 0; i < packets.size(); ++i)
        if (!checker.packetIsCool(packets[i].data(), false))
            failures.push_back({i, checker.message()});
    return failures;
}

Failure failure(std::size_t index, int expected, int actual, int pid) {
    return {index, "expected " + std::to_string(expected) + " not " + std::to_string(actual) + " : PID " +
                       std::to_string(pid)};
}

class ContinuityOfEveryStream : public testing::TestWithParam<StreamFixture> {
protected:
    ContinuityOfEveryStream() : packets(packetsOf(streamFile(GetParam().name))) {
        for (std::size_t i = 0; i < packets.size(); ++i)
            if (hasPayload(packets[i]))
                payloads[pidOf(packets[i])].push_back(i);
    }

    Packets packets;
    std::map<int, std::vector<std::size_t>> payloads; // by PID, the packets that have one
};

TEST_P(ContinuityOfEveryStream, IsUnbroken) {
    EXPECT_THAT(check(packets), IsEmpty());
    // Tables, video and each audio are all there to be checked.
    EXPECT_EQ(payloads.size(), 4U + static_cast<std::size_t>(GetParam().audios)) << "PAT, SDT, PMT, video";
}

TEST_P(ContinuityOfEveryStream, NamesTheFirstPacketBehindALostOne) {
    for (const auto& [pid, indices] : payloads) {
        ASSERT_GE(indices.size(), 3U) << "PID " << pid;
        const std::size_t middle = indices.size() / 2;
        const std::size_t lost = indices[middle];
        // The next packet of the PID, with payload or not, bears the counter that tells.
        std::size_t next = lost + 1;
        while (pidOf(packets[next]) != pid)
            ++next;
        Packets rest = packets;
        rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(lost));
        const int before = counterOf(packets[indices[middle - 1]]);
        const int expected = (before + (hasPayload(packets[next]) ? 1 : 0)) & 15;
        EXPECT_THAT(check(rest), ElementsAre(failure(next - 1, expected, counterOf(packets[next]), pid)));
    }
}

TEST_P(ContinuityOfEveryStream, NamesAPacketSentTwice) {
    // The standard lets a packet be sent twice; the check is strict on purpose and does not.
    for (const auto& [pid, indices] : payloads) {
        const std::size_t twice = indices[indices.size() / 2];
        Packets more = packets;
        more.insert(more.begin() + static_cast<std::ptrdiff_t>(twice), packets[twice]);
        const int counter = counterOf(packets[twice]);
        EXPECT_THAT(check(more), ElementsAre(failure(twice + 1, (counter + 1) & 15, counter, pid)));
    }
}

TEST_P(ContinuityOfEveryStream, DoesNotTellAtTheEndsNorAWholeRoundOfTheCounter) {
    for (const auto& [pid, indices] : payloads) {
        Packets rest = packets;
        rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(indices.back()));
        rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(indices.front()));
        EXPECT_THAT(check(rest), IsEmpty()) << "PID " << pid;
    }
    // Sixteen lost packets of the video look like none.
    const std::vector<std::size_t>& video = payloads.at(GetParam().videoPid);
    Packets rest;
    for (std::size_t i = 0; i < packets.size(); ++i)
        if (!std::binary_search(video.begin() + 20, video.begin() + 36, i))
            rest.push_back(packets[i]);
    ASSERT_EQ(rest.size() + 16, packets.size());
    EXPECT_THAT(check(rest), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Fixtures, ContinuityOfEveryStream,
                         testing::ValuesIn(streamFixtures().begin(), streamFixtures().end()),
                         [](const auto& each) { return std::string(each.param.name); });

TEST(ContinuityOnStreams, AConstantRateWithNullAndClockPacketsIsUnbroken) {
    // Filled up to its rate with null packets, and with packets that hold nothing but the clock: these repeat
    // the counter.
    const Packets packets = packetsOf(makeStream(
        "constant_rate", "-f lavfi -i testsrc2=size=352x288:rate=25 -t 3 -threads 1 -c:v mpeg2video "
                         "-b:v 500k -maxrate 800k -bufsize 1835k -g 12 -muxrate 3M -pcr_period 20"));
    EXPECT_GT(std::count_if(packets.begin(), packets.end(), [](const auto& p) { return pidOf(p) == 0x1FFF; }),
              1000);
    EXPECT_GT(std::count_if(packets.begin(), packets.end(),
                            [](const auto& p) { return pidOf(p) == 0x100 && !hasPayload(p); }),
              20);
    EXPECT_THAT(check(packets), IsEmpty());
}

TEST(ContinuityOnStreams, ExchangedPacketsAreThreeErrorsOfTheirPid) {
    // 4 5 6 7 sent as 4 6 5 7: 6 was not expected, nor 5 behind it, nor 7 behind that.
    Packets packets = packetsOf(streamFile("m2_sd_25"));
    std::vector<std::size_t> video;
    for (std::size_t i = 0; i < packets.size(); ++i)
        if (pidOf(packets[i]) == 0x100 && hasPayload(packets[i]))
            video.push_back(i);
    const std::size_t a = video[500];
    const std::size_t b = video[501];
    std::swap(packets[a], packets[b]);
    const int first = counterOf(packets[b]); // the one that was to come first
    EXPECT_THAT(check(packets), ElementsAre(failure(a, first, (first + 1) & 15, 0x100),
                                            failure(b, (first + 2) & 15, first, 0x100),
                                            failure(video[502], (first + 1) & 15, (first + 2) & 15, 0x100)));
}

} // namespace
