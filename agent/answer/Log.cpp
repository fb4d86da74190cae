// SPDX-License-Identifier: Apache-2.0
//
// A datagram socket that is connected tells by poll() when its reader has room, and by the error of
// send() when it has gone. Standard error may be a pipe, a terminal, a socket or a file. A pipe or
// a terminal is opened a second time, so that it can be written without waiting; a socket has a
// flag for that with each call.
#include "Log.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace agent {

namespace {

const std::chrono::seconds kPatience(5);

std::size_t SizeOf(const LogEntry& entry) {
    std::size_t size = entry.text.size();
    for (const auto& field : entry.fields) {
        size += field.first.size() + field.second.size();
    }
    return size;
}

std::string TwoDigits(int number, char filler) {
    return (number < 10 ? std::string(1, filler) : "") + std::to_string(number);
}

// As syslog(3) writes it: "Nov  2 02:55:19 ", in no language but this.
std::string TimeText(std::time_t when) {
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    struct tm parts = {};
    (void)localtime_r(&when, &parts);
    return std::string(kMonths[parts.tm_mon % 12]) + " " + TwoDigits(parts.tm_mday, ' ') + " " +
           TwoDigits(parts.tm_hour, '0') + ":" + TwoDigits(parts.tm_min, '0') + ":" +
           TwoDigits(parts.tm_sec, '0') + " ";
}

bool IsBusy(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace

void LogQueue::Push(LogEntry&& entry) {
    bytes += SizeOf(entry);
    queue.push_back(std::move(entry));
}

// How many lines have gone with it.
std::uint64_t LogQueue::Pop() {
    const std::uint64_t lines = std::max<std::uint64_t>(queue.front().lost, 1);
    bytes -= SizeOf(queue.front());
    lostFacility = queue.front().facility;
    queue.pop_front();
    return lines;
}

// Not at the first free place: that would be taken by the next such line.
void LogQueue::ReportLost() {
    if (lost == 0 || queue.size() > limits.lines / 2 || bytes > limits.bytes / 2) {
        return;
    }
    LogEntry entry;
    entry.priority = LOG_WARNING;
    entry.facility = lostFacility;
    entry.text = std::to_string(lost) + (lost == 1 ? " line was" : " lines were") +
                 " lost here: the log did not take them";
    entry.when = std::time(nullptr);
    entry.lost = lost;
    lost = 0;
    Push(std::move(entry));
}

void LogQueue::Write(LogEntry entry) {
    Flush();
    entry.when = std::time(nullptr);
    if (lost > 0 || queue.size() >= limits.lines || bytes + SizeOf(entry) > limits.bytes) {
        ++lost;
        lostFacility = entry.facility;
        return;
    }
    Push(std::move(entry));
    Flush();
}

void LogQueue::Flush() {
    ReportLost();
    while (!queue.empty()) {
        switch (Offer(queue.front())) {
            case Offered::kTaken:
                (void)Pop();
                break;
            case Offered::kLater:
                if (loop != nullptr && !watch) {
                    watch = std::make_unique<Watch>(
                        *loop, Descriptor(), [this] { Flush(); }, POLLOUT);
                }
                return;
            case Offered::kRefused:
                lost += Pop();
                return;
            case Offered::kGone:
                while (!queue.empty()) {
                    lost += Pop();
                }
                watch.reset();
                return;
        }
        ReportLost();
    }
    watch.reset();
}

void LogQueue::Attach(sentrel::SR_MainLoop* loop_) {
    watch.reset();
    loop = loop_;
    Flush();
}

void LogQueue::Drain(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (Flush(); !queue.empty(); Flush()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        pollfd slot = {Descriptor(), POLLOUT, 0};
        if (left.count() <= 0 || poll(&slot, 1, static_cast<int>(left.count())) == 0) {
            return;
        }
    }
}

ErrorStream::ErrorStream(int fd_, const LogLimits& limits_) : LogQueue(limits_), fd(fd_) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return;
    }
    if (S_ISSOCK(status.st_mode)) {
        kind = Kind::kSocket;
    } else if (S_ISFIFO(status.st_mode) || isatty(fd) == 1) {
        kind = Kind::kPipe;
        own.Reset(open(("/proc/self/fd/" + std::to_string(fd)).c_str(),
                       O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    }
}

void ErrorStream::WriteLine(const std::string& text) {
    LogEntry entry;
    entry.text = text;
    Write(std::move(entry));
    if (!Attached()) {
        Drain(kPatience);
    }
}

ssize_t ErrorStream::Put(const char* text, std::size_t size) const {
    if (kind == Kind::kSocket) {
        return send(fd, text, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    if (kind == Kind::kFile || own) {
        return write(Descriptor(), text, size);
    }
    // A pipe that is writable has room for this much.
    pollfd slot = {fd, POLLOUT, 0};
    if (poll(&slot, 1, 0) == 0) {
        errno = EAGAIN;
        return -1;
    }
    return write(fd, text, std::min<std::size_t>(size, PIPE_BUF));
}

LogQueue::Offered ErrorStream::Offer(LogEntry& entry) {
    const std::string line = "sentrel-agent: " + entry.text + "\n";
    while (written < line.size()) {
        const ssize_t count = Put(line.data() + written, line.size() - written);
        if (count >= 0) {
            written += static_cast<std::size_t>(count);
        } else if (IsBusy(errno)) {
            return Offered::kLater;
        } else if (errno != EINTR) {
            written = 0;
            return Offered::kGone;
        }
    }
    written = 0;
    return Offered::kTaken;
}

ErrorStream& StandardError() {
    static ErrorStream stream(STDERR_FILENO);
    return stream;
}

void Complain(const std::string& text) {
    StandardError().WriteLine(text);
}

SystemLog::~SystemLog() {
    Drain(std::chrono::milliseconds(500));
}

bool SystemLog::ConnectTo(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    socket.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket &&
        connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return true;
    }
    socket.Reset();
    return false;
}

bool SystemLog::Connect() {
    StopWaiting();
    native = ConnectTo(places.journal);
    return native || ConnectTo(places.syslog);
}

// The journal's own form, a line for each field; no value has a line's end in it.
std::string SystemLog::Native(const LogEntry& entry) const {
    std::string text = "MESSAGE=" + entry.text;
    text += "\nPRIORITY=" + std::to_string(entry.priority);
    text += "\nSYSLOG_FACILITY=" + std::to_string(entry.facility);
    text += "\nSYSLOG_IDENTIFIER=" + identifier;
    text += "\nSYSLOG_PID=" + std::to_string(getpid());
    text += "\nSYSLOG_TIMESTAMP=" + TimeText(entry.when) + "\n";
    for (const auto& field : entry.fields) {
        text.append(field.first).append("=").append(field.second).append("\n");
    }
    return text;
}

std::string SystemLog::Classic(const LogEntry& entry) const {
    return "<" + std::to_string(entry.facility * 8 + entry.priority) + ">" + TimeText(entry.when) +
           identifier + ": " + entry.text;
}

LogQueue::Offered SystemLog::Offer(LogEntry& entry) {
    // The second time for a daemon that has been started anew.
    for (int attempt = 0; attempt < 2 && (socket || Connect()); ++attempt) {
        const std::string text = native ? Native(entry) : Classic(entry);
        if (send(socket.Get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            return Offered::kTaken;
        }
        if (IsBusy(errno)) {
            return Offered::kLater;
        }
        if (errno == EMSGSIZE || errno == ENOBUFS || errno == ENOMEM) {
            return Offered::kRefused;
        }
        StopWaiting();
        socket.Reset();
    }
    fallback.Write(entry);
    return Offered::kTaken;
}

}  // namespace agent
