// ServiceManifest::validate: the semantic rules a manifest must pass, in
// their fixed order.

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/UnicodeSpaces.hpp"
#include "tarskel/protocol/manifest/ServiceManifest.hpp"
#include "tarskel/protocol/semver/SemVer.hpp"

namespace tarskel {
namespace {

enum Pattern : std::size_t { serviceId, osArch, schedule, toolName, patternCount };

constexpr std::array<const char*, patternCount> kPatterns{
    R"(^[a-z0-9]([a-z0-9-]*[a-z0-9])?(\.[a-z0-9]([a-z0-9-]*[a-z0-9])?)+$)",
    R"(^(darwin|linux|windows)-(arm64|x86_64)$)",
    R"(^daily@([01][0-9]|2[0-3]):[0-5][0-9]$)",
    R"(^[a-zA-Z0-9_-]+(\.[a-zA-Z0-9_-]+)+$)",
};

// None of the four patterns backtracks much, but a matcher always gets a
// bound (in steps of ICU's engine) so that no input can make one run away.
constexpr std::int32_t kMatchTimeLimit = 100;

// The patterns are constants, so each thread compiles them once and keeps a
// matcher for each: a matcher may not be shared between threads.
class Matchers {
 public:
  Matchers() {
    for (std::size_t i = 0; i < patternCount; ++i) {
      UErrorCode status = U_ZERO_ERROR;
      matchers_[i] =
          std::make_unique<icu::RegexMatcher>(icu::UnicodeString(kPatterns[i]), 0, status);
      if (U_SUCCESS(status)) matchers_[i]->setTimeLimit(kMatchTimeLimit, status);
      if (U_FAILURE(status)) matchers_[i].reset();
    }
  }

  // Searches `text` for the pattern; ICU's `$` also matches ahead of one
  // final line terminator, which is kept.
  bool search(Pattern pattern, std::string_view text) {
    icu::RegexMatcher* matcher = matchers_[pattern].get();
    if (matcher == nullptr) return false;
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
      return false;
    }
    input_ = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
    UErrorCode status = U_ZERO_ERROR;
    matcher->reset(input_);
    const bool found = matcher->find(status);
    return U_SUCCESS(status) && found;
  }

 private:
  std::array<std::unique_ptr<icu::RegexMatcher>, patternCount> matchers_;
  icu::UnicodeString input_;  // the matcher refers to it until the next search
};

bool matches(Pattern pattern, std::string_view text) {
  thread_local Matchers matchers;
  return matchers.search(pattern, text);
}

bool blank(std::string_view text) { return trimSpaceSeparators(text).empty(); }

std::string quoted(std::string_view text) {
  std::string out = "'";
  out.append(text).append("'");
  return out;
}

std::string indexed(std::string_view name, std::size_t i) {
  return std::string(name) + "[" + std::to_string(i) + "]";
}

// "<serviceId>/<tool>" or "<serviceId>/*". Split at the first '/' into at most
// two pieces, empty pieces dropped: a leading '/' is skipped, and the second
// piece is all that follows the cut, further '/' included.
bool validToolAccess(std::string_view entry) {
  std::size_t start = entry.find_first_not_of('/');
  if (start == std::string_view::npos) return false;
  std::size_t slash = entry.find('/', start);
  if (slash == std::string_view::npos || slash + 1 == entry.size()) return false;
  const std::string_view service = entry.substr(start, slash - start);
  const std::string_view tool = entry.substr(slash + 1);
  return matches(serviceId, service) && (tool == "*" || matches(toolName, tool));
}

// An earlier tool of the same name: names compare as the JSON object keys
// do, by canonical equivalence.
bool seenBefore(const std::vector<ToolDescriptor>& tools, std::size_t i) {
  return std::any_of(
      tools.begin(), tools.begin() + static_cast<std::ptrdiff_t>(i),
      [&](const ToolDescriptor& t) { return canonicallyEquivalent(t.name, tools[i].name); });
}

class Validation {
 public:
  explicit Validation(const ServiceManifest& m) : m_(m) {}

  std::vector<ManifestValidationError> run() && {
    identity();
    executables();
    dependencies();
    schedules();
    tools();
    toolAccess();
    configSchema();
    migrations();
    restartPolicy();
    resources();
    activation();
    return std::move(out_);
  }

 private:
  void add(const char* code, std::string path, std::string message) {
    out_.push_back({code, std::move(path), std::move(message)});
  }

  void identity() {
    if (!matches(serviceId, m_.id)) {
      add("id.invalid", "id",
          quoted(m_.id) + " no es un identificador reverse-DNS válido (minúsculas, ≥2 segmentos)");
    }
    if (!SemVer::parse(m_.version)) {
      add("version.invalid", "version", quoted(m_.version) + " no es semver (major.minor.patch)");
    }
    if (blank(m_.displayName))
      add("displayName.empty", "displayName", "displayName no puede estar vacío");
    if (!VersionConstraint::parse(m_.platformApi)) {
      add("platformApi.invalid", "platformApi",
          quoted(m_.platformApi) + " no es un constraint válido (exacta, >=, ^, N.x)");
    }
  }

