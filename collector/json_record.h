// Trace records as JSON objects: the fields by name, trimmed of padding, the
// numbers as numbers, call records parsed into their figures.  A record that
// does not have the form the library gives it is reported, never guessed at.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

#include "varnix_collector.h"

namespace varnix::agent {

using Json = nlohmann::ordered_json;

// msgrcv's size for a message longer than a record (it was cut to one).
inline constexpr long kOversized = -1;

// One received message, decoded.
struct Decoded {
    Json json;          // the record, or what is known of a malformed one
    std::string error;  // empty when the record is well formed
    bool sql = false;   // an SQL text piece: `json` holds its header only
    std::string thread; // pid and thread id, which tie SQL pieces together
    std::string text;   // an SQL piece's text, padding included
};

// `size` is what msgrcv returned for queue `queue`.
Decoded decode_record(const TRAN_LOG_MSG& m, long size, int queue);

// The JSON line of a malformed record: the queue, the reason and every byte
// of it, escaped.
Json malformed_json(const TRAN_LOG_MSG& m, long size, int queue, const std::string& why);

// One line of JSON; bytes that are not UTF-8 cannot reach here, but would be
// replaced rather than stop the agent.
std::string json_line(const Json& j);

}  // namespace varnix::agent
