#include "tarskel/vendor/BundleSeal.hpp"

#include <fcntl.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <system_error>
#include <utility>

#include "ContentHashing.hpp"
#include "tarskel/protocol/base/FileDescriptor.hpp"
#include "tarskel/protocol/base/Files.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel::BundleSeal {
namespace fs = std::filesystem;
namespace {

// The seal's own files, whole. They are not content, so nothing has vouched
// for them: a link is not followed and a named pipe can't make us wait.
std::string readSealFile(const fs::path& path) {
  try {
    return readFile(path, maxManifestBytes, {.followLastLink = false});
  } catch (const FileReadError& e) {
    if (e.kind() == FileReadError::Kind::tooLarge) {
      throw SealError::tooLarge("el hash-manifest supera el tope de " +
                                std::to_string(maxManifestBytes) + " bytes");
    }
    throw SealError::unreadableManifest(e.description());
  }
}

[[noreturn]] void tooManyEntries() {
  throw SealError::tooLarge("el contenido supera el tope de " + std::to_string(maxFiles) +
                            " entradas");
}

// Counts the entries one walk meets, against maxFiles and the budget.
class EntryCounter {
 public:
  explicit EntryCounter(WorkBudget* budget) : budget_(budget) {}
  void count() {
    if (++seen_ > maxFiles) tooManyEntries();
    if (budget_ != nullptr) budget_->chargeFile();
  }

 private:
  WorkBudget* budget_;
  std::size_t seen_ = 0;
};

template <class T>
T decodeSealFile(std::string_view bytes) {
  try {
    return TarskelJSON::decoder().decode<T>(bytes);
  } catch (const std::exception& e) {
    throw SealError::unreadableManifest(e.what());
  }
}

// Replaces the content of `path` with `bytes`, in place.
void writeFile(const fs::path& path, std::string_view bytes) {
  FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  auto fail = [&] {
    throw fs::filesystem_error("no se pudo escribir", path,
                               std::error_code(errno, std::generic_category()));
  };
  if (file.get() < 0 || !writeAll(file.get(), bytes)) fail();
}

bool isSealDirectory(const std::string& relative) {
  return relative == vendorDir ||
         (relative.size() > vendorDir.size() && relative.starts_with(vendorDir) &&
          relative[vendorDir.size()] == '/');
}

struct PendingDirectory {
  fs::path path;
  std::string relative;  // "" for the root
};

// The entries of one directory, by name, so that the walk (and which bad
// entry it meets first) does not depend on the file system's order. A
// directory that can't be read is passed over. Each entry is counted as it
// is met, so a directory of millions stops at the bound, not after.
std::vector<fs::directory_entry> sortedEntries(const fs::path& directory, EntryCounter& counter) {
  std::vector<fs::directory_entry> entries;
  std::error_code ec;
  fs::directory_iterator it(directory, ec);
  for (; !ec && it != fs::directory_iterator(); it.increment(ec)) {
    counter.count();
    entries.push_back(*it);
  }
  std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
    return a.path().filename().native() < b.path().filename().native();
  });
  return entries;
}

// The NFC form of `path` in UTF-8, whose byte order is the order of Unicode
// scalar values. Bytes that are not UTF-8 stay as they are.
std::string normalisedForOrder(const std::string& path) {
  const bool ascii = std::all_of(path.begin(), path.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii) return path;
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
  if (U_FAILURE(status)) return path;
  const icu::UnicodeString normal =
      nfc->normalize(icu::UnicodeString::fromUTF8(
                         icu::StringPiece(path.data(), static_cast<int32_t>(path.size()))),
                     status);
  if (U_FAILURE(status)) return path;
  std::string out;
  normal.toUTF8String(out);
  return out;
}

// Content order: by the scalar values of the normalised text, then by the
// bytes, so that two spellings of one name still have a fixed order.
void sortContent(std::vector<std::string>& paths) {
  std::vector<std::pair<std::string, std::string>> keyed;
  keyed.reserve(paths.size());
  for (std::string& path : paths) keyed.emplace_back(normalisedForOrder(path), std::move(path));
  std::sort(keyed.begin(), keyed.end());
  for (std::size_t i = 0; i < paths.size(); ++i) paths[i] = std::move(keyed[i].second);
}

}  // namespace

