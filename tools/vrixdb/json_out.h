// Machine-readable output (--json): one JSON document on the results'
// stream, with the keys the README lists for each subcommand.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdio>

namespace vrixtool {

// Keys stay in the order they are written.
using Json = nlohmann::ordered_json;

// A moment: {"sec": seconds since 1970, "local": "YYYY-MM-DDTHH:MM:SS"};
// null for 0 (none).
Json moment(long t);

// `j` as one line on `f`.  Bytes of a path that are not UTF-8 become U+FFFD.
void print_json(std::FILE *f, const Json &j);

// The --json flag of a subcommand.
void add_json_flag(CLI::App *sub, bool &json);

} // namespace vrixtool
