// SPDX-License-Identifier: Apache-2.0
#include "Text.h"

#include <utf8.h>

namespace cli {

namespace {

typedef std::string::const_iterator Place;

// Whether all that follows may be the beginning of a character that has not come whole.
bool IsBeginning(Place at, Place end) {
    try {
        (void)utf8::next(at, end);
    } catch (const utf8::not_enough_room&) {
        return true;
    } catch (const utf8::exception&) {
        return false;
    }
    return false;
}

void AppendShown(std::string& shown, Place at, Place end) {
    static const char kDigits[] = "0123456789abcdef";
    for (; at != end; ++at) {
        const unsigned char byte = static_cast<unsigned char>(*at);
        shown += "\\x";
        shown += kDigits[byte >> 4U];
        shown += kDigits[byte & 0xfU];
    }
}

// Stops at the beginning of a character that has not come whole, if `hold`; returns how far it
// came.
std::size_t Show(const std::string& bytes, const std::string& kept, bool hold, std::string& shown) {
    const Place end = bytes.end();
    Place at = bytes.begin();
    while (at != end) {
        const Place malformed = utf8::find_invalid(at, end);
        while (at != malformed) {
            const Place from = at;
            if (IsControl(utf8::unchecked::next(at)) && kept.find(*from) == std::string::npos) {
                AppendShown(shown, from, at);
            } else {
                shown.append(from, at);
            }
        }
        if (at != end) {
            if (hold && IsBeginning(at, end)) {
                break;
            }
            AppendShown(shown, at, at + 1);
            ++at;
        }
    }
    return static_cast<std::size_t>(at - bytes.begin());
}

}  // namespace

bool IsControl(unsigned character) {
    return character < 0x20 || (character >= 0x7f && character < 0xa0);
}

std::string Printable(const std::string& bytes) {
    std::string shown;
    (void)Show(bytes, "", false, shown);
    return shown;
}

std::string Filter::Take(const std::string& bytes) {
    rest += bytes;
    std::string shown;
    rest.erase(0, Show(rest, "\n\t", true, shown));
    return shown;
}

std::string Filter::Finish() {
    std::string shown;
    (void)Show(rest, "\n\t", false, shown);
    rest.clear();
    return shown;
}

}  // namespace cli
