#include "modules/core_utils/core_utils.h"

KEL_MODULE_MAIN(CoreUtils)
