// Map tables and PES headers of real streams, read field by field and judged by ffprobe.
#include "foundation/Bytes.h"
#include "mpeg/mpeg2.h"
#include "mpeg/packet_view.h"
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"

#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

using namespace kestrel::test;
namespace ts = kestrel::ts;

namespace {

class TablesOfEveryStream : public testing::TestWithParam<StreamFixture> {
protected:
    TablesOfEveryStream()
        : path(streamFile(GetParam().name)), probe(path), bytes(bytesOfFile(path)), pids(listed("id")),
          codecs(listed("codec_name")) {}

    // An entry of every stream in the file's order. ffprobe tells each one in its program and then again.
    [[nodiscard]] std::vector<std::string> listed(const std::string& entry) const {
        const auto lines = probe.run("-show_entries stream=" + entry + " -of default=nw=1:nk=1");
        const auto half = static_cast<long>(lines.size() / 2);
        return {lines.begin() + half, lines.end()};
    }
    [[nodiscard]] std::vector<unsigned char*> packets() {
        std::vector<unsigned char*> found;
        for (std::size_t at = 0; at + ts::packet_size <= bytes.size(); at += ts::packet_size)
            found.push_back(bytes.data() + at);
        return found;
    }
    // Every packet of the map table.
    [[nodiscard]] std::vector<unsigned char*> maps() {
        std::vector<unsigned char*> found;
        int pmt = 0;
        for (unsigned char* const packet : packets()) {
            if (ts::pid(packet) == 0)
                pmt = MPEG::PAT::PID_of_first_PMT(packet);
            else if (ts::pid(packet) == pmt)
                found.push_back(packet);
        }
        return found;
    }

    std::string path;
    Ffprobe probe;
    std::vector<unsigned char> bytes;
    std::vector<std::string> pids;
    std::vector<std::string> codecs;
};

TEST_P(TablesOfEveryStream, ListItsStreamsInTheirOrder) {
    std::vector<int> expected;
    for (const std::string& pid : pids)
        expected.push_back(std::stoi(pid, nullptr, 16));
    ASSERT_EQ(expected.size(), 1U + static_cast<unsigned>(GetParam().audios));
    ASSERT_GT(maps().size(), 10U) << "one every tenth of a second";
    for (const unsigned char* const packet : maps()) {
        std::vector<int> found;
        for (const unsigned char* const entry : PMT_PIDInfo_iterable(packet))
            found.push_back(MPEG::PMT::PIDInfo::elementary_PID(entry));
        ASSERT_EQ(found, expected);
    }
}

TEST_P(TablesOfEveryStream, TellWhatKindEachStreamIs) {
    using namespace MPEG::PMT::PIDInfo;
    std::size_t index = 0;
    for (const unsigned char* const entry : PMT_PIDInfo_iterable(maps().at(0))) {
        const std::string& codec = codecs.at(index++);
        EXPECT_EQ(is_AC3(entry), codec == "ac3") << codec;
        // E-AC-3 is in PES packets, too, but of a stream_type of its own (0x87), which is not one of those
        // known.
        EXPECT_EQ(is_PES(entry), codec != "eac3") << codec;
        // Also where the sound is 5.1, as the test below says.
        EXPECT_FALSE(is_AC3_51(entry)) << codec;
        EXPECT_FALSE(is_SCTE27(entry)) << codec;
    }
    EXPECT_EQ(index, codecs.size());
}

// ffmpeg sends a picture in each PES packet, and a DTS only where it is not the PTS.
TEST_P(TablesOfEveryStream, TimeTheirPicturesAsFfprobeSays) {
    const std::vector<ProbedPacket> pictures = probe.packets("v:0");
    std::size_t index = 0;
    for (unsigned char* const packet : packets()) {
        if (ts::pid(packet) != GetParam().videoPid || !ts::payload_unit_start(packet))
            continue;
        ASSERT_LT(index, pictures.size());
        const ProbedPacket& picture = pictures[index];
        const PTS pts = PTS::from_ticks(picture.pts);
        const PTS dts = picture.dts == picture.pts ? PTS(-1) : PTS::from_ticks(picture.dts);
        ts::writable_bytes payload = ts::payload(packet);
        const array_byte_sequence pes(payload.data(), static_cast<int>(payload.size()));
        ASSERT_EQ(MPEG::PES::get_PTS(pes), pts) << index;
        ASSERT_EQ(MPEG::PES::get_DTS(pes), dts) << index;
        ASSERT_EQ(MPEG::PES::get_PTS(payload.data()), pts) << index;
        ASSERT_EQ(MPEG::PES::get_DTS(payload.data()), dts) << index;
        EXPECT_EQ(ts::pes_header(packet).size(), static_cast<std::size_t>(MPEG::PES::header_length(pes)));
        ++index;
    }
    EXPECT_EQ(index, pictures.size());
    EXPECT_GT(index, 50U);
}

class SurroundSound : public TablesOfEveryStream {};

// Five full channels are told by the AC-3 audio descriptor (0x81). ffmpeg registers "AC-3" and does not send
// one, so that its 5.1 sound is not known as such.
TEST_P(SurroundSound, IsKnownByADescriptorThatFfmpegDoesNotSend) {
    using namespace MPEG::PMT::PIDInfo;
    ASSERT_EQ(probe.stream("a:0", "channels"), "6");
    const PMT_PIDInfo_iterable entries(maps().at(0));
    const unsigned char* const sound = *++entries.begin();
    ASSERT_EQ(elementary_PID(sound), probe.pid("a:0"));
    EXPECT_TRUE(is_AC3(sound));
    EXPECT_FALSE(is_AC3_51(sound));
    std::vector<unsigned char> told(sound, sound + 5 + ES_info_length(sound));
    const unsigned char descriptor[] = {0x81, 3, 0, 0, 7 << 1};
    told.insert(told.end(), std::begin(descriptor), std::end(descriptor));
    told[4] = static_cast<unsigned char>(told[4] + std::size(descriptor));
    EXPECT_TRUE(is_AC3_51(told.data())) << "with it, it is";
    EXPECT_TRUE(is_AC3(told.data()));
}

const auto nameOf = [](const auto& each) { return std::string(each.param.name); };

INSTANTIATE_TEST_SUITE_P(Fixtures, TablesOfEveryStream,
                         testing::ValuesIn(streamFixtures().begin(), streamFixtures().end()), nameOf);
INSTANTIATE_TEST_SUITE_P(Untimed, TablesOfEveryStream,
                         testing::ValuesIn(untimedStreamFixtures().begin(), untimedStreamFixtures().end()),
                         nameOf);

std::vector<StreamFixture> surroundFixtures() {
    std::vector<StreamFixture> found;
    for (const StreamFixture& fixture : streamFixtures())
        if (std::string_view(fixture.sound) == "ac3/6")
            found.push_back(fixture);
    return found;
}

INSTANTIATE_TEST_SUITE_P(Fixtures, SurroundSound, testing::ValuesIn(surroundFixtures()), nameOf);

} // namespace
