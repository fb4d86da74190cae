// SPDX-License-Identifier: Apache-2.0
#include "Audit.h"

#include <syslog.h>

#include <algorithm>
#include <ostream>
#include <sstream>

namespace agent {

namespace {

const std::size_t kLongestField = 512;
const std::size_t kLongestArguments = 4096;

const char* const kSecretNames[] = {"password", "passwd", "pass", "pw", "cred", "secret"};

char Lower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

unsigned char Byte(const std::string& text, std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

// Bytes of the well-formed and printable character at `at`; 0 when there is none.
std::size_t PrintableLength(const std::string& text, std::size_t at) {
    const unsigned char lead = Byte(text, at);
    if (lead < 0x80) {
        return lead >= 0x20 && lead != 0x7f ? 1 : 0;
    }
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4) {
        return 0;
    }
    unsigned code = lead & (0xffU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        const unsigned char next = Byte(text, at + i);
        if ((next & 0xc0) != 0x80) {
            return 0;
        }
        code = (code << 6) | (next & 0x3fU);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    // C1, line and paragraph separators, and the marks that turn the direction of the text.
    const bool control = code < 0xa0 || (code >= 0x2028 && code <= 0x202e) ||
                         (code >= 0x2066 && code <= 0x2069) || code == 0x200e || code == 0x200f;
    return overlong || surrogate || control || code > 0x10ffff ? 0 : length;
}

void AppendHex(std::string& text, unsigned char byte) {
    static const char kDigits[] = "0123456789abcdef";
    text += "\\x";
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
}

std::string Head(const char* phase, const AuditRequest& request) {
    std::string arguments;
    for (const std::string& word : request.arguments) {
        arguments += arguments.empty() ? "" : " ";
        arguments += Audit::Redact(word, request.split);
    }
    std::ostringstream line;
    line << "phase=" << phase << " id=" << request.id << " uid=" << static_cast<long>(request.uid)
         << " pid=" << request.pid << " exe=" << Audit::Quote(request.executable, kLongestField)
         << " agent=" << Audit::Quote(request.agent, kLongestField)
         << " args=" << Audit::Quote(arguments, kLongestArguments)
         << " rule=" << Audit::Quote(request.rule, kLongestField);
    return line.str();
}

}  // namespace

Audit::Audit() : out(nullptr) {}

Audit::Audit(std::ostream& stream) : out(&stream) {}

void Audit::Before(const AuditRequest& request) {
    Write(Head("start", request) + " decision=allow");
}

void Audit::After(const AuditRequest& request, const AuditResult& result) {
    std::ostringstream line;
    line << Head("end", request) << " decision=allow status=" << result.status
         << " exit=" << result.exit << " signal=" << result.signal
         << " duration_ms=" << result.duration.count() << " out_bytes=" << result.outBytes
         << " dropped_bytes=" << result.droppedBytes
         << " reason=" << Quote(result.reason, kLongestField);
    Write(line.str());
}

void Audit::Denied(const AuditRequest& request, int status, const std::string& reason) {
    Write(Head("end", request) + " decision=deny status=" + std::to_string(status) +
          " reason=" + Quote(reason, kLongestField));
}

std::string Audit::Quote(const std::string& text, std::size_t cap) {
    const bool cut = text.size() > cap;
    const std::string kept = text.substr(0, cap);
    std::string quoted = "\"";
    for (std::size_t at = 0; at < kept.size();) {
        const std::size_t length = PrintableLength(kept, at);
        if (length == 0) {
            AppendHex(quoted, Byte(kept, at));
            ++at;
            continue;
        }
        if (kept[at] == '"' || kept[at] == '\\') {
            quoted += '\\';
        }
        quoted.append(kept, at, length);
        at += length;
    }
    return quoted + (cut ? "...\"" : "\"");
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

void Audit::Write(const std::string& line) {
    if (out != nullptr) {
        *out << "sentrel-agent: " << line << std::endl;
    } else {
        syslog(LOG_AUTHPRIV | LOG_NOTICE, "%s", line.c_str());
    }
}

}  // namespace agent
