// Load tool: the built tarskeld executable, run as a separate process,
// answering daemon.info, beside references measured in the same run and in
// alternating blocks: a raw Unix-socket echo of the same frames, GetId on
// the driver of a private dbus-daemon (2 hops), a method call to an sd-bus
// echo service this tool starts on that bus (4 hops), and a single thread
// inserting audit rows with one cached statement.
//
//   DaemonLoadBench [rounds=5] [calls-per-client=400]
//
// Run as root, the tool seals a copy of itself in a root-owned tree under
// /opt with a code key the provisioned daemon trusts, and runs again from
// there, so that the gated figure is a warm check of a trusted client; it
// also prints the cold cost of the check for a 10 MB sealed executable. Run
// otherwise, the gated client is refused, and the figure times a refusal.
//
// Each round measures every subject once; the single-client subjects (the
// daemon with and without a provisioned gate, GetId, the 4-hop call) take
// turns in eight blocks of calls. The loads of 4 and 16 clients go to a third
// daemon, so that the two compared for the gate figure share one history.
// The last lines give each target as its median over the rounds, with min
// and max:
//   target NAME: MEDIAN (min MIN, max MAX) goal OP VALUE

#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "AuditRowReference.hpp"
#include "tarskel/codesign/LinuxCodeSignPlatform.hpp"
#include "tarskel/protocol/base/Files.hpp"
#include "tarskel/protocol/bus/Framing.hpp"
#include "tarskel/protocol/json/TarskelJSON.hpp"
#include "tarskel/vendor/BundleSeal.hpp"
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
    return micros[std::min(micros.size() - 1,
                           static_cast<std::size_t>(p * static_cast<double>(micros.size())))];
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
        // A refused sender's answer is a round trip like any other.
        static_cast<void>(client.request(info));
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
      for (std::size_t k = decoder.append({buffer, static_cast<std::size_t>(n)}).size(); k > 0;
           --k) {
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
// A private dbus-daemon, and an sd-bus echo service on it: the service owns
// "net.tarskel.Echo" and answers Echo(s) with its argument.
struct PrivateBus {
  pid_t daemon = -1;
  pid_t service = -1;
  std::string address;
  sd_bus* client = nullptr;

  static int echo(sd_bus_message* m, void*, sd_bus_error*) {
    const char* text = nullptr;
    if (sd_bus_message_read(m, "s", &text) < 0) return -EINVAL;
    return sd_bus_reply_method_return(m, "s", text);
  }

  static sd_bus* connect(const std::string& address) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address.c_str()) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) {
      return nullptr;
    }
    return bus;
  }

  bool start() {
    int out[2];
    if (::pipe(out) != 0) return false;
    daemon = ::fork();
    if (daemon == 0) {
      ::dup2(out[1], 1);
      ::execlp("dbus-daemon", "dbus-daemon", "--session", "--print-address", "--nofork", nullptr);
      ::_exit(127);
    }
    ::close(out[1]);
    char c;
    while (::read(out[0], &c, 1) == 1 && c != '\n') address += c;
    ::close(out[0]);
    if (address.empty()) return false;
    int ready[2];
    if (::pipe(ready) != 0) return false;
    service = ::fork();
    if (service == 0) {
      static const sd_bus_vtable vtable[] = {
          SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Echo", "s", "s", echo, SD_BUS_VTABLE_UNPRIVILEGED),
          SD_BUS_VTABLE_END};
      sd_bus* bus = connect(address);
      if (bus == nullptr ||
          sd_bus_add_object_vtable(bus, nullptr, "/net/tarskel/Echo", "net.tarskel.Echo", vtable,
                                   nullptr) < 0 ||
          sd_bus_request_name(bus, "net.tarskel.Echo", 0) < 0) {
        ::_exit(1);
      }
      ::write(ready[1], "r", 1);
      for (;;) {
        int r = sd_bus_process(bus, nullptr);
        if (r < 0) ::_exit(0);
        if (r == 0 && sd_bus_wait(bus, UINT64_MAX) < 0) ::_exit(0);
      }
    }
    ::close(ready[1]);
    const bool up = ::read(ready[0], &c, 1) == 1;
    ::close(ready[0]);
    client = up ? connect(address) : nullptr;
    return client != nullptr;
  }

  ~PrivateBus() {
    if (client != nullptr) sd_bus_flush_close_unref(client);
    for (pid_t p : {service, daemon}) {
      if (p > 0) {
        ::kill(p, SIGTERM);
        ::waitpid(p, nullptr, 0);
      }
    }
  }

  void getId() {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (sd_bus_call_method(client, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "GetId", &error, &reply, "") < 0) {
      std::abort();
    }
    sd_bus_message_unref(reply);
  }

  void echoCall() {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (sd_bus_call_method(client, "net.tarskel.Echo", "/net/tarskel/Echo", "net.tarskel.Echo",
                           "Echo", &error, &reply, "s", "daemon.info") < 0) {
      std::abort();
    }
    sd_bus_message_unref(reply);
  }
};
#endif

