// The numbers and texts of every error, warning and information message.
#pragma once

namespace kestrel::error {

// Every code of both tables, by name. 0 is success. The texts are printf formats; the caller fills them.
inline constexpr long success = 0;

// The manager's own messages.
inline constexpr long portNotUsable = 10001;
inline constexpr long invalidJobGuid = 10002;
inline constexpr long invalidJobId = 10003;
inline constexpr long invalidJobType = 10004;
inline constexpr long invalidResourceType = 10005;
inline constexpr long cannotCheckinEquipment = 10006;
inline constexpr long cannotCheckoutEquipment = 10007;
inline constexpr long scheduledEquipmentInUse = 10008;
inline constexpr long jobInProgress = 10009;
inline constexpr long endBeforeStart = 10010;
inline constexpr long noStartTime = 10011;
inline constexpr long noOutputFile = 10012;
inline constexpr long noSourceFile = 10013;
inline constexpr long fileNotFound = 10014;
inline constexpr long noEncoder = 10015;
inline constexpr long noDecoder = 10016;
inline constexpr long invalidDecoderAddress = 10017;
inline constexpr long invalidEncoderAddress = 10018;
inline constexpr long noVtrPort = 10019;
inline constexpr long unknownVtrRequest = 10020;
inline constexpr long markOutNotAfterMarkIn = 10021;
inline constexpr long invalidTimecode = 10022;
inline constexpr long marksRequired = 10023;
inline constexpr long invalidMessageType = 10024;
inline constexpr long invalidMpegProperty = 10025;
inline constexpr long mpegPropertyFailed = 10026;
inline constexpr long jobTimeout = 10027;
inline constexpr long queueNotCreated = 10028;
inline constexpr long queueNotConnected = 10029;
inline constexpr long queueSendFailed = 10030;
inline constexpr long queueNotClosed = 10031;
inline constexpr long queueNotUnlinked = 10032;
inline constexpr long cancelMessageFailed = 10033;
inline constexpr long jobNotCancelled = 10034;
inline constexpr long threadNotLaunched = 10035;
inline constexpr long processNotLaunched = 10036;
inline constexpr long processExited = 10037;
inline constexpr long createProcessFailed = 10038;
inline constexpr long spanHasMonths = 10039;
inline constexpr long settingsNotLoaded = 10040;
inline constexpr long settingsNotXml = 10041;
inline constexpr long logFileEmpty = 10042;
inline constexpr long fileNotOpened = 10043;
inline constexpr long seekFailed = 10044;
inline constexpr long resourcesInUse = 10045;
inline constexpr long scheduledResourcesInUse = 10046;
inline constexpr long resourceConflict = 10047;
inline constexpr long offlineJobUsesResources = 10048;
inline constexpr long launchingJob = 10049;
inline constexpr long jobProcessSucceeded = 10050;

// The capture messages, whose numbering the capture worker shares; gaps have no text.
inline constexpr long unknownCaptureMode = 20001;
inline constexpr long invalidFilename = 20002;
inline constexpr long filenameRequired = 20003;
inline constexpr long filenameTooLong = 20004;
inline constexpr long pathNotAllowed = 20005;
inline constexpr long invalidPathAndFile = 20006;
inline constexpr long notEnoughSpace = 20007;
inline constexpr long invalidEncoderSnmp = 20008;
inline constexpr long vitcLockFailed = 20009;
inline constexpr long encoderVitcLockFailed = 20010;
inline constexpr long vitcLockNoTimecode = 20011;
inline constexpr long vitcLockTimeout = 20012;
inline constexpr long vitcLockTooLate = 20013;
inline constexpr long startCaptureFailed = 20014;
inline constexpr long startCaptureTimeout = 20015;
inline constexpr long unknownDecoderOption = 20016;
inline constexpr long invalidDecoderInterface = 20017;
inline constexpr long decoderTestPattern = 20018;
inline constexpr long setupReencodeFailed = 20019;
inline constexpr long videoLockLost = 20020;
inline constexpr long streamerUnderrun = 20021;
inline constexpr long startReencodeFailed = 20022;
inline constexpr long decoderConfigFile = 20024;
inline constexpr long decoderReboot = 20025;
inline constexpr long blackBitrateNotStamped = 20029;
inline constexpr long blackNotGenerated = 20030;
inline constexpr long blackNotDeleted = 20031;
inline constexpr long sourceLengthNotPackets = 20032;
inline constexpr long audioNotAc3 = 20033;
inline constexpr long audioPassthruMismatch = 20034;
inline constexpr long audioBitrateTooLow = 20035;
inline constexpr long tooManyAc3Audios = 20036;
inline constexpr long embeddedSourceShared = 20040;
inline constexpr long timecodeDeltaExceeded = 20041;
inline constexpr long invalidIntList = 20042;
inline constexpr long outputFileNotSpecified = 20043;
inline constexpr long sourceFileNotSpecified = 20044;
inline constexpr long inputFileNotOpened = 20045;
inline constexpr long invalidTransportPacket = 20046;
inline constexpr long invalidMarkIn = 20047;
inline constexpr long invalidMarkOut = 20048;
inline constexpr long invalidDuration = 20049;
inline constexpr long durationTooShort = 20050;
inline constexpr long durationTooLong = 20051;
inline constexpr long startTimecodeNotFound = 20052;
inline constexpr long invalidConfigurationFile = 20053;
inline constexpr long vtrStartTimeUnknown = 20054;
inline constexpr long bitrateNotCalculated = 20055;
inline constexpr long captureThreadNotLaunched = 20056;
inline constexpr long captureThreadNotJoined = 20057;
inline constexpr long captureQueueNotConnected = 20058;
inline constexpr long captureQueueNotClosed = 20059;
inline constexpr long captureQueueSendFailed = 20060;
inline constexpr long vtrSendQueueMissing = 20061;
inline constexpr long vtrCommandNotSent = 20062;
inline constexpr long vtrResponseTimeout = 20063;
inline constexpr long splicePointMisplaced = 20064;
inline constexpr long captureDiscontinuity = 20065;
inline constexpr long diskFull = 20066;
inline constexpr long downConversionRequired = 20067;
inline constexpr long upConversionRequired = 20068;
inline constexpr long encoderInputNotSupported = 20069;
inline constexpr long encoderInputUnknown = 20070;
inline constexpr long mezzanineStreamerRequired = 20071;
inline constexpr long setupFailed = 20072;
inline constexpr long splicePointAttemptFailed = 20073;
inline constexpr long splicePointAborted = 20074;
inline constexpr long splicePointNotIssued = 20075;
inline constexpr long decoderBufferLevelNotSet = 20076;
inline constexpr long encoderVitcNotOn = 20077;
inline constexpr long decoderVitcNotOn = 20078;
inline constexpr long outputFileNotOpened = 20079;
inline constexpr long vtrNotConnected = 20080;
inline constexpr long vtrCommandFailed = 20081;
inline constexpr long vtrPrerollFailed = 20082;
inline constexpr long encoderMulticastUnknown = 20083;
inline constexpr long decoderMulticastUnknown = 20084;
inline constexpr long invalidRollingDuration = 20085;
inline constexpr long noTransportStream = 20086;
inline constexpr long bufferLeak = 20087;
inline constexpr long profileNotFromCapture = 20088;
inline constexpr long profileEncoderModel = 20089;
inline constexpr long profileEncoderFirmware = 20090;
inline constexpr long profileSnmpFailed = 20091;
inline constexpr long sourceFrameRateMismatch = 20092;
inline constexpr long profileLoadFailed = 20093;
inline constexpr long profileMulticastUnknown = 20094;
inline constexpr long profileBitrateNotCalculated = 20095;
inline constexpr long profileFrameRateMismatch = 20096;
inline constexpr long noProfile = 20097;
inline constexpr long encoderNotLockedToVideo = 20098;
inline constexpr long examineStreamNotPossible = 20099;
inline constexpr long fileAlreadyExists = 20100;
inline constexpr long decoderStartAppendNotDefault = 20101;
inline constexpr long decoderEndAppendNotDefault = 20102;
inline constexpr long splicePointAdjusted = 20103;
inline constexpr long noCaptureStartTimeout = 20104;
inline constexpr long mezzanineTimecodeCorrected = 20105;
inline constexpr long encoderVitcLockProgress = 20106;
inline constexpr long profileLoadProgress = 20107;
inline constexpr long encoderRebooting = 20108;
inline constexpr long encoderSleeping = 20109;
inline constexpr long rawFileArgument = 20110;
inline constexpr long captureStartTimeoutProgress = 20111;

// Code of the first entry of each table, and the last code with a text.
inline constexpr long managerFirst = 10001;
inline constexpr long managerLast = jobProcessSucceeded;
inline constexpr long captureFirst = 20001;
inline constexpr long captureLast = captureStartTimeoutProgress;

} // namespace kestrel::error

// Format texts in the order of the codes from 10001, ended by a null entry.
extern const char* const ManagerServiceErrMsg[kestrel::error::managerLast - kestrel::error::managerFirst + 2];

// Format texts in the order of the codes from 20001, ended by a null entry; codes in the gaps of the
// numbering hold "Invalid Error Code".
extern const char* const CaptureErrMsg[kestrel::error::captureLast - kestrel::error::captureFirst + 2];

// The format text of a code: "Success" for 0, "Invalid Error Code" for one that has no text. Never null.
const char* LOG_MSG(long code) noexcept;
