#include "kelcore/error_text.h"

#include "kel/format.h"
#include "kelcore/error_codes.h"

KelString KelErrorText(unsigned int error) {
    switch (error) {
        case kKelOk:
            return "no error";
        case kKelErrorBadInput:
            return "an input was refused; the log of the called device names it";
        case kKelErrorNotAvailable:
            return "the called device cannot serve it now; its log says why";
        case kKelErrorInternal:
            return "internal error; see the log of the called device";
        case kKelErrorUnknownAction:
            return "the called device has no such action; does it run an older version?";
        case kKelErrorUnreachable:
            return "no connection, or no answer in time";
        case kKelErrorCredentials:
            return "the called device refused the credentials; compare name and password in Agent.ini, or, "
                   "in a "
                   "tree with keys, see its log";
        case kKelErrorBadAnswer:
            return "what answered is no agent; check address and port";
        case kKelErrorGuidScheme:
            return "the GUID belongs to another tree";
        default:
            return KelFormat("error %u", error);
    }
}
