#include "tarskel/daemon/GrantsStore.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <utility>

#include "RandomUUID.hpp"
#include "tarskel/protocol/base/Files.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

using boost::asio::awaitable;
using boost::asio::use_awaitable;
using GrantSets = std::map<std::string, std::set<std::string>>;

// The file's one record.
struct GrantsFile {
  GrantsStore::Grants grants;

  void encode(KeyedEncoder& e) const { e.required("grants", grants); }
  static GrantsFile decode(const KeyedDecoder& d) {
    return GrantsFile{d.required<GrantsStore::Grants>("grants")};
  }
};

GrantSets toSets(const GrantsStore::Grants& grants) {
  GrantSets sets;
  for (const auto& [service, ops] : grants)
    sets.emplace(service, std::set<std::string>(ops.begin(), ops.end()));
  return sets;
}

// Far beyond any real table; a bigger file counts as broken, like one that
// does not decode.
constexpr std::size_t kMaxGrantsBytes = 16u << 20;

GrantSets load(const std::filesystem::path& path) {
  try {
    const std::string bytes = readFile(path, kMaxGrantsBytes);
    return toSets(TarskelJSON::decoder().decode<GrantsFile>(bytes).grants);
  } catch (const std::exception&) {
    return {};  // a missing or broken file counts as absent until the next replace
  }
}

awaitable<bool> isGrantedOnStrand(const GrantsStore& store, std::string op, std::string serviceId) {
  co_return store.isGrantedSync(op, serviceId);
}

awaitable<void> replaceOnStrand(GrantsStore& store, GrantsStore::Grants grants) {
  store.replaceSync(grants);
  co_return;
}

awaitable<GrantsStore::Grants> snapshotOnStrand(const GrantsStore& store) {
  co_return store.snapshotSync();
}

}  // namespace

GrantsStore::GrantsStore(std::filesystem::path fileURL, boost::asio::any_io_executor executor)
    : fileURL_(std::move(fileURL)),
      strand_(boost::asio::make_strand(executor)),
      grants_(load(fileURL_)) {}

bool GrantsStore::isGrantedSync(const std::string& op, const std::string& serviceId) const {
  auto it = grants_.find(serviceId);
  return it != grants_.end() && it->second.contains(op);
}

void GrantsStore::replaceSync(const Grants& grants) {
  std::string bytes = TarskelJSON::encoder().encode(GrantsFile{grants});
  // The rename needs no existing target, so a first sync on a fresh machine
  // takes the same road as every other. A failure removes the temporary file.
  atomicReplace(fileURL_, bytes, {".grants-" + randomUUIDString() + ".tmp", 0666});
  grants_ = toSets(grants);  // last: any failure above leaves the memory as it was
}

GrantsStore::Grants GrantsStore::snapshotSync() const {
  Grants out;
  for (const auto& [service, ops] : grants_)
    out.emplace(service, std::vector<std::string>(ops.begin(), ops.end()));
  return out;
}

awaitable<bool> GrantsStore::isGranted(std::string op, std::string serviceId) {
  bool granted = co_await boost::asio::co_spawn(
      strand_, isGrantedOnStrand(*this, std::move(op), std::move(serviceId)), use_awaitable);
  co_return granted;
}

awaitable<void> GrantsStore::replace(Grants grants) {
  co_await boost::asio::co_spawn(strand_, replaceOnStrand(*this, std::move(grants)), use_awaitable);
}

awaitable<GrantsStore::Grants> GrantsStore::snapshot() {
  Grants grants = co_await boost::asio::co_spawn(strand_, snapshotOnStrand(*this), use_awaitable);
  co_return grants;
}

}  // namespace tarskel
