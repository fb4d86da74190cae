// SPDX-License-Identifier: Apache-2.0
// What a caller may try against the running agent: messages of every kind and shape, hundreds at
// once, descriptors that hold up whoever writes, words that mean something to a tool, and its death
// in the middle. After each the agent must answer an ordinary call. Scripts stand in for the tools:
// modules, shares and units need a kernel, a server and a manager that a test machine may lack;
// real ones are in AttackTest.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sentrel/SR_API.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <random>

#include "Monitor.h"
#include "OtherUsers.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "Skip.h"

namespace {

const char kService[] = "org.sentrel.sr_agent";
const char kPath[] = "/org/sentrel/sr_agent";
const char kControl[] = "org.sentrel.sr_agent.Control1";

// One value of each type of the signature; arrays have one element.
void AppendValues(DBusMessageIter* to, DBusSignatureIter* types);

void AppendContainer(DBusMessageIter* to, DBusSignatureIter* types, int type) {
    DBusMessageIter inner;
    if (type == DBUS_TYPE_VARIANT) {
        const char* text = "x";
        (void)dbus_message_iter_open_container(to, type, "s", &inner);
        (void)dbus_message_iter_append_basic(&inner, DBUS_TYPE_STRING, &text);
        (void)dbus_message_iter_close_container(to, &inner);
        return;
    }
    DBusSignatureIter below;
    dbus_signature_iter_recurse(types, &below);
    char* contained = type == DBUS_TYPE_ARRAY ? dbus_signature_iter_get_signature(&below) : nullptr;
    (void)dbus_message_iter_open_container(to, type, contained, &inner);
    AppendValues(&inner, &below);
    (void)dbus_message_iter_close_container(to, &inner);
    dbus_free(contained);
}

void AppendValues(DBusMessageIter* to, DBusSignatureIter* types) {
    do {
        const int type = dbus_signature_iter_get_current_type(types);
        if (type == DBUS_TYPE_INVALID) {
            return;
        }
        if (dbus_type_is_container(type)) {
            AppendContainer(to, types, type);
        } else if (type == DBUS_TYPE_UNIX_FD) {
            const int number = STDERR_FILENO;
            (void)dbus_message_iter_append_basic(to, type, &number);
        } else if (type == DBUS_TYPE_STRING || type == DBUS_TYPE_OBJECT_PATH ||
                   type == DBUS_TYPE_SIGNATURE) {
            const char* text = type == DBUS_TYPE_STRING        ? "sr_rmmod"
                               : type == DBUS_TYPE_OBJECT_PATH ? "/x"
                                                               : "s";
            (void)dbus_message_iter_append_basic(to, type, &text);
        } else {
            const dbus_uint64_t zero = 0;
            (void)dbus_message_iter_append_basic(to, type, &zero);
        }
    } while (dbus_signature_iter_next(types));
}

DBusMessage* NewMessage(int type, const char* path, const char* interface, const char* member,
                        const std::string& signature) {
    DBusMessage* message = dbus_message_new(type);
    (void)dbus_message_set_destination(message, kService);
    (void)dbus_message_set_path(message, path);
    (void)dbus_message_set_interface(message, interface);
    (void)dbus_message_set_member(message, member);
    if (type == DBUS_MESSAGE_TYPE_ERROR) {
        (void)dbus_message_set_error_name(message, "a.b");
    }
    if (type == DBUS_MESSAGE_TYPE_ERROR || type == DBUS_MESSAGE_TYPE_METHOD_RETURN) {
        (void)dbus_message_set_reply_serial(message, 7);
    }
    if (!signature.empty()) {
        DBusSignatureIter types;
        DBusMessageIter end;
        dbus_signature_iter_init(&types, signature.c_str());
        dbus_message_iter_init_append(message, &end);
        AppendValues(&end, &types);
    }
    return message;
}

std::string RandomSignature(std::mt19937& random) {
    static const char* const kParts[] = {"s", "s", "s",  "i",     "u",     "y",  "b",
                                         "x", "t", "d",  "o",     "g",     "v",  "n",
                                         "q", "h", "as", "a{sv}", "(ssi)", "ai", "aa{s(iv)}"};
    std::string signature;
    for (auto count = random() % 5; count > 0; --count) {
        signature += kParts[random() % std::size(kParts)];
    }
    return signature;
}

class HostileTest : public testing::Test {
protected:
    void SetUp() override {
        tools.Add("systemctl", "exit 17");
        rules.Write("units.toml",
                    "[[rule]]\nname = \"units\"\nagent = \"sr_systemctl\"\nverb = \"start\"\n"
                    "unit = \"*\"\npermit = true\nuser = \"*\"\n");
    }
    void Serve(std::vector<std::string> options = {}) {
        options.insert(options.begin(), {"--rules", rules.Folder(), "--tool-path", tools.Folder(),
                                         "--audit-stderr", "--limit", "minute=5000"});
        agent = std::make_unique<test::RunningAgent>(options);
        connection = std::make_unique<test::PlainConnection>();
    }
    // Everybody may unload modules: a tool that takes one word.
    void AllowModules() const {
        rules.Write("modules.toml",
                    "[[rule]]\nname = \"modules\"\nagent = \"sr_rmmod\"\nmodule = \"*\"\n"
                    "permit = true\nuser = \"*\"\n");
    }
    std::string Answer(const char* name, const char* text, int descriptor = 0) {
        const test::Reply reply = test::Call(connection->Get(), name, text, descriptor);
        EXPECT_EQ("", reply.error);
        return reply.text;
    }
    // What the agent would decide.
    std::string Judgement(const char* name, const char* text) {
        DBusMessage* question = dbus_message_new_method_call(kService, kPath, kControl, "Test");
        (void)dbus_message_append_args(question, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &text,
                                       DBUS_TYPE_INVALID);
        return test::Send(connection->Get(), question).text;
    }
    void ExpectItServes() { EXPECT_EQ("0 17", Answer("sr_systemctl", "start x")); }
    // What nobody waits for; a round trip shows that the agent is through with it.
    void SendOnly(DBusMessage* message) {
        EXPECT_TRUE(dbus_connection_send(connection->Get(), message, nullptr));
        dbus_message_unref(message);
    }

