// SPDX-License-Identifier: Apache-2.0
// The serving program on a private bus, asked over plain libdbus. What it runs are scripts that
// stand in for the tools, or the machine's own where a harmless option exists.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
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
    // An agent that carries everything out with the scripts as its tools.
    void Serve(std::vector<std::string> options = {}) {
        options.insert(options.begin(), {"--allow-all", "--tool-path", tools.Folder()});
        Start(options);
    }
    void Start(const std::vector<std::string>& options) {
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
    // The answer to a call whose descriptor must be refused; the tool must not have run.
    std::string AnswerForDescriptor(int descriptor) {
        tools.Add("mount", "echo ran; : > \"$DIR/ran\"");
        const std::string answer = Answer("sr_mount", "", descriptor);
        EXPECT_FALSE(Exists(tools.File("ran"))) << descriptor;
        return answer;
    }

    test::PrivateBus bus;
    test::FakeTools tools;
    std::unique_ptr<test::RunningAgent> agent;
    std::unique_ptr<test::PlainConnection> connection;
};

TEST_F(AgentTest, WithoutAllowAllEveryOperationIsRefusedWith7AndAReason) {
    for (const char* tool : {"mount", "umount", "mknod", "insmod", "rmmod", "systemctl"}) {
        tools.Add(tool, ": > \"$DIR/ran\"");
    }
    Start({"--tool-path", tools.Folder()});
    for (const char* name : {"sr_mount", "sr_umount", "sr_mount_cifs", "sr_umount_cifs", "sr_mknod",
                             "sr_insmod", "sr_rmmod", "sr_systemctl"}) {
        test::Pipe output;
        EXPECT_EQ("7 0", Answer(name, "x", output.Writer())) << name;
        EXPECT_EQ("sentrel-agent: no rule allows this\n", test::ReadReady(output.Reader()));
    }
    EXPECT_FALSE(Exists(tools.File("ran")));
}

TEST_F(AgentTest, TheMachinesOwnToolAnswersOnTheCallersPipe) {
    if (!Exists("/usr/bin/mount") && !Exists("/bin/mount")) {
        SENTREL_SKIP("there is no mount on this machine");
    }
    Start({"--allow-all"});
    test::Pipe output;
    EXPECT_EQ("0 0", Answer("sr_mount", "--version", output.Writer()));
    EXPECT_NE(std::string::npos, test::ReadReady(output.Reader()).find("mount"));
    const std::string answer =
        Answer("sr_mount", "-t tmpfs none '/no such place'", output.Writer());
    EXPECT_EQ(0U, answer.find("0 "));
    EXPECT_NE("0 0", answer);
    EXPECT_NE("", test::ReadReady(output.Reader()));
}

TEST_F(AgentTest, TheAnswerHoldsTheToolsExitCode) {
    tools.Add("umount", "exit $1");
    Serve();
    for (const char* code : {"0", "1", "32", "127", "255"}) {
        EXPECT_EQ(std::string("0 ") + code, Answer("sr_umount", code));
    }
}

TEST_F(AgentTest, AToolEndedByASignalIsAnsweredWith128AndItsNumber) {
    tools.Add("rmmod", "kill -$1 $$");
    Serve();
    EXPECT_EQ("0 137", Answer("sr_rmmod", "KILL"));
    EXPECT_EQ("0 143", Answer("sr_rmmod", "TERM"));
}

TEST_F(AgentTest, WordsReachTheToolAsTheyWereQuoted) {
    tools.Add("insmod", "printf '<%s>' \"$@\"");
    Serve();
    test::Pipe output;
    EXPECT_EQ("0 0", Answer("sr_insmod", "a\\ b '$HOME *' \"\" \xc3\xa4", output.Writer()));
    EXPECT_EQ("<a b><$HOME *><><\xc3\xa4>", test::ReadReady(output.Reader()));
}

