#pragma once

// JSON merge patches (RFC 7386) over JSONValue trees.
//
// Three pure functions without state: they never fail, never change their
// inputs, and may be called from any thread.

#include <string>
#include <string_view>
#include <vector>

#include "tarskel/protocol/json/JSONValue.hpp"

namespace tarskel::MergePatch {

// `target` with `patch` applied, exactly as RFC 7386 says: a non-object patch
// replaces the whole target, a null member removes its key, an object member
// merges recursively, and any other member (arrays included) replaces the old
// value whole. A non-object target is discarded when the patch is an object.
JSONValue apply(const JSONValue& patch, const JSONValue& target);

// A patch that `apply` turns `from` into `to`, within the limits of the
// format: a null standing as a value in `to` travels as a removal, and equal
// documents give `{}` (also for two equal non-objects, where applying `{}`
// would not be a no-op; callers test for an empty patch first). Arrays are
// never looked into: any difference carries the whole new array.
JSONValue diff(const JSONValue& from, const JSONValue& to);

// The paths a patch touches, depth first, in ascending key order at each
// level: `prefix` + "." + key for every leaf (removals and arrays included),
// recursing into object members. A non-object patch gives `{prefix}`; a member
// holding `{}` gives nothing. Keys are joined unescaped.
std::vector<std::string> affectedPaths(const JSONValue& patch, std::string_view prefix);

}  // namespace tarskel::MergePatch
