// SPDX-License-Identifier: Apache-2.0
#include "Told.h"

#include <limits>
#include <nlohmann/json.hpp>

#include "ForProgram.h"

namespace cli {

namespace {

typedef nlohmann::ordered_json Json;

// An honest answer stays far below each of these.
const std::size_t kMostBytes = 32U << 20U;  // what the system's bus carries
const std::size_t kMostValues = 100000;
const std::size_t kDeepest = 32;
// Of one object: each new name is compared with all before it.
const std::size_t kMostMembers = 256;

const char kNoInteger[] = "it holds a number that is no integer of 64 bits";

// Makes the value while the text is read, and stops at the first thing that is refused.
class Reader : public nlohmann::json_sax<Json> {
public:
    explicit Reader(Json& value) : root(value) {}

    // False for what is refused; GetFault() tells why.
    bool Read(const std::string& bytes) {
        if (bytes.size() > kMostBytes) {
            return Refuse("it is too long");
        }
        if (bytes.find('\0') != std::string::npos) {
            return Refuse("it holds a zero byte");  // which would be taken for the end
        }
        return Json::sax_parse(bytes, this);
    }
    const std::string& GetFault() const { return fault; }

    bool null() override { return Put(nullptr); }
    bool boolean(bool value) override { return Put(value); }
    bool number_integer(number_integer_t value) override { return Put(value); }
    bool number_unsigned(number_unsigned_t value) override { return Put(value); }
    // It would be rounded, and a program would not get what the agent has told.
    bool number_float(number_float_t /*value*/, const string_t& /*text*/) override {
        return Refuse(kNoInteger);
    }
    bool string(string_t& value) override { return Put(std::move(value)); }
    bool binary(binary_t& /*value*/) override { return Refuse("it holds bytes"); }
    bool start_object(std::size_t /*elements*/) override { return Enter(Json::object()); }
    bool key(string_t& text) override {
        name = std::move(text);
        return open.back()->size() < kMostMembers || Refuse("an object has too many members");
    }
    bool end_object() override { return Leave(); }
    bool start_array(std::size_t /*elements*/) override { return Enter(Json::array()); }
    bool end_array() override { return Leave(); }
    bool parse_error(std::size_t position, const std::string& /*token*/,
                     const nlohmann::detail::exception& error) override {
        const bool number = dynamic_cast<const Json::out_of_range*>(&error) != nullptr;
        return Refuse(number ? kNoInteger : "it is no JSON, at byte " + std::to_string(position));
    }

private:
    bool Refuse(const std::string& why) {
        fault = why;
        return false;
    }
    // Where the value belongs; `place` is then where it is.
    bool Put(Json value) {
        if (++values > kMostValues) {
            return Refuse("it holds too many values");
        }
        if (open.empty()) {
            place = &root;
        } else if (open.back()->is_array()) {
            place = &open.back()->emplace_back();
        } else {
            place = &(*open.back())[name];
        }
        *place = std::move(value);
        return true;
    }
    bool Enter(Json empty) {
        if (open.size() == kDeepest) {
            return Refuse("it is nested too deeply");
        }
        const bool put = Put(std::move(empty));
        open.push_back(place);
        return put;
    }
    bool Leave() {
        open.pop_back();
        return true;
    }

    std::string fault;
    Json& root;
    std::vector<Json*> open;  // what is around, outermost first; none of it moves while it is open
    Json* place = nullptr;
    std::string name;  // of the next member
    std::size_t values = 0;
};

std::string TextOf(const Json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    return value.is_number() || value.is_boolean() ? value.dump() : "";
}

std::optional<long long> NumberOf(const Json& value) {
    const bool large = value.is_number_unsigned() &&
                       value.get<unsigned long long>() > std::numeric_limits<long long>::max();
    return value.is_number() && !large ? std::optional<long long>(value.get<long long>())
                                       : std::nullopt;
}

std::optional<std::vector<std::string> > ListOf(const Json& value) {
    if (!value.is_array()) {
        return std::nullopt;
    }
    std::vector<std::string> texts;
    for (const Json& element : value) {
        texts.push_back(TextOf(element));
    }
    return texts;
}

Fields FieldsOf(const Json& object) {
    Fields fields;
    for (const auto& member : object.items()) {
        const Json& value = member.value();
        fields.push_back(Field{member.key(), TextOf(value), NumberOf(value), ListOf(value)});
    }
    return fields;
}

}  // namespace

const Field* FindField(const Fields& fields, const std::string& name) {
    for (const Field& field : fields) {
        if (field.name == name) {
            return &field;
        }
    }
    return nullptr;
}

std::string TextOf(const Fields& fields, const std::string& name) {
    const Field* found = FindField(fields, name);
    return found != nullptr ? found->text : "";
}

Told Told::Read(const std::string& bytes, Shape expected) {
    Told told;
    Json value;
    Reader reader(value);
    if (!reader.Read(bytes)) {
        told.error = reader.GetFault();
        return told;
    }
    if (expected == kObject ? !value.is_object() : !value.is_array()) {
        told.error = expected == kObject ? "it is no object" : "it is no list";
        return told;
    }
    if (expected == kObject) {
        told.objects.push_back(FieldsOf(value));
    } else {
        for (const Json& element : value) {
            if (!element.is_object()) {
                told.error = "it is no list of objects";
                return told;
            }
            told.objects.push_back(FieldsOf(element));
        }
    }
    told.line = JsonLine(value);
    return told;
}

}  // namespace cli
