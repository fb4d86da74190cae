// SPDX-License-Identifier: Apache-2.0
// Inside the library: the log statement, and the platform log below the sink.
#ifndef SENTREL_SR_LOGIMPL_H
#define SENTREL_SR_LOGIMPL_H

#include "SR_Log.h"

// Writes one line; `expression` is what follows "stream <<". Where the line's number matters, the
// statement stands on one source line: compilers differ on a macro call that spans several.
#define SR_LOG(level, expression)                                                               \
    do {                                                                                        \
        std::stringstream srLogText;                                                            \
        srLogText << expression;                                                                \
        ::sentrel::SR_Log::PrintMessage(::sentrel::SR_Log::level, __FILE__, __func__, __LINE__, \
                                        srLogText);                                             \
    } while (false)

// The platform log. A definition found earlier at load time takes the call, so a program may
// define this function itself to receive every line. Called from any thread; its result is ignored.
extern "C" SR_EXPORT int __dlog_print(int log_id, int priority, const char* tag, const char* format,
                                      ...) __attribute__((format(printf, 4, 5)));

#endif