    test::PrivateBus bus;
    test::FakeTools tools;
    test::RuleFolder rules;
    std::unique_ptr<test::RunningAgent> agent;
    std::unique_ptr<test::PlainConnection> connection;
};

TEST_F(HostileTest, MessagesOfEveryKindAndManySignaturesGetAnErrorOrSilence) {
    Serve();
    const char* const signatures[] = {"",    "s",   "ss",    "ssis",  "sis",      "ssu", "ssx",
                                      "ssd", "ssb", "ssv",   "as",    "a{sv}",    "sso", "ssg",
                                      "ssy", "ay",  "(ssi)", "ss(i)", "a(ssi)",   "v",   "sii",
                                      "ssh", "h",   "ah",    "ssai",  "aaaa{sv}", "iss", "ssii"};
    int answered = 0;
    for (const char* path : {kPath, "/", "/org/sentrel"}) {
        for (const char* interface :
             {kService, kControl, "a.b", "org.freedesktop.DBus.Properties"}) {
            for (const char* signature : signatures) {
                const bool control = interface == kControl;
                DBusMessage* call = NewMessage(DBUS_MESSAGE_TYPE_METHOD_CALL, path, interface,
                                               control ? "Test" : "CallCommand", signature);
                const test::Reply reply = test::Send(connection->Get(), call);
                const bool fits = control && std::string(signature) == "ss" && path == kPath;
                EXPECT_EQ(!fits, reply.error.find("org.freedesktop.DBus.Error.") == 0)
                    << path << " " << interface << " " << signature << ": " << reply.text;
                ++answered;
                for (const int type : {DBUS_MESSAGE_TYPE_METHOD_RETURN, DBUS_MESSAGE_TYPE_ERROR,
                                       DBUS_MESSAGE_TYPE_SIGNAL}) {
                    SendOnly(NewMessage(type, path, interface, "CallCommand", signature));
                }
            }
        }
    }
    EXPECT_EQ(3 * 4 * 28, answered);
    ExpectItServes();
}

TEST_F(HostileTest, RandomMessagesDoNotDisturbIt) {
    Serve();
    std::mt19937 random(20260131);
    for (int i = 0; i < 3000; ++i) {
        const char* const interfaces[] = {kService, kControl, nullptr};
        const char* const members[] = {"CallCommand", "Test", "Status", "Mounts", "Introspect"};
        DBusMessage* message =
            NewMessage(DBUS_MESSAGE_TYPE_METHOD_CALL, kPath, interfaces[random() % 3],
                       members[random() % std::size(members)], RandomSignature(random));
        dbus_message_set_no_reply(message, random() % 2 == 0);
        SendOnly(message);
        if (i % 100 == 99) {
            ExpectItServes();
            while (DBusMessage* reply = dbus_connection_pop_message(connection->Get())) {
                dbus_message_unref(reply);
            }
        }
    }
}

TEST_F(HostileTest, ACallWithoutAnInterfaceOrWithoutAReplyIsNotCarriedOut) {
    AllowModules();
    tools.Add("rmmod", ": > \"$DIR/ran\"");
    Serve();
    DBusMessage* bare = test::NewCall("sr_rmmod", "x", 0);
    (void)dbus_message_set_interface(bare, nullptr);
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownInterface",
              test::Send(connection->Get(), bare).error);
    DBusMessage* mute = test::NewCall("sr_rmmod", "x", 0);
    dbus_message_set_no_reply(mute, TRUE);
    SendOnly(mute);
    ExpectItServes();
    EXPECT_FALSE(std::ifstream(tools.File("ran")).good());
}

