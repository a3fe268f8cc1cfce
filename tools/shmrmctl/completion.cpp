// completion: the bash and zsh completion scripts, made from the command line this program
// parses (its subcommands and options) and the attribute names of the schema's rows, so that
// they cannot fall behind either.
#include "completion.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <string_view>

#include "attributes.h"

namespace shmrmctl {

namespace {

constexpr std::pair<const char*, Kind> kKinds[] = {{"header", Kind::kHeader},
                                                   {"group", Kind::kGroup},
                                                   {"resource", Kind::kResource},
                                                   {"monitor", Kind::kMonitor}};
// The kinds add and remove take (the header always exists).
constexpr const char* kRecordKinds = "group resource monitor";
// The sections status shows one of.
constexpr const char* kSections = "region groups resources monitors";

struct Shape {
    std::vector<std::string> subcommands;
    std::string global_options;
    std::map<std::string, std::string> options;  // a subcommand's options
    std::vector<std::string> valued;             // options that take a value, anywhere
};

void add_options(const CLI::App& app, std::string& names, std::vector<std::string>& valued,
                 bool with_help) {
    for (const CLI::Option* o : app.get_options()) {
        if (!o->nonpositional() || (!with_help && o == app.get_help_ptr())) continue;
        const bool takes_value = o->get_type_size_max() > 0;
        for (const auto& l : o->get_lnames()) {
            names += (names.empty() ? "" : " ") + ("--" + l);
            if (takes_value) valued.push_back("--" + l);
        }
        for (const auto& s : o->get_snames()) {
            names += (names.empty() ? "" : " ") + ("-" + s);
            if (takes_value) valued.push_back("-" + s);
        }
    }
}

Shape shape_of(CLI::App& app) {
    Shape s;
    add_options(app, s.global_options, s.valued, true);
    for (const CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; })) {
        if (sub->get_group().empty()) continue;  // hidden: for this program's own use
        s.subcommands.push_back(sub->get_name());
        add_options(*sub, s.options[sub->get_name()], s.valued, false);
    }
    std::sort(s.valued.begin(), s.valued.end());
    s.valued.erase(std::unique(s.valued.begin(), s.valued.end()), s.valued.end());
    return s;
}

std::string joined(const std::vector<std::string>& words, std::string_view sep) {
    return fmt::format("{}", fmt::join(words, sep));
}

std::string attributes_of(Kind kind) {
    return joined(attribute_names(kind), " ");
}

// The case arms both shells' scripts are made of: one per record kind for its key count and its
// attributes, one per command for its options; each arm formatted by the shell's own pattern.
struct Arms {
    std::string kinds, keys, attributes, options, valued;
};
Arms arms(const Shape& s, fmt::format_string<std::string_view, std::size_t> key,
          fmt::format_string<std::string_view, std::string> attribute,
          fmt::format_string<const std::string&, const std::string&> option) {
    Arms a;
    for (const auto& [name, kind] : kKinds) {
        a.kinds += (a.kinds.empty() ? "" : " ") + std::string(name);
        a.keys += fmt::format(key, std::string_view(name), key_count(kind));
        a.attributes += fmt::format(attribute, std::string_view(name), attributes_of(kind));
    }
    for (const auto& [sub, names] : s.options)
        a.options += fmt::format(option, sub, names);
    a.valued = s.valued.empty() ? "--" : joined(s.valued, "|");
    return a;
}

// A shell's script with the command line's and the schema's words put in its named places.
std::string fill(std::string_view script, const Shape& s, const Arms& a) {
    return fmt::format(fmt::runtime(script), fmt::arg("keys", a.keys),
                       fmt::arg("attributes", a.attributes), fmt::arg("options", a.options),
                       fmt::arg("valued", a.valued),
                       fmt::arg("subcommands", joined(s.subcommands, " ")),
                       fmt::arg("global", s.global_options), fmt::arg("kinds", a.kinds),
                       fmt::arg("records", kRecordKinds), fmt::arg("sections", kSections));
}

