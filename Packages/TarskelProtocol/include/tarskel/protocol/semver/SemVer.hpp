#pragma once

// Versions and version constraints as services declare them. These rules are
// this system's own and differ on purpose from the published semantic
// versioning rules: prereleases compare as whole strings, there is no build
// metadata, and `^` below 1.0.0 pins the minor only.
//
// Plain values; parsing yields nothing on bad text and leaves the wording of
// the failure to the caller.

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace tarskel {

struct SemVer {
  std::int64_t major = 0;  // never negative
  std::int64_t minor = 0;
  std::int64_t patch = 0;
  std::optional<std::string> prerelease;  // all after the first '-'; never empty

  // "<major>.<minor>.<patch>" with an optional "-<prerelease>". Nothing is
  // trimmed. Components are decimal, leading zeros and a leading '+' allowed,
  // within int64 and not negative. Anything else yields nothing.
  static std::optional<SemVer> parse(std::string_view text);

  // Plain decimal numbers, then "-" and the prerelease if there is one.
  std::string description() const;

  // Numbers first; a prerelease stands before its release; two prereleases
  // compare as whole strings by code point (rc.10 < rc.9).
  friend std::strong_ordering operator<=>(const SemVer& a, const SemVer& b);
  friend bool operator==(const SemVer&, const SemVer&) = default;
};

struct VersionConstraint {
  struct Exact {
    SemVer version;
    friend bool operator==(const Exact&, const Exact&) = default;
  };
  struct GreaterOrEqual {
    SemVer version;
    friend bool operator==(const GreaterOrEqual&, const GreaterOrEqual&) = default;
  };
  struct Caret {
    SemVer version;
    friend bool operator==(const Caret&, const Caret&) = default;
  };
  // "1.x" (no minor) or "1.2.x".
  struct Wildcard {
    std::int64_t major = 0;
    std::optional<std::int64_t> minor;
    friend bool operator==(const Wildcard&, const Wildcard&) = default;
  };
  using Form = std::variant<Exact, GreaterOrEqual, Caret, Wildcard>;

  std::string raw;  // the parsed text, trimmed of blanks
  Form form;

  // "1.2.3", ">=1.2", "^1", "1.x", "1.2.x", with blanks (Unicode space
  // separators and tabs, not line breaks) around the whole and after an
  // operator. A shortened version stands for zeros ("1.2" is 1.2.0); a
  // prerelease needs all three numbers and no '.' of its own. Anything
  // else yields nothing.
  static std::optional<VersionConstraint> parse(std::string_view text);

  bool isSatisfied(const SemVer& version) const;

  friend bool operator==(const VersionConstraint&, const VersionConstraint&) = default;

 private:
  static std::optional<SemVer> parseLoose(std::string_view text);
};

}  // namespace tarskel