TEST_F(HostileTest, ThirtyMegabytesAreADBusError) {
    Serve();
    const std::string text(30U << 20U, 'x');
    EXPECT_EQ("org.freedesktop.DBus.Error.LimitsExceeded",
              test::Call(connection->Get(), "sr_rmmod", text.c_str()).error);
    EXPECT_EQ("org.freedesktop.DBus.Error.LimitsExceeded",
              test::Call(connection->Get(), text.c_str(), "x").error);
    ExpectItServes();
}

// What a rule allows and what is tried against it. The harmless forms show that the rule works and
// that only what is different about the others gets them refused.
struct Attempts {
    const char* operation;
    const char* rule;
    std::vector<const char*> harmless;
    std::vector<const char*> hostile;
};

const std::vector<Attempts>& AllAttempts() {
    static const std::vector<Attempts> kAttempts = {
        {"sr_mount",
         "source = [\"*\", \"/**\", \"*:/**\"]\ntarget = \"/media/*\"\ntype = \"*\"\n"
         "options.allow = [\"*\", \"*=/**\"]\nopen_parents = true\n",
         {"-t ext4 /dev/sda1 /media/x", "-t vfat -o ro,umask=022 /dev/sda1 /media/x",
          "-t tmpfs sh /media/x", "-t nfs4 host:/share /media/x"},
         {"-a",
          "-t ext4 -a /dev/sda1 /media/x",
          "-T /tmp/fstab /dev/sda1 /media/x",
          "-N 1 /dev/sda1 /media/x",
          "-t fuse sh /media/x",
          "-t fuse 'sh -c id#x' /media/x",
          "-t tmpfs 'sh -c id#x' /media/x",
          "-t fuse.sshfs /dev/sda1 /media/x",
          "-t fuseblk /dev/sda1 /media/x",
          "-t ext4 /dev/sda1 /media/../etc",
          "-t ext4 /dev/sda1 media/x",
          "-t ext4 /dev/sda1 /media/x/y",
          "-t ext4 /dev/sda1 /etc",
          "-t ext4 LABEL=x /media/x",
          "-t ext4 -o remount,rw /dev/sda1 /media/x",
          "-o remount /dev/sda1 /media/x",
          "-t ext4 -o suid /dev/sda1 /media/x",
          "-t ext4 -o dev /dev/sda1 /media/x",
          "-t ext4 -o suid,dev /dev/sda1 /media/x",
          "-t ext4 -o 'ro,,suid' /dev/sda1 /media/x",
          "-t ext4 -o 'umask=0,dev' /dev/sda1 /media/x",
          "-t ext4 -o 'umask=\\054dev' /dev/sda1 /media/x",
          "-t ext4 -o 'umask=\"0,dev\"' /dev/sda1 /media/x",
          "-t ext4 -o x-mount.mkdir /dev/sda1 /media/x",
          "-t ext4 -o X-mount.mkdir /dev/sda1 /media/x",
          "-t ext4 -o user /dev/sda1 /media/x",
          "-t ext4 -o helper=sh /dev/sda1 /media/x",
          "-t ext4 -o loop /dev/sda1 /media/x",
          "-t ext4 -o --bind /dev/sda1 /media/x",
          "-t ext4 -- -a /media/x",
          "-t ext4 '/dev/sda1\n' /media/x",
          "-t ext4 /dev/sda1 '/media/x\t'",
          "--bind /dev/sda1 /media/x",
          "-o bind /dev/sda1 /media/x",
          "-t ext4,vfat /dev/sda1 /media/x",
          "-t noext4 /dev/sda1 /media/x",
          "-t 'ext4 -o suid' /dev/sda1 /media/x"}},
        {"sr_mount",
         "source = \"/**\"\ntarget = \"/media/*\"\ntype = \"none\"\n"
         "options.allow = [\"bind\", \"*\"]\nopen_parents = true\n",
         {"--bind /srv/data /media/x", "-o bind,ro /etc /media/x"},
         {"--bind /media /etc", "-o bind /media /etc", "--bind /media/x /media",
          "--bind /media/x /usr/bin", "--bind /srv /media/../etc", "-o bind,remount /srv /media/x",
          "-o bind,suid /srv /media/x", "-o rbind /srv /media/x", "--rbind /srv /media/x",
          "--move /srv /media/x", "-o move /srv /media/x", "-o bind,shared /srv /media/x",
          "--make-shared /media/x", "-t ext4 -o bind /srv /media/x", "--bind srv /media/x",
          "-B --bind=x /srv /media/x"}},
        {"sr_umount",
         "target = \"/media/*\"\noptions.allow = \"force\"\nopen_parents = true\n",
         {"/media/x", "-f /media/x"},
         {"-a", "-f -a", "-A /media/x", "-R /media/x", "-l /media/x", "-fl /media/x", "-t ext4 -a",
          "-O ro -a", "/media/x /etc", "/media/../etc", "/etc", "/media", "-- -a",
          "-N 1 /media/x"}},
        {"sr_rmmod",
         "module = \"*\"\n",
         {"x", "snd-player"},
         {"-f x", "--force x", "-w x", "-s x", "../x", "/lib/modules/x.ko", "x y", "-- -f", "x.ko",
          "'x -f'"}},
        {"sr_insmod",
         "path = \"/lib/modules/extra/*\"\nparameters = [\"index=*\"]\n",
         {"/lib/modules/extra/x.ko", "/lib/modules/extra/x.ko index=1"},
         {"/tmp/x.ko", "x.ko", "-f /lib/modules/extra/x.ko", "/lib/modules/extra/../x.ko",
          "/lib/modules/extra/sub/x.ko", "/lib/modules/extra/x.so", "/proc/self/fd/3",
          "/lib/modules/extra/x.ko evil=1", "/lib/modules/extra/x.ko 'index=1 evil=1'",
          "/lib/modules/extra/x.ko 'index=\"1 evil=1\"'", "/lib/modules/extra/x.ko -- -f",
          "-- -f /lib/modules/extra/x.ko"}},
        {"sr_mknod",
         "path = \"/dev/player?\"\nkind = \"c\"\nmajor = 240\nminor = \"0-3\"\nmode = \"0640\"\n",
         {"-m 640 /dev/player0 c 240 1"},
         {"-m 640 /dev/x b 8 0", "-m 640 /dev/player0 b 240 1", "-m 640 /dev/player0 b 8 0",
          "-m 640 /dev/player0 c 1 1", "-m 640 /dev/player0 c 240 4", "-m 640 /dev/player0 p",
          "-m 666 /dev/player0 c 240 1", "-m 4640 /dev/player0 c 240 1",
          "-m u+s /dev/player0 c 240 1", "-m 640 /dev/sda c 240 1",
          "-m 640 /dev/../dev/player0 c 240 1", "-m 640 dev/player0 c 240 1",
          "-m 640 -Z x /dev/player0 c 240 1", "-m 640 /dev/player0 c 240 1 /dev/sda",
          "-m 640 /dev/player0 c 240 -1", "-m 640 -- -x c 240 1"}},
        {"sr_mount_cifs",
         "source = \"//h/s\"\ntarget = \"/media/*\"\n"
         "options.allow = [\"user=*\", \"password\", \"credentials=/home/me/*\", \"ro\"]\n"
         "open_parents = true\n",
         {"-o user=me,password=p //h/s /media/x",
          "-o credentials=/home/me/share,ro //h/s /media/x"},
         {"-o credentials=/etc/shadow //h/s /media/x", "-o cred=/etc/shadow //h/s /media/x",
          "-o credentials=/home/me/../../etc/shadow //h/s /media/x",
          "-o credentials=home/me/share //h/s /media/x", "-o credfile=/etc/shadow //h/s /media/x",
          "-o user=me,ip=6.6.6.6 //h/s /media/x", "-o user=me,unc=//evil/x //h/s /media/x",
          "-o user=me,prefixpath=.. //h/s /media/x", "-o user=me%p //h/s /media/x",
          "-o user=me,suid //h/s /media/x", "-o user=me,password=a,exec //h/s /media/x",
          "-o user=me //h/../s /media/x", "-o user=me //evil/s /media/x", "-o user=me //h/s /etc",
          "-o user=me '//h/s,unc=//evil/x' /media/x", "-t nfs -o user=me //h/s /media/x"}},
        {"sr_systemctl",
         "verb = \"start\"\nunit = \"x.*\"\noptions.allow = \"*\"\n",
         {"start x", "start x.service x.timer", "--no-block start x.service"},
         {"-H root@host start x", "--host=h start x", "--root=/tmp start x", "-M machine start x",
          "--user start x", "link /tmp/x.service", "link x.service", "edit x.service", "kexec",
          "set-environment A=B", "restart x", "start x y", "start -- --root=/tmp",
          "start /etc/systemd/system/x.service", "start x --root=/tmp", "start 'x.*'",
          "start 'x.service y'"}},
    };
    return kAttempts;
}

