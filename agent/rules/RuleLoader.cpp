// SPDX-License-Identifier: Apache-2.0
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

RuleLoader::RuleLoader(sentrel::SR_MainLoop& mainLoop, RuleStore& ruleStore,
                       std::chrono::milliseconds longest)
    : RuleLoader(mainLoop, ruleStore, longest, [&ruleStore] { return ruleStore.Read(); }) {}

RuleLoader::RuleLoader(sentrel::SR_MainLoop& mainLoop, RuleStore& ruleStore,
                       std::chrono::milliseconds longest, const Reader& sourceReader)
    : loop(mainLoop), store(ruleStore), limit(longest), reader(sourceReader) {}

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
