#include "tarskel/protocol/base/TrustedPath.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace tarskel {
namespace {

constexpr int kMaxLinks = 8;

std::optional<std::string> untrustedFrom(const std::filesystem::path& directory, uid_t owner,
                                         int linksLeft) {
  std::filesystem::path partial;
  for (const auto& part : std::filesystem::absolute(directory).lexically_normal()) {
    if (part.empty()) continue;  // the empty name after a trailing slash
    partial /= part;
    struct stat st {};
    if (::lstat(partial.c_str(), &st) != 0) {
      // Nothing below a missing directory can be swapped but by whoever may
      // write the one above it, which passed.
      if (errno == ENOENT) return std::nullopt;
      return partial.string() + ": " + std::strerror(errno);
    }
    if (S_ISLNK(st.st_mode)) {
      std::error_code ec;
      const std::filesystem::path target = std::filesystem::canonical(partial, ec);
      if (ec || linksLeft == 0) return partial.string() + ": " + std::strerror(ELOOP);
      if (auto why = untrustedFrom(target, owner, linksLeft - 1)) return why;
      continue;
    }
    if (!S_ISDIR(st.st_mode)) return partial.string() + " no es un directorio";
    if (st.st_uid != 0 && st.st_uid != owner) {
      return partial.string() + " pertenece a otro usuario (uid " + std::to_string(st.st_uid) + ")";
    }
    const bool sharedWithCare = st.st_uid == 0 && (st.st_mode & S_ISVTX) != 0;
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !sharedWithCare) {
      return partial.string() + " admite escritura de grupo u otros";
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> untrustedDirectory(const std::filesystem::path& directory, uid_t owner) {
  return untrustedFrom(directory, owner, kMaxLinks);
}

}  // namespace tarskel
