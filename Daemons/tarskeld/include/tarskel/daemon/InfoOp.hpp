#pragma once

#include <cstdint>

#include "tarskel/daemon/DaemonOp.hpp"

namespace tarskel {

// "daemon.info": what a client is talking to. Takes no arguments (any key is
// a schema violation) and needs no grant. Returns
//   {"daemonVersion", "protocolVersion", "uid" (real uid), "pid", "ops"}
// with "ops" the context's catalogue. Never fails. The uid and pid are read
// once, when the operation is built: the daemon never changes its user and
// never forks, so a request costs no system call for them.
class InfoOp final : public DaemonOp {
 public:
  InfoOp();

  boost::asio::awaitable<JSONValue> execute(const JSONObject& args,
                                            const DaemonOpContext& context) const override;

 private:
  std::int64_t uid_;
  std::int64_t pid_;
};

}  // namespace tarskel
