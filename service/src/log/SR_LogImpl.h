// SPDX-License-Identifier: Apache-2.0
// Inside the library: the log statement, and the platform log below the sink.
#ifndef SENTREL_SR_LOGIMPL_H
#define SENTREL_SR_LOGIMPL_H

#include <cstddef>
#include <cstring>
#include <string>

#include "SR_Log.h"

namespace sentrel {

// The text of one log line, as a string stream in the classic locale would compose it. A stream
// costs more than all the rest of a line: its locale, its facets and its buffer are spread over
// the standard library, and every line of a call finds them out of the caches again.
// Owned by the log statement it stands in. Throws only std::bad_alloc and std::length_error.
class SR_LogText {
public:
    SR_LogText() = default;
    SR_LogText(const SR_LogText&) = delete;
    SR_LogText& operator=(const SR_LogText&) = delete;

    SR_LogText& Append(const char* text, std::size_t size) {
        if (size > static_cast<std::size_t>(limit - end)) {
            return AppendLong(text, size);
        }
        std::memcpy(end, text, size);
        end += size;
        return *this;
    }
    // A null text, and whatever comes after it, is dropped.
    SR_LogText& operator<<(const char* text) {
        return text != nullptr ? Append(text, std::strlen(text)) : Cut();
    }
    SR_LogText& operator<<(const std::string& text) { return Append(text.data(), text.size()); }
    SR_LogText& operator<<(int number);
    SR_LogText& operator<<(const void* pointer);
    // No line needs these, and none may become an int unnoticed.
    SR_LogText& operator<<(char) = delete;
    SR_LogText& operator<<(unsigned) = delete;
    SR_LogText& operator<<(long) = delete;
    SR_LogText& operator<<(unsigned long) = delete;

    // Valid until the next change or the end of this object.
    const char* Text() const { return longer.empty() ? usual : longer.data(); }
    std::size_t Size() const { return static_cast<std::size_t>(end - Text()); }
    // The same with a NUL behind it.
    const char* Terminated() {
        *end = '\0';
        return Text();
    }

private:
    SR_LogText& AppendLong(const char* text, std::size_t size);
    SR_LogText& Cut();

    char* end = usual;                        // behind what has been composed
    char* limit = usual + sizeof(usual) - 1;  // as far as `end` may go, with room for a NUL
    bool cut = false;
    std::string longer;  // holds everything once it does not fit below
    char usual[360];
};

}  // namespace sentrel

// Writes one line; `expression` is what follows "text <<". Where the line's number matters, the
// statement stands on one source line: compilers differ on a macro call that spans several.
#define SR_LOG(level, expression)                                                               \
    do {                                                                                        \
        ::sentrel::SR_LogText srLogText;                                                        \
        srLogText << expression;                                                                \
        ::sentrel::SR_Log::PrintMessage(::sentrel::SR_Log::level, __FILE__, __func__, __LINE__, \
                                        srLogText);                                             \
    } while (false)

// The platform log. A definition found earlier at load time takes the call, so a program may
// define this function itself to receive every line. Called from any thread; its result is ignored.
extern "C" SR_EXPORT int __dlog_print(int log_id, int priority, const char* tag, const char* format,
                                      ...) __attribute__((format(printf, 4, 5)));

#endif
