// Uses one thing from each installed library, so that a missing header, an
// archive left out or a dependency the package config doesn't bring fails
// the build or the run.
#include <cstdio>
#include <string>

#include "tarskel/codesign/TeamTrust.hpp"
#include "tarskel/protocol/base/Version.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/semver/SemVer.hpp"
#include "tarskel/store/SQLiteDatabase.hpp"
#include "tarskel/vendor/Ed25519.hpp"
#include "tarskel/xpc/DaemonWire.hpp"

int main() {
  using namespace tarskel;
  DaemonRequest request{"daemon.info", {}, std::string("c-1"), std::nullopt};
  const std::string bytes = TarskelJSON::encoder().encode(request);
  const DaemonRequest back = TarskelJSON::decoder().decode<DaemonRequest>(bytes);

  const auto version = SemVer::parse(tarskelVersion);
  const VendorSignature signature = Ed25519KeyPair("consumer").sign("hello");

  auto db = SQLiteDatabase::open(":memory:");
  db->execute("CREATE TABLE t (x INTEGER)");

  const bool ok = back == request && version.has_value() && !signature.signature.empty() &&
                  !TeamTrust::loadIfProvisioned("/nonexistent", Logger("consumer"));
  std::printf("tarskel %s: %s\n", std::string(tarskelVersion).c_str(), ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
