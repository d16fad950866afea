#include "modules/delivery/delivery.h"

KEL_MODULE_MAIN(Delivery)
