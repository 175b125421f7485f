#pragma once
// What the fuzz targets share: the input as text, a record that may not read,
// and the promise that whatever reads writes back as itself. A broken promise
// aborts, so that libFuzzer keeps the input that broke it.

#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace tarskel::fuzz {

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

inline void require(bool promise) {
  if (!promise) std::abort();
}

// `bytes` read as a T, or nothing when they are not one.
template <class T>
std::optional<T> tryDecode(std::string_view bytes) {
  try {
    return TarskelJSON::decoder().decode<T>(bytes);
  } catch (const DecodingError&) {
    return std::nullopt;
  }
}

// What `encoder` writes of `value` reads back as an equal value.
template <class T>
void requireRoundTrip(const T& value,
                      const JSONEncoder& encoder = TarskelJSON::canonicalEncoder()) {
  require(TarskelJSON::decoder().decode<T>(encoder.encode(value)) == value);
}

// A fresh directory under the system's temporary one, removed with its holder.
struct ScratchDirectory {
  std::filesystem::path path = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarskel-fuzz-XXXXXX").string();
    require(::mkdtemp(pattern.data()) != nullptr);
    return std::filesystem::path(pattern);
  }();
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

}  // namespace tarskel::fuzz
