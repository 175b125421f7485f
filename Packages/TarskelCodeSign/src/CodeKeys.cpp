#include "tarskel/codesign/CodeKeys.hpp"

#include <exception>
#include <string>

#include "tarskel/protocol/base/Files.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {

namespace {
// A key list of this size is absurd; a bigger file is not read into memory.
constexpr std::size_t kMaxKeysBytes = 16u << 20;
}  // namespace

std::optional<VendorAllowlist> CodeKeys::loadIfPresent(const std::filesystem::path& root,
                                                       const Logger& logger) {
  std::string problem;
  try {
    const std::string bytes = readFile(root / keysFile, kMaxKeysBytes);
    try {
      return TarskelJSON::decoder().decode<VendorAllowlist>(bytes);
    } catch (const std::exception& e) {
      problem = e.what();
    }
  } catch (const FileReadError& e) {
    if (e.kind() != FileReadError::Kind::tooLarge) return std::nullopt;
    problem = e.description();
  } catch (const std::exception&) {
    return std::nullopt;
  }
  logger.critical("vendor/code-keys.json ilegible: " + problem + " — gate del SO sin raíz");
  return VendorAllowlist{0, {}};
}

}  // namespace tarskel
