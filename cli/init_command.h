#pragma once

#include <map>

#include "cli/options.h"
#include "kel/result.h"
#include "kel/types.h"

/// What the templates' placeholders stand for: "ADDRESS", "PORT", "ROLE", "PARENT_NAME", "PARENT_PORT",
/// "PREFER_IP", "NAME", "PASSWORD", "MODULES". An error when the parent does not fit the role or a text
/// cannot stand in an ini file.
KelResult<std::map<KelString, KelString>> TemplateValues(const InitOptions& options,
                                                         const KelString& password);

/// `text` with every @NAME@ that `values` knows replaced, in one pass: what a value holds is not replaced
/// again.
KelString FillTemplate(std::string_view text, const std::map<KelString, KelString>& values);
