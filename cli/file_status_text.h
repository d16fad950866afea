#pragma once

#include "kel/types.h"

/// A file's status for people: "_AGTMOD_FILESTORESTATUS_AVAILABLE_" gives "available".
KelString FileStatusText(const KelString& status);