TEST_F(AgentTest, EachAgentNameHasItsToolAndItsFirstWords) {
    for (const char* tool : {"mount", "umount", "mknod", "insmod", "rmmod", "systemctl"}) {
        tools.Add(tool, "echo \"${0##*/} $*\"");
    }
    Serve();
    const std::vector<std::pair<const char*, const char*> > expected = {
        {"sr_mount", "mount x\n"},
        {"sr_umount", "umount x\n"},
        {"sr_mount_cifs", "mount -t cifs x\n"},
        {"sr_umount_cifs", "umount x\n"},
        {"sr_mknod", "mknod x\n"},
        {"sr_insmod", "insmod x\n"},
        {"sr_rmmod", "rmmod x\n"},
        {"sr_systemctl", "systemctl --no-pager --no-ask-password x\n"}};
    for (const auto& entry : expected) {
        test::Pipe output;
        EXPECT_EQ("0 0", Answer(entry.first, "x", output.Writer()));
        EXPECT_EQ(entry.second, test::ReadReady(output.Reader()));
    }
}

TEST_F(AgentTest, BothOutputsOfAFailingToolReachTheCaller) {
    tools.Add("mount", "echo out; echo err >&2; exit 5");
    Serve();
    test::Pipe output;
    EXPECT_EQ("0 5", Answer("sr_mount", "", output.Writer()));
    EXPECT_EQ("out\nerr\n", test::ReadReady(output.Reader()));
}

TEST_F(AgentTest, MalformedArgumentsAreAnswered1WithAReason) {
    tools.Add("mount", ": > \"$DIR/ran\"");
    Serve();
    test::Pipe output;
    EXPECT_EQ("1 0", Answer("sr_mount", "'open", output.Writer()));
    EXPECT_EQ("sentrel-agent: the arguments cannot be read: a quote that is not closed\n",
              test::ReadReady(output.Reader()));
    EXPECT_EQ("1 0", Answer("sr_mount", "a\nb"));
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
    EXPECT_EQ("10 0", Answer("sr_insmod", "x", output.Writer()));
    EXPECT_EQ("sentrel-agent: insmod is not on this system\n", test::ReadReady(output.Reader()));
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
    tools.Add("mount", "exit 3");
    Serve();
    EXPECT_EQ("0 3", Answer("sr_mount", std::string(8192, 'x').c_str()));
    EXPECT_EQ("org.freedesktop.DBus.Error.LimitsExceeded",
              Call("sr_mount", std::string(8193, 'x').c_str()).error);
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
    tools.Add("mount", ": > \"$DIR/ran\"");
    tools.Add("umount", "exit 0");
    Serve();
    test::Monitor monitor;
    DBusMessage* call = test::NewCall("sr_mount", "", 0);
    dbus_message_set_no_reply(call, TRUE);
    ASSERT_TRUE(dbus_connection_send(connection->Get(), call, nullptr));
    const dbus_uint32_t serial = dbus_message_get_serial(call);
    dbus_message_unref(call);
    EXPECT_EQ("0 0", Answer("sr_umount", ""));
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
    tools.Add("mount",
              "echo text; where=$(readlink /proc/$$/fd/1); echo $where > \"$DIR/where\"; exit 4");
    Serve();
    for (const int number : {0, -1, -2147483647}) {
        EXPECT_EQ("0 4", Answer("sr_mount", "", number));
        EXPECT_EQ("/dev/null\n", FileText(tools.File("where")));
    }
}

TEST_F(AgentTest, ADescriptorThatIsNotOpenIsRefused) {
    Serve();
    EXPECT_EQ("1 0", AnswerForDescriptor(900));
    EXPECT_EQ("1 0", AnswerForDescriptor(1048576));
    EXPECT_EQ("1 0", AnswerForDescriptor(2147483647));
}

TEST_F(AgentTest, AFileThatIsOpenForReadingOnlyIsRefusedAndNotWritten) {
    Serve();
    const std::string path = tools.File("file");
    std::ofstream(path) << "untouched";
    const test::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ("1 0", AnswerForDescriptor(file.Get()));
    EXPECT_EQ("untouched", FileText(path));
    test::Pipe pipe;
    EXPECT_EQ("1 0", AnswerForDescriptor(pipe.Reader()));
}

