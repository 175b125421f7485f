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

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (fs::is_directory(argv[i], ec)) {
      for (const auto& entry : fs::directory_iterator(argv[i])) {
        if (entry.is_regular_file()) files.push_back(entry.path());
      }
    } else if (fs::exists(argv[i], ec)) {
      files.emplace_back(argv[i]);
    }
  }
  bool ok = true;
  for (const fs::path& file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in) {
      std::fprintf(stderr, "replay: can't read %s\n", file.c_str());
      ok = false;
      continue;
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("replayed %zu inputs\n", files.size());
  return ok ? 0 : 1;
}
