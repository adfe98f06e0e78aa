#include "runtime/host/diagnostics.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace quilm_host {

void Explain(const std::string& problem) {
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

std::string Quoted(const std::string& name) {
  return " \"" + name + "\"";
}

}  // namespace quilm_host
