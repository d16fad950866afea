#pragma once

#include <string_view>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

// The XML form of KelContainer, described there.

KelString ContainerToXml(const KelContainer& container);

/// The same, or an error when the result is deeper or longer than ContainerFromXml takes.
KelResult<KelString> ContainerToLoadableXml(const KelContainer& container);

KelResult<KelContainer> ContainerFromXml(std::string_view xml);
