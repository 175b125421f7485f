#include "tarskel/daemon/DaemonOp.hpp"

namespace tarskel {

std::string DaemonPeerVerdict::callerText() const {
  switch (kind_) {
    case Kind::trusted:
      return "team:" + payload_;
    case Kind::unverified:
      return "unverified:" + payload_;
    case Kind::rejected:
      return "rejected:" + payload_;
  }
  return payload_;
}

}  // namespace tarskel
