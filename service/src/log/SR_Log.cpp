// SPDX-License-Identifier: Apache-2.0
#include "SR_Log.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>

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

// The stream that this thread's lines may borrow: null when there is none, or while it is taken.
thread_local std::stringstream* lent = nullptr;

}  // namespace

SR_LogText::SR_LogText() : stream(lent) {
    if (stream == nullptr) {
        stream = &own.emplace();
        return;
    }
    lent = nullptr;
    stream->clear();
    stream->flags(std::ios_base::skipws | std::ios_base::dec);
    stream->str(std::string());
}

SR_LogText::~SR_LogText() {
    if (!own) {
        lent = stream;
    }
}

SR_LogLoan::SR_LogLoan() {
    lent = &stream;
}

SR_LogLoan::~SR_LogLoan() {
    lent = nullptr;
}

// The statement's own line is part of the entry: it tells which level logged.
#define SR_PLATFORM_LOG(priority, text) \
    __dlog_print(kMainLog, priority, kTag, kFormat, BaseName(__FILE__), __func__, __LINE__, text)

void SR_Log::PrintMessage(EDebugLevel level, const char* file, const char* function, int line,
                          const std::stringstream& text) {
    // Composed before the level is looked at: a dropped line costs what a written one does.
    char digits[16];
    const char* const digitsEnd = std::to_chars(digits, digits + sizeof(digits), line).ptr;
    const std::string_view number(digits, static_cast<std::size_t>(digitsEnd - digits));
    const std::string_view pieces[] = {"[SR] [", BaseName(file), "(",  function,
                                       "() +",   number,         ")]", text.view()};
    std::size_t size = 1;  // the NUL
    for (const std::string_view& piece : pieces) {
        size += piece.size();
    }
    char usual[512];
    std::string longer;  // for an entry that does not fit there
    if (size > sizeof(usual)) {
        longer.resize(size);
    }
    char* const entry = size > sizeof(usual) ? longer.data() : usual;
    char* end = entry;
    for (const std::string_view& piece : pieces) {
        end = std::copy(piece.begin(), piece.end(), end);
    }
    *end = '\0';

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