TEST_F(AgentTest, DescriptorsOfUnfitKindsAreRefused) {
    Serve();
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
    tools.Add("mount", "echo text");
    Serve();
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    const test::Descriptor socket(pair[0]);
    const test::Descriptor peer(pair[1]);
    EXPECT_EQ("0 0", Answer("sr_mount", "", socket.Get()));
    EXPECT_EQ("text\n", test::ReadReady(peer.Get()));

    const test::Descriptor file(
        open(tools.File("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ("0 0", Answer("sr_mount", "", file.Get()));
    EXPECT_EQ("0 0", Answer("sr_mount", "", file.Get()));
    EXPECT_EQ("text\ntext\n", FileText(tools.File("out")));

    const test::Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ("0 0", Answer("sr_mount", "", null.Get()));

    const test::Descriptor terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(0, grantpt(terminal.Get()));
    ASSERT_EQ(0, unlockpt(terminal.Get()));
    const test::Descriptor line(open(ptsname(terminal.Get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_EQ("0 0", Answer("sr_mount", "", line.Get()));
    EXPECT_EQ("text\r\n", test::ReadReady(terminal.Get()));
}

TEST_F(AgentTest, TheStatusFlagsOfTheCallersDescriptorStayAsTheyWere) {
    tools.Add("mount", "echo text");
    Serve();
    test::Pipe output;
    const int before = fcntl(output.Writer(), F_GETFL);
    EXPECT_EQ("0 0", Answer("sr_mount", "", output.Writer()));
    EXPECT_EQ(before, fcntl(output.Writer(), F_GETFL));
}

TEST_F(AgentTest, APipeThatNobodyReadsHoldsUpNeitherTheToolNorTheAnswer) {
    tools.Add("mount", "head -c 400000 /dev/zero; exit 3");
    Serve();
    test::Pipe output;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ("0 3", Answer("sr_mount", "", output.Writer()));
    EXPECT_LT(Seconds(start), 10);
    EXPECT_EQ(65536U, test::ReadReady(output.Reader()).size());
}

TEST_F(AgentTest, AReaderThatIsGoneDoesNotEndTheTool) {
    tools.Add("mount", "head -c 400000 /dev/zero && echo more && exit 6");
    Serve();
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const test::Descriptor writer(ends[1]);
    ASSERT_EQ(0, close(ends[0]));
    EXPECT_EQ("0 6", Answer("sr_mount", "", writer.Get()));
}

TEST_F(AgentTest, OutputBeyondAMegabyteIsDroppedAndCounted) {
    tools.Add("mount", "head -c 1048676 /dev/zero");
    Serve();
    test::Pipe output;
    std::string all;
    std::thread reader([&] { all = test::ReadAll(output.Reader()); });
    EXPECT_EQ("0 0", Answer("sr_mount", "", output.Writer()));
    output.CloseWriter();
    reader.join();
    const std::string last = "\nsentrel-agent: 100 more bytes were dropped\n";
    EXPECT_EQ(1048576U + last.size(), all.size());
    EXPECT_EQ(last, all.substr(std::min<std::size_t>(1048576U, all.size())));
}

TEST_F(AgentTest, ADaemonLeftByTheToolDoesNotHoldUpTheAnswer) {
    tools.Add("mount", "echo text; mkfifo \"$DIR/wait\"; (read x < \"$DIR/wait\") & exit 2");
    Serve();
    test::Pipe output;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ("0 2", Answer("sr_mount", "", output.Writer()));
    EXPECT_LT(Seconds(start), 10);
    EXPECT_EQ("text\n", test::ReadReady(output.Reader()));
    const test::Descriptor release(open(tools.File("wait").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(1, write(release.Get(), "\n", 1));
}

TEST_F(AgentTest, TheToolStartsWithACleanProcess) {
    tools.Add("mount",
              "tr '\\0' '\\n' < /proc/$$/environ; echo; find /proc/$$/fd -type l -printf '%f "
              "%l\\n'; echo\n"
              "cut -d' ' -f5,6 /proc/$$/stat; echo $$\n"
              "grep -E 'Sig(Ign|Blk)' /proc/$$/status; umask; pwd");
    Serve();
    test::Pipe output;
    EXPECT_EQ("0 0", Answer("sr_mount", "", output.Writer()));
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
            EXPECT_EQ(tools.File("mount"), target);
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
    EXPECT_EQ("SigBlk:\t0000000000000000", line);
    std::getline(lines, line);
    EXPECT_EQ("SigIgn:\t0000000000001000", line) << "SIGPIPE alone";
    std::getline(lines, line);
    EXPECT_EQ("0022", line);
    std::getline(lines, line);
    EXPECT_EQ("/", line);
}

TEST_F(AgentTest, ASlowToolDoesNotHoldUpAnother) {
    tools.Add("mount", "read x < \"$DIR/gate\"; exit 11");
    tools.Add("umount", "exit 12");
    Serve();
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    test::Calls slow(connection->Get());
    slow.Add("sr_mount", "");
    EXPECT_EQ("0 12", Answer("sr_umount", ""));
    std::ofstream(tools.File("gate")) << "go\n";
    EXPECT_EQ(std::vector<std::string>{"0 11"}, slow.Wait());
}

TEST_F(AgentTest, ManyAtOnceAreEachAnsweredOnce) {
    tools.Add("mount", "echo \"$1\"; exit $1");
    Serve();
    std::vector<std::unique_ptr<test::Pipe> > outputs;
    test::Calls calls(connection->Get());
    std::vector<std::string> expected;
    for (int i = 0; i < 24; ++i) {
        outputs.push_back(std::make_unique<test::Pipe>());
        calls.Add("sr_mount", std::to_string(i).c_str(), outputs.back()->Writer());
        expected.push_back("0 " + std::to_string(i));
    }
    EXPECT_EQ(expected, calls.Wait());
    for (int i = 0; i < 24; ++i) {
        EXPECT_EQ(std::to_string(i) + "\n",
                  test::ReadReady(outputs[static_cast<std::size_t>(i)]->Reader()));
    }
}

TEST_F(AgentTest, TheThirtyThirdAtOnceIsAnswered1AndSigtermAnswersTheOthersWith8) {
    tools.Add("mount", "read x < \"$DIR/gate\"");
    Serve();
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    test::Calls calls(connection->Get());
    for (int i = 0; i < 32; ++i) {
        calls.Add("sr_mount", "");
    }
    EXPECT_EQ("1 0", Answer("sr_mount", ""));
    agent->Signal(SIGTERM);
    EXPECT_EQ(std::vector<std::string>(32, "8 0"), calls.Wait());
    EXPECT_EQ(0, agent->WaitForEnd());
}

TEST_F(AgentTest, ALateToolIsEndedAndAnswered8) {
    tools.Add("mount", "read x < \"$DIR/gate\"");
    Serve({"--deadline", "1"});
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    const Clock::time_point start = Clock::now();
    EXPECT_EQ("8 0", Answer("sr_mount", ""));
    EXPECT_GE(Seconds(start), 0.9);
    EXPECT_LT(Seconds(start), 3);
}

TEST_F(AgentTest, ALateToolThatIgnoresTermIsKilledWithItsChildren) {
    tools.Add("mount",
              "trap '' TERM; (read x < \"$DIR/gate\") & echo $!; wait; read x < \"$DIR/gate\"");
    Serve({"--deadline", "1"});
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    test::Pipe output;
    const Clock::time_point start = Clock::now();
    test::Calls calls(connection->Get());
    calls.Add("sr_mount", "", output.Writer());
    const int grandchild = std::stoi(output.ReadLine(test::kLimit));
    const test::Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, grandchild, 0)));
    ASSERT_GE(handle.Get(), 0);
    EXPECT_EQ(std::vector<std::string>{"8 0"}, calls.Wait());
    EXPECT_GE(Seconds(start), 2.9);
    EXPECT_LT(Seconds(start), 6);
    EXPECT_TRUE(test::WaitFor(handle.Get(), POLLIN, test::kLimit));
}

TEST_F(AgentTest, ToolsDieWithTheAgent) {
    tools.Add("mount", "echo $$; read x < \"$DIR/gate\"");
    Serve();
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    test::Pipe output;
    test::Calls calls(connection->Get());
    calls.Add("sr_mount", "", output.Writer());
    const int tool = std::stoi(output.ReadLine(test::kLimit));
    const test::Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, tool, 0)));
    ASSERT_GE(handle.Get(), 0);
    agent->Signal(SIGKILL);
    EXPECT_TRUE(test::WaitFor(handle.Get(), POLLIN, test::kLimit));
}

TEST_F(AgentTest, ACallerThatLeavesDoesNotDisturbTheAgent) {
    tools.Add("mount", "echo up; read x < \"$DIR/gate\"");
    tools.Add("umount", "exit 7");
    Serve();
    ASSERT_EQ(0, mkfifo(tools.File("gate").c_str(), 0600));
    {
        test::PlainConnection other;
        test::Pipe output;
        DBusMessage* call = test::NewCall("sr_mount", "", output.Writer());
        ASSERT_TRUE(dbus_connection_send(other.Get(), call, nullptr));
        dbus_message_unref(call);
        dbus_connection_flush(other.Get());
        EXPECT_EQ("up", output.ReadLine(test::kLimit));
    }
    EXPECT_EQ("0 7", Answer("sr_umount", ""));
    std::ofstream(tools.File("gate")) << "go\n";
    EXPECT_EQ("0 7", Answer("sr_umount", ""));
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
    EXPECT_EQ("sentrel-agent: the connection to the bus is lost", agent->NextLine());
    const int status = agent->WaitForEnd();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(1, WEXITSTATUS(status));
}

TEST_F(AgentTest, ASecondAgentRefusesToStart) {
    tools.Add("mount", "exit 9");
    Serve();
    const test::Finished second = test::RunAgent({"--allow-all"});
    EXPECT_EQ(1, second.Exit());
    EXPECT_EQ("sentrel-agent: another process owns org.sentrel.sr_agent; it must end first\n",
              second.errors);
    EXPECT_EQ("0 9", Answer("sr_mount", ""));
}

TEST_F(AgentTest, WithoutABusItEndsWith1AndALine) {
    bus.Stop();
    const test::Finished finished = test::RunAgent({});
    EXPECT_EQ(1, finished.Exit());
    EXPECT_EQ(0U, finished.errors.find("sentrel-agent: the bus: "));
}

TEST_F(AgentTest, TheLogNamesTheRequestButNotItsArguments) {
    tools.Add("mount", "exit 3");
    Serve();
    EXPECT_EQ("0 3", Answer("sr_mount_cifs", "-o password=secret"));
    const std::string line = agent->NextLine();
    EXPECT_EQ("sentrel-agent: " + connection->UniqueName() + " uid " + std::to_string(getuid()) +
                  " pid " + std::to_string(getpid()) + " sr_mount_cifs: status 0, return value 3",
              line);
}

TEST_F(AgentTest, OptionsAreExplainedAndWrongOnesRefusedWith2) {
    const test::Finished help = test::RunAgent({"--help"});
    EXPECT_EQ(0, help.Exit());
    EXPECT_NE(std::string::npos, help.output.find("--allow-all"));
    EXPECT_NE(std::string::npos, help.output.find("For trying\n"));
    const test::Finished version = test::RunAgent({"--version"});
    EXPECT_EQ(0, version.Exit());
    EXPECT_EQ(0U, version.output.find("sentrel-agent "));
    const std::vector<std::vector<std::string> > wrong = {
        {"--nonsense"},          {"operand"},           {"--deadline", "0"}, {"--deadline", "21"},
        {"--deadline", "1x"},    {"--deadline", ""},    {"--tool-path", ""}, {"--tool-path", "bin"},
        {"--tool-path", "/a:b"}, {"--tool-path", "/a:"}};
    for (const auto& options : wrong) {
        const test::Finished finished = test::RunAgent(options);
        EXPECT_EQ(2, finished.Exit()) << options.front();
        EXPECT_NE("", finished.errors);
    }
}

}  // namespace
