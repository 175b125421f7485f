// The bus: message decoding beside nlohmann::json parsing the same bytes,
// then BusConnection round trips over a Unix socket beside a raw socket echo
// of the same frames and an sd-bus method call (GetId on a private
// dbus-daemon), and pipelined throughput with 64 calls in flight beside a raw
// echo pipelined the same way.
//
//   BusBench [--benchmark_* flags]      (round trips: TARSKEL_BUS_CALLS, default 20000,
//                                        in TARSKEL_BUS_ROUNDS rounds, default 5)
//
// Goals close the output as "target NAME: MEDIAN (min, max) goal OP VALUE"; the
// round trip's is the p50 of BusConnection over the p50 of the raw echo.

#include <dlfcn.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "RatioReporter.hpp"
#include "tarskel/protocol/bus/BusConnection.hpp"
#include "tarskel/protocol/bus/BusMethod.hpp"
#include "tarskel/protocol/bus/JSONRPC.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"

namespace {

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;
using Clock = std::chrono::steady_clock;

// A mix a supervisor sees: calls with small params, results, an error, a notification.
const std::vector<std::string>& messages() {
  static const std::vector<std::string> all = {
      R"({"jsonrpc":"2.0","id":17,"method":"config.get","params":{"serviceId":"net.hollowick.sync","keys":["interval","paths"]}})",
      R"({"jsonrpc":"2.0","id":17,"result":{"interval":30,"paths":["/Users/a/Documents","/Users/a/Desktop"],"enabled":true}})",
      R"({"jsonrpc":"2.0","id":"c-9","error":{"code":-32601,"message":"método desconocido: tools.frob"}})",
      R"({"jsonrpc":"2.0","method":"ui.stateChanged","params":{"serviceId":"net.hollowick.sync","state":"running","pid":4711}})",
      R"({"jsonrpc":"2.0","id":18,"method":"health.ping"})",
  };
  return all;
}

std::int64_t totalBytes() {
  std::int64_t n = 0;
  for (const auto& m : messages()) n += static_cast<std::int64_t>(m.size());
  return n;
}

void BusDecode_Tarskel(benchmark::State& state) {
  for (auto _ : state) {
    for (const std::string& m : messages()) {
      tarskel::JSONRPCMessage message = tarskel::JSONRPC::decode(m);
      benchmark::DoNotOptimize(message);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(messages().size()));
  state.SetBytesProcessed(state.iterations() * totalBytes());
}

void BusDecode_nlohmann(benchmark::State& state) {
  for (auto _ : state) {
    for (const std::string& m : messages()) {
      nlohmann::json v = nlohmann::json::parse(m);
      benchmark::DoNotOptimize(v);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(messages().size()));
  state.SetBytesProcessed(state.iterations() * totalBytes());
}

BENCHMARK(BusDecode_Tarskel);
BENCHMARK(BusDecode_nlohmann);

// ---- round trips ----

struct Latencies {
  std::vector<double> micros;
  double seconds = 0;
  double percentile(double p) {
    if (micros.empty()) return 0;
    std::sort(micros.begin(), micros.end());
    return micros[std::min(micros.size() - 1,
                           static_cast<std::size_t>(p * static_cast<double>(micros.size())))];
  }
  double rate() const { return static_cast<double>(micros.size()) / seconds; }
};

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

const tarskel::JSONValue& pingParams() {
  static const tarskel::JSONValue params =
      tarskel::TarskelJSON::decoder().decode<tarskel::JSONValue>(
          R"({"serviceId":"net.hollowick.sync"})");
  return params;
}

// A server connection on its own thread answering health.ping, and a client
// connection driven from this thread's loop: `window` calls in flight, each
// completion starting the next, `calls` in all.
Latencies busCalls(int calls, int window) {
  // Each loop runs on one thread, as a service's would.
  asio::io_context serverIo(1);
  asio::io_context clientIo(1);
  Local::socket a(clientIo), b(serverIo);
  asio::local::connect_pair(a, b);
  auto server = tarskel::BusConnection::server(std::move(b));
  server->handle(tarskel::BusMethod::healthPing,
                 [](const auto&) { return tarskel::JSONValue(true); });
  server->start();
  std::thread serverThread([&] { serverIo.run(); });

  auto client = tarskel::BusConnection::client(
      std::move(a), tarskel::HelloRequest{"bench", "", {}, std::nullopt});
  client->start();
  Latencies out;
  out.micros.reserve(static_cast<std::size_t>(calls));
  int started = 0;
  std::function<void()> next = [&] {
    const Clock::time_point t0 = Clock::now();
    ++started;
    client->asyncCall(std::string(tarskel::BusMethod::healthPing), pingParams(),
                      [&, t0](std::exception_ptr error, tarskel::JSONValue) {
                        if (error) std::abort();
                        out.micros.push_back(
                            std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
                        if (started < calls) {
                          next();
                        } else if (static_cast<int>(out.micros.size()) == calls) {
                          client->close();
                        }
                      });
  };
  // The hello first, outside the figures.
  client->asyncCall(std::string(tarskel::BusMethod::healthPing), std::nullopt,
                    [](std::exception_ptr, auto) {});
  clientIo.run_one();
  while (!client->session()) clientIo.run_one();
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < window; ++i) next();
  clientIo.run();
  out.seconds = since(start);
  serverThread.join();
  return out;
}

// The same frames through a socketpair with nothing but send and recv: the
// floor under any protocol on this transport.
Latencies rawEcho(int calls, int window) {
  const std::string request = tarskel::Framing::encode(
      R"({"jsonrpc":"2.0","id":12345,"method":"health.ping","params":{"serviceId":"net.hollowick.sync"}})");
  const std::string reply =
      tarskel::Framing::encode(R"({"jsonrpc":"2.0","id":12345,"result":true})");
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) std::abort();
  std::thread echo([fd = fds[1], &reply] {
    tarskel::FrameDecoder decoder;
    char buffer[65536];
    std::string out;
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) {
      out.clear();
      for (std::size_t k = decoder.append({buffer, static_cast<std::size_t>(n)}).size(); k > 0; --k)
        out += reply;
      if (!out.empty()) ::send(fd, out.data(), out.size(), MSG_NOSIGNAL);
    }
    ::close(fd);
  });
  Latencies result;
  std::vector<Clock::time_point> sentAt;
  tarskel::FrameDecoder decoder;
  char buffer[65536];
  const Clock::time_point start = Clock::now();
  int sent = 0;
  const auto sendOne = [&] {
    sentAt.push_back(Clock::now());
    ::send(fds[0], request.data(), request.size(), MSG_NOSIGNAL);
    ++sent;
  };
  for (int i = 0; i < window; ++i) sendOne();
  std::size_t received = 0;
  while (received < static_cast<std::size_t>(calls)) {
    const ssize_t n = ::recv(fds[0], buffer, sizeof buffer, 0);
    if (n <= 0) std::abort();
    for (std::size_t k = decoder.append({buffer, static_cast<std::size_t>(n)}).size(); k > 0; --k) {
      result.micros.push_back(
          std::chrono::duration<double, std::micro>(Clock::now() - sentAt[received]).count());
      ++received;
      if (sent < calls) sendOne();
    }
  }
  result.seconds = since(start);
  ::shutdown(fds[0], SHUT_RDWR);
  echo.join();
  ::close(fds[0]);
  return result;
}

// sd-bus, loaded at run time so that the benchmark builds without its headers.
struct SdBusError {
  const char* name;
  const char* message;
  int needFree;
};
struct SdBus {
  int (*newBus)(void**);
  int (*setAddress)(void*, const char*);
  int (*setBusClient)(void*, int);
  int (*start)(void*);
  int (*callMethod)(void*, const char*, const char*, const char*, const char*, SdBusError*, void**,
                    const char*, ...);
  void* (*messageUnref)(void*);
  void (*errorFree)(SdBusError*);
  void* (*flushCloseUnref)(void*);

