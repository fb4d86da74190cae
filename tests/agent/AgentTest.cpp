// SPDX-License-Identifier: Apache-2.0
// The serving program on a private bus, asked over plain libdbus. What it runs are scripts that
// stand in for the tools, or the machine's own where a harmless option exists.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "Monitor.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "Skip.h"

namespace {

typedef std::chrono::steady_clock Clock;

const char kInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
const char kService[] = "org.sentrel.sr_agent";
const char kPath[] = "/org/sentrel/sr_agent";

std::string FileText(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

class AgentTest : public testing::Test {
protected:
    // An agent with the scripts as its tools that lets everybody use two of them.
    void Serve(const std::vector<std::string>& options = {}, const std::string& deadline = "20s") {
        const std::string end = "permit = true\nuser = \"*\"\ndeadline = \"" + deadline + "\"\n";
        rules.Write("all.toml",
                    "[[rule]]\nname = \"modules\"\nagent = \"sr_rmmod\"\n"
                    "module = \"*\"\n" +
                        end +
                        "[[rule]]\nname = \"units\"\nagent = \"sr_systemctl\"\n"
                        "verb = \"start\"\nunit = \"*\"\n" +
                        end);
        Start(options);
    }
    void Start(std::vector<std::string> options) {
        options.insert(options.begin(), {"--rules", rules.Folder(), "--tool-path", tools.Folder(),
                                         "--audit-stderr", "--limit", "minute=2000"});
        agent = std::make_unique<test::RunningAgent>(options);
        connection = std::make_unique<test::PlainConnection>();
    }
    test::Reply Call(const char* name, const char* text, int descriptor = 0) {
        return test::Call(connection->Get(), name, text, descriptor);
    }
    std::string Answer(const char* name, const char* text, int descriptor = 0) {
        const test::Reply reply = Call(name, text, descriptor);
        EXPECT_EQ("", reply.error);
        return reply.text;
    }
    void ServeToBeRefused() {
        tools.Add("rmmod", "echo ran; : > \"$DIR/ran\"");
        Serve();
    }
    // The answer to a call whose descriptor must be refused; the tool must not have run.
    std::string AnswerForDescriptor(int descriptor) {
        const std::string answer = Answer("sr_rmmod", "x", descriptor);
        EXPECT_FALSE(Exists(tools.File("ran"))) << descriptor;
        return answer;
    }

    test::PrivateBus bus;
    test::FakeTools tools;
    test::RuleFolder rules;
    std::unique_ptr<test::RunningAgent> agent;
    std::unique_ptr<test::PlainConnection> connection;
};

TEST_F(AgentTest, WithoutARuleEveryOperationIsRefusedWith7AndAReasonAndALineInTheAudit) {
    for (const char* tool : {"mount", "umount", "insmod", "rmmod", "systemctl"}) {
        tools.Add(tool, ": > \"$DIR/ran\"");
    }
    Start({});
    const std::pair<const char*, const char*> calls[] = {{"sr_mount", "-t tmpfs none /media/x"},
                                                         {"sr_umount", "/media/x"},
                                                         {"sr_mount_cifs", "//host/share /media/x"},
                                                         {"sr_umount_cifs", "/media/x"},
                                                         {"sr_mknod", "/dev/x c 1 3"},
                                                         {"sr_insmod", "/lib/modules/x.ko"},
                                                         {"sr_rmmod", "x"},
                                                         {"sr_systemctl", "start x"}};
    for (const auto& call : calls) {
        test::Pipe output;
        EXPECT_EQ("7 0", Answer(call.first, call.second, output.Writer())) << call.first;
        EXPECT_EQ("sentrel-agent: no rule allows this", output.ReadLine(test::kLimit));
        const std::string line = agent->NextLineWith("decision=deny");
        EXPECT_TRUE(test::Holds(line, " uid=" + std::to_string(getuid()) + " ")) << line;
        EXPECT_TRUE(test::Holds(line, std::string("agent=\"") + call.first + "\"")) << line;
        EXPECT_TRUE(test::Holds(line, "status=7")) << line;
    }
    EXPECT_FALSE(Exists(tools.File("ran")));
}

TEST_F(AgentTest, TheAnswerHoldsTheToolsExitCode) {
    tools.Add("rmmod", "exit ${2#code_}");
    Serve();
    for (const char* code : {"0", "1", "32", "127", "255"}) {
        EXPECT_EQ(std::string("0 ") + code,
                  Answer("sr_rmmod", (std::string("code_") + code).c_str()));
    }
}

TEST_F(AgentTest, AToolEndedByASignalIsAnsweredWith128AndItsNumber) {
    tools.Add("rmmod", "kill -$2 $$");
    Serve();
    EXPECT_EQ("0 137", Answer("sr_rmmod", "KILL"));
    EXPECT_EQ("0 143", Answer("sr_rmmod", "TERM"));
}

TEST_F(AgentTest, TheCommandIsRebuiltWithTheOperandsBehindTwoDashes) {
    tools.Add("systemctl", "printf '<%s>' \"$@\"");
    tools.Add("rmmod", "printf '<%s>' \"$@\"");
    Serve();
    test::Pipe output;
    EXPECT_EQ("0 0", Answer("sr_systemctl", "'start' \"a.service\" b\\.timer", output.Writer()));
    EXPECT_EQ("<--no-pager><--no-ask-password><--><start><a.service><b.timer>",
              test::ReadReady(output.Reader()));
    EXPECT_EQ("0 0", Answer("sr_rmmod", "a-b", output.Writer()));
    EXPECT_EQ("<--><a_b>", test::ReadReady(output.Reader()));
}

TEST_F(AgentTest, BothOutputsOfAFailingToolReachTheCaller) {
    tools.Add("rmmod", "echo out; echo err >&2; exit 5");
    Serve();
    test::Pipe output;
    EXPECT_EQ("0 5", Answer("sr_rmmod", "x", output.Writer()));
    EXPECT_EQ("out\nerr\n", test::ReadReady(output.Reader()));
}

TEST_F(AgentTest, MalformedArgumentsAreAnswered1WithAReason) {
    tools.Add("rmmod", ": > \"$DIR/ran\"");
    Serve();
    for (const char* text : {"'open", "a\nb", "", "a b", "-f x", "--all", "../x"}) {
        test::Pipe output;
        EXPECT_EQ("1 0", Answer("sr_rmmod", text, output.Writer())) << text;
        EXPECT_EQ(0U, output.ReadLine(test::kLimit).find("sentrel-agent: "));
        (void)agent->NextLineWith("status=1");
    }
    EXPECT_FALSE(Exists(tools.File("ran")));
}

// Behind a password's name nothing is quoted: the parser may have taken a piece of it for an
// option.
TEST_F(AgentTest, APieceOfAPasswordThatLooksLikeAnOptionIsShownNowhere) {
    Serve();
    for (const char* text :
         {"-o user=a,pass=my --hunter2 //nas/s /media/m",
          "-o pass=my '--hunter2=x' //nas/s /media/m", "-o pass=my --hunter2 \"//nas/s"}) {
        test::Pipe output;
        EXPECT_EQ("1 0", Answer("sr_mount_cifs", text, output.Writer())) << text;
        EXPECT_EQ("sentrel-agent: the arguments cannot be read", output.ReadLine(test::kLimit));
        const std::string line = agent->NextLineWith("status=1");
        EXPECT_TRUE(test::Holds(line, "reason=\"the arguments cannot be read\"")) << line;
        EXPECT_FALSE(test::Holds(line, "hunter2")) << line;
    }
    test::Pipe output;
    EXPECT_EQ("1 0", Answer("sr_mount_cifs", "-o user=a --hunter2 //nas/s /m", output.Writer()));
    EXPECT_TRUE(test::Holds(output.ReadLine(test::kLimit), "hunter2"));  // where none is, it helps
}

TEST_F(AgentTest, ACallWhoseCallerHasGoneBeforeItIsKnownIsALineInTheAudit) {
    tools.Add("rmmod", ": > \"$DIR/ran\"");
    Serve();
    int status = 0;
    agent->Signal(SIGSTOP);
    ASSERT_EQ(agent->Pid(), waitpid(agent->Pid(), &status, WUNTRACED));
    ASSERT_TRUE(WIFSTOPPED(status));
    std::string name;
    {
        const test::PlainConnection gone;
        name = gone.UniqueName();
        test::Calls calls(gone.Get());
        calls.Add("sr_rmmod", "x");
    }
    const Clock::time_point start = Clock::now();
    while (dbus_bus_name_has_owner(connection->Get(), name.c_str(), nullptr) &&
           Seconds(start) < 20) {
    }
    agent->Signal(SIGCONT);
    const std::string line = agent->NextLineWith("decision=deny");
    EXPECT_TRUE(test::Holds(line, "agent=\"sr_rmmod\" args=\"x\"")) << line;
    EXPECT_TRUE(test::Holds(line, "reason=\"the bus does not know the caller: " + name)) << line;
    EXPECT_FALSE(Exists(tools.File("ran")));
}

TEST_F(AgentTest, AnUnknownAgentNameIsAnswered10) {
    Serve();
    EXPECT_EQ("10 0", Answer("sr_format", "x"));
    EXPECT_EQ("10 0", Answer("", ""));
    EXPECT_EQ("10 0", Answer("mount", "x"));
}

TEST_F(AgentTest, AToolThatIsNotThereIsAnswered10) {
    Serve();
    test::Pipe output;
    EXPECT_EQ("10 0", Answer("sr_rmmod", "x", output.Writer()));
    EXPECT_EQ("sentrel-agent: the tool for this is not on this system",
              output.ReadLine(test::kLimit));
}

TEST_F(AgentTest, ACheckOfADirectoryThatIsNotThereFailsAndNamesIt) {
    const std::string nowhere = rules.Folder() + "/nowhere";
    for (const std::vector<std::string>& asked :
         {std::vector<std::string>{"--check", nowhere}, {"--rules", nowhere, "--check"}}) {
        const test::Finished checked = test::RunAgent(asked);
        EXPECT_EQ(1, checked.exit);
        EXPECT_EQ(nowhere + ": cannot be read: No such file or directory\n" +
                      "the rules cannot be used\n",
                  checked.output);
    }
    rules.Write("one.toml", "");
    EXPECT_EQ(0, test::RunAgent({"--check", rules.Folder()}).exit);
}

TEST_F(AgentTest, AToolThatOthersMayWriteIsAnswered9AndNamedAtTheStart) {
    tools.Add("rmmod", ": > \"$DIR/ran\"");
    ASSERT_EQ(0, chmod(tools.File("rmmod").c_str(), 0777));
    rules.Write("one.toml",
                "[[rule]]\nname = \"m\"\nagent = \"sr_rmmod\"\nmodule = \"*\"\n"
                "permit = true\nuser = \"*\"\n");
    const test::Finished checked =
        test::RunAgent({"--check", "--tool-path", tools.Folder(), rules.Folder()});
    EXPECT_EQ(0, checked.exit);
    EXPECT_TRUE(test::Holds(checked.output, "not to be trusted")) << checked.output;
    Serve();
    EXPECT_EQ("9 0", Answer("sr_rmmod", "x"));
    EXPECT_FALSE(Exists(tools.File("ran")));
}

TEST_F(AgentTest, AToolThatCannotBeExecutedIsAnswered9) {
    std::ofstream(tools.File("rmmod")) << "\x7f"
                                       << "ELF of no machine";
    ASSERT_EQ(0, chmod(tools.File("rmmod").c_str(), 0755));
    Serve();
    EXPECT_EQ("9 0", Answer("sr_rmmod", "x"));
}

TEST_F(AgentTest, ArgumentsOfAnotherSignatureAreADBusError) {
    Serve();
    const auto call = [](int first, ...) {
        DBusMessage* message =
            dbus_message_new_method_call(kService, kPath, kService, "CallCommand");
        va_list arguments;
        va_start(arguments, first);
        (void)dbus_message_append_args_valist(message, first, arguments);
        va_end(arguments);
        return message;
    };
    const char* text = "x";
    const dbus_int32_t number = 0;
    const dbus_uint32_t natural = 0;
    const int s = DBUS_TYPE_STRING;
    const int i = DBUS_TYPE_INT32;
    const int end = DBUS_TYPE_INVALID;
    std::vector<DBusMessage*> calls = {call(end),
                                       call(s, &text, end),
                                       call(s, &text, s, &text, end),
                                       call(i, &number, s, &text, s, &text, end),
                                       call(s, &text, s, &text, DBUS_TYPE_UINT32, &natural, end),
                                       call(s, &text, s, &text, i, &number, s, &text, end)};
    for (DBusMessage* message : calls) {
        EXPECT_EQ(kInvalidArgs, test::Send(connection->Get(), message).error);
    }
}

TEST_F(AgentTest, TextUpToEightKilobytesIsTakenAndMoreIsADBusError) {
    tools.Add("rmmod", "exit 3");
    Serve();
    const std::string blanks(8191, ' ');
    EXPECT_EQ("0 3", Answer("sr_rmmod", ("x" + blanks).c_str()));
    EXPECT_EQ("org.freedesktop.DBus.Error.LimitsExceeded",
              Call("sr_rmmod", ("xx" + blanks).c_str()).error);
    EXPECT_EQ("org.freedesktop.DBus.Error.LimitsExceeded",
              Call((std::string("sr_rmmod") + blanks).c_str(), "x").error);
}

TEST_F(AgentTest, ACallToAnotherMemberInterfaceOrPathIsADBusError) {
    Serve();
    const auto error = [this](const char* path, const char* interface, const char* member) {
        return test::Send(connection->Get(),
                          dbus_message_new_method_call(kService, path, interface, member))
            .error;
    };
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", error(kPath, kService, "Other"));
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownInterface", error(kPath, "a.b", "CallCommand"));
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownInterface", error(kPath, nullptr, "CallCommand"));
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", error("/", kService, "CallCommand"));
}

TEST_F(AgentTest, ACallThatWantsNoReplyIsNotCarriedOut) {
    tools.Add("rmmod", ": > \"$DIR/ran\"");
    tools.Add("systemctl", "exit 0");
    Serve();
    test::Monitor monitor;
    DBusMessage* call = test::NewCall("sr_rmmod", "x", 0);
    dbus_message_set_no_reply(call, TRUE);
    ASSERT_TRUE(dbus_connection_send(connection->Get(), call, nullptr));
    const dbus_uint32_t serial = dbus_message_get_serial(call);
    dbus_message_unref(call);
    EXPECT_EQ("0 0", Answer("sr_systemctl", "start x"));
    for (const test::Seen& seen : monitor.Take()) {
        EXPECT_FALSE(seen.replySerial == serial && seen.destination == connection->UniqueName())
            << seen.Text();
    }
    EXPECT_FALSE(Exists(tools.File("ran")));
}

TEST_F(AgentTest, IntrospectionDescribesTheOneMethodAndPingIsAnswered) {
    Serve();
    const test::Reply text =
        test::Send(connection->Get(),
                   dbus_message_new_method_call(
                       kService, kPath, "org.freedesktop.DBus.Introspectable", "Introspect"));
    EXPECT_EQ("", text.error);
    EXPECT_NE(std::string::npos, text.text.find("<interface name=\"org.sentrel.sr_agent\">"));
    EXPECT_NE(std::string::npos, text.text.find("<method name=\"CallCommand\">"));
    EXPECT_EQ(
        "", test::Send(connection->Get(), dbus_message_new_method_call(
                                              kService, kPath, "org.freedesktop.DBus.Peer", "Ping"))
                .error);
}

TEST_F(AgentTest, NumbersOfZeroOrLessMeanNoOutput) {
    tools.Add("rmmod", "echo text; [ $(readlink /proc/$$/fd/1) = /dev/null ] && exit 4");
    Serve();
    for (const int number : {0, -1, -2147483647}) {
        EXPECT_EQ("0 4", Answer("sr_rmmod", "x", number));
    }
}

TEST_F(AgentTest, ADescriptorThatIsNotOpenIsRefused) {
    ServeToBeRefused();
    EXPECT_EQ("1 0", AnswerForDescriptor(900));
    EXPECT_EQ("1 0", AnswerForDescriptor(1048576));
    EXPECT_EQ("1 0", AnswerForDescriptor(2147483647));
}

TEST_F(AgentTest, AFileThatIsOpenForReadingOnlyIsRefusedAndNotWritten) {
    ServeToBeRefused();
    const std::string path = tools.File("file");
    std::ofstream(path) << "untouched";
    const test::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ("1 0", AnswerForDescriptor(file.Get()));
    EXPECT_EQ("untouched", FileText(path));
    test::Pipe pipe;
    EXPECT_EQ("1 0", AnswerForDescriptor(pipe.Reader()));
}

TEST_F(AgentTest, DescriptorsOfUnfitKindsAreRefused) {
    ServeToBeRefused();
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair));
    const test::Descriptor datagram(pair[0]);
    const test::Descriptor other(pair[1]);
    const test::Descriptor folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const test::Descriptor pathOnly(open("/dev/null", O_PATH | O_CLOEXEC));
    const test::Descriptor event(eventfd(0, EFD_CLOEXEC));
    const test::Descriptor zero(open("/dev/zero", O_WRONLY | O_CLOEXEC));
    const test::Descriptor kernel(open("/proc/self/comm", O_WRONLY | O_CLOEXEC));
    for (const test::Descriptor* unfit : {&datagram, &folder, &pathOnly, &event, &zero, &kernel}) {
        ASSERT_GE(unfit->Get(), 0);
        EXPECT_EQ("1 0", AnswerForDescriptor(unfit->Get()));
    }
}

