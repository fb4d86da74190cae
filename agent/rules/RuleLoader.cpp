// SPDX-License-Identifier: Apache-2.0
// A load is one process, which writes what it read into a pipe and ends. It is given up when its
// time has passed; one that does not die even then is kept until it is reaped, and when too many
// are, no other is started. Who asks while one is under way is told by the next.
#include "RuleLoader.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/Process.h"
#include "base/Signals.h"

namespace agent {

namespace {

const std::size_t kLargest = 67108864;
const std::size_t kMostDying = 4;

[[noreturn]] void RunReader(int output, pid_t parent, const RuleLoader::Reader& reader) {
    ResetSignals();
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
        _exit(1);
    }
    if ((output != 3 && dup2(output, 3) != 3) || syscall(SYS_close_range, 4U, ~0U, 0U) != 0) {
        _exit(1);
    }
    std::string text;
    try {
        text = reader().Pack();
    } catch (const std::exception&) {
        _exit(1);
    }
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = write(3, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            _exit(1);
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    _exit(0);
}

LoadResult Failure(const std::string& why) {
    LoadResult result;
    result.errors.push_back(why);
    return result;
}

}  // namespace

class RuleLoader::Process {
public:
    Process(RuleLoader& ruleLoader, OwnedFd&& process, OwnedFd&& output)
        : loader(ruleLoader),
          pidfd(std::move(process)),
          pipe(std::move(output)),
          reading(std::make_unique<Watch>(loader.loop, pipe.Get(), [this] { Read(); })),
          ending(std::make_unique<Watch>(loader.loop, pidfd.Get(), [this] { End(); })),
          timer(std::make_unique<Timer>(loader.loop,
                                        std::chrono::steady_clock::now() + loader.limit,
                                        [this] { TooLong(); })) {}
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    bool HasEnded() const { return ended; }
    ~Process() {
        if (!ended) {
            (void)SignalProcess(pidfd.Get(), SIGKILL);
            (void)Reap(pidfd.Get(), WNOHANG);
        }
    }

private:
    void Read() {
        char buffer[65536];
        ssize_t count = 0;
        while ((count = read(pipe.Get(), buffer, sizeof buffer)) > 0) {
            text.append(buffer, static_cast<std::size_t>(count));
            if (text.size() > kLargest) {
                return Give(Failure("the files are too large"));
            }
        }
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        RuleSource source;
        Give(source.Unpack(text) ? loader.store.Take(source)
                                 : Failure("the process that reads the files has failed"));
    }
    void TooLong() {
        (void)SignalProcess(pidfd.Get(), SIGKILL);
        Give(Failure("the account database or the files did not answer within " +
                     std::to_string(loader.limit.count() / 1000) + " s"));
    }
    // The last thing that is done here: this object may go with it.
    void Give(const LoadResult& result) {
        reading.reset();
        timer.reset();
        pipe.Reset();
        (void)SignalProcess(pidfd.Get(), SIGKILL);  // for one that was not read to the end
        loader.Ended(result);
    }
    void End() {
        ended = true;
        (void)Reap(pidfd.Get());
        ending.reset();
        RuleLoader& owner = loader;
        owner.dying.remove_if([gone = this](const auto& entry) { return entry.get() == gone; });
    }

    RuleLoader& loader;
    OwnedFd pidfd;
    OwnedFd pipe;
    std::string text;
    bool ended = false;
    std::unique_ptr<Watch> reading;
    std::unique_ptr<Watch> ending;
    std::unique_ptr<Timer> timer;
};

RuleLoader::RuleLoader(sentrel::SR_MainLoop& loop_, RuleStore& store_,
                       std::chrono::milliseconds limit_)
    : RuleLoader(loop_, store_, limit_, [&store_] { return store_.Read(); }) {}

RuleLoader::RuleLoader(sentrel::SR_MainLoop& loop_, RuleStore& store_,
                       std::chrono::milliseconds limit_, const Reader& reader_)
    : loop(loop_), store(store_), limit(limit_), reader(reader_) {}

RuleLoader::~RuleLoader() {}

void RuleLoader::Load(const Done& done) {
    if (process) {
        later.push_back(done);  // what is under way may have passed the file that has changed
        return;
    }
    waiting.push_back(done);
    Start();
}

void RuleLoader::Start() {
    int ends[2];
    if (dying.size() >= kMostDying || pipe2(ends, O_CLOEXEC) != 0) {
        return Ended(Failure(dying.size() >= kMostDying
                                 ? "too many processes hang that were to read the files"
                                 : "no descriptors are left to read the files"));
    }
    OwnedFd output(ends[0]);
    const OwnedFd input(ends[1]);
    const pid_t parent = getpid();
    const pid_t pid = fcntl(output.Get(), F_SETFL, O_NONBLOCK) == 0 ? fork() : -1;
    if (pid == 0) {
        RunReader(input.Get(), parent, reader);
    }
    if (pid < 0) {
        return Ended(Failure("no process can be started to read the files"));
    }
    try {
        OwnedFd pidfd(OpenProcess(pid));
        if (!pidfd) {
            throw std::system_error(errno, std::generic_category());
        }
        process = std::make_shared<Process>(*this, std::move(pidfd), std::move(output));
    } catch (const std::system_error&) {
        (void)kill(pid, SIGKILL);
        (void)waitpid(pid, nullptr, WNOHANG);
        Ended(Failure("no descriptors are left to read the files"));
    }
}

void RuleLoader::Ended(const LoadResult& result) {
    const std::shared_ptr<Process> kept = std::move(process);
    process.reset();
    if (kept && !kept->HasEnded()) {
        dying.push_back(kept);  // until it has been reaped
    }
    const std::vector<Done> told = std::move(waiting);
    waiting = std::move(later);
    later.clear();
    if (!waiting.empty()) {
        Start();
    }
    for (const Done& done : told) {
        done(result);
    }
}

}  // namespace agent
