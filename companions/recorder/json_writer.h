// Writes JSON piece by piece.
#ifndef QUILMRUN_COMPANIONS_RECORDER_JSON_WRITER_H_
#define QUILMRUN_COMPANIONS_RECORDER_JSON_WRITER_H_

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace quilmrun_record {

/// The one place where JSON is put together: commas, quotes and escapes. Line breaks are up to the
/// caller.
class JsonWriter {
 public:
  explicit JsonWriter(std::FILE* file) : file_(file) {}
  ~JsonWriter() { Flush(); }
  JsonWriter(const JsonWriter&) = delete;
  JsonWriter& operator=(const JsonWriter&) = delete;

  JsonWriter& Open(char bracket);
  JsonWriter& Close(char bracket);
  JsonWriter& Key(std::string_view name);

  /// Bytes that are no UTF-8, as file names may have them, are written as the lone surrogates that
  /// Python makes of them, and makes the same bytes of.
  JsonWriter& Text(std::string_view text);
  JsonWriter& Integer(int64_t value);
  JsonWriter& Count(uint64_t value);
  /// Nanoseconds in units of `perUnit` nanoseconds, a power of ten, without losing a digit.
  JsonWriter& Time(uint64_t ns, uint64_t perUnit);
  JsonWriter& Number(double value, int digits = 9);
  JsonWriter& Bool(bool value);
  JsonWriter& Null();
  JsonWriter& Break();

  /// Hands everything to the file.
  void Flush();

 private:
  JsonWriter& Value(std::string_view text);

  std::FILE* file_;
  std::string text_;
  std::string pending_;      // line breaks that come after the next comma
  bool needsComma_ = false;  // before the next value or key
};

}  // namespace quilmrun_record

#endif  // QUILMRUN_COMPANIONS_RECORDER_JSON_WRITER_H_
