#pragma once

#include <string_view>

#include "kel/text.h"
#include "kel/types.h"

/// The name by which the action with `signature`, "Name (type name, …)", is called.
inline KelString ActionNameOfSignature(std::string_view signature) {
    return Trim(signature.substr(0, signature.find('(')));
}
