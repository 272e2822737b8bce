// The numbers and texts of the messages, letter for letter as clients and the capture worker know them.
#include "foundation/ErrorCodes.h"

#include <climits>
#include <gtest/gtest.h>
#include <iterator>
#include <map>

namespace {

struct Row {
    long code;
    const char* text;
};

constexpr const char* invalid = "Invalid Error Code";

// clang-format off
constexpr Row managerRows[] = {
    {10001, "Could not use port %d."},
    {10002, "Error: Invalid job GUID %s."},
    {10003, "Error: Invalid Job Id %d in %s."},
    {10004, "Error: Invalid Job Type %d."},
    {10005, "Error: Invalid Resource Type %d."},
    {10006, "Error: Job %d Cannot checkin equipment %s, in use by Job %d."},
    {10007, "Error: Job %d Cannot checkout equipment %s, in use by Job %d."},
    {10008, "Error: Could not start scheduled job - Required equipment in use by Job %d."},
    {10009, "Error: Job %d is in-progress.  Cancel job before attempting to delete."},
    {10010, "Error: End time is less than start time."},
    {10011, "Error: Cannot add job - Start time not specified."},
    {10012, "Error: Cannot add job - No output filename specified."},
    {10013, "Error: Cannot add job - No source filename specified."},
    {10014, "Error: file %s could not be found."},
    {10015, "Error: Cannot add job - No encoder specified."},
    {10016, "Error: Cannot add job - No decoder specified."},
    {10017, "Error: Cannot add Decoder - Invalid Ip Address."},
    {10018, "Error: Cannot add Encoder - Invalid Ip Address,"},
    {10019, "Error: Cannot add VTR - No port specified."},
    {10020, "Error: Unknown VTR request %d."},
    {10021, "Error: Mark out time must be greater than Mark in time."},
    {10022, "Error: Invalid timecode parameter %s for frame rate %f."},
    {10023, "Error: Must specify Mark In Time and Mark Out Time."},
    {10024, "Error: Invalid Message Type %d."},
    {10025, "Error: Invalid Mpeg Property."},
    {10026, "Error: Failed to get requested Mpeg Property."},
    {10027, "Error: Timeout waiting for job to complete."},
    {10028, "Error: Could not create queue %s."},
    {10029, "Error: Could not connect to queue %s."},
    {10030, "Error: Failed to send message on queue %s."},
    {10031, "Error: Could not close queue %s."},
    {10032, "Error: Could not unlink queue %s."},
    {10033, "Error: Failed to send job cancel message."},
    {10034, "Error: Could not cancel job %d."},
    {10035, "Error: Could not launch thread."},
    {10036, "Error: Could not launch process %s."},
    {10037, "Error: Process %s exited with code %ld."},
    {10038, "CreateProcess failed (%d)"},
    {10039, "TimeSpanUtil.getSeconds() was not implemented for spans of 1 month or greater!"},
    {10040, "Could not load KestrelManager settings file %s."},
    {10041, "KestrelManager settings file %s does not appear to be a valid xml file."},
    {10042, "Log file %s is empty."},
    {10043, "Could not open %s."},
    {10044, "Fseek error %d on file %s."},
    {10045, "Error: Required resources currently in use by Job %d.  Cancel Job %d?"},
    {10046, "Warning: Required resources in use by Job %d.  If not available by scheduled start time, your job will not be run. Continue anyway?"},
    {10047, "Error: Resource conflict with Job %d.  Cancel Job %d?"},
    {10048, "Warning: Offline Job %d is using the required resources.  Continue anyway and re-queue Offline Job %d?"},
    {10049, "Info: Launching Job command %s."},
    {10050, "Info: Job process returned SUCCESS."},
};

constexpr Row captureRows[] = {
    {20001, "Error: Unknown Capture Mode %d."},
    {20002, "Error: Invalid filename."},
    {20003, "Error: You must enter a filename before capture."},
    {20004, "Error: Filename path and length is too long."},
    {20005, "Error: Invalid path and file - If default directory is locked, full path is not allowed."},
    {20006, "Error: Invalid path and file combination."},
    {20007, "Error: Not enough space for this recording."},
    {20008, "Error: Invalid Encoder SNMP Settings.  Please check setup and try again."},
    {20009, "Error: Failed to lock on VITC."},
    {20010, "Error: Encoder %d Failed to lock on VITC."},
    {20011, "Error: Encoder VITC lock check failed - could not get encoder timecode."},
    {20012, "Error: Encoder not able to lock to VITC in %d seconds."},
    {20013, "Error: Encoder VITC lock took too long - Not time left for splice point."},
    {20014, "Error: Start Capture failed."},
    {20015, "Error: Start Capture timed out."},
    {20016, "Error: Unknown decoder option %d."},
    {20017, "Error: Invalid decoder interface %s."},
    {20018, "Error: Setting decoder video test pattern to none."},
    {20019, "Error: Setup re-encode returned %d Exiting."},
    {20020, "Error: Video lock failure has been detected on decoder input. Process has been terminated."},
    {20021, "Error: Streamer cache is empty (Buffer Underrun) but thread filling cache is still active.  Please reduce other file I/O operations and try again."},
    {20022, "Error: Start re-encode returned %d Exiting."},
    {20024, "Error: Decoder config file Error: %s."},
    {20025, "Error: Decoder reboot : %s."},
    {20029, "Error:  %d, Not able to re-stamp video bit_rate for black mpeg files."},
    {20030, "Error:  %d, Not able to generate black mpeg."},
    {20031, "Error: Could not delete black file %s."},
    {20032, "Error:  %d, Soure file does not appear to have proper transport stream, length is not multiple of 188"},
    {20033, "Error:  Audio %d in Source File is not AC3, can't set decoder to Passthru"},
    {20034, "Error:  Audio %d passthru settings on Encoder %d don't match Decoder"},
    {20035, "Error:  Audio %d, Encoder %d audio bitrate (%dKbps) must be >= bitrate in Source File (%dKbps)"},
    {20036, "Error:  Found %d AC3 audios in source, Max supported is %d"},
    {20040, "Error:  Multiple Encoder %d Inputs are using Embedded Source %d"},
    {20041, "Timecode delta=%d between Encoder0 and Encoder%d exceeds limits %d"},
    {20042, "Error: Invalid comma-delimited int list"},
    {20043, "Error: Output file not specified."},
    {20044, "Error: Source file not specified."},
    {20045, "Error: Unable to open input file %s."},
    {20046, "Error: Invalid transport packet in the input file %s, Unable to determine the duration!"},
    {20047, "Error: Invalid Mark-In time."},
    {20048, "Error: Invalid Mark-Out time."},
    {20049, "Error: Invalid Duration %s for rate_code %d and drop frame %d."},
    {20050, "Error: Use a minimum of 5 frames for the capture duration."},
    {20051, "Error: Duration %s is too long.  Max is %s.  Please select a smaller duration."},
    {20052, "Error: Start timecode %s cannot be found."},
    {20053, "Error: Invalid configuration file."},
    {20054, "Error: Unable to query VTR for start time."},
    {20055, "Error: Calculate bitrate failed."},
    {20056, "Error: Could not launch thread."},
    {20057, "Error: Could not join thread."},
    {20058, "Error: Could not connect to message queue %s."},
    {20059, "Error: Could not close queue %s."},
    {20060, "Error: Failed to send message of type %d on queue %s."},
    {20061, "Error: Cannot send VTR command.  Send queue not available."},
    {20062, "Error: Failed to send VTR command on message queue."},
    {20063, "Error: Timeout waiting for response from VTR."},
    {20064, "Error: Splice point error on Encoder %d. Capture Issued splice point %s, but Splice point was inserted at %s."},
    {20065, "Error: Capture discontinuity.  Please check the network connection and restart capture."},
    {20066, "Error: Disk Full.  Ending Capture."},
    {20067, "Error: Source file is HD and encoder is set to SD - must configure Decoder options for Down conversion!"},
    {20068, "Error: Source file is SD and encoder is set to HD - must configure Decoder options for Up conversion!"},
    {20069, "Error: Encoder Input Source %d is not supported, use HD or SD input only"},
    {20070, "Error: Could not determine if Encoder input is SD or HD: %s"},
    {20071, "Error: Mezzanine Mode works only with IP or DekTec Streamers."},
    {20072, "Error: Setup returned %d,%s, Exiting"},
    {20073, "Error: Splice Point Attempt %d failed.  Retries set to %d."},
    {20074, "Error: Splice Point Failed %d times, Aborting."},
    {20075, "Error: Failed to issue splice point: return code %d."},
    {20076, "Error: Could not set decoder IP Buffer Level [%s]."},
    {20077, "Error: Encoder turn on VITC failed."},
    {20078, "Error: Decoder turn on VITC failed: %s."},
    {20079, "Error: Could not open output file %s."},
    {20080, "Error: Could not connect to VTR at %s."},
    {20081, "Error: Command %d to VTR at %s failed."},
    {20082, "Error: Preroll to %s for VTR at %s failed."},
    {20083, "Error: Could not retrieve multicast ip and port for encoder %s."},
    {20084, "Error: Could not retrieve multicast ip and port for decoder %s."},
    {20085, "Error: Invalid Rolling Capture duration %d."},
    {20086, "Error: Do not see MPEG transport stream for capture at IP address %s:%d."},
    {20087, "Error: Memory leak - buffer Count = %d, release count = %d."},
    {20088, "Error: Profile not supported because it was not saved from Capture %s."},
    {20089, "Error: Profile cannot be loaded because it is for encoder model %d, not %d."},
    {20090, "Error: Profile cannot be loaded because it is for a encoder firmware %s, not %s."},
    {20091, "Error: Cannot load profile - SNMP Error querying device."},
    {20092, "Error: Encoder profile frc %d does not match source file frc %d."},
    {20093, "Error: Failed to load profile %s to encoder."},
    {20094, "Error: Failed to validate profile load - could not get encoder multicate settings."},
    {20095, "Error: Could not validate profile load - Calculate bitrate failed."},
    {20096, "Error: Encoder frc %d does not match profile frc %d after load."},
    {20097, "No profile specified."},
    {20098, "Encoder is not locked to video after loading profile."},
    {20099, "Can't perform examine stream to validate profile load.  Invalid udpGrab or multicast settings."},
    {20100, "Warning: The file specified already exists.  Overwrite existing file?"},
    {20101, "Warning: Using DECODER_START_APPEND_v3.1.0.4 setting from capture.ini = %d, which is not the default %d."},
    {20102, "Warning: Using DECODER_END_APPEND_v3.1.0.4 setting from capture.ini = %d, which is not the default %d."},
    {20103, "Info: Adjusting received splice point by -2 for 6140/6142 and 720p."},
    {20104, "Info: Capture start timeout:  NONE."},
    {20105, "Info: Mezzanine corrected time code %d for encoder %d."},
    {20106, "Encoder locked to VITC in:  %d/%d Seconds."},
    {20107, "Profile load %d/%d: file %s to encoder %s"},
    {20108, "Rebooting encoder %s"},
    {20109, "Encoder %s going to sleep for %.2f minutes"},
    {20110, "Debug: theArgs[%d].rawfile = 0x%08X."},
    {20111, "Capture start timeout:  %d/%d"},
};
// clang-format on

TEST(ErrorCodes, ManagerTableHoldsEveryTextAtItsCode) {
    ASSERT_EQ(std::size(managerRows), 50u);
    for (const Row& row : managerRows) {
        EXPECT_STREQ(LOG_MSG(row.code), row.text) << row.code;
        EXPECT_STREQ(ManagerServiceErrMsg[row.code - 10001], row.text) << row.code;
    }
}

TEST(ErrorCodes, CaptureTableHoldsEveryTextAtItsCode) {
    ASSERT_EQ(std::size(captureRows), 104u);
    for (const Row& row : captureRows) {
        EXPECT_STREQ(LOG_MSG(row.code), row.text) << row.code;
        EXPECT_STREQ(CaptureErrMsg[row.code - 20001], row.text) << row.code;
    }
}

TEST(ErrorCodes, CodeInAGapOfTheCaptureNumberingIsInvalid) {
    std::map<long, const char*> listed;
    for (const Row& row : captureRows)
        listed[row.code] = row.text;
    int gaps = 0;
    for (long code = 20001; code <= 20111; ++code) {
        if (listed.contains(code))
            continue;
        ++gaps;
        EXPECT_STREQ(LOG_MSG(code), invalid) << code;
    }
    EXPECT_EQ(gaps, 7);
}

TEST(ErrorCodes, TablesEndWithANullEntryAfterTheLastCode) {
    EXPECT_EQ(ManagerServiceErrMsg[10050 - 10001 + 1], nullptr);
    EXPECT_EQ(CaptureErrMsg[20111 - 20001 + 1], nullptr);
}

TEST(ErrorCodes, ZeroIsSuccess) {
    EXPECT_STREQ(LOG_MSG(0), "Success");
}

TEST(ErrorCodes, CodeBeyondTheLastEntryOfItsRangeIsInvalid) {
    for (const long code : {10051L, 10052L, 19997L, 19998L, 20112L, 20113L, 29997L, 29998L})
        EXPECT_STREQ(LOG_MSG(code), invalid) << code;
}

TEST(ErrorCodes, CodeOutsideBothRangesIsInvalid) {
    for (const long code : {5L, -1L, 1L, 10000L, 19999L, 20000L, 29999L, 30000L, LONG_MIN, LONG_MAX})
        EXPECT_STREQ(LOG_MSG(code), invalid) << code;
}

TEST(ErrorCodes, NamedCodesSelectTheirTexts) {
    EXPECT_STREQ(LOG_MSG(kestrel::error::invalidJobGuid), "Error: Invalid job GUID %s.");
    EXPECT_STREQ(LOG_MSG(kestrel::error::jobProcessSucceeded), "Info: Job process returned SUCCESS.");
    EXPECT_STREQ(LOG_MSG(kestrel::error::unknownCaptureMode), "Error: Unknown Capture Mode %d.");
    EXPECT_STREQ(LOG_MSG(kestrel::error::captureStartTimeoutProgress), "Capture start timeout:  %d/%d");
}

} // namespace
