// Each fixture is what its row says, by ffprobe.
#include "foundation/ScratchDir.h"
#include "streams/stream_fixtures.h"

#include "streams/ffprobe.h"
#include "streams/gop_reader.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace kestrel::test;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::IsEmpty;
using testing::Not;

namespace {

// Pictures from each I picture to the next, in the order of coding.
std::vector<int> distancesOfKeys(const std::vector<ProbedPacket>& packets) {
    std::vector<int> distances;
    int since = -1;
    for (const ProbedPacket& packet : packets) {
        if (packet.key) {
            if (since > 0)
                distances.push_back(since);
            since = 0;
        }
        if (since >= 0)
            ++since;
    }
    return distances;
}

int longestRunOfB(const std::string& types) {
    int longest = 0;
    int run = 0;
    for (const char type : types) {
        run = type == 'B' ? run + 1 : 0;
        longest = std::max(longest, run);
    }
    return longest;
}

class EveryFixture : public testing::TestWithParam<StreamFixture> {
protected:
    EveryFixture() : path(streamFile(GetParam().name)), probe(path) {}

    [[nodiscard]] bool isMpeg2() const { return std::string(GetParam().codec) == "mpeg2video"; }

    std::string path;
    Ffprobe probe;
};

// What is in the file.
TEST_P(EveryFixture, HoldsWhatItsRowSays) {
    const StreamFixture& fixture = GetParam();
    EXPECT_EQ(probe.stream("v:0", "codec_name"), fixture.codec);
    EXPECT_EQ(probe.stream("v:0", "width"), std::to_string(fixture.width));
    EXPECT_EQ(probe.stream("v:0", "height"), std::to_string(fixture.height));
    EXPECT_EQ(probe.stream("v:0", "r_frame_rate"), fixture.frameRate);
    EXPECT_NEAR(probe.duration("v:0"), 3.0, 0.05);
    EXPECT_EQ(probe.run("-show_entries program=pmt_pid -of default=nw=1:nk=1").at(0),
              std::to_string(fixture.pmtPid));
    EXPECT_EQ(probe.pid("v:0"), fixture.videoPid);
    ASSERT_EQ(probe.streams("a"), fixture.audios);
    std::string sound;
    for (int audio = 0; audio < fixture.audios; ++audio) {
        const std::string which = "a:" + std::to_string(audio);
        EXPECT_EQ(probe.pid(which), fixture.videoPid + 1 + audio);
        sound += (audio > 0 ? " " : "") + probe.stream(which, "codec_name") + "/" +
                 probe.stream(which, "channels");
    }
    EXPECT_EQ(sound, fixture.sound);
    EXPECT_EQ(std::filesystem::file_size(path) % 188, 0U);
    EXPECT_GT(std::filesystem::file_size(path), 100'000U);
}

// How its pictures are coded.
TEST_P(EveryFixture, IsCodedAsItsRowSays) {
    const Coding& coding = GetParam().coding;
    EXPECT_EQ(probe.stream("v:0", "profile"), coding.profile);
    EXPECT_EQ(probe.stream("v:0", "level"), std::to_string(coding.level));
    EXPECT_EQ(probe.stream("v:0", "field_order"), coding.fields ? "tt" : "progressive");
    const std::vector<int> distances = distancesOfKeys(probe.packets("v:0"));
    ASSERT_FALSE(distances.empty());
    // In MPEG-2 the first GOP lacks the B pictures that would be shown before its I picture.
    for (std::size_t i = isMpeg2() ? 1 : 0; i < distances.size(); ++i)
        EXPECT_EQ(distances[i], coding.gop) << "GOP " << i;
    EXPECT_EQ(longestRunOfB(probe.pictureTypes()), coding.bPictures);

    CodedHeaders headers = probe.codedHeaders();
    const std::vector<GopHeader> gops = readGops(path, GetParam().videoPid);
    // ffprobe gives a picture the time code of the GOP that it read last: the next one, where a picture is a
    // GOP.
    if (coding.gop > 1) {
        EXPECT_EQ(probe.firstTimecode(), coding.timecode);
    }
    if (!isMpeg2()) {
        EXPECT_THAT(headers["frame_mbs_only_flag"], AllOf(Not(IsEmpty()), Each(coding.fields ? 0 : 1)));
        EXPECT_THAT(headers["mb_adaptive_frame_field_flag"], Each(1)) << "told when interlaced only";
        EXPECT_THAT(gops, IsEmpty());
        return;
    }
    EXPECT_THAT(headers["frame_rate_code"], AllOf(Not(IsEmpty()), Each(GetParam().rateCode)));
    EXPECT_THAT(headers["progressive_sequence"], AllOf(Not(IsEmpty()), Each(coding.fields ? 0 : 1)));
    ASSERT_GT(gops.size(), 2U);
    EXPECT_EQ(gops[0].text(), coding.timecode);
    EXPECT_TRUE(gops[0].closed);
    for (std::size_t i = 1; i < gops.size(); ++i)
        EXPECT_EQ(gops[i].closed, coding.closed) << "GOP " << i;
    // The reader that judges the library is judged here.
    std::vector<long> timecodes, closed, broken;
    for (const GopHeader& gop : gops) {
        timecodes.push_back((gop.drop ? 1L << 24 : 0) | gop.hours << 19 | gop.minutes << 13 | 1 << 12 |
                            gop.seconds << 6 | gop.frames);
        closed.push_back(gop.closed ? 1 : 0);
        broken.push_back(gop.broken ? 1 : 0);
    }
    EXPECT_EQ(timecodes, headers["time_code"]);
    EXPECT_EQ(closed, headers["closed_gop"]);
    EXPECT_EQ(broken, headers["broken_link"]);
}

const auto nameOf = [](const auto& each) { return std::string(each.param.name); };

INSTANTIATE_TEST_SUITE_P(Table, EveryFixture,
                         testing::ValuesIn(streamFixtures().begin(), streamFixtures().end()), nameOf);
INSTANTIATE_TEST_SUITE_P(Untimed, EveryFixture,
                         testing::ValuesIn(untimedStreamFixtures().begin(), untimedStreamFixtures().end()),
                         nameOf);

class EveryH264Fixture : public testing::TestWithParam<StreamFixture> {};

TEST_P(EveryH264Fixture, SaysItsRateOrLeavesItOut) {
    const std::string path = streamFile(GetParam().name);
    const Ffprobe probe(path);
    const bool untimed = std::string_view(GetParam().name).find("untimed") != std::string_view::npos;
    CodedHeaders headers = probe.codedHeaders();
    EXPECT_THAT(headers["timing_info_present_flag"], AllOf(Not(IsEmpty()), Each(untimed ? 0 : 1)));
    EXPECT_EQ(headers["num_units_in_tick"].empty(), untimed);
    // What stands behind the timing is still read as it was meant.
    EXPECT_THAT(headers["nal_hrd_parameters_present_flag"], AllOf(Not(IsEmpty()), Each(0)));
    EXPECT_THAT(headers["bitstream_restriction_flag"], AllOf(Not(IsEmpty()), Each(1)));
    EXPECT_THAT(headers["motion_vectors_over_pic_boundaries_flag"], AllOf(Not(IsEmpty()), Each(1)));
    EXPECT_THAT(probe.run("-count_frames -show_entries stream=nb_read_frames -select_streams v:0 "
                          "-of default=nw=1:nk=1 2>&1"),
                Each(std::to_string(probe.packets("v:0").size())))
        << "decoded without a complaint";
}

std::vector<StreamFixture> h264Fixtures() {
    std::vector<StreamFixture> found(untimedStreamFixtures().begin(), untimedStreamFixtures().end());
    for (const StreamFixture& fixture : streamFixtures())
        if (std::string_view(fixture.codec) == "h264")
            found.push_back(fixture);
    return found;
}

INSTANTIATE_TEST_SUITE_P(Table, EveryH264Fixture, testing::ValuesIn(h264Fixtures()), nameOf);

TEST(StreamFixtures, NamesAreTheirOwn) {
    std::set<std::string_view> names;
    for (const auto table : {streamFixtures(), untimedStreamFixtures()})
        for (const StreamFixture& fixture : table)
            EXPECT_TRUE(names.insert(fixture.name).second) << fixture.name;
}

TEST(StreamFixtures, CoverEveryMpeg2RateInSdAndHd) {
    std::set<std::pair<int, bool>> covered;
    for (const StreamFixture& fixture : streamFixtures())
        if (std::string_view(fixture.codec) == "mpeg2video")
            covered.insert({fixture.rateCode, fixture.height >= 720});
    for (int code = 1; code <= 7; ++code)
        for (const bool hd : {false, true})
            EXPECT_THAT(covered, Contains(std::pair(code, hd)));
}

// A stream of this process alone, so that it can be taken away.
class AskedAtOnce : public testing::Test {
protected:
    ~AskedAtOnce() override {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
        std::filesystem::remove(path + ".lock", ignored);
    }
    std::string make() {
        return makeStream(name, "-f lavfi -i color=size=64x64:rate=25 -t 1 -c:v mpeg2video");
    }

    std::string name = "asked_at_once_" + std::to_string(getpid());
    std::string path;
};

TEST_F(AskedAtOnce, ThreadsGetOneFile) {
    std::vector<std::thread> threads;
    std::vector<std::string> paths(4);
    for (std::string& each : paths)
        threads.emplace_back([this, &each] { each = make(); });
    for (std::thread& thread : threads)
        thread.join();
    path = paths[0];
    EXPECT_THAT(paths, Each(path));
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_FALSE(std::filesystem::exists(path + ".part"));
}

TEST_F(AskedAtOnce, ProcessesGetOneFile) {
    int pipe[2];
    ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
    std::vector<pid_t> children;
    for (int i = 0; i < 4; ++i) {
        children.push_back(fork());
        if (children.back() != 0)
            continue;
        // The inode tells whether somebody made the file a second time.
        struct stat file {};
        const bool found = ::stat(make().c_str(), &file) == 0;
        _exit(found && write(pipe[1], &file.st_ino, sizeof file.st_ino) == sizeof file.st_ino ? 0 : 1);
    }
    std::set<ino_t> inodes;
    for (const pid_t child : children) {
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        ino_t inode = 0;
        ASSERT_EQ(read(pipe[0], &inode, sizeof inode), static_cast<ssize_t>(sizeof inode));
        inodes.insert(inode);
    }
    close(pipe[0]);
    close(pipe[1]);
    path = make();
    struct stat file {};
    ASSERT_EQ(::stat(path.c_str(), &file), 0);
    EXPECT_EQ(inodes, std::set<ino_t>{file.st_ino});
}

TEST(StreamFixtures, OneThatCannotBeMadeOrIsUnknownIsAnError) {
    EXPECT_THROW(makeStream("cannot_be_made", "-i /nonexistent 2>/dev/null"), std::runtime_error);
    EXPECT_THROW(streamFile("nothing"), std::runtime_error);
}

TEST(Ffprobe, AnswersAboutAKeptStreamAreKeptBesideIt) {
    const std::string path = streamFile("m2_sd_25");
    const auto answersBeside = [](const std::string& file) {
        long count = 0;
        for (const auto& entry :
             std::filesystem::directory_iterator(std::filesystem::path(file).parent_path()))
            count += entry.path().string().starts_with(file) && entry.path().extension() == ".answer";
        return count;
    };
    const std::vector<ProbedPacket> asked = Ffprobe(path).packets("v:0");
    EXPECT_GT(answersBeside(path), 0);
    const std::vector<ProbedPacket> kept = Ffprobe(path).packets("v:0");
    ASSERT_EQ(kept.size(), 75U);
    EXPECT_EQ(kept.size(), asked.size());
    EXPECT_EQ(kept.back().dts, asked.back().dts);

    const ScratchDir directory;
    const std::string copy = directory.path("copy.ts");
    std::filesystem::copy(path, copy);
    EXPECT_EQ(Ffprobe(copy).packets("v:0").size(), 75U);
    EXPECT_EQ(answersBeside(copy), 0) << "another file may change";
}

TEST(Ffprobe, SaysSoWhenItFails) {
    EXPECT_THROW(static_cast<void>(Ffprobe("/nonexistent").run("2>/dev/null -show_entries format=size")),
                 std::runtime_error);
}

} // namespace
