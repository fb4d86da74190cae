// SPDX-License-Identifier: Apache-2.0
// Words to argument text, and the eight operations with it. Header-only, C++17, above the C
// interface alone: neither libdbus nor Boost is needed.
//
// The agent cuts the text into exactly the words that were given, whatever they hold. What it would
// refuse, or what would end the process, is refused here by an exception, before anything is sent.
// Value types; one object is used by one thread at a time, the functions by any.
#ifndef SENTREL_ARGUMENTS_H
#define SENTREL_ARGUMENTS_H

#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include "SR_API.h"

namespace sentrel {

// The words of a command line, without the tool's name.
class Arguments {
public:
    // What the agent takes at most.
    static constexpr std::size_t kMostWords = 64;
    static constexpr std::size_t kMostBytes = 8192;

    Arguments() = default;
    // As Add() for each.
    Arguments(std::initializer_list<std::string> words) {
        for (const std::string& word : words) {
            Add(word);
        }
    }

    // Appends one word; it may be empty. Throws std::invalid_argument when it is not UTF-8 or holds
    // a control character, NUL included, and std::length_error when it is one word or byte too
    // many; the words are then as before. No exception's text repeats the word.
    Arguments& Add(const std::string& word) {
        if (!IsText(word)) {
            throw std::invalid_argument("a word is not UTF-8 or holds a control character");
        }
        const std::string piece = (count == 0 ? "" : " ") + Quote(word);
        if (count == kMostWords || text.size() + piece.size() > kMostBytes) {
            throw std::length_error("there are too many words");
        }
        text += piece;
        ++count;
        return *this;
    }

    // The text for the C functions.
    const std::string& Text() const { return text; }

    // Whether a word may be sent: UTF-8 without control characters (C0, DEL, C1).
    static bool IsText(const std::string& bytes) {
        for (std::size_t at = 0; at < bytes.size();) {
            unsigned long character = 0;
            const std::size_t length = Decode(bytes, at, character);
            if (length == 0 || character < 0x20 || (character >= 0x7f && character <= 0x9f)) {
                return false;
            }
            at += length;
        }
        return true;
    }

    // One word as the agent reads it back, the word itself where nothing needs quoting. Unlike
    // Add(), this refuses nothing; a word that IsText() does not accept comes to nothing good.
    static std::string Quote(const std::string& word) {
        static const char kPlain[] =
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-+=.,:/@%";
        if (!word.empty() && word.find_first_not_of(kPlain) == std::string::npos) {
            return word;
        }
        std::string quoted = "'";
        for (const char c : word) {
            if (c == '\'') {
                quoted += "'\\''";
            } else {
                quoted += c;
            }
        }
        return quoted + "'";
    }

private:
    static unsigned long Byte(const std::string& bytes, std::size_t at) {
        return static_cast<unsigned char>(bytes[at]);
    }

    // The length of the well-formed character at `at`; 0 when there is none.
    static std::size_t Decode(const std::string& bytes, std::size_t at, unsigned long& character) {
        const unsigned long first = Byte(bytes, at);
        if (first < 0x80) {
            character = first;
            return 1;
        }
        const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
        if (first < 0xc2 || first > 0xf4 || bytes.size() - at < length) {
            return 0;
        }
        character = first & (0x7fUL >> length);
        for (std::size_t i = 1; i < length; ++i) {
            if ((Byte(bytes, at + i) & 0xc0) != 0x80) {
                return 0;
            }
            character = character << 6 | (Byte(bytes, at + i) & 0x3f);
        }
        const bool overlong = (length == 3 && character < 0x800) ||
                              (length == 4 && (character < 0x10000 || character > 0x10ffff));
        return overlong || (character >= 0xd800 && character <= 0xdfff) ? 0 : length;
    }

    std::string text;
    std::size_t count = 0;
};

// What became of an operation.
struct Outcome {
    int status = SR_COMM_FAILED;  // of enum SR_Status, or another that the agent answered
    int exitCode = 0;             // the tool's; meaningful when Ran()

