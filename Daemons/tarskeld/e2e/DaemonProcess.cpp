#include "DaemonProcess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

extern char** environ;

namespace tarskel::e2e {
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

[[noreturn]] void failSystem(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::vector<std::string> environmentWith(
    const std::map<std::string, std::optional<std::string>>& changes) {
  std::map<std::string, std::string> merged;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string text(*entry);
    std::size_t equals = text.find('=');
    if (equals != std::string::npos)
      merged.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  for (const auto& [name, value] : changes) {
    if (value) {
      merged[name] = *value;
    } else {
      merged.erase(name);
    }
  }
  std::vector<std::string> out;
  for (const auto& [name, value] : merged) out.push_back(name + "=" + value);
  return out;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> out;
  for (std::string& text : texts) out.push_back(text.data());
  out.push_back(nullptr);
  return out;
}

}  // namespace

void writeFile(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

DaemonProcess::DaemonProcess(const Options& options) {
  std::vector<std::string> argumentTexts{options.executable.string()};
  argumentTexts.insert(argumentTexts.end(), options.arguments.begin(), options.arguments.end());
  std::vector<std::string> environmentTexts = environmentWith(options.environment);
  std::vector<char*> argv = pointersTo(argumentTexts);
  std::vector<char*> envp = pointersTo(environmentTexts);

  int errors[2];
  if (pipe2(errors, O_CLOEXEC) != 0) failSystem("pipe2");
  pid_ = fork();
  if (pid_ < 0) failSystem("fork");
  if (pid_ == 0) {
    // Only async-signal-safe calls from here on.
    int devNull = open("/dev/null", O_RDWR);
    dup2(devNull, STDIN_FILENO);
    dup2(devNull, STDOUT_FILENO);
    dup2(errors[1], STDERR_FILENO);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(errors[1]);
  reader_ = std::thread([this, fd = errors[0]] { readErrors(fd); });
}

DaemonProcess::~DaemonProcess() {
  if (!status_) kill(SIGKILL);
  if (reader_.joinable()) reader_.join();
}

void DaemonProcess::readErrors(int fd) {
  std::string pending;
  char buffer[4096];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    pending.append(buffer, static_cast<std::size_t>(n));
    std::lock_guard lock(mutex_);
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
      lines_.push_back(pending.substr(0, end));
      pending.erase(0, end + 1);
    }
    changed_.notify_all();
  }
  close(fd);
  std::lock_guard lock(mutex_);
  if (!pending.empty()) lines_.push_back(pending);
  closed_ = true;
  changed_.notify_all();
}

bool DaemonProcess::waitForLine(const std::string& text, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  auto found = [&] {
    for (const std::string& line : lines_) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  };
  changed_.wait_for(lock, limit, [&] { return found() || closed_; });
  return found();
}

std::vector<std::string> DaemonProcess::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

int DaemonProcess::kill(int signal) {
  if (status_) return *status_;
  ::kill(pid_, signal);
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  status_ = status;
  if (reader_.joinable()) reader_.join();
  return status;
}

std::optional<int> DaemonProcess::waitForExit(std::chrono::milliseconds limit) {
  if (status_) return status_;
  Clock::time_point until = Clock::now() + limit;
  while (Clock::now() < until) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      status_ = status;
      if (reader_.joinable()) reader_.join();
      return status_;
    }
    std::this_thread::sleep_for(5ms);
  }
  return std::nullopt;
}

RawConnection::RawConnection(const std::string& socketPath) {
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) failSystem("socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof address.sun_path)
    throw std::runtime_error("socket path too long");
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    int saved = errno;
    close(fd_);
    errno = saved;
    failSystem("connect " + socketPath);
  }
}

RawConnection::~RawConnection() { close(fd_); }

void RawConnection::send(const TransportEnvelope& envelope) {
  sendBytes(Transport::encodeFrame(envelope));
}

void RawConnection::shutdownWrite() { ::shutdown(fd_, SHUT_WR); }

void RawConnection::sendBytes(const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) failSystem("send");
    done += static_cast<std::size_t>(n);
  }
}

bool RawConnection::readExactly(char* into, std::size_t length, Clock::time_point until) {
  std::size_t done = 0;
  while (done < length) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
    if (left.count() <= 0) return false;
    pollfd one{fd_, POLLIN, 0};
    if (poll(&one, 1, static_cast<int>(left.count())) <= 0) continue;
    ssize_t n = read(fd_, into + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

std::optional<TransportEnvelope> RawConnection::receive(std::chrono::milliseconds limit) {
  Clock::time_point until = Clock::now() + limit;
  unsigned char head[4];
  if (!readExactly(reinterpret_cast<char*>(head), sizeof head, until)) return std::nullopt;
  std::size_t length = (std::size_t{head[0]} << 24) | (std::size_t{head[1]} << 16) |
                       (std::size_t{head[2]} << 8) | std::size_t{head[3]};
  std::string payload(length, '\0');
  if (!readExactly(payload.data(), length, until)) return std::nullopt;
  return Transport::decodeEnvelope(payload);
}

}  // namespace tarskel::e2e
