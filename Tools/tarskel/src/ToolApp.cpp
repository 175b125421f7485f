#include "ToolApp.hpp"

#include <algorithm>
#include <cctype>
#include <iostream>
#include <utility>
#include <vector>

#include "ToolCommand.hpp"
#include "tarskel/protocol/base/Error.hpp"
#include "tarskel/protocol/base/Version.hpp"

namespace tarskel::tool {
namespace {

// Every command of the tool, in the order --help lists them. A new command
// file adds its installer here, and nowhere else.
constexpr CommandInstaller kCommands[] = {
    installJsonCommands,  installSchemaCommands, installSemverCommands,   installManifestCommands,
    installAuditCommands, installVendorCommands, installCodeSignCommands, installCallCommands,
    installCCCommands,    installBusCommands,
};

std::vector<CLI::App*> subcommandsOf(const CLI::App& node) {
  return const_cast<CLI::App&>(node).get_subcommands([](CLI::App*) { return true; });
}

CLI::App* subcommandNamed(const CLI::App& node, const std::string& name) {
  for (CLI::App* sub : subcommandsOf(node)) {
    if (sub->get_name() == name) return sub;
  }
  return nullptr;
}

std::vector<std::string> namesOf(const CLI::App& node) {
  std::vector<std::string> names;
  for (CLI::App* sub : subcommandsOf(node)) names.push_back(sub->get_name());
  return names;
}

std::string joined(const std::vector<std::string>& words, const char* separator) {
  std::string out;
  for (const std::string& w : words) out += (out.empty() ? "" : separator) + w;
  return out;
}

// "tarskel vendor seal" for the node of `vendor seal`.
std::string commandPath(const CLI::App* node) {
  std::vector<std::string> names;
  for (; node != nullptr; node = node->get_parent()) names.push_back(node->get_name());
  std::reverse(names.begin(), names.end());
  return joined(names, " ");
}

// The one exception to "--version everywhere": where a command's own
// --version names what it makes (the artifact's version in `vendor seal`),
// that meaning stays, and its help says where the program's version is.
constexpr std::string_view kOwnVersionHelp =
    "Here --version is the artifact's version; 'tarskel --version' prints the program's.";

// What every command has without asking: -q and a --version of the tool
// (unless the command's own --version means something else, as in
// `vendor seal`), and the exit table under its help.
void addEverywhere(CLI::App& node, bool& quietFlag) {
  const bool ownVersion = node.get_option_no_throw("--version") != nullptr;
  if (!ownVersion) {
    node.add_flag_callback(
        "--version", [] { throw CLI::CallForVersion(); }, "Print the version and exit");
  }
  if (node.get_option_no_throw("-q") == nullptr) {
    node.add_flag("-q,--quiet", quietFlag, "No progress, warnings or report of success");
  }
  node.footer(ownVersion ? std::string(kOwnVersionHelp) + "\n" + std::string(kExitStatusHelp)
                         : std::string(kExitStatusHelp));
  for (CLI::App* sub : subcommandsOf(node)) addEverywhere(*sub, quietFlag);
}

// The deepest command the parser got to.
const CLI::App* selected(const CLI::App& app) {
  const CLI::App* node = &app;
  for (;;) {
    auto parsed = const_cast<CLI::App*>(node)->get_subcommands();
    if (parsed.empty()) return node;
    node = parsed.front();
  }
}

// Walks the words that name commands before CLI11 sees them, so that an
// unknown or misspelt command is named, with the nearest one, and `help` works.
// Returns the node the words lead to.
CLI::App* walkCommands(CLI::App& app, std::vector<std::string>& args) {
  if (!args.empty() && args.front() == "help") {
    args.erase(args.begin());
    args.push_back("--help");
  }
  CLI::App* node = &app;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& word = args[i];
    if (word == "--") break;
    if (word.starts_with("-")) {
      const CLI::Option* option = node->get_option_no_throw(word.substr(0, word.find('=')));
      if (option != nullptr && option->get_items_expected_min() > 0 &&
          word.find('=') == std::string::npos)
        ++i;
      continue;
    }
    if (subcommandsOf(*node).empty()) break;
    if (CLI::App* sub = subcommandNamed(*node, word)) {
      node = sub;
      continue;
    }
    const std::string nearest = nearestWord(word, namesOf(*node));
    throw ToolFailure(kExitUsage,
                      "unknown command '" + word + "'" +
                          (node == &app ? std::string() : " for '" + commandPath(node) + "'") +
                          (nearest.empty() ? std::string() : "; did you mean '" + nearest + "'?") +
                          "\nCommands: " + joined(namesOf(*node), ", "));
  }
  return node;
}

// The options a person may give `node`, as written on the command line.
std::vector<std::string> optionNamesOf(const CLI::App& node) {
  std::vector<std::string> names;
  for (const CLI::Option* option : node.get_options()) {
    if (option->get_group().empty()) continue;  // hidden
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    for (const std::string& name : option->get_snames()) names.push_back("-" + name);
  }
  return names;
}

// "unknown option '--verison' for 'tarskel vendor seal'; did you mean
// '--version'?" for the first word the parser left over that looks like an
// option, or "" when there is none. Said before anything else the parser
// found, since a misspelt option also leaves its real one missing.
std::string unknownOptionText(const CLI::App& node) {
  for (const std::string& word : node.remaining()) {
    if (word.size() < 2 || word[0] != '-' || std::isdigit(static_cast<unsigned char>(word[1])))
      continue;
    const std::string name = word.substr(0, word.find('='));
    const std::string nearest = nearestWord(name, optionNamesOf(node));
    return "unknown option '" + name + "' for '" + commandPath(&node) + "'" +
           (nearest.empty() ? std::string() : "; did you mean '" + nearest + "'?");
  }
  return {};
}

bool asksForInformation(const std::vector<std::string>& args) {
  for (const std::string& a : args) {
    if (a == "--") return false;
    if (a == "-h" || a == "--help" || a == "--help-all" || a == "--version" ||
        a.starts_with("--generate-")) {
      return true;
    }
  }
  return false;
}

}  // namespace

