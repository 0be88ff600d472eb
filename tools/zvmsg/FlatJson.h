// FlatJson.h: a message as a JSON document and back, for zvmsg.
//
// The document keeps every byte: a field whose value the typed form cannot
// give back byte for byte (a size the type does not have, a float that is
// not finite, a string that is not UTF-8 or has bytes after its terminator,
// a nested message with bytes after its end, a caller-defined type) is
// written as "hex" instead, in the document's byte order, so that building
// a block from the document gives the original block again.
#ifndef ZVKIT_ZVMSG_FLAT_JSON_H
#define ZVKIT_ZVMSG_FLAT_JSON_H

#include <ZvByteOrder.h>
#include <ZvMessage.h>

#include <nlohmann/json.hpp>

#include <string>

namespace zvkit::internal {

using Json = nlohmann::ordered_json;

// The document of message, read from a block in order (little or big).
Json MessageToJson(const ZvMessage& message, zv_byte_order order);

// Builds the message a document describes. On failure returns false with
// *error naming the JSON path and the problem. *order gets the document's
// "byte_order" (the host's when it has none).
bool JsonToMessage(const Json& document, ZvMessage* message, zv_byte_order* order,
                   std::string* error);

} // namespace zvkit::internal

#endif // ZVKIT_ZVMSG_FLAT_JSON_H