std::vector<std::string> contentEntries(const fs::path& bundleAt, WorkBudget* budget) {
  EntryCounter counter(budget);
  std::vector<std::string> files;
  std::vector<PendingDirectory> pending{{bundleAt.lexically_normal(), {}}};
  while (!pending.empty()) {
    PendingDirectory directory = std::move(pending.back());
    pending.pop_back();
    std::vector<PendingDirectory> subdirectories;
    for (const fs::directory_entry& entry : sortedEntries(directory.path, counter)) {
      const std::string name = entry.path().filename().string();
      std::string relative = directory.relative.empty() ? name : directory.relative + "/" + name;
      // The seal's own directory is set aside before its type is looked at.
      if (isSealDirectory(relative)) continue;
      const fs::file_status status = entry.symlink_status();  // throws when unreadable
      if (fs::is_symlink(status)) throw SealError::notRegularFile(relative);
      if (fs::is_directory(status)) {
        subdirectories.push_back({entry.path(), std::move(relative)});
      } else if (fs::is_regular_file(status)) {
        files.push_back(std::move(relative));
      } else {
        throw SealError::notRegularFile(relative);
      }
    }
    // Depth first, in name order.
    std::move(subdirectories.rbegin(), subdirectories.rend(), std::back_inserter(pending));
  }
  sortContent(files);
  return files;
}

HashManifest seal(const fs::path& bundleAt, std::string artifactId, ArtifactType artifactType,
                  std::string version, std::int64_t monotonicVersion, Date expires,
                  const Ed25519KeyPair& keyPair,
                  std::optional<std::map<std::string, std::string>> metadata,
                  const SealHashing& hashing) {
  const std::vector<std::string> paths = contentEntries(bundleAt, hashing.budget);
  // A name that is not UTF-8 could not stand in the manifest's JSON.
  for (const std::string& path : paths) {
    if (!isValidUTF8(path)) {
      throw EncodingError("nombre de archivo que no es UTF-8 válido: " + escapedBytes(path));
    }
  }
  std::vector<ContentDigest> digests =
      hashContent(bundleAt, paths, hashing, [](std::size_t, const std::string&) { return false; });

  HashManifest manifest{std::move(artifactId), artifactType, std::move(version),
                        monotonicVersion,      expires,      {},
                        std::move(metadata)};
  manifest.files.reserve(paths.size());
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (digests[i].error) std::rethrow_exception(digests[i].error);
    manifest.files.push_back({paths[i], std::move(digests[i].sha256)});
  }

  const std::string manifestData = TarskelJSON::canonicalEncoder().encode(manifest);
  const VendorSignature signature = keyPair.sign(manifestData);
  fs::create_directories(bundleAt / vendorDir);
  writeFile(bundleAt / manifestFile, manifestData);
  writeFile(bundleAt / signatureFile, TarskelJSON::encoder().encode(signature));
  return manifest;
}

HashManifest verify(const fs::path& bundleAt, const VendorVerification& verification,
                    const VendorAllowlist& allowlist,
                    std::optional<std::int64_t> installedMonotonic, bool allowDowngrade,
                    const SealHashing& hashing) {
  const std::string manifestData = readSealFile(bundleAt / manifestFile);
  HashManifest manifest = decodeSealFile<HashManifest>(manifestData);
  if (manifest.files.size() > maxFiles) {
    throw SealError::tooLarge("el hash-manifest lista más de " + std::to_string(maxFiles) +
                              " archivos");
  }
  const std::string signatureData = readSealFile(bundleAt / signatureFile);
  const VendorSignature signature = decodeSealFile<VendorSignature>(signatureData);

  std::vector<VendorVerificationError> errors = verification.verify(
      manifestData, manifest, signature, allowlist, installedMonotonic, allowDowngrade);
  if (!errors.empty()) throw SealError::verification(std::move(errors));

  const std::vector<std::string> content = contentEntries(bundleAt, hashing.budget);
  std::set<std::string> present(content.begin(), content.end());

  // Only listed paths that are present content are ever opened: this is what
  // keeps a path with ".." or under "vendor/" from being read at all. Up to
  // the first missing one, files are hashed; the first fault in manifest
  // order is the one reported.
  std::vector<std::string> listed;
  std::size_t firstMissing = manifest.files.size();
  for (std::size_t i = 0; i < manifest.files.size(); ++i) {
    if (!present.contains(manifest.files[i].path)) {
      firstMissing = i;
      break;
    }
    listed.push_back(manifest.files[i].path);
  }
  std::vector<ContentDigest> digests = hashContent(
      bundleAt, listed, hashing,
      [&](std::size_t i, const std::string& digest) { return digest != manifest.files[i].sha256; });
  for (std::size_t i = 0; i < digests.size(); ++i) {
    if (digests[i].error) std::rethrow_exception(digests[i].error);
    if (digests[i].sha256 != manifest.files[i].sha256) {
      throw SealError::hashMismatch(manifest.files[i].path);
    }
  }
  if (firstMissing < manifest.files.size()) {
    throw SealError::fileMissing(manifest.files[firstMissing].path);
  }

  for (const HashManifest::FileEntry& entry : manifest.files) present.erase(entry.path);
  if (!present.empty()) {
    std::vector<std::string> unexpected(present.begin(), present.end());
    sortContent(unexpected);
    throw SealError::unexpectedFile(unexpected.front());
  }
  return manifest;
}

}  // namespace tarskel::BundleSeal
