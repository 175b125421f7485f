// Shell completion for tarskeld's options. The command has no subcommands and
// no positional arguments, so each script only has to offer the option names,
// directories after --root, nothing after --mach-service (a free name) and
// the three shells after --generate-completion-script.

#include <string>

#include "tarskel/daemon/Tarskeld.hpp"

namespace tarskel {
namespace {

constexpr std::string_view kBash = R"(# bash completion for tarskeld
_tarskeld() {
    local cur prev
    cur="${COMP_WORDS[COMP_CWORD]}"
    prev="${COMP_WORDS[COMP_CWORD-1]}"
    case "$prev" in
        --root)
            compopt -o filenames 2>/dev/null
            COMPREPLY=( $(compgen -d -- "$cur") )
            return 0 ;;
        --mach-service)
            COMPREPLY=()
            return 0 ;;
        --generate-completion-script)
            COMPREPLY=( $(compgen -W "bash zsh fish" -- "$cur") )
            return 0 ;;
    esac
    COMPREPLY=( $(compgen -W "--mach-service --root --help --version --generate-completion-script" -- "$cur") )
}
complete -F _tarskeld tarskeld
)";

// zsh's _arguments reads "[...]" as the description and ":" as a separator;
// the help texts hold neither.
constexpr std::string_view kZshHead = R"(#compdef tarskeld
_tarskeld() {
    _arguments -s \
        '--mach-service[)";
constexpr std::string_view kZshMiddle = R"(]:service name: ' \
        '--root[)";
constexpr std::string_view kZshTail = R"(]:directory:_files -/' \
        '(- *)--help[Print help]' \
        '(- *)--version[Print the version]' \
        '(- *)--generate-completion-script[Print a completion script]:shell:(bash zsh fish)'
}
_tarskeld "$@"
)";

constexpr std::string_view kFishHead = R"(# fish completion for tarskeld
complete -c tarskeld -f
complete -c tarskeld -l mach-service -x -d ')";
constexpr std::string_view kFishMiddle = R"('
complete -c tarskeld -l root -x -a '(__fish_complete_directories)' -d ')";
constexpr std::string_view kFishTail = R"('
complete -c tarskeld -l help -d 'Print help'
complete -c tarskeld -l version -d 'Print the version'
complete -c tarskeld -l generate-completion-script -x -a 'bash zsh fish' -d 'Print a completion script'
)";

std::string joined(std::initializer_list<std::string_view> parts) {
  std::string out;
  for (std::string_view part : parts) out += part;
  return out;
}

}  // namespace

std::optional<std::string> Tarskeld::completionScript(std::string_view shell) {
  if (shell == "bash") return std::string(kBash);
  if (shell == "zsh") {
    return joined({kZshHead, machServiceHelp, kZshMiddle, rootHelp, kZshTail});
  }
  if (shell == "fish") {
    return joined({kFishHead, machServiceHelp, kFishMiddle, rootHelp, kFishTail});
  }
  return std::nullopt;
}

}  // namespace tarskel