int runTool(int argc, char** argv) {
  CLI::App app{"tarskel: the command-line tool of the Tarskel platform"};
  app.name("tarskel");
  app.fallthrough(false);
  app.require_subcommand(0, 1);

  ToolContext ctx;
  for (CommandInstaller install : kCommands) install(app, ctx);

  bool quietFlag = false;
  std::string completionShell;
  bool manPage = false;
  // Hidden: the build generates the completion scripts and the manual page with them.
  app.add_option("--generate-completion-script", completionShell)
      ->check(CLI::IsMember({"bash", "zsh", "fish"}))
      ->group("");
  app.add_flag("--generate-man-page", manPage)->group("");
  addEverywhere(app, quietFlag);

  std::vector<std::string> args(argv + std::min(argc, 1), argv + argc);
  try {
    const CLI::App* node = walkCommands(app, args);
    if (!subcommandsOf(*node).empty() && !asksForInformation(args)) {
      throw ToolFailure(kExitUsage, (node == &app ? std::string("a command is required")
                                                  : "'" + commandPath(node) + "' needs a command") +
                                        ": " + joined(namesOf(*node), ", ") + "\nRun '" +
                                        commandPath(node) + " --help' for more.");
    }
    std::reverse(args.begin(), args.end());  // CLI11 takes them last first
    app.parse(args);
  } catch (const ToolFailure& f) {
    std::cerr << "tarskel: " << f.what() << "\n";
    return f.exitCode();
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return kExitSuccess;
  } catch (const CLI::CallForAllHelp&) {
    std::cout << app.help("", CLI::AppFormatMode::All);
    return kExitSuccess;
  } catch (const CLI::CallForVersion&) {
    std::cout << tarskelVersion << "\n";
    return kExitSuccess;
  } catch (const CLI::ParseError& e) {
    const CLI::App* node = selected(app);
    const std::string unknown = unknownOptionText(*node);
    std::string text = unknown.empty() ? std::string(e.what()) : unknown;
    const CLI::Option* version = node->get_option_no_throw("--version");
    if (unknown.empty() && version != nullptr && version->get_items_expected_min() > 0 &&
        text.find("--version") != std::string::npos) {
      text += "\n" + std::string(kOwnVersionHelp);
    }
    std::cerr << "tarskel: " << text << "\nRun '" << commandPath(node) << " --help' for more.\n";
    return kExitUsage;
  }
  setQuiet(quietFlag);

  try {
    if (!completionShell.empty()) {
      writeOutput(completionScript(app, completionShell));
      return kExitSuccess;
    }
    if (manPage) {
      writeOutput(manualPage(app));
      return kExitSuccess;
    }
    return ctx.action ? ctx.action() : kExitUsage;
  } catch (const ToolFailure& f) {
    std::cerr << "tarskel: " << f.what() << "\n";
    return f.exitCode();
  } catch (const tarskel::Error& e) {
    std::cerr << "tarskel: " << e.what() << "\n";
    return kExitUsage;
  }
}

}  // namespace tarskel::tool