#ifdef TARSKEL_HAVE_SDBUS
using PrivateBusOrNull = PrivateBus*;
#else
using PrivateBusOrNull = std::nullptr_t;
#endif

// A tarskeld process on its own root and socket; killed at the end.
struct DaemonUnderTest {
  pid_t pid = -1;
  std::string socket;

  DaemonUnderTest(const std::filesystem::path& root, const std::string& socketPath)
      : socket(socketPath) {
    pid = ::fork();
    if (pid == 0) {
      const int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, 2);
      ::execl(TARSKELD_PATH, "tarskeld", "--mach-service", socketPath.c_str(), "--root",
              root.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    for (int i = 0; i < 500; ++i) {
      try {
        DaemonXPCClient probe(socket);
        probe.request({"daemon.info", {}, std::nullopt, std::nullopt});
        return;
      } catch (const std::exception&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
    std::fprintf(stderr, "tarskeld did not come up\n");
    std::exit(1);
  }
  ~DaemonUnderTest() {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
};

// Rows per second of one thread inserting audit rows through one cached
// statement (reset and rebound per row), with the store's pragmas.
double cachedInsertRate(const std::string& path, int rows) {
  sqlite3* db = openWithAuditPragmas(path);
  sqlite3_stmt* stmt = nullptr;
  sqlite3_prepare_v2(db,
                     "INSERT INTO audit (ts, caller, tool, origin, outcome, duration_ms, "
                     "correlation_id, prev_hash, hash)\nVALUES (?, ?, ?, ?, ?, ?, ?, ?, ?);",
                     -1, &stmt, nullptr);
  static const char* kHash = "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08";
  const auto start = Clock::now();
  for (int n = 0; n < rows; ++n) {
    char correlation[40];
    std::snprintf(correlation, sizeof correlation, "7d3c1e52-0000-4000-8000-%012d", n);
    sqlite3_bind_double(stmt, 1, 784926483.5 + n * 0.001);
    sqlite3_bind_text(stmt, 2, "unverified:gate SO sin provisionar (sin vendor/teams.json)", -1,
                      SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 3, "daemon.info", -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 4, "xpc", -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 5, "ok", -1, SQLITE_TRANSIENT);
    sqlite3_bind_double(stmt, 6, 0.25);
    sqlite3_bind_text(stmt, 7, correlation, -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 8, kHash, -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 9, kHash, -1, SQLITE_TRANSIENT);
    if (sqlite3_step(stmt) != SQLITE_DONE) std::abort();
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return rows / seconds;
}

void print(const char* name, Latencies& l) {
  std::printf("  %-36s %9.0f req/s   p50 %7.1f us   p99 %7.1f us\n", name, l.rate(),
              l.percentile(0.50), l.percentile(0.99));
}

// The single-client subjects of one round, measured in alternating blocks
// so that a slow spell of the machine falls on each of them alike.
struct OneClient {
  Latencies plain, gated, getId, hop4;
};

constexpr int kBlocks = 8;

OneClient oneClientBlocks(const std::string& plainSocket, const std::string& gatedSocket,
                          PrivateBusOrNull bus, int calls) {
  OneClient out;
  DaemonXPCClient plain(plainSocket);
  DaemonXPCClient gated(gatedSocket);
  const DaemonRequest info{"daemon.info", {}, std::nullopt, std::nullopt};
  // Connected before timing starts; the first message of the gated client
  // pays the cold checks.
  static_cast<void>(plain.request(info));
  static std::once_flag told;
  const bool trusted = gated.request(info).ok;
  std::call_once(told, [trusted] {
    std::printf("gated client %s\n", trusted ? "trusted (sealed copy)" : "refused (not sealed)");
  });
  const int perBlock = std::max(1, calls / kBlocks);
  for (int block = 0; block < kBlocks; ++block) {
    timeCalls(perBlock, out.plain, [&] { static_cast<void>(plain.request(info)); });
    timeCalls(perBlock, out.gated, [&] { static_cast<void>(gated.request(info)); });
#ifdef TARSKEL_HAVE_SDBUS
    if (bus != nullptr) {
      timeCalls(perBlock, out.getId, [&] { bus->getId(); });
      timeCalls(perBlock, out.hop4, [&] { bus->echoCall(); });
    }
#else
    static_cast<void>(bus);
#endif
  }
  for (Latencies* l : {&out.plain, &out.gated, &out.getId, &out.hop4}) {
    for (double micros : l->micros) l->seconds += micros / 1e6;
  }
  return out;
}

struct Spread {
  std::vector<double> values;
  void add(double v) { values.push_back(v); }
  void target(const char* name, const char* op, double goal) {
    if (values.empty()) {
      std::printf("target %s: unavailable goal %s %g\n", name, op, goal);
      return;
    }
    std::sort(values.begin(), values.end());
    std::printf("target %s: %.2f (min %.2f, max %.2f) goal %s %g\n", name,
                values[values.size() / 2], values.front(), values.back(), op, goal);
  }
};

constexpr const char* kSealedTreeVariable = "TARSKEL_LOAD_SEALED_TREE";

// As root and not yet from a sealed copy: seals a copy of this executable,
// and a 10 MB file, in a new root-owned tree under /opt (not /tmp: a sticky
// world-writable directory is no root-owned path), writes a code key for
// TEAMID0001 beside the seal, and runs the copy. Returns only when it can't.
void runFromSealedCopy(char** argv) {
  namespace fs = std::filesystem;
  if (::geteuid() != 0 || std::getenv(kSealedTreeVariable) != nullptr) return;
  char name[] = "/opt/tarskel-load-XXXXXX";
  if (::mkdtemp(name) == nullptr) return;
  const fs::path tree = name;
  fs::permissions(tree, fs::perms(0755));
  fs::create_directories(tree / "bin");
  fs::copy_file("/proc/self/exe", tree / "bin/DaemonLoadBench");
  {
    std::ofstream big(tree / "bin/ten-megabytes", std::ios::binary);
    std::string block(1 << 20, 'x');
    for (int i = 0; i < 10; ++i) {
      block.front() = static_cast<char>('0' + i);
      big << block;
    }
  }
  const Ed25519KeyPair key("TEAMID0001");
  BundleSeal::seal(tree, "net.tarskel.load", ArtifactType::service, "1.0.0", 1,
                   Date::fromUnixTime(4102444800.0), key, std::nullopt);
  std::ofstream(tree / "vendor/code-keys.json")
      << TarskelJSON::canonicalEncoder().encode(VendorAllowlist{1, {key.vendorKey()}});
  // The daemon keeps a hash only of a file changed two seconds ago or more.
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  ::setenv(kSealedTreeVariable, tree.c_str(), 1);
  ::execv((tree / "bin/DaemonLoadBench").c_str(), argv);
  fs::remove_all(tree);
}

// The check with nothing remembered: a fresh platform each time.
void coldFigures(const std::filesystem::path& tree) {
  const auto keys = TarskelJSON::decoder().decode<VendorAllowlist>(
      readFile(tree / "vendor/code-keys.json", 1 << 20));
  Latencies file, process;
  for (int i = 0; i < 5; ++i) {
    const LinuxCodeSignPlatform platform(keys);
    timeCalls(1, file, [&] {
      const CodeResult code = platform.staticCodeForPath(tree / "bin/ten-megabytes");
      if (!code.code || platform.checkValidity(*code.code, 1, nullptr) != 0) std::abort();
    });
    const LinuxCodeSignPlatform again(keys);
    timeCalls(1, process, [&] {
      if (again.guestCodeForPid(::getpid()).status != 0) std::abort();
    });
  }
  std::printf("cold check, 10 MB sealed executable: %.1f ms (median of 5)\n",
              file.percentile(0.5) / 1000);
  std::printf("cold process checks of this process: %.0f us (median of 5)\n",
              process.percentile(0.5));
}

}  // namespace
}  // namespace tarskel::bench

int main(int argc, char** argv) {
  using namespace tarskel;
  using namespace tarskel::bench;
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  const int calls = argc > 2 ? std::max(10, std::atoi(argv[2])) : 400;
  runFromSealedCopy(argv);
  const char* sealedTree = std::getenv(kSealedTreeVariable);

  const auto dir =
      std::filesystem::temp_directory_path() / ("tarskel-load-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir / "plain");
  std::filesystem::create_directories(dir / "provisioned/vendor");
  std::ofstream(dir / "provisioned/vendor/teams.json")
      << R"({"revision":1,"teamIds":["TEAMID0001"]})";
  if (sealedTree != nullptr) {
    std::filesystem::copy_file(std::filesystem::path(sealedTree) / "vendor/code-keys.json",
                               dir / "provisioned/vendor/code-keys.json");
    coldFigures(sealedTree);
  }
  DaemonUnderTest plain(dir / "plain", (dir / "plain.sock").string());
  DaemonUnderTest provisioned(dir / "provisioned", (dir / "provisioned.sock").string());
  // The loads of many clients go to a daemon of their own, so that the two
  // single-client daemons compared for the gate figure share one history
  // (the same calls, the same size of audit file).
  std::filesystem::create_directories(dir / "loaded");
  DaemonUnderTest loaded(dir / "loaded", (dir / "loaded.sock").string());
#ifdef TARSKEL_HAVE_SDBUS
  PrivateBus bus;
  const bool haveBus = bus.start();
  if (!haveBus) std::printf("D-Bus references unavailable (dbus-daemon did not start)\n");
  PrivateBusOrNull busOrNull = haveBus ? &bus : nullptr;
#else
  const bool haveBus = false;
  PrivateBusOrNull busOrNull = nullptr;
  std::printf("D-Bus references not built (libsystemd missing)\n");
#endif

  Spread vs4hop, vsGetId, throughputVsInsert, gateMicros;
  daemonLoad(plain.socket, 1, 100);  // warm-up
  daemonLoad(provisioned.socket, 1, 100);
  for (int round = 1; round <= rounds; ++round) {
    std::printf("round %d\n", round);
    OneClient one = oneClientBlocks(plain.socket, provisioned.socket, busOrNull, calls);
    Latencies echo = echoRoundTrip(calls, 160);
    print("tarskeld daemon.info, 1 client", one.plain);
    print("tarskeld, gate provisioned", one.gated);
    print("raw Unix-socket echo", echo);
    const double p50 = one.plain.percentile(0.5);
    gateMicros.add(std::max(0.0, one.gated.percentile(0.5) - p50));
    if (haveBus) {
      print("D-Bus GetId (2 hops)", one.getId);
      print("D-Bus sd-bus echo call (4 hops)", one.hop4);
      vs4hop.add(p50 / one.hop4.percentile(0.5));
      vsGetId.add(p50 / one.getId.percentile(0.5));
    }
    for (int clients : {4, 16}) {
      Latencies underLoad = daemonLoad(loaded.socket, clients, calls);
      const std::string name = "tarskeld, " + std::to_string(clients) + " clients";
      print(name.c_str(), underLoad);
      if (clients == 16) {
        const double insert = cachedInsertRate(
            (dir / ("insert-" + std::to_string(round) + ".db")).string(), 4 * calls);
        std::printf("  %-36s %9.0f rows/s\n", "SQLite insert, cached statement", insert);
        throughputVsInsert.add(underLoad.rate() / insert);
      }
    }
  }
  std::printf("\n");
  vs4hop.target("p50-vs-dbus-4hop", "<=", 1.0);
  vsGetId.target("p50-vs-dbus-getid", "<=", 1.0);
  throughputVsInsert.target("throughput16-vs-cached-insert", ">=", 0.8);
  gateMicros.target("gate-us-provisioned", "<=", 8);
  std::filesystem::remove_all(dir);
  if (sealedTree != nullptr) std::filesystem::remove_all(sealedTree);
  return 0;
}
