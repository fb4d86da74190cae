// SPDX-License-Identifier: Apache-2.0
#include "Mock.h"

#include <fnmatch.h>
#include <sentrel/SR_Status.h>

#include <toml++/toml.h>
#include <limits>
#include <sstream>

#include "Json.h"
#include "relay/Descriptor.h"

namespace agent {

namespace {

const std::size_t kLongestOutput = 32768;  // fits into a pipe that nobody reads yet
const std::int64_t kLongestDelay = 3600000;
const std::size_t kMostDelayed = 1024;

class RowReader {
public:
    RowReader(const toml::table& fields, const std::string& file,
              std::vector<std::string>& allErrors)
        : table(fields), name(file), errors(allErrors) {}

    MockRow Read() {
        MockRow row;
        for (const auto& field : table) {
            const std::string key(field.first.str());
            if (key != "agent" && key != "text" && key != "status" && key != "value" &&
                key != "delay" && key != "output") {
                Complain(field.second, "there is no field '" + key + "'");
            }
        }
        if (table.get("agent") == nullptr || table.get("status") == nullptr) {
            Complain(table, "an answer needs 'agent' and 'status'");
        }
        ReadText("agent", row.operation);
        ReadText("text", row.text);
        ReadText("output", row.output);
        std::int64_t number = 0;
        row.status = static_cast<int>(ReadNumber("status", std::numeric_limits<int>::max()));
        row.value = static_cast<int>(ReadNumber("value", std::numeric_limits<int>::max()));
        number = ReadNumber("delay", kLongestDelay);
        row.delay = std::chrono::milliseconds(number);
        if (row.output.size() > kLongestOutput) {
            Complain(table, "'output' is too long");
        }
        return row;
    }

private:
    void Complain(const toml::node& where, const std::string& text) {
        errors.push_back(name + ":" + std::to_string(where.source().begin.line) + ": " + text);
    }

    void ReadText(const char* key, std::string& text) {
        const toml::node* node = table.get(key);
        if (node == nullptr) {
            return;
        }
        if (!node->is_string()) {
            Complain(*node, std::string("'") + key + "' must be a text");
            return;
        }
        text = node->as_string()->get();
    }

    std::int64_t ReadNumber(const char* key, std::int64_t most) {
        const toml::node* node = table.get(key);
        if (node == nullptr) {
            return 0;
        }
        const std::int64_t number = node->is_integer() ? node->as_integer()->get() : -1;
        if (number < 0 || number > most) {
            Complain(*node, std::string("'") + key + "' must be a number from 0 to " +
                                std::to_string(most));
            return 0;
        }
        return number;
    }

    const toml::table& table;
    const std::string& name;
    std::vector<std::string>& errors;
};

bool Fits(const MockRow& row, const Call& call) {
    return (row.operation == "*" || row.operation == call.operation) &&
           fnmatch(row.text.c_str(), call.text.c_str(), FNM_NOESCAPE) == 0;
}

}  // namespace

bool ReadMockTable(const std::string& file, std::vector<MockRow>& rows,
                   std::vector<std::string>& errors) {
    try {
        const toml::table table = toml::parse_file(file);
        for (const auto& field : table) {
            const toml::array* list = field.second.as_array();
            if (field.first.str() != "answer" || list == nullptr) {
                errors.push_back(file + ": only [[answer]] tables are expected");
                continue;
            }
            for (const toml::node& row : *list) {
                if (const toml::table* fields = row.as_table()) {
                    rows.push_back(RowReader(*fields, file, errors).Read());
                } else {
                    errors.push_back(file + ": 'answer' must be a list of tables");
                }
            }
        }
    } catch (const toml::parse_error& error) {
        errors.push_back(file + ":" + std::to_string(error.source().begin.line) + ": " +
                         std::string(error.description()));
    }
    return errors.empty();
}

Mock::Mock(sentrel::SR_MainLoop& mainLoop, const std::vector<MockRow>& table)
    : loop(mainLoop), rows(table), relays(mainLoop, RelayLimits()) {}

void Mock::Take(const Arrival& arrival) {
    if (arrival.turn != Turn::kTaken) {
        return;  // answered with a failure
    }
    MockRow found;
    found.status = SR_RULE_NO_FOUND;
    found.output = "sentrel-agent: the table has no answer to this";
    for (const MockRow& row : rows) {
        if (Fits(row, arrival.call)) {
            found = row;
            break;
        }
    }
    if (found.delay.count() == 0 || delayed.size() >= kMostDelayed) {
        return Give(arrival, found);
    }
    const std::uint64_t id = ++lastId;
    Delayed& entry = delayed[id];
    entry.arrival = arrival;
    entry.row = found;
    try {
        entry.timer =
            std::make_unique<Timer>(loop, arrival.received + found.delay, [this, id] { Due(id); });
    } catch (const std::system_error&) {
        Due(id);
    }
}

void Mock::Due(std::uint64_t id) {
    const Delayed entry = std::move(delayed.at(id));
    delayed.erase(id);
    Give(entry.arrival, entry.row);
}

// The output is on its way before the answer is; that it has arrived is the caller's to see.
void Mock::Give(const Arrival& arrival, const MockRow& row) {
    ++served;
    const Caller caller = arrival.caller;
    const int descriptor = arrival.call.descriptor;
    if (descriptor <= 0) {
        arrival.answer->Set(row.status, row.value);
        return;
    }
    std::string reason;
    if (!relays.HasRoom(caller.uid, reason)) {
        arrival.answer->Set(SR_FAIL, 0);
        return;
    }
    RelayTask task;
    task.output = [caller, descriptor] { return TakeDescriptor(caller, descriptor); };
    const std::uint64_t id = ++lastId;
    if (!relays.Start(task, caller, [this, id](const Look& look) { Looked(id, look); })) {
        arrival.answer->Set(SR_FORK_FAILED, 0);
        return;
    }
    looking[id] = Looking{arrival.answer, row};
}

void Mock::Looked(std::uint64_t id, const Look& look) {
    const Looking entry = std::move(looking.at(id));
    looking.erase(id);
    if (!look.output) {
        entry.answer->Set(SR_FAIL, 0);
        return;
    }
    entry.answer->Set(entry.row.status, entry.row.value);
    if (!entry.row.output.empty()) {
        const SharedAnswer kept = entry.answer;  // goes when the output has arrived
        look.output->OnEnd([kept] {});
    }
    std::istringstream lines(entry.row.output);
    for (std::string line; std::getline(lines, line);) {
        look.output->Say(line);
    }
    look.output->Abandon();
}

void Mock::Answer(const Question& question, const Caller& /*caller*/, TextReply& reply) const {
    if (question.member != "Status") {
        reply.SetError("org.freedesktop.DBus.Error.NotSupported",
                       "this agent answers from a table and has no rules");
        return;
    }
    reply.Set(JsonLine(Json{{"version", SENTREL_VERSION},
                            {"mock", true},
                            {"answers", rows.size()},
                            {"served", served}}));
}

void Mock::EndAll() {
    while (!delayed.empty()) {
        Due(delayed.begin()->first);
    }
}

}  // namespace agent