  static std::optional<SdBus> load() {
    void* lib = ::dlopen("libsystemd.so.0", RTLD_NOW);
    if (lib == nullptr) return std::nullopt;
    SdBus s{};
    bool ok = true;
    const auto get = [&](auto& fn, const char* name) {
      void* symbol = ::dlsym(lib, name);
      ok = ok && symbol != nullptr;
      fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(symbol);
    };
    get(s.newBus, "sd_bus_new");
    get(s.setAddress, "sd_bus_set_address");
    get(s.setBusClient, "sd_bus_set_bus_client");
    get(s.start, "sd_bus_start");
    get(s.callMethod, "sd_bus_call_method");
    get(s.messageUnref, "sd_bus_message_unref");
    get(s.errorFree, "sd_bus_error_free");
    get(s.flushCloseUnref, "sd_bus_flush_close_unref");
    if (!ok) return std::nullopt;
    return s;
  }
};

// GetId on the bus driver of a private dbus-daemon: one method call round trip.
std::optional<Latencies> dbusCalls(int calls) {
  std::optional<SdBus> sd = SdBus::load();
  if (!sd) return std::nullopt;
  int out[2];
  if (::pipe(out) != 0) return std::nullopt;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], 1);
    ::execlp("dbus-daemon", "dbus-daemon", "--session", "--print-address", "--nofork", nullptr);
    ::_exit(127);
  }
  ::close(out[1]);
  std::string address;
  char c;
  while (::read(out[0], &c, 1) == 1 && c != '\n') address += c;
  std::optional<Latencies> result;
  void* bus = nullptr;
  if (!address.empty() && sd->newBus(&bus) >= 0 && sd->setAddress(bus, address.c_str()) >= 0 &&
      sd->setBusClient(bus, 1) >= 0 && sd->start(bus) >= 0) {
    result.emplace();
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < calls; ++i) {
      const Clock::time_point t0 = Clock::now();
      SdBusError error{nullptr, nullptr, 0};
      void* reply = nullptr;
      if (sd->callMethod(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                         "org.freedesktop.DBus", "GetId", &error, &reply, "") < 0) {
        std::abort();
      }
      sd->messageUnref(reply);
      sd->errorFree(&error);
      result->micros.push_back(
          std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    result->seconds = since(start);
  }
  if (bus != nullptr) sd->flushCloseUnref(bus);
  ::kill(pid, SIGTERM);
  ::waitpid(pid, nullptr, 0);
  ::close(out[0]);
  return result;
}

