// SPDX-License-Identifier: Apache-2.0
// From argument text to fields: each option and operand of each operation, and what is refused.
#include "parse/Parse.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "base/Text.h"

using agent::Parse;
using agent::Parsed;

namespace {

using Words = std::vector<std::string>;

void Show(std::string& line, const char* name, const std::string& value) {
    if (!value.empty()) {
        line += std::string(" ") + name + "=" + agent::Quote(value);
    }
}

// The fields that are filled, on one line.
std::string Line(const agent::Request& request) {
    std::string line = agent::NameOf(request.operation);
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
        char mode[24];
        (void)std::snprintf(mode, sizeof mode, " mode=%04o", static_cast<unsigned>(request.mode));
        line += mode;
    }
    Show(line, "module", request.module);
    Show(line, "parameters", agent::Join(request.parameters, " "));
    Show(line, "verb", request.verb);
    Show(line, "units", agent::Join(request.units, " "));
    Show(line, "options", agent::Join(request.options, ","));
    Show(line, "credentials", request.secretFile);
    Show(line, "password", request.secret);
    return line;
}

// The request on one line, or the status and the error.
std::string Of(const std::string& agent, const std::string& text) {
    const Parsed parsed = Parse(agent, text);
    if (parsed.status == SR_OK) {
        return Line(parsed.request);
    }
    EXPECT_NE(parsed.error, "") << text;
    return std::to_string(parsed.status) + " " + parsed.error;
}

struct Row {
    const char* text;
    const char* expected;
};

void Expect(const char* agent, const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        EXPECT_EQ(Of(agent, row.text), row.expected) << agent << " " << row.text;
    }
}

Words OperationNames() {
    Words names;
    for (const agent::OperationRow& row : agent::OperationRows()) {
        names.push_back(row.name);
    }
    return names;
}

TEST(Grammar, ThereAreEightOperations) {
    EXPECT_EQ(OperationNames(), (Words{"sr_mount", "sr_umount", "sr_mount_cifs", "sr_umount_cifs",
                                       "sr_mknod", "sr_insmod", "sr_rmmod", "sr_systemctl"}));
}

TEST(Grammar, AnUnknownOperationIsNotImplemented) {
    for (const char* name : {"", "sr_moun", "sr_mount ", "SR_MOUNT", "mount", "sr_reboot"}) {
        EXPECT_EQ(Of(name, "x"), "10 there is no such operation") << name;
    }
}

TEST(Grammar, MountTakesEachOptionOfItsTable) {
    const char* plain = "sr_mount source='/dev/sda1' target='/m/x' type='vfat'";
    for (const char* text :
         {"-t vfat /dev/sda1 /m/x", "-tvfat /dev/sda1 /m/x", "--types vfat /dev/sda1 /m/x",
          "--types=vfat /dev/sda1 /m/x", "-n -i -c -t vfat /dev/sda1 /m/x",
          "--no-mtab --internal-only --no-canonicalize -t vfat /dev/sda1 /m/x",
          "-nict vfat /dev/sda1 /m/x", "/dev/sda1 /m/x -t vfat", "-t vfat -- /dev/sda1 /m/x"}) {
        EXPECT_EQ(Of("sr_mount", text), plain) << text;
    }
    Expect(
        "sr_mount",
        {{"-t vfat -r /dev/sda1 /m/x",
          "sr_mount source='/dev/sda1' target='/m/x' type='vfat' options='ro'"},
         {"-t vfat --read-only /dev/sda1 /m/x",
          "sr_mount source='/dev/sda1' target='/m/x' type='vfat' options='ro'"},
         {"-t vfat -w /dev/sda1 /m/x",
          "sr_mount source='/dev/sda1' target='/m/x' type='vfat' options='rw'"},
         {"-t vfat --rw /dev/sda1 /m/x",
          "sr_mount source='/dev/sda1' target='/m/x' type='vfat' options='rw'"},
         {"-t vfat --read-write /dev/sda1 /m/x",
          "sr_mount source='/dev/sda1' target='/m/x' type='vfat' options='rw'"},
         {"-t vfat -o ro,uid=5 --options umask=022 -ogid=6 --options=sync /dev/sda1 /m/x",
          "sr_mount source='/dev/sda1' target='/m/x' type='vfat' "
          "options='ro,uid=5,umask=022,gid=6,sync'"},
         {"-B /a /b", "sr_mount source='/a' target='/b' type='none' options='bind'"},
         {"--bind /a /b", "sr_mount source='/a' target='/b' type='none' options='bind'"},
         {"-o bind /a /b", "sr_mount source='/a' target='/b' type='none' options='bind'"},
         {"-t none -o bind /a /b", "sr_mount source='/a' target='/b' type='none' options='bind'"}});
}

