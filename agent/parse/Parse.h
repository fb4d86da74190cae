// SPDX-License-Identifier: Apache-2.0
// From an agent's name and its argument text to the fields of a request.
//
// Each operation has one table of the options it takes and of its operands; what the table does not
// know is refused. A Request therefore holds nothing that a tool could take for an option, no
// relative path and no ".." in a path. Pure functions and value types, usable from any thread.
#ifndef SENTREL_AGENT_PARSE_H
#define SENTREL_AGENT_PARSE_H

#include <string>
#include <vector>

namespace agent {

// The statuses of the answers that parsing and deciding give.
enum Status { kOk = 0, kFail = 1, kInvalidRegex = 2, kRuleNotFound = 7, kNotImplemented = 10 };

// Fields that the operation does not have stay empty.
struct Request {
    std::string operation;  // "sr_mount"
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
    int status = kFail;  // kOk, kFail or kNotImplemented
    std::string error;   // a sentence, when status is not kOk; never with a secret in it
    Request request;     // meaningful when status is kOk
};

// The names of all operations.
std::vector<std::string> AgentNames();

Parsed Parse(const std::string& operation, const std::string& text);

// The request on one line, for logs: caller's text quoted, the password as ***.
std::string Shown(const Request& request);

// An argument text that could not be parsed, on one line, for logs: each word that mentions a
// password is *** from there on.
std::string ShownText(const std::string& text);

// The checks that the grammar makes, for those who check what rules say. False fills `error`.
bool CleanPath(const std::string& text, std::string& path, std::string& error);
bool CheckType(const std::string& type, std::string& error);
bool CheckShare(const std::string& source, std::string& error);
bool CheckOption(const std::string& option, std::string& error);
bool CheckUnit(const std::string& unit, std::string& error);
bool IsVerb(const std::string& verb);

// "uid" of "uid=5".
std::string OptionKey(const std::string& option);

}  // namespace agent

#endif
