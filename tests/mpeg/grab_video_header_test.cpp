// The stage that keeps the headers of MPEG-2 video.
#include "mpeg/grab_video_header.h"
#include "query_files.h"

namespace {

class GrabVideo : public Queries {
protected:
    void feed() {
        for (std::size_t at = 0; at + 188 <= maker.bytes.size(); at += 188)
            grabber.process(maker.bytes.data() + at, 0);
        maker.bytes.clear();
    }
    void feedPes(const Bytes& stream, std::int64_t pts = 3600) {
        Bytes padded = stream;
        padded.resize(500, 0x55);
        maker.pes(VIDEO, pesHeader(pts), padded);
        feed();
    }

    static Bytes firstOf(const Bytes& bytes, std::size_t count) {
        return {bytes.begin(), bytes.begin() + static_cast<long>(count)};
    }
    // A grabber that has looked into these bytes (at most 184), which are all of the joined payloads.
    static std::unique_ptr<grab_video_header> fedWith(const Bytes& joined) {
        auto fresh = std::make_unique<grab_video_header>(VIDEO, 0);
        TsMaker stream;
        // Two packets without a byte of payload, so that a cut is the end.
        stream.packet(VIDEO, true, joined).packet(VIDEO, false, {}).packet(VIDEO, false, {});
        for (std::size_t at = 0; at + 188 <= stream.bytes.size(); at += 188) {
            // In memory of its own size, so that a sanitizer sees the byte behind.
            const auto packet = std::make_unique<unsigned char[]>(188);
            std::copy_n(stream.bytes.data() + at, 188, packet.get());
            fresh->process(packet.get(), 0);
        }
        return fresh;
    }

