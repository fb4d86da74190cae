// SPDX-License-Identifier: Apache-2.0
// A load is one process, which writes what it read into a pipe and ends. It is given up when its
// time has passed; one that does not die even then is kept until it is reaped, and when too many
// are, no other is started. Who asks while one is under way is told by the next.
#include "RuleLoader.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/Process.h"

namespace agent {

namespace {

const std::size_t kLargest = 67108864;
const std::size_t kMostDying = 4;

// No session of its own: whoever ends the agent at a terminal while it waits for this one means
// both.
[[noreturn]] void RunReader(int output, pid_t parent, const RuleLoader::Reader& reader) {
    ChildStart start;
    start.ownSession = false;
    start.descriptors = {-1, -1, -1, output};
    if (!BeginChild(start, parent)) {
        _exit(1);
    }
    const std::string text = reader().Pack();
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
    Process(RuleLoader& loader_, Child&& child_, OwnedFd&& pipe_)
        : loader(loader_),
          pipe(std::move(pipe_)),
          child(std::move(child_)),
          reading(std::make_unique<Watch>(loader.loop, pipe.Get(), [this] { Read(); })),
          ending(std::make_unique<Watch>(loader.loop, child.GetDescriptor(), [this] { End(); })) {}
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    bool HasEnded() const { return !child; }
    bool SetLimit() {
        Result<std::unique_ptr<Timer> > made = Timer::Make(
            loader.loop, std::chrono::steady_clock::now() + loader.limit, [this] { TooLong(); });
        if (made) {
            timer = std::move(*made);
        }
        return static_cast<bool>(made);
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
        child.Signal(SIGKILL);
        Give(Failure("the account database or the files did not answer within " +
                     std::to_string(loader.limit.count() / 1000) + " s"));
    }
    // The last thing that is done here: this object may go with it.
    void Give(const LoadResult& result) {
        reading.reset();
        timer.reset();
        pipe.Reset();
        child.Signal(SIGKILL);  // for one that was not read to the end
        loader.Ended(result);
    }
    void End() {
        ending.reset();
        (void)child.Reap();
        RuleLoader& owner = loader;
        owner.dying.remove_if([gone = this](const auto& entry) { return entry.get() == gone; });
    }

    RuleLoader& loader;
    OwnedFd pipe;
    Child child;  // killed with this object
    std::string text;
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
    if (dying.size() >= kMostDying) {
        return Ended(Failure("too many processes hang that were to read the files"));
    }
    Result<Pipe> pipe = OpenPipe(Reading::kNeverWaits);
    if (!pipe) {
        return Ended(Failure("no descriptors are left to read the files"));
    }
    Result<Child> child =
        Child::Fork([&](pid_t parent) { RunReader(pipe->writer.Get(), parent, reader); });
    if (!child) {
        return Ended(Failure("no process can be started to read the files"));
    }
    process = std::make_shared<Process>(*this, std::move(*child), std::move(pipe->reader));
    if (!process->SetLimit()) {
        process.reset();  // and kills it
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
