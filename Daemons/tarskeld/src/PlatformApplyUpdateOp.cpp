#include "tarskel/daemon/PlatformApplyUpdateOp.hpp"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <string>

#include "SealedCopy.hpp"
#include "tarskel/protocol/base/Clock.hpp"
#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/protocol/base/FileDescriptor.hpp"
#include "tarskel/protocol/base/Files.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/protocol/vendor/HashManifest.hpp"
#include "tarskel/vendor/BundleSeal.hpp"
#include "tarskel/vendor/Ed25519.hpp"

namespace fs = std::filesystem;

namespace tarskel {
namespace {

SchemaNode nonEmptyString() {
  SchemaNode node;
  node.type = SchemaType::string;
  node.minLength = 1;
  return node;
}

SchemaNode applyUpdateSchema() {
  SchemaNode action;
  action.type = SchemaType::string;
  action.enumValues = std::vector<JSONValue>{JSONValue("swap"), JSONValue("rollback")};
  SchemaNode root;
  root.type = SchemaType::object;
  root.properties = std::map<std::string, SchemaNode>{
      {"action", action},
      {"stagedRoot", nonEmptyString()},
      {"appName", nonEmptyString()},
      {"installedApp", nonEmptyString()},
      {"previousPath", nonEmptyString()},
      {"failedPath", nonEmptyString()},
  };
  root.required = std::vector<std::string>{"action", "installedApp", "previousPath"};
  root.additionalProperties = false;
  return root;
}

const std::string* stringArgument(const JSONObject& args, std::string_view key) {
  const JSONValue* value = args.find(key);
  return value != nullptr ? value->stringValue() : nullptr;
}

std::string stringOrEmpty(const JSONObject& args, std::string_view key) {
  const std::string* text = stringArgument(args, key);
  return text != nullptr ? *text : std::string();
}

// An allowlist of some thousand keys is a few hundred kilobytes; a bigger
// file is not an allowlist and is not read into memory.
constexpr std::size_t kMaxAllowlistBytes = 4u << 20;

// The machine allowlist's bytes, or nothing when it can't be read. Opened
// without blocking and read only when it is a regular file within the cap:
// a FIFO or a device put there must not hold a worker.
std::optional<std::string> readAllowlist(const fs::path& path) {
  try {
    return readFile(path, kMaxAllowlistBytes);
  } catch (const FileReadError&) {
    return std::nullopt;
  }
}

// What exists after following links, as the existence checks of both
// actions ask: a dangling link names nothing.
bool existsAt(const fs::path& path) {
  std::error_code error;
  return fs::exists(path, error);
}

// Removes whatever is at `path`; a failure leaves what it could not remove.
void removeQuietly(const fs::path& path) {
  std::error_code error;
  fs::remove_all(path, error);
}

// Moves `from` to `to`, refusing to replace anything already at `to`; across
// file systems the tree is copied and then removed. Failures are the
// caller's to ignore, so nothing is reported.
void moveQuietly(const fs::path& from, const fs::path& to) {
  std::error_code error;
  if (fs::symlink_status(to, error).type() != fs::file_type::not_found) return;
  fs::rename(from, to, error);
  if (error != std::errc::cross_device_link) return;
  error.clear();
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
  if (!error) fs::remove_all(from, error);
}

std::string errnoSuffix(int errorNumber) { return "errno " + std::to_string(errorNumber); }

// One name of the sealed content: not empty, no separator, not the seal's
// own directory, not "." or "..". Anything else could name what the seal
// never covered ("vendor/Evil.app", "../Evil.app").
bool isContentName(const std::string& name) {
  return !name.empty() && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos && name != "." && name != ".." &&
         name != BundleSeal::vendorDir;
}

bool sealsDirectory(const HashManifest& manifest, const std::string& name) {
  const std::string prefix = name + "/";
  return std::any_of(
      manifest.files.begin(), manifest.files.end(),
      [&prefix](const HashManifest::FileEntry& entry) { return entry.path.starts_with(prefix); });
}

// A directory of root's own beside the installed bundle, on its file system
// so that the exchange is one rename: ".<bundle>.update-<random>", mode 0700.
// Removed with what is left in it, unless kept. error() is the errno when it
// could not be made, else 0.
class Workspace {
 public:
  explicit Workspace(const fs::path& installedApp) {
    std::string pattern =
        (installedApp.parent_path() / ("." + installedApp.filename().string() + ".update-XXXXXX"))
            .string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      error_ = errno;
      return;
    }
    path_ = pattern;
  }
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;
  ~Workspace() {
    if (!kept_ && !path_.empty()) removeQuietly(path_);
  }

