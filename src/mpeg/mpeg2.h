// Access to single fields of MPEG-2 systems structures (ISO/IEC 13818-1), MPEG-2 video headers (ISO/IEC
// 13818-2) and SCTE 27 subtitle sections. Stateless.
//
// A view (byte_sequence) begins at the first byte of the structure: its start code 00 00 01 xx, or table_id
// for a section; a pointer stands where the function says. The caller guarantees that the bytes of the field
// are there. Functions that take a whole packet (PAT, PMT_PIDInfo_iterable, Adaptation, expand_adaptation)
// trust no length in it and stay inside its 188 bytes; what does not lie in the packet is not present.
#pragma once

#include "mpeg/mpeg.h"
#include "mpeg/pts.h"

#include <cstddef>
#include <iterator>

class mpeg_timecode;

namespace MPEG {

// Start code search (ISO/IEC 13818-2, 6.2.1). The result is the distance from pos to the byte after the
// prefix 00 00 01, which is the start code value; -1 when there is none. The last byte of the view is never
// examined, so a prefix that ends with it is not found: callers' offsets depend on this. (A prefix that
// stands right at pos is found even then.)
int find_es_start_code(const byte_sequence& s, unsigned int pos);
// The same with the three bytes before pos in window: the number of bytes taken from pos until the window
// holds the prefix, 0 when it already does.
int find_es_start_code(const byte_sequence& s, unsigned int pos, int window);
// The same on memory, with count bytes from buf[pos]. -1 at once when count is 0, whatever the window.
int find_es_start_code(const unsigned char* buf, int pos, int count, int window);
// The same on memory, where len is the number of bytes from pos. -1 when pos + 2 >= len: the position is
// compared with what remains behind it, so a search from the middle of the buffer or later fails, and the
// caller that scans a joined group of payloads relies on stopping there.
int find_es_start_code(const unsigned char* buf, int pos, int len);

// The MPEG-2 frame_rate_code (ISO/IEC 13818-2, table 6-4) whose rate is within 0.001 of fps; -1 when none is.
int fake_frame_rate_code(double fps);

// Grows the adaptation field with stuffing so that exactly payload_bytes remain behind it; the payload
// itself is not moved. A packet whose adaptation field is long enough already is left as it is, but for the
// two shortest fields: 183 bytes leave only the length byte, more leave no field. Less than 0 counts as 0.
// (ISO/IEC 13818-1, 2.4.3.4 and 2.4.3.5.)
void expand_adaptation(unsigned char* packet, int payload_bytes);
// Makes a null packet (ISO/IEC 13818-1, 2.4.3.3): PID 0x1FFF, counter 0. Its payload is zeros:
// any bytes may stand there, and these make equal packets.
void craft_NULL_PID(unsigned char* packet);

// PES packet header, ISO/IEC 13818-1, 2.4.3.6 and 2.4.3.7.
namespace PES {

// Length of the whole PES packet: PES_packet_length + 6. 0 when unbounded.
int get_packet_length(const byte_sequence& pes);
// Sets the length of the whole packet; below 1 (unbounded) it is stored as it is.
void set_packet_length(byte_sequence& pes, int total);
// Offset of the PES payload: PES_header_data_length + 9.
int header_length(const byte_sequence& pes);
// PTS_DTS_flags, 0 to 3.
int PTS_DTS_flag(const byte_sequence& pes);
// Whether there is a presentation time: flag bit 0x2.
bool has_PTS(const byte_sequence& pes);
// Whether there is a decoding time of its own: both flag bits.
bool has_DTS(const byte_sequence& pes);

// Presentation time, in units of PTS (1/360 000 s) like all that follow; -1 when absent.
PTS get_PTS(const byte_sequence& pes);
// Decoding time; -1 when absent, also where decoding is at the presentation time.
PTS get_DTS(const byte_sequence& pes);
// Presentation time into *pts, which must not be null; -1 when absent.
void get_PTS(const byte_sequence& pes, PTS* pts);
// The two times on memory, from the start code on; -1 when absent.
PTS get_PTS(const unsigned char* pes);
PTS get_DTS(const unsigned char* pes);
// Decodes the 5-byte timestamp field at the start of the view. Neither prefix nor marker bits are looked at.
PTS get_TS(const byte_sequence& field);

// Both timestamps, 0 (not -1) when absent; dts may be null. The two flag bits are looked at one by one, so
// the forbidden value 01 gives a DTS without a PTS.
void read_pts_and_dts_from_PES_header(const byte_sequence& pes, PTS* pts, PTS* dts = nullptr);
// The same on memory, from 4 bytes into the header (after the start code), for the flag values 2 and 3 only.
void read_pts_and_dts_from_PES_header_(const unsigned char* p, PTS* pts, PTS* dts = nullptr);

// Rewrites the 33 bits of the timestamp, whether the flags say that it is there or not; prefix and marker
// bits keep their values. The value is rounded to the nearest 90 kHz tick, halves upward, and wraps at 33
// bits.
void set_PTS(byte_sequence& pes, PTS value);
void set_DTS(byte_sequence& pes, PTS value);
// The same for the whole field: prefix 0011 (with a DTS) or 0010 for PTS, 0001 for DTS; marker bits 1.
void set_PTS(unsigned char* pes, PTS value);
void set_DTS(unsigned char* pes, PTS value);

} // namespace PES

// Sequence header, ISO/IEC 13818-2, 6.2.2.1 and 6.3.3.
namespace SH {

// frame_rate_code, 0 to 15 (table 6-4), from the view's byte 7.
int get_frame_rate_code(const byte_sequence& header);
// Duration of one frame in PTS units (1/360 000 s) by frame_rate_code; -1 for a code outside 1..8.
int decode_PCRs_per_frame(int frame_rate_code);
// The same for the code in a sequence header.
int get_PCRs_per_frame(const byte_sequence& header);
int get_PCRs_per_frame(const unsigned char* header);

} // namespace SH

// Sequence extension, ISO/IEC 13818-2, 6.2.2.3 and 6.3.5.
namespace SED {

// extension_start_code_identifier, 0 to 15 (table 6-2), of any extension.
int get_extension_id(const byte_sequence& extension);
// progressive_sequence: whether all its pictures are progressive frames.
bool get_progressive_sequence(const byte_sequence& extension);

} // namespace SED

// Group of pictures header, ISO/IEC 13818-2, 6.2.2.6 and 6.3.8.
namespace GOP {

// The fields of time_code (table 6-11) as they are coded, unchecked: drop_frame_flag.
bool get_drop_frame(const byte_sequence& header);
// time_code_hours, 5 bits.
int get_hours(const byte_sequence& header);
// time_code_minutes, 6 bits.
int get_minutes(const byte_sequence& header);
// time_code_seconds, 6 bits.
int get_seconds(const byte_sequence& header);
// time_code_pictures, 6 bits: the frame label within the second.
int get_frames(const byte_sequence& header);
// The 25-bit time_code, marker bit included; mpeg_timecode::parse_GOP takes it apart.
int get_timecode(const byte_sequence& header);
// Writes the low 25 bits of packed; closed_gop, broken_link and what follows keep their values.
void set_timecode(byte_sequence& header, int packed);
// The same from its parts, with the marker bit. Nothing is masked: a value out of range spills into the
// fields beside its own.
void set_timecode(byte_sequence& header, bool drop, int h, int m, int s, int f);
// The same from mpeg_timecode::pack_int.
void set_timecode(byte_sequence& header, const mpeg_timecode& timecode);
// closed_gop: whether the first pictures need no reference before the group.
bool closed_GOP(const byte_sequence& header);
// Writes that one bit.
void set_closed_GOP(byte_sequence& header, bool closed);

} // namespace GOP

// Picture header, ISO/IEC 13818-2, 6.2.3 and 6.3.9.
namespace PH {

// temporal_reference, 0 to 1023: the picture's place in display order within its group.
int get_temporal_reference(const byte_sequence& header);
// Writes its 10 bits, the low ones of value; the bits behind it keep theirs.
void set_temporal_reference(byte_sequence& header, int value);
// picture_coding_type, 0 to 7: 1 I, 2 P, 3 B (table 6-12).
int get_picture_coding_type(const byte_sequence& header);

} // namespace PH

// Picture coding extension, ISO/IEC 13818-2, 6.2.3.1 and 6.3.10.
namespace PCE {

// picture_structure: 1 top field, 2 bottom field, 3 frame, 0 reserved (table 6-14).
int get_picture_structure(const byte_sequence& extension);
// top_field_first; in a progressive sequence part of how often the frame is shown.
bool get_top_field_first(const byte_sequence& extension);
// repeat_first_field.
bool get_repeat_first_field(const byte_sequence& extension);

} // namespace PCE

// Subtitle section: SCTE 27, the syntax table of subtitle_message() and, in it, of the segmentation overlay.
namespace SCTE27 {

// section_length, 12 bits: bytes behind the field, CRC included.
int get_section_length(const byte_sequence& section);
// segmentation_overlay_included: whether the message is cut into numbered sections.
bool get_segmentation_overlay_included(const byte_sequence& section);
// segment_number, 12 bits. Meaningful only in a segmented message: what stands there is not looked at.
int get_segment_number(const byte_sequence& section);
// Where the message body begins: 9 when the message is segmented, else 4.
int body_offset(const byte_sequence& section);
// display_in_PTS, the 32 bits in ticks of 90 kHz (not in units of PTS); from 2^31 on they come out negative.
int get_display_in_PTS(const byte_sequence& section);
// Writes all 32 bits where the message body has them.
void set_display_in_PTS(byte_sequence& section, int value);

} // namespace SCTE27

// Program association section, ISO/IEC 13818-1, 2.4.4.3 to 2.4.4.5.
namespace PAT {

// PID of the first entry of a PAT packet that is a program (program_number not 0, which is the network PID);
// 0 when there is none. PUSI, table_id and CRC are not looked at; the section lies in this packet.
int PID_of_first_PMT(const unsigned char* packet);

} // namespace PAT

// Program map section, ISO/IEC 13818-1, 2.4.4.8 and 2.4.4.9.
namespace PMT {

// Tests of one elementary stream entry, from its stream_type to its last descriptor; PMT_PIDInfo_iterable
// yields only entries whose bytes are there. The first three search the descriptors, of entries of
// stream_type 0x06 or from 0x80 on with 1 to 183 bytes of them; they are false for any other. Of a descriptor
// that overruns its entry only what lies in the entry counts.
namespace PIDInfo {

// Whether a registration descriptor (2.6.8) says "AC-3".
bool is_AC3(const unsigned char* entry);
// Whether an AC-3 audio descriptor (ATSC A/52, annex A) tells num_channels 3/2: five full-range channels.
bool is_AC3_51(const unsigned char* entry);
// Whether these are subtitles: stream_type 0x82 with an ISO 639 language descriptor (2.6.18).
bool is_SCTE27(const unsigned char* entry);
// Whether the stream is in PES packets: stream_type (table 2-34) 0x01 to 0x04, 0x06, 0x0F, 0x11, 0x1B, or
// AC-3.
bool is_PES(const unsigned char* entry);

// stream_type, 8 bits (table 2-34).
constexpr int stream_type(const unsigned char* entry) noexcept {
    return entry[0];
}
// elementary_PID, 13 bits.
constexpr int elementary_PID(const unsigned char* entry) noexcept {
    return (entry[1] & 0x1F) << 8 | entry[2];
}
// ES_info_length, 12 bits: bytes of descriptors behind the five of the entry itself.
constexpr int ES_info_length(const unsigned char* entry) noexcept {
    return (entry[3] & 0x0F) << 8 | entry[4];
}

} // namespace PIDInfo

// Computes the CRC of a section (annex A) over everything before it and stores it. The section is there for
// its section_length; one too short for a CRC stays as it is.
void recalc_CRC(unsigned char* section);

} // namespace PMT

// Adaptation field, ISO/IEC 13818-1, 2.4.3.4 and 2.4.3.5.
namespace Adaptation {

// Writes program_clock_reference (base 33 bits, extension 9) where it is the first optional field, bytes 6 to
// 11 of the packet; the PCR flag and the reserved bits stay as they are. In ticks of 27 MHz.
void _set_PCR(unsigned char* packet, long pcr27);
// The same from ticks of 90 kHz with a fraction. There is no carry: a fraction that rounds to 300 is written
// as extension 300, so base and extension are those of the value given. A value that is not finite counts
// as 0.
void set_PCR(unsigned char* packet, double pcr90);
// DTS_next_AU of the seamless splice. Whether the field is coded is not checked, only that its place lies in
// the packet: else -1, and nothing is written. The setter keeps splice_type and sets the marker bits.
PTS get_DTS_next_AU(const unsigned char* packet);
// The value in units of PTS, rounded like that of a PES header.
void set_DTS_next_AU(unsigned char* packet, PTS value);

} // namespace Adaptation

// System header of a program stream, ISO/IEC 13818-1, 2.5.3.5 and 2.5.3.6; a pointer to 00 00 01 BB.
namespace SystemHeader {

// Clears size bytes and writes an empty header into them (12 bytes; cut when there are fewer): header_length
// 6, bounds 0, marker bits set, lock flags clear.
void blank(unsigned char* buf, int size);
// header_length, 16 bits: bytes behind the field.
void set_header_length(unsigned char* buf, int length);
// rate_bound, 22 bits in units of 50 bytes/s, with its marker bits. A larger rate is not masked.
void set_rate_bound(unsigned char* buf, int rate);
// audio_bound, 6 bits: most audio streams at a time. fixed_flag and CSPS_flag keep their values.
void set_audio_bound(unsigned char* buf, int bound);
// video_bound, the low 5 bits of bound: most video streams at a time. Both lock flags keep their values, the
// marker bit is set.
void set_video_bound(unsigned char* buf, int bound);
// Announces n buffer bounds: header_length 3 n + 6. They are not written.
void set_buffer_thingus_count(unsigned char* buf, int n);
// Writes buffer bound i, from 0, at byte 12 + 3 i: stream_id, P-STD_buffer_bound_scale (true: units of 1024
// bytes, false: of 128) and P-STD_buffer_size_bound, 13 bits.
void set_buffer_thingus(unsigned char* buf, int i, int stream_id, bool scale, int size);

} // namespace SystemHeader
} // namespace MPEG

