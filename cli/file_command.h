#pragma once

#include "kel/container.h"

/// A file's values as the file store tells them: names beside texts, each in a container with Name and Value
/// under "Values". Sizes, times and the status are texts for people.
KelContainer FileValueList(const KelContainer& file);
