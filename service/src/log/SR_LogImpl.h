// SPDX-License-Identifier: Apache-2.0
// Inside the library: the log statement, and the platform log below the sink.
#ifndef SENTREL_SR_LOGIMPL_H
#define SENTREL_SR_LOGIMPL_H

#include <optional>
#include <sstream>

#include "SR_Log.h"

namespace sentrel {

// The string stream of one log line. Constructing one costs more than the rest of the line, so
// this borrows the stream that the thread's SR_LogLoan holds ready; without one, or while it is
// taken, it makes its own. Every line begins with an empty, good stream either way.
// Owned by the log statement it stands in; lives and dies on one thread.
class SR_LogText {
public:
    SR_LogText();
    ~SR_LogText();
    SR_LogText(const SR_LogText&) = delete;
    SR_LogText& operator=(const SR_LogText&) = delete;

    std::stringstream& Stream() { return *stream; }

private:
    std::optional<std::stringstream> own;
    std::stringstream* stream;
};

// Lends one string stream, in the locale of this moment, to the log lines of the thread that
// constructed it, one after another, until it is destroyed on that thread. After a loan within a
// loan has ended there is none: the lines of the rest make their own.
class SR_LogLoan {
public:
    SR_LogLoan();
    ~SR_LogLoan();
    SR_LogLoan(const SR_LogLoan&) = delete;
    SR_LogLoan& operator=(const SR_LogLoan&) = delete;

private:
    std::stringstream stream;
};

}  // namespace sentrel

// Writes one line; `expression` is what follows "stream <<". Where the line's number matters, the
// statement stands on one source line: compilers differ on a macro call that spans several.
#define SR_LOG(level, expression)                                                               \
    do {                                                                                        \
        ::sentrel::SR_LogText srLogText;                                                        \
        srLogText.Stream() << expression;                                                       \
        ::sentrel::SR_Log::PrintMessage(::sentrel::SR_Log::level, __FILE__, __func__, __LINE__, \
                                        srLogText.Stream());                                    \
    } while (false)

// The platform log. A definition found earlier at load time takes the call, so a program may
// define this function itself to receive every line. Called from any thread; its result is ignored.
extern "C" SR_EXPORT int __dlog_print(int log_id, int priority, const char* tag, const char* format,
                                      ...) __attribute__((format(printf, 4, 5)));

#endif
