// The completion scripts and the manual page, generated from the command
// tree itself, so that every command and option is in them without anyone
// remembering to add it.

#include <algorithm>
#include <string>
#include <vector>

#include "ToolApp.hpp"
#include "ToolCommand.hpp"

namespace tarskel::tool {
namespace {

struct Node {
  std::string path;  // "" for the tool itself, "vendor seal" for that command
  const CLI::App* app;
  std::vector<std::string> subcommands;
  std::vector<const CLI::Option*> options;  // shown ones, not positionals
  std::vector<const CLI::Option*> positionals;
};

void collect(const CLI::App* app, const std::string& path, std::vector<Node>& out) {
  Node node{path, app, {}, {}, {}};
  for (const CLI::Option* option : app->get_options()) {
    if (option->get_group().empty()) continue;  // hidden
    (option->nonpositional() ? node.options : node.positionals).push_back(option);
  }
  auto subs = const_cast<CLI::App*>(app)->get_subcommands([](CLI::App*) { return true; });
  for (const CLI::App* sub : subs) node.subcommands.push_back(sub->get_name());
  out.push_back(node);
  for (const CLI::App* sub : subs)
    collect(sub, path.empty() ? sub->get_name() : path + " " + sub->get_name(), out);
}

std::vector<Node> nodesOf(const CLI::App& app) {
  std::vector<Node> nodes;
  collect(&app, "", nodes);
  return nodes;
}

std::vector<std::string> optionWords(const Node& node) {
  std::vector<std::string> words;
  for (const CLI::Option* option : node.options) {
    for (const std::string& s : option->get_snames()) words.push_back("-" + s);
    for (const std::string& l : option->get_lnames()) words.push_back("--" + l);
  }
  // CLI11's own -h,--help is among them, except where it is hidden.
  if (std::find(words.begin(), words.end(), "--help") == words.end()) words.push_back("--help");
  return words;
}

// What the value of `option` may be, for completion: its enumerated values
// ("ok denied error"), "<dir>" for a state root, or "" for a file or free text.
std::string optionValues(const CLI::Option* option) {
  if (option->get_items_expected_min() == 0) return {};
  const std::vector<std::string>& names = option->get_lnames();
  if (std::find(names.begin(), names.end(), "root") != names.end()) return "<dir>";
  // CLI::IsMember describes itself as "{ok,denied,error}" in the type name.
  const std::string type = option->get_type_name();
  const std::size_t open = type.find('{');
  const std::size_t close = type.find('}', open);
  if (open == std::string::npos || close == std::string::npos) return {};
  std::string values = type.substr(open + 1, close - open - 1);
  std::replace(values.begin(), values.end(), ',', ' ');
  return values;
}

std::string quoted(const std::string& text);

// The values of each option that has some, keyed by "<path> <option>".
std::string valueTable(const std::vector<Node>& nodes, const char* indent) {
  std::string out;
  for (const Node& node : nodes) {
    for (const CLI::Option* option : node.options) {
      const std::string values = optionValues(option);
      if (values.empty()) continue;
      std::vector<std::string> keys;
      for (const std::string& s : option->get_snames()) keys.push_back(node.path + " -" + s);
      for (const std::string& l : option->get_lnames()) keys.push_back(node.path + " --" + l);
      for (const std::string& key : keys)
        out += std::string(indent) + quoted(key) + ") echo " + quoted(values) + " ;;\n";
    }
  }
  return out;
}

std::string spaced(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& w : words) out += (out.empty() ? "" : " ") + w;
  return out;
}

// Single-quoted for every shell here: no quote ever stands in a help text
// unescaped.
std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Two case tables that all three shells share the shape of: the commands
// under a path, and the options of a path.
std::string caseTable(const std::vector<Node>& nodes, bool subcommands, const char* indent) {
  std::string out;
  for (const Node& node : nodes) {
    const std::string words = subcommands ? spaced(node.subcommands) : spaced(optionWords(node));
    if (words.empty()) continue;
    out += std::string(indent) + quoted(node.path) + ") echo " + quoted(words) + " ;;\n";
  }
  return out;
}

std::string bashScript(const std::vector<Node>& nodes) {
  return "# bash completion for tarskel\n"
         "_tarskel_commands() {\n    case \"$1\" in\n" +
         caseTable(nodes, true, "        ") +
         "    esac\n}\n"
         "_tarskel_options() {\n    case \"$1\" in\n" +
         caseTable(nodes, false, "        ") +
         "    esac\n}\n"
         "_tarskel_values() {\n    case \"$1\" in\n" +
         valueTable(nodes, "        ") +
         "    esac\n}\n"
         "_tarskel() {\n"
         "    local cur=\"${COMP_WORDS[COMP_CWORD]}\" path=\"\" i w subs vals\n"
         "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
         "        w=\"${COMP_WORDS[i]}\"\n"
         "        subs=\" $(_tarskel_commands \"$path\") \"\n"
         "        [[ \"$w\" != -* && \"$subs\" == *\" $w \"* ]] && path=\"${path:+$path }$w\"\n"
         "    done\n"
         "    subs=\"$(_tarskel_commands \"$path\")\"\n"
         "    vals=\"$(_tarskel_values \"$path ${COMP_WORDS[COMP_CWORD-1]}\")\"\n"
         "    if [[ \"$vals\" == \"<dir>\" ]]; then\n"
         "        compopt -o filenames 2>/dev/null\n"
         "        COMPREPLY=( $(compgen -d -- \"$cur\") )\n"
         "    elif [[ -n \"$vals\" ]]; then\n"
         "        COMPREPLY=( $(compgen -W \"$vals\" -- \"$cur\") )\n"
         "    elif [[ \"$cur\" == -* ]]; then\n"
         "        COMPREPLY=( $(compgen -W \"$(_tarskel_options \"$path\")\" -- \"$cur\") )\n"
         "    elif [[ -n \"$subs\" ]]; then\n"
         "        COMPREPLY=( $(compgen -W \"$subs\" -- \"$cur\") )\n"
         "    else\n"
         "        compopt -o filenames 2>/dev/null\n"
         "        COMPREPLY=( $(compgen -f -- \"$cur\") )\n"
         "    fi\n"
         "}\n"
         "complete -F _tarskel tarskel\n";
}

std::string zshScript(const std::vector<Node>& nodes) {
  // "path" is special in zsh (it is $PATH as an array): the walk uses "at".
  return "#compdef tarskel\n"
         "_tarskel_commands() {\n    case \"$1\" in\n" +
         caseTable(nodes, true, "        ") +
         "    esac\n}\n"
         "_tarskel_options() {\n    case \"$1\" in\n" +
         caseTable(nodes, false, "        ") +
         "    esac\n}\n"
         "_tarskel_values() {\n    case \"$1\" in\n" +
         valueTable(nodes, "        ") +
         "    esac\n}\n"
         "_tarskel() {\n"
         "    local at=\"\" i w subs vals\n"
         "    for ((i = 2; i < CURRENT; i++)); do\n"
         "        w=\"${words[i]}\"\n"
         "        subs=\" $(_tarskel_commands \"$at\") \"\n"
         "        [[ \"$w\" != -* && \"$subs\" == *\" $w \"* ]] && at=\"${at:+$at }$w\"\n"
         "    done\n"
         "    subs=\"$(_tarskel_commands \"$at\")\"\n"
         "    vals=\"$(_tarskel_values \"$at ${words[CURRENT-1]}\")\"\n"
         "    if [[ \"$vals\" == \"<dir>\" ]]; then\n"
         "        _files -/\n"
         "    elif [[ -n \"$vals\" ]]; then\n"
         "        compadd -- ${=vals}\n"
         "    elif [[ \"$PREFIX\" == -* ]]; then\n"
         "        compadd -- ${=$(_tarskel_options \"$at\")}\n"
         "    elif [[ -n \"$subs\" ]]; then\n"
         "        compadd -- ${=subs}\n"
         "    else\n"
         "        _files\n"
         "    fi\n"
         "}\n"
         "_tarskel \"$@\"\n";
}

std::string fishScript(const std::vector<Node>& nodes) {
  std::string out =
      "# fish completion for tarskel\n"
      "function __tarskel_commands\n    switch \"$argv[1]\"\n";
  for (const Node& node : nodes) {
    if (node.subcommands.empty()) continue;
    out += "        case " + quoted(node.path) + "\n            printf '%s\\n' " +
           spaced(node.subcommands) + "\n";
  }
  out +=
      "    end\nend\n"
      "function __tarskel_path\n"
      "    set -l at ''\n"
      "    for w in (commandline -opc)[2..-1]\n"
      "        if not string match -q -- '-*' $w; and contains -- $w (__tarskel_commands $at)\n"
      "            set at (string trim -- \"$at $w\")\n"
      "        end\n"
      "    end\n"
      "    echo $at\n"
      "end\n"
      "function __tarskel_at\n    set -l p (__tarskel_path)\n    test \"$p\" = \"$argv[1]\"\nend\n"
      "function __tarskel_has_commands\n    set -l c (__tarskel_commands (__tarskel_path))\n"
      "    test (count $c) -gt 0\nend\n"
      "complete -c tarskel -f -n __tarskel_has_commands -a '(__tarskel_commands "
      "(__tarskel_path))'\n"
      "complete -c tarskel -F -n 'not __tarskel_has_commands'\n";
  for (const Node& node : nodes) {
    const std::string condition = "-n " + quoted("__tarskel_at \"" + node.path + "\"");
    for (const CLI::Option* option : node.options) {
      std::string line = "complete -c tarskel " + condition;
      for (const std::string& s : option->get_snames()) line += " -s " + s;
      for (const std::string& l : option->get_lnames()) line += " -l " + l;
      const std::string values = optionValues(option);
      if (values == "<dir>") {
        line += " -xa '(__fish_complete_directories)'";
      } else if (!values.empty()) {
        line += " -xa " + quoted(values);
      } else if (option->get_items_expected_min() > 0) {
        line += " -r";
      }
      out += line + " -d " + quoted(option->get_description()) + "\n";
    }
  }
  return out;
}

// ---- roff

std::string roff(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
  }
  if (!out.empty() && (out.front() == '.' || out.front() == '\'')) out.insert(0, "\\&");
  return out;
}

