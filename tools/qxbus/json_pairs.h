#pragma once
// Records as JSON: parse a JSON object into a pair tree (value kinds taken from
// the tag-group definition or written explicitly), and turn a received pair
// tree into JSON for `echo --json`.

#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "marlet/marlet.h"

namespace qxbus {

using Pairs = std::vector<com::quorixtech::iot::IOT_NVP>;

// Bad JSON text, or a value that does not fit its kind. Exit code 2.
class JsonInputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The object's members become pairs in the order written. A member named by a
// field of the definition takes that field's kind; a member the definition
// does not name must be typed explicitly ({"uint32": 5}); nested values are
// typed explicitly or inferred (see docs/tool.md). Throws JsonInputError.
Pairs pairsFromJson(const std::string &text, const std::vector<com::quorixtech::marlet::FieldDefinition> &fields);

// A pair tree as JSON: a sequence of unnamed entries becomes an array, any
// other sequence an object; byte sequences are summarised as
// {"bytes": length, "head": "hex of the first bytes"}.
nlohmann::ordered_json pairsToJson(const Pairs &pairs);

} // namespace qxbus
