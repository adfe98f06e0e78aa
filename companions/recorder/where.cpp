#include "companions/recorder/where.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>

#include "companions/recorder/file_space.h"
#include "companions/recorder/sha256.h"

namespace quilmrun_record {
namespace {

// Returns the first line of a file of the kernel, up to a NUL, or nothing without such a file.
std::string FirstLine(const char* path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line.substr(0, line.find('\0'));
}

// Returns the model of the machine: boards have a device tree, PCs have a table of their maker.
std::string Board() {
  std::string model = FirstLine("/proc/device-tree/model");
  if (!model.empty()) {
    return model;
  }
  const std::string vendor = FirstLine("/sys/class/dmi/id/sys_vendor");
  const std::string product = FirstLine("/sys/class/dmi/id/product_name");
  return vendor.empty() || product.empty() ? vendor + product : vendor + " " + product;
}

// Returns the processor's name and kind. The kernel knows no name for most Arm processors.
std::string Processor(const std::string& kind) {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    const size_t colon = line.find(": ");
    const std::string key = line.substr(0, line.find_first_of("\t:"));
    if (colon != std::string::npos && (key == "model name" || key == "Hardware")) {
      return line.substr(colon + 2) + ", " + kind;
    }
  }
  return kind;
}

// Returns date, time and zone, such as 2026-11-23T18:02:30+0100.
std::string Now() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[64];
  std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S%z", &local);
  return text;
}

std::string CurrentDirectory() {
  char path[PATH_MAX];
  return getcwd(path, sizeof(path)) == nullptr ? "" : path;
}

// Writes keys and values by turns. It leaves out words of a command that is too long for the space.
class FactsWriter {
 public:
  explicit FactsWriter(CallsFacts& facts) : facts_(facts) {}

  void Add(const std::string& key, const std::string& value) {
    const size_t size = key.size() + 1 + value.size() + 1;
    if (used_ + size < sizeof(facts_.texts)) {  // an empty key ends them
      std::memcpy(facts_.texts + used_, key.c_str(), key.size() + 1);
      std::memcpy(facts_.texts + used_ + key.size() + 1, value.c_str(), value.size() + 1);
      used_ += size;
    }
  }

 private:
  CallsFacts& facts_;
  size_t used_ = 0;
};

void AddFacts(FactsWriter& facts, const std::vector<std::string>& command) {
  utsname system{};
  uname(&system);
  facts.Add("name", system.nodename);
  facts.Add("board", Board());
  facts.Add("processor", Processor(system.machine));
  facts.Add("cores", std::to_string(sysconf(_SC_NPROCESSORS_ONLN)));
  facts.Add("kernel", std::string(system.sysname) + " " + system.release);
  facts.Add("date", Now());
  facts.Add("companions", QUILMRUN_VERSION);
  facts.Add("directory", CurrentDirectory());
  for (const std::string& word : command) {
    facts.Add("command", word);
  }
}

bool ChecksumOf(int file, std::string& sha256) {
  Sha256 sum;
  std::vector<unsigned char> block(size_t{64} * 1024);
  ssize_t taken = 0;
  while ((taken = read(file, block.data(), block.size())) > 0) {
    sum.Add(block.data(), static_cast<size_t>(taken));
  }
  sha256 = sum.Finish();
  return taken == 0;
}

}  // namespace

const char* PrepareCallsFile(const char* path, const std::vector<std::string>& command,
                             bool everyCall) {
  const auto start = std::make_unique<CallsFile>();
  std::memcpy(start->header.magic, kMagic, sizeof(kMagic));
  start->header.everyCall = everyCall ? 1 : 0;
  FactsWriter facts(start->facts);
  AddFacts(facts, command);
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  const bool done = file >= 0 && WriteAt(file, start.get(), offsetof(CallsFile, latest), 0);
  const int problem = errno;
  close(file);
  return done ? nullptr : std::strerror(problem);
}

UsedFile LookAt(const std::string& path, const std::string& directory, int64_t runStartUs) {
  UsedFile used;
  used.path = path;
  const std::string whole = path.empty() || path[0] == '/' ? path : directory + "/" + path;
  const int file = open(whole.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat status = {};
  constexpr int64_t kUsPerSecond = 1000000;
  if (file >= 0 && fstat(file, &status) == 0 && S_ISREG(status.st_mode) &&
      status.st_mtime <= runStartUs / kUsPerSecond && ChecksumOf(file, used.sha256)) {
    used.bytes = status.st_size;
  }
  close(file);
  return used;
}

std::string OptionOf(const std::vector<std::string>& command, char option) {
  size_t first = 0;
  for (size_t i = 0; i < command.size(); ++i) {
    if (command[i].substr(command[i].rfind('/') + 1) == "quilmrun") {
      first = i + 1;
    }
  }
  std::string value;
  for (size_t i = first; i < command.size(); ++i) {
    const std::string& word = command[i];
    if (word.size() < 2 || word[0] != '-') {
      continue;
    }
    const bool isGlued = word.size() > 2;
    if (word[1] == option) {
      value = isGlued ? word.substr(2) : i + 1 < command.size() ? command[i + 1] : "";
    }
    i += isGlued ? 0 : 1;  // every option of the tool takes an argument
  }
  return value;
}

}  // namespace quilmrun_record
