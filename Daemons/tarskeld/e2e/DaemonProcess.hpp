#pragma once

// The end-to-end harness: a real tarskeld process on a temporary root and
// socket, its standard error read line by line, and a raw connection for
// what the client never sends (bad bytes, messages without a reply).

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tarskel/testing/TempDirectory.hpp"
#include "tarskel/xpc/Transport.hpp"

namespace tarskel::e2e {

using namespace std::chrono_literals;

// A fresh directory under /tmp (short, so that socket paths fit), removed
// with everything in it afterwards.
class TempDir : public testing::TempDirectory {
 public:
  TempDir() : TempDirectory("tarskeld-e2e", "/tmp") {}
  std::filesystem::path operator/(const std::string& name) const { return path() / name; }
};

void writeFile(const std::filesystem::path& path, const std::string& bytes);
std::string readFile(const std::filesystem::path& path);

// One started process. Its standard error is collected by a reader thread;
// standard output is discarded. The destructor kills what is still running.
class DaemonProcess {
 public:
  struct Options {
    std::filesystem::path executable;
    std::vector<std::string> arguments;
    // Set on top of this process's environment; an empty optional removes
    // the variable.
    std::map<std::string, std::optional<std::string>> environment;
  };

  explicit DaemonProcess(const Options& options);
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  pid_t pid() const { return pid_; }

  // Waits until a line of standard error contains `text`; false at the time
  // limit or when the process ends first.
  bool waitForLine(const std::string& text, std::chrono::milliseconds limit = 10s);

  // Everything written to standard error so far, one entry per line.
  std::vector<std::string> lines() const;

  // Sends `signal` and reaps the process; its wait status.
  int kill(int signal);

  // Waits for the process to end by itself; its wait status, or nothing at
  // the time limit.
  std::optional<int> waitForExit(std::chrono::milliseconds limit = 10s);

 private:
  void readErrors(int fd);

  pid_t pid_ = -1;
  std::optional<int> status_;
  std::thread reader_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  bool closed_ = false;
};

// A raw connection speaking the transport's frames and envelopes.
class RawConnection {
 public:
  explicit RawConnection(const std::string& socketPath);
  ~RawConnection();
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  void send(const TransportEnvelope& envelope);
  void sendBytes(const std::string& bytes);
  // Shuts the writing side: the daemon reads the end of the stream.
  void shutdownWrite();
  int fd() const { return fd_; }

  // The next reply, or nothing when the connection closes or the time
  // limit passes.
  std::optional<TransportEnvelope> receive(std::chrono::milliseconds limit = 10s);

 private:
  bool readExactly(char* into, std::size_t length, std::chrono::steady_clock::time_point until);

  int fd_ = -1;
};

}  // namespace tarskel::e2e
