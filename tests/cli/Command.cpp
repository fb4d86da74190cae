// SPDX-License-Identifier: Apache-2.0
#include "Command.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "ChildProcess.h"
#include "PrivateBus.h"

namespace test {

namespace {

// Until the end; a terminal ends with an error.
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

// Both ends of what takes the place of standard output.
struct Ends {
    Ends(Descriptor first, Descriptor second)
        : reader(std::move(first)), writer(std::move(second)) {}
    Descriptor reader;
    Descriptor writer;
};

Ends MakePipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        ThrowErrno("making a pipe");
    }
    return Ends(Descriptor(ends[0]), Descriptor(ends[1]));
}

// Passes bytes on as they are.
Ends MakeTerminal() {
    termios settings = {};
    cfmakeraw(&settings);
    int master = -1;
    int slave = -1;
    if (openpty(&master, &slave, nullptr, &settings, nullptr) != 0) {
        ThrowErrno("making a terminal");
    }
    return Ends(Descriptor(master), Descriptor(slave));
}

pid_t Start(const std::vector<std::string>& program, int output, int errors) {
    return Fork([&] {
        std::vector<char*> argv;
        for (const std::string& word : program) {
            argv.push_back(const_cast<char*>(word.c_str()));
        }
        argv.push_back(nullptr);
        if (output >= 0) {
            (void)dup2(output, STDOUT_FILENO);
        } else {
            (void)close(STDOUT_FILENO);
        }
        (void)dup2(errors, STDERR_FILENO);
        (void)execvp(argv[0], argv.data());
        return 99;
    });
}

Finished Run(const std::vector<std::string>& program, Output kind) {
    (void)PrivateBus::Address();
    Ends output = kind == Output::kTerminal ? MakeTerminal() : MakePipe();
    Ends errors = MakePipe();
    const pid_t pid =
        Start(program, kind == Output::kClosed ? -1 : output.writer.Get(), errors.writer.Get());
    output.writer.Close();
    errors.writer.Close();
    Finished finished;
    // What is said on standard error fits into a pipe, so it can be read after the other.
    finished.output = ReadAll(output.reader.Get());
    finished.errors = ReadAll(errors.reader.Get());
    const int status = Reap(pid, kLimit);
    finished.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return finished;
}

}  // namespace

Finished RunCommand(const std::vector<std::string>& words, Output output) {
    std::vector<std::string> program = {SENTREL_COMMAND};
    program.insert(program.end(), words.begin(), words.end());
    return Run(program, output);
}

std::string ReadJson(const std::string& text, const std::string& python) {
    // Ascii: characters beyond it are shown by their numbers.
    const Finished finished =
        Run({"python3", "-c",
             "import json, sys\nx = json.loads(sys.argv[1])\nprint(ascii(" + python + "), end='')",
             text},
            Output::kPipe);
    if (finished.exit != 0) {
        throw std::runtime_error(finished.errors);
    }
    return finished.output;
}

}  // namespace test
