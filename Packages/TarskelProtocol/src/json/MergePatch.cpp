#include "tarskel/protocol/json/MergePatch.hpp"

#include <utility>

namespace tarskel::MergePatch {
namespace {

void collectPaths(const JSONValue& patch, const std::string& prefix,
                  std::vector<std::string>& out) {
  const JSONObject* members = patch.objectValue();
  if (members == nullptr) {
    out.push_back(prefix);
    return;
  }
  // The object keeps its members sorted by key bytes, which is the order
  // callers see.
  for (const auto& [key, value] : *members) {
    std::string path = prefix + "." + key;
    if (value.objectValue() != nullptr) {
      collectPaths(value, path, out);
    } else {
      out.push_back(std::move(path));
    }
  }
}

}  // namespace

JSONValue apply(const JSONValue& patch, const JSONValue& target) {
  const JSONObject* changes = patch.objectValue();
  if (changes == nullptr) return patch;

  const JSONObject* existing = target.objectValue();
  JSONObject result = existing != nullptr ? *existing : JSONObject();
  for (const auto& [key, value] : *changes) {
    if (value.isNull()) {
      result.erase(key);
    } else if (value.objectValue() != nullptr) {
      const JSONValue* current = result.find(key);
      JSONValue merged = apply(value, current != nullptr ? *current : JSONValue(JSONObject()));
      result.set(key, std::move(merged));
    } else {
      result.set(key, value);
    }
  }
  return JSONValue(std::move(result));
}

JSONValue diff(const JSONValue& from, const JSONValue& to) {
  const JSONObject* before = from.objectValue();
  const JSONObject* after = to.objectValue();
  if (before == nullptr || after == nullptr) {
    return from == to ? JSONValue(JSONObject()) : to;
  }

  std::vector<JSONObject::Member> changes;
  for (const auto& [key, newValue] : *after) {
    const JSONValue* oldValue = before->find(key);
    // Unchanged members are left out of the patch.
    if (oldValue != nullptr && *oldValue == newValue) continue;
    if (oldValue != nullptr && oldValue->objectValue() != nullptr &&
        newValue.objectValue() != nullptr) {
      changes.emplace_back(key, diff(*oldValue, newValue));
    } else {
      changes.emplace_back(key, newValue);
    }
  }
  for (const auto& member : *before) {
    if (!after->contains(member.first)) changes.emplace_back(member.first, JSONValue(nullptr));
  }
  return JSONValue(JSONObject::fromUnsorted(std::move(changes)));
}

std::vector<std::string> affectedPaths(const JSONValue& patch, std::string_view prefix) {
  std::vector<std::string> out;
  collectPaths(patch, std::string(prefix), out);
  return out;
}

}  // namespace tarskel::MergePatch
