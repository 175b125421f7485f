// Load tool: N clients x M daemon.info calls through the socket server, a
// real core and a real audit chain, beside two round trips measured in the
// same run: a raw Unix-socket echo of the same frames, and a D-Bus method
// call (GetId) on a private dbus-daemon. Also the raw SQLite insert rate
// that bounds any recording request.
//
//   DaemonLoadBench [clients=16] [calls-per-client=500]

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/thread_pool.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "AuditRowReference.hpp"
#include "tarskel/daemon/DaemonXPCServer.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/xpc/DaemonXPCClient.hpp"
#include "tarskel/xpc/Transport.hpp"

#ifdef TARSKEL_HAVE_SDBUS
#include <systemd/sd-bus.h>
#endif

namespace tarskel::bench {
namespace {

using Clock = std::chrono::steady_clock;

struct Latencies {
  std::vector<double> micros;
  double seconds = 0;

  double percentile(double p) {
    if (micros.empty()) return 0;
    std::sort(micros.begin(), micros.end());
    return micros[std::min(micros.size() - 1, static_cast<std::size_t>(p * static_cast<double>(micros.size())))];
  }
  double rate() const { return static_cast<double>(micros.size()) / seconds; }
};

template <class Call>
void timeCalls(int calls, Latencies& out, Call&& call) {
  for (int i = 0; i < calls; ++i) {
    const auto start = Clock::now();
    call();
    out.micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
}

// `clients` threads each making `calls` daemon.info requests on their own client.
Latencies daemonLoad(const std::string& path, int clients, int calls) {
  std::vector<Latencies> each(static_cast<std::size_t>(clients));
  std::vector<std::thread> threads;
  const auto start = Clock::now();
  for (auto& latencies : each) {
    threads.emplace_back([&path, &latencies, calls] {
      DaemonXPCClient client(path);
      const DaemonRequest info{"daemon.info", {}, std::nullopt, std::nullopt};
      timeCalls(calls, latencies, [&] {
        if (!client.request(info).ok) std::abort();
      });
    });
  }
  for (auto& t : threads) t.join();
  Latencies all;
  all.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  for (auto& l : each) all.micros.insert(all.micros.end(), l.micros.begin(), l.micros.end());
  return all;
}

// The floor under any socket protocol: the same request frame out, a frame
// of the response's size back, from a thread that does nothing else.
Latencies echoRoundTrip(int calls, std::size_t responseSize) {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) std::abort();
  std::thread echo([fd = fds[1], responseSize] {
    FrameDecoder decoder;
    const std::string reply = Transport::encodeFrame({1, false, std::string(responseSize, 'r')});
    char buffer[4096];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) {
      for (std::size_t k = decoder.append({buffer, static_cast<std::size_t>(n)}).size(); k > 0; --k) {
        ::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
      }
    }
    ::close(fd);
  });
  const std::string request =
      Transport::encodeFrame({1, true, std::string(R"({"op":"daemon.info","args":{}})")});
  Latencies out;
  FrameDecoder decoder;
  const auto start = Clock::now();
  timeCalls(calls, out, [&] {
    ::send(fds[0], request.data(), request.size(), MSG_NOSIGNAL);
    char buffer[4096];
    while (true) {
      const ssize_t n = ::recv(fds[0], buffer, sizeof buffer, 0);
      if (n <= 0) std::abort();
      if (!decoder.append({buffer, static_cast<std::size_t>(n)}).empty()) break;
    }
  });
  out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  ::shutdown(fds[0], SHUT_RDWR);
  echo.join();
  ::close(fds[0]);
  return out;
}

#ifdef TARSKEL_HAVE_SDBUS
// GetId on the bus driver of a private dbus-daemon: one method call round trip.
std::optional<Latencies> dbusRoundTrip(int calls) {
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
  sd_bus* bus = nullptr;
  if (!address.empty() && sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
      sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0) {
    result.emplace();
    const auto start = Clock::now();
    timeCalls(calls, *result, [&] {
      sd_bus_error error = SD_BUS_ERROR_NULL;
      sd_bus_message* reply = nullptr;
      if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus", "GetId", &error, &reply, "") < 0) {
        std::abort();
      }
      sd_bus_message_unref(reply);
      sd_bus_error_free(&error);
    });
    result->seconds = std::chrono::duration<double>(Clock::now() - start).count();
  }
  if (bus != nullptr) sd_bus_flush_close_unref(bus);
  ::kill(pid, SIGTERM);
  ::waitpid(pid, nullptr, 0);
  ::close(out[0]);
  return result;
}
#endif

void print(const char* name, Latencies& l) {
  std::printf("%-34s %9.0f req/s   p50 %7.1f us   p99 %7.1f us\n", name, l.rate(),
              l.percentile(0.50), l.percentile(0.99));
}

}  // namespace
}  // namespace tarskel::bench

int main(int argc, char** argv) {
  using namespace tarskel;
  using namespace tarskel::bench;
  const int clients = argc > 1 ? std::atoi(argv[1]) : 16;
  const int calls = argc > 2 ? std::atoi(argv[2]) : 500;

  const auto dir = std::filesystem::temp_directory_path() / ("tarskel-load-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir / "daemon");
  const double sqliteRate = measureRawAuditInsertRate((dir / "raw.db").string(), 5000);

  boost::asio::thread_pool pool(std::max(2u, std::thread::hardware_concurrency()));
  auto db = SQLiteDatabase::open((dir / "daemon/audit.db").string());
  auto audit = std::make_shared<AuditStore>(db, pool.get_executor());
  auto grants = std::make_shared<GrantsStore>(dir / "daemon/grants.json", pool.get_executor());
  DaemonXPCServer server((dir / "d.sock").string(), DaemonCore(std::nullopt, audit, grants), {},
                         pool.get_executor());
  server.start();

  daemonLoad(server.endpoint(), 1, 50);  // warm-up
  Latencies single = daemonLoad(server.endpoint(), 1, calls);
  Latencies loaded = daemonLoad(server.endpoint(), clients, calls);
  Latencies echo = echoRoundTrip(calls, 160);

  std::printf("daemon.info through the socket server, core and audit chain\n");
  print("tarskeld, 1 client", single);
  const std::string loadedName = "tarskeld, " + std::to_string(clients) + " clients";
  print(loadedName.c_str(), loaded);
  print("raw Unix-socket echo", echo);
#ifdef TARSKEL_HAVE_SDBUS
  std::optional<Latencies> dbus = dbusRoundTrip(calls);
  if (dbus) print("D-Bus GetId (sd-bus, private bus)", *dbus);
#endif
  std::printf("raw SQLite audit-row inserts     %9.0f rows/s\n\n", sqliteRate);

  std::printf("ratio p50 1 client over raw echo p50: %.2f\n",
              single.percentile(0.5) / echo.percentile(0.5));
#ifdef TARSKEL_HAVE_SDBUS
  if (dbus) {
    std::printf("ratio p50 1 client over D-Bus p50: %.2f (target <= 1.00)\n",
                single.percentile(0.5) / dbus->percentile(0.5));
  } else {
    std::printf("D-Bus reference unavailable (dbus-daemon did not start)\n");
  }
#else
  std::printf("D-Bus reference not built (libsystemd missing)\n");
#endif
  std::printf("ratio throughput %d clients over raw SQLite inserts: %.2f (target >= 0.70)\n",
              clients, loaded.rate() / sqliteRate);

  server.stop();
  pool.join();
  std::filesystem::remove_all(dir);
  return 0;
}
