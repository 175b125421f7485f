#include "tarskel/protocol/json/JSONValue.hpp"

#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cmath>
#include <numeric>

namespace tarskel {
namespace {

bool isASCII(std::string_view s) {
  return std::all_of(s.begin(), s.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// NFD of `s` as UTF-16; an unnormalisable (ill-formed) input stays as it is.
icu::UnicodeString decomposed(std::string_view s) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
  icu::UnicodeString text =
      icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), static_cast<int32_t>(s.size())));
  if (U_FAILURE(status)) return text;
  icu::UnicodeString out = nfd->normalize(text, status);
  return U_FAILURE(status) ? text : out;
}

bool keyLess(const JSONObject::Member& m, std::string_view key) { return m.first < key; }

// A stable sort by key bytes. The objects of messages and records have a
// handful of members, which an insertion sort orders in place, without the
// buffer std::stable_sort allocates.
void sortStablyByKey(std::vector<JSONObject::Member>& members) {
  const auto less = [](const JSONObject::Member& a, const JSONObject::Member& b) {
    return a.first < b.first;
  };
  constexpr std::size_t kInsertionLimit = 24;
  if (members.size() > kInsertionLimit) {
    std::stable_sort(members.begin(), members.end(), less);
    return;
  }
  for (std::size_t i = 1; i < members.size(); ++i) {
    if (!less(members[i], members[i - 1])) continue;
    JSONObject::Member moving = std::move(members[i]);
    std::size_t j = i;
    for (; j > 0 && less(moving, members[j - 1]); --j) members[j] = std::move(members[j - 1]);
    members[j] = std::move(moving);
  }
}

}  // namespace

bool canonicallyEquivalent(std::string_view a, std::string_view b) {
  if (a == b) return true;
  if (isASCII(a) && isASCII(b)) return false;
  return decomposed(a) == decomposed(b);
}

// ---- JSONObject ----

JSONObject::JSONObject(std::initializer_list<Member> members)
    : JSONObject(fromUnsorted(std::vector<Member>(members))) {}

std::ptrdiff_t JSONObject::indexOf(std::string_view key) const {
  auto it = std::lower_bound(members_.begin(), members_.end(), key, keyLess);
  if (it != members_.end() && it->first == key) return it - members_.begin();
  if (!mayHoldNonASCII_ && isASCII(key)) return -1;
  // An equivalent spelling: only a key or a probe outside ASCII can differ in bytes.
  const bool probeASCII = isASCII(key);
  for (std::size_t i = 0; i < members_.size(); ++i) {
    const std::string& k = members_[i].first;
    if (probeASCII && isASCII(k)) continue;
    if (canonicallyEquivalent(k, key)) return static_cast<std::ptrdiff_t>(i);
  }
  return -1;
}

const JSONValue* JSONObject::find(std::string_view key) const {
  const std::ptrdiff_t i = indexOf(key);
  return i < 0 ? nullptr : &members_[static_cast<std::size_t>(i)].second;
}

JSONValue* JSONObject::find(std::string_view key) {
  const std::ptrdiff_t i = indexOf(key);
  return i < 0 ? nullptr : &members_[static_cast<std::size_t>(i)].second;
}

void JSONObject::set(std::string key, JSONValue value) {
  const std::ptrdiff_t i = indexOf(key);
  if (i >= 0) members_.erase(members_.begin() + i);
  if (!isASCII(key)) mayHoldNonASCII_ = true;
  auto it = std::lower_bound(members_.begin(), members_.end(), key, keyLess);
  members_.emplace(it, std::move(key), std::move(value));
}

bool JSONObject::erase(std::string_view key) {
  const std::ptrdiff_t i = indexOf(key);
  if (i < 0) return false;
  members_.erase(members_.begin() + i);
  return true;
}

