#pragma once

// What the control centre sends a device, and what the device answers.
//
// Plain values with a JSON shape: keys equal field names, optional fields
// are left out when absent and read as absent when missing or null, unknown
// keys are ignored (and so lost on re-encoding). Constructors set fields one
// to one and check nothing.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "tarskel/protocol/base/Date.hpp"
#include "tarskel/protocol/bus/JSONRPCError.hpp"
#include "tarskel/protocol/json/JSONCoding.hpp"

namespace tarskel {

// Four-eyes approval of a command.
struct DualControl {
  bool required = false;
  std::optional<std::string> approvedBy;

  void encode(KeyedEncoder& e) const;
  static DualControl decode(const KeyedDecoder& d);
  friend bool operator==(const DualControl&, const DualControl&) = default;
};

// A signed order from the control centre. `cmdId` is the key under which the
// device remembers its answer (CCLinkStore), so a repeated delivery runs once.
struct CCCommand {
  // Every field but `sig`, with the same keys and presence: what is signed.
  struct SigningBody {
    std::string cmdId;
    std::string target;
    std::string method;
    std::optional<JSONValue> params;
    Date deadline;
    std::string issuedBy;
    std::optional<DualControl> dualControl;

    void encode(KeyedEncoder& e) const;
    static SigningBody decode(const KeyedDecoder& d);
    friend bool operator==(const SigningBody&, const SigningBody&) = default;
  };

  std::string cmdId;
  std::string target;
  std::string method;  // normally a name of CCCommandMethod::all()
  std::optional<JSONValue> params;
  Date deadline;  // stale after this instant
  std::string issuedBy;
  std::optional<DualControl> dualControl;
  std::string sig;  // over signingPayload(); see CCCommandSignature in TarskelVendor

  CCCommand() = default;
  CCCommand(std::string cmdId, std::string target, std::string method,
            std::optional<JSONValue> params, Date deadline, std::string issuedBy,
            std::optional<DualControl> dualControl, std::string sig);

  SigningBody signingBody() const;

  // The bytes a signature covers: the signing body in the canonical encoding,
  // with no prefix and no hashing. Absent fields leave no key, and the
  // deadline counts to the whole second. Throws EncodingError (a NaN in
  // `params`, a deadline that is not finite).
  std::string signingPayload() const;

  void encode(KeyedEncoder& e) const;
  static CCCommand decode(const KeyedDecoder& d);
  friend bool operator==(const CCCommand&, const CCCommand&) = default;
};

// The device's answer to one command. Nothing ties `result` or `error` to the
// status: a nack without an error is a valid ack.
struct CCAck {
  enum class Status { acked, nacked };

  std::string cmdId;
  Status status = Status::acked;
  std::optional<JSONValue> result;
  std::optional<JSONRPCError> error;
  std::optional<std::int64_t> configEpoch;

  CCAck() = default;
  CCAck(std::string cmdId, Status status, std::optional<JSONValue> result = std::nullopt,
        std::optional<JSONRPCError> error = std::nullopt,
        std::optional<std::int64_t> configEpoch = std::nullopt);

  void encode(KeyedEncoder& e) const;
  static CCAck decode(const KeyedDecoder& d);
  friend bool operator==(const CCAck&, const CCAck&) = default;
};

template <>
struct JSONEnum<CCAck::Status> {
  static constexpr std::array<std::pair<CCAck::Status, std::string_view>, 2> cases{{
      {CCAck::Status::acked, "acked"},
      {CCAck::Status::nacked, "nacked"},
  }};
};

}  // namespace tarskel
