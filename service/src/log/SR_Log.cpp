// SPDX-License-Identifier: Apache-2.0
#include "SR_Log.h"

#include <cstring>
#include <string>

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

// The statement's own line is part of the entry: it tells which level logged.
#define SR_PLATFORM_LOG(priority, text) \
    __dlog_print(kMainLog, priority, kTag, kFormat, BaseName(__FILE__), __func__, __LINE__, text)

void SR_Log::PrintMessage(EDebugLevel level, const char* file, const char* function, int line,
                          const std::stringstream& text) {
    // Composed before the level is looked at: a dropped line costs what a written one does.
    const char* base = BaseName(file);
    const std::string number = std::to_string(line);
    const std::string body = text.str();
    std::string entry;
    entry.reserve(std::strlen(base) + std::strlen(function) + number.size() + body.size() + 16);
    entry.append("[SR] [").append(base).append("(").append(function).append("() +");
    entry.append(number).append(")]").append(body);

    switch (level) {
        case DBG:
            SR_PLATFORM_LOG(kDebug, entry.c_str());
            break;
        case INFO:
            SR_PLATFORM_LOG(kInfo, entry.c_str());
            break;
        case WARN:
            SR_PLATFORM_LOG(kWarning, entry.c_str());
            break;
        case ERR:
            SR_PLATFORM_LOG(kError, entry.c_str());
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