TEST(Grammar, MountTakesTheFormsOfASource) {
    Expect(
        "sr_mount",
        {{"-t tmpfs none /m", "sr_mount source='none' target='/m' type='tmpfs'"},
         {"-t tmpfs my-tmp_1 /m", "sr_mount source='my-tmp_1' target='/m' type='tmpfs'"},
         {"/dev/sda1 /m", "sr_mount source='/dev/sda1' target='/m' type='auto'"},
         {"-t ext4 nas:/x /m", "sr_mount source='nas:/x' target='/m' type='ext4'"},
         {"-t ext4 nas-1.a:/x//y/ /m", "sr_mount source='nas-1.a:/x/y' target='/m' type='ext4'"}});
    for (const char* source : {"LABEL=x", "UUID=1-2", "dev/sda1", "./sda1", "~/x", "a:b", "''",
                               "LABEL=x:/y", "[fe80::1]:/x", "a,b"}) {
        const Parsed parsed = Parse("sr_mount", std::string("-t ext4 ") + source + " /m");
        EXPECT_EQ(parsed.status, SR_FAIL) << source;
    }
}

TEST(Grammar, MountRefusesWhatItsTableDoesNotKnow) {
    for (const char* option : {"-a",
                               "--all",
                               "-T/etc/fstab",
                               "-T /etc/fstab",
                               "--fstab=/x",
                               "-N 1",
                               "--namespace=1",
                               "-M",
                               "--move",
                               "-R",
                               "--rbind",
                               "-F",
                               "--fork",
                               "-f",
                               "--fake",
                               "-l",
                               "-L x",
                               "-U x",
                               "-O x",
                               "-v",
                               "-m",
                               "--mkdir",
                               "-V",
                               "-h",
                               "--source=/dev/sdb",
                               "--target=/etc",
                               "--target-prefix=/",
                               "--make-shared",
                               "--options-mode=x",
                               "--option=ro",
                               "--typ=vfat",
                               "-",
                               "---",
                               "-ta -",
                               "-s"}) {
        const std::string text = std::string(option) + " -t vfat /dev/sda1 /m/x";
        EXPECT_EQ(Parse("sr_mount", text).status, SR_FAIL) << text;
        EXPECT_EQ(Parse("sr_mount", "/dev/sda1 " + text).status, SR_FAIL) << text;
    }
    EXPECT_EQ(Of("sr_mount", "-a"), "1 the option '-a' is not available");
    EXPECT_EQ(Of("sr_mount", "--bind=x /a /b"), "1 the option '--bind' takes no value");
    EXPECT_EQ(Of("sr_mount", "/a /b -t"), "1 the option '-t' needs a value");
    EXPECT_EQ(Of("sr_mount", "/a /b --types"), "1 the option '--types' needs a value");
}

TEST(Grammar, MountRefusesTypesThatRunProgramsOrMeanSomethingElse) {
    for (const char* type :
         {"fuse", "fuseblk", "fuse.sshfs", "fuse3", "cifs", "smb3", "smbfs", "noext4", "nothing",
          "vfat,ext4", "../x", "a-b", "VFAT", "-a", "''", "none"}) {
        const std::string text = std::string("-t ") + type + " /dev/sda1 /m";
        EXPECT_EQ(Parse("sr_mount", text).status, SR_FAIL) << text;
    }
    EXPECT_EQ(Of("sr_mount", "-t vfat -t ext4 /a /b"), "1 the type is given twice");
    EXPECT_EQ(Of("sr_mount", "-t ext4 -o bind /a /b"), "1 a bind mount has no type");
}

