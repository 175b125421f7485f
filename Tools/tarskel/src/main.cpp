#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <utility>
#include <vector>

#include "ToolCommand.hpp"
#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/base/Version.hpp"

namespace tarskel::tool {
namespace {

std::vector<std::pair<int, CommandInstaller>>& installers() {
  static std::vector<std::pair<int, CommandInstaller>> list;
  return list;
}

}  // namespace

CommandRegistration::CommandRegistration(int order, CommandInstaller install) {
  installers().emplace_back(order, install);
}

std::string readInput(const std::string& path) {
  if (path == "-") {
    std::ostringstream buffer;
    buffer << std::cin.rdbuf();
    if (std::cin.bad()) throw ToolFailure(kExitUsage, "no se pudo leer la entrada estándar");
    return buffer.str();
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ToolFailure(kExitUsage, "no se pudo leer " + path);
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) throw ToolFailure(kExitUsage, "no se pudo leer " + path);
  return content;
}

void writeOutput(const std::string& bytes) {
  std::fwrite(bytes.data(), 1, bytes.size(), stdout);
  std::fflush(stdout);
}

}  // namespace tarskel::tool

int main(int argc, char** argv) {
  using namespace tarskel::tool;
  CLI::App app{"tarskel: the command-line tool of the Tarskel platform"};
  app.name("tarskel");
  app.set_version_flag("--version", "tarskel " + std::string(tarskel::tarskelVersion));
  app.require_subcommand(1);
  app.fallthrough(false);

  ToolContext ctx;
  auto list = installers();
  std::stable_sort(list.begin(), list.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  for (const auto& entry : list) entry.second(app, ctx);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return kExitSuccess;
  } catch (const CLI::CallForAllHelp&) {
    std::cout << app.help("", CLI::AppFormatMode::All);
    return kExitSuccess;
  } catch (const CLI::CallForVersion&) {
    std::cout << app.version() << "\n";
    return kExitSuccess;
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }

  try {
    return ctx.action ? ctx.action() : kExitUsage;
  } catch (const ToolFailure& f) {
    std::cerr << "tarskel: " << f.what() << "\n";
    return f.exitCode();
  } catch (const tarskel::Error& e) {
    std::cerr << "tarskel: " << e.what() << "\n";
    return kExitUsage;
  }
}
