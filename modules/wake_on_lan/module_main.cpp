#include "modules/wake_on_lan/wake_on_lan.h"

KEL_MODULE_MAIN(WakeOnLan)
