#pragma once

#include "kel/types.h"

/// What the result of a call means, for a person: "no connection, or no answer in time" for
/// kKelErrorUnreachable; "error N" for a code of the action itself.
KelString KelErrorText(unsigned int error);
