// SPDX-License-Identifier: Apache-2.0
// From an operation's name and its argument text to the fields of a request.
//
// Each operation has one table of the options it takes and of its operands; what the table does not
// know is refused. A Request therefore holds nothing that a tool could take for an option, no
// relative path and no ".." in a path. Pure functions and value types, usable from any thread.
#ifndef SENTREL_AGENT_PARSE_H
#define SENTREL_AGENT_PARSE_H

#include <sentrel/SR_Status.h>

#include <optional>
#include <string>
#include <vector>

#include "base/Operation.h"
#include "base/Result.h"

namespace agent {

// Fields that the operation does not have stay empty.
struct Request {
    Operation operation = Operation::kMount;
    // Mounts. The source is an absolute path, "//HOST/SHARE", "HOST:/PATH" or a plain word; a bind
    // mount has the type "none", a mount without a type has "auto".
    std::string source;
    std::string target;
    std::string type;
    // Mount options, one by one; for the other operations the tool's flags by their long names.
    // Never a password or a credentials file.
    std::vector<std::string> options;
    std::string secret;
    std::string secretFile;
    // mknod: the node. insmod: the module's file.
    std::string path;
    std::string kind;  // "b", "c" or "p"
    unsigned majorNumber = 0;
    unsigned minorNumber = 0;
    int mode = -1;  // -1: not given
    // insmod and rmmod: the module's name, with "_" for "-".
    std::string module;
    std::vector<std::string> parameters;
    std::string verb;
    std::vector<std::string> units;  // full names, "x.service"
};

struct Parsed {
    int status = SR_FAIL;  // SR_OK, SR_FAIL or SR_FEATURE_ISNT_IMPLEMENTED
    std::string error;     // a sentence, when status is not SR_OK; never with a secret in it
    Request request;       // meaningful when status is SR_OK
    // The text's words, whatever became of them; nothing when it could not be split.
    std::optional<std::vector<std::string>> words;
};

Parsed Parse(const std::string& operation, const std::string& text);

// Whether a rule may always add this option to what the operation's callers ask for.
Check CheckAddition(Operation operation, const std::string& option);

}  // namespace agent

#endif
