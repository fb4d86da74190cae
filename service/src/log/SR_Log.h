// SPDX-License-Identifier: Apache-2.0
// The one sink of all diagnostic lines: each becomes one entry of the platform log, under the tag
// "SENTREL". Static functions only, no state; safe to call from any thread at any time.
#ifndef SENTREL_SR_LOG_H
#define SENTREL_SR_LOG_H

#include <sstream>

#include "SR_Export.h"

namespace sentrel {

class SR_LogText;

class SR_EXPORT SR_Log {
public:
    // One below the platform log's own priorities.
    enum EDebugLevel : int {
        UNK = 0,
        VERBOSE = 1,
        DBG = 2,
        INFO = 3,
        WARN = 4,
        ERR = 5,
        FATAL = 6,
        SILENT = 7
    };

    // Writes "[SR] [FILE(FUNCTION() +LINE)]TEXT", FILE being the base name of `file`. Only DBG,
    // INFO, WARN and ERR are written; any other level is dropped. `file` and `function` must not be
    // null. Throws nothing but the standard library's allocation and length errors.
    static void PrintMessage(EDebugLevel level, const char* file, const char* function, int line,
                             const std::stringstream& text);
    // The same for the library's own lines, whose text is composed without a stream.
    SR_HIDDEN static void PrintMessage(EDebugLevel level, const char* file, const char* function,
                                       int line, const SR_LogText& text);

    // The enumerator's name as a static text; "UNK" for a value outside the enumeration.
    static const char* LevelToChars(EDebugLevel level);
};

}  // namespace sentrel

#endif