TEST_F(HostileTest, WordsThatMeanSomethingToAToolAreRefusedAndStartNothing) {
    for (const char* tool : {"mount", "umount", "mount.cifs", "insmod", "rmmod", "systemctl"}) {
        tools.Add(tool, ": > \"$DIR/ran\"");
    }
    Serve();
    for (const Attempts& attempts : AllAttempts()) {
        rules.Write("units.toml", std::string("[[rule]]\nname = \"it\"\nagent = \"") +
                                      attempts.operation + "\"\npermit = true\nuser = \"*\"\n" +
                                      attempts.rule);
        agent->Signal(SIGHUP);
        (void)agent->NextLineWith("1 loaded");
        for (const char* harmless : attempts.harmless) {
            const std::string judgement = Judgement(attempts.operation, harmless);
            EXPECT_EQ(0U, judgement.find("{\"decision\":\"allow\"")) << harmless << judgement;
        }
        for (const char* hostile : attempts.hostile) {
            const std::string answer = Answer(attempts.operation, hostile);
            EXPECT_TRUE(answer == "7 0" || answer == "1 0")
                << attempts.operation << " " << hostile << ": " << answer;
            const std::string line = agent->NextLineWith("phase=");
            EXPECT_TRUE(test::Holds(line, "decision=deny")) << line;
        }
    }
    EXPECT_FALSE(std::ifstream(tools.File("ran")).good());
    EXPECT_EQ("0 0", Answer("sr_systemctl", "start x"));
    EXPECT_TRUE(std::ifstream(tools.File("ran")).good());  // so it would have been seen
}

