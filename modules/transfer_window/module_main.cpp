#include "modules/transfer_window/transfer_window.h"

KEL_MODULE_MAIN(TransferWindow)
