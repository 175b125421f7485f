#pragma once

// The grants: which service may call which privileged operation, by name.
// The whole table lives in memory and in one file, daemon/grants.json:
//
//   grants.json := { "grants": { <serviceId>: [ <op name>, ... ], ... } }
//
// written compactly with TarskelJSON::encoder() (keys in no fixed order,
// each list as received, duplicates kept). In memory each list is a set.
//
// Threads and ownership. One store per process, shared by DaemonCore and
// GrantsSyncOp through shared_ptr, living as long as the process. The store
// serialises itself on a strand of the executor it is given: isGranted,
// replace and snapshot run one at a time there, and a replace holds the
// strand for its whole blocking file I/O. The awaitable members may be
// awaited from any coroutine on any thread; each hops to the strand for its
// one call and back. The *Sync members run on the caller's thread without
// the strand: call them only while no asynchronous call can run (start-up,
// tools, tests).

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/strand.hpp>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tarskel/daemon/FileSystemError.hpp"

namespace tarskel {

class GrantsStore {
 public:
  // Service identifier to operation names.
  using Grants = std::map<std::string, std::vector<std::string>>;

  // Reads `fileURL`. A missing, unreadable or malformed file (one value that
  // is not an array of strings is enough) gives an empty table, silently;
  // the file stays as it is until the next replace. Never throws.
  GrantsStore(std::filesystem::path fileURL, boost::asio::any_io_executor executor);

  GrantsStore(const GrantsStore&) = delete;
  GrantsStore& operator=(const GrantsStore&) = delete;

  // Whether `serviceId` holds `op`; exact comparison, no patterns.
  boost::asio::awaitable<bool> isGranted(std::string op, std::string serviceId);

  // Puts `grants` in place of the whole table: first the file, through a
  // temporary ".grants-<UUID>.tmp" beside it, flushed and renamed over it,
  // and only then the memory. Throws FileSystemError (or EncodingError) and
  // then leaves the file and the memory as they were, and no temporary file.
  // Works on a fresh machine where the file does not exist yet.
  boost::asio::awaitable<void> replace(Grants grants);

  // The whole table, each list sorted ascending without duplicates.
  boost::asio::awaitable<Grants> snapshot();

  // Synchronous forms; see the thread rules above.
  bool isGrantedSync(const std::string& op, const std::string& serviceId) const;
  void replaceSync(const Grants& grants);
  Grants snapshotSync() const;

  const std::filesystem::path& fileURL() const { return fileURL_; }
  const boost::asio::strand<boost::asio::any_io_executor>& strand() const { return strand_; }

 private:
  std::filesystem::path fileURL_;
  boost::asio::strand<boost::asio::any_io_executor> strand_;
  std::map<std::string, std::set<std::string>> grants_;  // touched only on the strand
};

}  // namespace tarskel