  int error() const { return error_; }
  const fs::path& path() const { return path_; }
  void keep() { kept_ = true; }

 private:
  fs::path path_;
  int error_ = 0;
  bool kept_ = false;
};

// The kept version is given up before the exchange is known to succeed.
void giveUpPreviousVersion(const fs::path& previousURL) {
  removeQuietly(previousURL);
  std::error_code ignored;
  fs::create_directories(previousURL.parent_path(), ignored);
}

// `path` without a trailing empty component.
fs::path trimmed(fs::path path) {
  if (!path.has_filename() && path.has_relative_path()) path = path.parent_path();
  return path;
}

// Where the kernel takes `path`: the links along the way resolved, the last
// name itself left as it is (the exchange and the removals act on a link
// there, not on what it names).
fs::path physical(const fs::path& path) {
  const fs::path name = path.filename();
  std::error_code error;
  fs::path resolved = name.empty() || name == "." || name == ".."
                          ? fs::weakly_canonical(path, error)
                          : fs::weakly_canonical(path.parent_path(), error) / name;
  return trimmed(error ? path.lexically_normal() : resolved);
}

bool within(const fs::path& inner, const fs::path& outer) {
  return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
}

bool overlap(const fs::path& a, const fs::path& b) {
  const fs::path la = trimmed(a.lexically_normal()), lb = trimmed(b.lexically_normal());
  const fs::path pa = physical(a), pb = physical(b);
  return within(la, lb) || within(lb, la) || within(pa, pb) || within(pb, pa);
}

// Two paths of one request that are the same place, or one inside the
// other, would make a step remove or move what another step needs (a
// previousPath above installedApp empties the install directory).
struct NamedPath {
  std::string_view key;
  const fs::path& path;
};
void refuseOverlap(std::initializer_list<std::pair<NamedPath, NamedPath>> pairs) {
  for (const auto& [a, b] : pairs) {
    if (!overlap(a.path, b.path)) continue;
    throw DaemonOpError(std::string(a.key) + " y " + std::string(b.key) +
                        " no pueden coincidir ni contenerse: " + a.path.string() + ", " +
                        b.path.string());
  }
}

bool entryExists(const fs::path& path) {
  std::error_code error;
  return fs::symlink_status(path, error).type() != fs::file_type::not_found;
}

}  // namespace

PlatformApplyUpdateOp::PlatformApplyUpdateOp(fs::path rootURL,
                                             std::shared_ptr<const PlatformFiles> platform,
                                             std::optional<Logger> logger)
    : DaemonOp("platform.applyUpdate", applyUpdateSchema(), false),
      rootURL_(std::move(rootURL)),
      platform_(std::move(platform)),
      logger_(std::move(logger)) {}

