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
