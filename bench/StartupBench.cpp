// Time from the start of a tarskeld process to its serving line, on a fresh
// state root each time (directory, audit database, grants, listener), beside
// the launch of the same executable that only prints its version: the ratio
// is what start-up costs over a bare process launch.
//
//   build/bench/bench/StartupBench [--benchmark_min_time=3]
//
// The daemon is found beside this executable's build tree
// (../Daemons/tarskeld/tarskeld) or at $TARSKELD_PATH.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace {
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

fs::path daemonPath() {
  if (const char* given = std::getenv("TARSKELD_PATH")) return given;
  return fs::read_symlink("/proc/self/exe").parent_path().parent_path() /
         "Daemons/tarskeld/tarskeld";
}

// Starts `arguments` with standard error on a pipe; the pipe's read end.
pid_t spawn(const std::vector<std::string>& arguments, int& errors) {
  std::vector<std::string> texts = arguments;
  std::vector<char*> argv;
  for (std::string& text : texts) argv.push_back(text.data());
  argv.push_back(nullptr);
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    int devNull = open("/dev/null", O_RDWR);
    dup2(devNull, STDOUT_FILENO);
    dup2(fds[1], STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(fds[1]);
  errors = fds[0];
  return pid;
}

// Reads `fd` until `text` shows up; false at end of file or after 10 s.
bool waitFor(int fd, const std::string& text) {
  std::string seen;
  char buffer[4096];
  Clock::time_point until = Clock::now() + std::chrono::seconds(10);
  while (seen.find(text) == std::string::npos) {
    pollfd one{fd, POLLIN, 0};
    if (Clock::now() > until || poll(&one, 1, 100) < 0) return false;
    if ((one.revents & (POLLIN | POLLHUP)) == 0) continue;
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) return false;
    seen.append(buffer, static_cast<std::size_t>(n));
  }
  return true;
}

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void BM_StartToServingLine(benchmark::State& state) {
  const fs::path daemon = daemonPath();
  double serving = 0;
  double launch = 0;
  for (auto _ : state) {
    std::string root = "/tmp/tarskeld-bench-XXXXXX";
    if (mkdtemp(root.data()) == nullptr) return state.SkipWithError("mkdtemp");
    const std::string socket = root + "/d.sock";

    Clock::time_point start = Clock::now();
    int errors = -1;
    pid_t pid =
        spawn({daemon.string(), "--mach-service", socket, "--root", root + "/state"}, errors);
    bool served = pid > 0 && waitFor(errors, "sirviendo " + socket);
    double elapsed = secondsSince(start);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(errors);

    // The reference: the same executable, launched to print its version.
    start = Clock::now();
    pid_t reference = spawn({daemon.string(), "--version"}, errors);
    waitpid(reference, nullptr, 0);
    launch += secondsSince(start);
    close(errors);

    fs::remove_all(root);
    if (!served) return state.SkipWithError("the daemon did not serve");
    serving += elapsed;
    state.SetIterationTime(elapsed);
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["serving_ms"] = serving / n * 1000;
  state.counters["launch_ms"] = launch / n * 1000;
  state.counters["serving_over_launch"] = serving / launch;
}
BENCHMARK(BM_StartToServingLine)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace
