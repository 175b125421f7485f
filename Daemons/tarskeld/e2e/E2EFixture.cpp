#include "E2EFixture.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace tarskel::e2e {

DaemonProcess::DaemonProcess(const std::filesystem::path& executable,
                             const std::vector<std::string>& arguments,
                             const Environment& environment) {
  // env(1) sets and unsets the variables, then becomes the executable.
  std::vector<std::string> texts{"/usr/bin/env"};
  for (const auto& [name, value] : environment) {
    if (!value) texts.insert(texts.end(), {"-u", name});
  }
  for (const auto& [name, value] : environment) {
    if (value) texts.push_back(name + "=" + *value);
  }
  texts.push_back(executable.string());
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& text : texts) argv.push_back(text.data());
  argv.push_back(nullptr);

  const std::string errors = logFile_.file("stderr").string();
  if ((pid_ = ::fork()) < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (pid_ == 0) {
    // Only async-signal-safe calls from here on.
    const int devNull = ::open("/dev/null", O_RDWR);
    ::dup2(devNull, STDIN_FILENO);
    ::dup2(devNull, STDOUT_FILENO);
    ::dup2(::open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
}

DaemonProcess::~DaemonProcess() {
  if (!status_) kill(SIGKILL);
}

bool DaemonProcess::waitForLine(const std::string& text, std::chrono::milliseconds limit) {
  for (auto until = std::chrono::steady_clock::now() + limit;
       std::chrono::steady_clock::now() < until; std::this_thread::sleep_for(5ms)) {
    const bool ended = waitForExit(0ms).has_value();
    if (log().find(text) != std::string::npos) return true;
    if (ended) return false;
  }
  return false;
}

std::vector<std::string> DaemonProcess::lines() const {
  std::vector<std::string> out;
  std::istringstream in(log());
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

int DaemonProcess::kill(int signal) {
  if (status_) return *status_;
  ::kill(pid_, signal);
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  status_ = status;
  return status;
}

std::optional<int> DaemonProcess::waitForExit(std::chrono::milliseconds limit) {
  for (auto until = std::chrono::steady_clock::now() + limit; !status_;
       std::this_thread::sleep_for(5ms)) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
    if (std::chrono::steady_clock::now() >= until) break;
  }
  return status_;
}

DaemonProcess& E2EFixture::start(Environment environment) {
  for (const char* name :
       {"TARSKEL_VENDOR_SEED", "TARSKEL_INSTALLED_APP", "LISTEN_FDS", "LISTEN_PID"})
    environment.try_emplace(name, std::nullopt);
  daemon.reset();
  daemon = std::make_unique<DaemonProcess>(TARSKELD_PATH, daemonArguments(), environment);
  if (!daemon->waitForLine(kServingLine + socketPath()))
    throw std::runtime_error("the daemon did not come up:\n" + daemon->log());
  return *daemon;
}

void E2EFixture::TearDown() {
  if (HasFailure() && daemon) std::cerr << "daemon standard error:\n" << daemon->log();
}

void E2EFixture::stop() {
  if (daemon) daemon->kill(SIGKILL);
}

DaemonResponse E2EFixture::call(const std::string& op, JSONObject args,
                                std::optional<std::string> serviceId,
                                std::optional<std::string> correlationId) {
  return DaemonXPCClient(socketPath())
      .request(DaemonRequest{op, std::move(args), std::move(correlationId), std::move(serviceId)});
}

// A store of our own on the daemon's file only reads here: no record.
std::vector<AuditStore::Entry> E2EFixture::auditRows() const {
  boost::asio::thread_pool pool(1);
  return AuditStore(SQLiteDatabase::open(auditPath().string()), pool.get_executor()).recentSync(-1);
}

bool E2EFixture::chainHolds() const {
  boost::asio::thread_pool pool(1);
  AuditStore store(SQLiteDatabase::open(auditPath().string()), pool.get_executor());
  const AuditStore::ChainReport report = store.inspectChain();
  if (!report.holds()) ADD_FAILURE() << "chain breaks: " << report.firstBreak->reason;
  return report.holds();
}

std::optional<std::string> logMessage(const std::string& line) {
  static const std::regex form(
      R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d{4} ([a-z]+) tarskeld : \[tarskeld\] (.*)$)");
  std::smatch match;
  if (!std::regex_match(line, match, form)) return std::nullopt;
  return match[1].str() + " " + match[2].str();
}

std::vector<std::string> logMessages(const DaemonProcess& process) {
  std::vector<std::string> out;
  for (const std::string& line : process.lines()) {
    const auto message = logMessage(line);
    if (!message) ADD_FAILURE() << "not a log line: " << line;
    out.push_back(message.value_or(line));
  }
  return out;
}

std::string codeOf(const DaemonResponse& response) {
  if (response.ok) return "ok";
  return response.error ? response.error->code : "<no error>";
}

std::string messageOf(const DaemonResponse& response) {
  return response.error ? response.error->message : "";
}

const JSONValue& resultAt(const DaemonResponse& response, const std::string& key) {
  const JSONValue* value = response.result ? (*response.result)[key] : nullptr;
  if (value == nullptr) throw std::runtime_error("no result key " + key);
  return *value;
}

}  // namespace tarskel::e2e
