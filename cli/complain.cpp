#include <cstdio>

#include "cli/commands.h"
#include "cli/table.h"

int Complain(const KelError& error) {
    std::fprintf(stderr, "kel: %s\n", Printable(error.message).c_str());
    return kExitFailed;
}
