// SPDX-License-Identifier: Apache-2.0
// Lines for the system's log and for standard error, which never wait for whoever reads them: what
// is not taken at once stays in a queue, what the queue has no room for is counted, and the count
// becomes a line of its own as soon as there is room again.
//
// Ownership: the loop is not owned and must outlive what is attached to it.
// Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_LOG_H
#define SENTREL_AGENT_LOG_H

#include <syslog.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/Descriptors.h"
#include "base/Events.h"

namespace agent {

struct LogEntry {
    int priority = LOG_NOTICE;
    int facility = LOG_FAC(LOG_AUTHPRIV);
    std::string text;  // one line, without its end
    // What the journal can search for: names in capitals, values without a line's end.
    std::vector<std::pair<std::string, std::string> > fields;
    std::time_t when = 0;    // filled in by Write()
    std::uint64_t lost = 0;  // lines that this one stands for
};

struct LogLimits {
    std::size_t lines = 1024;
    std::size_t bytes = 262144;
};

class LogQueue {
public:
    explicit LogQueue(const LogLimits& limits_) : limits(limits_) {}
    LogQueue(const LogQueue&) = delete;
    LogQueue& operator=(const LogQueue&) = delete;
    virtual ~LogQueue() {}

    // Does not block.
    void Write(LogEntry entry);
    // Offers what waits. Does not block.
    void Flush();
    // From now on the loop flushes when the reader has made room; null: no longer.
    void Attach(sentrel::SR_MainLoop* loop_);
    bool Attached() const { return loop != nullptr; }
    // Offers what waits until all is taken or this time has passed.
    void Drain(std::chrono::milliseconds limit);
    std::size_t Waiting() const { return queue.size(); }

protected:
    enum class Offered {
        kTaken,
        kLater,    // not now: Descriptor() will be writable
        kRefused,  // not this one
        kGone      // nobody is there
    };
    virtual Offered Offer(LogEntry& entry) = 0;
    virtual int Descriptor() const = 0;
    // To be called before Descriptor() changes.
    void StopWaiting() { watch.reset(); }

private:
    void Push(LogEntry&& entry);
    std::uint64_t Pop();
    void ReportLost();

    LogLimits limits;
    std::deque<LogEntry> queue;
    std::size_t bytes = 0;
    std::uint64_t lost = 0;
    int lostFacility = 0;  // of the last one
    sentrel::SR_MainLoop* loop = nullptr;
    std::unique_ptr<Watch> watch;  // while something waits
};

// Standard error, or any descriptor, whose status flags are left as they are: they are shared with
// others. Without a loop, WriteLine() gives the reader a few seconds.
class ErrorStream : public LogQueue {
public:
    explicit ErrorStream(int fd_, const LogLimits& limits_ = LogLimits());
    ~ErrorStream() override {}

    void WriteLine(const std::string& text);

protected:
    Offered Offer(LogEntry& entry) override;
    int Descriptor() const override { return own ? own.Get() : fd; }

private:
    enum class Kind { kFile, kPipe, kSocket };
    ssize_t Put(const char* text, std::size_t size) const;

    int fd;
    OwnedFd own;  // the same file, opened anew; none when that cannot be had
    Kind kind = Kind::kFile;
    std::size_t written = 0;  // of the first line
};

// The program's one standard error, and one line on it.
ErrorStream& StandardError();
void Complain(const std::string& text);

struct LogPlaces {
    std::string journal = "/run/systemd/journal/socket";
    std::string syslog = "/dev/log";
};

// The journal with its fields, or else the system's log, or else standard error. Which of them is
// there is looked at anew when the one in use has gone.
class SystemLog : public LogQueue {
public:
    // `identifier_` is the program's name in the log. `fallback_` must outlive the object.
    SystemLog(const std::string& identifier_, LogQueue& fallback_,
              const LogLimits& limits_ = LogLimits(), const LogPlaces& places_ = LogPlaces())
        : LogQueue(limits_), identifier(identifier_), fallback(fallback_), places(places_) {}
    ~SystemLog() override;

protected:
    Offered Offer(LogEntry& entry) override;
    int Descriptor() const override { return socket.Get(); }

private:
    bool Connect();
    bool ConnectTo(const std::string& path);
    std::string Native(const LogEntry& entry) const;
    std::string Classic(const LogEntry& entry) const;

    std::string identifier;
    LogQueue& fallback;
    LogPlaces places;
    OwnedFd socket;
    bool native = false;
};

// While it lives, the queue is served by the loop.
class AttachedLog {
public:
    AttachedLog(LogQueue& queue_, sentrel::SR_MainLoop& loop) : queue(queue_) {
        queue.Attach(&loop);
    }
    AttachedLog(const AttachedLog&) = delete;
    AttachedLog& operator=(const AttachedLog&) = delete;
    ~AttachedLog() { queue.Attach(nullptr); }

private:
    LogQueue& queue;
};

}  // namespace agent

#endif
