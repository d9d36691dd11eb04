// Times a command.
//
//   bench_timed COMMAND [ARG...]
//
// Runs the command and prints, as the last line of the output, its duration in milliseconds and its
// peak resident memory in KiB. The exit status is the command's; 127 if it cannot be started, 128
// if a signal killed it.

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs("usage: bench_timed COMMAND [ARG...]\n", stderr);
    return 127;
  }
  const auto start = std::chrono::steady_clock::now();
  pid_t child = 0;
  const int error = posix_spawnp(&child, argv[1], nullptr, nullptr, argv + 1, environ);
  if (error != 0) {
    std::fprintf(stderr, "bench_timed: %s: %s\n", argv[1], std::strerror(error));
    return 127;
  }
  int status = 0;
  rusage usage{};
  if (wait4(child, &status, 0, &usage) != child) {
    std::perror("bench_timed");
    return 127;
  }
  const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - start;
  std::printf("%.1f %ld\n", time.count(), usage.ru_maxrss);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}
