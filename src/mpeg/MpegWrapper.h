// Questions about transport-stream files. Each opens the file itself, reads what it needs and closes it;
// nothing is kept between calls. What is looked for in packets is looked for in the first 106,383 (20 MB) of
// them, unless it says otherwise. A file that cannot be read is an empty one, unless it says otherwise.
#pragma once

#include "timecode/mpeg_timecode.h"

class MpegWrapper {
public:
    // Numbers of profile_and_level_indication (ISO/IEC 13818-2, tables 8-2 and 8-3).
    enum videoProfile : int {
        profileReserved = 0,
        profileHigh = 1,
        profileSpatial = 2,
        profileSnr = 3,
        profileMain = 4,
        profileSimple = 5,
        profileMultiview = 6,
        profile422 = 7,
    };
    enum videoLevel : int {
        levelReserved = 0,
        levelHigh = 4,
        levelHigh1440 = 6,
        levelMain = 8,
        levelLow = 10,
    };

    // Frames a second by frame_rate_code (ISO/IEC 13818-2, table 6-4); -1 for those that are not in use. Code
    // 1 is 23000/1001, not 24000/1001: values that came from this table are compared with it.
    static const double FrameRateTable[16];

    // The table's value; 0.0 for a code that is not in use.
    static double GetFrameRate(int code);
    // Exact for 24, 25, 30, 50 and 60; any other rate falls to the code of the next non-integral rate above
    // it. 0 for 0.0, above 60 and for NaN.
    static int GetFrameRateCode(double fps);
    // Always -1.0: a placeholder that callers expect.
    static double GetAC3Bitrate(const char* file, int);

    // Duration between the first and the last decoding time, rounded up to whole frames, as a timecode. rate:
    // frame_rate_code 1 to 8; drop: how the timecode is labelled. Read from the file's two ends, and as far
    // as it takes from each: without MPEG-1 or MPEG-2 video that is all of it (the answer is then 0 frames).
    // 0, 20045 when the file cannot be opened, 20046 when its times run backwards; both are logged.
    static int GetDuration(const char* file, bool drop, int rate, mpeg_timecode& out);
    // Whether the first packets, at most 44, begin with a sync byte; an empty file is a transport stream.
    static bool IsTransportStreamFile(const char* file);
    // Profile and level of the first MPEG-2 video stream, from the second GOP or a later one. False, and 0
    // for both, when there is none, when the second GOP has no sequence extension (MPEG-1 has none), or when
    // a map table names H.264 video before that.
    static bool GetMpeg2VideoProfileAndLevel(const char* file, videoProfile& profile, videoLevel& level);
    // Whether the level is neither Low nor Main; false, and logged, for what is not MPEG-2.
    static bool IsMpeg2HD(const char* file);
    // Looks for the first video stream and returns 3, whatever it finds: GetMpeg2FirstGopTimeCode relies on
    // it.
    static int GetVideoPid(const char* file);
    // 0 MPEG-1 or MPEG-2, 1 H.264, 3 neither: by the last map table among the packets looked at.
    static int GetVideoType(const char* file);
    // -10 when the video is not MPEG-1 or MPEG-2, else 0. No time code is returned.
    static int GetMpeg2FirstGopTimeCode(const char* file);
    // Frames a second of the video; 0.0 when they cannot be told, -1.0 for a frame_rate_code that is not in
    // use, 0.5 for H.264 whose pic_order_cnt_type is not 0. (Here code 1 is 23.976.)
    static double GetFrameRateFromFile(const char* file);
    // As gop_rebase::rebaseFile, with a mode and an offset; the video PID is looked for in the first 10,000
    // bytes only.
    static int rebaseFile(const char* in, const char* out, int mode, mpeg_timecode offset);

    // The command form: prints profile, level and SD or HD of a file. 0, or 1 when it is not MPEG-2.
    static int testHarness(int argc, char** argv);
};
