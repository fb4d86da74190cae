// SPDX-License-Identifier: Apache-2.0
// JSON for the answers of the second interface. Included by no other header: it takes long to
// compile.
#ifndef SENTREL_AGENT_JSON_H
#define SENTREL_AGENT_JSON_H

#include <nlohmann/json.hpp>
#include <string>

namespace agent {

// Its fields stay in the order in which they were added.
typedef nlohmann::ordered_json Json;

// On one line. It is always valid UTF-8, as the bus requires: bytes that are not become U+FFFD.
inline std::string JsonLine(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace agent

#endif
