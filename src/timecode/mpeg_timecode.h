// SMPTE-style time of day in frames, tied to an MPEG-2 frame_rate_code (ISO/IEC 13818-2, table 6-4).
//
// All arithmetic goes through the absolute frame number within the day. Which counting rule applies follows
// the frame-rate code alone: codes 1, 4 and 7 drop labels (the non-integral rates, 23.976 deliberately
// included), the others do not. The dropFrame flag only shows in print, in the packed GOP form and in the
// checks of CountFrames.
//
// Nothing throws: an unsupported code is logged under "mpegParseLib" and gives a neutral value.
#pragma once

#include <cstdint>

class mpeg_timecode {
public:
    // Kept as given once set; only the main constructor reduces hours to 0..23.
    std::int32_t hours = 0;
    std::int32_t minutes = 0;
    std::int32_t seconds = 0;
    std::int32_t frames = 0; // label within the second
    bool dropFrame = false;
    std::int32_t frameRateCode = 0;
    // Filled by windows_string; room for four extreme 32-bit numbers. Never copied.
    char text[48] = {};

    // 00:00:00:00 without a frame rate: a place for a value still to come. Logs nothing.
    mpeg_timecode() = default;
    // Hours wrap modulo 24 (-1 becomes 23). An unsupported code or a time out of bounds is logged and kept;
    // then a label that drop-frame counting skips moves to the first existing one.
    mpeg_timecode(int hours, int minutes, int seconds, int frames, bool dropFrame, int frameRateCode);
    // Reads "hh:mm:ss:ff" with any separator characters. Unchecked: no modulo, no bounds, no skip. Fields
    // that the text lacks are 0; numbers beyond 32 bits are held at the limit; null reads as empty.
    mpeg_timecode(const char* text, bool dropFrame, int frameRateCode);
    // A copy has the six fields; each value keeps a text of its own, which is empty in a new one.
    mpeg_timecode(const mpeg_timecode& other) noexcept;
    mpeg_timecode& operator=(const mpeg_timecode& other) noexcept;
    ~mpeg_timecode() = default;

    // From the 25-bit time_code of a GOP header (ISO/IEC 13818-2, 6.3.8); the marker bit is ignored.
    static mpeg_timecode parse_GOP(int packed, int frameRateCode);
    // The 25-bit GOP time_code, marker bit set. Fields are not masked.
    int pack_int() const;
    // The label at a whole second of the clock on the wall (seconds / 3600, ...). Unsupported code: logged,
    // 00:00:00:00, not drop-frame, code 5.
    static mpeg_timecode from_seconds(int seconds, bool dropFrame, int frameRateCode);
    // The inverse of frame_count; any number wraps into the day. Unsupported code: logged, 00:00:00:00, not
    // drop-frame, code 5.
    static mpeg_timecode from_frames(int frameNumber, bool dropFrame, int frameRateCode);
    // Frame number within the day. Unsupported code: logged, 0. Extreme fields wrap at 32 bits.
    int frame_count() const;
    // "hh:mm:ss:ff", with ';' before the frames when dropFrame is set. Written to text and returned.
    char* windows_string();

    // Frame steps modulo the day; dropFrame and code are those of the left operand. Unsupported code: as
    // frame_count and from_frames say.
    mpeg_timecode operator+(int n) const;
    mpeg_timecode operator-(int n) const;
    mpeg_timecode operator+(const mpeg_timecode& b) const;
    mpeg_timecode operator-(const mpeg_timecode& b) const;
    // Equal in all six fields.
    bool operator==(const mpeg_timecode& b) const noexcept;

