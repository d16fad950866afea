#pragma once

#include <optional>
#include <string_view>

#include "kel/ip_address.h"
#include "kel/types.h"

namespace kelhttp {

enum class BodyFormat : unsigned char { Xml, Json };

/// The format that a media type names; nothing for any other. An empty text names XML.
std::optional<BodyFormat> FormatOfContentType(std::string_view type);

/// The format of the answer that an Accept field asks for: JSON when it is named and XML is not preferred by
/// standing before it, else XML.
BodyFormat FormatOfAccept(std::string_view accept);

struct ActionCall {
    KelString name;
    KelString body;
    BodyFormat bodyFormat = BodyFormat::Xml;
    BodyFormat answerFormat = BodyFormat::Xml;
    IpAddress peer;
};

struct ActionAnswer {
    unsigned int status = 200;  ///< 200, 400 (body: what is malformed) or 404
    unsigned int result = 0;    ///< the action's own
    const char* contentType = "text/plain";
    KelString body;
};

/// Calls an action of this device with the container in the body, its value HttpProtocolRequestInfo replaced
/// by one that names the peer. Blocks for as long as the action does; never throws.
ActionAnswer RunActionCall(const ActionCall& call);

}  // namespace kelhttp
