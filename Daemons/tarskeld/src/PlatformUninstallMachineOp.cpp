#include "tarskel/daemon/PlatformUninstallMachineOp.hpp"

#include <cstdint>
#include <limits>
#include <string>

#include "tarskel/daemon/FileSystemError.hpp"

namespace fs = std::filesystem;

namespace tarskel {
namespace {

SchemaNode noArgumentsSchema() {
  SchemaNode root;
  root.type = SchemaType::object;
  root.properties = std::map<std::string, SchemaNode>{};
  root.additionalProperties = false;
  return root;
}

// Resolves the links that exist along the path; the rest stays as written.
fs::path resolvingSymlinks(const fs::path& path) {
  std::error_code error;
  fs::path resolved = fs::weakly_canonical(path, error);
  return error ? path : resolved;
}

}  // namespace

PlatformUninstallMachineOp::PlatformUninstallMachineOp(
    std::optional<fs::path> installedApp, fs::path dataRoot,
    std::shared_ptr<const PlatformFiles> platform)
    : DaemonOp("platform.uninstallMachine", noArgumentsSchema(), false),
      installedApp_(std::move(installedApp)),
      dataRoot_(std::move(dataRoot)),
      platform_(std::move(platform)) {}

std::optional<fs::path> PlatformUninstallMachineOp::derivedInstalledApp(
    const std::map<std::string, std::string>& environment,
    const std::optional<fs::path>& executable) {
  // Taken as it stands: execute is where a value without ".app" is refused.
  if (auto given = environment.find("TARSKEL_INSTALLED_APP"); given != environment.end()) {
    return platformFilePath(given->second);
  }
  if (!executable) return std::nullopt;
  // <bundle>.app/Contents/MacOS/<executable>
  fs::path bundle = resolvingSymlinks(*executable).parent_path().parent_path().parent_path();
  if (!hasAppExtension(bundle)) return std::nullopt;
  return bundle;
}

boost::asio::awaitable<JSONValue> PlatformUninstallMachineOp::execute(
    const JSONObject& /*args*/, const DaemonOpContext& context) const {
  // A request whose client left while it waited for a worker is not run.
  if (context.budget) context.budget->check();
  if (!installedApp_) {
    throw DaemonOpError("el daemon no corre desde una instalación (.app) — nada que desmontar");
  }
  const fs::path& bundle = *installedApp_;
  if (!hasAppExtension(bundle)) {
    throw DaemonOpError("la instalación derivada no es un bundle .app: " + bundle.string());
  }
  std::error_code error;
  if (!fs::exists(bundle, error)) {
    throw DaemonOpError("el bundle instalado no existe: " + bundle.string());
  }
  // Not as root, the file system alone decides what may be removed.
  if (platform_->effectiveUserId() == 0) requireRootOwnership(bundle);

  fs::remove_all(bundle, error);
  if (error)
    throw FileSystemError::fromErrno("no se pudo eliminar", bundle.string(), error.value());
  co_return JSONValue(JSONObject{
      {"removed", JSONValue(JSONValue::Array{JSONValue(bundle.string())})},
      {"dataPreserved", JSONValue(JSONValue::Array{JSONValue(dataRoot_.string())})},
  });
}

// Root removes a machine installation only: a bundle owned by anyone else is
// a user's own installation, whose removal is no business of the daemon.
void PlatformUninstallMachineOp::requireRootOwnership(const fs::path& bundle) const {
  const PlatformFiles::Owner owner = platform_->ownerOf(bundle);
  if (owner.errorNumber != 0) {
    throw FileSystemError::fromErrno("no se pudieron leer los atributos de", bundle.string(),
                                     owner.errorNumber);
  }
  // Unknown ownership counts as somebody else's.
  const std::uint32_t uid = owner.uid.value_or(std::numeric_limits<std::uint32_t>::max());
  if (uid == 0) return;
  throw DaemonOpError("el bundle instalado pertenece a uid " + std::to_string(uid) +
                      ", no a root — instalación individual: el desmontaje es user-space, no "
                      "del daemon");
}

}  // namespace tarskel