std::string bash_script(const Shape& s) {
    const Arms a =
        arms(s, "    {}) echo {} ;;\n", "    {}) echo \"{}\" ;;\n", "    {}) echo \"{}\" ;;\n");
    return fill(R"SH(# bash completion for shmrmctl; made by `shmrmctl completion bash`.

_shmrmctl_keys() {{
  case $1 in
{keys}    *) echo -1 ;;
  esac
}}

_shmrmctl_attributes() {{
  case $1 in
{attributes}  esac
}}

_shmrmctl_options() {{
  case $1 in
{options}  esac
}}

_shmrmctl() {{
  local cur=${{COMP_WORDS[COMP_CWORD]}} prev=${{COMP_WORDS[COMP_CWORD-1]}}
  local sub="" w i n k
  local -a pos=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    w=${{COMP_WORDS[i]}}
    case $w in
      {valued}) ((i++)); continue ;;
      -*) continue ;;
    esac
    if [[ -z $sub ]]; then sub=$w; else pos+=("$w"); fi
  done
  COMPREPLY=()
  case $prev in
    {valued}) return ;;  # a value: file names by default
  esac
  if [[ -z $sub ]]; then
    COMPREPLY=($(compgen -W "{subcommands} {global}" -- "$cur"))
    return
  fi
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$(_shmrmctl_options "$sub") {global}" -- "$cur"))
    return
  fi
  n=${{#pos[@]}}
  case $sub in
    get|set)
      if ((n == 0)); then
        COMPREPLY=($(compgen -W "{kinds}" -- "$cur"))
      else
        k=$(_shmrmctl_keys "${{pos[0]}}")
        if ((n == k + 1)); then
          COMPREPLY=($(compgen -W "$(_shmrmctl_attributes "${{pos[0]}}")" -- "$cur"))
        fi
      fi ;;
    add|remove)
      if ((n == 0)); then COMPREPLY=($(compgen -W "{records}" -- "$cur")); fi ;;
    status)
      if ((n == 0)); then COMPREPLY=($(compgen -W "{sections}" -- "$cur")); fi ;;
  esac
}}

complete -o default -F _shmrmctl shmrmctl
)SH",
                s, a);
}

std::string zsh_script(const Shape& s) {
    const Arms a =
        arms(s, "    ({}) k={} ;;\n", "    ({}) attrs=({}) ;;\n", "    ({}) opts=({}) ;;\n");
    return fill(R"SH(#compdef shmrmctl
# zsh completion for shmrmctl; made by `shmrmctl completion zsh`.

_shmrmctl() {{
  local sub="" w i n k=-1
  local -a pos attrs opts
  for ((i = 2; i < CURRENT; i++)); do
    w=${{words[i]}}
    case $w in
      ({valued}) ((i++)); continue ;;
      (-*) continue ;;
    esac
    if [[ -z $sub ]]; then sub=$w; else pos+=("$w"); fi
  done
  local cur=${{words[CURRENT]}}
  case ${{words[CURRENT-1]}} in
    ({valued}) _files; return ;;
  esac
  if [[ -z $sub ]]; then
    if [[ $cur == -* ]]; then compadd -- {global}; else compadd -- {subcommands}; fi
    return
  fi
  if [[ $cur == -* ]]; then
    case $sub in
{options}    esac
    compadd -- $opts {global}
    return
  fi
  n=${{#pos}}
  case $sub in
    (get|set)
      if ((n == 0)); then compadd -- {kinds}; return; fi
      case ${{pos[1]}} in
{keys}      esac
      if ((n == k + 1)); then
        case ${{pos[1]}} in
{attributes}        esac
        compadd -- $attrs
      fi
      return ;;
    (add|remove)
      if ((n == 0)); then compadd -- {records}; fi
      return ;;
    (status)
      if ((n == 0)); then compadd -- {sections}; fi
      return ;;
  esac
  _files
}}

_shmrmctl "$@"
)SH",
                s, a);
}

}  // namespace

std::string completion_script(CLI::App& app, std::string_view shell) {
    const Shape s = shape_of(app);
    return shell == "zsh" ? zsh_script(s) : bash_script(s);
}

}  // namespace shmrmctl
