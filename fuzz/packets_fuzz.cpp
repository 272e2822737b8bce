// Everything that is fed whole packets: tables, continuity, header grabbers, rebase, and what is written into
// adaptation fields.
#include "mpeg/gop_rebase.h"
#include "mpeg/grab_h264_header.h"
#include "mpeg/grab_video_header.h"
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr int SIZE = 188;

// A packet in a block of its own, so that a step out of it is noticed.
std::unique_ptr<unsigned char[]> packet_of(const std::uint8_t* data) {
    std::unique_ptr<unsigned char[]> packet(new unsigned char[SIZE]);
    std::copy_n(data, SIZE, packet.get());
    return packet;
}

class Nowhere : public packet_mangler {
public:
    Nowhere() : packet_mangler(0) {}
    void process(unsigned char*, long) override {}
    void flush(long) override {}
};

void read_tables(const unsigned char* packet) {
    namespace entry_tests = MPEG::PMT::PIDInfo;
    if (MPEG::PAT::PID_of_first_PMT(packet) > 0x1FFF)
        std::abort();
    int entries = 0;
    for (const unsigned char* entry : PMT_PIDInfo_iterable(packet)) {
        if (entry - packet + 5 + entry_tests::ES_info_length(entry) > SIZE)
            std::abort(); // not wholly in the packet
        if (entry_tests::is_AC3(entry) && !entry_tests::is_PES(entry))
            std::abort();
        entry_tests::is_AC3_51(entry);
        entry_tests::is_SCTE27(entry);
        if (++entries > SIZE / 5)
            std::abort(); // a walk that does not end
    }
}

// Each on a copy, with values from the packet itself.
void write_adaptation_field(const std::uint8_t* data) {
    std::int64_t clock = 0;
    double ticks = 0;
    std::memcpy(&clock, data + SIZE - sizeof clock, sizeof clock);
    std::memcpy(&ticks, data + SIZE - sizeof ticks, sizeof ticks);
    MPEG::Adaptation::_set_PCR(packet_of(data).get(), clock);
    MPEG::Adaptation::set_PCR(packet_of(data).get(), ticks);

    const auto spliced = packet_of(data);
    const bool there = !MPEG::Adaptation::get_DTS_next_AU(spliced.get()).is_absent();
    MPEG::Adaptation::set_DTS_next_AU(spliced.get(), clock);
    if (!there && !std::equal(data, data + SIZE, spliced.get()))
        std::abort(); // written where there is no such field
    if (MPEG::Adaptation::get_DTS_next_AU(spliced.get()).is_absent() == there)
        std::abort();

    const int payload_bytes = data[SIZE - 1] - 20;
    const auto grown = packet_of(data);
    MPEG::expand_adaptation(grown.get(), payload_bytes);
    const int kept = std::clamp(payload_bytes, 0, SIZE - 5);
    if (!std::equal(data + SIZE - kept, data + SIZE, grown.get() + SIZE - kept))
        std::abort(); // a payload was moved

    MPEG::craft_NULL_PID(packet_of(data).get());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Nowhere end;
    continuity_nazi checker;
    grab_video_header grabber(0x100, 0);
    grab_h264_header h264_grabber(0x100, 0);
    gop_rebase rebase(0x100, &end, 0, 0);
    long index = 0;
    for (std::size_t at = 0; at + SIZE <= size; at += SIZE) {
        const auto packet = packet_of(data + at);
        read_tables(packet.get());
        write_adaptation_field(data + at);
        checker.packetIsCool(packet.get(), false);
        grabber.process(packet.get(), index);
        h264_grabber.process(packet.get(), index);
        rebase.process(packet.get(), index++);
    }
    rebase.flush(index);
    return 0;
}
