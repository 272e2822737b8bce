#include "mpeg/grab_video_header.h"

#include "mpeg/mpeg2.h"
#include "mpeg/video_scan.h"

#include <algorithm>
#include <memory>

namespace ts = kestrel::ts;

namespace {

constexpr int PREFIX_SIZE = 3;
// Bytes from the start code prefix on that each header's accessors read.
constexpr int PES_BYTES = 14;
constexpr int SEQUENCE_BYTES = 8;
constexpr int EXTENSION_BYTES = 7;
constexpr int CODING_EXTENSION_BYTES = 8;
constexpr int GOP_BYTES = 8;

constexpr int SEQUENCE_EXTENSION = 1; // extension_start_code_identifier
constexpr int PICTURE_CODING_EXTENSION = 8;

} // namespace

void grab_video_header::process(unsigned char* packet, long /*index*/) {
    if (ts::pid(packet) != m_pid || !ts::has_payload(packet))
        return;
    switch (m_state) {
    case 0:
        if (!ts::payload_unit_start(packet))
            return;
        std::copy_n(packet, ts::packet_size, m_first.begin());
        m_state = 1;
        return;
    case 1:
        std::copy_n(packet, ts::packet_size, m_second.begin());
        m_state = 2;
        return;
    default:
        m_state = 0;
        Headers headers;
        append(headers, m_first.data());
        append(headers, m_second.data());
        append(headers, packet);
        scan(headers);
        if (headers.sequence >= 0 || headers.extension >= 0 || headers.gop >= 0)
            m_kept = headers;
        return;
    }
}

void grab_video_header::append(Headers& headers, const unsigned char* packet) {
    const ts::bytes payload = ts::payload(packet);
    std::copy(payload.begin(), payload.end(), headers.bytes.begin() + headers.length);
    headers.length += static_cast<int>(payload.size());
}

// The search fails from the middle of what remains on, so the first code in the second half is the last one.
void grab_video_header::scan(Headers& headers) {
    int position = 0;
    for (;;) {
        const int distance =
            MPEG::find_es_start_code(headers.bytes.data(), position, headers.length - position);
        if (distance < 0 || position + distance >= headers.length)
            return;
        const int value = position + distance;
        take_code(headers, value - PREFIX_SIZE);
        position = value + 1;
    }
}

void grab_video_header::take_code(Headers& headers, int start) {
    const unsigned char* const header = headers.bytes.data() + start;
    const int left = headers.length - start;
    const int code = header[PREFIX_SIZE];
    if (code >= 0xE0 && code <= 0xEF) {
        m_pts = left >= PES_BYTES ? MPEG::PES::get_PTS(header) : PTS(-1);
    } else if (code == 0x00) {
        if (m_gop_count == 1)
            m_field_counter += 2;
    } else if (code == 0xB8) {
        ++m_gop_count;
        if (left >= GOP_BYTES)
            headers.gop = start;
    } else if (code == 0xB3) {
        if (left >= SEQUENCE_BYTES)
            headers.sequence = start;
    } else if (code == 0xB5 && left > PREFIX_SIZE + 1) {
        take_extension(headers, start);
    }
}

void grab_video_header::take_extension(Headers& headers, int start) {
    const int left = headers.length - start;
    const array_byte_sequence extension(headers.bytes.data() + start, left);
    const int identifier = MPEG::SED::get_extension_id(extension);
    if (identifier == SEQUENCE_EXTENSION && left >= EXTENSION_BYTES)
        headers.extension = start;
    if (identifier != PICTURE_CODING_EXTENSION || left < CODING_EXTENSION_BYTES)
        return;
    const int structure = MPEG::PCE::get_picture_structure(extension);
    if (structure == 1 || structure == 2)
        --m_field_counter;
    if (!MPEG::PCE::get_repeat_first_field(extension))
        return;
    const bool interlaced =
        headers.extension < 0 ||
        !MPEG::SED::get_progressive_sequence(array_byte_sequence(headers.bytes.data() + headers.extension,
                                                                 headers.length - headers.extension));
    // ISO/IEC 13818-2, 6.3.10: one more field, or the frame two or three times.
    if (interlaced)
        m_field_counter += 1;
    else
        m_field_counter += MPEG::PCE::get_top_field_first(extension) ? 4 : 2;
}

int grab_video_header::getDimensions(char* file, int& width, int& height, int level) {
    width = -1;
    height = -1;
    kestrel::PmtFinder pmt;
    std::unique_ptr<grab_video_header> grabber;
    kestrel::scan_packets(file, kestrel::scan_limit_packets, kestrel::ContinuityLines::debug,
                          [&](unsigned char* packet, long index) {
                              if (grabber == nullptr && pmt.is_pmt(packet))
                                  for (const unsigned char* entry : PMT_PIDInfo_iterable(packet))
                                      if (grabber == nullptr &&
                                          kestrel::is_mpeg2_video(MPEG::PMT::PIDInfo::stream_type(entry))) {
                                          const int pid = MPEG::PMT::PIDInfo::elementary_PID(entry);
                                          LogUtil::Debug("captureEngLib", "video PID is %d", pid);
                                          grabber = std::make_unique<grab_video_header>(pid, level);
                                      }
                              if (grabber == nullptr)
                                  return true;
                              grabber->process(packet, index);
                              // A GOP may come without a sequence header; the next one with both tells.
                              const unsigned char* const header = grabber->sequence_header();
                              if (grabber->gop_count() <= 1 || header == nullptr)
                                  return true;
                              width = header[4] << 4 | header[5] >> 4;      // horizontal_size_value
                              height = (header[5] & 0x0F) << 8 | header[6]; // vertical_size_value
                              if (const unsigned char* const extension = grabber->sequence_extension();
                                  extension != nullptr) {
                                  width |= (extension[5] & 0x01) << 13 |
                                           (extension[6] & 0x80) << 5;  // horizontal_size_extension
                                  height |= (extension[6] & 0x60) << 7; // vertical_size_extension
                              }
                              return false;
                          });
    return 0;
}
