#pragma once

// What a running process is made of, read from /proc as root: whether
// anything but its executable could be running in it. Internal to the Linux
// adapter. Stateless; any thread.

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace tarskel::linuxcode {

// One program image of a process: the 16 random bytes the kernel wrote at
// AT_RANDOM when it exec'd the program, and where. An exec brings fresh
// bytes; a fork shares the image, bytes and all. Only the image's own code
// could write them, and it never learns another image's.
struct ImageToken {
  std::uintptr_t address = 0;
  std::array<unsigned char, 16> bytes{};

  friend bool operator==(const ImageToken&, const ImageToken&) = default;
};

// The token of the process whose /proc directory is `procDir` and whose id
// is `pid`: the address from its auxv, the bytes from its memory. Nothing
// when either can't be read (the process has gone, a daemon without the
// right to read another's memory).
std::optional<ImageToken> readImageToken(int procDir, pid_t pid);

// Whether the process now numbered `pid` still runs the image of `token`:
// one read of its memory (process_vm_readv), no file opened.
bool imageStillIs(pid_t pid, const ImageToken& token);

// Why the process of `procDir` may hold more than its executable, or
// nothing when it can't. In order, the first that holds:
//   it runs in another user namespace than ours (whose owner could attach);
//   it is dumpable and not root's (a process of its user could attach);
//   a thread of it is traced ("TracerPid");
//   its environment at exec named a variable through which the loader
//     brings in other code (LD_*, GCONV_PATH, GLIBC_TUNABLES);
//   it has executable memory that no file backs (the vDSO aside), maps
//     executable code from a file that is not root's alone, or a page of
//     mapped code differs from its file (a debugger's write);
//   any of these can't be read.
std::optional<std::string> processRefusal(int procDir);

// Whether `name` is a variable of the environment through which ld.so or
// the C library loads code the executable did not name: every LD_*
// variable, GCONV_PATH and GLIBC_TUNABLES.
bool isLoaderVariable(std::string_view name);

}  // namespace tarskel::linuxcode
