#pragma once

#include <string>

namespace tarskel {

// The portable form of PlatformFiles::openBeneath: one openat per component
// with O_NOFOLLOW (and O_DIRECTORY for all but the last), refusing empty,
// "." and ".." components with EINVAL. Returns the descriptor or -errno.
int openBeneathByComponents(int directory, const std::string& relative, int flags);

}  // namespace tarskel
