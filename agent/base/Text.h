// SPDX-License-Identifier: Apache-2.0
// Small helpers for text that came from a caller. Pure functions, callable from any thread.
#ifndef SENTREL_AGENT_TEXT_H
#define SENTREL_AGENT_TEXT_H

#include <string>
#include <vector>

namespace agent {

// A C0 control byte (tab included), DEL, or a C1 control in its UTF-8 form.
bool HasControl(const std::string& text);

// `text` in single quotes for a message: what is not printable ASCII, a quote or a backslash
// becomes \xHH, and a long text is cut, so that a message stays one readable line.
std::string Quote(const std::string& text);

// "\xHH".
std::string HexByte(char byte);

std::string Join(const std::vector<std::string>& parts, const char* separator);

// Pieces between `separator`s, empty ones included; an empty text is one empty piece.
std::vector<std::string> Split(const std::string& text, char separator);

bool StartsWith(const std::string& text, const std::string& prefix);

// Not empty, and made of `allowed` only.
bool IsMadeOf(const std::string& text, const char* allowed);

extern const char* const kDigits;
extern const char* const kLower;  // a-z and the digits
extern const char* const kAlnum;  // A-Z, a-z and the digits

}  // namespace agent

#endif
