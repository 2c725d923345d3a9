#include "platform/standin/mqtt/json_string.h"

#include <cstddef>

namespace standin {
namespace {

const char kReplacementCharacter[] = "\xEF\xBF\xBD";  // U+FFFD in UTF-8

// The UTF-8 sequence that starts at text[start]: its length when well formed,
// otherwise the length of its maximal ill-formed prefix (at least 1).
struct Utf8Sequence {
  size_t length;
  bool wellFormed;
};

Utf8Sequence utf8SequenceAt(const std::string& text, size_t start) {
  const auto lead = static_cast<unsigned char>(text[start]);
  if (lead < 0x80) return {1, true};
  size_t continuations;
  unsigned char secondMin = 0x80, secondMax = 0xBF;  // excludes overlongs, surrogates, > U+10FFFF
  if (lead >= 0xC2 && lead <= 0xDF) {
    continuations = 1;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    continuations = 2;
    if (lead == 0xE0) secondMin = 0xA0;
    if (lead == 0xED) secondMax = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    continuations = 3;
    if (lead == 0xF0) secondMin = 0x90;
    if (lead == 0xF4) secondMax = 0x8F;
  } else {
    return {1, false};
  }
  for (size_t i = 1; i <= continuations; ++i) {
    if (start + i >= text.size()) return {i, false};
    const auto byte = static_cast<unsigned char>(text[start + i]);
    const unsigned char min = i == 1 ? secondMin : 0x80;
    const unsigned char max = i == 1 ? secondMax : 0xBF;
    if (byte < min || byte > max) return {i, false};
  }
  return {continuations + 1, true};
}

void appendEscapedAscii(std::string& out, char c) {
  static const char kHex[] = "0123456789abcdef";
  switch (c) {
    case '"': out += "\\\""; return;
    case '\\': out += "\\\\"; return;
    case '\b': out += "\\b"; return;
    case '\f': out += "\\f"; return;
    case '\n': out += "\\n"; return;
    case '\r': out += "\\r"; return;
    case '\t': out += "\\t"; return;
    default: break;
  }
  const auto byte = static_cast<unsigned char>(c);
  if (byte < 0x20) {
    out += "\\u00";
    out += kHex[byte >> 4];
    out += kHex[byte & 0xf];
  } else {
    out += c;
  }
}

}  // namespace

void appendJsonString(std::string& out, const std::string& bytes) {
  out += '"';
  size_t position = 0;
  while (position < bytes.size()) {
    const Utf8Sequence sequence = utf8SequenceAt(bytes, position);
    if (!sequence.wellFormed) {
      out += kReplacementCharacter;
    } else if (sequence.length == 1) {
      appendEscapedAscii(out, bytes[position]);
    } else {
      out.append(bytes, position, sequence.length);
    }
    position += sequence.length;
  }
  out += '"';
}

}  // namespace standin
