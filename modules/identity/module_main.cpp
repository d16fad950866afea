#include "modules/identity/identity.h"

KEL_MODULE_MAIN(Identity)
