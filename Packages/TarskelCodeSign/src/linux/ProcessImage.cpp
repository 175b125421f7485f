#include "ProcessImage.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <vector>

#include "tarskel/protocol/base/FileDescriptor.hpp"

namespace tarskel::linuxcode {

namespace {

constexpr unsigned long kAtRandom = 25;  // AT_RANDOM of <elf.h>

// The whole of a /proc file of the process, read through its directory, at
// most `cap` bytes; or nothing, with errno set.
std::optional<std::string> readProc(int procDir, const char* name, std::size_t cap) {
  FileDescriptor file(::openat(procDir, name, O_RDONLY | O_CLOEXEC));
  if (!file) return std::nullopt;
  std::string out;
  char buffer[16384];
  for (;;) {
    const ssize_t n = ::read(file.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) return out;
    out.append(buffer, static_cast<std::size_t>(n));
    if (out.size() > cap) {
      errno = EFBIG;
      return std::nullopt;
    }
  }
}

std::string unreadable(const char* name) {
  return std::string("no se pudo leer /proc/<pid>/") + name + ": " + std::strerror(errno);
}

template <class Int>
std::optional<Int> number(std::string_view text, int base = 10) {
  Int value{};
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t");
  if (start == std::string_view::npos) return {};
  return text.substr(start, text.find_last_not_of(" \t") + 1 - start);
}

bool sameInode(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::optional<std::string> namespaceRefusal(int procDir) {
  struct stat theirs {
  }, ours{};
  if (::fstatat(procDir, "ns/user", &theirs, 0) != 0) return unreadable("ns/user");
  if (::stat("/proc/self/ns/user", &ours) != 0) return unreadable("ns/user");
  if (!sameInode(theirs, ours)) return "proceso en otro espacio de nombres de usuario";
  return std::nullopt;
}

// /proc/<pid> belongs to the process's effective user; the files in it to
// root while the process is not dumpable. Only root may attach to a process
// of root's, dumpable or not.
std::optional<std::string> dumpableRefusal(int procDir) {
  struct stat directory {
  }, status{};
  if (::fstatat(procDir, "", &directory, AT_EMPTY_PATH) != 0 ||
      ::fstatat(procDir, "status", &status, 0) != 0) {
    return unreadable("status");
  }
  if (directory.st_uid != 0 && status.st_uid != 0) {
    return "proceso volcable (dumpable): un proceso de su mismo usuario puede adjuntarse";
  }
  return std::nullopt;
}

std::optional<std::string> tracerRefusal(int procDir) {
  FileDescriptor tasks(::openat(procDir, "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  DIR* listing = tasks ? ::fdopendir(::dup(tasks.get())) : nullptr;
  if (listing == nullptr) return unreadable("task");
  std::optional<std::string> refusal;
  bool sawOne = false;
  while (!refusal) {
    const dirent* entry = ::readdir(listing);
    if (entry == nullptr) break;
    if (!number<long>(entry->d_name)) continue;
    const std::string name = std::string(entry->d_name) + "/status";
    std::optional<std::string> status = readProc(tasks.get(), name.c_str(), 1 << 16);
    if (!status) continue;  // a thread that ended meanwhile
    sawOne = true;
    const std::size_t at = status->find("\nTracerPid:");
    if (at == std::string::npos) {
      refusal = "no se pudo leer TracerPid";
      break;
    }
    const std::size_t start = at + std::strlen("\nTracerPid:");
    const std::string_view value =
        trimmed(std::string_view(*status).substr(start, status->find('\n', start) - start));
    if (value != "0") refusal = "proceso trazado (TracerPid " + std::string(value) + ")";
  }
  ::closedir(listing);
  if (!refusal && !sawOne) return unreadable("task");
  return refusal;
}

std::optional<std::string> environmentRefusal(int procDir) {
  std::optional<std::string> environ = readProc(procDir, "environ", 4u << 20);
  if (!environ) return unreadable("environ");
  std::string_view rest(*environ);
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('\0'), rest.size());
    const std::string_view entry = rest.substr(0, end);
    const std::string_view name = entry.substr(0, entry.find('='));
    if (isLoaderVariable(name)) {
      return "variable del loader en el entorno del exec: " + std::string(name);
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return std::nullopt;
}

// One executable mapping of smaps: "start-end perms offset MM:mm inode name".
struct Mapping {
  std::string_view range;
  std::string_view name;
};

std::optional<Mapping> executableMapping(std::string_view header) {
  std::string_view fields[5];
  std::string_view rest = header;
  for (auto& field : fields) {
    rest = trimmed(rest);
    const std::size_t space = std::min(rest.find(' '), rest.size());
    field = rest.substr(0, space);
    rest.remove_prefix(space);
  }
  if (fields[1].size() < 3 || fields[1][2] != 'x') return std::nullopt;
  return Mapping{fields[0], trimmed(rest)};
}

// Why code mapped from `m` is not root's alone; nothing when it is. The file
// is the mapped one itself (map_files), whatever its path now names: a
// library replaced by an upgrade still counts as what was mapped.
std::optional<std::string> fileMappingRefusal(int procDir, const Mapping& m) {
  struct stat info {};
  const std::string link = "map_files/" + std::string(m.range);
  if (::fstatat(procDir, link.c_str(), &info, 0) != 0) return unreadable("map_files");
  if (info.st_uid != 0 || (info.st_mode & 022) != 0) {
    return "mapeo ejecutable de un archivo que no es solo de root: " + std::string(m.name);
  }
  return std::nullopt;
}

std::optional<std::string> mappingRefusal(int procDir) {
  std::optional<std::string> smaps = readProc(procDir, "smaps", 64u << 20);
  if (!smaps) return unreadable("smaps");
  std::optional<Mapping> current;
  std::string_view rest(*smaps);
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.empty()) continue;
    const bool header = (line[0] >= '0' && line[0] <= '9') || (line[0] >= 'a' && line[0] <= 'f');
    if (header) {
      current = executableMapping(line);
      if (!current) continue;
      const std::string_view name = current->name;
      if (name == "[vdso]" || name == "[vsyscall]" || name == "[uprobes]") {
        current.reset();  // the kernel's own code
        continue;
      }
      if (name.empty() || name.front() != '/') {
        return "memoria ejecutable anónima (" + std::string(current->range) +
               (name.empty() ? "" : " " + std::string(name)) + ")";
      }
      if (auto refusal = fileMappingRefusal(procDir, *current)) return refusal;
    } else if (current && line.starts_with("Anonymous:")) {
      // Pages of a private file mapping that were written: in code, only a
      // debugger's pokes or the process's own rewriting put them there.
      const std::string_view kilobytes = trimmed(line.substr(std::strlen("Anonymous:")));
      if (!kilobytes.starts_with("0 ")) {
        return "código en memoria distinto de su archivo: " + std::string(current->name);
      }
    }
  }
  return std::nullopt;
}

}  // namespace

bool isLoaderVariable(std::string_view name) {
  return name.starts_with("LD_") || name == "GCONV_PATH" || name == "GLIBC_TUNABLES";
}

std::optional<ImageToken> readImageToken(int procDir, pid_t pid) {
  std::optional<std::string> auxv = readProc(procDir, "auxv", 1 << 16);
  if (!auxv) return std::nullopt;
  ImageToken token;
  for (std::size_t at = 0; at + 2 * sizeof(unsigned long) <= auxv->size();
       at += 2 * sizeof(unsigned long)) {
    unsigned long pair[2];
    std::memcpy(pair, auxv->data() + at, sizeof pair);
    if (pair[0] == kAtRandom) token.address = pair[1];
  }
  if (token.address == 0) return std::nullopt;
  iovec local{token.bytes.data(), token.bytes.size()};
  iovec remote{reinterpret_cast<void*>(token.address), token.bytes.size()};
  if (::process_vm_readv(pid, &local, 1, &remote, 1, 0) !=
      static_cast<ssize_t>(token.bytes.size())) {
    return std::nullopt;
  }
  return token;
}

bool imageStillIs(pid_t pid, const ImageToken& token) {
  std::array<unsigned char, 16> now{};
  iovec local{now.data(), now.size()};
  iovec remote{reinterpret_cast<void*>(token.address), now.size()};
  return ::process_vm_readv(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(now.size()) &&
         now == token.bytes;
}

std::optional<std::string> processRefusal(int procDir) {
  // Not dumpable first: from then on nobody but root can attach, so what the
  // later reads find can only have been changed by the process's own code.
  for (auto check :
       {namespaceRefusal, dumpableRefusal, tracerRefusal, environmentRefusal, mappingRefusal}) {
    if (auto refusal = check(procDir)) return refusal;
  }
  return std::nullopt;
}

}  // namespace tarskel::linuxcode
