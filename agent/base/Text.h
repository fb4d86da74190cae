// SPDX-License-Identifier: Apache-2.0
// Small helpers for text that came from a caller. Pure functions, callable from any thread.
#ifndef SENTREL_AGENT_TEXT_H
#define SENTREL_AGENT_TEXT_H

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
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
bool EndsWith(const std::string& text, const std::string& suffix);

// Not empty, and made of `allowed` only.
bool IsMadeOf(const std::string& text, const char* allowed);

// The number that the whole text is: digits, and a '-' before them where N can be negative. Nothing
// for any other text (a blank, a '+', "0x") and for a number that N cannot hold.
template <typename N>
std::optional<N> ToNumber(std::string_view text, int base = 10) {
    N number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, base);
    return error == std::errc() && stop == end ? std::optional<N>(number) : std::nullopt;
}

extern const char* const kDigits;
extern const char* const kLower;  // a-z and the digits
extern const char* const kAlnum;  // A-Z, a-z and the digits

}  // namespace agent

#endif