boost::asio::awaitable<JSONValue> PlatformApplyUpdateOp::execute(
    const JSONObject& args, const DaemonOpContext& context) const {
  if (context.budget) context.budget->check();
  const fs::path installedApp = platformFilePath(stringOrEmpty(args, "installedApp"));
  const fs::path previousURL = platformFilePath(stringOrEmpty(args, "previousPath"));
  // Checked before the action, so that a rollback is held to it too.
  if (!hasAppExtension(installedApp)) {
    throw DaemonOpError("installedApp debe ser un bundle .app: " + installedApp.string());
  }
  const std::string action = stringOrEmpty(args, "action");
  if (action == "swap") {
    const std::string* stagedRoot = stringArgument(args, "stagedRoot");
    const std::string* appName = stringArgument(args, "appName");
    if (stagedRoot == nullptr || appName == nullptr) {
      throw DaemonOpError("swap exige stagedRoot y appName");
    }
    // A trailing "/" is dropped as from every path argument: "Tarskel.app/".
    std::string name = *appName;
    while (name.size() > 1 && name.back() == '/') name.pop_back();
    co_return swap(platformFilePath(*stagedRoot), name, installedApp, previousURL,
                   context.budget.get());
  }
  if (action == "rollback") {
    const std::string* failedPath = stringArgument(args, "failedPath");
    if (failedPath == nullptr) throw DaemonOpError("rollback exige failedPath");
    co_return rollback(installedApp, previousURL, platformFilePath(*failedPath));
  }
  throw DaemonOpError("action desconocida");
}

