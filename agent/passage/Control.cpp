// SPDX-License-Identifier: Apache-2.0
#include "Control.h"

#include <unistd.h>

#include "Json.h"
#include "parse/Parse.h"

namespace agent {

Control::Control(Requests& requests_, const RuleStore& store_, const Reloader& reload_)
    : requests(requests_),
      store(store_),
      reload(reload_),
      started(std::chrono::steady_clock::now()) {}

void Control::Answer(const Question& question, const Caller& caller,
                     const std::shared_ptr<TextReply>& reply) {
    if (question.member == "Test") {
        // Rules may ask for the executable and for groups.
        const auto answer = [this, question, reply](const Caller& whole) {
            reply->Set(Test(question, whole));
        };
        if (!requests.LearnOf(caller, question.operation, answer)) {
            reply->SetError("org.freedesktop.DBus.Error.LimitsExceeded",
                            "too many requests at once");
        }
    } else if (question.member == "Status") {
        reply->Set(Status());
    } else if (question.member == "Mounts") {
        reply->Set(Mounts());
    } else if (caller.uid == 0 || caller.uid == geteuid()) {
        reload([this, reply](const LoadResult& result) { reply->Set(Loaded(result)); });
    } else {
        reply->SetError("org.freedesktop.DBus.Error.AccessDenied",
                        "only root may have the rules loaded again");
    }
}

// The command and what nearly matched are for root: they show the rules of others.
std::string Control::Test(const Question& question, const Caller& caller) const {
    const bool root = caller.uid == 0;
    const Parsed parsed = Parse(question.operation, question.text);
    if (parsed.status != SR_OK) {
        AuditRequest described;
        DescribeArguments(question.text, parsed.words, false, described);
        return JsonLine(Json{{"decision", "error"},
                             {"status", parsed.status},
                             {"rule", ""},
                             {"reason", ReasonOf(parsed, described)}});
    }
    const Decision decision = store.Decide(caller, parsed.request);
    const bool denied = decision.status == SR_RULE_NO_FOUND;
    Json answer{{"decision", decision.permit ? "allow"
                             : denied        ? "deny"
                                             : "error"},
                {"status", decision.status},
                {"rule", decision.rule},
                {"reason", root ? decision.detail : decision.reason}};
    if (root && decision.permit) {
        answer["argv"] = decision.permit->GetPlan().argv;
    }
    return JsonLine(answer);
}

std::string Control::Status() const {
    const Figures figures = requests.GetFigures();
    const auto uptime = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::steady_clock::now() - started);
    return JsonLine(Json{{"version", SENTREL_VERSION},
                         {"uptime_s", uptime.count()},
                         {"rules", store.Count()},
                         {"running", figures.running},
                         {"waiting", figures.waiting},
                         {"abandoned", figures.abandoned},
                         {"served", figures.served},
                         {"refused", figures.refused}});
}

std::string Control::Loaded(const LoadResult& result) const {
    return JsonLine(
        Json{{"rules", store.Count()}, {"errors", result.errors}, {"warnings", result.warnings}});
}

std::string Control::Mounts() const {
    Json list = Json::array();
    for (const MountRecord& record : requests.ListMounts()) {
        list.push_back(Json{{"target", record.target},
                            {"source", record.source},
                            {"type", record.type},
                            {"rule", record.rule},
                            {"uid", record.uid},
                            {"since", record.since}});
    }
    return JsonLine(list);
}

}  // namespace agent
