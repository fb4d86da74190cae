// SPDX-License-Identifier: Apache-2.0
#include "Text.h"

namespace cli {

namespace {

// The length that the first byte announces, 0 for none, and the least value that needs it.
std::size_t AnnouncedLength(unsigned char first, unsigned& least) {
    least = 0;
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xc0 && first < 0xe0) {
        least = 0x80;
        return 2;
    }
    if (first >= 0xe0 && first < 0xf0) {
        least = 0x800;
        return 3;
    }
    least = 0x10000;
    return first >= 0xf0 && first < 0xf8 ? 4 : 0;
}

// Whether all that follows may be the beginning of a character that has not come whole.
bool IsBeginning(const std::string& bytes, std::size_t at) {
    unsigned least = 0;
    const std::size_t length = AnnouncedLength(static_cast<unsigned char>(bytes[at]), least);
    if (bytes.size() - at >= length) {
        return false;
    }
    for (std::size_t i = at + 1; i < bytes.size(); ++i) {
        if ((static_cast<unsigned char>(bytes[i]) & 0xc0U) != 0x80U) {
            return false;
        }
    }
    return true;
}

void AppendShown(std::string& shown, const std::string& bytes, std::size_t at, std::size_t count) {
    static const char kDigits[] = "0123456789abcdef";
    for (std::size_t i = at; i < at + count; ++i) {
        const unsigned char byte = static_cast<unsigned char>(bytes[i]);
        shown += "\\x";
        shown += kDigits[byte >> 4U];
        shown += kDigits[byte & 0xfU];
    }
}

// Stops at the beginning of a character that has not come whole, if `hold`; returns where.
std::size_t Show(const std::string& bytes, const char* kept, bool hold, std::string& shown) {
    const std::string plain(kept);
    std::size_t at = 0;
    while (at < bytes.size()) {
        unsigned value = 0;
        const std::size_t length = CharacterAt(bytes, at, value);
        if (length == 0 && hold && IsBeginning(bytes, at)) {
            break;
        }
        if (length == 0 || (IsControl(value) && plain.find(bytes[at]) == std::string::npos)) {
            AppendShown(shown, bytes, at, length == 0 ? 1 : length);
        } else {
            shown.append(bytes, at, length);
        }
        at += length == 0 ? 1 : length;
    }
    return at;
}

}  // namespace

std::size_t CharacterAt(const std::string& bytes, std::size_t at, unsigned& value) {
    const unsigned char first = static_cast<unsigned char>(bytes[at]);
    unsigned least = 0;
    const std::size_t length = AnnouncedLength(first, least);
    if (length == 0 || bytes.size() - at < length) {
        return 0;
    }
    value = length == 1 ? first : first & (0x7fU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const unsigned char next = static_cast<unsigned char>(bytes[at + i]);
        if ((next & 0xc0U) != 0x80U) {
            return 0;
        }
        value = value << 6U | (next & 0x3fU);
    }
    const bool wrong = value < least || value > 0x10ffff || (value >= 0xd800 && value < 0xe000);
    return wrong ? 0 : length;
}

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
