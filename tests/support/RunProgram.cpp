// SPDX-License-Identifier: Apache-2.0
#include "RunProgram.h"

#include <sys/wait.h>

#include "ChildProcess.h"
#include "PrivateBus.h"

namespace test {

Finished RunProgram(const std::vector<std::string>& words, Output kind) {
    (void)PrivateBus::Address();
    Pipe output = kind == Output::kTerminal ? Pipe::Terminal() : Pipe();
    Pipe errors;
    const pid_t pid =
        Spawn(words, {}, kind == Output::kClosed ? -1 : output.Writer(), errors.Writer());
    output.CloseWriter();
    errors.CloseWriter();
    Finished finished;
    // What is said on standard error fits into a pipe, so it can be read after the other.
    finished.output = ReadAll(output.Reader());
    finished.errors = ReadAll(errors.Reader());
    const int status = Reap(pid, kLimit);
    finished.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return finished;
}

bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace test
