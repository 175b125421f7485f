#include "tarskel/daemon/GrantsStore.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <optional>
#include <utility>

#include "RandomUUID.hpp"
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
  for (const auto& [service, ops] : grants) sets.emplace(service, std::set<std::string>(ops.begin(), ops.end()));
  return sets;
}

std::optional<std::string> readWholeFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return bytes;
}

GrantSets load(const std::filesystem::path& path) {
  std::optional<std::string> bytes = readWholeFile(path);
  if (!bytes) return {};
  try {
    return toSets(TarskelJSON::decoder().decode<GrantsFile>(*bytes).grants);
  } catch (const std::exception&) {
    return {};  // a broken file counts as absent until the next replace
  }
}

// A plain write: the mode is what the process's umask makes of 0666.
void writeFile(const std::filesystem::path& path, const std::string& bytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) throw FileSystemError::fromErrno("no se pudo escribir", path.native(), errno);
  std::size_t written = 0;
  while (written < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int error = errno;
      ::close(fd);
      throw FileSystemError::fromErrno("no se pudo escribir", path.native(), error);
    }
    written += static_cast<std::size_t>(n);
  }
  if (::close(fd) != 0 && errno != EINTR) {
    throw FileSystemError::fromErrno("no se pudo escribir", path.native(), errno);
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
  std::filesystem::path temporary =
      fileURL_.parent_path() / (".grants-" + randomUUIDString() + ".tmp");
  writeFile(temporary, bytes);
  // rename(2) swaps the name in one step and needs no existing target, so a
  // first sync on a fresh machine takes the same road as every other.
  if (std::rename(temporary.c_str(), fileURL_.c_str()) != 0) {
    throw FileSystemError::fromErrno("no se pudo reemplazar", fileURL_.native(), errno);
  }
  grants_ = toSets(grants);  // last: any failure above leaves the memory as it was
}

GrantsStore::Grants GrantsStore::snapshotSync() const {
  Grants out;
  for (const auto& [service, ops] : grants_) out.emplace(service, std::vector<std::string>(ops.begin(), ops.end()));
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
