// SPDX-License-Identifier: Apache-2.0
#include "LogRecorder.h"

#include <cstdarg>
#include <mutex>
#include <regex>

extern "C" __attribute__((visibility("default"))) int __dlog_print(int log_id, int priority,
                                                                   const char* tag,
                                                                   const char* format, ...);

namespace test {

namespace {

std::mutex& Mutex() {
    static std::mutex mutex;
    return mutex;
}

std::vector<LogLine>& Lines() {
    static std::vector<LogLine> lines;
    return lines;
}

// The part of a line's text: 1 file, 2 function, 3 line, 4 body.
std::string Part(const std::string& text, std::size_t index) {
    static const std::regex kShape(R"(\[SR\] \[([^(]*)\(([^)]*)\(\) \+(-?\d+)\)\]([\s\S]*))");
    std::smatch match;
    return std::regex_match(text, match, kShape) ? match[index].str() : std::string();
}

char Letter(int priority) {
    return priority >= 3 && priority <= 6 ? "DIWE"[priority - 3] : '?';
}

}  // namespace

std::string LogLine::File() const {
    return Part(text, 1);
}

std::string LogLine::Function() const {
    return Part(text, 2);
}

int LogLine::Line() const {
    const std::string number = Part(text, 3);
    return number.empty() ? -1 : std::stoi(number);
}

std::string LogLine::Body() const {
    return Part(text, 4);
}

std::vector<LogLine> TakeLog() {
    const std::lock_guard<std::mutex> lock(Mutex());
    std::vector<LogLine> taken;
    taken.swap(Lines());
    return taken;
}

std::vector<std::string> Brief(const std::vector<LogLine>& lines) {
    static const std::regex kPointer("0x[0-9a-f]+");
    static const std::regex kUnique(R"(:\d+\.\d+)");
    std::vector<std::string> result;
    for (const LogLine& line : lines) {
        std::string body = std::regex_replace(line.Body(), kPointer, "PTR");
        body = std::regex_replace(body, kUnique, ":UNIQUE");
        result.push_back(std::string(1, Letter(line.priority)) + " " + line.Function() + " " +
                         body);
    }
    return result;
}

}  // namespace test

int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...) {
    test::LogLine line;
    line.id = log_id;
    line.priority = priority;
    line.tag = tag;
    line.format = format;
    va_list arguments;
    va_start(arguments, format);
    if (line.format == "%s: %s(%d) > %s") {
        line.sinkFile = va_arg(arguments, const char*);
        line.sinkFunction = va_arg(arguments, const char*);
        line.sinkLine = va_arg(arguments, int);
        line.text = va_arg(arguments, const char*);
    }
    va_end(arguments);
    const std::lock_guard<std::mutex> lock(test::Mutex());
    test::Lines().push_back(line);
    return 0;
}
