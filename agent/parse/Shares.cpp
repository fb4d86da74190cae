// SPDX-License-Identifier: Apache-2.0
// Shares have a password, which goes its own way: it is taken out of the options here, never stands
// among them again, and no refusal repeats a word that could be a part of it.
#include "Shares.h"

#include <algorithm>

#include "Field.h"
#include "Mounts.h"
#include "base/Text.h"

namespace agent {

namespace {

// Letters, digits and little else, so that nothing on the way (the file system's own option text,
// a script that reads the table of mounts) takes a part of the name for something of its own.
Check CheckShareName(const std::string& path) {
    const std::size_t bad = path.find_first_not_of((std::string(kAlnum) + "._-$/").c_str());
    if (bad != std::string::npos) {
        return Refusal{"the share's name holds " + Quote(path.substr(bad, 1)) +
                       ", which is not available"};
    }
    for (const std::string& part : Split(path, '/')) {
        const std::size_t dollar = part.find('$');
        if (dollar != std::string::npos && (dollar == 0 || dollar + 1 != part.size())) {
            return Refusal{"a '$' can only be the end of a share's name"};
        }
    }
    return Fine();
}

Check StoreShare(Request& request, const std::string& value) {
    const Check good = CheckShare(value);
    return good ? StoreOnce(request.source, value, "the source") : good;
}

Check StoreShareType(Request& request, const std::string& value) {
    if (value != "cifs") {
        return Refusal{"the type can only be cifs here"};
    }
    return StoreOnce(request.type, value, "the type");
}

// `value` must be of `allowed` characters and not begin like an option.
Check StorePlainOption(Request& request, const char* key, const std::string& value,
                       const std::string& allowed) {
    if (!IsMadeOf(value, allowed.c_str()) || value[0] == '-' || value.size() > kLongestName) {
        return Refusal{"the value of the option '" + std::string(key) + "' is malformed"};
    }
    for (const std::string& option : request.options) {
        if (OptionKey(option) == key) {
            return Refusal{"the option '" + std::string(key) + "' is given twice"};
        }
    }
    return AddOption(request, std::string(key) + "=" + value);
}

Check StorePassword(Request& request, const std::string& value) {
    if (value.empty()) {
        return Refusal{"the password is empty (the option 'guest' means none)"};
    }
    return StoreOnce(request.secret, value, "the password");
}

Check StoreCredentials(Request& request, const std::string& value) {
    const Result<std::string> path = CleanPath(value);
    return path ? StoreOnce(request.secretFile, *path, "the credentials file") : path.GetRefusal();
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

Check StoreShareOption(Request& request, const std::string& option) {
    const std::string key = OptionKey(option);
    const std::string value = OptionValue(option);
    if (IsOneOf(key, {"pass", "password"})) {
        return StorePassword(request, value);
    }
    if (IsOneOf(key, {"cred", "credentials"})) {
        return StoreCredentials(request, value);
    }
    if (IsOneOf(key, {"user", "username"})) {
        return StorePlainOption(request, "user", value, std::string(kAlnum) + "._$@-");
    }
    if (IsOneOf(key, {"dom", "domain", "workgroup"})) {
        return StorePlainOption(request, "domain", value, std::string(kAlnum) + "._-");
    }
    if (IsOneOf(key, {"ip", "addr"})) {
        return StorePlainOption(request, "ip", value, "0123456789abcdefABCDEF.:");
    }
    if (!IsShareKey(key)) {
        return Refusal{"there is no such option for a share"};
    }
    const Check good = CheckOption(option);
    return good ? AddOption(request, option) : good;
}

Check StoreShareOptions(Request& request, const std::string& value) {
    for (const std::string& option : Split(value, ',')) {
        Check stored = StoreShareOption(request, option);
        if (!stored && !request.secret.empty()) {
            // What stands behind a password may be a part of it: a comma ends it too early.
            return Refusal{
                "an option behind the password is refused (a password with a comma can only come "
                "from a credentials file)"};
        }
        if (!stored) {
            return stored;
        }
    }
    return Fine();
}

Check FinishShare(Request& request) {
    request.type = "cifs";
    if (!request.secret.empty() && !request.secretFile.empty()) {
        return Refusal{"there is a password and a credentials file"};
    }
    return Fine();
}

}  // namespace

Check CheckShare(const std::string& source) {
    const std::vector<std::string> parts = Split(source, '/');
    if (parts.size() < 4 || !parts[0].empty() || !parts[1].empty() || parts[3].empty()) {
        return Refusal{"the source is not of the form //HOST/SHARE"};
    }
    const bool hostPlain = IsMadeOf(parts[2], (std::string(kAlnum) + ".-_").c_str());
    if (!hostPlain || parts[2][0] == '-' || parts[2][0] == '.') {
        return Refusal{"the source's host is malformed"};
    }
    if (source.size() > kLongestPath) {
        return Refusal{"the share's name is too long"};
    }
    if (std::count(parts.begin() + 2, parts.end(), "") != 0) {
        return Refusal{"the share's path has an empty part"};
    }
    const Check good = CheckComponents(parts);
    return good ? CheckShareName(source.substr(2 + parts[2].size())) : good;
}

Grammars ShareGrammars() {
    return {{Operation::kMountCifs,
             {kNoTable,
              {'t', "types", true, nullptr, StoreShareType},
              {'o', "options", true, nullptr, StoreShareOptions},
              {'r', "read-only", false, "ro", StoreFlag},
              {'w', "read-write", false, "rw", StoreFlag}},
             {{"a source", 1, 1, StoreShare}, {"a mount point", 1, 1, StoreTarget}},
             FinishShare,
             CheckOption},
            Unmounting(Operation::kUmountCifs)};
}

}  // namespace agent
