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
// The size check is made once, before the read: a file that grows meanwhile
// is returned whole. The read blocks the worker thread that runs it.
class FsReadProtectedPathOp final : public DaemonOp {
 public:
  // Inclusive: a file of exactly this size is read.
  static constexpr std::uint64_t maxBytes = 1048576;

  FsReadProtectedPathOp();

  boost::asio::awaitable<JSONValue> execute(const JSONObject& args,
                                            const DaemonOpContext& context) const override;
};

}  // namespace tarskel
