#pragma once

#include <memory>

#include "tarskel/daemon/DaemonOp.hpp"
#include "tarskel/daemon/GrantsStore.hpp"

namespace tarskel {

// "daemon.grants.sync": the caller sends the whole grants table, which takes
// the place of the old one. Arguments {"grants": {<serviceId>: [<op>...]}};
// in each list only the strings count, other elements are dropped. A value
// that is not an array fails with
// "concesiones de <service>: se esperaba array de strings" and changes
// nothing. The store's failures pass on as they are. Returns
// {"services": <number of entries>}. Needs no grant.
class GrantsSyncOp final : public DaemonOp {
 public:
  explicit GrantsSyncOp(std::shared_ptr<GrantsStore> store);

  boost::asio::awaitable<JSONValue> execute(const JSONObject& args,
                                            const DaemonOpContext& context) const override;

  const std::shared_ptr<GrantsStore>& store() const { return store_; }

 private:
  std::shared_ptr<GrantsStore> store_;
};

}  // namespace tarskel
