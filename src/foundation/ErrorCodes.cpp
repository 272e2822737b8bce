#include "foundation/ErrorCodes.h"

#include <iterator>

namespace {

constexpr const char* noText = "Invalid Error Code";

// Codes from here on belong to nobody: each range is a little shorter than 10000.
constexpr long managerRangeEnd = 19998;
constexpr long captureRangeEnd = 29998;

} // namespace

// clang-format off
constexpr const char* const ManagerServiceErrMsg[] = {
    "Could not use port %d.", // 10001
    "Error: Invalid job GUID %s.", // 10002
    "Error: Invalid Job Id %d in %s.", // 10003
    "Error: Invalid Job Type %d.", // 10004
    "Error: Invalid Resource Type %d.", // 10005
    "Error: Job %d Cannot checkin equipment %s, in use by Job %d.", // 10006
    "Error: Job %d Cannot checkout equipment %s, in use by Job %d.", // 10007
    "Error: Could not start scheduled job - Required equipment in use by Job %d.", // 10008
    "Error: Job %d is in-progress.  Cancel job before attempting to delete.", // 10009
    "Error: End time is less than start time.", // 10010
    "Error: Cannot add job - Start time not specified.", // 10011
    "Error: Cannot add job - No output filename specified.", // 10012
    "Error: Cannot add job - No source filename specified.", // 10013
    "Error: file %s could not be found.", // 10014
    "Error: Cannot add job - No encoder specified.", // 10015
    "Error: Cannot add job - No decoder specified.", // 10016
    "Error: Cannot add Decoder - Invalid Ip Address.", // 10017
    "Error: Cannot add Encoder - Invalid Ip Address,", // 10018
    "Error: Cannot add VTR - No port specified.", // 10019
    "Error: Unknown VTR request %d.", // 10020
    "Error: Mark out time must be greater than Mark in time.", // 10021
    "Error: Invalid timecode parameter %s for frame rate %f.", // 10022
    "Error: Must specify Mark In Time and Mark Out Time.", // 10023
    "Error: Invalid Message Type %d.", // 10024
    "Error: Invalid Mpeg Property.", // 10025
    "Error: Failed to get requested Mpeg Property.", // 10026
    "Error: Timeout waiting for job to complete.", // 10027
    "Error: Could not create queue %s.", // 10028
    "Error: Could not connect to queue %s.", // 10029
    "Error: Failed to send message on queue %s.", // 10030
    "Error: Could not close queue %s.", // 10031
    "Error: Could not unlink queue %s.", // 10032
    "Error: Failed to send job cancel message.", // 10033
    "Error: Could not cancel job %d.", // 10034
    "Error: Could not launch thread.", // 10035
    "Error: Could not launch process %s.", // 10036
    "Error: Process %s exited with code %ld.", // 10037
    "CreateProcess failed (%d)", // 10038
    "TimeSpanUtil.getSeconds() was not implemented for spans of 1 month or greater!", // 10039
    "Could not load KestrelManager settings file %s.", // 10040
    "KestrelManager settings file %s does not appear to be a valid xml file.", // 10041
    "Log file %s is empty.", // 10042
    "Could not open %s.", // 10043
    "Fseek error %d on file %s.", // 10044
    "Error: Required resources currently in use by Job %d.  Cancel Job %d?", // 10045
    "Warning: Required resources in use by Job %d.  If not available by scheduled start time, your job will not be run. Continue anyway?", // 10046
    "Error: Resource conflict with Job %d.  Cancel Job %d?", // 10047
    "Warning: Offline Job %d is using the required resources.  Continue anyway and re-queue Offline Job %d?", // 10048
    "Info: Launching Job command %s.", // 10049
    "Info: Job process returned SUCCESS.", // 10050
    nullptr,
};

