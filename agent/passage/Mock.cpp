// SPDX-License-Identifier: Apache-2.0
#include "Mock.h"

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

// Reads one [[answer]]; what is wrong with it goes into the list, and a default in its place.
class RowReader {
public:
    RowReader(const toml::table& table_, const std::string& file_,
              std::vector<std::string>& errors_)
        : table(table_), file(file_), errors(errors_) {}

    MockRow Read() {
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
        const int most = std::numeric_limits<int>::max();
        MockRow row;
        row.operation = ReadText("agent", "");
        row.text = Pattern(Pattern::kTextGlob, ReadText("text", "*"));
        row.output = ReadText("output", "");
        row.status = static_cast<int>(ReadNumber("status", most));
        row.value = static_cast<int>(ReadNumber("value", most));
        row.delay = std::chrono::milliseconds(ReadNumber("delay", kLongestDelay));
        if (row.output.size() > kLongestOutput) {
            Complain(table, "'output' is too long");
        }
        return row;
    }

private:
    void Complain(const toml::node& where, const std::string& text) {
        errors.push_back(file + ":" + std::to_string(where.source().begin.line) + ": " + text);
    }

    std::string ReadText(const char* key, const char* otherwise) {
        const toml::node* node = table.get(key);
        if (node == nullptr) {
            return otherwise;
        }
        if (!node->is_string()) {
            Complain(*node, std::string("'") + key + "' must be a text");
            return otherwise;
        }
        return node->as_string()->get();
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
    const std::string& file;
    std::vector<std::string>& errors;
};

bool Fits(const MockRow& row, const Call& call) {
    return (row.operation == "*" || row.operation == call.operation) &&
           row.text.Matches(call.text, Variables());
}

}  // namespace

MockTable ReadMockTable(const std::string& file) {
    MockTable read;
    try {
        const toml::table table = toml::parse_file(file);
        for (const auto& field : table) {
            const toml::array* list = field.second.as_array();
            if (field.first.str() != "answer" || list == nullptr) {
                read.errors.push_back(file + ": only [[answer]] tables are expected");
                continue;
            }
            for (const toml::node& row : *list) {
                if (const toml::table* fields = row.as_table()) {
                    read.rows.push_back(RowReader(*fields, file, read.errors).Read());
                } else {
                    read.errors.push_back(file + ": 'answer' must be a list of tables");
                }
            }
        }
    } catch (const toml::parse_error& error) {
        read.errors.push_back(file + ":" + std::to_string(error.source().begin.line) + ": " +
                              std::string(error.description()));
    }
    return read;
}

Mock::Mock(sentrel::SR_MainLoop& loop_, const std::vector<MockRow>& rows_)
    : loop(loop_), rows(rows_), relays(loop_, RelayLimits()) {}

void Mock::Take(const Arrival& arrival) {
    if (arrival.admission != Admission::kTaken) {
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
    Result<std::unique_ptr<Timer> > timer =
        Timer::Make(loop, arrival.received + found.delay, [this, id] { Due(id); });
    if (!timer) {
        return Due(id);
    }
    entry.timer = std::move(*timer);
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
    const Check room = relays.HasRoom(caller.uid);
    if (!room) {
        arrival.answer->Set(room.Status(), 0);
        return;
    }
    RelayTask task;
    task.output = [caller, descriptor] { return TakeDescriptor(caller, descriptor); };
    const std::uint64_t id = ++lastId;
    const auto started =
        relays.Start(task, caller, [this, id](const CallerFacts& facts) { Print(id, facts); });
    if (!started) {
        arrival.answer->Set(started.Status(), 0);
        return;
    }
    printing[id] = Printing{arrival.answer, row};
}

void Mock::Print(std::uint64_t id, const CallerFacts& facts) {
    const Printing entry = std::move(printing.at(id));
    printing.erase(id);
    if (!facts.output) {
        entry.answer->Set(SR_FAIL, 0);
        return;
    }
    entry.answer->Set(entry.row.status, entry.row.value);
    if (!entry.row.output.empty()) {
        const SharedAnswer kept = entry.answer;  // goes when the output has arrived
        facts.output->OnEnd([kept] {});
    }
    std::istringstream lines(entry.row.output);
    for (std::string line; std::getline(lines, line);) {
        facts.output->Say(line);
    }
    facts.output->Abandon();
}

void Mock::Answer(const Question& question, const Caller& /*caller*/,
                  const std::shared_ptr<TextReply>& reply) {
    if (question.member != "Status") {
        reply->SetError("org.freedesktop.DBus.Error.NotSupported",
                        "this agent answers from a table and has no rules");
        return;
    }
    reply->Set(JsonLine(Json{{"version", SENTREL_VERSION},
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
