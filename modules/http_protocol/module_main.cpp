#include "kelcore/module.h"
#include "modules/http_protocol/http_protocol.h"

KEL_MODULE_MAIN(HttpProtocol)
