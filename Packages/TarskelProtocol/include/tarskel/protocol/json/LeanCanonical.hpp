#pragma once

// The canonical bytes of a large JSON document without its whole tree.
//
// A tree of JSONValue takes some ten times the bytes of its text, so a
// document of a hundred megabytes would need a gigabyte. Here the text is
// taken apart only as far as needed: a value whose text is small, or a run
// of small elements or members, is decoded and encoded by the library as it
// is; a large array is written element by element, and a large object member
// by member, put in key order (and rid of repeated keys) by the library's own
// object rules. The bytes are those of
// TarskelJSON::canonicalEncoder().encode(decoder().decode<JSONValue>(text)),
// held in pieces of about a megabyte: about the size of the text. Stateless;
// any thread.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarskel {

// The canonical bytes of `text`, in order, or nothing when `text` is not a
// document this way can take (any syntax fault, a number no binary64 holds,
// anything the library refuses): the caller then decodes it whole, which
// gives the exact error.
std::optional<std::vector<std::string>> leanCanonical(std::string_view text);

}  // namespace tarskel