// The elementary stream entries of a PMT section that lies wholly in one packet (ISO/IEC 13818-1, 2.4.4.8).
// Yields pointers to entries, each wholly in the section; without such a section there are none.
class PMT_PIDInfo_iterable {
public:
    // A place among the entries. Its iterable must outlive it and stay where it is.
    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = const unsigned char*;
        using difference_type = std::ptrdiff_t;
        using pointer = const value_type*;
        using reference = value_type;

        // Of no iterable: equal to others of its kind only, and not to be read or moved.
        iterator() = default;
        // At an offset in the packet. An offset at which no whole entry lies becomes the end, so that every
        // step moves on.
        iterator(const PMT_PIDInfo_iterable* iterable, int offset);

        // The entry's first byte, stream_type. Not to be asked at the end.
        value_type operator*() const;
        // To the next entry, 5 + ES_info_length bytes on; stays at the end once there.
        iterator& operator++();
        // The same; the result is where it was before.
        iterator operator++(int);
        // Same iterable and same offset, or both at or past its end.
        bool operator==(const iterator& other) const;

    private:
        const PMT_PIDInfo_iterable* m_iterable = nullptr;
        int m_offset = 0;
    };

    // packet: 188 bytes, which must outlive the iterable. PUSI, table_id and CRC are not looked at.
    explicit PMT_PIDInfo_iterable(const unsigned char* packet);

    // At the first entry, behind the program's descriptors; equal to end() when there is none.
    [[nodiscard]] iterator begin() const { return {this, m_first}; }
    // At the CRC, behind the last entry.
    [[nodiscard]] iterator end() const { return {this, m_end}; }

private:
    const unsigned char* m_packet;
    int m_first; // offset of the first entry in the packet
    int m_end;   // offset of the CRC
};