JSONObject JSONObject::fromUnsorted(std::vector<Member> members) {
  JSONObject object;
  object.mayHoldNonASCII_ = std::any_of(members.begin(), members.end(),
                                        [](const Member& m) { return !isASCII(m.first); });
  if (!object.mayHoldNonASCII_) {
    // Documents written by the canonical encoder arrive sorted and unique.
    const bool strictlySorted =
        std::adjacent_find(members.begin(), members.end(), [](const Member& a, const Member& b) {
          return !(a.first < b.first);
        }) == members.end();
    if (strictlySorted) {
      object.members_ = std::move(members);
      return object;
    }
    // Stable, so that among equal keys the later member stays last and wins.
    sortStablyByKey(members);
    std::size_t kept = 0;
    for (std::size_t i = 0; i < members.size(); ++i) {
      if (kept > 0 && members[kept - 1].first == members[i].first) {
        members[kept - 1] = std::move(members[i]);
      } else {
        if (kept != i) members[kept] = std::move(members[i]);
        ++kept;
      }
    }
    members.erase(members.begin() + static_cast<std::ptrdiff_t>(kept), members.end());
    object.members_ = std::move(members);
    return object;
  }
  for (auto& m : members) object.set(std::move(m.first), std::move(m.second));
  return object;
}

bool operator==(const JSONObject& a, const JSONObject& b) {
  if (a.members_.size() != b.members_.size()) return false;
  if (!a.mayHoldNonASCII_ && !b.mayHoldNonASCII_) {
    return std::equal(a.members_.begin(), a.members_.end(), b.members_.begin());
  }
  for (const auto& [key, value] : a.members_) {
    const JSONValue* other = b.find(key);
    if (other == nullptr || !(*other == value)) return false;
  }
  return true;
}

// ---- JSONValue ----

JSONValue JSONValue::integer(std::int64_t v) {
  JSONNumber n;
  n.value = static_cast<double>(v);
  n.hasExact = true;
  n.negative = v < 0;
  n.magnitude = v < 0 ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
  n.writeExact = true;
  return JSONValue(n);
}

JSONValue JSONValue::unsignedInteger(std::uint64_t v) {
  JSONNumber n;
  n.value = static_cast<double>(v);
  n.hasExact = true;
  n.magnitude = v;
  n.writeExact = true;
  return JSONValue(n);
}

std::optional<double> JSONValue::numberValue() const {
  if (const JSONNumber* n = numberPayload()) return n->value;
  return std::nullopt;
}

std::optional<bool> JSONValue::boolValue() const {
  if (const bool* b = std::get_if<bool>(&storage_)) return *b;
  return std::nullopt;
}

const JSONValue* JSONValue::operator[](std::string_view key) const {
  const Object* o = objectValue();
  return o == nullptr ? nullptr : o->find(key);
}

const char* JSONValue::typeName() const {
  switch (kind()) {
    case Kind::boolean:
      return "boolean";
    case Kind::number:
      return isIntegral(numberPayload()->value) ? "integer" : "number";
    case Kind::string:
      return "string";
    case Kind::array:
      return "array";
    case Kind::object:
      return "object";
    case Kind::null:
      return "null";
  }
  return "null";
}

bool operator==(const JSONValue& a, const JSONValue& b) {
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case JSONValue::Kind::boolean:
      return *a.boolValue() == *b.boolValue();
    case JSONValue::Kind::number:
      return a.numberPayload()->value == b.numberPayload()->value;
    case JSONValue::Kind::string:
      return canonicallyEquivalent(*a.stringValue(), *b.stringValue());
    case JSONValue::Kind::array:
      return *a.arrayValue() == *b.arrayValue();
    case JSONValue::Kind::object:
      return *a.objectValue() == *b.objectValue();
    case JSONValue::Kind::null:
      return true;
  }
  return false;
}

bool isIntegral(double v) {
  return std::isfinite(v) && std::fabs(v) < 9007199254740992.0 && v == std::nearbyint(v);
}

}  // namespace tarskel
