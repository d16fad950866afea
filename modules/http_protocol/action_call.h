#pragma once

#include <optional>
#include <string_view>

#include "kel/ip_address.h"
#include "kel/types.h"
#include "kelcore/keys/key_ring.h"

namespace kelhttp {

enum class BodyFormat : unsigned char { Xml, Json };

/// The format that a media type names; nothing for any other. An empty text names XML.
std::optional<BodyFormat> FormatOfContentType(std::string_view type);

/// The format that an Accept field asks for: the first of JSON and XML that it names, else XML.
BodyFormat FormatOfAccept(std::string_view accept);

struct ActionCall {
    KelString name;
    KelString body;
    BodyFormat bodyFormat = BodyFormat::Xml;
    BodyFormat answerFormat = BodyFormat::Xml;
    IpAddress peer;
    KelTlsPeer proved;  ///< who calls, as far as a certificate proves it
    KelString caller;   ///< the header Kel-Caller: what the caller says it is
};

struct ActionAnswer {
    unsigned int status = 200;  ///< 200, 400 (body: what is malformed), 404, or 500 when the action threw
    unsigned int result = 0;    ///< the action's own
    const char* contentType = "text/plain";
    KelString body;
};

/// Calls an action of this device with the container in the body. Its value HttpProtocolRequestInfo is
/// replaced by one that names the peer and the caller, so that a caller cannot forge it: the strings
/// HttpProtocolRequestAddress, HttpProtocolRequestCaller and, of a peer with a certificate of the tree,
/// HttpProtocolRequestPeer (its GUID) and HttpProtocolRequestPeerRole ("master", "relay" or "client"). Blocks
/// while the action runs; never throws.
ActionAnswer RunActionCall(const ActionCall& call);

}  // namespace kelhttp
