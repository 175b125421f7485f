#pragma once

// Test support, shipped nowhere: store files in a fresh directory, and a
// writer killed mid-stream.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tarskel/testing/TempDirectory.hpp"

namespace tarskel::testing {

// A fresh directory whose files are named as the stores take them: as text.
class TempDir : public TempDirectory {
 public:
  TempDir() : TempDirectory("tarskel-store") {}
  std::string file(const std::string& name) const { return (path() / name).string(); }
};

// Forks a child that calls `open()` for a step function and then runs step(0),
// step(1), ... as fast as it can, writing each returned text as a line to a
// pipe once its step has returned. The child is killed with SIGKILL once
// `count` lines have come; every whole line read is returned, those still in
// the pipe at the kill included.
template <class Open>
std::vector<std::string> linesBeforeSIGKILL(std::size_t count, Open open) {
  int fds[2];
  if (::pipe(fds) != 0) return {};
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(fds[0]);
    auto step = open();
    for (int i = 0;; ++i) {
      const std::string line = step(i) + "\n";
      if (::write(fds[1], line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(3);
    }
  }
  ::close(fds[1]);
  FILE* in = ::fdopen(fds[0], "r");
  std::vector<std::string> lines;
  char buffer[128];
  while (std::fgets(buffer, sizeof buffer, in) != nullptr) {
    const std::size_t n = std::strlen(buffer);
    if (buffer[n - 1] == '\n') lines.emplace_back(buffer, n - 1);
    if (lines.size() == count) ::kill(child, SIGKILL);
  }
  std::fclose(in);
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the child ended by itself";
  EXPECT_GE(lines.size(), count);
  return lines;
}

}  // namespace tarskel::testing
