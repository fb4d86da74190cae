// SPDX-License-Identifier: Apache-2.0
#include "ForProgram.h"

#include <utf8.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "Text.h"

namespace cli {

namespace {

typedef nlohmann::ordered_json Json;

const unsigned kReplacement = 0xfffd;

}  // namespace

std::string JsonLine(const Json& value) {
    const std::string text = value.dump(-1, ' ', false, Json::error_handler_t::replace);
    // What JSON lets stand in a text and a terminal would obey: DEL, and the controls beyond it.
    std::string line;
    for (auto at = text.begin(); at != text.end();) {
        const auto from = at;
        const unsigned character = utf8::unchecked::next(at);
        if (IsControl(character) || character == kReplacement) {
            char escape[16];
            (void)std::snprintf(escape, sizeof(escape), "\\u%04x", character);
            line += escape;
        } else {
            line.append(from, at);
        }
    }
    return line;
}

std::string VersionLine(const std::string& version, const std::string& interfaceText) {
    return JsonLine(Json{{"version", version}, {"interface", interfaceText}});
}

std::string OutcomeLine(const Operation& operation, const Outcome& outcome,
                        const std::string& output) {
    return JsonLine(Json{{"operation", operation.name},
                         {"status", outcome.status},
                         {"name", StatusName(outcome.status)},
                         {"value", outcome.value},
                         {"exit", outcome.Exit()},
                         {"output", output},
                         {"text", outcome.Text()},
                         {"advice", outcome.Advice()}});
}

std::string MeaningsLine(const std::vector<Meaning>& meanings) {
    Json list = Json::array();
    for (const Meaning& meaning : meanings) {
        const std::optional<int> exit = meaning.Exit();
        list.push_back(Json{{"status", meaning.status},
                            {"name", StatusName(meaning.status)},
                            {"exit", exit ? Json(*exit) : Json()},
                            {"text", meaning.text},
                            {"advice", meaning.advice}});
    }
    return JsonLine(list);
}

std::string FailureLine(const Answer& failure, int exit, const std::string& advice) {
    return JsonLine(
        Json{{"error", failure.error}, {"text", failure.text}, {"exit", exit}, {"advice", advice}});
}

std::string StepsLine(const std::vector<Step>& steps, int exit) {
    Json list = Json::array();
    for (const Step& step : steps) {
        list.push_back(Json{{"step", step.name},
                            {"state", StateName(step.state)},
                            {"detail", step.detail},
                            {"advice", step.advice}});
    }
    return JsonLine(Json{{"ok", exit == 0}, {"exit", exit}, {"steps", list}});
}

}  // namespace cli
