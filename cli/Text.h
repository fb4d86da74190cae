// SPDX-License-Identifier: Apache-2.0
// Characters: what is well-formed UTF-8, and what may be shown to a person. Bytes that come from
// elsewhere may hold sequences that drive a terminal; they are shown, never sent. Pure functions.
#ifndef SENTREL_CLI_TEXT_H
#define SENTREL_CLI_TEXT_H

#include <cstddef>
#include <string>

namespace cli {

// The length of the well-formed UTF-8 character at `at` and its value; 0 for none.
std::size_t CharacterAt(const std::string& bytes, std::size_t at, unsigned& value);

// C0, DEL and C1.
bool IsControl(unsigned character);

// Control characters and malformed bytes as \xHH; what follows is on one line.
std::string Printable(const std::string& bytes);

// The same for a stream that comes in pieces; newlines and tabs stay.
class Filter {
public:
    std::string Take(const std::string& bytes);
    // What was held back as the beginning of a character.
    std::string Finish();

private:
    std::string rest;
};

}  // namespace cli

#endif
