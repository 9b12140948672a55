#include "tools/tunnel-agent/JsonSource.h"

#include <cctype>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <unordered_set>

namespace Tunnel::Tool {

namespace {

bool isIdentifier(std::string_view key) {
  if (key.empty()) return false;
  if (!std::isalpha(static_cast<unsigned char>(key[0])) && key[0] != '_') return false;
  for (char c : key) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return false;
  }
  return true;
}

// A UTF-8 continuation byte does not start a character.
bool startsCharacter(char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }

void appendUtf8(std::string& out, std::uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

}  // namespace

std::string jsonText(nlohmann::json const& value, int indent) {
  return value.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string childPath(std::string const& parent, std::string_view key) {
  if (isIdentifier(key)) return parent.empty() ? std::string(key) : parent + "." + std::string(key);
  return parent + "[" + jsonText(nlohmann::json(std::string(key))) + "]";
}

std::string indexPath(std::string const& parent, std::size_t index) {
  return parent + "[" + std::to_string(index) + "]";
}

SourcePosition positionOfOffset(std::string_view text, std::size_t offset) {
  if (offset > text.size()) offset = text.size();
  SourcePosition pos{1, 1};
  for (std::size_t i = 0; i < offset; ++i) {
    if (text[i] == '\n') {
      ++pos.line;
      pos.column = 1;
    } else if (startsCharacter(text[i])) {
      ++pos.column;
    }
  }
  return pos;
}

// A recursive walk over valid JSON that tracks line and column as it goes.
class JsonSourceMap::Walker {
 public:
  Walker(std::string_view text, JsonSourceMap& map) : text_(text), map_(map) {}

  void run() {
    skipBlanks();
    SourcePosition const start = here();
    value("", start);
  }

 private:
  SourcePosition here() const { return pos_; }
  char peek() const { return i_ < text_.size() ? text_[i_] : '\0'; }
  void advance() {
    char const c = text_[i_++];
    if (c == '\n') {
      ++pos_.line;
      pos_.column = 1;
    } else if (i_ >= text_.size() || startsCharacter(text_[i_])) {
      // Count a character once its last byte has been read.
      ++pos_.column;
    }
  }
  void skipBlanks() {
    while (i_ < text_.size() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r'))
      advance();
  }

  void value(std::string const& path, SourcePosition keyPos) {
    map_.where_[path] = Where{keyPos, here()};
    switch (peek()) {
      case '{':
        object(path);
        break;
      case '[':
        array(path);
        break;
      case '"':
        string();
        break;
      default:
        // Numbers and the literals true, false and null.
        while (i_ < text_.size() && peek() != ',' && peek() != '}' && peek() != ']' && peek() != ' ' &&
               peek() != '\t' && peek() != '\n' && peek() != '\r') {
          advance();
        }
        break;
    }
  }

  void object(std::string const& path) {
    advance();  // {
    std::unordered_set<std::string> seen;
    skipBlanks();
    while (peek() != '}' && i_ < text_.size()) {
      SourcePosition const keyPos = here();
      std::string const key = string();
      std::string const member = childPath(path, key);
      if (!seen.insert(key).second) map_.duplicates_.push_back(member);
      skipBlanks();
      advance();  // :
      skipBlanks();
      value(member, keyPos);
      skipBlanks();
      if (peek() == ',') {
        advance();
        skipBlanks();
      }
    }
    if (i_ < text_.size()) advance();  // }
  }

  void array(std::string const& path) {
    advance();  // [
    skipBlanks();
    std::size_t index = 0;
    while (peek() != ']' && i_ < text_.size()) {
      SourcePosition const start = here();
      value(indexPath(path, index++), start);
      skipBlanks();
      if (peek() == ',') {
        advance();
        skipBlanks();
      }
    }
    if (i_ < text_.size()) advance();  // ]
  }

  // Reads a string literal and returns its decoded text.
  std::string string() {
    std::string out;
    advance();  // opening quote
    while (i_ < text_.size() && peek() != '"') {
      if (peek() != '\\') {
        out += peek();
        advance();
        continue;
      }
      advance();
      char const esc = peek();
      advance();
      switch (esc) {
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          std::uint32_t cp = hex4();
          if (cp >= 0xD800 && cp < 0xDC00 && peek() == '\\') {
            advance();
            advance();  // u
            std::uint32_t const low = hex4();
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          }
          appendUtf8(out, cp);
          break;
        }
        default:
          out += esc;  // " \ /
          break;
      }
    }
    if (i_ < text_.size()) advance();  // closing quote
    return out;
  }

  std::uint32_t hex4() {
    std::uint32_t v = 0;
    for (int k = 0; k < 4 && i_ < text_.size(); ++k) {
      char const c = peek();
      advance();
      v <<= 4;
      if (c >= '0' && c <= '9') {
        v |= static_cast<std::uint32_t>(c - '0');
      } else {
        v |= static_cast<std::uint32_t>((std::tolower(static_cast<unsigned char>(c)) - 'a') + 10);
      }
    }
    return v;
  }

  std::string_view text_;
  JsonSourceMap& map_;
  std::size_t i_ = 0;
  SourcePosition pos_{1, 1};
};

JsonSourceMap::JsonSourceMap(std::string_view text) { Walker(text, *this).run(); }

SourcePosition JsonSourceMap::value(std::string const& path) const {
  auto it = where_.find(path);
  return it == where_.end() ? SourcePosition{} : it->second.value;
}

SourcePosition JsonSourceMap::key(std::string const& path) const {
  auto it = where_.find(path);
  return it == where_.end() ? SourcePosition{} : it->second.key;
}

}  // namespace Tunnel::Tool