    grab_video_header grabber{VIDEO, 0};
};

TEST_F(GrabVideo, KeepsTheHeadersOfTheLastPesThatHadOne) {
    feedPes(sequenceHeader(720, 576, 3) + sequenceExtension(0x48) + gopHeader(1, 2, 3, 4));
    ASSERT_NE(grabber.sequence_header(), nullptr);
    ASSERT_NE(grabber.sequence_extension(), nullptr);
    ASSERT_NE(grabber.gop_header(), nullptr);
    EXPECT_EQ(grabber.gop_count(), 1);
    EXPECT_EQ(grabber.pts(), PTS::from_ticks(3600));
    feedPes(pictureHeader(2), 7200);
    EXPECT_NE(grabber.sequence_header(), nullptr) << "a PES without any is discarded";
    EXPECT_EQ(grabber.pts(), PTS::from_ticks(7200));
    feedPes(gopHeader(1, 2, 3, 5));
    EXPECT_EQ(grabber.sequence_header(), nullptr) << "what was not found becomes null";
    EXPECT_EQ(grabber.sequence_extension(), nullptr);
    EXPECT_NE(grabber.gop_header(), nullptr);
    EXPECT_EQ(grabber.gop_count(), 2);
}

TEST_F(GrabVideo, AnExtensionAloneReplacesWhatWasKept) {
    feedPes(sequenceHeader(720, 576, 3) + sequenceExtension(0x48) + gopHeader(1, 2, 3, 4));
    feedPes(sequenceExtension(0x44));
    EXPECT_EQ(grabber.sequence_header(), nullptr);
    EXPECT_EQ(grabber.gop_header(), nullptr);
    ASSERT_NE(grabber.sequence_extension(), nullptr);
    EXPECT_EQ(grabber.sequence_extension()[5] >> 4, 0x4) << "the level of the new one";
}

TEST_F(GrabVideo, HeadersMayLieAcrossThreePackets) {
    for (std::size_t before = 0; before < 150; ++before) {
        grab_video_header fresh(VIDEO, 0);
        TsMaker stream;
        stream.pes(VIDEO, pesHeader(1), filler(before) + sequenceHeader(720, 576, 3) + filler(500), 100);
        for (std::size_t at = 0; at + 188 <= stream.bytes.size(); at += 188)
            fresh.process(stream.bytes.data() + at, 0);
        ASSERT_NE(fresh.sequence_header(), nullptr) << before;
        EXPECT_EQ(fresh.sequence_header()[7] & 0xF, 3);
    }
}

TEST_F(GrabVideo, TheScanEndsWithTheFirstCodeInTheSecondHalf) {
    // 552 bytes of payload: the search from 276 on finds nothing more.
    const auto gopsSeen = [](std::size_t first, std::size_t second) {
        grab_video_header fresh(VIDEO, 0);
        Bytes payload = pesHeader(1) + filler(538);
        const Bytes header = gopHeader(0, 0, 0, 0);
        std::copy(header.begin(), header.end(), payload.begin() + static_cast<long>(first));
        std::copy(header.begin(), header.end(), payload.begin() + static_cast<long>(second));
        TsMaker stream;
        stream.pes(VIDEO, Bytes(payload.begin(), payload.begin() + 14),
                   Bytes(payload.begin() + 14, payload.end()));
        for (std::size_t at = 0; at + 188 <= stream.bytes.size(); at += 188)
            fresh.process(stream.bytes.data() + at, 0);
        return fresh.gop_count();
    };
    EXPECT_EQ(gopsSeen(100, 200), 2);
    EXPECT_EQ(gopsSeen(100, 300), 2) << "the first one in the second half";
    EXPECT_EQ(gopsSeen(300, 400), 1) << "and no other";
    EXPECT_EQ(gopsSeen(270, 400), 2) << "the search goes on at 274";
    EXPECT_EQ(gopsSeen(271, 400), 1) << "and ends at 275";
}

TEST_F(GrabVideo, FieldsOfTheFirstGopAreCounted) {
    EXPECT_EQ(grabber.field_counter(), 0);
    feedPes(pictureHeader());
    EXPECT_EQ(grabber.field_counter(), 0) << "no GOP yet";
    // What an extension says of a picture counts in any group, though its picture does not.
    feedPes(pictureHeader() + pictureCodingExtension(1, false, false));
    EXPECT_EQ(grabber.field_counter(), -1) << "a field picture before any GOP";
    feedPes(pictureHeader() + pictureCodingExtension(3, true, true));
    EXPECT_EQ(grabber.field_counter(), 0) << "one field repeated before any GOP";
    feedPes(gopHeader(0, 0, 0, 0) + pictureHeader());
    EXPECT_EQ(grabber.field_counter(), 2);
    feedPes(pictureHeader() + pictureCodingExtension(3, true, false));
    EXPECT_EQ(grabber.field_counter(), 4) << "a frame picture";
    feedPes(pictureHeader() + pictureCodingExtension(1, false, false));
    EXPECT_EQ(grabber.field_counter(), 5) << "a field picture";
    feedPes(pictureHeader() + pictureCodingExtension(3, true, true));
    EXPECT_EQ(grabber.field_counter(), 8) << "one field repeated";
    feedPes(gopHeader(0, 0, 0, 0) + pictureHeader());
    EXPECT_EQ(grabber.field_counter(), 8) << "the second GOP";
    feedPes(pictureHeader() + pictureCodingExtension(3, true, true));
    EXPECT_EQ(grabber.field_counter(), 9) << "one field repeated in the second GOP";
}

TEST_F(GrabVideo, AProgressiveSequenceRepeatsWholeFrames) {
    const auto counted = [](bool progressive, bool topFirst) {
        grab_video_header fresh(VIDEO, 0);
        TsMaker stream;
        stream.pes(VIDEO, pesHeader(1),
                   sequenceExtension(0x48, progressive) + gopHeader(0, 0, 0, 0) + pictureHeader() +
                       pictureCodingExtension(3, topFirst, true) + filler(500));
        for (std::size_t at = 0; at + 188 <= stream.bytes.size(); at += 188)
            fresh.process(stream.bytes.data() + at, 0);
        return fresh.field_counter();
    };
    EXPECT_EQ(counted(true, true), 2 + 4);
    EXPECT_EQ(counted(true, false), 2 + 2);
    EXPECT_EQ(counted(false, true), 2 + 1);
}

TEST_F(GrabVideo, BeginsWithAPesAndTakesTheNextTwoPackets) {
    maker.packet(VIDEO, false, gopHeader(0, 0, 0, 0) + filler(100)); // in the middle of something
    maker.packet(VIDEO, true, pesHeader(1) + gopHeader(0, 0, 0, 1));
    maker.packet(0x300, true, gopHeader(0, 0, 0, 0));
    maker.packet(VIDEO, true, pesHeader(2) + filler(30)); // whatever they begin
    feed();
    EXPECT_EQ(grabber.gop_count(), 0) << "three packets are looked into together";
    Bytes empty{0x47, VIDEO >> 8, VIDEO & 0xFF, 0x20, 183};
    empty.resize(188, 0xFF);
    maker.bytes = empty; // no payload
    feed();
    EXPECT_EQ(grabber.gop_count(), 0);
    maker.packet(VIDEO, false, filler(100));
    feed();
    EXPECT_EQ(grabber.gop_count(), 1);
    ASSERT_NE(grabber.gop_header(), nullptr);
    EXPECT_EQ(grabber.gop_header()[7] >> 7, 1) << "that of frame 1";
    EXPECT_EQ(grabber.pts(), PTS::from_ticks(2)) << "of the last PES header among them";
}

TEST_F(GrabVideo, OnlyVideoStreamIdsGiveATime) {
    const auto time = [](int streamId, std::int64_t pts) {
        grab_video_header fresh(VIDEO, 0);
        TsMaker stream;
        stream.pes(VIDEO, pesHeader(pts, -1, streamId), filler(500));
        for (std::size_t at = 0; at + 188 <= stream.bytes.size(); at += 188)
            fresh.process(stream.bytes.data() + at, 0);
        return fresh.pts();
    };
    EXPECT_EQ(time(0xE0, 3600), PTS::from_ticks(3600));
    EXPECT_EQ(time(0xEF, 3600), PTS::from_ticks(3600));
    EXPECT_EQ(time(0xDF, 3600), -1);
    EXPECT_EQ(time(0xF0, 3600), -1);
    EXPECT_EQ(time(0xE0, -1), -1);
}

TEST_F(GrabVideo, OnlyASequenceExtensionInFrontTellsWhatIsRepeated) {
    feedPes(sequenceExtension(0x48, true) + gopHeader(0, 0, 0, 0) + pictureHeader());
    EXPECT_EQ(grabber.field_counter(), 2);
    // That of another PES does not count, nor one behind the picture.
    feedPes(pictureHeader() + pictureCodingExtension(3, true, true));
    EXPECT_EQ(grabber.field_counter(), 2 + 2 + 1);
    feedPes(pictureHeader() + pictureCodingExtension(3, true, true) + sequenceExtension(0x48, true));
    EXPECT_EQ(grabber.field_counter(), 5 + 2 + 1);
    feedPes(pictureHeader() + pictureCodingExtension(2, false, false));
    EXPECT_EQ(grabber.field_counter(), 8 + 2 - 1) << "a bottom field";
}

TEST_F(GrabVideo, CutStreamsStayInside) {
    // The bytes behind the headers let the search, which fails from the middle on, come to all of them.
    const Bytes whole = pesHeader(3600) + sequenceHeader(720, 576, 3) + sequenceExtension(0x48) +
                        gopHeader(1, 2, 3, 4) + pictureHeader() + pictureCodingExtension(3, true, true) +
                        filler(100);
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        SCOPED_TRACE(length);
        const auto fresh = fedWith(firstOf(whole, length));
        EXPECT_EQ(fresh->pts(), length >= 14 ? PTS::from_ticks(3600) : PTS(-1));
        // The sequence header begins at 14; what follows the others is the search that reaches them.
        ASSERT_EQ(fresh->sequence_header() != nullptr, length >= 14 + 8);
        ASSERT_EQ(fresh->sequence_extension() != nullptr, length >= 2 * 18 + 3);
        ASSERT_EQ(fresh->gop_header() != nullptr, length >= 2 * 30 + 3);
        EXPECT_EQ(fresh->gop_count(), length >= 2 * 30 + 3 ? 1 : 0);
        EXPECT_EQ(fresh->field_counter(), length >= 2 * 48 + 3 ? 3 : length >= 2 * 40 + 3 ? 2 : 0);
        if (fresh->sequence_header() != nullptr) {
            EXPECT_EQ(fresh->sequence_header()[7] & 0xF, 3);
        }
        if (fresh->sequence_extension() != nullptr) {
            EXPECT_EQ(fresh->sequence_extension()[5] >> 4, 8);
        }
        if (fresh->gop_header() != nullptr) {
            EXPECT_EQ(fresh->gop_header()[7], 0x40) << "frame 4, closed";
        }
    }
}