TEST(Grammar, MountRefusesOptionsThatChangeOtherMountsOrTheProtection) {
    for (const char* option : {"remount",
                               "move",
                               "rbind",
                               "shared",
                               "rshared",
                               "private",
                               "slave",
                               "unbindable",
                               "X-mount.mkdir",
                               "X-mount.subdir=x",
                               "x-systemd.automount",
                               "helper=x",
                               "uhelper=x",
                               "user",
                               "user=x",
                               "users",
                               "owner",
                               "group",
                               "source=/dev/sdb",
                               "password=x",
                               "pass=x",
                               "bind=x",
                               "loop=/dev/loop0",
                               "suid=recursive",
                               "dev=x",
                               "",
                               "=x",
                               "-a",
                               "--bind",
                               "ro,",
                               ",ro",
                               "ro,,rw",
                               "a b",
                               "a\\\\",
                               "'a=b\\c'",
                               "'a=\"b'",
                               "'a=b\"'",
                               "\"a='b\"",
                               "RO",
                               "a/b"}) {
        const std::string text = std::string("-t vfat -o ") + option + " /dev/sda1 /m";
        EXPECT_EQ(Parse("sr_mount", text).status, SR_FAIL) << text;
        const std::string second = std::string("-t vfat -o ro,") + option + " /dev/sda1 /m";
        EXPECT_EQ(Parse("sr_mount", second).status, SR_FAIL) << second;
    }
    EXPECT_EQ(Of("sr_mount", "-t vfat -o '' /a /b"), "1 an option is empty");
    EXPECT_EQ(Of("sr_mount", "-o loop -t ext4 image /b"), "1 the source must be an absolute path");
    EXPECT_EQ(Of("sr_mount", "-o bind etc /b"), "1 the source must be an absolute path");
}

TEST(Grammar, MountRefusesAPathInAnOptionThatClimbs) {
    for (const char* value : {"..", "/srv/../etc", "../x", "x/..", "/a:..", "/a:../b", "..:/a",
                              "/srv/layers/x:etc:..", "/a=../b:/.."}) {
        EXPECT_EQ(Of("sr_mount", std::string("-t ext4 -o data=") + value + " /a /m"),
                  "1 the value of the option 'data' holds '..'")
            << value;
    }
    for (const char* value : {"...", "/a/..x", "/a/x..", "a..b", "1.2", "/a:/b", ":", "/"}) {
        EXPECT_EQ(Parse("sr_mount", std::string("-t ext4 -o data=") + value + " /a /m").status,
                  SR_OK)
            << value;
    }
    EXPECT_EQ(Of("sr_mount_cifs", "-o iocharset=/a/../b //nas/x /m"),
              "1 the value of the option 'iocharset' holds '..'");
}

TEST(Grammar, EachDirectoryOfAnOverlayIsOneCleanPath) {
    for (const char* key : {"lowerdir", "upperdir", "workdir"}) {
        const std::string start = std::string("-t overlay -o ") + key;
        EXPECT_EQ(Parse("sr_mount", start + "=/srv/layers/x none /m").status, SR_OK) << key;
        for (const char* rest : {"", "=", "=srv", "=/", "=/srv/", "=//srv", "=/srv//x", "=/srv/./x",
                                 "=/srv/../x", "=/srv:/etc", "=/srv::/etc", "=:/srv", "=/srv:"}) {
            EXPECT_EQ(Parse("sr_mount", start + rest + " none /m").status, SR_FAIL) << key << rest;
        }
        EXPECT_EQ(Of("sr_mount", start + "=/srv:/etc none /m"),
                  "1 the option '" + std::string(key) + "' takes one clean absolute path");
    }
}

TEST(Grammar, PathsAreMadeNormalOrRefused) {
    Expect("sr_umount", {{"/m/x", "sr_umount target='/m/x'"},
                         {"/m//x///", "sr_umount target='/m/x'"},
                         {"'/m/a b'", "sr_umount target='/m/a b'"},
                         {"/m/...", "sr_umount target='/m/...'"},
                         {"/m/..x", "sr_umount target='/m/..x'"},
                         {"m", "1 a path is not absolute"},
                         {"''", "1 an argument is empty or begins with '-'"},
                         {"//m", "1 a path is not absolute"},
                         {"/", "1 the root directory cannot be named here"},
                         {"///", "1 a path is not absolute"},
                         {"/m/../x", "1 a path holds '.' or '..'"},
                         {"/m/..", "1 a path holds '.' or '..'"},
                         {"/m/./x", "1 a path holds '.' or '..'"},
                         {"/.", "1 a path holds '.' or '..'"}});
    EXPECT_EQ(Of("sr_umount", "/" + std::string(256, 'a')), "1 a part of a path is too long");
    std::string longPath;
    while (longPath.size() <= 4095) {
        longPath += "/" + std::string(100, 'a');
    }
    EXPECT_EQ(Of("sr_umount", longPath), "1 a path is too long");
}

