#pragma once

#include <cstddef>
#include <string_view>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

// The XML form of KelContainer, described there.

KelString ContainerToXml(const KelContainer& container);

/// The same, or an error when the result is deeper or longer than ContainerFromXml takes.
KelResult<KelString> ContainerToLoadableXml(const KelContainer& container);

KelResult<KelContainer> ContainerFromXml(std::string_view xml);

// The check before parsing, in container_xml_scan.cpp.

/// An error that names the line and column of `offset` in `xml` (both count from 1, the column in bytes).
KelError XmlErrorAt(std::string_view xml, std::size_t offset, const KelString& problem);

/// Checks an XML text (XML 1.0) before a tree is built from it: refuses elements nested deeper than
/// `maxDepth`, DOCTYPE, references to anything but characters, ill-formed UTF-8 and the characters that XML
/// excludes. Linear in the text's length; memory does not depend on it. Whether tags match is left to the
/// parser.
KelStatus ScanXml(std::string_view xml, std::size_t maxDepth);
