#pragma once

#include "tarskel/daemon/DaemonOp.hpp"

namespace tarskel {

// "daemon.info": what a client is talking to. Takes no arguments (any key is
// a schema violation) and needs no grant. Returns
//   {"daemonVersion", "protocolVersion", "uid" (real uid), "pid", "ops"}
// with "ops" the context's catalogue. Never fails.
class InfoOp final : public DaemonOp {
 public:
  InfoOp();

  boost::asio::awaitable<JSONValue> execute(const JSONObject& args,
                                            const DaemonOpContext& context) const override;
};

}  // namespace tarskel
