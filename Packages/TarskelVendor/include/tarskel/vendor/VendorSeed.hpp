#pragma once

// The machine's first vendor allowlist, copied once from the distribution.
// The bytes are copied, never parsed: a damaged seed shows when the allowlist
// is first read. Nothing here logs; the caller reports a seeding.

#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace tarskel::VendorSeed {

// Where the seed comes from, first hit wins: the value of TARSKEL_VENDOR_SEED
// in `environment` as it stands (even empty, even absent on disk); else the
// seed bundled beside `executableURL`; else nothing. Never throws.
std::optional<std::filesystem::path> resolveSeedURL(
    const std::map<std::string, std::string>& environment,
    const std::optional<std::filesystem::path>& executableURL);

// For an executable at <bundle>.app/Contents/MacOS/<name> (symbolic links
// resolved first), <bundle>.app/Contents/Resources/vendor/allowlist.json;
// nothing when the executable does not lie three levels below a ".app".
// Never throws.
std::optional<std::filesystem::path> bundledSeedURL(const std::filesystem::path& executableURL);

// Copies `seedURL` to <rootURL>/vendor/allowlist.json, with the source's
// permissions (a directory with everything in it, recursively), making the directory as needed.
// False, touching nothing, when a file is already at the target (whatever it holds) or when there
// is no file at `seedURL`. Throws std::filesystem::filesystem_error when the directory can't be
// made or the copy fails. Not synchronised: run it once, at start.
bool seedIfAbsent(const std::filesystem::path& rootURL, const std::filesystem::path& seedURL);

}  // namespace tarskel::VendorSeed
