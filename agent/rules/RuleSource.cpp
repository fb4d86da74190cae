// SPDX-License-Identifier: Apache-2.0
// The form: numbers in decimal, each with a blank behind it; texts behind the number of their
// bytes; lists behind the number of their elements; a mark at the end.
#include "RuleSource.h"

#include <cstdint>

#include "base/Text.h"

namespace agent {

namespace {

const char kEnd[] = "all of it";

class Packer {
public:
    void Number(std::uint64_t number) { packed += std::to_string(number) + " "; }
    void Text(const std::string& text) {
        Number(text.size());
        packed += text;
    }
    void Answers(const std::map<std::string, AccountTable::Answer>& answers) {
        Number(answers.size());
        for (const auto& [name, answer] : answers) {
            Text(name);
            Number(answer.id ? 1 : 0);
            Number(answer.id.value_or(0));
            Text(answer.failure);
        }
    }
    std::string packed;
};

class Unpacker {
public:
    explicit Unpacker(const std::string& packed_) : packed(packed_) {}

    std::uint64_t Number() {
        const std::size_t end = packed.find(' ', at);
        good = good && end != std::string::npos && end - at < 20;
        const std::string_view digits = std::string_view(packed).substr(at, good ? end - at : 0);
        const std::optional<std::uint64_t> number = ToNumber<std::uint64_t>(digits);
        good = good && number;
        if (!good) {
            return 0;
        }
        at = end + 1;
        return *number;
    }
    std::string Text() {
        const std::uint64_t length = Number();
        good = good && length <= packed.size() - at;
        if (!good) {
            return "";
        }
        const std::size_t from = at;
        const std::size_t size = static_cast<std::size_t>(length);
        at += size;
        return packed.substr(from, size);
    }
    void Answers(std::map<std::string, AccountTable::Answer>& answers) {
        for (std::uint64_t count = Number(); good && count > 0; --count) {
            AccountTable::Answer& answer = answers[Text()];
            const bool found = Number() == 1;
            const id_t id = static_cast<id_t>(Number());
            answer.id = found ? std::optional<id_t>(id) : std::nullopt;
            answer.failure = Text();
        }
    }
    bool AtEnd() { return Text() == kEnd && good && at == packed.size(); }

    bool good = true;

private:
    const std::string& packed;
    std::size_t at = 0;
};

}  // namespace

std::string RuleSource::Pack() const {
    Packer packer;
    packer.Number(files.errors.size());
    for (const std::string& error : files.errors) {
        packer.Text(error);
    }
    packer.Number(files.files.size());
    for (const RuleFiles::File& file : files.files) {
        packer.Text(file.path);
        packer.Text(file.text);
        packer.Text(file.error);
    }
    packer.Answers(accounts.users);
    packer.Answers(accounts.groups);
    packer.Text(kEnd);
    return packer.packed;
}

bool RuleSource::Unpack(const std::string& text) {
    Unpacker unpacker(text);
    for (std::uint64_t count = unpacker.Number(); unpacker.good && count > 0; --count) {
        files.errors.push_back(unpacker.Text());
    }
    for (std::uint64_t count = unpacker.Number(); unpacker.good && count > 0; --count) {
        RuleFiles::File file;
        file.path = unpacker.Text();
        file.text = unpacker.Text();
        file.error = unpacker.Text();
        files.files.push_back(file);
    }
    unpacker.Answers(accounts.users);
    unpacker.Answers(accounts.groups);
    return unpacker.AtEnd();
}

}  // namespace agent
