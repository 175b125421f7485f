#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "tarskel/protocol/base/Error.hpp"

namespace tarskel {

// A file operation failed. The text is "<what> <path>: <the system's
// reason>", for instance
//   no se pudo leer /etc/x: Permission denied
class FileSystemError : public Error {
 public:
  FileSystemError(std::string description, int errorNumber)
      : Error(std::move(description)), errorNumber_(errorNumber) {}

  // "<what> <path>: the system's message for errorNumber".
  static FileSystemError fromErrno(std::string_view what, std::string_view path, int errorNumber);

  // The errno of the failing call (0 when the failure was not a system call's).
  int errorNumber() const { return errorNumber_; }

 private:
  int errorNumber_;
};

}  // namespace tarskel
