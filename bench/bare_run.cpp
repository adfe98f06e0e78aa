// bare_run LOG OUTPUTS TARGET measures the least that the groups of a run can cost.
//
// It takes the log and the outputs of a run of the tool. For every group it makes the system calls
// that no tool can do without, with all bytes at hand: it writes the messages one by one, reads the
// input file, makes a directory below TARGET, and for each pair in OUTPUTS writes a file line by
// line and a file at once. It prints the nanoseconds per group.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct ReadyFile {
  std::string path;
  std::vector<std::string> pieces;  // one write each
};

struct Group {
  std::vector<std::string> messages;
  std::string input;
  std::string directory;
  std::vector<ReadyFile> outputs;
};

std::string ReadAll(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t start = 0; start < text.size(); start += lines.back().size()) {
    lines.push_back(text.substr(start, text.find('\n', start) + 1 - start));
  }
  return lines;
}

// A group starts with the message that names its input file and ends with that of the dump.
std::vector<Group> ReadGroups(const std::string& log) {
  static const std::string kFirst = "[INFO]  start to process file:";
  static const std::string kLast = "[INFO]  dump data success\n";
  std::vector<Group> groups;
  bool within = false;
  for (const std::string& line : SplitLines(ReadAll(log))) {
    if (line.rfind(kFirst, 0) == 0) {
      groups.emplace_back().input = line.substr(kFirst.size(), line.size() - kFirst.size() - 1);
      within = true;
    }
    if (within) {
      groups.back().messages.push_back(line);
    }
    within = within && line != kLast;
  }
  return groups;
}

void ReadOutputs(const fs::path& outputs, const std::string& target, std::vector<Group>& groups) {
  for (size_t i = 0; i < groups.size(); ++i) {
    groups[i].directory = target + "/" + std::to_string(i);
    for (const fs::directory_entry& entry : fs::directory_iterator(outputs / std::to_string(i))) {
      const std::string bytes = ReadAll(entry.path());
      const bool isText = entry.path().extension() == ".float";
      groups[i].outputs.push_back({groups[i].directory + "/" + entry.path().filename().string(),
                                   isText ? SplitLines(bytes) : std::vector<std::string>{bytes}});
    }
  }
}

void Check(bool good, const std::string& what) {
  if (!good) {
    std::perror(what.c_str());
    std::exit(1);
  }
}

void WritePieces(int file, const std::vector<std::string>& pieces) {
  for (const std::string& piece : pieces) {
    Check(write(file, piece.data(), piece.size()) == static_cast<ssize_t>(piece.size()), "write");
  }
}

void ReadInput(const std::string& path, std::vector<char>& memory) {
  const int file = open(path.c_str(), O_RDONLY);
  struct stat status = {};
  Check(file >= 0 && fstat(file, &status) == 0, path);
  memory.resize(static_cast<size_t>(status.st_size));
  Check(read(file, memory.data(), memory.size()) == status.st_size, path);
  close(file);
}

void RunGroup(const Group& group, int log, std::vector<char>& memory) {
  ReadInput(group.input, memory);
  WritePieces(log, group.messages);
  Check(mkdir(group.directory.c_str(), 0775) == 0, group.directory);
  for (const ReadyFile& output : group.outputs) {
    const int file = open(output.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    Check(file >= 0, output.path);
    WritePieces(file, output.pieces);
    close(file);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Check(argc == 4, "usage: bare_run LOG OUTPUTS TARGET");
  std::vector<Group> groups = ReadGroups(argv[1]);
  ReadOutputs(argv[2], argv[3], groups);
  const int log = open((argv[3] + std::string("/log.txt")).c_str(), O_WRONLY | O_CREAT, 0666);
  Check(log >= 0 && !groups.empty(), argv[3]);
  std::vector<char> memory;
  const auto start = std::chrono::steady_clock::now();
  for (const Group& group : groups) {
    RunGroup(group, log, memory);
  }
  const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
  std::printf("%.0f\n", time.count() / static_cast<double>(groups.size()));
  return 0;
}
