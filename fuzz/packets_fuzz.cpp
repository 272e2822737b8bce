// Everything that is fed whole packets: tables, continuity, header grabber, rebase.
#include "mpeg/gop_rebase.h"
#include "mpeg/grab_video_header.h"
#include "mpeg/mpeg2.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

class Nowhere : public packet_mangler {
public:
    Nowhere() : packet_mangler(0) {}
    void process(unsigned char*, long) override {}
    void flush(long) override {}
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<unsigned char> bytes(data, data + size);
    Nowhere end;
    continuity_nazi checker;
    grab_video_header grabber(0x100, 0);
    gop_rebase rebase(0x100, &end, 0, 0);
    long index = 0;
    for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188) {
        unsigned char* const packet = bytes.data() + at;
        checker.packetIsCool(packet, false);
        const int pmt = MPEG::PAT::PID_of_first_PMT(packet);
        int entries = pmt < 0 ? 1000 : 0;
        for (const unsigned char* entry : PMT_PIDInfo_iterable(packet)) {
            MPEG::PMT::PIDInfo::is_AC3_51(entry);
            if (++entries > 100)
                std::abort(); // a walk that does not end
        }
        grabber.process(packet, index);
        rebase.process(packet, index++);
    }
    rebase.flush(index);
    return 0;
}
