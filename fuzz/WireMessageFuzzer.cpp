// Arbitrary text through WireMessage::decode. Whatever decodes must encode,
// decode back equal and encode to the same text again; a decoded command must
// yield its signing payload, and a sig that parses must print back as itself.

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "tarskel/protocol/cc/WireMessage.hpp"
#include "tarskel/vendor/CCCommandSignature.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarskel;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  WireMessage message;
  try {
    message = WireMessage::decode(input);
  } catch (const DecodingError&) {
    return 0;
  }
  const std::string once = message.encodedString();
  const WireMessage again = WireMessage::decode(once);
  if (!(again == message)) std::abort();
  if (again.encodedString() != once) std::abort();

  if (const CCCommand* command = message.get<CCCommand>()) {
    (void)command->signingPayload();
    if (std::optional<CCCommandSignature> sig = CCCommandSignature::parse(command->sig)) {
      if (sig->text() != command->sig) std::abort();
    }
  }
  return 0;
}
