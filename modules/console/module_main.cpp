#include "modules/console/console.h"

KEL_MODULE_MAIN(Console)
