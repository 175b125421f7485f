#pragma once

#include <cstdint>

#include "tarskel/daemon/DaemonOp.hpp"

namespace tarskel {

// "fs.readProtectedPath": reads one small regular file with the daemon's
// privileges for a service that holds a grant. Arguments {"path": non-empty
// string}; the path is used as it stands (relative to the current directory
// when relative, no tilde expansion, no list of allowed places).
//
// The path's own entry is described without following a final symbolic
// link, so a link, a directory or a missing path all fail with
// "no es un archivo regular: <path>"; links in earlier components are
// followed. A regular file larger than maxBytes fails with
// "archivo supera el tope de 1048576 bytes: <path>" (both DaemonOpError).
// A failing read throws FileSystemError. Returns
//   {"path": as given, "size": bytes read, "contentsBase64": the bytes}
// The read itself holds at most maxBytes + 1 bytes and refuses beyond the
// cap with the same text, so a file that grows after the size check, or a
// kernel file that reports size 0 and never ends (/proc/self/pagemap), can't
// exhaust memory. It opens without blocking and without following a final
// link, and reads only a regular file. It blocks the worker thread that
// runs it.
class FsReadProtectedPathOp final : public DaemonOp {
 public:
  // Inclusive: a file of exactly this size is read.
  static constexpr std::uint64_t maxBytes = 1048576;

  FsReadProtectedPathOp();

  boost::asio::awaitable<JSONValue> execute(const JSONObject& args,
                                            const DaemonOpContext& context) const override;
};

}  // namespace tarskel
