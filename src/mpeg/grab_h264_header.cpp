#include "mpeg/grab_h264_header.h"

#include "mpeg/mpeg2.h"
#include "mpeg/packet_view.h"
#include "mpeg/video_scan.h"

#include <algorithm>
#include <memory>

namespace ts = kestrel::ts;

namespace {

enum NalUnitType { SLICE = 1, IDR_SLICE = 5, SEI = 6, SPS = 7 }; // table 7-1
constexpr int PIC_TIMING = 1;                                    // payloadType
constexpr int START_CODE_SIZE = 4;

} // namespace

void grab_h264_header::process(unsigned char* packet, long /*index*/) {
    if (ts::pid(packet) != m_pid || !ts::has_payload(packet) || !ts::payload_unit_start(packet))
        return;
    const ts::bytes header = ts::pes_header(packet);
    m_pts = header.empty() ? PTS(-1) : MPEG::PES::get_PTS(header.data());

    const ts::writable_bytes payload = ts::payload(packet);
    if (payload.size() <= START_CODE_SIZE)
        return;
    // Behind the PES packet's own start code; the rest of its header is scanned with the stream.
    const ts::writable_bytes rest = payload.subspan(START_CODE_SIZE);
    const array_byte_sequence bytes(rest.data(), static_cast<int>(rest.size()));
    int position = 0;
    for (;;) {
        const int distance = MPEG::find_es_start_code(bytes, static_cast<unsigned>(position));
        if (distance < 0 || position + distance >= bytes.get_length())
            return;
        const int nal_header = position + distance;
        take_nal_unit(bytes, nal_header);
        position = nal_header + 1;
    }
}

void grab_h264_header::take_nal_unit(const byte_sequence& bytes, int header) {
    const int prefix = header - 3;
    const int type = H264::NAL::get_unit_type(constsubsequence(bytes, prefix));
    switch (type) {
    case SLICE:
    case IDR_SLICE:
        // In fields: each slice is taken for a frame of its own, whatever its field_pic_flag.
        if (m_sps_count == 1)
            m_slice_counter += 2;
        return;
    case SEI:
        take_sei(rbsp_byte_sequence(bytes, header + 1));
        return;
    case SPS: {
        rbsp_byte_sequence rbsp(bytes, header + 1);
        m_sps = H264::SequenceParameterSet(rbsp, 0);
        ++m_sps_count;
        return;
    }
    default:
        return;
    }
}

void grab_h264_header::take_sei(const byte_sequence& rbsp) {
    const int length = rbsp.get_length();
    if (length < 4)
        return;
    int offset = 0;
    do {
        int position = 0;
        const int type = H264::SEI::unFF(rbsp, offset, &position);
        const int size = H264::SEI::unFF(rbsp, position, &position);
        if (type == PIC_TIMING) {
            const int bytes = std::min(size, length - position);
            if (H264::SEI::PicTiming(constsubsequence(rbsp, position, bytes)).has_time_code())
                m_time_code_seen = true;
        }
        // The two values' own bytes are not added: the next message is looked for inside this one,
        // deliberately, so that what is told of a file does not change. One of no size would be looked at for
        // ever.
        if (size < 1 || size >= length)
            return;
        offset += size;
    } while (offset + 3 < length);
}

int grab_h264_header::getSequenceParams(char* filename, H264::SequenceParameterSet& out, int level) {
    kestrel::PmtFinder pmt;
    std::unique_ptr<grab_h264_header> grabber;
    kestrel::scan_packets(filename, kestrel::scan_limit_packets, kestrel::ContinuityLines::debug,
                          [&](unsigned char* packet, long index) {
                              if (grabber == nullptr && pmt.is_pmt(packet))
                                  for (const unsigned char* entry : PMT_PIDInfo_iterable(packet))
                                      if (grabber == nullptr &&
                                          kestrel::is_h264_video(MPEG::PMT::PIDInfo::stream_type(entry)))
                                          grabber = std::make_unique<grab_h264_header>(
                                              MPEG::PMT::PIDInfo::elementary_PID(entry), level);
                              if (grabber == nullptr)
                                  return true;
                              grabber->process(packet, index);
                              if (grabber->sps_count() <= 1)
                                  return true;
                              out = grabber->sps();
                              return false;
                          });
    return 0;
}
