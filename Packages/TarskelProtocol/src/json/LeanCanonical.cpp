#include "tarskel/protocol/json/LeanCanonical.hpp"

#include <cstddef>
#include <utility>

#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel {
namespace {

// Text up to this size is decoded in one piece: its tree stays small.
constexpr std::size_t kWholeBytes = 64 * 1024;
// Output pieces grow to about this size before a new one starts.
constexpr std::size_t kPieceBytes = 1024 * 1024;

using Pieces = std::vector<std::string>;

void append(Pieces& out, std::string_view bytes) {
  if (out.empty() || out.back().size() >= kPieceBytes) {
    out.emplace_back();
    out.back().reserve(kPieceBytes + kWholeBytes);
  }
  out.back().append(bytes);
}

void appendAll(Pieces& out, Pieces&& pieces) {
  for (std::string& piece : pieces) {
    if (piece.size() >= kPieceBytes) {
      out.push_back(std::move(piece));
    } else {
      append(out, piece);
    }
  }
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Walks text already known to be well-formed JSON (JSONDecoder::isWellFormed).
class Walker {
 public:
  explicit Walker(std::string_view text) : t_(text) {}

  std::size_t space(std::size_t at) const {
    while (at < t_.size() && isSpace(t_[at])) ++at;
    return at;
  }

  // The end of the value that starts at `at`.
  std::size_t valueEnd(std::size_t at) const {
    const char c = t_[at];
    if (c == '"') return stringEnd(at);
    if (c != '{' && c != '[') {
      while (at < t_.size() && t_[at] != ',' && t_[at] != ']' && t_[at] != '}' && !isSpace(t_[at]))
        ++at;
      return at;
    }
    std::size_t depth = 0;
    for (;;) {
      const char d = t_[at];
      if (d == '"') {
        at = stringEnd(at);
        continue;
      }
      ++at;
      if (d == '{' || d == '[') ++depth;
      if ((d == '}' || d == ']') && --depth == 0) return at;
    }
  }

  std::size_t stringEnd(std::size_t at) const {
    for (++at; t_[at] != '"'; ++at) {
      if (t_[at] == '\\') ++at;
    }
    return at + 1;
  }

  std::string_view text(std::size_t from, std::size_t to) const {
    return t_.substr(from, to - from);
  }
  char at(std::size_t i) const { return t_[i]; }

 private:
  std::string_view t_;
};

class LeanEncoder {
 public:
  explicit LeanEncoder(std::string_view text) : w_(text) {}

  void value(std::size_t from, std::size_t to, Pieces& out) {
    if (to - from <= kWholeBytes || (w_.at(from) != '{' && w_.at(from) != '[')) {
      append(out, encodeWhole(w_.text(from, to)));
    } else if (w_.at(from) == '[') {
      array(from, out);
    } else {
      object(from, out);
    }
  }

 private:
  static std::string encodeWhole(std::string_view text) {
    return TarskelJSON::canonicalEncoder().encode(TarskelJSON::decoder().decode<JSONValue>(text));
  }

  // Small elements go to the library in runs: "[" run "]", its brackets
  // dropped from the answer.
  void array(std::size_t from, Pieces& out) {
    append(out, "[");
    bool first = true;
    std::size_t runFrom = 0;
    std::size_t runTo = 0;
    const auto flush = [&] {
      if (runTo == 0) return;
      const std::string run = encodeWhole("[" + std::string(w_.text(runFrom, runTo)) + "]");
      if (!first) append(out, ",");
      first = false;
      append(out, std::string_view(run).substr(1, run.size() - 2));
      runTo = 0;
    };
    for (std::size_t at = w_.space(from + 1); w_.at(at) != ']';) {
      const std::size_t end = w_.valueEnd(at);
      if (end - at > kWholeBytes) {
        flush();
        if (!first) append(out, ",");
        first = false;
        value(at, end, out);
      } else {
        if (runTo == 0) runFrom = at;
        runTo = end;
        if (runTo - runFrom > kWholeBytes) flush();
      }
      at = w_.space(end);
      if (w_.at(at) == ',') at = w_.space(at + 1);
    }
    flush();
    append(out, "]");
  }

  struct Member {
    std::string key;
    Pieces value;
  };

  // Members are gathered with their values' bytes, then ordered and rid of
  // repeated keys by the library's own object rules, with each member's
  // index standing in for its value.
  void object(std::size_t from, Pieces& out) {
    std::vector<Member> members;
    std::size_t runFrom = 0;
    std::size_t runTo = 0;
    const auto flush = [&] {
      if (runTo == 0) return;
      const JSONValue run = TarskelJSON::decoder().decode<JSONValue>(
          "{" + std::string(w_.text(runFrom, runTo)) + "}");
      for (const auto& [key, element] : *run.objectValue()) {
        members.push_back({key, Pieces{TarskelJSON::canonicalEncoder().encode(element)}});
      }
      runTo = 0;
    };
    for (std::size_t at = w_.space(from + 1); w_.at(at) != '}';) {
      const std::size_t keyEnd = w_.stringEnd(at);
      const std::size_t valueFrom = w_.space(w_.space(keyEnd) + 1);
      const std::size_t end = w_.valueEnd(valueFrom);
      if (end - valueFrom > kWholeBytes) {
        flush();
        Member member{*TarskelJSON::decoder().decode<JSONValue>(w_.text(at, keyEnd)).stringValue(),
                      {}};
        value(valueFrom, end, member.value);
        members.push_back(std::move(member));
      } else {
        if (runTo == 0) runFrom = at;
        runTo = end;
        if (runTo - runFrom > kWholeBytes) flush();
      }
      at = w_.space(end);
      if (w_.at(at) == ',') at = w_.space(at + 1);
    }
    flush();

    std::vector<JSONObject::Member> order;
    order.reserve(members.size());
    for (std::size_t i = 0; i < members.size(); ++i) {
      order.emplace_back(std::move(members[i].key),
                         JSONValue::unsignedInteger(static_cast<std::uint64_t>(i)));
    }
    append(out, "{");
    bool first = true;
    for (const auto& [key, index] : JSONObject::fromUnsorted(std::move(order))) {
      std::string head = first ? "" : ",";
      first = false;
      appendJSONString(head, key);
      head += ':';
      append(out, head);
      appendAll(out, std::move(members[index.numberPayload()->magnitude].value));
    }
    append(out, "}");
  }

  Walker w_;
};

}  // namespace

std::optional<std::vector<std::string>> leanCanonical(std::string_view text) {
  if (!TarskelJSON::decoder().isWellFormed(text)) return std::nullopt;
  try {
    const Walker walker(text);
    std::size_t from = walker.space(0);
    std::size_t to = text.size();
    while (to > from && isSpace(text[to - 1])) --to;
    Pieces out;
    LeanEncoder(text).value(from, to, out);
    return out;
  } catch (const Error&) {
    return std::nullopt;
  }
}

}  // namespace tarskel
