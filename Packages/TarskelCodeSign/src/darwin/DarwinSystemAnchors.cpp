#include "tarskel/codesign/CodeSignPlatform.hpp"

namespace tarskel {

// Apple's anchors are the system's own: nothing under the root changes them.
std::shared_ptr<const CodeSignPlatform> CodeSignPlatform::systemAnchoredAt(
    const std::filesystem::path&, const Logger&) {
  return {std::shared_ptr<const CodeSignPlatform>(), &system()};
}

}  // namespace tarskel