std::string usage(const Node& node) {
  std::string out = "\\fBtarskel " + roff(node.path) + "\\fR";
  for (const CLI::Option* p : node.positionals) {
    std::string name = p->get_name(true);
    out += p->get_required() ? " \\fI" + roff(name) + "\\fR" : " [\\fI" + roff(name) + "\\fR]";
    if (p->get_items_expected_max() > 1) out += "...";
  }
  if (!node.options.empty()) out += " [\\fIOPTIONS\\fR]";
  return out;
}

}  // namespace

std::string completionScript(const CLI::App& app, const std::string& shell) {
  const std::vector<Node> nodes = nodesOf(app);
  if (shell == "bash") return bashScript(nodes);
  if (shell == "zsh") return zshScript(nodes);
  return fishScript(nodes);
}

std::string manualPage(const CLI::App& app) {
  const std::vector<Node> nodes = nodesOf(app);
  std::string out =
      ".TH TARSKEL 1 \"\" \"tarskel " TARSKEL_VERSION
      "\" \"Tarskel\"\n"
      ".SH NAME\ntarskel \\- the command\\-line tool of the Tarskel platform\n"
      ".SH SYNOPSIS\n\\fBtarskel\\fR \\fICOMMAND\\fR... [\\fIOPTIONS\\fR] [\\fIARGUMENTS\\fR]\n"
      ".br\n\\fBtarskel help\\fR \\fICOMMAND\\fR...\n"
      ".SH DESCRIPTION\n"
      "Every command reads files (or \\fB\\-\\fR for standard input), writes its result "
      "on standard output and its messages on standard error. Every command takes "
      "\\fB\\-q\\fR, \\fB\\-\\-help\\fR and \\fB\\-\\-version\\fR.\n"
      ".SH COMMANDS\n";
  for (const Node& node : nodes) {
    if (node.path.empty() || !node.subcommands.empty()) continue;
    out += ".SS \"" + usage(node) + "\"\n" + roff(node.app->get_description()) + "\n";
    for (const CLI::Option* p : node.positionals) {
      out += ".TP\n\\fI" + roff(p->get_name(true)) + "\\fR\n" + roff(p->get_description()) + "\n";
    }
    for (const CLI::Option* option : node.options) {
      if (option->get_lnames() == std::vector<std::string>{"quiet"} ||
          option->get_lnames() == std::vector<std::string>{"help"} ||
          option->get_description() == "Print the version and exit") {
        continue;  // said once above
      }
      std::string names;
      for (const std::string& s : option->get_snames())
        names += (names.empty() ? "" : ", ") + ("\\fB\\-" + s + "\\fR");
      for (const std::string& l : option->get_lnames())
        names += (names.empty() ? "" : ", ") + ("\\fB\\-\\-" + roff(l) + "\\fR");
      if (option->get_items_expected_min() > 0)
        names += " \\fI" + roff(option->get_type_name()) + "\\fR";
      out += ".TP\n" + names + "\n" + roff(option->get_description()) + "\n";
    }
  }
  out +=
      ".SH \"EXIT STATUS\"\n"
      ".TP\n0\nok\n.TP\n1\nrefused, or not ok (a finding, a failed check)\n"
      ".TP\n2\nbad usage, or input that can't be used\n"
      ".TP\n3\nthe daemon could not be reached, or did not answer in time\n"
      ".SH FILES\n"
      ".TP\n\\fI/usr/share/doc/tarskel/\\fR\n"
      "The documentation, installed with the tool (under \\fIPREFIX\\fR/share/doc/tarskel "
      "for another prefix): README.md (a walkthrough), tarskel\\-cli.md (every command), "
      "tarskel\\-json.md (the fields of \\fB\\-\\-json\\fR output), audit.md (the audit "
      "chain), security.md (who may reach the daemon, and the limits that keep it up), "
      "deviations.md.\n"
      ".SH \"SEE ALSO\"\n\\fBtarskeld\\fR(8)\n";
  return out;
}

}  // namespace tarskel::tool
