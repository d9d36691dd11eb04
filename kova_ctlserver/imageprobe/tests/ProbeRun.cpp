#include "ProbeRun.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <system_error>

#include "../Decoder.h"

namespace kova::imageprobe {
namespace {

constexpr int kPatienceMs = 60'000;

/// Runs `body` in a child and captures its standard output.
Ended inChild(const std::function<int()>& body) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "no pipe");
  }
  const pid_t child = fork();
  if (child < 0) {
    throw std::system_error(errno, std::generic_category(), "no child");
  }
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    const int silence = open("/dev/null", O_WRONLY);
    dup2(silence, STDERR_FILENO);
    _exit(body());
  }
  close(ends[1]);

  Ended result;
  pollfd output{ends[0], POLLIN, 0};
  std::array<char, 4096> chunk{};
  ssize_t got = 0;
  bool silent = false;
  while (!(silent = poll(&output, 1, kPatienceMs) == 0) &&
         (got = read(ends[0], chunk.data(), chunk.size())) > 0) {
    result.out.append(chunk.data(), static_cast<std::size_t>(got));
  }
  close(ends[0]);
  if (silent) {
    kill(child, SIGKILL);
  }
  int status = 0;
  rusage used{};
  wait4(child, &status, 0, &used);
  result.status = silent ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  result.cpuSeconds = seconds(used.ru_utime) + seconds(used.ru_stime);
  result.residentKiB = used.ru_maxrss;
  return result;
}

std::string line(int channels, int depth, int width, int height) {
  return "empty=0 channels=" + std::to_string(channels) + " depth=" + std::to_string(depth) +
         " width=" + std::to_string(width) + " height=" + std::to_string(height) + "\n";
}

}  // namespace

Ended run(const std::vector<std::string>& words) {
  return inChild([&] {
    std::vector<char*> arguments;
    for (const std::string& word : words) {
      arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    return 127;
  });
}

Ended probe(const std::string& file) {
  return run({KOVA_IMAGEPROBE, file});
}

Ended probeInFork(const std::string& file) {
  std::fflush(stdout);  // or the child prints it again
  return inChild([&]() -> int { decodeConfined(file.c_str()); });
}

std::string unconfined(const std::string& file) {
  const Ended reference = inChild([&] {
    std::string said = kEmptyLine;
    try {
      const cv::Mat image = cv::imread(file, cv::IMREAD_GRAYSCALE);
      if (!image.empty()) {
        said = line(image.channels(), image.depth(), image.cols, image.rows);
      }
    } catch (const std::exception&) {
      said = kEmptyLine;
    }
    return write(STDOUT_FILENO, said.data(), said.size()) > 0 ? 0 : 1;
  });
  return reference.status == 0 ? reference.out : "";
}

std::string greyLine(int width, int height) {
  return line(1, CV_8U, width, height);
}

}  // namespace kova::imageprobe
