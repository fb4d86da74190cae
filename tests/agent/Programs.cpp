// SPDX-License-Identifier: Apache-2.0
#include "Programs.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "PrivateBus.h"

namespace test {

namespace {

const char kService[] = "org.sentrel.sr_agent";

// Only the three standard descriptors; negative: none there.
pid_t Start(const std::string& program, const std::vector<std::string>& options, int output,
            int errors) {
    (void)PrivateBus::Address();
    return Fork([&] {
        std::vector<char*> argv = {const_cast<char*>(program.c_str())};
        for (const std::string& option : options) {
            argv.push_back(const_cast<char*>(option.c_str()));
        }
        argv.push_back(nullptr);
        if (output >= 0) {
            (void)dup2(output, STDOUT_FILENO);
        } else {
            (void)close(STDOUT_FILENO);
        }
        (void)dup2(errors, STDERR_FILENO);
        (void)execv(program.c_str(), argv.data());
        return 99;
    });
}

// Both outputs are read until they end, then the program is reaped.
Finished Run(const std::string& program, const std::vector<std::string>& options, bool closed) {
    Pipe output;
    Pipe errors;
    const pid_t pid = Start(program, options, closed ? -1 : output.Writer(), errors.Writer());
    output.CloseWriter();
    errors.CloseWriter();
    Finished finished;
    // What a program says here fits into a pipe, so one can be read after the other.
    finished.output = ReadAll(output.Reader());
    finished.errors = ReadAll(errors.Reader());
    finished.status = Reap(pid, kLimit);
    return finished;
}

std::string TextOf(DBusMessage* message) {
    const char* text = "";
    (void)dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    return text;
}

}  // namespace

FakeTools::FakeTools() : folder(PrivateBus::Folder() + "/tools") {
    if (mkdir(folder.c_str(), 0755) != 0) {
        ThrowErrno("making a folder for tools");
    }
}

FakeTools::~FakeTools() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

void FakeTools::Add(const std::string& name, const std::string& script) const {
    std::ofstream file(File(name));
    file << "#!/bin/sh\nDIR='" << folder << "'\n" << script << "\n";
    file.close();
    if (!file || chmod(File(name).c_str(), 0755) != 0) {
        ThrowErrno("writing a script");
    }
}

RuleFolder::RuleFolder() : folder(PrivateBus::Folder() + "/rules") {
    if (mkdir(folder.c_str(), 0755) != 0) {
        ThrowErrno("making a folder for rules");
    }
}

RuleFolder::~RuleFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

void RuleFolder::Write(const std::string& name, const std::string& text) const {
    std::ofstream file(folder + "/" + name);
    file << text;
    file.close();
    if (!file || chmod((folder + "/" + name).c_str(), 0644) != 0) {
        ThrowErrno("writing rules");
    }
}

RunningAgent::RunningAgent(const std::vector<std::string>& options)
    : pid(Start(SENTREL_AGENT_PROGRAM, options, STDERR_FILENO, log.Writer())) {
    log.CloseWriter();
    // The audit of some hundred requests must fit in, so that nobody needs to read meanwhile.
    (void)fcntl(log.Reader(), F_SETPIPE_SZ, 1048576);
    try {
        (void)NextLineWith("serving");
    } catch (...) {
        KillAndReap(pid);
        throw;
    }
}

std::string RunningAgent::NextLineWith(const std::string& text) {
    std::string before;
    for (;;) {
        std::string line;
        try {
            line = NextLine();
        } catch (const std::runtime_error& error) {
            throw std::runtime_error("no line with '" + text + "' but: " + before + error.what());
        }
        if (Holds(line, text)) {
            return line;
        }
        before += line + "\n";
    }
}

std::string RunningAgent::Said() const {
    return ReadReady(log.Reader());
}

RunningAgent::~RunningAgent() {
    if (pid > 0) {
        KillAndReap(pid);
    }
}

void RunningAgent::Signal(int signal) const {
    (void)kill(pid, signal);
}

int RunningAgent::WaitForEnd() {
    const int status = Reap(pid, kLimit);
    pid = -1;
    return status;
}

int Finished::Exit() const {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Finished RunAgent(const std::vector<std::string>& options) {
    return Run(SENTREL_AGENT_PROGRAM, options, false);
}

Finished RunCommand(const std::vector<std::string>& words, bool closed) {
    return Run(SENTREL_COMMAND, words, closed);
}

std::string ReadAll(int descriptor) {
    std::string all;
    char buffer[65536];
    for (;;) {
        if (!WaitFor(descriptor, POLLIN, kLimit)) {
            throw std::runtime_error("the output did not end in time");
        }
        const ssize_t count = read(descriptor, buffer, sizeof(buffer));
        if (count <= 0) {
            return all;
        }
        all.append(buffer, static_cast<std::size_t>(count));
    }
}

std::string ReadReady(int descriptor) {
    std::string all;
    char buffer[65536];
    while (WaitFor(descriptor, POLLIN, 0)) {
        const ssize_t count = read(descriptor, buffer, sizeof(buffer));
        if (count <= 0) {
            break;
        }
        all.append(buffer, static_cast<std::size_t>(count));
    }
    return all;
}

bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

DBusMessage* NewCall(const char* agent, const char* text, int descriptor) {
    DBusMessage* call =
        dbus_message_new_method_call(kService, "/org/sentrel/sr_agent", kService, "CallCommand");
    const dbus_int32_t number = descriptor;
    (void)dbus_message_append_args(call, DBUS_TYPE_STRING, &agent, DBUS_TYPE_STRING, &text,
                                   DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
    return call;
}

Reply Send(DBusConnection* connection, DBusMessage* call) {
    DBusError error;
    dbus_error_init(&error);
    DBusMessage* answer =
        dbus_connection_send_with_reply_and_block(connection, call, kLimit, &error);
    dbus_message_unref(call);
    Reply reply;
    if (answer == nullptr) {
        reply.error = error.name;
        reply.text = error.message;
        dbus_error_free(&error);
        return reply;
    }
    reply.text = TextOf(answer);
    dbus_message_unref(answer);
    return reply;
}

Reply Call(DBusConnection* connection, const char* agent, const char* text, int descriptor) {
    return Send(connection, NewCall(agent, text, descriptor));
}

Calls::~Calls() {
    for (DBusPendingCall* call : pending) {
        dbus_pending_call_cancel(call);
        dbus_pending_call_unref(call);
    }
}

void Calls::Add(const char* agent, const char* text, int descriptor) {
    DBusMessage* call = NewCall(agent, text, descriptor);
    DBusPendingCall* handle = nullptr;
    if (!dbus_connection_send_with_reply(connection, call, &handle, kLimit) || handle == nullptr) {
        throw std::runtime_error("a call could not be sent");
    }
    dbus_message_unref(call);
    dbus_connection_flush(connection);
    pending.push_back(handle);
}

std::vector<std::string> Calls::Wait() {
    std::vector<std::string> answers;
    for (DBusPendingCall* call : pending) {
        dbus_pending_call_block(call);
        DBusMessage* answer = dbus_pending_call_steal_reply(call);
        answers.push_back(TextOf(answer));
        dbus_message_unref(answer);
        dbus_pending_call_unref(call);
    }
    pending.clear();
    return answers;
}

}  // namespace test
