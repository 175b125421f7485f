#include "E2EFixture.hpp"

#include <signal.h>

#include <boost/asio/thread_pool.hpp>
#include <iostream>
#include <stdexcept>

#include "tarskel/store/SQLiteDatabase.hpp"

namespace tarskel::e2e {

DaemonProcess& E2EFixture::start(Environment environment, const std::filesystem::path& executable) {
  environment.try_emplace("TARSKEL_VENDOR_SEED", std::nullopt);
  environment.try_emplace("TARSKEL_INSTALLED_APP", std::nullopt);
  environment.try_emplace("LISTEN_FDS", std::nullopt);
  environment.try_emplace("LISTEN_PID", std::nullopt);
  daemon.reset();
  daemon = std::make_unique<DaemonProcess>(DaemonProcess::Options{
      executable, {"--mach-service", socketPath(), "--root", root().string()}, environment});
  if (!daemon->waitForLine(kServingLine + socketPath())) {
    std::string log;
    for (const std::string& line : daemon->lines()) log += line + "\n";
    throw std::runtime_error("the daemon did not come up:\n" + log);
  }
  return *daemon;
}

void E2EFixture::TearDown() {
  if (!HasFailure() || !daemon) return;
  std::string log;
  for (const std::string& line : daemon->lines()) log += "  " + line + "\n";
  std::cerr << "daemon standard error:\n" << log;
}

void E2EFixture::stop() {
  if (daemon) daemon->kill(SIGKILL);
}

DaemonResponse E2EFixture::call(const std::string& op, JSONObject args,
                                std::optional<std::string> serviceId,
                                std::optional<std::string> correlationId) {
  DaemonXPCClient client(socketPath());
  return client.request(
      DaemonRequest{op, std::move(args), std::move(correlationId), std::move(serviceId)});
}

std::vector<AuditStore::Entry> E2EFixture::auditRows() const {
  // A store of our own on the daemon's file only reads here: no record.
  boost::asio::thread_pool pool(1);
  AuditStore store(SQLiteDatabase::open(auditPath().string()), pool.get_executor());
  return store.recentSync(-1);
}

bool E2EFixture::chainHolds() const {
  boost::asio::thread_pool pool(1);
  AuditStore store(SQLiteDatabase::open(auditPath().string()), pool.get_executor());
  AuditStore::ChainReport report = store.inspectChain();
  if (!report.holds()) ADD_FAILURE() << "chain breaks: " << report.firstBreak->reason;
  return report.holds();
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
