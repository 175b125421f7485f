#pragma once

// Whether a path can be changed under us by someone we don't trust. A socket
// or state directory is only as safe as every directory on the way to it:
// whoever may rename an entry of any of them can swap what lies below.
// Stateless; any thread.

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

namespace tarskel {

// Checks every directory from "/" to `directory`, itself included, and
// returns nothing when each is a directory owned by root or by `owner` and
// writable by group or others only if root owns it with the sticky bit set
// (as /tmp: nobody may rename another's entry there). A symbolic link on the
// way is followed, and the directories of its target are checked as well
// (the link itself lies in a directory already checked). The walk ends,
// passing, at the first directory that does not exist: only whoever may
// write the one above it could make it. Otherwise returns
// why, in words for people:
//   "<dir>: <the system's reason>"              can't be examined
//   "<dir> no es un directorio"
//   "<dir> pertenece a otro usuario (uid <n>)"
//   "<dir> admite escritura de grupo u otros"
std::optional<std::string> untrustedDirectory(const std::filesystem::path& directory, uid_t owner);

}  // namespace tarskel
