// GOP headers that spill over into the next packets of their PES, and which rate and flag a rebase counts
// with.
#include "mpeg/MpegWrapper.h"
#include "mpeg/gop_rebase.h"
#include "mpeg/mpeg2.h"
#include "query_files.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Collector : public packet_mangler {
public:
    Collector() : packet_mangler(0) {}
    void process(unsigned char* packet, long /*index*/) override {
        bytes.insert(bytes.end(), packet, packet + 188);
    }
    void flush(long /*index*/) override {}

    Bytes bytes;
};

class GopSpill : public Queries {
protected:
    Bytes rebased(int mode = gop_rebase::rebase_to_zero, const mpeg_timecode& offset = mpeg_timecode()) {
        Collector out;
        gop_rebase stage(VIDEO, &out, mode, offset, 0);
        Bytes in = maker.bytes;
        for (std::size_t i = 0; i < maker.packets(); ++i)
            stage.process(in.data() + i * 188, static_cast<long>(i));
        stage.flush(static_cast<long>(maker.packets()));
        return out.bytes;
    }
    // The payloads of the video packets one behind the other.
    static Bytes stream(const Bytes& packets) {
        Bytes joined;
        for (std::size_t at = 0; at < packets.size(); at += 188) {
            const unsigned char* const packet = packets.data() + at;
            if (kestrel::ts::pid(packet) != VIDEO)
                continue;
            const auto payload = kestrel::ts::payload(packet);
            joined.insert(joined.end(), payload.begin(), payload.end());
        }
        return joined;
    }
    // The GOP headers of the stream, as labels.
    static std::vector<std::string> labels(const Bytes& packets) {
        Bytes joined = stream(packets);
        std::vector<std::string> found;
        for (std::size_t i = 0; i + 8 <= joined.size(); ++i) {
            if (joined[i] != 0 || joined[i + 1] != 0 || joined[i + 2] != 1 || joined[i + 3] != 0xB8)
                continue;
            const array_byte_sequence gop(joined.data() + i, 8);
            char text[20];
            std::snprintf(text, sizeof text, "%02d:%02d:%02d%c%02d", MPEG::GOP::get_hours(gop),
                          MPEG::GOP::get_minutes(gop), MPEG::GOP::get_seconds(gop),
                          MPEG::GOP::get_drop_frame(gop) ? ';' : ':', MPEG::GOP::get_frames(gop));
            found.emplace_back(text);
        }
        return found;
    }
    // A PES whose first packet ends after that many bytes of the GOP header, all else being payload.
    void spilled(std::size_t bytesOfHeader, const Bytes& header, int rateCode = 3) {
        const Bytes head = pesHeader(1) + sequenceHeader(720, 576, rateCode);
        maker.pes(VIDEO, head, filler(184 - head.size() - bytesOfHeader) + header + filler(300));
    }
    void end() { maker.packet(VIDEO, true, pesHeader(2) + filler(20)); }
};

TEST_F(GopSpill, AHeaderCutAtAnyByteIsRewrittenAndItsOtherBitsStay) {
    for (std::size_t cut = 0; cut <= 8; ++cut)
        for (const bool closed : {false, true}) {
            maker = TsMaker();
            Bytes header = gopHeader(1, 2, 3, 5, false, closed);
            header[7] |= 0x20; // broken_link
            spilled(cut, header);
            end();
            Bytes expected = stream(maker.bytes);
            const Bytes out = rebased();
            EXPECT_THAT(labels(out), ElementsAre("00:00:00:00")) << cut;
            const auto at = std::search(expected.begin(), expected.end(), header.begin(), header.end());
            ASSERT_NE(at, expected.end());
            const Bytes timecode{0x00, 0x08, 0x00, static_cast<unsigned char>(header[7] & 0x7F)};
            std::copy(timecode.begin(), timecode.end(), at + 4);
            EXPECT_EQ(stream(out), expected) << cut << " and not one bit beside the time code";
        }
}

TEST_F(GopSpill, OtherPidsBetweenTheTwoPacketsStayInTheirPlaces) {
    const Bytes head = pesHeader(1) + sequenceHeader(720, 576, 3);
    const Bytes header = gopHeader(1, 2, 3, 4);
    maker.packet(0x200, false, filler(184));
    maker.packet(VIDEO, true, head + Bytes(header.begin(), header.begin() + 5));
    maker.packet(0x200, false, filler(100)).packet(0x1FFF, false, filler(184));
    maker.packet(0x200, true, gopHeader(9, 9, 9, 9) + filler(50)); // not of the video
    maker.packet(VIDEO, false, Bytes(header.begin() + 5, header.end()) + filler(30));
    end();
    const Bytes out = rebased();
    EXPECT_THAT(labels(out), ElementsAre("00:00:00:00"));
    ASSERT_EQ(out.size(), maker.bytes.size());
    for (std::size_t at = 0; at < out.size(); at += 188)
        if (kestrel::ts::pid(out.data() + at) != VIDEO) {
            EXPECT_TRUE(std::equal(out.begin() + static_cast<long>(at),
                                   out.begin() + static_cast<long>(at + 188),
                                   maker.bytes.begin() + static_cast<long>(at)))
                << at / 188;
        }
}