TEST_F(HostileTest, RefusalsIntoAFullPipeThatNobodyReadsHoldUpNobody) {
    Serve();
    test::Pipe full;
    ASSERT_EQ(0, fcntl(full.Writer(), F_SETFL, O_NONBLOCK));
    const std::string page(65536, 'x');
    ASSERT_EQ(65536, write(full.Writer(), page.data(), page.size()));
    ASSERT_EQ(0, fcntl(full.Writer(), F_SETFL, 0));
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ("7 0", Answer("sr_rmmod", "x", full.Writer()));
    }
    ExpectItServes();
    EXPECT_EQ(page, test::ReadReady(full.Reader()).substr(0, page.size()));
}

// Two hundred connections, as root of many users.
class Crowd {
public:
    Crowd() {
        const std::vector<uid_t> users = test::Accounts();
        for (std::size_t i = 0; i < 200; ++i) {
            callers.push_back(
                test::ConnectAs(geteuid() == 0 ? users.at(i % users.size()) : getuid()));
        }
    }
    // Each asks once, all at the same time; the milliseconds until the last answer.
    double Ask() {
        std::vector<std::unique_ptr<test::Calls> > calls;
        const auto start = std::chrono::steady_clock::now();
        for (const auto& caller : callers) {
            calls.push_back(std::make_unique<test::Calls>(caller->Get()));
            calls.back()->Add("sr_systemctl", "start x");
        }
        for (const auto& call : calls) {
            EXPECT_EQ(std::vector<std::string>{"0 17"}, call->Wait());
        }
        const std::chrono::duration<double, std::milli> passed =
            std::chrono::steady_clock::now() - start;
        return passed.count();
    }

private:
    std::vector<std::unique_ptr<test::PlainConnection> > callers;
};

