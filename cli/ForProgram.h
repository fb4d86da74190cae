// SPDX-License-Identifier: Apache-2.0
// What --json prints: one JSON text on one line, without the line's end. Each is made here, with
// its fields in the order in which they are printed. Bytes that are not UTF-8 become \ufffd, and
// control characters are escaped, so that a line is safe on a terminal too. Pure functions.
#ifndef SENTREL_CLI_FORPROGRAM_H
#define SENTREL_CLI_FORPROGRAM_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "Control.h"
#include "Doctor.h"
#include "Operations.h"
#include "Outcome.h"

namespace cli {

std::string JsonLine(const nlohmann::ordered_json& value);

std::string VersionLine(const std::string& version, const std::string& interfaceText);
std::string OutcomeLine(const Operation& operation, const Outcome& outcome,
                        const std::string& output);
std::string MeaningsLine(const std::vector<Meaning>& meanings);
// A question that failed; `exit` is the command's.
std::string FailureLine(const Answer& failure, int exit, const std::string& advice);
std::string StepsLine(const std::vector<Step>& steps, int exit);

}  // namespace cli

#endif
