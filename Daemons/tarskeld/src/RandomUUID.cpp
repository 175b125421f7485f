#include "RandomUUID.hpp"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cctype>

namespace tarskel {

std::string randomUUIDString() {
  // One generator per thread: a generator is not safe to share.
  thread_local boost::uuids::random_generator generator;
  std::string text = boost::uuids::to_string(generator());
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace tarskel