TEST(Grammar, OperandsAreCountedAndNeverBeginLikeOptions) {
    Expect("sr_mount", {{"", "1 a source is missing"},
                        {"/a", "1 a mount point is missing"},
                        {"/a /b /c", "1 there are too many arguments"},
                        {"-- /a -b", "1 an argument is empty or begins with '-'"},
                        {"-- -a /b", "1 an argument is empty or begins with '-'"},
                        {"-- /a -- /b", "1 an argument is empty or begins with '-'"},
                        {"'' /b", "1 an argument is empty or begins with '-'"}});
    EXPECT_EQ(Of("sr_mount", "/a '/b"), "1 a quote is left open");
}

TEST(Grammar, UmountTakesItsFlagsAndOneMountPoint) {
    for (const char* agent : {"sr_umount", "sr_umount_cifs"}) {
        const std::string start = std::string(agent) + " target='/m'";
        EXPECT_EQ(Of(agent, "-n -i -c /m"), start);
        EXPECT_EQ(Of(agent, "-l /m"), start + " options='lazy'");
        EXPECT_EQ(Of(agent, "--lazy --force /m"), start + " options='lazy,force'");
        EXPECT_EQ(Of(agent, "-fl /m"), start + " options='force,lazy'");
        EXPECT_EQ(Of(agent, "-d /m"), start + " options='detach-loop'");
        EXPECT_EQ(Of(agent, "/m /n"), "1 there are too many arguments");
        for (const char* option : {"-a", "--all", "-A", "--all-targets", "-R", "--recursive", "-r",
                                   "-O x", "-t vfat", "-N 1", "-v", "-q", "--fake"}) {
            EXPECT_EQ(Parse(agent, std::string(option) + " /m").status, SR_FAIL) << option;
        }
    }
}

TEST(Grammar, AShareTakesEachOptionOfItsTable) {
    const std::string start = "sr_mount_cifs source='//nas/music' target='/m' type='cifs'";
    const std::string end = " //nas/music /m";
    EXPECT_EQ(Of("sr_mount_cifs", "-n -t cifs" + end), start);
    EXPECT_EQ(Of("sr_mount_cifs", "-r" + end), start + " options='ro'");
    EXPECT_EQ(Of("sr_mount_cifs", "-w" + end), start + " options='rw'");
    EXPECT_EQ(Of("sr_mount_cifs", "-o username=me,workgroup=W,addr=10.0.0.1,vers=3.0" + end),
              start + " options='user=me,domain=W,ip=10.0.0.1,vers=3.0'");
    EXPECT_EQ(Of("sr_mount_cifs", "-o user=a.b_c-d$,dom=W,ip=fe80::1" + end),
              start + " options='user=a.b_c-d$,domain=W,ip=fe80::1'");
    EXPECT_EQ(Of("sr_mount_cifs", "-o credentials=/home//me/.cred" + end),
              start + " credentials='/home/me/.cred'");
    EXPECT_EQ(Of("sr_mount_cifs", "-o cred=/c" + end), start + " credentials='/c'");
}

TEST(Grammar, APasswordIsTakenOutOfTheOptions) {
    for (const char* key : {"password", "pass"}) {
        const Parsed parsed = Parse(
            "sr_mount_cifs", std::string("-o 'user=me,") + key + "=a\"b\\c=d e,ro' //nas/music /m");
        ASSERT_EQ(parsed.status, SR_OK) << parsed.error;
        EXPECT_EQ(parsed.request.secret, "a\"b\\c=d e");
        EXPECT_EQ(parsed.request.options, (Words{"user=me", "ro"}));
        EXPECT_EQ(Line(parsed.request),
                  "sr_mount_cifs source='//nas/music' target='/m' type='cifs' "
                  "options='user=me,ro' password='a\"b\\x5cc=d e'");
    }
}

