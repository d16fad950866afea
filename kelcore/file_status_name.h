#pragma once

#include "kel/types.h"

/// A file's status in JSON and as a label: "_AGTMOD_FILESTORESTATUS_TOBEUPLOADED_" gives "to_be_uploaded".
KelString FileStatusName(const KelString& status);
