// Runs a fuzz target once over every file named on the command line, or found
// directly inside a directory named there, without libFuzzer: the test suite
// uses it to replay seed corpora and the inputs that once crashed a target.
// A directory that doesn't exist is skipped (a target may have no crashers).

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

bool replay(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "replay: can't read %s\n", file.c_str());
    return false;
  }
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t count = 0;
  bool ok = true;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path arg(argv[i]);
    std::error_code ec;
    if (std::filesystem::is_directory(arg, ec)) {
      for (const auto& entry : std::filesystem::directory_iterator(arg)) {
        if (entry.is_regular_file()) {
          ok = replay(entry.path()) && ok;
          ++count;
        }
      }
    } else if (std::filesystem::exists(arg, ec)) {
      ok = replay(arg) && ok;
      ++count;
    }
  }
  std::printf("replayed %zu inputs\n", count);
  return ok ? 0 : 1;
}