  void executables() {
    if (m_.executables.empty()) {
      add("executables.empty", "executables", "se requiere al menos una variante <os>-<arch>");
    }
    // The map is ordered by key, which keeps the findings stable.
    for (const auto& [key, path] : m_.executables) {
      if (!matches(osArch, key)) {
        add("executables.badKey", "executables." + key,
            quoted(key) + " no es <os>-<arch> válido (darwin|linux|windows - arm64|x86_64)");
      }
      if (path.empty() || path.front() == '/' || path.find("..") != std::string::npos) {
        add("executables.badPath", "executables." + key,
            "la ruta debe ser relativa al bundle y sin '..'");
      }
    }
  }

  void dependencies() {
    for (std::size_t i = 0; i < m_.dependencies.size(); ++i) {
      const ServiceDependency& d = m_.dependencies[i];
      const std::string at = indexed("dependencies", i);
      if (!matches(serviceId, d.service)) {
        add("dependency.badService", at + ".service",
            quoted(d.service) + " no es un id de servicio válido");
      }
      if (!VersionConstraint::parse(d.version)) {
        add("dependency.badConstraint", at + ".version",
            quoted(d.version) + " no es un constraint válido");
      }
    }
  }

  void schedules() {
    for (std::size_t i = 0; i < m_.schedule.size(); ++i) {
      if (!matches(schedule, m_.schedule[i])) {
        add("schedule.badFormat", indexed("schedule", i),
            quoted(m_.schedule[i]) + " no es 'daily@HH:MM'");
      }
    }
  }

  void tools() {
    for (std::size_t i = 0; i < m_.tools.size(); ++i) {
      const ToolDescriptor& t = m_.tools[i];
      const std::string at = indexed("tools", i);
      if (!matches(toolName, t.name)) {
        add("tool.badName", at + ".name",
            quoted(t.name) + " no es un nombre de tool válido (segmentos separados por punto)");
      }
      if (blank(t.description)) {
        add("tool.noDescription", at + ".description",
            "toda tool exige description (es el contrato que leen agentes y humanos)");
      }
      // Every earlier name counts, valid or not.
      if (seenBefore(m_.tools, i))
        add("tool.duplicate", at + ".name", "tool '" + t.name + "' duplicada");
    }
  }

  void toolAccess() {
    for (std::size_t i = 0; i < m_.toolAccess.size(); ++i) {
      if (!validToolAccess(m_.toolAccess[i])) {
        add("toolAccess.badEntry", indexed("toolAccess", i),
            quoted(m_.toolAccess[i]) + " no es '<serviceId>/<tool>' ni '<serviceId>/*'");
      }
    }
  }

  // Only the documentation of the schema is judged here; which of its two
  // rules fired is not kept.
  void configSchema() {
    if (!m_.configSchema) return;
    for (SchemaViolation& v : m_.configSchema->configDocumentationViolations("configSchema")) {
      add("configSchema.undocumented", std::move(v.path), std::move(v.message));
    }
  }

  void migrations() {
    for (std::size_t i = 0; i < m_.migrations.size(); ++i) {
      const std::string& from = m_.migrations[i].from;
      if (!VersionConstraint::parse(from)) {
        add("migration.badFrom", indexed("migrations", i) + ".from",
            quoted(from) + " no es un rango de versión válido");
      }
    }
  }

  void restartPolicy() {
    const RestartPolicy& r = m_.restartPolicy;
    const bool negative = std::any_of(r.backoffSeconds.begin(), r.backoffSeconds.end(),
                                      [](std::int64_t s) { return s < 0; });
    if (r.maxFailures < 1 || r.window < 1 || r.backoffSeconds.empty() || negative) {
      add("restartPolicy.invalid", "restartPolicy",
          "maxFailures ≥ 1, window ≥ 1 y backoffSeconds no vacío y sin negativos");
    }
  }

  void resources() {
    if (!m_.resources) return;
    const ResourceBudget& r = *m_.resources;
    if (r.memoryMaxMB && *r.memoryMaxMB < 1) {
      add("resources.invalid", "resources.memoryMaxMB", "memoryMaxMB debe ser ≥ 1");
    }
    if (r.cpuPercentMax && (*r.cpuPercentMax < 1 || *r.cpuPercentMax > 100)) {
      add("resources.invalid", "resources.cpuPercentMax", "cpuPercentMax debe estar entre 1 y 100");
    }
  }

  // The idle stop means nothing to a service that always runs.
  void activation() {
    const Activation& a = m_.activation;
    if (a.mode == Activation::Mode::onDemand && a.idleStopMinutes && *a.idleStopMinutes < 1) {
      add("activation.invalid", "activation.idleStopMinutes", "idleStopMinutes debe ser ≥ 1");
    }
  }

  const ServiceManifest& m_;
  std::vector<ManifestValidationError> out_;
};

}  // namespace

std::vector<ManifestValidationError> ServiceManifest::validate() const {
  return Validation(*this).run();
}

}  // namespace tarskel
