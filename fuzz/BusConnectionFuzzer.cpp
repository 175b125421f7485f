// A server-side bus connection fed any bytes by its peer, with or without a
// hello ahead of them. Nothing may crash or hang: the connection answers what
// it can, closes at the end of the stream, and every reply it wrote is a
// well-formed frame holding a message.

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/write.hpp>
#include <cstddef>
#include <cstdint>
#include <string>

#include "tarskel/protocol/bus/BusConnection.hpp"
#include "tarskel/protocol/bus/BusMethod.hpp"

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 16384) return 0;
  asio::io_context io;
  Local::socket peer(io), ours(io);
  asio::local::connect_pair(peer, ours);

  const tarskel::BusLimits limits{.maxFrameLength = 2048,
                                  .closeGrace = std::chrono::milliseconds(10)};
  auto connection = tarskel::BusConnection::server(std::move(ours), {}, limits);
  connection->handle(tarskel::BusMethod::healthPing,
                     [](const auto& params) { return params.value_or(nullptr); });
  connection->start();

  // The first byte's low bit puts a hello ahead of the rest.
  std::string stream;
  if (data[0] & 1) {
    stream = tarskel::Framing::encode(
        R"({"jsonrpc":"2.0","id":0,"method":"service.hello","params":{"clientId":"f","protocolVersion":"1.0.0"}})");
  }
  stream.append(reinterpret_cast<const char*>(data + 1), size - 1);
  asio::write(peer, asio::buffer(stream));
  peer.shutdown(Local::socket::shutdown_send);
  io.run();

  std::string replies;
  char buffer[4096];
  boost::system::error_code ec;
  while (peer.available(ec) > 0 && !ec) {
    replies.append(buffer, peer.read_some(asio::buffer(buffer), ec));
  }
  // Every reply must be a frame holding a message: anything that throws here
  // escapes the target, and so ends the run.
  tarskel::FrameDecoder decoder;
  for (const std::string& payload : decoder.append(replies)) tarskel::JSONRPC::decode(payload);
  return 0;
}
