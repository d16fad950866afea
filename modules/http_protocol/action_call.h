#pragma once

#include <optional>
#include <string_view>

#include "kel/types.h"
#include "kelcore/call_origin.h"

namespace kelhttp {

/// Metrics: the value Text of the answer by itself; of a call that is refused the Message.
enum class BodyFormat : unsigned char { Xml, Json, Metrics };

/// The format that a media type names; nothing for any other. An empty text names XML.
std::optional<BodyFormat> FormatOfContentType(std::string_view type);

/// The format that an Accept field asks for: the first of JSON and XML that it names, else XML.
BodyFormat FormatOfAccept(std::string_view accept);

struct ActionCall {
    KelString name;
    KelString body;
    BodyFormat bodyFormat = BodyFormat::Xml;
    BodyFormat answerFormat = BodyFormat::Xml;
    KelPeer peer;
    KelString caller;  ///< the header Kel-Caller: what the caller says it is
};

struct ActionAnswer {
    unsigned int status = 200;  ///< 200, 400 (body: what is malformed), 403 (Metrics), 404, or 500 when the
                                ///< action threw
    unsigned int result = 0;    ///< the action's own
    const char* contentType = "text/plain";
    KelString body;
};

/// Calls an action of this device with the container in the body, as far as the action admits the peer. A
/// value HttpProtocolRequestInfo in the body is replaced by the origin of the call, so that a caller cannot
/// forge it. Blocks while the action runs; never throws.
ActionAnswer RunActionCall(const ActionCall& call);

}  // namespace kelhttp