TEST_F(HostileTest, TwoHundredCallersAreAnsweredAsFastWhileOneHangsForEver) {
    AllowModules();
    tools.Add("rmmod", "echo up; read x < \"$DIR/gate\"");
    Serve({"--limit", "waiting=500"});
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    Crowd crowd;
    const double before = crowd.Ask();
    test::Pipe output;
    test::Calls hung(connection->Get());
    hung.Add("sr_rmmod", "x", output.Writer());
    ASSERT_EQ("up", output.ReadLine(test::kLimit));
    const double meanwhile = crowd.Ask();
    RecordProperty("milliseconds_before", static_cast<int>(before));
    RecordProperty("milliseconds_meanwhile", static_cast<int>(meanwhile));
    EXPECT_LT(meanwhile, 3 * before + 100);
    // Only now may the one that hung go on: every other one came before it.
    std::ofstream(tools.File("gate")) << "go\n";
    EXPECT_EQ(std::vector<std::string>{"0 0"}, hung.Wait());
}

TEST_F(HostileTest, CallersOfAKilledAgentGet6ItsToolsDieAndTheNextServesAtOnce) {
    AllowModules();
    tools.Add("rmmod", "echo $$; read x < \"$DIR/gate\"");
    Serve();
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    test::Pipe output;
    std::vector<pid_t> callers;
    std::vector<std::unique_ptr<test::Descriptor> > left;
    for (int i = 0; i < 3; ++i) {
        callers.push_back(test::Fork([&output] {
            int result = -1;
            return SR_Rmmod("x", 1, output.Writer(), &result);
        }));
        const int tool = std::stoi(output.ReadLine(test::kLimit));
        left.push_back(
            std::make_unique<test::Descriptor>(static_cast<int>(syscall(SYS_pidfd_open, tool, 0))));
        ASSERT_GE(left.back()->Get(), 0);
    }
    agent->Signal(SIGKILL);
    for (const pid_t caller : callers) {
        const int status = test::Reap(caller, test::kLimit);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(SR_COMM_FAILED, WEXITSTATUS(status));
    }
    for (const auto& tool : left) {
        EXPECT_TRUE(test::WaitFor(tool->Get(), POLLIN, test::kLimit));
    }
    (void)agent->WaitForEnd();
    Serve();
    ExpectItServes();
}