    // Frames per second of a code. Unsupported: logged, 0.0.
    static double fps(int code);
    // Frame labels per second of a code. Unsupported: 0, logged the first five times in the process.
    static int fps_ceil(int code);
    // True for 2, 3, 5, 6, 8.
    static bool IsFrameRateIntegral(int code);
    // True for 1 to 8.
    static bool supportedFrameRate(int code);
    // Coarse on purpose: rates between two codes fall to the one above, up to 30 and from there up to 60.
    // 0 for 0.0, for rates above 60 and for NaN.
    static int GetFrameRateCode(double fps);
    // Whether the rate is one that drops labels: 1, 4 and 7. Unsupported: logged, true.
    static bool frameRateCodeToDropFrame(int code);

    // Upper bounds only; negative fields pass.
    static bool TimeCodeInbounds(int h, int m, int s, int f, double fps);
    // Whether the label exists where two labels a minute are dropped.
    static bool DropFrameTimeCodeIsValid(int h, int m, int s, int f);
    // The same by code: four labels a minute for code 7, two for every other code.
    static bool DropFrameTimeCodeIsValid(int h, int m, int s, int f, int code);
    // In bounds and, where the code drops labels, not one of the dropped.
    static bool IsTimecodeValid(int h, int m, int s, int f, int code);

    // Move a dropped label to the first existing one of that second. Return 0.
    static int SkipOverDropFrames(int& h, int& m, int& s, int& f);             // labels 0, 1 become 2
    static int SkipOverDropFrames_6140_720p59(int& h, int& m, int& s, int& f); // labels 0..3 become 4
    static int SkipOverDropFrames(int& h, int& m, int& s, int& f, int code);   // by the code's rule
    // The conditions of the above, without a change.
    static bool NeedToSkipOverDropFrames(const int& h, const int& m, const int& s, const int& f);
    static bool NeedToSkipOverDropFrames_6140_720p59(const int& h, const int& m, const int& s, const int& f);
    static bool NeedToSkipOverDropFrames(const int& h, const int& m, const int& s, const int& f, int code);

    // One frame forward, through midnight. dropFrame is not used: the code decides.
    static void IncTimeCode(int& h, int& m, int& s, int& f, bool dropFrame, int code);
    // n labels forward with carries, then the skip (labels dropped on the way are not made up for).
    // Unsupported code: logged, nothing changes.
    static void IncTimeCode(int n, int& h, int& m, int& s, int& f, bool dropFrame, int code);
    // Single-frame steps from the first time to the second, through midnight. Second time out of bounds: -10;
    // not a drop-frame label (when dropFrame): -20; the first time likewise: -30, -40. A second time that
    // stepping never meets ends the count at one day: rollover_frames_count.
    static int CountFrames(int h1, int m1, int s1, int f1, int h2, int m2, int s2, int f2, bool dropFrame,
                           int code);
    // Frames per day; dropFrame is not used. Unsupported code: logged, 0.
    static int rollover_frames_count(bool dropFrame, int code);

    // A VTR counts the double rates (codes above 5) in pairs of frames.
    void NormalizeFromVtr(); // frames * 2
    void NormalizeToVtr();   // frames / 2
    // The same between a rate and its double: for factor 2 and codes from 6 on; any other changes nothing.
    void UpConvert(int factor);
    void DownConvert(int factor);

    // Self-test: nonzero when a check failed. Logs through LogUtil::Info ("CaptureTests", "mpegParseLib").
    static int testHarness();
    // Steps through a whole day; 1 after more than nine mismatches, else 0.
    static int testEntireTimeCodeRange(int code, bool dropFrame);
    // Whether both are equal; a mismatch is logged.
    static bool assertEquals(int expected, int actual);

private:
    static mpeg_timecode from_wide_frames(std::int64_t frameNumber, bool dropFrame, int frameRateCode);
    std::int64_t wide_frame_count() const;
};

// By frame_count; the codes of the two sides are not compared.
bool operator<(const mpeg_timecode& a, const mpeg_timecode& b);
bool operator<=(const mpeg_timecode& a, const mpeg_timecode& b);
bool operator>(const mpeg_timecode& a, const mpeg_timecode& b);
bool operator>=(const mpeg_timecode& a, const mpeg_timecode& b);
