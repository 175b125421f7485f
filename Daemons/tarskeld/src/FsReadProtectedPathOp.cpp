#include "tarskel/daemon/FsReadProtectedPathOp.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tarskel/daemon/FileSystemError.hpp"
#include "tarskel/protocol/base/Base64.hpp"

namespace tarskel {
namespace {

SchemaNode readPathSchema() {
  SchemaNode path;
  path.type = SchemaType::string;
  path.minLength = 1;
  SchemaNode root;
  root.type = SchemaType::object;
  root.properties = std::map<std::string, SchemaNode>{{"path", path}};
  root.required = std::vector<std::string>{"path"};
  root.additionalProperties = false;
  return root;
}

DaemonOpError notRegular(const std::string& path) {
  return DaemonOpError("no es un archivo regular: " + path);
}

// The entry's own description: a final symbolic link is described, not
// followed. A path with a NUL byte names nothing the system can look up.
std::optional<struct stat> describe(const std::string& path) {
  struct stat info {};
  if (path.find('\0') != std::string::npos || ::lstat(path.c_str(), &info) != 0) {
    return std::nullopt;
  }
  return info;
}

// Reads to the end, however far that is now. O_NOFOLLOW and the fstat keep a
// link or a fifo swapped in after the check from being read or waited on.
std::string readAll(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) throw FileSystemError::fromErrno("no se pudo leer", path, errno);
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    throw notRegular(path);
  }
  std::string bytes;
  bytes.reserve(static_cast<std::size_t>(info.st_size));
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int error = errno;
      ::close(fd);
      throw FileSystemError::fromErrno("no se pudo leer", path, error);
    }
    if (n == 0) break;
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return bytes;
}

}  // namespace

FsReadProtectedPathOp::FsReadProtectedPathOp()
    : DaemonOp("fs.readProtectedPath", readPathSchema(), true) {}

boost::asio::awaitable<JSONValue> FsReadProtectedPathOp::execute(
    const JSONObject& args, const DaemonOpContext& /*context*/) const {
  const JSONValue* given = args.find("path");
  const std::string* text = given != nullptr ? given->stringValue() : nullptr;
  const std::string path = text != nullptr ? *text : std::string();

  std::optional<struct stat> info = describe(path);
  if (!info || !S_ISREG(info->st_mode)) throw notRegular(path);
  if (info->st_size < 0 || static_cast<std::uint64_t>(info->st_size) > maxBytes) {
    throw DaemonOpError("archivo supera el tope de " + std::to_string(maxBytes) +
                        " bytes: " + path);
  }
  std::string bytes = readAll(path);
  const auto size = static_cast<std::int64_t>(bytes.size());
  co_return JSONValue(JSONObject{
      {"path", JSONValue(path)},
      {"size", JSONValue::integer(size)},
      {"contentsBase64", JSONValue(base64Encode(bytes))},
  });
}

}  // namespace tarskel