TEST(Grammar, NoErrorRepeatsAPassword) {
    for (const char* options :
         {"password=geheim,geheimer", "passwd=geheim", "password2=geheim", "user=me%geheim",
          "password=geheim,password=geheim", "password=x,-geheim", "pass=x,geheim=geheim",
          "password=geheim,credentials=/geheim", "Password=geheim", "password=a,geheim b"}) {
        const Parsed parsed =
            Parse("sr_mount_cifs", std::string("-o '") + options + "' //nas/music /m");
        EXPECT_EQ(parsed.status, SR_FAIL) << options;
        EXPECT_EQ(parsed.error.find("geheim"), std::string::npos) << parsed.error;
    }
    EXPECT_EQ(Parse("sr_mount", "-o password=geheim /a /b").error.find("geheim"),
              std::string::npos);
}

TEST(Grammar, AShareRefusesOptionsThatNameAnotherShareOrFile) {
    for (const char* option : {"unc=//x/y",
                               "target=x",
                               "path=x",
                               "prefixpath=x",
                               "source=//x/y",
                               "credfile=/etc/shadow",
                               "credentials=x",
                               "credentials=/a/../b",
                               "credentials=",
                               "cred",
                               "passfd=3",
                               "password=",
                               "password",
                               "domX=y",
                               "user=",
                               "user",
                               "user=-x",
                               "user=a/b",
                               "user='a\\b'",
                               "user=a%b",
                               "user='a b'",
                               "domain=a/b",
                               "ip=nas",
                               "ip=1.2.3.4%eth0",
                               "ip=",
                               "bind",
                               "loop",
                               "remount",
                               "user=a,user=b",
                               "user=a,username=b",
                               "ip=1.1.1.1,addr=1.1.1.2",
                               "x-foo",
                               "helper=x",
                               "lowerdir=/",
                               "users",
                               "nonsense"}) {
        const std::string text = std::string("-o ") + option + " //nas/music /m";
        EXPECT_EQ(Parse("sr_mount_cifs", text).status, SR_FAIL) << text;
    }
    EXPECT_EQ(Of("sr_mount_cifs", "-o password=a,credentials=/c //nas/music /m"),
              "1 there is a password and a credentials file");
    EXPECT_EQ(Of("sr_mount_cifs", "-t vfat //nas/music /m"), "1 the type can only be cifs here");
}

TEST(Grammar, ASharesSourceIsAHostAndAShare) {
    for (const char* source : {"//nas/music", "//nas.local/music/a-b_c.d", "//10.0.0.1/x$",
                               "//nas/x$/y", "//nas_1/A/b.c/D"}) {
        const std::string text = std::string("'") + source + "' /m";
        EXPECT_EQ(Parse("sr_mount_cifs", text).request.source, source);
    }
    for (const char* source :
         {"/nas/music", "//nas", "//nas/", "///music", "//-nas/music", "//.nas/music", "//nas/../x",
          "//nas/music/..", "//nas/a//b", "//nas/music/", "//nas/a,b", "//n%s/a",
          "'\\\\nas\\music'", "nas:/music", "music", "//nas/a\\\"b", "//n s/x", "//user@nas/x"}) {
        EXPECT_EQ(Parse("sr_mount_cifs", std::string(source) + " /m").status, SR_FAIL) << source;
    }
}

TEST(Grammar, ASharesNameHoldsNothingThatAProgramCouldTakeForMore) {
    const std::string bad = " !\"#%&'()*+,:;<=>?@[\\]^`{|}~\xc3";
    for (const char letter : bad) {
        const std::string at(1, letter);
        const std::string word = letter == '\'' ? "\"//nas/a'b\"" : "'//nas/a" + at + "b'";
        EXPECT_EQ(Of("sr_mount_cifs", word + " /m"),
                  letter == '\xc3' ? "1 the share's name holds '\\xc3', which is not available"
                  : letter == '\'' ? "1 the share's name holds '\\x27', which is not available"
                  : letter == '\\'
                      ? "1 the share's name holds '\\x5c', which is not available"
                      : "1 the share's name holds '" + at + "', which is not available");
    }
    for (const char* source : {"//nas/$", "//nas/$a", "//nas/a$b", "//nas/a$$", "//nas/a/$/b"}) {
        EXPECT_EQ(Of("sr_mount_cifs", std::string(source) + " /m"),
                  "1 a '$' can only be the end of a share's name")
            << source;
    }
}

