#include "tarskel/protocol/semver/SemVer.hpp"

#include <cstddef>
#include <limits>
#include <vector>

#include "base/UnicodeSpaces.hpp"

namespace tarskel {
namespace {

// Every piece between dots, empty ones included.
std::vector<std::string_view> splitAtDots(std::string_view text) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  for (;;) {
    std::size_t dot = text.find('.', start);
    if (dot == std::string_view::npos) {
      pieces.push_back(text.substr(start));
      return pieces;
    }
    pieces.push_back(text.substr(start, dot - start));
    start = dot + 1;
  }
}

// A signed decimal that fits int64, with one optional sign; the result must
// not be negative. So "01" and "+1" are 1, "-0" is 0, and "", "+", "-1" and
// anything past int64 fail.
std::optional<std::int64_t> parseComponent(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return std::nullopt;
  // Accumulate the magnitude in unsigned so that INT64_MIN stays readable
  // (and is then refused for its sign rather than for overflow).
  const std::uint64_t limit =
      negative ? static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + 1
               : static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  std::uint64_t magnitude = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    const auto digit = static_cast<std::uint64_t>(c - '0');
    if (magnitude > (limit - digit) / 10) return std::nullopt;
    magnitude = magnitude * 10 + digit;
  }
  if (negative && magnitude != 0) return std::nullopt;
  return static_cast<std::int64_t>(magnitude);
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::optional<VersionConstraint::Wildcard> parseWildcard(std::string_view numbers) {
  std::vector<std::string_view> pieces = splitAtDots(numbers);
  if (pieces.size() > 2) return std::nullopt;
  std::optional<std::int64_t> major = parseComponent(pieces[0]);
  if (!major) return std::nullopt;
  if (pieces.size() == 1) return VersionConstraint::Wildcard{*major, std::nullopt};
  std::optional<std::int64_t> minor = parseComponent(pieces[1]);
  if (!minor) return std::nullopt;
  return VersionConstraint::Wildcard{*major, *minor};
}

template <class F>
std::optional<VersionConstraint> withVersion(std::string raw, std::optional<SemVer> version) {
  if (!version) return std::nullopt;
  return VersionConstraint{std::move(raw), F{std::move(*version)}};
}

}  // namespace

std::optional<SemVer> SemVer::parse(std::string_view text) {
  std::string_view core = text;
  std::optional<std::string> prerelease;
  if (std::size_t dash = text.find('-'); dash != std::string_view::npos) {
    core = text.substr(0, dash);
    if (dash + 1 == text.size()) return std::nullopt;
    prerelease = std::string(text.substr(dash + 1));
  }
  std::vector<std::string_view> pieces = splitAtDots(core);
  if (pieces.size() != 3) return std::nullopt;
  std::optional<std::int64_t> major = parseComponent(pieces[0]);
  std::optional<std::int64_t> minor = parseComponent(pieces[1]);
  std::optional<std::int64_t> patch = parseComponent(pieces[2]);
  if (!major || !minor || !patch) return std::nullopt;
  return SemVer{*major, *minor, *patch, std::move(prerelease)};
}

std::string SemVer::description() const {
  std::string text =
      std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
  if (prerelease) text.append("-").append(*prerelease);
  return text;
}

std::strong_ordering operator<=>(const SemVer& a, const SemVer& b) {
  if (auto c = a.major <=> b.major; c != 0) return c;
  if (auto c = a.minor <=> b.minor; c != 0) return c;
  if (auto c = a.patch <=> b.patch; c != 0) return c;
  if (!a.prerelease || !b.prerelease) {
    // A release stands after any of its prereleases.
    return b.prerelease.has_value() <=> a.prerelease.has_value();
  }
  // std::string compares bytes as unsigned, and UTF-8 byte order is code
  // point order.
  const int c = a.prerelease->compare(*b.prerelease);
  return c < 0 ? std::strong_ordering::less
               : (c > 0 ? std::strong_ordering::greater : std::strong_ordering::equal);
}

std::optional<SemVer> VersionConstraint::parseLoose(std::string_view text) {
  const std::string_view trimmed = trimSpaceSeparators(text);
  // Pieces are counted over the whole text, a prerelease included, so that
  // "1.2.3-rc.1" has four and fails.
  std::vector<std::string_view> pieces = splitAtDots(trimmed);
  switch (pieces.size()) {
    case 1: {
      std::optional<std::int64_t> major = parseComponent(pieces[0]);
      if (!major) return std::nullopt;
      return SemVer{*major, 0, 0, std::nullopt};
    }
    case 2: {
      std::optional<std::int64_t> major = parseComponent(pieces[0]);
      std::optional<std::int64_t> minor = parseComponent(pieces[1]);
      if (!major || !minor) return std::nullopt;
      return SemVer{*major, *minor, 0, std::nullopt};
    }
    case 3:
      return SemVer::parse(trimmed);
    default:
      return std::nullopt;
  }
}

std::optional<VersionConstraint> VersionConstraint::parse(std::string_view text) {
  const std::string_view trimmed = trimSpaceSeparators(text);
  std::string raw(trimmed);
  // The first form whose mark the text carries decides; a failure there is
  // final.
  if (startsWith(trimmed, ">=")) {
    return withVersion<GreaterOrEqual>(std::move(raw), parseLoose(trimmed.substr(2)));
  }
  if (startsWith(trimmed, "^")) {
    return withVersion<Caret>(std::move(raw), parseLoose(trimmed.substr(1)));
  }
  if (endsWith(trimmed, ".x")) {
    std::optional<Wildcard> wildcard = parseWildcard(trimmed.substr(0, trimmed.size() - 2));
    if (!wildcard) return std::nullopt;
    return VersionConstraint{std::move(raw), *wildcard};
  }
  return withVersion<Exact>(std::move(raw), parseLoose(trimmed));
}

bool VersionConstraint::isSatisfied(const SemVer& v) const {
  if (const auto* exact = std::get_if<Exact>(&form)) return v == exact->version;
  if (const auto* atLeast = std::get_if<GreaterOrEqual>(&form)) return v >= atLeast->version;
  if (const auto* caret = std::get_if<Caret>(&form)) {
    const SemVer& c = caret->version;
    if (v < c) return false;
    // Below 1.0.0 the minor is pinned, never the patch.
    return c.major > 0 ? v.major == c.major : (v.major == 0 && v.minor == c.minor);
  }
  const auto& wildcard = std::get<Wildcard>(form);
  return v.major == wildcard.major && (!wildcard.minor || v.minor == *wildcard.minor);
}

}  // namespace tarskel