TEST_F(AgentTest, OutputGoesToSocketsFilesTerminalsAndTheNullDevice) {
    tools.Add("rmmod", "echo text");
    Serve();
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    const test::Descriptor socket(pair[0]);
    const test::Descriptor peer(pair[1]);
    EXPECT_EQ("0 0", Answer("sr_rmmod", "x", socket.Get()));
    EXPECT_EQ("text\n", test::ReadReady(peer.Get()));

    const test::Descriptor file(
        open(tools.File("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ("0 0", Answer("sr_rmmod", "x", file.Get()));
    EXPECT_EQ("0 0", Answer("sr_rmmod", "x", file.Get()));
    EXPECT_EQ("text\ntext\n", FileText(tools.File("out")));

    const test::Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ("0 0", Answer("sr_rmmod", "x", null.Get()));

    const test::Descriptor terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(0, grantpt(terminal.Get()));
    ASSERT_EQ(0, unlockpt(terminal.Get()));
    const test::Descriptor line(open(ptsname(terminal.Get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_EQ("0 0", Answer("sr_rmmod", "x", line.Get()));
    EXPECT_EQ("text\r\n", test::ReadReady(terminal.Get()));
}

TEST_F(AgentTest, TheStatusFlagsOfTheCallersDescriptorStayAsTheyWere) {
    tools.Add("rmmod", "echo text");
    Serve();
    test::Pipe output;
    const int before = fcntl(output.Writer(), F_GETFL);
    EXPECT_EQ("0 0", Answer("sr_rmmod", "x", output.Writer()));
    EXPECT_EQ(before, fcntl(output.Writer(), F_GETFL));
}

TEST_F(AgentTest, APipeThatNobodyReadsHoldsUpNeitherTheToolNorTheAnswer) {
    tools.Add("rmmod", "head -c 400000 /dev/zero; exit 3");
    Serve();
    test::Pipe output;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ("0 3", Answer("sr_rmmod", "x", output.Writer()));
    EXPECT_LT(Seconds(start), 10);
    int held = 0;
    ASSERT_EQ(0, ioctl(output.Reader(), FIONREAD, &held));
    EXPECT_EQ(65536, held) << "as much as the pipe takes";
}

TEST_F(AgentTest, AReaderThatIsGoneDoesNotEndTheTool) {
    tools.Add("rmmod", "head -c 400000 /dev/zero && echo more && exit 6");
    Serve();
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const test::Descriptor writer(ends[1]);
    ASSERT_EQ(0, close(ends[0]));
    EXPECT_EQ("0 6", Answer("sr_rmmod", "x", writer.Get()));
}

TEST_F(AgentTest, OutputBeyondAMegabyteIsDroppedAndCounted) {
    tools.Add("rmmod", "head -c 1048676 /dev/zero");
    Serve();
    test::Pipe output;
    std::string all;
    std::thread reader([&] { all = test::ReadAll(output.Reader()); });
    EXPECT_EQ("0 0", Answer("sr_rmmod", "x", output.Writer()));
    output.CloseWriter();
    reader.join();
    const std::string last = "\n[100 more bytes dropped]\n";
    EXPECT_EQ(1048576U + last.size(), all.size());
    EXPECT_EQ(last, all.substr(std::min<std::size_t>(1048576U, all.size())));
}

TEST_F(AgentTest, ADaemonLeftByTheToolDoesNotHoldUpTheAnswer) {
    tools.Add("rmmod", "echo text; mkfifo \"$DIR/wait\"; (read x < \"$DIR/wait\") & exit 2");
    Serve();
    test::Pipe output;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ("0 2", Answer("sr_rmmod", "x", output.Writer()));
    EXPECT_LT(Seconds(start), 10);
    EXPECT_EQ("text\n", test::ReadReady(output.Reader()));
    const test::Descriptor release(open(tools.File("wait").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(1, write(release.Get(), "\n", 1));
}

TEST_F(AgentTest, TheToolStartsWithACleanProcess) {
    tools.Add("rmmod",
              "tr '\\0' '\\n' < /proc/$$/environ; echo; find /proc/$$/fd -type l -printf '%f "
              "%l\\n'; echo\n"
              "cut -d' ' -f5,6 /proc/$$/stat; echo $$\n"
              "umask; pwd; exec grep -E 'Sig(Ign|Blk)' /proc/self/status");
    Serve();
    test::Pipe output;
    EXPECT_EQ("0 0", Answer("sr_rmmod", "x", output.Writer()));
    std::istringstream lines(test::ReadReady(output.Reader()));
    std::vector<std::string> environment;
    std::string line;
    while (std::getline(lines, line) && !line.empty()) {
        environment.push_back(line);
    }
    EXPECT_EQ((std::vector<std::string>{"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C.UTF-8",
                                        "SYSTEMD_PAGER=", "SYSTEMD_COLORS=0"}),
              environment);
    // The shell itself holds its script; everything else would have come from the agent.
    std::string pipe;
    std::size_t found = 0;
    while (std::getline(lines, line) && !line.empty()) {
        const std::string target = line.substr(line.find(' ') + 1);
        const int number = std::stoi(line);
        if (number == 0) {
            EXPECT_EQ("/dev/null", target);
        } else if (number > 2) {
            EXPECT_EQ(tools.File("rmmod"), target);
        } else {
            EXPECT_EQ(0U, target.find("pipe:"));
            EXPECT_TRUE(pipe.empty() || pipe == target);
            pipe = target;
        }
        found += number <= 2 ? 1U : 0U;
    }
    EXPECT_EQ(3U, found);
    std::getline(lines, line);
    std::string self;
    std::getline(lines, self);
    EXPECT_EQ(self + " " + self, line) << "group and session";
    std::getline(lines, line);
    EXPECT_EQ("0022", line);
    std::getline(lines, line);
    EXPECT_EQ("/", line);
    std::getline(lines, line);
    EXPECT_EQ("SigBlk:\t0000000000000000", line);
    std::getline(lines, line);
    EXPECT_EQ("SigIgn:\t0000000000001000", line) << "SIGPIPE alone";
}

TEST_F(AgentTest, ASlowToolDoesNotHoldUpAnother) {
    tools.Add("rmmod", "read x < \"$DIR/gate\"; exit 11");
    tools.Add("systemctl", "exit 12");
    Serve();
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    test::Calls slow(connection->Get());
    slow.Add("sr_rmmod", "x");
    EXPECT_EQ("0 12", Answer("sr_systemctl", "start x"));
    std::ofstream(tools.File("gate")) << "go\n";
    EXPECT_EQ(std::vector<std::string>{"0 11"}, slow.Wait());
}

TEST_F(AgentTest, ManyAtOnceAreEachAnsweredOnce) {
    tools.Add("rmmod", "echo \"$2\"; exit ${2#m}");
    Serve({"--limit", "waiting=30"});
    std::vector<std::unique_ptr<test::Pipe> > outputs;
    test::Calls calls(connection->Get());
    std::vector<std::string> expected;
    for (int i = 0; i < 24; ++i) {
        outputs.push_back(std::make_unique<test::Pipe>());
        calls.Add("sr_rmmod", ("m" + std::to_string(i)).c_str(), outputs.back()->Writer());
        expected.push_back("0 " + std::to_string(i));
    }
    EXPECT_EQ(expected, calls.Wait());
    for (int i = 0; i < 24; ++i) {
        EXPECT_EQ("m" + std::to_string(i) + "\n",
                  test::ReadReady(outputs[static_cast<std::size_t>(i)]->Reader()));
    }
}

TEST_F(AgentTest, BeyondWhatMayRunAndWaitTheAnswerIs1WithAReason) {
    tools.Add("rmmod", "echo up; read x < \"$DIR/gate\"");
    Serve({"--limit", "running=2", "--limit", "waiting=3"});
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    test::Calls calls(connection->Get());
    for (int i = 0; i < 5; ++i) {
        calls.Add("sr_rmmod", "x");
    }
    test::Pipe output;
    EXPECT_EQ("1 0", Answer("sr_rmmod", "x", output.Writer()));
    EXPECT_EQ("sentrel-agent: too many requests are waiting", output.ReadLine(test::kLimit));
    const test::Descriptor gate(open(tools.File("gate").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(5, write(gate.Get(), "\n\n\n\n\n", 5));
    EXPECT_EQ(std::vector<std::string>(5, "0 0"), calls.Wait());
}

TEST_F(AgentTest, BeyondAMinutesNumberTheAnswerIs1) {
    tools.Add("rmmod", "exit 0");
    Serve({"--limit", "minute=3"});
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("0 0", Answer("sr_rmmod", "x"));
    }
    test::Pipe output;
    EXPECT_EQ("1 0", Answer("sr_rmmod", "x", output.Writer()));
    EXPECT_EQ("sentrel-agent: too many requests in a minute", output.ReadLine(test::kLimit));
}

TEST_F(AgentTest, ARequestThatWaitsBehindOthersIsAnsweredAtItsDeadline) {
    tools.Add("rmmod", "trap '' TERM; read x < \"$DIR/gate\"");
    Serve({"--limit", "running=1"}, "1s");
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    test::Calls calls(connection->Get());
    calls.Add("sr_rmmod", "x");
    calls.Add("sr_rmmod", "x");
    EXPECT_EQ((std::vector<std::string>{"8 0", "8 0"}), calls.Wait());
    EXPECT_NE("", agent->NextLineWith("the deadline passed while other requests were ahead"));
}

TEST_F(AgentTest, SigtermEndsWhatRunsPolitelyAndAnswersEverybody) {
    tools.Add("rmmod",
              "trap 'echo polite; exit 5' TERM; echo up; while :; do read x < \"$DIR/gate\"; done");
    Serve({"--limit", "running=3"});
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    test::Calls calls(connection->Get());
    test::Pipe output;
    for (int i = 0; i < 4; ++i) {
        calls.Add("sr_rmmod", "x", output.Writer());
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("up", output.ReadLine(test::kLimit));
    }
    agent->Signal(SIGTERM);
    EXPECT_EQ((std::vector<std::string>{"8 0", "8 0", "8 0", "1 0"}), calls.Wait());
    EXPECT_EQ(0, agent->WaitForEnd());
    const std::string rest = test::ReadReady(output.Reader());
    EXPECT_TRUE(test::Holds(rest, "polite")) << rest;
}

TEST_F(AgentTest, ALateToolIsEndedAndAnswered8) {
    tools.Add("rmmod", "read x < \"$DIR/gate\"");
    Serve({}, "1s");
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    const Clock::time_point start = Clock::now();
    EXPECT_EQ("8 0", Answer("sr_rmmod", "x"));
    EXPECT_GE(Seconds(start), 0.9);
    EXPECT_LT(Seconds(start), 3);
}

TEST_F(AgentTest, ALateToolThatIgnoresTermIsKilledWithItsChildren) {
    tools.Add("rmmod",
              "trap '' TERM; (read x < \"$DIR/gate\") & echo $!; wait; read x < \"$DIR/gate\"");
    Serve({}, "1s");
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    test::Pipe output;
    const Clock::time_point start = Clock::now();
    test::Calls calls(connection->Get());
    calls.Add("sr_rmmod", "x", output.Writer());
    const int grandchild = std::stoi(output.ReadLine(test::kLimit));
    const test::Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, grandchild, 0)));
    ASSERT_GE(handle.Get(), 0);
    EXPECT_EQ(std::vector<std::string>{"8 0"}, calls.Wait());
    EXPECT_GE(Seconds(start), 2.9);
    EXPECT_LT(Seconds(start), 6);
    EXPECT_TRUE(test::WaitFor(handle.Get(), POLLIN, test::kLimit));
}

TEST_F(AgentTest, ToolsDieWithTheAgent) {
    tools.Add("rmmod", "echo $$; read x < \"$DIR/gate\"");
    Serve();
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    test::Pipe output;
    test::Calls calls(connection->Get());
    calls.Add("sr_rmmod", "x", output.Writer());
    const int tool = std::stoi(output.ReadLine(test::kLimit));
    const test::Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, tool, 0)));
    ASSERT_GE(handle.Get(), 0);
    agent->Signal(SIGKILL);
    EXPECT_TRUE(test::WaitFor(handle.Get(), POLLIN, test::kLimit));
}

TEST_F(AgentTest, ACallerThatLeavesDoesNotDisturbTheAgent) {
    tools.Add("rmmod", "echo up; read x < \"$DIR/gate\"");
    tools.Add("systemctl", "exit 7");
    Serve();
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    {
        test::PlainConnection other;
        test::Pipe output;
        DBusMessage* call = test::NewCall("sr_rmmod", "x", output.Writer());
        ASSERT_TRUE(dbus_connection_send(other.Get(), call, nullptr));
        dbus_message_unref(call);
        dbus_connection_flush(other.Get());
        EXPECT_EQ("up", output.ReadLine(test::kLimit));
    }
    EXPECT_EQ("0 7", Answer("sr_systemctl", "start x"));
    std::ofstream(tools.File("gate")) << "go\n";
    EXPECT_EQ("0 7", Answer("sr_systemctl", "start x"));
}

TEST_F(AgentTest, SigtermAndSigintEndItWithZero) {
    for (const int signal : {SIGTERM, SIGINT}) {
        Serve();
        agent->Signal(signal);
        EXPECT_EQ(0, agent->WaitForEnd());
    }
}

TEST_F(AgentTest, TheLossOfTheBusEndsItWith1AndALine) {
    Serve();
    connection.reset();
    bus.Stop();
    EXPECT_NE("", agent->NextLineWith("sentrel-agent: the connection to the bus is lost"));
    const int status = agent->WaitForEnd();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(1, WEXITSTATUS(status));
}

TEST_F(AgentTest, ASecondAgentRefusesToStart) {
    tools.Add("rmmod", "exit 9");
    Serve();
    const test::Finished second = test::RunAgent({"--rules", rules.Folder()});
    EXPECT_EQ(1, second.exit);
    EXPECT_EQ("sentrel-agent: another process owns org.sentrel.sr_agent; it must end first\n",
              second.errors);
    EXPECT_EQ("0 9", Answer("sr_rmmod", "x"));
}

TEST_F(AgentTest, WithoutABusItEndsWith1AndALine) {
    bus.Stop();
    const test::Finished finished = test::RunAgent({"--rules", rules.Folder()});
    EXPECT_EQ(1, finished.exit);
    EXPECT_EQ(0U, finished.errors.find("sentrel-agent: the bus: "));
}

TEST_F(AgentTest, AnOperationHasALineBeforeItAndOneAfterIt) {
    tools.Add("rmmod", "echo four; exit 3");
    Serve();
    test::Pipe output;
    EXPECT_EQ("0 3", Answer("sr_rmmod", "x", output.Writer()));
    const std::string head =
        " uid=" + std::to_string(getuid()) + " pid=" + std::to_string(getpid()) + " exe=\"";
    const std::string before = agent->NextLineWith("phase=start");
    EXPECT_TRUE(test::Holds(before, head)) << before;
    EXPECT_TRUE(test::Holds(before, "agent=\"sr_rmmod\" args=\"x\"")) << before;
    EXPECT_TRUE(test::Holds(before, "all.toml:1\" decision=allow")) << before;
    const std::string after = agent->NextLineWith("phase=end");
    EXPECT_TRUE(test::Holds(after, head)) << after;
    EXPECT_TRUE(test::Holds(after, "status=0 exit=3 signal=0")) << after;
    EXPECT_TRUE(test::Holds(after, "out_bytes=5 dropped_bytes=0")) << after;
}

TEST_F(AgentTest, OptionsAreExplainedAndWrongOnesRefusedWith2) {
    const test::Finished help = test::RunAgent({"--help"});
    EXPECT_EQ(0, help.exit);
    EXPECT_TRUE(test::Holds(help.output, "--rules DIR"));
    EXPECT_TRUE(test::Holds(help.output, "--mock FILE"));
    const test::Finished version = test::RunAgent({"--version"});
    EXPECT_EQ(0, version.exit);
    EXPECT_EQ(0U, version.output.find("sentrel-agent "));
    const std::vector<std::vector<std::string> > wrong = {
        {"--nonsense"},         {"operand"},
        {"--allow-all"},        {"--rules"},
        {"--limit", "total=0"}, {"--limit", "total"},
        {"--limit", "x=1"},     {"--limit", "total=1x"},
        {"--limit", ""},        {"--tool-path", ""},
        {"--tool-path", "bin"}, {"--tool-path", "/a:b"},
        {"--tool-path", "/a:"}};
    for (const auto& options : wrong) {
        const test::Finished finished = test::RunAgent(options);
        EXPECT_EQ(2, finished.exit) << options.front();
        EXPECT_NE("", finished.errors);
    }
}

}  // namespace
