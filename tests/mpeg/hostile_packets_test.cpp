// Whatever the bytes, nothing outside a packet is touched and every walk ends. Each packet lies in a block of
// exactly its size on the heap, so that AddressSanitizer sees a step outside.
#include "mpeg/mpeg.h"
#include "mpeg/mpeg2.h"
#include "mpeg/packet_view.h"
#include "mpeg/unibuffer.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <random>

namespace {

using Packet = std::unique_ptr<unsigned char[]>;

void walk(unsigned char* packet) {
    EXPECT_LE(kestrel::ts::payload(packet).size(), 184U);
    EXPECT_LE(kestrel::ts::section(packet).size(), 184U);
    const int pmt = MPEG::PAT::PID_of_first_PMT(packet);
    EXPECT_TRUE(pmt >= 0 && pmt <= 0x1FFF);
    int entries = 0;
    for (const unsigned char* entry : PMT_PIDInfo_iterable(packet)) {
        MPEG::PMT::PIDInfo::elementary_PID(entry);
        ASSERT_LT(++entries, 60) << "a walk that does not end";
    }
    continuity_nazi checker;
    checker.packetIsCool(packet, false);
    checker.packetIsCool(packet, false);
}

TEST(HostilePackets, RandomBytes) {
    std::mt19937 random(20261121);
    for (int round = 0; round < 20'000; ++round) {
        const Packet packet(new unsigned char[188]);
        const Packet next(new unsigned char[188]);
        for (int i = 0; i < 188; ++i) {
            packet[static_cast<std::size_t>(i)] = static_cast<unsigned char>(random());
            next[static_cast<std::size_t>(i)] = static_cast<unsigned char>(random());
        }
        packet[0] = 0x47;
        if (round % 2 == 0)
            packet[3] = 0x10;
        if (round % 4 == 0)
            packet[4] = 0;
        walk(packet.get());
        const std::unique_ptr<byte_sequence> both(unibuffer::pes_beginning(packet.get(), next.get()));
        for (int i = 0; i < both->get_length(); ++i)
            static_cast<void>((*both)[i]);
        MPEG::expand_adaptation(packet.get(), static_cast<int>(random() % 400) - 100);
    }
}

TEST(HostilePackets, EveryLengthFieldAtItsEnds) {
    for (const int adaptation : {-1, 0, 1, 182, 183, 184, 255})
        for (const int pointer : {0, 1, 170, 183, 255})
            for (const int sectionLength : {0, 1, 4, 8, 9, 13, 179, 180, 184, 1021, 4095})
                for (const int info : {0, 1, 100, 4095}) {
                    const Packet packet(new unsigned char[188]);
                    std::fill_n(packet.get(), 188, static_cast<unsigned char>(0xFF));
                    packet[0] = 0x47;
                    packet[3] = adaptation < 0 ? 0x10 : 0x30;
                    int at = 4;
                    if (adaptation >= 0) {
                        packet[4] = static_cast<unsigned char>(adaptation);
                        at = 5 + adaptation;
                    }
                    const auto put = [&](int position, int value) {
                        if (position < 188)
                            packet[static_cast<std::size_t>(position)] = static_cast<unsigned char>(value);
                    };
                    put(at, pointer);
                    const int section = at + 1 + pointer;
                    put(section + 1, 0xB0 | sectionLength >> 8);
                    put(section + 2, sectionLength);
                    put(section + 10, 0xF0 | info >> 8);
                    put(section + 11, info);
                    put(section + 12 + 3, 0xFF);
                    put(section + 12 + 4, 0xFF);
                    walk(packet.get());
                }
}

} // namespace
