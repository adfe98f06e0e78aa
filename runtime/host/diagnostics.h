// How the host runtime explains itself: lines on standard error with the prefix "host runtime: ",
// apart from the tool's own messages on standard output. What refuses a call throws, and the
// interface turns that into an explanation and a result, in one place.
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

/// Prints a problem, each line of it with the prefix.
inline void Explain(const std::string& problem) {
  std::istringstream lines(problem);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    text += "host runtime: " + line + "\n";
  }
  // Texts from files may hold anything.
  const auto isControl = [](unsigned char c) { return c < ' ' && c != '\n'; };
  std::replace_if(text.begin(), text.end(), isControl, ' ');
  std::fwrite(text.data(), 1, text.size(), stderr);
}

/// The text in quotation marks, for names.
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

/// Refuses unless `right`.
template <typename... Parts>
void Require(bool right, const Parts&... parts) {
  if (!right) {
    Refuse(parts...);
  }
}

/// Calls `body`; the reason of a Refusal is put after what it is about.
template <typename Body>
void About(const std::string& subject, const Body& body) {
  try {
    body();
  } catch (const Refusal& refusal) {
    Refuse(subject, ": ", refusal.what());
  }
}

}  // namespace quilm_host

#endif  // QUILMRUN_RUNTIME_HOST_DIAGNOSTICS_H_
