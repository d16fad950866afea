#include "modules/keys/keys.h"

KEL_MODULE_MAIN(Keys)
