// SPDX-License-Identifier: Apache-2.0
// See Denials.h.
#include "Denials.h"

#include <algorithm>

namespace {

using Words = std::vector<std::string>;

// What may stand in the good request's place of one word, and is not allowed by the narrow rules.
struct Field {
    std::size_t word;
    Words wrong;
};

struct Operation {
    std::string operation;
    Words good;
    std::vector<Field> fields;
};

const std::vector<Operation>& Operations() {
    static const Words kPaths = {"/",           "/etc",       "/media",        "/media/usb/x",
                                 "/media/usb2", "/MEDIA/usb", "/media/musicx", "/media/*"};
    static const std::vector<Operation> kOperations = {
        {"sr_mount",
         {"-t", "vfat", "-o", "ro,uid=1000", "/dev/sda1", "/media/usb"},
         {{1,
           {"ext3", "tmpfs", "overlay", "proc", "auto", "fuse", "fuseblk", "cifs", "vfat,ext4",
            "novfat", "VFAT", "none", "nfs"}},
          {3, {"rw",
               "uid=0",
               "uid=1001",
               "uid=10000",
               "uid=1000,uid=0",
               "exec",
               "suid",
               "dev",
               "remount",
               "bind",
               "loop",
               "umask=7",
               "umask=0/",
               "X-mount.mkdir",
               "ro,suid",
               "suid,ro",
               "user",
               "source=/dev/sdb",
               "ro=1",
               "nosuid=x",
               "context=x",
               "defaults",
               "helper=x",
               "gid=0",
               "ro,",
               "dev=1"}},
          {4,
           {"/dev/sda", "/dev/sda2", "/dev/sda11", "/dev/sdb1", "/dev/mem", "/dev/SDA1", "none",
            "sda1", "LABEL=usb", "UUID=1234", "nas:/dev/sda1", "//dev/sda1", "/dev/sda1/x"}},
          {5, kPaths}}},
        {"sr_umount", {"-l", "/media/usb"}, {{0, {"-f", "-d", "-fl", "-a", "-R"}}, {1, kPaths}}},
        {"sr_mount_cifs",
         {"-o", "password=Geheimnis,user=player", "//nas/music", "/media/music"},
         {{1,
           {"user=root", "user=playerx", "user=player,domain=WORK", "user=player,ip=6.6.6.6",
            "guest", "uid=0", "credentials=/etc/shadow", "credentials=/home/player/a/b",
            "credfile=/etc/shadow", "unc=//evil/x", "prefixpath=..", "vers=1.0", "sec=none",
            "user=player%x", "password2=x", "suid", "user=player,password=a,b", "exec"}},
          {2,
           {"//nas/musi", "//nas/music2", "//nas/music/sub", "//evil/music", "//nas", "/nas/music",
            "nas:/music", "//nas/../etc", "//NAS/music", "//nas/music,unc=x"}},
          {3, kPaths}}},
        {"sr_umount_cifs", {"/media/music"}, {{0, kPaths}}},
        {"sr_mknod",
         {"-m", "0640", "/dev/player0", "c", "240", "2"},
         {{1, {"0666", "0777", "4640", "1640", "u+s", "0641", "0", "a=rw", "0600"}},
          {2, {"/dev/player1", "/dev/sda", "/tmp/player0", "/dev/player0/x", "/dev", "player0"}},
          {3, {"b", "p", "u ", "C", "d", "cc"}},
          {4, {"8", "1", "241", "24", "2400", "-240", "4096", "240.0", "0241", "0x241"}},
          {5, {"4", "20", "-1", "1048576", "0x4", "2,3", "02 3"}}}},
        {"sr_insmod",
         {"/lib/modules/extra/snd-player.ko", "index=1", "enable"},
         {{0,
           {"/lib/modules/extra/snd_player.ko", "/tmp/snd-player.ko", "snd-player.ko",
            "/lib/modules/extra/snd-player.ko.xz", "/lib/modules/extra/evil.ko",
            "/lib/modules/extra/x/snd-player.ko", "/proc/self/fd/3", "snd-player"}},
          {1,
           {"index=12", "index=", "index", "Index=1", "evil=1", "index=1 evil=1", "index=\"1",
            "enable=1"}},
          {2, {"disable", "enable=1", "enable,x", "enablex"}}}},
        {"sr_rmmod",
         {"snd-player"},
         {{0,
           {"snd", "snd_player2", "ext4", "snd_player.ko", "/snd_player", "snd*", "SND_PLAYER"}}}},
        {"sr_systemctl",
         {"--no-block", "start", "player.service"},
         {{0, {"--quiet", "--now", "--value", "-q", "-p", "--user", "--root=/x", "--host=x"}},
          {1,
           {"restart", "enable", "mask", "show", "link", "edit", "kexec", "reboot", "kill",
            "set-environment", "import-environment", "daemon-reload", "START"}},
          {2,
           {"ssh", "player.socket", "player@1", "playe*", "player.service ssh",
            "/tmp/player.service", "player-db2", "Player", "player.service.service"}}}},
    };
    return kOperations;
}

std::string InQuotes(const std::string& word) {
    std::string quoted = "'";
    for (const char c : word) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

std::string Text(const Words& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + InQuotes(word);
    }
    return text;
}

// What may be hung on a good word to say more than it does. All of it ends up in the one word.
const Words& Appendices() {
    static const Words kAppendices = {" -a",  ";id",  "$(id)", "`id`",     "|sh",     "\n-a",
                                      "\r",   "\t-a", "\x7f",  "\xc2\x9b", "/..",     "/../x",
                                      "/./x", "'",    "\"",    "\\",       ",suid",   ",remount",
                                      " --",  "%00",  "#x",    "//../x",   "\x1b[2J", "&"};
    return kAppendices;
}

// What may be put in a word's place, or between words, to be taken for an option.
const Words& Intruders() {
    static const Words kIntruders = {"-a",
                                     "--all",
                                     "-T/etc/fstab",
                                     "-N1",
                                     "--bind=x",
                                     "--move",
                                     "-R",
                                     "--rbind",
                                     "--make-shared",
                                     "-Hroot@evil",
                                     "--host=evil",
                                     "-Mx",
                                     "--root=/x",
                                     "--machine=x",
                                     "--fstab=/x",
                                     "--namespace=/proc/1/ns/mnt",
                                     "-oremount",
                                     "-ofoo=\"",
                                     "-osuid",
                                     "--mkdir",
                                     "-m4755",
                                     "--mode=4755",
                                     "-Z",
                                     "--version",
                                     "--help",
                                     "--force=1",
                                     "-",
                                     "---",
                                     ""};
    return kIntruders;
}

void AddWrongFields(const Operation& operation, std::vector<DenialCase>& cases) {
    for (const Field& field : operation.fields) {
        for (const std::string& wrong : field.wrong) {
            Words words = operation.good;
            words[field.word] = wrong;
            cases.push_back({operation.operation, Text(words), MakeCaller(1000), false});
        }
    }
}

bool IsOneOf(const std::string& text, std::initializer_list<const char*> list) {
    return std::any_of(list.begin(), list.end(), [&](const char* one) { return text == one; });
}

// Whether no rule could allow the word with this hung on it: a control character anywhere, anything
// on an option's name, a type, a verb, a kind, a number or a module's name, a way upwards on a
// path, and what mount(8) would take for its own in the text of its options.
bool AlwaysMalformed(const std::string& word, bool isOptionText, const std::string& appendix) {
    if (IsOneOf(appendix, {"\n-a", "\r", "\t-a", "\x7f", "\xc2\x9b", "\x1b[2J"})) {
        return true;
    }
    if (isOptionText) {
        return IsOneOf(appendix, {",remount", "'", "\"", "\\"});
    }
    if (word[0] == '/') {
        return IsOneOf(appendix, {"/..", "/../x", "/./x", "//../x"});
    }
    return word[0] == '-' || word.find_first_of("=.") == std::string::npos;
}

void AddSmuggling(const Operation& operation, std::vector<DenialCase>& cases) {
    for (std::size_t at = 0; at < operation.good.size(); ++at) {
        const bool isOptionText = at > 0 && operation.good[at - 1] == "-o";
        for (const std::string& appendix : Appendices()) {
            Words words = operation.good;
            words[at] += appendix;
            cases.push_back({operation.operation, Text(words), MakeCaller(1000),
                             AlwaysMalformed(operation.good[at], isOptionText, appendix)});
        }
    }
    for (std::size_t at = 0; at <= operation.good.size(); ++at) {
        for (const std::string& intruder : Intruders()) {
            Words words = operation.good;
            words.insert(words.begin() + static_cast<std::ptrdiff_t>(at), intruder);
            // The one that a table knows; a rule may allow it.
            cases.push_back(
                {operation.operation, Text(words), MakeCaller(1000), intruder != "-osuid"});
            words = operation.good;
            words.insert(words.begin() + static_cast<std::ptrdiff_t>(at), {"--", intruder});
            cases.push_back({operation.operation, Text(words), MakeCaller(1000), true});
        }
    }
    for (const char* end : {" '", " \"", " \\", "\n", " '\n'", " -- --", " -- -- x", " ''"}) {
        cases.push_back({operation.operation, Text(operation.good) + end, MakeCaller(1000), true});
    }
    // NUL bytes and one word too many.
    cases.push_back(
        {operation.operation, Text(operation.good) + std::string(1, '\0'), MakeCaller(1000), true});
    std::string many = Text(operation.good);
    for (int i = 0; i < 64; ++i) {
        many += " x";
    }
    cases.push_back({operation.operation, many, MakeCaller(1000), true});
    cases.push_back({operation.operation, Text(operation.good) + std::string(8192, ' '),
                     MakeCaller(1000), true});
}

void AddCallers(const Operation& operation, std::vector<DenialCase>& cases) {
    const std::string text = Text(operation.good);
    const std::vector<gid_t> every = {0, 6, 44, 1000, 1100};
    for (const uid_t uid :
         {0U, 1U, 44U, 100U, 999U, 1001U, 1100U, 10000U, 65534U, 0xfffffffeU, 0xffffffffU}) {
        cases.push_back({operation.operation, text, MakeCaller(uid), false});
        cases.push_back({operation.operation, text, MakeCaller(uid, every), false});
    }
    for (const Operation& other : Operations()) {
        if (other.operation != operation.operation && other.good != operation.good) {
            cases.push_back({operation.operation, Text(other.good), MakeCaller(1000), false});
        }
    }
    if (operation.operation == "sr_mount") {
        for (const char* executable : {"", "/usr/bin/player2", "/usr/bin/player (deleted)",
                                       "/tmp/usr/bin/player", "player"}) {
            cases.push_back({operation.operation, text, MakeCaller(1000, {}, executable), false});
        }
    }
}

}  // namespace

const std::vector<DenialCase>& DenialCases() {
    static const std::vector<DenialCase> kCases = [] {
        std::vector<DenialCase> cases;
        for (const Operation& operation : Operations()) {
            AddWrongFields(operation, cases);
            AddSmuggling(operation, cases);
            AddCallers(operation, cases);
        }
        return cases;
    }();
    return kCases;
}

const std::vector<DenialCase>& GoodCases() {
    static const std::vector<DenialCase> kCases = [] {
        std::vector<DenialCase> cases;
        for (const Operation& operation : Operations()) {
            cases.push_back({operation.operation, Text(operation.good), MakeCaller(1000), false});
        }
        return cases;
    }();
    return kCases;
}
