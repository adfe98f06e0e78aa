// peak COMMAND...: runs a command and prints the most memory that it or a process it waited for has
// had, in bytes. A process is accounted the memory of the one that starts it, so that has to be
// small.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
  const pid_t child = argc > 1 ? fork() : -1;
  if (child == 0) {
    execvp(argv[1], argv + 1);
    _exit(127);
  }
  int status = -1;
  rusage usage{};
  if (child < 0 || wait4(child, &status, 0, &usage) != child || status != 0) {
    std::fputs("peak: the command failed\n", stderr);
    return 1;
  }
  constexpr long kKilobyte = 1024;
  std::fprintf(stderr, "%ld\n", usage.ru_maxrss * kKilobyte);
  return 0;
}
