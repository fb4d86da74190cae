// SPDX-License-Identifier: Apache-2.0
#include "Programs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "PrivateBus.h"

namespace test {

namespace {

const char kService[] = "org.sentrel.sr_agent";

std::vector<std::string> Command(const std::vector<std::string>& options) {
    std::vector<std::string> words = {SENTREL_AGENT_PROGRAM};
    words.insert(words.end(), options.begin(), options.end());
    return words;
}

// Its log takes the place of standard error, and what it prints goes where a test's errors go.
pid_t StartAgent(const std::vector<std::string>& options, int log) {
    (void)PrivateBus::Address();
    return Spawn(Command(options), {}, STDERR_FILENO, log);
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
    : pid(StartAgent(options, log.Writer())) {
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

Finished RunAgent(const std::vector<std::string>& options) {
    return RunProgram(Command(options));
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