void print(const char* name, Latencies& l) {
  std::printf("%-40s %9.0f calls/s   p50 %7.1f us   p99 %7.1f us\n", name, l.rate(),
              l.percentile(0.50), l.percentile(0.99));
}

}  // namespace

int main(int argc, char** argv) {
  const int rc = tarskel::bench::runWithRatios(
      argc, argv, {},
      {{"bus-decode-vs-nlohmann", "BusDecode_Tarskel", "BusDecode_nlohmann", ">=", 2}});
  if (rc != 0) return rc;
  const char* env = std::getenv("TARSKEL_BUS_CALLS");
  const int calls = env != nullptr ? std::max(100, std::atoi(env)) : 20000;
  const char* roundsEnv = std::getenv("TARSKEL_BUS_ROUNDS");
  const int rounds = roundsEnv != nullptr ? std::max(1, std::atoi(roundsEnv)) : 5;

  busCalls(1000, 1);  // warm-up
  // Each round times both one after the other, so that a busy spell of the
  // machine falls on both sides of a round's ratio.
  std::vector<double> roundTrip;
  Latencies bus;
  Latencies echo;
  for (int round = 0; round < rounds; ++round) {
    bus = busCalls(calls, 1);
    echo = rawEcho(calls, 1);
    roundTrip.push_back(bus.percentile(0.5) / echo.percentile(0.5));
  }
  Latencies busPipelined = busCalls(calls * 5, 64);
  Latencies echoPipelined = rawEcho(calls * 5, 64);
  std::optional<Latencies> dbus = dbusCalls(calls);

  std::printf("\nround trips over a Unix socket, health.ping (last of %d rounds)\n", rounds);
  print("BusConnection, 1 in flight", bus);
  print("raw socket echo, 1 in flight", echo);
  if (dbus) print("sd-bus GetId (private dbus-daemon)", *dbus);
  print("BusConnection, 64 in flight", busPipelined);
  print("raw socket echo, 64 in flight", echoPipelined);
  if (dbus) {
    const double r = bus.percentile(0.5) / dbus->percentile(0.5);
    std::printf("ratio p50 BusConnection over sd-bus: %.2f (target < 1.00%s)\n", r,
                r < 1.0 ? "" : ", MISSED");
  } else {
    std::printf("sd-bus reference unavailable (libsystemd.so.0 or dbus-daemon missing)\n");
  }
  std::printf("ratio throughput BusConnection 64 in flight over 1 in flight: %.2f\n",
              busPipelined.rate() / bus.rate());
  std::printf("ratio throughput BusConnection 64 in flight over raw echo 64 in flight: %.2f\n",
              busPipelined.rate() / echoPipelined.rate());
  tarskel::bench::printTarget("bus-round-trip-vs-raw-echo", roundTrip, "<=", 1.5);
  return 0;
}
