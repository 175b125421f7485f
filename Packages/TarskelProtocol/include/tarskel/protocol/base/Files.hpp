#pragma once

// Reading a whole file with a cap, and replacing a file atomically. Every
// file this system reads on someone else's behalf goes through readFile, so
// that a FIFO, a device or an endless file (/proc/self/pagemap reports size
// 0) can neither stall nor exhaust the reader. Stateless; any thread.

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "tarskel/protocol/base/FileDescriptor.hpp"
#include "tarskel/protocol/base/FileSystemError.hpp"

namespace tarskel {

// Why readFile or openRegularFile refused. The text is
//   cannotOpen, readFailed   "<path>: <the system's reason>"
//   notRegular               "<path>: no es un archivo regular"
//   tooLarge                 "<path>: demasiado grande"
class FileReadError : public FileSystemError {
 public:
  enum class Kind { cannotOpen, notRegular, tooLarge, readFailed };

  FileReadError(Kind kind, const std::filesystem::path& path, int errorNumber);

  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

struct ReadFileOptions {
  // When false, a symbolic link as the last component is refused (ELOOP,
  // cannotOpen) rather than followed. Links in earlier components are
  // always followed.
  bool followLastLink = true;
};

// Opens `path` for reading without blocking (a FIFO with no writer can't
// stall the open) and checks that what was opened is a regular file.
// Throws FileReadError (cannotOpen, notRegular).
FileDescriptor openRegularFile(const std::filesystem::path& path, ReadFileOptions options = {});

// The whole content of the regular file at `path`, at most `limit` bytes.
// Never holds more than limit + 1 bytes whatever the file reports or
// becomes while it is read: one byte beyond the cap is a refusal
// (tooLarge). Throws FileReadError.
std::string readFile(const std::filesystem::path& path, std::size_t limit,
                     ReadFileOptions options = {});

// The same over a descriptor already open on a regular file, read from its
// current offset; `path` only names it in errors.
std::string readFile(const FileDescriptor& file, const std::filesystem::path& path,
                     std::size_t limit);

struct AtomicReplaceOptions {
  // The temporary file's name beside the target; by default
  // ".<target name>-<16 random hex digits>.tmp".
  std::optional<std::string> temporaryName;
  // The new file's mode, before the process's umask.
  mode_t mode = 0666;
};

// Writes `bytes` to a new temporary file beside `target`, flushes it to the
// disk and renames it over `target` in one step: a reader sees the old
// content or the new, never a part, and a crash leaves one of the two. No
// existing target is needed. On any failure the temporary file is removed
// and the target is left as it was. Throws FileSystemError:
//   "no se pudo escribir <temporary>: ..." or "no se pudo reemplazar <target>: ...".
void atomicReplace(const std::filesystem::path& target, std::string_view bytes,
                   const AtomicReplaceOptions& options = {});

}  // namespace tarskel