constexpr const char* const CaptureErrMsg[] = {
    "Error: Unknown Capture Mode %d.", // 20001
    "Error: Invalid filename.", // 20002
    "Error: You must enter a filename before capture.", // 20003
    "Error: Filename path and length is too long.", // 20004
    "Error: Invalid path and file - If default directory is locked, full path is not allowed.", // 20005
    "Error: Invalid path and file combination.", // 20006
    "Error: Not enough space for this recording.", // 20007
    "Error: Invalid Encoder SNMP Settings.  Please check setup and try again.", // 20008
    "Error: Failed to lock on VITC.", // 20009
    "Error: Encoder %d Failed to lock on VITC.", // 20010
    "Error: Encoder VITC lock check failed - could not get encoder timecode.", // 20011
    "Error: Encoder not able to lock to VITC in %d seconds.", // 20012
    "Error: Encoder VITC lock took too long - Not time left for splice point.", // 20013
    "Error: Start Capture failed.", // 20014
    "Error: Start Capture timed out.", // 20015
    "Error: Unknown decoder option %d.", // 20016
    "Error: Invalid decoder interface %s.", // 20017
    "Error: Setting decoder video test pattern to none.", // 20018
    "Error: Setup re-encode returned %d Exiting.", // 20019
    "Error: Video lock failure has been detected on decoder input. Process has been terminated.", // 20020
    "Error: Streamer cache is empty (Buffer Underrun) but thread filling cache is still active.  Please reduce other file I/O operations and try again.", // 20021
    "Error: Start re-encode returned %d Exiting.", // 20022
    noText, // 20023
    "Error: Decoder config file Error: %s.", // 20024
    "Error: Decoder reboot : %s.", // 20025
    noText, // 20026
    noText, // 20027
    noText, // 20028
    "Error:  %d, Not able to re-stamp video bit_rate for black mpeg files.", // 20029
    "Error:  %d, Not able to generate black mpeg.", // 20030
    "Error: Could not delete black file %s.", // 20031
    "Error:  %d, Soure file does not appear to have proper transport stream, length is not multiple of 188", // 20032
    "Error:  Audio %d in Source File is not AC3, can't set decoder to Passthru", // 20033
    "Error:  Audio %d passthru settings on Encoder %d don't match Decoder", // 20034
    "Error:  Audio %d, Encoder %d audio bitrate (%dKbps) must be >= bitrate in Source File (%dKbps)", // 20035
    "Error:  Found %d AC3 audios in source, Max supported is %d", // 20036
    noText, // 20037
    noText, // 20038
    noText, // 20039
    "Error:  Multiple Encoder %d Inputs are using Embedded Source %d", // 20040
    "Timecode delta=%d between Encoder0 and Encoder%d exceeds limits %d", // 20041
    "Error: Invalid comma-delimited int list", // 20042
    "Error: Output file not specified.", // 20043
    "Error: Source file not specified.", // 20044
    "Error: Unable to open input file %s.", // 20045
    "Error: Invalid transport packet in the input file %s, Unable to determine the duration!", // 20046
    "Error: Invalid Mark-In time.", // 20047
    "Error: Invalid Mark-Out time.", // 20048
    "Error: Invalid Duration %s for rate_code %d and drop frame %d.", // 20049
    "Error: Use a minimum of 5 frames for the capture duration.", // 20050
    "Error: Duration %s is too long.  Max is %s.  Please select a smaller duration.", // 20051
    "Error: Start timecode %s cannot be found.", // 20052
    "Error: Invalid configuration file.", // 20053
    "Error: Unable to query VTR for start time.", // 20054
    "Error: Calculate bitrate failed.", // 20055
    "Error: Could not launch thread.", // 20056
    "Error: Could not join thread.", // 20057
    "Error: Could not connect to message queue %s.", // 20058
    "Error: Could not close queue %s.", // 20059
    "Error: Failed to send message of type %d on queue %s.", // 20060
    "Error: Cannot send VTR command.  Send queue not available.", // 20061
    "Error: Failed to send VTR command on message queue.", // 20062
    "Error: Timeout waiting for response from VTR.", // 20063
    "Error: Splice point error on Encoder %d. Capture Issued splice point %s, but Splice point was inserted at %s.", // 20064
    "Error: Capture discontinuity.  Please check the network connection and restart capture.", // 20065
    "Error: Disk Full.  Ending Capture.", // 20066
    "Error: Source file is HD and encoder is set to SD - must configure Decoder options for Down conversion!", // 20067
    "Error: Source file is SD and encoder is set to HD - must configure Decoder options for Up conversion!", // 20068
    "Error: Encoder Input Source %d is not supported, use HD or SD input only", // 20069
    "Error: Could not determine if Encoder input is SD or HD: %s", // 20070
    "Error: Mezzanine Mode works only with IP or DekTec Streamers.", // 20071
    "Error: Setup returned %d,%s, Exiting", // 20072
    "Error: Splice Point Attempt %d failed.  Retries set to %d.", // 20073
    "Error: Splice Point Failed %d times, Aborting.", // 20074
    "Error: Failed to issue splice point: return code %d.", // 20075
    "Error: Could not set decoder IP Buffer Level [%s].", // 20076
    "Error: Encoder turn on VITC failed.", // 20077
    "Error: Decoder turn on VITC failed: %s.", // 20078
    "Error: Could not open output file %s.", // 20079
    "Error: Could not connect to VTR at %s.", // 20080
    "Error: Command %d to VTR at %s failed.", // 20081
    "Error: Preroll to %s for VTR at %s failed.", // 20082
    "Error: Could not retrieve multicast ip and port for encoder %s.", // 20083
    "Error: Could not retrieve multicast ip and port for decoder %s.", // 20084
    "Error: Invalid Rolling Capture duration %d.", // 20085
    "Error: Do not see MPEG transport stream for capture at IP address %s:%d.", // 20086
    "Error: Memory leak - buffer Count = %d, release count = %d.", // 20087
    "Error: Profile not supported because it was not saved from Capture %s.", // 20088
    "Error: Profile cannot be loaded because it is for encoder model %d, not %d.", // 20089
    "Error: Profile cannot be loaded because it is for a encoder firmware %s, not %s.", // 20090
    "Error: Cannot load profile - SNMP Error querying device.", // 20091
    "Error: Encoder profile frc %d does not match source file frc %d.", // 20092
    "Error: Failed to load profile %s to encoder.", // 20093
    "Error: Failed to validate profile load - could not get encoder multicate settings.", // 20094
    "Error: Could not validate profile load - Calculate bitrate failed.", // 20095
    "Error: Encoder frc %d does not match profile frc %d after load.", // 20096
    "No profile specified.", // 20097
    "Encoder is not locked to video after loading profile.", // 20098
    "Can't perform examine stream to validate profile load.  Invalid udpGrab or multicast settings.", // 20099
    "Warning: The file specified already exists.  Overwrite existing file?", // 20100
    "Warning: Using DECODER_START_APPEND_v3.1.0.4 setting from capture.ini = %d, which is not the default %d.", // 20101
    "Warning: Using DECODER_END_APPEND_v3.1.0.4 setting from capture.ini = %d, which is not the default %d.", // 20102
    "Info: Adjusting received splice point by -2 for 6140/6142 and 720p.", // 20103
    "Info: Capture start timeout:  NONE.", // 20104
    "Info: Mezzanine corrected time code %d for encoder %d.", // 20105
    "Encoder locked to VITC in:  %d/%d Seconds.", // 20106
    "Profile load %d/%d: file %s to encoder %s", // 20107
    "Rebooting encoder %s", // 20108
    "Encoder %s going to sleep for %.2f minutes", // 20109
    "Debug: theArgs[%d].rawfile = 0x%08X.", // 20110
    "Capture start timeout:  %d/%d", // 20111
    nullptr,
};
// clang-format on

