#include "kelcore/version.h"

const char* KelVersion() {
    return KEL_VERSION;
}