TEST_F(HostileTest, APasswordIsSeenNeitherInTheCommandNorInTheAuditNorInAReason) {
    NEEDS_ROOT();  // only for root does a tool get the place in which it mounts
    const std::string place = tools.File("place");
    ASSERT_EQ(0, mkdir(place.c_str(), 0755));
    tools.Add("mount.cifs",
              "tr '\\0' ' ' < /proc/$$/cmdline; tr '\\0' ' ' < /proc/$$/environ; echo; echo "
              "read:$(eval \"cat <&$PASSWD_FD\")");
    rules.Write("share.toml",
                "[[rule]]\nname = \"share\"\nagent = \"sr_mount_cifs\"\nsource = \"//host/share\"\n"
                "target = \"" +
                    place +
                    "\"\noptions.allow = [\"user=*\", \"password\"]\n"
                    "permit = true\nuser = \"*\"\nopen_parents = true\n");
    Serve();
    test::Pipe output;
    const std::string good = "-o user=me,password=Geheimnis //host/share " + place;
    // Nothing gets mounted by this tool, and the agent notices.
    EXPECT_EQ("1 0", Answer("sr_mount_cifs", good.c_str(), output.Writer()));
    const std::string command = output.ReadLine(test::kLimit);
    EXPECT_TRUE(test::Holds(command, "mount.cifs")) << command;
    EXPECT_TRUE(test::Holds(command, "PASSWD_FD=")) << command;
    EXPECT_FALSE(test::Holds(command, "Geheimnis")) << command;
    EXPECT_EQ("read:Geheimnis", output.ReadLine(test::kLimit));
    std::string seen = output.ReadLine(test::kLimit);

    for (const char* text :
         {"-o user=me,password=Geheimnis //host/other /media/x", "-o password=Geheimnis",
          "-o 'password=Geheimnis", "-o pass=Geheimnis --wrong //host/share /media/x",
          "-o user=me%Geheimnis //host/share /media/x",
          "-o password=x Geheimnis //host/share /media/x"}) {
        test::Pipe reason;
        EXPECT_NE('0', Answer("sr_mount_cifs", text, reason.Writer()).front()) << text;
        seen += reason.ReadLine(test::kLimit) + "\n";
    }
    agent->Signal(SIGTERM);
    EXPECT_EQ(0, agent->WaitForEnd());
    const std::string audit = agent->Said();
    EXPECT_TRUE(test::Holds(audit, "password=***")) << audit;
    EXPECT_FALSE(test::Holds(audit + seen, "Geheimnis")) << audit << seen;
}

TEST_F(HostileTest, WhatACallerWritesCannotForgeALineOfTheAudit) {
    Serve();
    EXPECT_EQ("1 0", Answer("sr_rmmod", "x\nsentrel-agent: phase=end id=1 uid=0 decision=allow"));
    const std::string line = agent->NextLineWith("phase=end");
    EXPECT_TRUE(test::Holds(line, "decision=deny")) << line;
    EXPECT_TRUE(test::Holds(line, "\\x0a")) << line;
    EXPECT_EQ("10 0", Answer("sr_x\" decision=allow rule=\"y", "z"));
    const std::string other = agent->NextLineWith("phase=end");
    EXPECT_TRUE(test::Holds(other, "agent=\"sr_x\\\" decision=allow rule=\\\"y\"")) << other;
}

TEST_F(HostileTest, ACallerThatBecameASetUserIdProgramGetsNoOutputIntoIt) {
    if (getuid() != 0) {
        SENTREL_SKIP("a set-user-id program of root's needs root");
    }
    AllowModules();
    tools.Add("rmmod", "echo leaked");
    Serve();
    // A copy that everybody may execute with root's rights; it waits on its input.
    const std::string program = tools.File("privileged");
    std::ofstream(program, std::ios::binary) << std::ifstream("/bin/cat", std::ios::binary).rdbuf();
    ASSERT_EQ(0, chmod(program.c_str(), 04755));
    test::Pipe input;
    test::Pipe output;
    test::Pipe ready;
    const pid_t caller = test::Fork([&] {
        if (setgid(65534) != 0 || setuid(65534) != 0) {
            return 90;
        }
        const test::PlainConnection mine;
        test::Pipe changed;  // its writing end closes when the program is executed
        if (fork() == 0) {
            // Shares the connection; asks once the other has become the program.
            changed.CloseWriter();
            (void)test::ReadAll(changed.Reader());
            const test::Reply reply = test::Call(mine.Get(), "sr_rmmod", "x", output.Writer());
            const char byte = reply.text == "1 0" ? 'y' : 'n';
            (void)!write(ready.Writer(), &byte, 1);
            _exit(0);
        }
        (void)dup2(input.Reader(), STDIN_FILENO);
        (void)fcntl(output.Writer(), F_SETFD, 0);
        (void)execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
        return 91;
    });
    ASSERT_TRUE(test::WaitFor(ready.Reader(), POLLIN, test::kLimit));
    EXPECT_EQ("y", test::ReadReady(ready.Reader()));
    EXPECT_EQ("", test::ReadReady(output.Reader()));
    test::KillAndReap(caller);
    ExpectItServes();
}

}  // namespace