namespace {

static_assert(std::size(ManagerServiceErrMsg) ==
              kestrel::error::managerLast - kestrel::error::managerFirst + 2);
static_assert(std::size(CaptureErrMsg) == kestrel::error::captureLast - kestrel::error::captureFirst + 2);

// Every code of a table has a text, and only the entry after the last has none.
template <std::size_t N>
constexpr bool endsWithItsOnlyNull(const char* const (&table)[N]) {
    for (std::size_t i = 0; i + 1 < N; ++i)
        if (table[i] == nullptr)
            return false;
    return table[N - 1] == nullptr;
}
static_assert(endsWithItsOnlyNull(ManagerServiceErrMsg));
static_assert(endsWithItsOnlyNull(CaptureErrMsg));

// The ranges are wider than the tables: a code beyond the last entry has no text.
template <std::size_t N>
const char* textAt(const char* const (&table)[N], long position) noexcept {
    const auto index = static_cast<std::size_t>(position);
    return index < N && table[index] != nullptr ? table[index] : noText;
}

} // namespace

const char* LOG_MSG(long code) noexcept {
    if (code >= kestrel::error::managerFirst && code <= managerRangeEnd)
        return textAt(ManagerServiceErrMsg, code - kestrel::error::managerFirst);
    if (code >= kestrel::error::captureFirst && code <= captureRangeEnd)
        return textAt(CaptureErrMsg, code - kestrel::error::captureFirst);
    return code == kestrel::error::success ? "Success" : noText;
}
