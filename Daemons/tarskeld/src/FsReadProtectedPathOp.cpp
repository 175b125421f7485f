#include "tarskel/daemon/FsReadProtectedPathOp.hpp"

#include <sys/stat.h>

#include <string>

#include "tarskel/protocol/base/Base64.hpp"
#include "tarskel/protocol/base/Files.hpp"

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

DaemonOpError aboveCap(const std::string& path) {
  return DaemonOpError("archivo supera el tope de " +
                       std::to_string(FsReadProtectedPathOp::maxBytes) + " bytes: " + path);
}

// At most the cap plus one byte is ever held, whatever the size seen above
// said: a file that grows after the check, or a kernel file that reports
// size 0 and never ends (/proc/self/pagemap), is refused like one that was
// too big from the start. O_NOFOLLOW, O_NONBLOCK and the fstat keep a link
// or a FIFO swapped in after the check from being read or waited on.
std::string readCapped(const std::string& path) {
  try {
    return readFile(path, FsReadProtectedPathOp::maxBytes, {.followLastLink = false});
  } catch (const FileReadError& e) {
    switch (e.kind()) {
      case FileReadError::Kind::notRegular:
        throw notRegular(path);
      case FileReadError::Kind::tooLarge:
        throw aboveCap(path);
      case FileReadError::Kind::cannotOpen:
      case FileReadError::Kind::readFailed:
        break;
    }
    throw FileSystemError::fromErrno("no se pudo leer", path, e.errorNumber());
  }
}

// About what the answer for a file of `size` bytes takes on the wire: its
// Base64 text, the path it quotes, and the keys and framing around them.
std::size_t answerBytes(const std::string& path, std::uint64_t size) {
  return static_cast<std::size_t>(4 * ((size + 2) / 3)) + path.size() + 128;
}

}  // namespace

FsReadProtectedPathOp::FsReadProtectedPathOp()
    : DaemonOp("fs.readProtectedPath", readPathSchema(), true) {}

boost::asio::awaitable<JSONValue> FsReadProtectedPathOp::execute(
    const JSONObject& args, const DaemonOpContext& context) const {
  // A request whose client left while it waited for a worker is not run.
  if (context.budget) context.budget->check();
  const JSONValue* given = args.find("path");
  const std::string* text = given != nullptr ? given->stringValue() : nullptr;
  const std::string path = text != nullptr ? *text : std::string();

  std::optional<struct stat> info = describe(path);
  if (!info || !S_ISREG(info->st_mode)) throw notRegular(path);
  if (info->st_size < 0 || static_cast<std::uint64_t>(info->st_size) > maxBytes) {
    throw aboveCap(path);
  }
  if (context.replies) {
    // The answer is counted against the client's room from here on: a
    // client that leaves its answers unread waits here, holding no worker
    // and no file bytes, rather than piling up one answer per request.
    co_await context.replies->reserve(answerBytes(path, static_cast<std::uint64_t>(info->st_size)));
    if (context.budget) context.budget->check();
  }
  std::string bytes = readCapped(path);
  const auto size = static_cast<std::int64_t>(bytes.size());
  co_return JSONValue(JSONObject{
      {"path", JSONValue(path)},
      {"size", JSONValue::integer(size)},
      {"contentsBase64", JSONValue(base64Encode(bytes))},
  });
}

}  // namespace tarskel
