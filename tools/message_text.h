#pragma once

// How ipcd-ctl shows a broker message: decoded by the body type its topic
// carries (signal values by the catalogue), as JSON or as one text line.

#include <nlohmann/json.hpp>
#include <string>

#include "message.h"
#include "signal_values.h"

namespace ipcd_tools {

using Json = nlohmann::ordered_json;

// {"topic", "retained", "qos", then "header", "type", "body"} for a frame whose
// body its topic's type reads, else "type": "raw" and the "payload" in hex.
Json decode(const Catalogue* catalogue, const std::string& topic,
            const ecu::kora::com::Message& msg);
// A value as text: strings bare, arrays joined by "," ("-" when empty),
// booleans 1 or 0.
std::string flat(const Json& value);
// One line: the topic when with_topic, then flags, header, body type and
// fields; signal values last.
std::string text_line(const Json& decoded, bool with_topic);

// ipcd's statistics (a flat JSON object) as one line per key with what it
// counts; keys this tool does not know are shown as they are. Empty when the
// payload is not a JSON object.
std::string stats_text(const std::string& payload);
// ipcd's health ({"state":"up",...} or {"state":"down"}) as one line; empty
// when the payload holds no state. up is true for "up".
std::string health_text(const std::string& payload, bool& up);

}  // namespace ipcd_tools
