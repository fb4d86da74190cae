// SPDX-License-Identifier: Apache-2.0
#include "Audit.h"

#include <utf8.h>

#include <algorithm>
#include <ostream>

#include "Log.h"
#include "base/Text.h"

namespace agent {

namespace {

const std::size_t kLongestField = 512;
const std::size_t kLongestArguments = 4096;

const char* const kSecretNames[] = {"password", "passwd", "pass", "pw", "cred", "secret"};

char Lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

// None of the controls, of the separators of lines and paragraphs, and of the marks that turn the
// direction of the text.
bool IsPrintable(unsigned character) {
    return character >= 0x20 && !(character >= 0x7f && character < 0xa0) &&
           !(character >= 0x2028 && character <= 0x202e) &&
           !(character >= 0x2066 && character <= 0x2069) && character != 0x200e &&
           character != 0x200f;
}

}  // namespace

// Its values as text and as fields.
class Audit::Line {
public:
    Line(const char* phase, const AuditRequest& request) {
        std::string arguments;
        for (const std::string& word : request.arguments) {
            arguments += arguments.empty() ? "" : " ";
            arguments += Redact(word, request.split);
        }
        Word("phase", phase);
        Number("id", request.id);
        Number("uid", static_cast<long>(request.uid));
        Number("pid", request.pid);
        Text("exe", request.executable);
        Text("agent", request.operation);
        Text("args", arguments, kLongestArguments);
        Text("rule", request.rule);
    }

    void Word(const char* name, const std::string& value) { Add(name, value, value); }
    template <typename Value>
    void Number(const char* name, Value value) {
        Word(name, std::to_string(value));
    }
    void Text(const char* name, const std::string& value, std::size_t cap = kLongestField) {
        const std::string quoted = Quote(value, cap);
        Add(name, quoted, quoted.substr(1, quoted.size() - 2));
    }
    const LogEntry& Get() const { return entry; }

private:
    void Add(const char* name, const std::string& shown, const std::string& value) {
        entry.text.append(entry.text.empty() ? "" : " ").append(name).append("=").append(shown);
        std::string field = "SENTREL_";
        for (const char* letter = name; *letter != '\0'; ++letter) {
            field += *letter >= 'a' ? static_cast<char>(*letter - 'a' + 'A') : *letter;
        }
        entry.fields.emplace_back(field, value);
    }

    LogEntry entry;
};

Audit::Audit(LogQueue& log_) : log(&log_), out(nullptr) {}

Audit::Audit(std::ostream& out_) : log(nullptr), out(&out_) {}

void Audit::Before(const AuditRequest& request) {
    Line line("start", request);
    line.Word("decision", "allow");
    Write(line);
}

void Audit::After(const AuditRequest& request, const Outcome& outcome) {
    Line line("end", request);
    line.Word("decision", "allow");
    line.Number("status", outcome.status);
    line.Number("exit", outcome.exit);
    line.Number("signal", outcome.signal);
    line.Number("duration_ms", outcome.duration.count());
    line.Number("out_bytes", outcome.outBytes);
    line.Number("dropped_bytes", outcome.droppedBytes);
    line.Text("reason", outcome.reason);
    Write(line);
}

void Audit::Denied(const AuditRequest& request, int status, const std::string& reason) {
    Line line("end", request);
    line.Word("decision", "deny");
    line.Number("status", status);
    line.Text("reason", reason);
    Write(line);
}

std::string Audit::Quote(const std::string& text, std::size_t cap) {
    const std::string kept = text.substr(0, cap);
    std::string quoted = "\"";
    for (auto at = kept.begin(); at != kept.end();) {
        const auto malformed = utf8::find_invalid(at, kept.end());
        while (at != malformed) {
            const auto from = at;
            if (IsPrintable(utf8::unchecked::next(at))) {
                quoted += *from == '"' || *from == '\\' ? "\\" : "";
                quoted.append(from, at);
            } else {
                std::for_each(from, at, [&quoted](char byte) { quoted += HexByte(byte); });
            }
        }
        if (at != kept.end()) {
            quoted += HexByte(*at++);
        }
    }
    return quoted + (text.size() > cap ? "...\"" : "\"");
}

// A password may hold commas, so nothing behind its name is shown. Text that could not be split may
// hide the name between quotes and backslashes, which are left out of the search; where they hide
// one, nothing at all is shown.
std::string Audit::Redact(const std::string& word, bool split) {
    std::string plain;
    for (const char letter : word) {
        if (split || (letter != '\'' && letter != '"' && letter != '\\')) {
            plain += Lower(letter);
        }
    }
    std::size_t from = std::string::npos;
    for (const char* name : kSecretNames) {
        for (std::size_t at = plain.find(name); at != std::string::npos;
             at = plain.find(name, at + 1)) {
            const std::size_t equals = plain.find('=', at);
            const std::size_t comma = plain.find(',', at);
            if (equals != std::string::npos && (equals < comma)) {
                from = std::min(from, equals);
            }
        }
    }
    // The old form, user=NAME%PASSWORD.
    const std::size_t user = plain.find("user");
    if (user != std::string::npos && plain.find('=', user) != std::string::npos) {
        from = std::min(from, plain.find('%', user));
    }
    if (from == std::string::npos) {
        return word;
    }
    return split ? word.substr(0, from + 1) + "***" : "***";
}

bool Audit::HidesSome(const AuditRequest& request) {
    return std::any_of(
        request.arguments.begin(), request.arguments.end(),
        [&request](const std::string& word) { return Redact(word, request.split) != word; });
}

void Audit::Write(const Line& line) {
    if (out != nullptr) {
        *out << "sentrel-agent: " << line.Get().text << std::endl;
    } else {
        log->Write(line.Get());
    }
}

}  // namespace agent