TEST_F(GrabVideo, AHeaderCountsFromTheLastByteThatIsReadOfIt) {
    const auto cut = [](const Bytes& header, std::size_t left) {
        return fedWith(pesHeader(1) + firstOf(header, left));
    };
    EXPECT_EQ(cut(sequenceHeader(720, 576, 3), 7)->sequence_header(), nullptr);
    EXPECT_NE(cut(sequenceHeader(720, 576, 3), 8)->sequence_header(), nullptr);
    EXPECT_EQ(cut(sequenceExtension(0x48), 6)->sequence_extension(), nullptr);
    EXPECT_NE(cut(sequenceExtension(0x48), 7)->sequence_extension(), nullptr);
    EXPECT_EQ(cut(gopHeader(1, 2, 3, 4), 7)->gop_header(), nullptr);
    EXPECT_EQ(cut(gopHeader(1, 2, 3, 4), 7)->gop_count(), 1) << "a cut one counts as seen";
    EXPECT_NE(cut(gopHeader(1, 2, 3, 4), 8)->gop_header(), nullptr);
    EXPECT_EQ(cut(pictureCodingExtension(1, false, false), 7)->field_counter(), 0);
    EXPECT_EQ(cut(pictureCodingExtension(1, false, false), 8)->field_counter(), -1);
    EXPECT_EQ(cut(pictureCodingExtension(3, true, true), 7)->field_counter(), 0);
    EXPECT_EQ(cut(pictureCodingExtension(3, true, true), 8)->field_counter(), 1);
}

