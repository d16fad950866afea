#pragma once

#include <string>
#include <unordered_map>
#include <vector>

/// The framework's plain text and container types. They are the standard ones under the framework's names:
/// text is UTF-8 bytes, not necessarily terminated at the first zero byte.
using KelString = std::string;

template <class Value>
using KelVector = std::vector<Value>;

template <class Key, class Value>
using KelHash = std::unordered_map<Key, Value>;
