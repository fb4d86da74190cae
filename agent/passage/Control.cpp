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
    JsonObject answer;
    const Parsed parsed = Parse(question.operation, question.text);
    if (parsed.status != kOk) {
        AuditRequest described;
        DescribeArguments(question.text, false, described);
        answer.Add("decision", "error").Add("status", parsed.status).Add("rule", "");
        return answer.Add("reason", ReasonOf(parsed, described)).Text();
    }
    const Decision decision = store.Decide(caller, parsed.request);
    const bool denied = decision.status == kRuleNotFound;
    answer.Add("decision", decision.permit ? "allow" : denied ? "deny" : "error");
    answer.Add("status", decision.status).Add("rule", decision.rule);
    answer.Add("reason", root ? decision.detail : decision.reason);
    if (root && decision.permit) {
        answer.Put("argv", JsonTexts(decision.permit->GetPlan().argv));
    }
    return answer.Text();
}

std::string Control::Status() const {
    const Figures figures = requests.GetFigures();
    const auto uptime = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::steady_clock::now() - started);
    JsonObject answer;
    answer.Add("version", SENTREL_VERSION).Add("uptime_s", uptime.count());
    answer.Add("rules", static_cast<long long>(store.Count()));
    answer.Add("running", static_cast<long long>(figures.running));
    answer.Add("waiting", static_cast<long long>(figures.waiting));
    answer.Add("abandoned", static_cast<long long>(figures.abandoned));
    answer.Add("served", static_cast<long long>(figures.served));
    answer.Add("refused", static_cast<long long>(figures.refused));
    return answer.Text();
}

std::string Control::Loaded(const LoadResult& result) const {
    JsonObject answer;
    answer.Add("rules", static_cast<long long>(store.Count()));
    answer.Put("errors", JsonTexts(result.errors)).Put("warnings", JsonTexts(result.warnings));
    return answer.Text();
}

std::string Control::Mounts() const {
    std::vector<std::string> list;
    for (const MountRecord& record : requests.ListMounts()) {
        JsonObject mount;
        mount.Add("target", record.target).Add("source", record.source).Add("type", record.type);
        mount.Add("rule", record.rule).Add("uid", static_cast<long long>(record.uid));
        list.push_back(mount.Add("since", record.since).Text());
    }
    return JsonList(list);
}

}  // namespace agent
