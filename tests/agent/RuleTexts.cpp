// SPDX-License-Identifier: Apache-2.0
// The accounts and callers are made up here; the rules are texts, so that they pass the reader too.
#include "RuleTexts.h"

#include <iostream>

#include "decide/RuleReader.h"

std::optional<uid_t> FixedAccounts::FindUser(const std::string& name) const {
    if (name != "player" && name != "media" && name != "root") {
        return std::nullopt;
    }
    return name == "player" ? 1000 : name == "media" ? 1001 : 0;
}

std::optional<gid_t> FixedAccounts::FindGroup(const std::string& name) const {
    if (name != "media" && name != "disk") {
        return std::nullopt;
    }
    return name == "media" ? 44 : 6;
}

std::optional<gid_t> FixedAccounts::FindPrimaryGroup(uid_t uid) const {
    if (uid != 1000 && uid != 1001 && uid != 0) {
        return std::nullopt;
    }
    return uid == 0 ? 0 : uid + 100;
}

std::set<gid_t> FixedAccounts::FindGroupsOf(uid_t uid, const std::set<gid_t>& asked) const {
    return uid == 1001 && asked.count(44) != 0 ? std::set<gid_t>{44} : std::set<gid_t>{};
}

const FixedAccounts& TestAccounts() {
    static const FixedAccounts kAccounts;
    return kAccounts;
}

agent::Caller MakeCaller(uid_t uid, const std::vector<gid_t>& groups,
                         const std::string& executable) {
    agent::Caller caller;
    caller.uid = uid;
    caller.groups = groups;
    caller.pid = 4711;
    caller.busName = ":1.42";
    caller.executable = executable;
    caller.account = agent::LookUp(TestAccounts(), uid, {{6, 44}, true});
    return caller;
}

std::shared_ptr<const agent::RuleSet> MakeRules(const std::string& text) {
    const agent::LoadResult result = agent::ParseRules(text, "test.toml", TestAccounts());
    for (const std::string& error : result.errors) {
        std::cerr << error << "\n";
    }
    return result.rules;
}

const char* const kNarrowRules = R"(
[[rule]]
name = "stick"
agent = "sr_mount"
permit = true
user = "player"
exe = "/usr/bin/player"
source = "/dev/sda1"
target = "/media/usb"
type = ["vfat", "ext4"]
options.allow = ["ro", "uid=%uid", "umask=0*"]
options.always = ["noexec"]

[[rule]]
name = "stick off"
agent = "sr_umount"
permit = true
user = "player"
target = "/media/usb"
options.allow = ["lazy"]

[[rule]]
name = "share"
agent = "sr_mount_cifs"
permit = true
user = "player"
source = "//nas/music"
target = "/media/music"
options.allow = ["user=player", "domain=HOME", "password", "credentials=/home/player/*", "vers=3.0"]

[[rule]]
name = "share off"
agent = "sr_umount_cifs"
permit = true
user = "player"
target = "/media/music"

[[rule]]
name = "node"
agent = "sr_mknod"
permit = true
user = "player"
path = "/dev/player0"
kind = "c"
major = 240
minor = "0-3"
mode = ["0660", "0640"]
owner = "player"
group = "media"

[[rule]]
name = "module"
agent = "sr_insmod"
permit = true
user = "player"
path = "/lib/modules/extra/snd-player.ko"
parameters = ["index=?", "enable"]

[[rule]]
name = "module off"
agent = "sr_rmmod"
permit = true
user = "player"
module = "snd_player"

[[rule]]
name = "units"
agent = "sr_systemctl"
permit = true
user = "player"
verb = ["start", "stop"]
unit = ["player.service", "player-db.service"]
options.allow = ["no-block"]
)";

const std::vector<GoodRequest>& GoodRequests() {
    static const std::vector<GoodRequest> kRequests = {
        {"sr_mount", "-t vfat -o ro,uid=1000,umask=022 /dev/sda1 /media/usb"},
        {"sr_umount", "-l /media/usb"},
        {"sr_mount_cifs", "-o user=player,domain=HOME,password=Geheimnis //nas/music /media/music"},
        {"sr_umount_cifs", "/media/music"},
        {"sr_mknod", "-m 0640 /dev/player0 c 240 2"},
        {"sr_insmod", "/lib/modules/extra/snd-player.ko index=1 enable"},
        {"sr_rmmod", "snd-player"},
        {"sr_systemctl", "--no-block start player.service player-db"},
    };
    return kRequests;
}

const char* const kWideRules = R"(
[[rule]]
name = "wide mount"
agent = "sr_mount"
permit = true
user = "*"
source = ["*", "/**", "*:/**"]
target = "/**"
type = "*"
options.allow = ["*", "*=/**"]
open_parents = true

[[rule]]
name = "wide umount"
agent = ["sr_umount", "sr_umount_cifs"]
permit = true
user = "*"
target = "/**"
options.allow = "*"

[[rule]]
name = "wide share"
agent = "sr_mount_cifs"
permit = true
user = "*"
source = "//**"
target = "/**"
options.allow = ["*", "credentials=/**"]

[[rule]]
name = "wide node"
agent = "sr_mknod"
permit = true
user = "*"
path = "/**"
kind = ["b", "c", "p"]
major = "*"
minor = "*"
mode = ["0600", "0660", "0640", "0666"]

[[rule]]
name = "wide module"
agent = "sr_insmod"
permit = true
user = "*"
path = "/**"
parameters = ["*", "*/**"]

[[rule]]
name = "wide module off"
agent = "sr_rmmod"
permit = true
user = "*"
module = "*"

[[rule]]
name = "wide units"
agent = "sr_systemctl"
permit = true
user = "*"
verb = ["start", "stop", "restart", "status", "show", "enable"]
unit = "*"
options.allow = "*"
)";
