// SPDX-License-Identifier: Apache-2.0
#include "Service.h"

#include <sentrel/SR_DBusCredentials.h>
#include <sentrel/SR_Status.h>

#include <utility>
#include <vector>

#include "Descriptor.h"
#include "Tools.h"
#include "Words.h"

namespace agent {

// In the bus's word; throws SR_DBusException when the sender has left it.
struct Service::Caller {
    Caller(sentrel::SR_DBusConnection& bus, const std::string& sender) {
        const sentrel::SR_DBusCredentials credentials(bus, sender);
        known = credentials.GetUid(uid) && credentials.GetPid(pid) && pid > 0;
        groups = credentials.GetGroups();
    }

    bool known = false;
    uid_t uid = 0;
    pid_t pid = 0;
    std::vector<gid_t> groups;
};

Service::Service(sentrel::SR_DBusConnection& bus, sentrel::SR_MainLoop& loop, const Settings& given)
    : connection(bus),
      settings(given),
      decider(given.allowAll),
      gate(connection, [this](const Request& request,
                              OwedAnswer answer) { Handle(request, std::move(answer)); }),
      runner(loop, given.deadlineSeconds * 1000) {}

void Service::Handle(const Request& request, OwedAnswer answer) {
    const Caller caller(connection, request.sender);
    const Tool* tool = FindTool(request.agent);
    // The arguments are not logged: they may hold a password.
    answer->Describe(request.sender + " uid " + (caller.known ? std::to_string(caller.uid) : "?") +
                     " pid " + (caller.known ? std::to_string(caller.pid) : "?") + " " +
                     (tool != nullptr ? tool->agent : "unknown agent"));
    Output output;
    std::string error;
    const bool outputGood = TakeOutput(request, caller, output, error);
    const auto refuse = [&](int status, const std::string& reason) {
        runner.Refuse(std::move(answer), std::move(output), status, reason);
    };

    if (tool == nullptr) {
        return refuse(SR_FEATURE_ISNT_IMPLEMENTED, "no such agent");
    }
    std::vector<std::string> words = tool->first;
    std::vector<std::string> given;
    std::string problem;
    if (!SplitWords(request.text, given, problem)) {
        return refuse(SR_FAIL, "the arguments cannot be read: " + problem);
    }
    words.insert(words.end(), given.begin(), given.end());

    const std::optional<Permit> permit = decider.Decide();
    if (!permit) {
        return refuse(SR_RULE_NO_FOUND, "no rule allows this");
    }
    if (!outputGood) {
        return refuse(SR_FAIL, error);
    }
    const std::string program = FindProgram(tool->program, settings.toolPath);
    if (program.empty()) {
        return refuse(SR_FEATURE_ISNT_IMPLEMENTED,
                      std::string(tool->program) + " is not on this system");
    }
    if (runner.Full()) {
        return refuse(SR_FAIL, "too much is under way");
    }
    runner.Run(*permit, std::move(answer), std::move(output), program, words);
}

bool Service::TakeOutput(const Request& request, const Caller& caller, Output& output,
                         std::string& error) {
    if (request.descriptor <= 0) {
        return true;
    }
    if (!caller.known) {
        error = "the bus does not say who the caller is";
        return false;
    }
    output.uid = caller.uid;
    output.groups = caller.groups;
    return TakeDescriptor(caller.pid, request.descriptor, output.descriptor, error);
}

}  // namespace agent
