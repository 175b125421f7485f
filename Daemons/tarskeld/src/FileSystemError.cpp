#include "tarskel/daemon/FileSystemError.hpp"

#include <system_error>

namespace tarskel {

FileSystemError FileSystemError::fromErrno(std::string_view what, std::string_view path,
                                           int errorNumber) {
  std::string text(what);
  text += ' ';
  text += path;
  text += ": ";
  text += std::generic_category().message(errorNumber);
  return FileSystemError(std::move(text), errorNumber);
}

}  // namespace tarskel
