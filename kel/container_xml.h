#pragma once

#include <cstddef>
#include <string_view>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

// The XML form of KelContainer, described there.

KelString ContainerToXml(const KelContainer& container);

/// The same, or an error when the result is deeper, longer or of more values than ContainerFromXml takes.
KelResult<KelString> ContainerToLoadableXml(const KelContainer& container);

KelResult<KelContainer> ContainerFromXml(std::string_view xml, std::size_t maxValues);

// The check before parsing, in container_xml_scan.cpp.

/// An error that names the line and column of `offset` in `xml` (both count from 1, the column in bytes).
KelError XmlErrorAt(std::string_view xml, std::size_t offset, const KelString& problem);

/// What a tree built from a text may consist of. A value takes one element and up to three attributes;
/// comments, CDATA sections and processing instructions count as attributes do.
struct XmlLimits {
    std::size_t depth = 0;
    std::size_t elements = 0;
    std::size_t others = 0;
};

/// Checks an XML text (XML 1.0) before a tree is built from it: refuses elements nested deeper and more of
/// them than the limits say, DOCTYPE, references to anything but characters, ill-formed UTF-8 and the
/// characters that XML excludes. Linear in the text's length; memory does not depend on it. Whether tags
/// match is left to the parser.
KelStatus ScanXml(std::string_view xml, const XmlLimits& limits);