// No step is undone and each "quietly" step may fail without stopping the
// next: the kernel's exchange is what keeps a whole bundle at installedApp.
JSONValue PlatformApplyUpdateOp::swap(const fs::path& stagedRoot, const std::string& appName,
                                      const fs::path& installedApp, const fs::path& previousURL,
                                      WorkBudget* budget) const {
  const fs::path allowlistPath = rootURL_ / "vendor" / "allowlist.json";
  std::optional<std::string> allowlistBytes = readAllowlist(allowlistPath);
  if (!allowlistBytes) {
    // Never fall back to another list: an unprovisioned daemon swaps nothing.
    throw DaemonOpError("gate vendor del daemon sin provisionar (" + allowlistPath.string() +
                        ") — root no intercambia lo que no puede verificar");
  }
  const VendorAllowlist allowlist = [&] {
    try {
      return TarskelJSON::decoder().decode<VendorAllowlist>(*allowlistBytes);
    } catch (const DecodingError& e) {
      // The answer keeps the decoder's text as it is; whoever reads the
      // daemon's log learns which file is damaged.
      if (logger_) {
        logger_->error("platform.applyUpdate: the machine allowlist " + allowlistPath.string() +
                       " does not decode: " + e.what());
      }
      throw;
    }
  }();
  if (!isContentName(appName)) {
    throw DaemonOpError(
        "appName debe ser un solo componente de ruta del contenido sellado "
        "(ni vendor, ni ., ni ..): " +
        appName);
  }
  const fs::path candidate = stagedRoot / appName;
  refuseOverlap({{{"installedApp", installedApp}, {"previousPath", previousURL}},
                 {{"stagedRoot/appName", candidate}, {"installedApp", installedApp}},
                 {{"stagedRoot/appName", candidate}, {"previousPath", previousURL}}});

  // No installed version is given, so an older sealed version passes: what
  // is judged is signature, expiry and exact contents.
  const VendorVerification verification(std::make_shared<Ed25519Algorithm>(), systemClock());
  const SealHashing hashing{.budget = budget};
  const HashManifest manifest =
      BundleSeal::verify(stagedRoot, verification, allowlist, std::nullopt, false, hashing);
  if (manifest.artifactType != ArtifactType::platform) {
    throw DaemonOpError("el artefacto staged no es de plataforma");
  }
  // The bundle must be a directory holding sealed files: a name the
  // manifest never covers (an empty directory, a stray file) is not it.
  if (!hasAppExtension(fs::path(appName)) || !sealsDirectory(manifest, appName)) {
    throw DaemonOpError("el artefacto verificado no trae " + appName);
  }

  // The staged tree stays the stager's: what is installed is a copy of the
  // sealed files in a directory of root's own, verified again, so nothing
  // the stager does from now on reaches the installation. The staged root
  // is held open: the copy is read, and the candidate later removed,
  // beneath this one directory whatever its path names by then.
  const FileDescriptor staged(::open(stagedRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!staged) {
    throw DaemonOpError("no se pudo copiar el árbol staged: " + stagedRoot.string() + ": " +
                        std::strerror(errno));
  }
  Workspace workspace(installedApp);
  if (workspace.error() == ENOENT || workspace.error() == ENOTDIR) {
    // Nowhere to install: the exchange would find nothing at installedApp,
    // and fails as it does for a missing bundle, after the same steps.
    giveUpPreviousVersion(previousURL);
    throw DaemonOpError("renamex_np(RENAME_SWAP) falló: " + errnoSuffix(workspace.error()));
  }
  if (workspace.error() != 0) {
    throw DaemonOpError("no se pudo preparar la copia junto a " +
                        installedApp.parent_path().string() + ": " +
                        errnoSuffix(workspace.error()));
  }
  try {
    copySealedFiles(staged.get(), manifest, workspace.path(), *platform_, budget);
  } catch (const SealedCopyError& e) {
    throw DaemonOpError("no se pudo copiar el árbol staged: " + e.description());
  }
  try {
    BundleSeal::verify(workspace.path(), verification, allowlist, std::nullopt, false, hashing);
  } catch (const WorkAbandoned&) {
    throw;
  } catch (const std::exception& e) {
    throw DaemonOpError("el árbol staged cambió durante la actualización: " +
                        std::string(e.what()));
  }
  const fs::path copy = workspace.path() / appName;
  try {
    finishCopy(copy, *platform_);
  } catch (const SealedCopyError& e) {
    throw DaemonOpError("no se pudieron restablecer los permisos: " + e.description());
  }
  if (platform_->effectiveUserId() == 0) chownTreeToRootWheel(copy, *platform_);

  giveUpPreviousVersion(previousURL);
  if (int error = platform_->exchange(copy, installedApp); error != 0) {
    throw DaemonOpError("renamex_np(RENAME_SWAP) falló: " + errnoSuffix(error));
  }
  // The update has taken effect; keeping the old version is best effort.
  moveQuietly(copy, previousURL);
  // The staged bundle is installed, so the candidate goes, removed without
  // following any link the stager put in it. When previousPath could not
  // take the old version, the old version takes the candidate's place, and
  // only when that fails too does it stay in the workspace.
  removeBeneath(staged.get(), appName);
  if (entryExists(copy) && ::renameat(AT_FDCWD, copy.c_str(), staged.get(), appName.c_str()) != 0) {
    workspace.keep();
  }
  return JSONValue(JSONObject{{"swapped", JSONValue(true)}, {"to", JSONValue(manifest.version)}});
}

JSONValue PlatformApplyUpdateOp::rollback(const fs::path& installedApp, const fs::path& previousURL,
                                          const fs::path& failedURL) const {
  refuseOverlap({{{"installedApp", installedApp}, {"previousPath", previousURL}},
                 {{"installedApp", installedApp}, {"failedPath", failedURL}},
                 {{"previousPath", previousURL}, {"failedPath", failedURL}}});
  if (!existsAt(previousURL)) {
    throw DaemonOpError("sin versión anterior cacheada en " + previousURL.string());
  }
  if (int error = platform_->exchange(previousURL, installedApp); error != 0) {
    throw DaemonOpError("rollback renamex_np falló: " + errnoSuffix(error));
  }
  removeQuietly(failedURL);
  moveQuietly(previousURL, failedURL);
  return JSONValue(JSONObject{{"rolledback", JSONValue(true)}});
}

void PlatformApplyUpdateOp::chownTreeToRootWheel(const fs::path& at,
                                                 const PlatformFiles& platform) {
  auto changeOrThrow = [&platform](const fs::path& path) {
    if (int error = platform.changeOwnerToRootWheel(path); error != 0) {
      throw DaemonOpError("chown de " + path.string() + " falló: " + errnoSuffix(error));
    }
  };
  changeOrThrow(at);

  // Links are not followed into. A walk that can't reach every entry fails:
  // a tree handed to root only in part must not be installed.
  std::error_code error;
  fs::recursive_directory_iterator entry(at, error);
  for (const fs::recursive_directory_iterator end; !error && entry != end; entry.increment(error)) {
    changeOrThrow(entry->path());
  }
  if (error) {
    throw DaemonOpError("recorrido de " + at.string() +
                        " incompleto: " + errnoSuffix(error.value()));
  }
}

}  // namespace tarskel
