// Arbitrary text through WireMessage::decode. Whatever decodes must encode,
// decode back equal and encode to the same text again; a decoded command must
// yield its signing payload, and a sig that parses must print back as itself.

#include <string>

#include "FuzzSupport.hpp"
#include "tarskel/protocol/cc/WireMessage.hpp"
#include "tarskel/vendor/CCCommandSignature.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarskel;
  WireMessage message;
  try {
    message = WireMessage::decode(fuzz::text(data, size));
  } catch (const DecodingError&) {
    return 0;
  }
  const std::string once = message.encodedString();
  const WireMessage again = WireMessage::decode(once);
  fuzz::require(again == message && again.encodedString() == once);

  if (const CCCommand* command = message.get<CCCommand>()) {
    (void)command->signingPayload();
    if (std::optional<CCCommandSignature> sig = CCCommandSignature::parse(command->sig)) {
      fuzz::require(sig->text() == command->sig);
    }
  }
  return 0;
}
