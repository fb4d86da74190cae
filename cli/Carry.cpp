// SPDX-License-Identifier: Apache-2.0
#include "Carry.h"

#include <fcntl.h>
#include <sentrel/SR_API.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

#include "ForProgram.h"
#include "Outcome.h"
#include "Output.h"

namespace cli {

namespace {

// More than the agent lets through.
const std::size_t kMostOutput = 4U << 20U;

Outcome Call(const Operation& operation, const std::string& text, int descriptor) {
    Outcome outcome{SR_COMM_FAILED, 0};
    outcome.status =
        operation.call(text.data(), static_cast<unsigned>(text.size()), descriptor, &outcome.value);
    return outcome;
}

// The sink sees the output while the tool runs.
Outcome CallWith(const Operation& operation, const std::string& text,
                 const std::function<void(const std::string&)>& sink) {
    Outcome outcome{SR_COMM_FAILED, 0};
    (void)WithOutput(
        [&](int descriptor) {
            outcome = Call(operation, text, descriptor);
            return 0;
        },
        sink);
    return outcome;
}

void Show(const std::string& text) {
    (void)std::fwrite(text.data(), 1, text.size(), stdout);
    (void)std::fflush(stdout);
}

Outcome CallOnTerminal(const Operation& operation, const std::string& text) {
    Filter filter;
    const Outcome outcome =
        CallWith(operation, text, [&](const std::string& bytes) { Show(filter.Take(bytes)); });
    Show(filter.Finish());
    return outcome;
}

// A service's output often leads to the system's log, where the agent does not write for others.
bool IsSocket(int descriptor) {
    struct stat status = {};
    return fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode);
}

int CarryForProgram(const Operation& operation, const std::string& text) {
    std::string output;
    const Outcome outcome = CallWith(operation, text, [&](const std::string& bytes) {
        output.append(bytes, 0, kMostOutput - output.size());
    });
    Show(OutcomeLine(operation, outcome, output) + "\n");
    return outcome.Exit();
}

void Explain(const Operation& operation, const Outcome& outcome) {
    std::string line = operation.name;
    if (outcome.status != SR_OK) {
        line += ": status " + std::to_string(outcome.status) + ", " + StatusName(outcome.status);
    }
    Complain(line + ": " + outcome.Text());
    if (!outcome.Advice().empty()) {
        Complain("what to do: " + outcome.Advice());
    }
}

}  // namespace

int Carry(const Operation& operation, const std::string& text, const Options& options) {
    if (options.json) {
        return CarryForProgram(operation, text);
    }
    // A standard output that is not there: no output, rather than a descriptor that is refused.
    const int output = fcntl(STDOUT_FILENO, F_GETFD) >= 0 ? STDOUT_FILENO : 0;
    const bool filtered = !options.raw && isatty(output) != 0 && output != 0;
    const Outcome outcome = filtered           ? CallOnTerminal(operation, text)
                            : IsSocket(output) ? CallWith(operation, text, Show)
                                               : Call(operation, text, output);
    if (!outcome.IsTools() && !options.quiet) {
        Explain(operation, outcome);
    }
    return outcome.Exit();
}

}  // namespace cli
