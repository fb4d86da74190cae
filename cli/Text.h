// SPDX-License-Identifier: Apache-2.0
// What may be shown to a person. Bytes that come from elsewhere may hold sequences that drive a
// terminal; they are shown, never sent. Pure functions.
#ifndef SENTREL_CLI_TEXT_H
#define SENTREL_CLI_TEXT_H

#include <string>

namespace cli {

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
