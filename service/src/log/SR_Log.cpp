// SPDX-License-Identifier: Apache-2.0
#include "SR_Log.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "SR_LogImpl.h"

namespace sentrel {

namespace {

const int kMainLog = 0;
const char kTag[] = "SENTREL";
const char kFormat[] = "%s: %s(%d) > %s";

enum PlatformPriority { kDebug = 3, kInfo = 4, kWarning = 5, kError = 6 };

const char* BaseName(const char* file) {
    const char* slash = std::strrchr(file, '/');
    return slash != nullptr ? slash + 1 : file;
}

}  // namespace

SR_LogText& SR_LogText::operator<<(int number) {
    char digits[16];
    const char* const last = std::to_chars(digits, std::end(digits), number).ptr;
    return Append(digits, static_cast<std::size_t>(last - digits));
}

SR_LogText& SR_LogText::operator<<(const void* pointer) {
    if (pointer == nullptr) {
        return *this << 0;  // without 0x
    }
    char digits[2 + 2 * sizeof(std::uintptr_t)] = {'0', 'x'};
    const auto value = reinterpret_cast<std::uintptr_t>(pointer);
    const char* const last = std::to_chars(digits + 2, std::end(digits), value, 16).ptr;
    return Append(digits, static_cast<std::size_t>(last - digits));
}

SR_LogText& SR_LogText::AppendLong(const char* text, std::size_t size) {
    if (!cut) {
        // Room to grow for small pieces only: a large one is likely to be the line's last.
        const std::size_t before = Size();
        std::string larger;
        larger.reserve(before + size + std::min(before, size));
        larger.append(Text(), before).append(text, size);
        larger.resize(larger.capacity());
        longer.swap(larger);
        end = longer.data() + before + size;
        limit = longer.data() + longer.size();  // a string has room for a NUL behind that
    }
    return *this;
}

SR_LogText& SR_LogText::Cut() {
    cut = true;
    limit = end;
    return *this;
}

// The statement's own line is part of the entry: it tells which level logged.
#define SR_PLATFORM_LOG(priority, text) \
    __dlog_print(kMainLog, priority, kTag, kFormat, BaseName(__FILE__), __func__, __LINE__, text)

void SR_Log::PrintMessage(EDebugLevel level, const char* file, const char* function, int line,
                          const SR_LogText& text) {
    // Composed before the level is looked at: a dropped line costs what a written one does.
    SR_LogText whole;
    whole << "[SR] [" << BaseName(file) << "(" << function << "() +" << line << ")]";
    const char* const entry = whole.Append(text.Text(), text.Size()).Terminated();

    switch (level) {
        case DBG:
            SR_PLATFORM_LOG(kDebug, entry);
            break;
        case INFO:
            SR_PLATFORM_LOG(kInfo, entry);
            break;
        case WARN:
            SR_PLATFORM_LOG(kWarning, entry);
            break;
        case ERR:
            SR_PLATFORM_LOG(kError, entry);
            break;
        // Deliberate: VERBOSE and FATAL are dropped like the values that are no levels of a line
        // (pinned by LogTest, "OnlyTheFourMiddleLevelsReachThePlatformLog").
        case UNK:
        case VERBOSE:
        case FATAL:
        case SILENT:
        default:
            break;
    }
}

void SR_Log::PrintMessage(EDebugLevel level, const char* file, const char* function, int line,
                          const std::stringstream& text) {
    SR_LogText body;
    body << text.str();
    PrintMessage(level, file, function, line, body);
}

const char* SR_Log::LevelToChars(EDebugLevel level) {
    switch (level) {
        case VERBOSE:
            return "VERBOSE";
        case DBG:
            return "DBG";
        case INFO:
            return "INFO";
        case WARN:
            return "WARN";
        case ERR:
            return "ERR";
        case FATAL:
            return "FATAL";
        case SILENT:
            return "SILENT";
        case UNK:
        default:
            return "UNK";
    }
}

}  // namespace sentrel
