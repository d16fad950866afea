#pragma once

#include "kel/result.h"
#include "kel/types.h"

/// The name under which a file travels: the last part of its path.
KelString FileNameOf(const KelString& file);

/// Refuses files of one name, for under one type and label the second would replace the first.
KelStatus CheckDifferentNames(const KelVector<KelString>& files);