TEST(Grammar, MknodTakesPathKindNumbersAndMode) {
    Expect("sr_mknod",
           {{"/dev/x c 240 3", "sr_mknod path='/dev/x' kind='c' major=240 minor=3"},
            {"/dev/x u 240 3", "sr_mknod path='/dev/x' kind='c' major=240 minor=3"},
            {"/dev/x b 0x10 010", "sr_mknod path='/dev/x' kind='b' major=16 minor=8"},
            {"-m 660 /dev/x p", "sr_mknod path='/dev/x' kind='p' mode=0660"},
            {"-m0600 /dev/x b 8 0", "sr_mknod path='/dev/x' kind='b' major=8 minor=0 mode=0600"},
            {"--mode=7 /x p", "sr_mknod path='/x' kind='p' mode=0007"},
            {"/x p --mode 0", "sr_mknod path='/x' kind='p' mode=0000"},
            {"/x b 4095 1048575", "sr_mknod path='/x' kind='b' major=4095 minor=1048575"}});
    for (const char* text : {"/x",           "/x c",
                             "/x c 1",       "/x p 1",
                             "/x p 1 2",     "/x c 1 2 3",
                             "/x d 1 2",     "/x C 1 2",
                             "/x c 4096 0",  "/x c 0 1048576",
                             "/x c -1 0",    "/x c 1 x",
                             "/x c 09 1",    "/x c 0x 1",
                             "/x c '' 1",    "/x c 1.0 1",
                             "/x c ' 1' 1",  "/x c 99999999999 1",
                             "x c 1 2",      "/x/../y c 1 2",
                             "-m 4755 /x p", "-m 1777 /x p",
                             "-m u+s /x p",  "-m 00660 /x p",
                             "-m 668 /x p",  "-m '' /x p",
                             "-m -1 /x p",   "-m 600 -m 600 /x p",
                             "-Z /x p",      "--context=x /x p",
                             "--version",    "/ c 1 2"}) {
        EXPECT_EQ(Parse("sr_mknod", text).status, SR_FAIL) << text;
    }
}

TEST(Grammar, InsmodTakesAFileAndParameters) {
    Expect("sr_insmod",
           {{"/m/a-b.ko", "sr_insmod path='/m/a-b.ko' module='a_b'"},
            {"/m/a.ko.xz x=1 y", "sr_insmod path='/m/a.ko.xz' module='a' parameters='x=1 y'"},
            {"/m/a.ko list=1,2,-3 p=/x:y@z",
             "sr_insmod path='/m/a.ko' module='a' parameters='list=1,2,-3 p=/x:y@z'"},
            {"/m/a.ko x=", "sr_insmod path='/m/a.ko' module='a' parameters='x='"}});
    for (const char* text : {"",
                             "a.ko",
                             "-",
                             "/m/a",
                             "/m/a.o",
                             "/m/.ko",
                             "/m/a.ko.sh",
                             "/m/a.b.ko",
                             "/m/../a.ko",
                             "/m/a.ko 'x=1 y=2'",
                             "/m/a.ko 'x=\"1\"'",
                             "/m/a.ko x=\\'",
                             "/m/a.ko -f",
                             "-f /m/a.ko",
                             "/m/a.ko -- -x",
                             "/m/a.ko =1",
                             "/m/a.ko x-y=1",
                             "/m/a.ko 'x=a;b'",
                             "-s /m/a.ko",
                             "/m/a\\ b.ko"}) {
        EXPECT_EQ(Parse("sr_insmod", text).status, SR_FAIL) << text;
    }
    EXPECT_EQ(Parse("sr_insmod", "/m/" + std::string(56, 'a') + ".ko").status, SR_FAIL);
}