TEST_F(GrabVideo, TheSearchGoesOnOneByteBehindEachCode) {
    const Bytes gop = gopHeader(1, 2, 3, 4);
    EXPECT_EQ(fedWith(pesHeader(1) + Bytes{0, 0, 1, 9} + gop + filler(50))->gop_count(), 1);
    EXPECT_EQ(fedWith(pesHeader(1) + Bytes{0, 0, 1} + gop + filler(50))->gop_count(), 0)
        << "its first byte is the value of the code before";
}

TEST_F(GrabVideo, HostilePacketsStayInside) {
    std::mt19937 random(13818);
    for (int round = 0; round < 20'000; ++round) {
        const auto packet = std::make_unique<unsigned char[]>(188);
        for (int i = 0; i < 188; ++i)
            packet[static_cast<std::size_t>(i)] =
                static_cast<unsigned char>(random() % 3 == 0 ? random() % 2 : random());
        packet[1] = static_cast<unsigned char>(random() % 2 == 0 ? 0x41 : 0x01);
        packet[2] = 0x00;
        if (random() % 2 == 0)
            packet[184] = packet[185] = 0, packet[186] = 1, packet[187] = 0xB3;
        grabber.process(packet.get(), round);
    }
    grabber.flush(0);
    SUCCEED();
}

} // namespace
