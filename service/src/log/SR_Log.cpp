// SPDX-License-Identifier: Apache-2.0
#include "SR_Log.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

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

// A number's characters, put together from the last to the first.
class Digits {
public:
    void Put(char character) { *--begin = character; }
    template <unsigned Base>
    void Put(std::uintptr_t value) {
        do {
            Put("0123456789abcdef"[value % Base]);
            value /= Base;
        } while (value != 0);
    }

    const char* Begin() const { return begin; }
    std::size_t Size() const {
        return static_cast<std::size_t>(characters + sizeof(characters) - begin);
    }

private:
    char characters[3 * sizeof(std::uintptr_t)];
    char* begin = characters + sizeof(characters);
};

}  // namespace

SR_LogText& SR_LogText::operator<<(int number) {
    const std::uintptr_t value =
        number < 0 ? -static_cast<std::uintptr_t>(number) : static_cast<std::uintptr_t>(number);
    Digits digits;
    digits.Put<10>(value);
    if (number < 0) {
        digits.Put('-');
    }
    return Append(digits.Begin(), digits.Size());
}

SR_LogText& SR_LogText::operator<<(const void* pointer) {
    const auto value = reinterpret_cast<std::uintptr_t>(pointer);
    Digits digits;
    digits.Put<16>(value);
    if (value != 0) {  // null is a plain 0
        digits.Put('x');
        digits.Put('0');
    }
    return Append(digits.Begin(), digits.Size());
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

void PrintMessage(SR_Log::EDebugLevel level, const char* file, const char* function, int line,
                  const char* text, std::size_t size) {
    // Composed before the level is looked at: a dropped line costs what a written one does.
    SR_LogText whole;
    whole << "[SR] [" << BaseName(file) << "(" << function << "() +" << line << ")]";
    const char* const entry = whole.Append(text, size).Terminated();

    switch (level) {
        case SR_Log::DBG:
            SR_PLATFORM_LOG(kDebug, entry);
            break;
        case SR_Log::INFO:
            SR_PLATFORM_LOG(kInfo, entry);
            break;
        case SR_Log::WARN:
            SR_PLATFORM_LOG(kWarning, entry);
            break;
        case SR_Log::ERR:
            SR_PLATFORM_LOG(kError, entry);
            break;
        // Deliberate: VERBOSE and FATAL are dropped like the values that are no levels of a line
        // (pinned by LogTest, "OnlyTheFourMiddleLevelsReachThePlatformLog").
        case SR_Log::UNK:
        case SR_Log::VERBOSE:
        case SR_Log::FATAL:
        case SR_Log::SILENT:
        default:
            break;
    }
}

void SR_Log::PrintMessage(EDebugLevel level, const char* file, const char* function, int line,
                          const std::stringstream& text) {
    const std::string body = text.str();
    sentrel::PrintMessage(level, file, function, line, body.data(), body.size());
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