TEST(Grammar, RmmodTakesOneNameAndNoOption) {
    Expect("sr_rmmod",
           {{"snd_x", "sr_rmmod module='snd_x'"}, {"snd-x", "sr_rmmod module='snd_x'"}});
    for (const char* text : {"", "a b", "-f a", "--force a", "-w a", "a.ko", "/m/a.ko", "a/b", "''",
                             "-- -f", "a;b", "-s a", "-v a"}) {
        EXPECT_EQ(Parse("sr_rmmod", text).status, SR_FAIL) << text;
    }
}

TEST(Grammar, SystemctlTakesAVerbAndUnits) {
    Expect("sr_systemctl",
           {{"start a", "sr_systemctl verb='start' units='a.service'"},
            {"stop a.socket b@1.service", "sr_systemctl verb='stop' units='a.socket b@1.service'"},
            {"--no-pager --no-ask-password -l --full status a.b",
             "sr_systemctl verb='status' units='a.b.service'"},
            {"-q is-active a", "sr_systemctl verb='is-active' units='a.service' options='quiet'"},
            {"restart --no-block a",
             "sr_systemctl verb='restart' units='a.service' options='no-block'"},
            {"enable --now --quiet a",
             "sr_systemctl verb='enable' units='a.service' options='now,quiet'"},
            {"show -p ActiveState,SubState --property=Id --value a",
             "sr_systemctl verb='show' units='a.service' "
             "options='property=ActiveState,property=SubState,property=Id,value'"},
            {"status 4711", "sr_systemctl verb='status' units='4711.service'"}});
}

TEST(Grammar, SystemctlKnowsEachOfItsVerbsAndNoOther) {
    for (const char* verb :
         {"start", "stop", "restart", "try-restart", "reload", "reload-or-restart",
          "try-reload-or-restart", "status", "show", "is-active", "is-failed", "is-enabled",
          "enable", "disable", "mask", "unmask", "reset-failed"}) {
        EXPECT_EQ(Parse("sr_systemctl", std::string(verb) + " a").request.verb, verb);
    }
    for (const char* verb : {"link",
                             "edit",
                             "set-environment",
                             "import-environment",
                             "unset-environment",
                             "kexec",
                             "reboot",
                             "poweroff",
                             "halt",
                             "cat",
                             "kill",
                             "set-property",
                             "daemon-reload",
                             "isolate",
                             "switch-root",
                             "revert",
                             "preset",
                             "bind",
                             "mount-image",
                             "Start",
                             "sta",
                             "''"}) {
        EXPECT_EQ(Parse("sr_systemctl", std::string(verb) + " a").status, SR_FAIL) << verb;
    }
}

TEST(Grammar, SystemctlRefusesOtherSystemsPathsAndWildcards) {
    for (const char* text : {"-H host start a",
                             "--host=x start a",
                             "-M x start a",
                             "--machine=x start a",
                             "--root=/x enable a",
                             "--user start a",
                             "--global enable a",
                             "--runtime enable a",
                             "-a status a",
                             "--all status a",
                             "-t service status a",
                             "-f stop a",
                             "--force stop a",
                             "-s 9 stop a",
                             "start",
                             "start ''",
                             "start /tmp/evil.service",
                             "enable ./x.service",
                             "start 'a*'",
                             "start 'a?'",
                             "start '[ab].service'",
                             "start -.mount",
                             "start .service",
                             "start 'a b'",
                             "start a;b",
                             "-p 'A B' show a",
                             "-p --x show a",
                             "--prop=Id show a",
                             "-- -H start a"}) {
        EXPECT_EQ(Parse("sr_systemctl", text).status, SR_FAIL) << text;
    }
    EXPECT_EQ(Parse("sr_systemctl", "start " + std::string(256, 'a')).status, SR_FAIL);
}

TEST(Grammar, TheWordsAreToldWhateverBecomesOfThem) {
    EXPECT_EQ(Parse("sr_umount", "-l '/m x'").words, (Words{"-l", "/m x"}));
    EXPECT_EQ(Parse("sr_umount", "-x a").words, (Words{"-x", "a"}));
    EXPECT_EQ(Parse("sr_reboot", "now").words, (Words{"now"}));
    EXPECT_EQ(Parse("sr_umount", "").words, Words{});
    EXPECT_EQ(Parse("sr_umount", "'/m").words, std::nullopt);
    EXPECT_EQ(Parse("sr_reboot", "'/m").words, std::nullopt);
}

}  // namespace