    // Whether the tool ran at all.
    bool Ran() const { return status == SR_OK; }
    // Whether the tool ran and succeeded.
    bool Succeeded() const { return Ran() && exitCode == 0; }
    // The status's name; static.
    const char* Text() const { return SR_ErrorToString(status); }
};

// One of the eight C functions.
typedef int (*Operation)(const char* args, unsigned int length, int descriptor, int* result);

// Calls `operation`; `descriptor` receives the tool's output, 0 for none.
inline Outcome Run(Operation operation, const Arguments& arguments, int descriptor = 0) {
    Outcome outcome;
    const std::string& text = arguments.Text();
    outcome.status = operation(text.data(), static_cast<unsigned int>(text.size()), descriptor,
                               &outcome.exitCode);
    return outcome;
}

// For the functions below: each blocks, throws what Arguments::Add() throws, and sends options
// before a "--", so that no operand is taken for one.

// "ro", "size=1m" ...; one option each. Throws std::invalid_argument for one with a comma, which
// would be two to the tool.
typedef std::vector<std::string> Options;

namespace arguments {

// "-o LIST" when there are options.
inline void AddOptions(Arguments& words, const Options& options) {
    std::string list;
    for (const std::string& option : options) {
        if (option.empty() || option.find(',') != std::string::npos) {
            throw std::invalid_argument("an option is empty or holds a comma");
        }
        list += (list.empty() ? "" : ",") + option;
    }
    if (!list.empty()) {
        words.Add("-o").Add(list);
    }
}

// Flags, "--" and the mount point.
inline Arguments Unmounting(const std::string& target, const Options& flags) {
    Arguments words;
    for (const std::string& flag : flags) {
        words.Add("--" + flag);
    }
    return words.Add("--").Add(target);
}

}  // namespace arguments

// An empty `type` lets the tool find out.
inline Outcome Mount(const std::string& source, const std::string& target, const std::string& type,
                     const Options& options = {}, int descriptor = 0) {
    Arguments words;
    if (!type.empty()) {
        words.Add("-t").Add(type);
    }
    arguments::AddOptions(words, options);
    return Run(SR_Mount, words.Add("--").Add(source).Add(target), descriptor);
}

// `flags` are long names: "lazy", "force", "detach-loop".
inline Outcome Umount(const std::string& target, const Options& flags = {}, int descriptor = 0) {
    return Run(SR_Umount, arguments::Unmounting(target, flags), descriptor);
}

// `share` is "//HOST/SHARE".
inline Outcome MountCifs(const std::string& share, const std::string& target,
                         const Options& options = {}, int descriptor = 0) {
    Arguments words;
    arguments::AddOptions(words, options);
    return Run(SR_Mount_Cifs, words.Add("--").Add(share).Add(target), descriptor);
}

// As Umount(), for a network share.
inline Outcome UmountCifs(const std::string& target, const Options& flags = {},
                          int descriptor = 0) {
    return Run(SR_Umount_Cifs, arguments::Unmounting(target, flags), descriptor);
}

// `kind` is 'b' or 'c'. `mode` is octal, such as "0660"; empty leaves it to the agent's rule.
inline Outcome Mknod(const std::string& path, char kind, unsigned major, unsigned minor,
                     const std::string& mode = "", int descriptor = 0) {
    Arguments words;
    if (!mode.empty()) {
        words.Add("-m").Add(mode);
    }
    words.Add("--").Add(path).Add(std::string(1, kind));
    return Run(SR_Mknod, words.Add(std::to_string(major)).Add(std::to_string(minor)), descriptor);
}

// `parameters` are "NAME=VALUE" or "NAME".
inline Outcome Insmod(const std::string& file, const Options& parameters = {}, int descriptor = 0) {
    Arguments words{"--", file};
    for (const std::string& parameter : parameters) {
        words.Add(parameter);
    }
    return Run(SR_Insmod, words, descriptor);
}

// `module` is the name, without directory and ".ko".
inline Outcome Rmmod(const std::string& module, int descriptor = 0) {
    return Run(SR_Rmmod, Arguments{"--", module}, descriptor);
}

// `options` are long names: "no-block", "quiet", "now", "property=NAME" ...
inline Outcome Systemctl(const std::string& verb, const std::vector<std::string>& units,
                         const Options& options = {}, int descriptor = 0) {
    Arguments words;
    for (const std::string& option : options) {
        words.Add("--" + option);
    }
    words.Add("--").Add(verb);
    for (const std::string& unit : units) {
        words.Add(unit);
    }
    return Run(SR_Systemctl, words, descriptor);
}

}  // namespace sentrel

#endif
