// SPDX-License-Identifier: Apache-2.0
// See Grammar.h. The tables are at the end of the file; a new operation is a row there. Above them
// are the functions that check one word and store it in its field.
#include "Parse.h"

#include <algorithm>

#include "BindOptions.h"
#include "Words.h"
#include "base/Text.h"

namespace agent {

namespace {

using Store = bool (*)(Request& request, const std::string& value, std::string& error);
using Finish = bool (*)(Request& request, std::string& error);

struct OptionRow {
    char letter;       // 0: no short form
    const char* word;  // without the "--"
    bool takesValue;
    const char* stored;  // what is stored for an option without a value
    Store store;
};

struct OperandRow {
    const char* what;
    std::size_t least;
    std::size_t most;
    Store store;
};

struct Operation {
    const char* name;
    std::vector<OptionRow> options;
    std::vector<OperandRow> operands;
    Finish finish;
};

const std::size_t kLongestPath = 4095;
const std::size_t kLongestName = 255;
const std::size_t kMostOptions = 64;

bool IsOneOf(const std::string& text, std::initializer_list<const char*> list) {
    return std::any_of(list.begin(), list.end(), [&](const char* one) { return text == one; });
}

bool Refuse(std::string& error, const std::string& why) {
    error = why;
    return false;
}

bool StoreOnce(std::string& field, const std::string& value, const char* what, std::string& error) {
    if (!field.empty()) {
        return Refuse(error, std::string(what) + " is given twice");
    }
    field = value;
    return true;
}

// ---- paths and sources

bool CheckComponents(const std::vector<std::string>& parts, std::string& error) {
    for (const std::string& part : parts) {
        if (part == "." || part == "..") {
            return Refuse(error, "a path holds '.' or '..'");
        }
        if (part.size() > kLongestName) {
            return Refuse(error, "a part of a path is too long");
        }
    }
    return true;
}

bool StorePath(Request& request, const std::string& value, std::string& error) {
    std::string path;
    return CleanPath(value, path, error) && StoreOnce(request.path, path, "the path", error);
}

bool StoreTarget(Request& request, const std::string& value, std::string& error) {
    std::string path;
    return CleanPath(value, path, error) &&
           StoreOnce(request.target, path, "the mount point", error);
}

// "HOST:/PATH"; the host's part must be plain, so that no tag ("LABEL=x") passes for one.
bool StoreRemoteSource(Request& request, const std::string& value, std::string& error) {
    const std::size_t colon = value.find(':');
    const std::string host = value.substr(0, colon);
    std::string path;
    if (!IsMadeOf(host, (std::string(kAlnum) + ".-").c_str())) {
        return Refuse(error, "the source's host is malformed");
    }
    return CleanPath(value.substr(colon + 1), path, error) &&
           StoreOnce(request.source, host + ":" + path, "the source", error);
}

// Tags such as LABEL=x are refused with the other malformed sources: whoever brings the medium
// chooses its label.
bool StoreSource(Request& request, const std::string& value, std::string& error) {
    if (StartsWith(value, "/")) {
        std::string path;
        return CleanPath(value, path, error) &&
               StoreOnce(request.source, path, "the source", error);
    }
    if (value.find(":/") != std::string::npos) {
        return StoreRemoteSource(request, value, error);
    }
    if (!IsMadeOf(value, (std::string(kAlnum) + "_-").c_str()) || value.size() > kLongestName) {
        return Refuse(error, "the source is neither an absolute path nor a plain name");
    }
    return StoreOnce(request.source, value, "the source", error);
}

// Letters, digits and little else, so that nothing on the way (the file system's own option text,
// a script that reads the table of mounts) takes a part of the name for something of its own.
bool CheckShareName(const std::string& path, std::string& error) {
    const std::size_t bad = path.find_first_not_of((std::string(kAlnum) + "._-$/").c_str());
    if (bad != std::string::npos) {
        return Refuse(error, "the share's name holds " + Quote(path.substr(bad, 1)) +
                                 ", which is not available");
    }
    for (const std::string& part : Split(path, '/')) {
        const std::size_t dollar = part.find('$');
        if (dollar != std::string::npos && (dollar == 0 || dollar + 1 != part.size())) {
            return Refuse(error, "a '$' can only be the end of a share's name");
        }
    }
    return true;
}

bool StoreShare(Request& request, const std::string& value, std::string& error) {
    return CheckShare(value, error) && StoreOnce(request.source, value, "the source", error);
}

// ---- types and options

// An option's value may hold paths, several between colons; none may lead out of what a rule names.
bool Climbs(const std::string& value) {
    for (const std::string& path : Split(value, ':')) {
        const std::vector<std::string> parts = Split(path, '/');
        if (std::count(parts.begin(), parts.end(), "..") != 0) {
            return true;
        }
    }
    return false;
}

// A directory of an overlay is exactly what the rule's pattern was held against.
bool CheckOverlay(const std::string& key, const std::string& value, std::string& error) {
    std::string path;
    const bool clean = CleanPath(value, path, error) && path == value;
    return (clean && value.find(':') == std::string::npos) ||
           Refuse(error, "the option " + Quote(key) + " takes one clean absolute path");
}

bool StoreType(Request& request, const std::string& value, std::string& error) {
    return CheckType(value, error) && StoreOnce(request.type, value, "the type", error);
}

bool StoreShareType(Request& request, const std::string& value, std::string& error) {
    if (value != "cifs") {
        return Refuse(error, "the type can only be cifs here");
    }
    return StoreOnce(request.type, value, "the type", error);
}

bool AddOption(Request& request, const std::string& option, std::string& error) {
    if (request.options.size() >= kMostOptions) {
        return Refuse(error, "there are too many options");
    }
    request.options.push_back(option);
    return true;
}

bool StoreNothing(Request&, const std::string&, std::string&) {
    return true;
}

bool StoreFlag(Request& request, const std::string& value, std::string& error) {
    return AddOption(request, value, error);
}

// These give the caller of mount(8) rights over the mount, or come from a table of mounts; for a
// share `user` is something else and is taken before this is asked.
bool IsOwnershipOption(const std::string& key) {
    return IsOneOf(key, {"user", "users", "owner", "group"});
}

bool StoreMountOptions(Request& request, const std::string& value, std::string& error) {
    for (const std::string& option : Split(value, ',')) {
        if (!CheckOption(option, error) || !AddOption(request, option, error)) {
            return false;
        }
    }
    return true;
}

// `value` must be of `allowed` characters and not begin like an option.
bool StorePlainOption(Request& request, const char* key, const std::string& value,
                      const std::string& allowed, std::string& error) {
    if (!IsMadeOf(value, allowed.c_str()) || value[0] == '-' || value.size() > kLongestName) {
        return Refuse(error, "the value of the option '" + std::string(key) + "' is malformed");
    }
    for (const std::string& option : request.options) {
        if (OptionKey(option) == key) {
            return Refuse(error, "the option '" + std::string(key) + "' is given twice");
        }
    }
    return AddOption(request, std::string(key) + "=" + value, error);
}

bool StorePassword(Request& request, const std::string& value, std::string& error) {
    if (value.empty()) {
        return Refuse(error, "the password is empty (the option 'guest' means none)");
    }
    return StoreOnce(request.secret, value, "the password", error);
}

bool StoreCredentials(Request& request, const std::string& value, std::string& error) {
    std::string path;
    return CleanPath(value, path, error) &&
           StoreOnce(request.secretFile, path, "the credentials file", error);
}

// A closed list: the helper knows some options by their first letters only ("credXYZ" would be a
// credentials file), others name another share than the source ("unc", "prefixpath"), and the rest
// of a password with a comma must not pass for an option.
bool IsShareKey(const std::string& key) {
    return IsOneOf(key, {"ro",         "rw",          "suid",        "nosuid",
                         "dev",        "nodev",       "exec",        "noexec",
                         "sync",       "dirsync",     "noatime",     "nodiratime",
                         "relatime",   "strictatime", "_netdev",     "guest",
                         "uid",        "gid",         "forceuid",    "noforceuid",
                         "forcegid",   "noforcegid",  "file_mode",   "dir_mode",
                         "vers",       "sec",         "seal",        "sign",
                         "cache",      "rsize",       "wsize",       "actimeo",
                         "hard",       "soft",        "port",        "cruid",
                         "multiuser",  "perm",        "noperm",      "dynperm",
                         "cifsacl",    "noacl",       "nobrl",       "nolock",
                         "nounix",     "mfsymlinks",  "sfu",         "nocase",
                         "serverino",  "noserverino", "iocharset",   "mapchars",
                         "nomapchars", "mapposix",    "netbiosname", "echo_interval",
                         "max_credits"});
}

bool StoreShareOption(Request& request, const std::string& option, std::string& error) {
    const std::string key = OptionKey(option);
    const std::string value = key.size() == option.size() ? "" : option.substr(key.size() + 1);
    if (IsOneOf(key, {"pass", "password"})) {
        return StorePassword(request, value, error);
    }
    if (IsOneOf(key, {"cred", "credentials"})) {
        return StoreCredentials(request, value, error);
    }
    if (IsOneOf(key, {"user", "username"})) {
        return StorePlainOption(request, "user", value, std::string(kAlnum) + "._$@-", error);
    }
    if (IsOneOf(key, {"dom", "domain", "workgroup"})) {
        return StorePlainOption(request, "domain", value, std::string(kAlnum) + "._-", error);
    }
    if (IsOneOf(key, {"ip", "addr"})) {
        return StorePlainOption(request, "ip", value, "0123456789abcdefABCDEF.:", error);
    }
    if (!IsShareKey(key)) {
        return Refuse(error, "there is no such option for a share");
    }
    return CheckOption(option, error) && AddOption(request, option, error);
}

bool StoreShareOptions(Request& request, const std::string& value, std::string& error) {
    for (const std::string& option : Split(value, ',')) {
        if (!StoreShareOption(request, option, error)) {
            // What stands behind a password may be a part of it: a comma ends it too early.
            if (!request.secret.empty()) {
                error =
                    "an option behind the password is refused (a password with a comma can "
                    "only come from a credentials file)";
            }
            return false;
        }
    }
    return true;
}

bool Has(const Request& request, const char* option) {
    return std::count(request.options.begin(), request.options.end(), option) != 0;
}

bool FinishMount(Request& request, std::string& error) {
    const bool isPath = StartsWith(request.source, "/");
    if (Has(request, "bind")) {
        if (!request.type.empty() && request.type != "none") {
            return Refuse(error, "a bind mount has no type");
        }
        for (const std::string& option : request.options) {
            if (!IsBindOption(option)) {
                return Refuse(error, "a bind mount cannot have the option " + Quote(option));
            }
        }
        request.type = "none";
    } else if (request.type == "none") {
        return Refuse(error, "the type 'none' is for bind mounts only");
    } else if (request.type.empty()) {
        request.type = "auto";
    }
    if ((Has(request, "bind") || Has(request, "loop")) && !isPath) {
        return Refuse(error, "the source must be an absolute path");
    }
    return true;
}

bool FinishShare(Request& request, std::string& error) {
    request.type = "cifs";
    if (!request.secret.empty() && !request.secretFile.empty()) {
        return Refuse(error, "there is a password and a credentials file");
    }
    return true;
}

bool FinishNothing(Request&, std::string&) {
    return true;
}

// ---- device nodes

// As mknod(1) reads numbers: 0x for hexadecimal, a leading 0 for octal.
bool ReadNumber(const std::string& text, unsigned long most, unsigned& number) {
    const bool hex = StartsWith(text, "0x") || StartsWith(text, "0X");
    const bool octal = !hex && text.size() > 1 && text[0] == '0';
    const std::string digits = hex ? text.substr(2) : text;
    const std::optional<unsigned long> value = ToNumber<unsigned long>(digits, hex     ? 16
                                                                               : octal ? 8
                                                                                       : 10);
    if (!value || *value > most || digits.size() > 9) {
        return false;
    }
    number = static_cast<unsigned>(*value);
    return true;
}

bool StoreKind(Request& request, const std::string& value, std::string& error) {
    if (!IsOneOf(value, {"b", "c", "u", "p"})) {
        return Refuse(error, "the kind of a node is b, c or p");
    }
    request.kind = value == "u" ? "c" : value;
    return true;
}

// `parameters` keeps the two numbers' presence until FinishNode has looked.
bool StoreMajor(Request& request, const std::string& value, std::string& error) {
    request.parameters.push_back(value);
    return ReadNumber(value, 4095, request.majorNumber) ||
           Refuse(error, "the major number is malformed or above 4095");
}

bool StoreMinor(Request& request, const std::string& value, std::string& error) {
    request.parameters.push_back(value);
    return ReadNumber(value, 1048575, request.minorNumber) ||
           Refuse(error, "the minor number is malformed or above 1048575");
}

bool StoreMode(Request& request, const std::string& value, std::string& error) {
    if (request.mode != -1) {
        return Refuse(error, "the mode is given twice");
    }
    const std::optional<unsigned> mode = ToNumber<unsigned>(value, 8);
    if (!mode || value.size() > 4) {
        return Refuse(error, "the mode is not an octal number");
    }
    if (*mode > 0777) {
        return Refuse(error, "the mode has more than the permission bits");
    }
    request.mode = static_cast<int>(*mode);
    return true;
}

bool FinishNode(Request& request, std::string& error) {
    const std::size_t expected = request.kind == "p" ? 0 : 2;
    if (request.parameters.size() != expected) {
        return Refuse(error, expected == 0 ? "a pipe has no major and minor number"
                                           : "the major and the minor number are needed");
    }
    request.parameters.clear();
    return true;
}

// ---- modules

const std::size_t kLongestModule = 55;

std::string ModuleName(std::string name) {
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

bool CheckModule(const std::string& name, std::string& error) {
    if (!IsMadeOf(name, (std::string(kAlnum) + "_-").c_str()) || name.size() > kLongestModule) {
        return Refuse(error, "the module's name is malformed");
    }
    return true;
}

bool StoreModule(Request& request, const std::string& value, std::string& error) {
    return CheckModule(value, error) &&
           StoreOnce(request.module, ModuleName(value), "the module", error);
}

bool StoreModulePath(Request& request, const std::string& value, std::string& error) {
    if (!StorePath(request, value, error)) {
        return false;
    }
    const std::string file = request.path.substr(request.path.rfind('/') + 1);
    const std::size_t dot = file.find('.');
    const std::string suffix = dot == std::string::npos ? "" : file.substr(dot);
    if (!IsOneOf(suffix, {".ko", ".ko.gz", ".ko.xz", ".ko.zst"})) {
        return Refuse(error, "the module's file does not end in .ko");
    }
    return StoreModule(request, file.substr(0, dot), error);
}

// A blank or a quote would begin another parameter in the kernel's own reading of the line.
bool StoreParameter(Request& request, const std::string& value, std::string& error) {
    const std::string key = OptionKey(value);
    const std::string allowed = std::string(kAlnum) + "_.,:/+@-";
    const bool keyPlain = IsMadeOf(key, (std::string(kAlnum) + "_").c_str());
    const bool valuePlain =
        key.size() + 1 >= value.size() || IsMadeOf(value.substr(key.size() + 1), allowed.c_str());
    if (!keyPlain || !valuePlain) {
        return Refuse(error, "a module parameter is malformed");
    }
    request.parameters.push_back(value);
    return true;
}

// ---- units

bool StoreVerb(Request& request, const std::string& value, std::string& error) {
    if (!IsVerb(value)) {
        return Refuse(error, "the verb " + Quote(value) + " is not available");
    }
    return StoreOnce(request.verb, value, "the verb", error);
}

bool HasUnitSuffix(const std::string& name) {
    const std::size_t dot = name.rfind('.');
    return dot != std::string::npos && dot > 0 &&
           IsOneOf(name.substr(dot + 1), {"service", "socket", "target", "timer", "path", "mount",
                                          "automount", "swap", "slice", "scope", "device"});
}

bool StoreUnit(Request& request, const std::string& value, std::string& error) {
    const std::string unit = HasUnitSuffix(value) ? value : value + ".service";
    if (!CheckUnit(unit, error)) {
        return false;
    }
    request.units.push_back(unit);
    return true;
}

bool StoreProperty(Request& request, const std::string& value, std::string& error) {
    for (const std::string& name : Split(value, ',')) {
        if (!IsMadeOf(name, kAlnum) || name.size() > kLongestName) {
            return Refuse(error, "a property's name is malformed");
        }
        if (!AddOption(request, "property=" + name, error)) {
            return false;
        }
    }
    return true;
}

// ---- the tables

const OptionRow kNoTable{'n', "no-mtab", false, "", StoreNothing};
const OptionRow kNoHelper{'i', "internal-only", false, "", StoreNothing};
const OptionRow kNoCanonical{'c', "no-canonicalize", false, "", StoreNothing};

Operation Unmounting(const char* operation) {
    return {operation,
            {kNoTable,
             kNoHelper,
             kNoCanonical,
             {'f', "force", false, "force", StoreFlag},
             {'l', "lazy", false, "lazy", StoreFlag},
             {'d', "detach-loop", false, "detach-loop", StoreFlag}},
            {{"a mount point", 1, 1, StoreTarget}},
            FinishNothing};
}

const std::vector<Operation>& Operations() {
    static const std::vector<Operation> kOperations = {
        {"sr_mount",
         {kNoTable,
          kNoHelper,
          kNoCanonical,
          {'t', "types", true, nullptr, StoreType},
          {'o', "options", true, nullptr, StoreMountOptions},
          {'r', "read-only", false, "ro", StoreFlag},
          {'w', "read-write", false, "rw", StoreFlag},
          {0, "rw", false, "rw", StoreFlag},
          {'B', "bind", false, "bind", StoreFlag}},
         {{"a source", 1, 1, StoreSource}, {"a mount point", 1, 1, StoreTarget}},
         FinishMount},
        Unmounting("sr_umount"),
        {"sr_mount_cifs",
         {kNoTable,
          {'t', "types", true, nullptr, StoreShareType},
          {'o', "options", true, nullptr, StoreShareOptions},
          {'r', "read-only", false, "ro", StoreFlag},
          {'w', "read-write", false, "rw", StoreFlag}},
         {{"a source", 1, 1, StoreShare}, {"a mount point", 1, 1, StoreTarget}},
         FinishShare},
        Unmounting("sr_umount_cifs"),
        {"sr_mknod",
         {{'m', "mode", true, nullptr, StoreMode}},
         {{"a path", 1, 1, StorePath},
          {"a kind", 1, 1, StoreKind},
          {"a major number", 0, 1, StoreMajor},
          {"a minor number", 0, 1, StoreMinor}},
         FinishNode},
        {"sr_insmod",
         {},
         {{"a module's file", 1, 1, StoreModulePath}, {"a parameter", 0, 60, StoreParameter}},
         FinishNothing},
        {"sr_rmmod", {}, {{"a module's name", 1, 1, StoreModule}}, FinishNothing},
        {"sr_systemctl",
         {{0, "no-pager", false, "", StoreNothing},
          {0, "no-ask-password", false, "", StoreNothing},
          {'l', "full", false, "", StoreNothing},
          {'q', "quiet", false, "quiet", StoreFlag},
          {0, "no-block", false, "no-block", StoreFlag},
          {0, "now", false, "now", StoreFlag},
          {0, "value", false, "value", StoreFlag},
          {'p', "property", true, nullptr, StoreProperty}},
         {{"a verb", 1, 1, StoreVerb}, {"a unit", 1, 16, StoreUnit}},
         FinishNothing},
    };
    return kOperations;
}

// ---- reading words by a table

class Reader {
public:
    Reader(const Operation& table, const std::vector<std::string>& list)
        : operation(table), words(list) {}

    bool Read(Request& request, std::string& error) {
        bool optionsOver = false;
        for (next = 0; next < words.size();) {
            const std::string& word = words[next++];
            bool good = true;
            if (optionsOver || word.empty() || word[0] != '-') {
                operands.push_back(word);
            } else if (word == "--") {
                optionsOver = true;
            } else if (StartsWith(word, "--")) {
                good = ReadLong(request, word, error);
            } else {
                good = ReadShort(request, word, error);
            }
            if (!good) {
                return false;
            }
        }
        return ReadOperands(request, error) && operation.finish(request, error);
    }

private:
    static bool Unknown(const std::string& option, std::string& error) {
        return Refuse(error, "the option " + Quote(option) + " is not available");
    }

    bool TakeNext(const std::string& option, std::string& value, std::string& error) {
        if (next == words.size()) {
            return Refuse(error, "the option " + Quote(option) + " needs a value");
        }
        value = words[next++];
        return true;
    }

    // Whole names only: an abbreviation may mean something else in another version of a tool.
    bool ReadLong(Request& request, const std::string& word, std::string& error) {
        const std::string name = OptionKey(word.substr(2));
        const bool hasValue = name.size() + 2 < word.size();
        for (const OptionRow& row : operation.options) {
            if (name != row.word) {
                continue;
            }
            if (!row.takesValue) {
                return hasValue ? Refuse(error, "the option '--" + name + "' takes no value")
                                : row.store(request, row.stored, error);
            }
            std::string value = hasValue ? word.substr(name.size() + 3) : "";
            return (hasValue || TakeNext("--" + name, value, error)) &&
                   row.store(request, value, error);
        }
        return Unknown("--" + name, error);
    }

    bool ReadShort(Request& request, const std::string& word, std::string& error) {
        if (word.size() == 1) {
            return Refuse(error, "a lone '-' is no argument here");
        }
        for (std::size_t i = 1; i < word.size(); ++i) {
            const std::string name = std::string("-") + word[i];
            const OptionRow* row = FindShort(word[i]);
            if (row == nullptr) {
                return Unknown(name, error);
            }
            if (row->takesValue) {
                std::string value = word.substr(i + 1);
                return (!value.empty() || TakeNext(name, value, error)) &&
                       row->store(request, value, error);
            }
            if (!row->store(request, row->stored, error)) {
                return false;
            }
        }
        return true;
    }

    const OptionRow* FindShort(char letter) const {
        for (const OptionRow& row : operation.options) {
            if (row.letter != 0 && row.letter == letter) {
                return &row;
            }
        }
        return nullptr;
    }

    bool ReadOperands(Request& request, std::string& error) {
        std::size_t at = 0;
        for (const OperandRow& row : operation.operands) {
            std::size_t count = 0;
            for (; count < row.most && at < operands.size(); ++count, ++at) {
                if (operands[at].empty() || operands[at][0] == '-') {
                    return Refuse(error, "an argument is empty or begins with '-'");
                }
                if (!row.store(request, operands[at], error)) {
                    return false;
                }
            }
            if (count < row.least) {
                return Refuse(error, std::string(row.what) + " is missing");
            }
        }
        return at == operands.size() || Refuse(error, "there are too many arguments");
    }

    const Operation& operation;
    const std::vector<std::string>& words;
    std::vector<std::string> operands;
    std::size_t next = 0;
};

// From the first mention of a password on, nothing of a word is shown.
std::string HideSecret(const std::string& word) {
    std::string lower = word;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    std::size_t at = lower.find("pass");
    const std::size_t percent = lower.find('%');
    if (percent != std::string::npos && lower.find("user") < percent) {
        at = std::min(at, percent);
    }
    return at == std::string::npos ? word : word.substr(0, at) + "***";
}

void Show(std::string& line, const char* name, const std::string& value) {
    if (!value.empty()) {
        line += std::string(" ") + name + "=" + Quote(value);
    }
}

}  // namespace

bool CleanPath(const std::string& text, std::string& path, std::string& error) {
    if (text.empty() || text[0] != '/' || StartsWith(text, "//")) {
        return Refuse(error, "a path is not absolute");
    }
    if (text.size() > kLongestPath) {
        return Refuse(error, "a path is too long");
    }
    std::string clean;
    const std::vector<std::string> parts = Split(text, '/');
    if (!CheckComponents(parts, error)) {
        return false;
    }
    for (const std::string& part : parts) {
        if (!part.empty()) {
            clean += "/" + part;
        }
    }
    if (clean.empty()) {
        return Refuse(error, "the root directory cannot be named here");
    }
    path = clean;
    return true;
}

// A type that begins with "no" is a negation to mount(8). The fuse types run a program of the
// source's choice; those of the shares would take a password on the command line.
bool CheckType(const std::string& type, std::string& error) {
    if (!IsMadeOf(type, (std::string(kLower) + "_").c_str()) || type.size() > 32) {
        return Refuse(error, "the type is malformed");
    }
    if (StartsWith(type, "fuse") || (StartsWith(type, "no") && type != "none") ||
        IsOneOf(type, {"cifs", "smb3", "smbfs"})) {
        return Refuse(error, "the type " + Quote(type) + " is not available");
    }
    return true;
}

bool CheckShare(const std::string& source, std::string& error) {
    const std::vector<std::string> parts = Split(source, '/');
    if (parts.size() < 4 || !parts[0].empty() || !parts[1].empty() || parts[3].empty()) {
        return Refuse(error, "the source is not of the form //HOST/SHARE");
    }
    const bool hostPlain = IsMadeOf(parts[2], (std::string(kAlnum) + ".-_").c_str());
    if (!hostPlain || parts[2][0] == '-' || parts[2][0] == '.') {
        return Refuse(error, "the source's host is malformed");
    }
    if (source.size() > kLongestPath) {
        return Refuse(error, "the share's name is too long");
    }
    if (std::count(parts.begin() + 2, parts.end(), "") != 0) {
        return Refuse(error, "the share's path has an empty part");
    }
    return CheckComponents(parts, error) &&
           CheckShareName(source.substr(2 + parts[2].size()), error);
}

// mount(8) takes quotes and backslashes in options for its own: with one of them the caller could
// swallow the flags that are put behind.
bool CheckOption(const std::string& option, std::string& error) {
    const std::string key = OptionKey(option);
    if (option.empty()) {
        return Refuse(error, "an option is empty");
    }
    if (!IsMadeOf(key, (std::string(kLower) + "_.-").c_str()) || key[0] == '-' || key[0] == '.') {
        return Refuse(error, "an option's name is malformed");
    }
    if (option.find_first_of(",\"'\\") != std::string::npos || HasControl(option)) {
        return Refuse(error, "the value of the option " + Quote(key) + " is malformed");
    }
    const bool bare = key.size() == option.size();
    if (StartsWith(key, "x-") || StartsWith(key, "pass") || IsOwnershipOption(key) ||
        IsOneOf(key, {"remount", "move", "rbind", "source", "helper", "uhelper", "shared", "slave",
                      "private", "unbindable", "rshared", "rslave", "rprivate", "runbindable"}) ||
        (!bare && IsOneOf(key, {"bind", "loop", "suid", "dev"}))) {
        return Refuse(error, "the option " + Quote(key) + " is not available");
    }
    const std::string value = bare ? "" : option.substr(key.size() + 1);
    if (IsOneOf(key, {"lowerdir", "upperdir", "workdir"})) {
        return CheckOverlay(key, value, error);
    }
    return !Climbs(value) || Refuse(error, "the value of the option " + Quote(key) + " holds '..'");
}

// No "/" (a path would be linked in) and no "*" or "[" (systemctl expands them itself).
bool CheckUnit(const std::string& unit, std::string& error) {
    const bool plain = IsMadeOf(unit, (std::string(kAlnum) + ":_.\\@-").c_str());
    if (!plain || std::string(kAlnum).find(unit[0]) == std::string::npos ||
        unit.size() > kLongestName || !HasUnitSuffix(unit)) {
        return Refuse(error, "a unit's name is malformed");
    }
    return true;
}

bool IsVerb(const std::string& verb) {
    return IsOneOf(verb, {"start", "stop", "restart", "try-restart", "reload", "reload-or-restart",
                          "try-reload-or-restart", "status", "show", "is-active", "is-failed",
                          "is-enabled", "enable", "disable", "mask", "unmask", "reset-failed"});
}

std::string OptionKey(const std::string& option) {
    return option.substr(0, option.find('='));
}

std::vector<std::string> AgentNames() {
    std::vector<std::string> names;
    for (const Operation& row : Operations()) {
        names.push_back(row.name);
    }
    return names;
}

Parsed Parse(const std::string& operation, const std::string& text) {
    Parsed parsed;
    for (const Operation& row : Operations()) {
        if (operation != row.name) {
            continue;
        }
        std::vector<std::string> words;
        parsed.request.operation = operation;
        if (SplitWords(text, words, parsed.error) &&
            Reader(row, words).Read(parsed.request, parsed.error)) {
            parsed.status = kOk;
        }
        return parsed;
    }
    parsed.status = kNotImplemented;
    parsed.error = "there is no such operation";
    return parsed;
}

std::string Shown(const Request& request) {
    std::string line = request.operation;
    Show(line, "source", request.source);
    Show(line, "target", request.target);
    Show(line, "type", request.type);
    Show(line, "path", request.path);
    Show(line, "kind", request.kind);
    if (request.kind == "b" || request.kind == "c") {
        line += " major=" + std::to_string(request.majorNumber);
        line += " minor=" + std::to_string(request.minorNumber);
    }
    if (request.mode != -1) {
        const int mode = request.mode;
        line += " mode=0" + std::to_string(mode >> 6 & 7) + std::to_string(mode >> 3 & 7) +
                std::to_string(mode & 7);
    }
    Show(line, "module", request.module);
    Show(line, "parameters", Join(request.parameters, " "));
    Show(line, "verb", request.verb);
    Show(line, "units", Join(request.units, " "));
    Show(line, "options", Join(request.options, ","));
    Show(line, "credentials", request.secretFile);
    return request.secret.empty() ? line : line + " password=***";
}

std::string ShownText(const std::string& text) {
    std::vector<std::string> words;
    std::string error;
    if (!SplitWords(text, words, error)) {
        return Quote(HideSecret(text));
    }
    // A secret with a blank that was not quoted goes on in the next words.
    bool hiding = false;
    for (std::string& word : words) {
        hiding = hiding && !StartsWith(word, "/") && !StartsWith(word, "-");
        const std::string shown = hiding ? "***" : HideSecret(word);
        hiding = hiding || shown != word;
        word = Quote(shown);
    }
    return Join(words, " ");
}

}  // namespace agent
