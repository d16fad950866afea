#include "modules/relay/relay.h"

KEL_MODULE_MAIN(Relay)
