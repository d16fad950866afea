#pragma once

/// Results of actions that every module shares. A module's own codes stand in its own headers.
enum KelErrorCode : unsigned int {
    kKelOk = 0,
    kKelErrorBadInput = 1,  ///< a missing or unusable input; nothing was changed
    kKelErrorMissingContent = 13,
    kKelErrorNotAvailable = 17,   ///< the action exists but cannot be served here; string `Message` says why
    kKelErrorInternal = 18,       ///< the handler failed unexpectedly; logged where it ran
    kKelErrorUnknownAction = 20,  ///< no such action on the called device
    kKelErrorUnreachable = 21,    ///< no connection to the called device, or no answer in time
    kKelErrorCredentials = 22,    ///< the called device refused the credentials
    kKelErrorBadAnswer = 23,      ///< the called device answered with something that is no action result
    kKelErrorGuidScheme = 44005,  ///< a GUID of another tree's scheme
};

/// What a subscriber of HttpProtocolCallbackPutBegin or HttpProtocolCallbackPutCheck answers about an upload,
/// and one of HttpProtocolCallbackGet about a download.
enum KelTransferAnswer : unsigned int {
    kKelAnswerNotExpected = 44006,  ///< nothing awaits it: the sender has to offer the file again; not for it
    kKelAnswerOtherContent = 44007,  ///< it is not what was offered
    kKelAnswerExpected = 44008,  ///< awaited: what has come of it is worth keeping; the device may have it
};

/// What a consumer of the file store answers to a file that is handed to it, and to a request for a file that
/// is missing here. Any other answer lets the file go on its way.
enum KelConsumerAnswer : unsigned int {
    kKelAnswerWillProvide = 15,      ///< the consumer supplies the missing file itself
    kKelAnswerRequestKnown = 16154,  ///< the consumer knows of the request and needs no error in the log
    kKelAnswerTryLater = 44001,      ///< not now: the file is handed over again later
    kKelAnswerStaysHere = 44003,     ///< the file has reached its destination and goes no further up
};