TEST_F(GopSpill, APacketWithoutPayloadBetweenThemIsTakenForTheNext) {
    // It is the next one of the PID, and joins nothing: the header stays as it is.
    const Bytes header = gopHeader(1, 2, 3, 4);
    maker.packet(VIDEO, true, pesHeader(1) + Bytes(header.begin(), header.begin() + 5));
    maker.packet(VIDEO, false, {});
    maker.packet(VIDEO, false, Bytes(header.begin() + 5, header.end()) + filler(30));
    end();
    EXPECT_EQ(rebased(), maker.bytes);
}

TEST_F(GopSpill, IntoTheThirdPacketItIsNotSeen) {
    const Bytes head = pesHeader(1) + sequenceHeader(720, 576, 3);
    const Bytes whole = head + filler(2 * 184 - head.size() - 6) + gopHeader(1, 2, 3, 4) + filler(100);
    maker.pes(VIDEO, whole, {});
    end();
    EXPECT_EQ(rebased(), maker.bytes) << "only two packets are joined";
    maker = TsMaker();
    maker.pes(VIDEO, head + filler(2 * 184 - head.size() - 8) + gopHeader(1, 2, 3, 4), filler(100));
    end();
    EXPECT_THAT(labels(rebased()), ElementsAre("00:00:00:00")) << "the last place that is";
}

TEST_F(GopSpill, SpilledHeadersOfAFileAreRewrittenToo) {
    maker.tables({{0x02, VIDEO}});
    for (int i = 0; maker.packets() < 2 * 349; ++i)
        spilled(static_cast<std::size_t>(i % 9), gopHeader(10, 0, i % 60, 0));
    const std::string out = directory.path("out.ts");
    EXPECT_EQ(MpegWrapper::rebaseFile(write().c_str(), out.c_str(), gop_rebase::rebase_to_zero, {}), 0);
    const std::string written = contentOf(out);
    const Bytes bytes(written.begin(), written.end() - static_cast<long>(written.size() % 188));
    const std::vector<std::string> found = labels(bytes);
    ASSERT_GT(found.size(), 60U);
    for (std::size_t i = 0; i < 60; ++i) {
        char expected[20];
        std::snprintf(expected, sizeof expected, "00:00:%02zu:00", i);
        EXPECT_EQ(found[i], expected);
    }
}

// --- what is counted with

class GopRate : public GopSpill {
protected:
    void gopOf(int rateCode, const Bytes& header) {
        maker.pes(VIDEO, pesHeader(1), sequenceHeader(720, 576, rateCode) + header + filler(20));
    }
};

TEST_F(GopRate, TheLatestSequenceHeaderTells) {
    gopOf(3, gopHeader(0, 0, 0, 24));
    gopOf(5, gopHeader(0, 0, 0, 24)); // 30 frames a second from here
    maker.pes(VIDEO, pesHeader(1), gopHeader(0, 0, 0, 29) + filler(20));
    end();
    EXPECT_THAT(labels(rebased(gop_rebase::add_offset, mpeg_timecode(0, 0, 0, 1, false, 3))),
                ElementsAre("00:00:01:00", "00:00:00:25", "00:00:01:00"));
}

TEST_F(GopRate, EachGopKeepsItsOwnDropFrameFlag) {
    gopOf(4, gopHeader(1, 0, 0, 0, true));
    gopOf(4, gopHeader(1, 0, 1, 0, false));
    end();
    EXPECT_THAT(labels(rebased()), ElementsAre("00:00:00;00", "00:00:01:00"));
}

TEST_F(GopRate, SeveralGopsOfOnePesAreAllRewritten) {
    maker.pes(VIDEO, pesHeader(1),
              sequenceHeader(720, 576, 3) + gopHeader(2, 0, 0, 0) + pictureHeader() + gopHeader(2, 0, 1, 0) +
                  filler(20));
    end();
    EXPECT_THAT(labels(rebased()), ElementsAre("00:00:00:00", "00:00:01:00"));
}

TEST_F(GopRate, ACodeThatIsNotInUseGivesMidnight) {
    for (const int code : {0, 9, 15}) {
        maker = TsMaker();
        gopOf(code, gopHeader(1, 0, 0, 0, true));
        gopOf(code, gopHeader(1, 0, 1, 0, true));
        end();
        EXPECT_THAT(labels(rebased()), ElementsAre("00:00:00;00", "00:00:00:00")) << code;
    }
}

TEST_F(GopRate, ATimeCodeOutOfBoundsIsRewrittenAsItCounts) {
    // 31:63:63:63 at 25: hours wrap to 7, the rest counts on; minus 7 hours.
    gopOf(3, gopHeader(7, 0, 0, 0));
    gopOf(3, gopHeader(31, 63, 63, 63));
    end();
    EXPECT_THAT(labels(rebased()), ElementsAre("00:00:00:00", "01:04:05:13"));
}

TEST_F(GopRate, AStreamWithoutAGopStaysAsItIs) {
    maker.tables({{0x02, VIDEO}});
    maker.pes(VIDEO, pesHeader(1), sequenceHeader(720, 576, 3) + pictureHeader() + filler(400));
    end();
    EXPECT_EQ(rebased(), maker.bytes);
    EXPECT_THAT(labels(maker.bytes), IsEmpty());
}

} // namespace
