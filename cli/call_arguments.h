#pragma once

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

/// Puts "name=text" or "name:=JSON" into a container; a name that is given again gets another value. An error
/// when the text is neither or the JSON is malformed.
KelStatus AddCallArgument(const KelString& text, KelContainer& container);
