// SPDX-License-Identifier: Apache-2.0

// What the command lines of our programs have in common: numbers, help and wrong usage.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>

namespace skorra {

// Accepts whole numbers from `min` to `max`: decimal digits and nothing else. Left to itself, the parser
// takes
// "-1", "" and numbers that are too large for an unsigned type, and "010" for 8.
CLI::Validator WholeNumber(uint64_t min = 0, uint64_t max = std::numeric_limits<uint64_t>::max());

// Accepts numbers from `min` to `max`, without `min` itself when `excludes_min`. Unlike the parser's own
// range check it rejects "nan".
CLI::Validator Number(double min, double max, bool excludes_min = false);

// Ends a run whose command line asks for help or is wrong: prints the help or the version, or what is wrong
// and what to do. Returns the exit status.
int ExitAfterParsing(const CLI::App& app, const CLI::ParseError& error);

}  // namespace skorra
