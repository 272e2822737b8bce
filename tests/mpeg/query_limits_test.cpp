// How far the questions about files read, and that they end on whatever they are given.
#include "foundation/CapturedLog.h"
#include "foundation/UniqueFd.h"
#include "mpeg/GetDTSBounds.h"
#include "mpeg/MpegWrapper.h"
#include "mpeg/gop_rebase.h"
#include "mpeg/grab_video_header.h"
#include "query_files.h"

#include <chrono>
#include <fcntl.h>
#include <future>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::size_t LIMIT = 106'383; // packets that a query reads at most

// Everything that a file answers.
struct Answers {
    double rate;
    int type;
    bool mpeg2;
    int profile;
    int level;
    int width;
    int height;

    bool operator==(const Answers&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Answers& a) {
    return out << a.rate << ' ' << a.type << ' ' << a.mpeg2 << ' ' << a.profile << ' ' << a.level << ' '
               << a.width << 'x' << a.height;
}

Answers ask(std::string path) {
    Answers answers{};
    answers.rate = MpegWrapper::GetFrameRateFromFile(path.c_str());
    answers.type = MpegWrapper::GetVideoType(path.c_str());
    MpegWrapper::videoProfile profile{};
    MpegWrapper::videoLevel level{};
    answers.mpeg2 = MpegWrapper::GetMpeg2VideoProfileAndLevel(path.c_str(), profile, level);
    answers.profile = profile;
    answers.level = level;
    EXPECT_EQ(grab_video_header::getDimensions(path.data(), answers.width, answers.height, 0), 0);
    return answers;
}

constexpr Answers ALL{25.0, 0, true, 4, 8, 720, 576};
constexpr Answers TYPE_ONLY{0.0, 0, false, 0, 0, -1, -1};
constexpr Answers NOTHING{0.0, 3, false, 0, 0, -1, -1};

class QueryLimits : public Queries {
protected:
    // Null packets up to that many packets in all.
    void fillTo(std::size_t packets) {
        Bytes null{0x47, 0x1F, 0xFF, 0x10};
        null.resize(188, 0xFF);
        maker.bytes.reserve(packets * 188);
        while (maker.packets() < packets)
            maker.bytes.insert(maker.bytes.end(), null.begin(), null.end());
    }
    // Bytes that reading took, by the kernel's account of this process.
    static long bytesRead() {
        std::ifstream io("/proc/self/io");
        std::string word;
        long count = -1;
        io >> word >> count;
        return count;
    }
};

// --- the first 106,383 packets

TEST_F(QueryLimits, TheLastPacketThatIsReadIsThatWithIndex106382) {
    for (const std::size_t beyond : {0U, 1U}) {
        maker = TsMaker();
        maker.tables({{0x02, VIDEO}});
        gop();
        // A PES is looked into when its third packet has come.
        fillTo(LIMIT - 3 + beyond);
        gop();
        EXPECT_EQ(ask(write()), beyond == 0 ? ALL : TYPE_ONLY);
    }
}

TEST_F(QueryLimits, TablesBehindTheLimitAreNotSeen) {
    for (const std::size_t beyond : {0U, 1U}) {
        maker = TsMaker();
        fillTo(LIMIT - 2 + beyond);
        maker.tables({{0x1B, VIDEO}});
        EXPECT_EQ(MpegWrapper::GetVideoType(write().c_str()), beyond == 0 ? 1 : 3);
    }
}

TEST_F(QueryLimits, TheFrameRateOfH264HasTheSameLimit) {
    BitString sps;
    sps.u(8, 77).u(8, 0).u(8, 40).ue(0).ue(0).ue(0).ue(0).ue(4).u(1, 0);
    sps.ue(119).ue(67).u(1, 1).u(1, 1).u(1, 0).u(1, 1).u(4, 0).u(1, 1).u(32, 1).u(32, 50).u(1, 1);
    const Bytes unit = Bytes{0, 0, 1, 0x67} + escaped(sps.bytes()) + Bytes{0, 0, 1, 0x65, 0x88, 0x55, 0x55};
    for (const std::size_t beyond : {0U, 1U}) {
        maker = TsMaker();
        maker.tables({{0x1B, VIDEO}});
        maker.pes(VIDEO, pesHeader(1), unit);
        fillTo(LIMIT - 1 + beyond);
        maker.pes(VIDEO, pesHeader(1), unit);
        EXPECT_EQ(MpegWrapper::GetFrameRateFromFile(write().c_str()), beyond == 0 ? 25.0 : 0.0);
    }
}

TEST_F(QueryLimits, TheVideoPidIsLookedForUntilThereIsVideo) {
    constexpr long SPARSE = 2'000'000'000 / 188 * 188;
    const auto bytesReadFor = [this](int streamType) {
        maker = TsMaker();
        maker.tables({{streamType, VIDEO}});
        const std::string path = write();
        std::filesystem::resize_file(path, SPARSE);
        const long before = bytesRead();
        EXPECT_EQ(MpegWrapper::GetVideoPid(path.c_str()), 3);
        return bytesRead() - before;
    };
    for (const int video : {0x01, 0x02, 0x1B})
        EXPECT_LT(bytesReadFor(video), 1'000'000) << "stream type " << video;
    const long withoutVideo = bytesReadFor(0x0F);
    EXPECT_GE(withoutVideo, 20'000'000);
    EXPECT_LT(withoutVideo, 22'000'000);
}

TEST_F(QueryLimits, DecodingTimesAreLookedForInTheWholeFile) {
    fillTo(LIMIT + 10);
    maker.tables({{0x02, VIDEO}});
    gop(3, 0x48, 720, 576, 7200, 3600);
    gop(3, 0x48, 720, 576, 10800, 7200);
    const std::string path = write();
    const File file(std::fopen(path.c_str(), "rb"));
    const auto [first, last] = GetDTSBounds::parse_file(file.get(), static_cast<long>(maker.bytes.size()));
    EXPECT_EQ(first.ticks(), 3600);
    EXPECT_EQ(last.ticks(), 7200);
}

// --- tables that change

TEST_F(QueryLimits, AMapThatMovesIsFollowed) {
    maker.tables({{0x0F, 0x101}});
    maker.tables({{0x02, VIDEO}}, 0x1001);
    // On the PID that the association table no longer names.
    maker.map({{0x1B, 0x300}});
    for (int i = 0; i < 3; ++i)
        gop();
    EXPECT_EQ(ask(write()), ALL);
}

// --- large files

TEST_F(QueryLimits, FiftyGigabytesAreAnsweredFromTheirEnds) {
    maker.tables({{0x02, VIDEO}});
    for (int i = 0; i < 3; ++i)
        gop(3, 0x48, 720, 576, 7200 + 3600 * i, 3600 + 3600 * i);
    const std::string path = write();
    TsMaker end;
    end.pes(VIDEO, pesHeader(90'000 * 600LL + 7200, 90'000 * 600LL + 3600), filler(300));
    constexpr long LENGTH = 50'000'000'000 / 188 * 188;
    const int descriptor = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(
        pwrite(descriptor, end.bytes.data(), end.bytes.size(), LENGTH - static_cast<long>(end.bytes.size())),
        static_cast<ssize_t>(end.bytes.size()));
    close(descriptor);

    long before = bytesRead();
    mpeg_timecode duration;
    EXPECT_EQ(MpegWrapper::GetDuration(path.c_str(), false, 3, duration), 0);
    EXPECT_STREQ(duration.windows_string(), "00:10:00:00");
    EXPECT_LT(bytesRead() - before, 1'000'000);

    before = bytesRead();
    EXPECT_EQ(ask(path), ALL);
    // Only the video type reads as far as the limit.
    EXPECT_LT(bytesRead() - before, 22'000'000);
}

// --- cut files

TEST_F(QueryLimits, ACutFileIsAnsweredByItsWholePackets) {
    gops(3);
    const std::string path = write();
    for (std::size_t length = maker.bytes.size(); length-- > 0;) {
        std::filesystem::resize_file(path, length);
        const std::size_t whole = length / 188;
        // Two tables, then GOPs of three packets, of which the second tells.
        ASSERT_EQ(ask(path), whole >= 8 ? ALL : whole >= 2 ? TYPE_ONLY : NOTHING) << length;
        ASSERT_TRUE(MpegWrapper::IsTransportStreamFile(path.c_str())) << length;
    }
}

TEST_F(QueryLimits, ACutFileHasTheTimesOfItsWholePackets) {
    maker.tables({{0x02, VIDEO}});
    for (int i = 1; i <= 3; ++i)
        maker.pes(VIDEO, pesHeader(3600 * i + 3600, 3600 * i), filler(100));
    const std::string path = write();
    const File file(std::fopen(path.c_str(), "rb"));
    for (std::size_t length = maker.bytes.size(); length-- > 0;) {
        std::filesystem::resize_file(path, length);
        const auto pictures = static_cast<long>(length / 188) - 2;
        const auto [first, last] = GetDTSBounds::parse_file(file.get(), static_cast<long>(length));
        ASSERT_EQ(first, pictures >= 1 ? PTS::from_ticks(3600) : PTS(-1)) << length;
        ASSERT_EQ(last, pictures >= 1 ? PTS::from_ticks(3600 * pictures) : PTS(-1)) << length;
    }
}

// --- what is no file

TEST_F(QueryLimits, ADeviceWithoutEndIsAnswered) {
    EXPECT_EQ(ask("/dev/zero"), NOTHING);
    EXPECT_FALSE(MpegWrapper::IsTransportStreamFile("/dev/zero"));
    mpeg_timecode out;
    EXPECT_EQ(MpegWrapper::GetDuration("/dev/zero", false, 3, out), 20045);
    const File device(std::fopen("/dev/zero", "rb"));
    EXPECT_EQ(GetDTSBounds::get_video_PID(device.get()), -1);
    EXPECT_EQ(GetDTSBounds::get_first_DTS(device.get(), VIDEO), -1);
    const std::string out_path = directory.path("out.ts");
    EXPECT_EQ(gop_rebase::rebaseFile("/dev/zero", out_path.c_str(), 0), -1);
}

TEST_F(QueryLimits, APipeWhoseWriterIsSilentHasNoTimesAndNoPackets) {
    const std::string path = directory.path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int writer = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    mpeg_timecode out;
    EXPECT_EQ(MpegWrapper::GetDuration(path.c_str(), false, 3, out), 20045);
    {
        const File pipe(fdopen(dup(reader), "rb"));
        EXPECT_EQ(GetDTSBounds::parse_file(pipe.get(), 188 * 100), std::pair(PTS(-1), PTS(-1)));
    }
    EXPECT_EQ(kestrel::rebase_packets(path.c_str(), directory.path("out.ts").c_str(), VIDEO, {}, false), -1);
    EXPECT_FALSE(std::filesystem::exists(directory.path("out.ts")));
    close(writer);
    close(reader);
}

TEST_F(QueryLimits, APacketReaderGivesASilentPipeUpAfterFiveSeconds) {
    const std::string path = directory.path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const int keeper = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(keeper, 0);
    gops(1);
    ASSERT_EQ(::write(keeper, maker.bytes.data(), 2 * 188), 2 * 188);
    ts_file source(path.c_str());
    EXPECT_NE(source.get_ts(), nullptr);
    EXPECT_NE(source.get_ts(), nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(source.get_ts(), nullptr) << "nothing more comes, though a writer is there";
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    close(keeper);
}

// The query's whole patience, not one for each packet.
TEST_F(QueryLimits, AQueryOfAPipeWithAPacketNowAndThenIsAnswered) {
    const std::string path = directory.path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const kestrel::UniqueFd keeper(open(path.c_str(), O_RDWR | O_CLOEXEC));
    std::promise<void> answered;
    std::thread writer([&, is_answered = answered.get_future()] {
        const Bytes null_packet = Bytes{0x47, 0x1F, 0xFF, 0x10} + Bytes(184);
        for (int i = 0; i < 20 && is_answered.wait_for(std::chrono::seconds(1)) != std::future_status::ready;
             ++i)
            EXPECT_EQ(::write(keeper.get(), null_packet.data(), null_packet.size()), 188);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(MpegWrapper::GetFrameRateFromFile(path.c_str()), 0.0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    answered.set_value();
    writer.join();
}

// --- continuity failures on the way

TEST_F(QueryLimits, AContinuityFailureIsToldByTheCheckerAndByTheDimensionsOnly) {
    gops(1);
    maker.skipCounter(VIDEO);
    gop();
    gop();
    std::string path = write();
    const auto logged = [](const auto& query) {
        LogUtil::GetInstance()->setDefaultLogLevel(BaseLogger::Debug);
        const CapturedLog log;
        query();
        return log.text();
    };
    MpegWrapper::videoProfile profile{};
    MpegWrapper::videoLevel level{};
    int width = 0;
    int height = 0;
    const std::string checker = "[mpegParseLib:Info] ContinuityNazi: error in countinuity counter!\r\n";
    const std::string line = "[captureEngLib:Debug] Continuity error: expected ";
    for (const std::string& text :
         {logged([&] { MpegWrapper::GetVideoType(path.c_str()); }),
          logged([&] { MpegWrapper::GetFrameRateFromFile(path.c_str()); }),
          logged([&] { MpegWrapper::GetMpeg2VideoProfileAndLevel(path.c_str(), profile, level); })}) {
        EXPECT_THAT(text, testing::HasSubstr(checker));
        EXPECT_THAT(text, testing::HasSubstr("[mpegParseLib:Debug] PredictCC = "));
        EXPECT_THAT(text, testing::Not(testing::HasSubstr(line)));
    }
    const std::string text = logged([&] { grab_video_header::getDimensions(path.data(), width, height, 0); });
    EXPECT_THAT(text, testing::HasSubstr(checker));
    EXPECT_THAT(text, testing::HasSubstr(line));
    EXPECT_EQ(width, 720) << "and nothing else comes of it";
    EXPECT_EQ(level, MpegWrapper::levelMain);
}

} // namespace
