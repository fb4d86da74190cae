// SPDX-License-Identifier: Apache-2.0
// The log sink: what one line looks like when it reaches the platform log, and which lines do.
#include "SR_Log.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <locale>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "LogRecorder.h"
#include "SR_LogImpl.h"

namespace {

using sentrel::SR_Log;
using sentrel::SR_LogText;
using test::LogLine;
using test::TakeLog;

// Prints one line and returns the entries that came of it.
std::vector<LogLine> Print(SR_Log::EDebugLevel level, const char* file, const char* function,
                           int line, const std::string& body) {
    TakeLog();
    std::stringstream text;
    text << body;
    SR_Log::PrintMessage(level, file, function, line, text);
    return TakeLog();
}

std::string TextOf(const char* file, const char* function, int line, const std::string& body) {
    const std::vector<LogLine> lines = Print(SR_Log::DBG, file, function, line, body);
    EXPECT_EQ(1u, lines.size());
    return lines.empty() ? "(nothing)" : lines[0].text;
}

TEST(LogTest, OnlyTheFourMiddleLevelsReachThePlatformLog) {
    const int notLogged = -1;
    const struct {
        int level;
        int priority;
    } table[] = {{-1, notLogged},
                 {0, notLogged},
                 {1, notLogged},
                 {2, 3},
                 {3, 4},
                 {4, 5},
                 {5, 6},
                 {6, notLogged},
                 {7, notLogged},
                 {8, notLogged},
                 {9, notLogged},
                 {INT_MAX, notLogged},
                 {INT_MIN, notLogged},
                 {1 << 8, notLogged},
                 {66, notLogged}};
    for (const auto& row : table) {
        SCOPED_TRACE(row.level);
        const std::vector<LogLine> lines =
            Print(static_cast<SR_Log::EDebugLevel>(row.level), "f.cpp", "F", 1, "text");
        if (row.priority == notLogged) {
            EXPECT_TRUE(lines.empty());
        } else {
            ASSERT_EQ(1u, lines.size());
            EXPECT_EQ(row.priority, lines[0].priority);
            EXPECT_EQ("[SR] [f.cpp(F() +1)]text", lines[0].text);
        }
    }
}

TEST(LogTest, TheLevelsHaveTheirFixedValues) {
    EXPECT_EQ(0, SR_Log::UNK);
    EXPECT_EQ(1, SR_Log::VERBOSE);
    EXPECT_EQ(2, SR_Log::DBG);
    EXPECT_EQ(3, SR_Log::INFO);
    EXPECT_EQ(4, SR_Log::WARN);
    EXPECT_EQ(5, SR_Log::ERR);
    EXPECT_EQ(6, SR_Log::FATAL);
    EXPECT_EQ(7, SR_Log::SILENT);
    static_assert(sizeof(SR_Log::EDebugLevel) == sizeof(int), "passed as an int");
}

TEST(LogTest, EveryLevelHasItsName) {
    const char* const names[] = {"UNK", "VERBOSE", "DBG", "INFO", "WARN", "ERR", "FATAL", "SILENT"};
    for (int level = 0; level <= 7; ++level) {
        EXPECT_STREQ(names[level], SR_Log::LevelToChars(static_cast<SR_Log::EDebugLevel>(level)));
    }
}

TEST(LogTest, AValueThatIsNoLevelIsNamedUnk) {
    for (const int level : {8, 9, -1, INT_MAX, INT_MIN}) {
        EXPECT_STREQ("UNK", SR_Log::LevelToChars(static_cast<SR_Log::EDebugLevel>(level))) << level;
    }
}

TEST(LogTest, AnEntryHasTheMainBufferTheTagAndTheFormat) {
    const std::vector<LogLine> lines = Print(SR_Log::INFO, "a/b.cpp", "F", 5, "x");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(0, lines[0].id);
    EXPECT_EQ("SENTREL", lines[0].tag);
    EXPECT_EQ("%s: %s(%d) > %s", lines[0].format);
}

TEST(LogTest, TheSinkNamesItsOwnFileFunctionAndLine) {
    const std::vector<LogLine> lines = Print(SR_Log::WARN, "elsewhere/x.cpp", "Other", 5, "x");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("SR_Log.cpp", lines[0].sinkFile);
    EXPECT_EQ("PrintMessage", lines[0].sinkFunction);
    EXPECT_GT(lines[0].sinkLine, 0);
}

TEST(LogTest, EachLevelIsLoggedByAStatementOfItsOwn) {
    std::set<int> sinkLines;
    for (const SR_Log::EDebugLevel level : {SR_Log::DBG, SR_Log::INFO, SR_Log::WARN, SR_Log::ERR}) {
        const std::vector<LogLine> first = Print(level, "f", "F", 1, "");
        const std::vector<LogLine> again = Print(level, "g", "G", 2, "x");
        ASSERT_EQ(1u, first.size());
        ASSERT_EQ(1u, again.size());
        EXPECT_EQ(first[0].sinkLine, again[0].sinkLine);
        sinkLines.insert(first[0].sinkLine);
    }
    EXPECT_EQ(4u, sinkLines.size());
}

TEST(LogTest, TheLineIsComposedWithoutFurtherBlanks) {
    EXPECT_EQ("[SR] [B.cpp(Toggle() +105)]T", TextOf("service/src/B.cpp", "Toggle", 105, "T"));
}

TEST(LogTest, AFileWithoutASlashIsUsedWhole) {
    EXPECT_EQ("[SR] [plain(F() +1)]x", TextOf("plain", "F", 1, "x"));
    EXPECT_EQ("[SR] [(F() +1)]x", TextOf("", "F", 1, "x"));
}

TEST(LogTest, AFileThatEndsInASlashHasAnEmptyBaseName) {
    EXPECT_EQ("[SR] [(F() +1)]x", TextOf("a/b/", "F", 1, "x"));
    EXPECT_EQ("[SR] [(F() +1)]x", TextOf("/", "F", 1, "x"));
}

TEST(LogTest, TheBaseNameFollowsTheLastSlash) {
    EXPECT_EQ("[SR] [c(F() +1)]x", TextOf("/a//b/c", "F", 1, "x"));
    EXPECT_EQ("[SR] [root(F() +1)]x", TextOf("/root", "F", 1, "x"));
    EXPECT_EQ("[SR] [a\\b(F() +1)]x", TextOf("a\\b", "F", 1, "x"));
}

TEST(LogTest, AnEmptyStreamEndsTheLineAtTheBracket) {
    EXPECT_EQ("[SR] [f(F() +1)]", TextOf("f", "F", 1, ""));
}

TEST(LogTest, ANegativeLineKeepsItsMinusSign) {
    EXPECT_EQ("[SR] [f(F() +-7)]x", TextOf("f", "F", -7, "x"));
    EXPECT_EQ("[SR] [f(F() +0)]x", TextOf("f", "F", 0, "x"));
    EXPECT_EQ("[SR] [f(F() +2147483647)]x", TextOf("f", "F", INT_MAX, "x"));
    EXPECT_EQ("[SR] [f(F() +-2147483648)]x", TextOf("f", "F", INT_MIN, "x"));
}

TEST(LogTest, ADestructorKeepsItsTilde) {
    EXPECT_EQ("[SR] [f(~Thing() +3)]x", TextOf("f", "~Thing", 3, "x"));
}

TEST(LogTest, PercentSignsInTheTextAreNotAFormat) {
    EXPECT_EQ("[SR] [f%s(F%n() +1)]%s %d %n", TextOf("f%s", "F%n", 1, "%s %d %n"));
}

TEST(LogTest, ATextOfAnyLengthIsPassedOnWhole) {
    for (std::size_t size = 0; size < 1100; ++size) {
        const std::string body(size, 'x');
        ASSERT_EQ("[SR] [f(F() +1)]" + body, TextOf("f", "F", 1, body));
    }
    const std::string body(100000, 'x');
    EXPECT_EQ("[SR] [f(F() +1)]" + body, TextOf("f", "F", 1, body));
}

TEST(LogTest, TheStreamIsLeftAsItWas) {
    TakeLog();
    std::stringstream text;
    text << "kept";
    SR_Log::PrintMessage(SR_Log::ERR, "f", "F", 1, text);
    SR_Log::PrintMessage(SR_Log::ERR, "f", "F", 1, text);
    EXPECT_EQ(2u, TakeLog().size());
    text << " on";
    EXPECT_EQ("kept on", text.str());
}

// What the log statements of one thread wrote, bodies only.
std::vector<std::string> Bodies() {
    std::vector<std::string> bodies;
    for (const LogLine& line : TakeLog()) {
        bodies.push_back(line.Body());
    }
    return bodies;
}

// One piece of a line: what the library's lines are made of.
struct Piece {
    enum Kind { kChars, kString, kNumber, kPointer } kind;
    std::string text;
    int number;
    const void* pointer;
};

template <typename Out>
void Stream(Out& out, const Piece& piece) {
    switch (piece.kind) {
        case Piece::kChars:
            out << piece.text.c_str();
            break;
        case Piece::kString:
            out << piece.text;
            break;
        case Piece::kNumber:
            out << piece.number;
            break;
        case Piece::kPointer:
            out << piece.pointer;
            break;
    }
}

std::string Composed(const SR_LogText& text) {
    return std::string(text.Text(), text.Size());
}

TEST(LogTest, ATextIsComposedAsAStringStreamComposesIt) {
    std::mt19937 random(1);
    const auto below = [&random](unsigned limit) {
        return static_cast<unsigned>(random() % limit);
    };
    const int numbers[] = {0, 1, -1, 9, 10, -10, 35, 193, INT_MAX, INT_MIN};
    for (int round = 0; round < 20000; ++round) {
        SR_LogText text;
        std::stringstream stream;
        stream.imbue(std::locale::classic());
        for (unsigned pieces = below(8); pieces > 0; --pieces) {
            Piece piece = {};
            piece.kind = static_cast<Piece::Kind>(below(4));
            // Now and then long enough to leave the place that lines usually fit into.
            piece.text.assign(below(12) == 0 ? below(2000) : below(40),
                              static_cast<char>(below(256)));
            piece.number = below(2) == 0 ? numbers[below(10)] : static_cast<int>(random());
            const std::uintptr_t address = below(8) == 0 ? 0 : random() * std::uintptr_t(random());
            piece.pointer = reinterpret_cast<const void*>(address);
            Stream(text, piece);
            Stream(stream, piece);
        }
        ASSERT_EQ(stream.str(), Composed(text));
        ASSERT_EQ('\0', text.Terminated()[text.Size()]);
    }
}

TEST(LogTest, ATextGrowsByAnyPieceAtAnyLength) {
    for (const std::size_t step : {1u, 2u, 3u, 7u, 64u, 359u, 360u}) {
        SR_LogText text;
        std::string expected;
        while (expected.size() < 2000) {
            const std::string piece(step, static_cast<char>('a' + expected.size() % 26));
            text << piece;
            expected += piece;
            // The whole is read with its NUL each time: it must lie within what is held.
            ASSERT_EQ(expected, text.Terminated());
            ASSERT_EQ(expected.size(), text.Size());
        }
    }
}

TEST(LogTest, ALineEndsBeforeANullText) {
    TakeLog();
    const char* missing = nullptr;
    SR_LOG(DBG, "cut at a null: " << missing << " lost " << 1 << std::string(1000, 'x') << missing);
    SR_LOG(DBG, std::string(1000, 'x') << missing << "lost");
    SR_LOG(DBG, "next");
    EXPECT_EQ((std::vector<std::string>{"cut at a null: ", std::string(1000, 'x'), "next"}),
              Bodies());
}

// Groups digits in threes, as many a language does.
struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(LogTest, ANumberIsTheSameInEveryLocaleOfTheProgram) {
    TakeLog();
    const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
    EXPECT_NO_THROW(
        SR_LOG(DBG, 1234567 << " " << reinterpret_cast<const void*>(std::uintptr_t(0x1234567))));
    std::locale::global(before);
    EXPECT_EQ((std::vector<std::string>{"1234567 0x1234567"}), Bodies());
}

TEST(LogTest, ManyThreadsLogWholeLines) {
    TakeLog();
    const int kThreads = 4;
    const int kLines = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) {
                std::stringstream text;
                text << "thread " << t;
                SR_Log::PrintMessage(SR_Log::DBG, "f", "F", i, text);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::multiset<std::string> seen;
    for (const LogLine& line : TakeLog()) {
        seen.insert(line.text);
    }
    EXPECT_EQ(static_cast<std::size_t>(kThreads * kLines), seen.size());
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kLines; ++i) {
            const std::string text =
                "[SR] [f(F() +" + std::to_string(i) + ")]thread " + std::to_string(t);
            EXPECT_EQ(1u, seen.count(text)) << text;
        }
    }
}

}  // namespace
