// Where things are in a JSON text: the line and column behind a byte offset
// or behind a path to a value.
//
// The scenario reader reports every problem with the path of the value it
// concerns, written the way an operator reads it:
//
//   tables.ldp.entries[3].vias[0].labels
//
// (keys that are not plain identifiers are written ["like this"]). The JSON
// parser keeps no positions, so JsonSourceMap walks the text once more, after
// it parsed, and records where every value (and every object key) starts.
// The same walk finds keys given twice in one object, which the parser would
// otherwise settle silently by keeping the last one.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Tunnel::Tool {

// A place in a text, both 1-based; line 0 means unknown. Columns count
// characters, not bytes, so that they match what an editor shows.
struct SourcePosition {
  std::size_t line = 0;
  std::size_t column = 0;

  bool known() const { return line != 0; }
};

// The JSON text of `value`. Strings from the input may hold bytes that are
// not UTF-8; they are written as U+FFFD instead of failing the whole answer.
std::string jsonText(nlohmann::json const& value, int indent = -1);

// The path of member `key` of the value at `parent` ("" is the document).
std::string childPath(std::string const& parent, std::string_view key);
// The path of element `index` of the array at `parent`.
std::string indexPath(std::string const& parent, std::size_t index);

// The position of the byte at `offset` (0-based; offsets past the end give the
// position just after the last character).
SourcePosition positionOfOffset(std::string_view text, std::size_t offset);

class JsonSourceMap {
 public:
  // `text` must be valid JSON: parse it first, the map trusts its syntax.
  explicit JsonSourceMap(std::string_view text);

  // Where the value at `path` starts; unknown when there is no such value.
  SourcePosition value(std::string const& path) const;
  // Where the key of the member at `path` starts (its value's position for
  // array elements and the document itself).
  SourcePosition key(std::string const& path) const;

  // The paths of keys given a second (or third...) time in their object.
  std::vector<std::string> const& duplicateKeys() const { return duplicates_; }

 private:
  struct Where {
    SourcePosition key;
    SourcePosition value;
  };

  class Walker;

  std::unordered_map<std::string, Where> where_;
  std::vector<std::string> duplicates_;
};

}  // namespace Tunnel::Tool
