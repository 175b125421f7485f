#include "tarskel/vendor/VendorSeed.hpp"

#include <system_error>

namespace tarskel::VendorSeed {
namespace fs = std::filesystem;

std::optional<fs::path> resolveSeedURL(const std::map<std::string, std::string>& environment,
                                       const std::optional<fs::path>& executableURL) {
  if (auto it = environment.find("TARSKEL_VENDOR_SEED"); it != environment.end()) {
    return fs::path(it->second);
  }
  if (executableURL) return bundledSeedURL(*executableURL);
  return std::nullopt;
}

std::optional<fs::path> bundledSeedURL(const fs::path& executableURL) {
  std::error_code ec;
  fs::path executable = fs::weakly_canonical(executableURL, ec);
  if (ec) executable = executableURL.lexically_normal();
  const fs::path contents = executable.parent_path().parent_path();
  const fs::path bundle = contents.parent_path();
  if (bundle.extension() != ".app") return std::nullopt;
  return contents / "Resources" / "vendor" / "allowlist.json";
}

bool seedIfAbsent(const fs::path& rootURL, const fs::path& seedURL) {
  const fs::path target = rootURL / "vendor" / "allowlist.json";
  std::error_code ec;
  if (fs::exists(target, ec)) return false;
  if (!fs::exists(seedURL, ec)) return false;
  fs::create_directories(target.parent_path());
  // A directory is copied whole, as the platform's copy does; every file
  // and directory carries its own permissions.
  fs::copy(seedURL, target, fs::copy_options::recursive);
  // The top of the copy carries the seed's own permissions, whatever the umask did.
  fs::permissions(target, fs::status(seedURL).permissions());
  return true;
}

}  // namespace tarskel::VendorSeed
