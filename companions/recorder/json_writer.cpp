#include "companions/recorder/json_writer.h"

#include <charconv>
#include <cstdlib>

namespace quilmrun_record {
namespace {

constexpr size_t kBuffer = size_t{64} * 1024;

struct Sequence {  // of the bytes of one character
  unsigned char firstLow, firstHigh;
  unsigned char secondLow, secondHigh;
  size_t size;
};

// These are all well-formed sequences. Sequences that are longer than they need to be, surrogates
// and what is beyond the last character are not among them.
constexpr Sequence kSequences[] = {
    {0x00, 0x7F, 0x00, 0x00, 1}, {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
    {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
    {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4}};

unsigned char ByteAt(std::string_view text, size_t i) {
  return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
}

// Returns the number of bytes of the UTF-8 character at `start`, or 0 when there is none.
size_t CharacterBytes(std::string_view text, size_t start) {
  const unsigned char first = ByteAt(text, start);
  for (const Sequence& sequence : kSequences) {
    if (first < sequence.firstLow || first > sequence.firstHigh) {
      continue;
    }
    const unsigned char second = ByteAt(text, start + 1);
    bool fits =
        sequence.size == 1 || (second >= sequence.secondLow && second <= sequence.secondHigh);
    for (size_t i = 2; i < sequence.size; ++i) {
      fits = fits && (ByteAt(text, start + i) & 0xC0) == 0x80;
    }
    return fits ? sequence.size : 0;
  }
  return 0;
}

std::string Quote(std::string_view text) {
  std::string quoted = "\"";
  for (size_t i = 0; i < text.size();) {
    const size_t size = CharacterBytes(text, i);
    const unsigned byte = ByteAt(text, i);
    if (size == 0 || byte < 0x20) {
      constexpr unsigned kLoneSurrogates = 0xDC00;
      char escape[8];
      std::snprintf(escape, sizeof(escape), "\\u%04x", size == 0 ? kLoneSurrogates + byte : byte);
      quoted += escape;
    } else {
      quoted += byte == '"' || byte == '\\' ? "\\" : "";
      quoted += text.substr(i, size);
    }
    i += size == 0 ? 1 : size;
  }
  return quoted + "\"";
}

template <typename Integer>
std::string Digits(Integer value) {
  char digits[24];
  return {digits, std::to_chars(digits, digits + sizeof(digits), value).ptr};
}

}  // namespace

JsonWriter& JsonWriter::Value(std::string_view text) {
  text_ += needsComma_ ? "," : "";
  text_ += pending_;
  text_ += text;
  pending_.clear();
  needsComma_ = true;
  if (text_.size() > kBuffer) {
    Flush();
  }
  return *this;
}

JsonWriter& JsonWriter::Open(char bracket) {
  Value(std::string_view(&bracket, 1));
  needsComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::Close(char bracket) {
  needsComma_ = false;
  return Value(std::string_view(&bracket, 1));
}

JsonWriter& JsonWriter::Key(std::string_view name) {
  Value(Quote(name) + ":");
  needsComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::Text(std::string_view text) {
  return Value(Quote(text));
}

JsonWriter& JsonWriter::Integer(int64_t value) {
  return Value(Digits(value));
}

JsonWriter& JsonWriter::Count(uint64_t value) {
  return Value(Digits(value));
}

JsonWriter& JsonWriter::Time(uint64_t ns, uint64_t perUnit) {
  std::string text = Digits(ns / perUnit);
  if (ns % perUnit != 0) {
    const std::string rest = Digits(perUnit + ns % perUnit);  // 1 and the digits after the point
    text += "." + rest.substr(1, rest.find_last_not_of('0'));
  }
  return Value(text);
}

JsonWriter& JsonWriter::Number(double value, int digits) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.*g", digits, value);
  return Value(text);
}

JsonWriter& JsonWriter::Bool(bool value) {
  return Value(value ? "true" : "false");
}

JsonWriter& JsonWriter::Null() {
  return Value("null");
}

JsonWriter& JsonWriter::Break() {
  pending_ = "\n";
  return *this;
}

void JsonWriter::Flush() {
  std::fwrite(text_.data(), 1, text_.size(), file_);
  text_.clear();
}

}  // namespace quilmrun_record
