// Messages of the host runtime: lines on standard error with the prefix "host runtime: ", apart
// from the tool's own messages on standard output. Code throws a Refusal to refuse a call, and the
// interface turns it into a message and a result, in one place.
#ifndef QUILMRUN_RUNTIME_HOST_DIAGNOSTICS_H_
#define QUILMRUN_RUNTIME_HOST_DIAGNOSTICS_H_

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>

namespace quilm_host {

struct Refusal : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Prints a message, each line of it with the prefix.
inline void Explain(const std::string& message) {
  std::istringstream lines(message);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    text += "host runtime: " + line + "\n";
  }
  // Names from model files may hold control characters, which would disturb a terminal.
  const auto isControl = [](unsigned char c) { return c < ' ' && c != '\n'; };
  std::replace_if(text.begin(), text.end(), isControl, ' ');
  std::fwrite(text.data(), 1, text.size(), stderr);
}

/// A blank and the text in quotation marks, to follow a word such as "input".
inline std::string Quoted(const std::string& name) {
  return " \"" + name + "\"";
}

template <typename Parts>
std::string Joined(const Parts& parts, const char* separator = ", ") {
  std::ostringstream text;
  for (const auto& part : parts) {
    text << (text.tellp() > 0 ? separator : "") << part;
  }
  return text.str();
}

/// Throws a Refusal whose reason is the texts and numbers joined.
template <typename... Parts>
[[noreturn]] void Refuse(const Parts&... parts) {
  std::ostringstream reason;
  (reason << ... << parts);
  throw Refusal(reason.str());
}

/// Refuses unless `right`. The parts are evaluated in any case: code that every inference passes
/// through tests the condition itself and calls Refuse().
template <typename... Parts>
void Require(bool right, const Parts&... parts) {
  if (!right) {
    Refuse(parts...);
  }
}

/// Calls `body`. When it throws a Refusal, `describe()`, which returns a text, goes before its
/// reason.
template <typename Describe, typename Body>
void WithContext(const Describe& describe, const Body& body) {
  try {
    body();
  } catch (const Refusal& refusal) {
    Refuse(describe(), ": ", refusal.what());
  }
}

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_DIAGNOSTICS_H_
