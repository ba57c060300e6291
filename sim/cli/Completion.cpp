#include "cli/Completion.h"

#include "base/Text.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace {

enum class Values { None, Text, Words, Files, Folders };

Values ValuesOf(const CompletedOption &option) {
    if (!option.words.empty())
        return Values::Words;
    if (option.value.empty())
        return Values::None;
    if (option.value.rfind("FILE", 0) == 0 || option.value == "UPDATE")
        return Values::Files;
    return option.value == "DIR" ? Values::Folders : Values::Text;
}

/// @return the text with a backslash before each of some characters.
std::string Escaped(const std::string &text, const char *characters) {
    std::string escaped;
    for (const char c : text) {
        if (std::string(characters).find(c) != std::string::npos)
            escaped += '\\';
        escaped += c;
    }
    return escaped;
}

std::string FirstLine(const std::string &text) { return text.substr(0, text.find('\n')); }

std::string BashScript(const CompletedWords &words) {
    std::vector<std::string> names;
    std::vector<std::string> commands;
    std::string values;
    for (const CompletedOption &option : words.options) {
        std::copy(option.names.begin(), option.names.end(), std::back_inserter(names));
        const Values kind = ValuesOf(option);
        if (kind == Values::None)
            continue;
        values += "    " + JoinWords(option.names, " | ") + ") ";
        if (kind == Values::Words)
            values += "words='" + JoinWords(option.words, " ") + "'";
        else
            values += kind == Values::Files ? "kind=-f" : kind == Values::Folders ? "kind=-d" : "return";
        values += " ;;\n";
    }
    for (const auto &command : words.commands)
        commands.push_back(command.first);
    return R"(_flashsim() {
    local word=${COMP_WORDS[COMP_CWORD]} option=${COMP_WORDS[COMP_CWORD - 1]} kind='' words=''
    COMPREPLY=()
    # "--option=value" is three words.
    if [[ $word == = ]]; then
        word=''
    elif [[ $option == = ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    case $option in
)" + values +
           R"(    *)
        kind=-f
        if [[ $word == -* ]]; then
            kind=''
            words=')" +
           JoinWords(names, " ") + R"('
        elif [ "$COMP_CWORD" -eq 1 ]; then
            words=')" +
           JoinWords(commands, " ") + R"('
        fi
        ;;
    esac
    if [ -n "$kind" ]; then
        mapfile -t COMPREPLY < <(compgen "$kind" -- "$word")
        [ ${#COMPREPLY[@]} -eq 0 ] || compopt -o filenames 2>/dev/null
    fi
    local known
    mapfile -t known < <(compgen -W "$words" -- "$word")
    COMPREPLY+=("${known[@]}")
    [[ ${known[0]:-} != *= ]] || compopt -o nospace 2>/dev/null
}
complete -F _flashsim flashsim
)";
}

std::string ZshScript(const CompletedWords &words) {
    std::string options;
    for (const CompletedOption &option : words.options) {
        const Values kind = ValuesOf(option);
        const std::string help = "[" + Escaped(FirstLine(option.help), "[]\\") + "]";
        std::string value;
        if (kind != Values::None) {
            value = ":" + Escaped(option.value.empty() ? "value" : option.value, ":\\") + ":";
            if (kind == Values::Words)
                value += "{compadd" + std::string(option.words[0].back() == '=' ? " -S ''" : "") + " -- " +
                         JoinWords(option.words, " ") + "}";
            else
                value += kind == Values::Files ? "_files" : kind == Values::Folders ? "_files -/" : " ";
        }
        for (const std::string &name : option.names) {
            const std::string others = option.isRepeatable ? "*" : "(" + JoinWords(option.names, " ") + ")";
            options += "    " + ShellWord(others + name + (kind == Values::None ? "" : "=") + help + value) + "\n";
        }
    }
    std::string commands;
    for (const auto &[name, help] : words.commands)
        commands += "    " + ShellWord(Escaped(name + ":", "\\") + help) + "\n";
    return "#compdef flashsim\n"
           "_flashsim_first() {\n  local -a commands=(\n" +
           commands +
           "  )\n  _describe command commands\n  _files\n}\n"
           "_flashsim() {\n  local -a options=(\n" +
           options + R"(  )
  _arguments -s -S $options '1:update:_flashsim_first' '*:argument:_files'
}
if [ "$funcstack[1]" = _flashsim ]; then
  _flashsim "$@"
else
  compdef _flashsim flashsim
fi
)";
}

std::string FishWord(const std::string &text) { return "'" + Escaped(text, "'\\") + "'"; }

std::string FishScript(const CompletedWords &words) {
    std::string script;
    for (const auto &[name, help] : words.commands)
        script += "complete -c flashsim -n __fish_is_first_arg -a " + name + " -d " + FishWord(help) + "\n";
    for (const CompletedOption &option : words.options) {
        script += "complete -c flashsim";
        for (const std::string &name : option.names)
            script += name.rfind("--", 0) == 0 ? " -l " + name.substr(2) : " -s " + name.substr(1);
        switch (ValuesOf(option)) {
        case Values::None:
            break;
        case Values::Text:
            script += " -x";
            break;
        case Values::Words:
            script += " -x -a " + FishWord(JoinWords(option.words, " "));
            break;
        case Values::Files:
            script += " -r -F";
            break;
        case Values::Folders:
            script += " -x -a '(__fish_complete_directories)'";
            break;
        }
        script += " -d " + FishWord(FirstLine(option.help)) + "\n";
    }
    return script;
}

constexpr struct {
    const char *shell;
    std::string (*makeScript)(const CompletedWords &words);
} kShells[] = {{"bash", BashScript}, {"zsh", ZshScript}, {"fish", FishScript}};

} // namespace

std::vector<std::string> CompletionShells() {
    std::vector<std::string> shells;
    for (const auto &row : kShells)
        shells.emplace_back(row.shell);
    return shells;
}

std::string CompletionScript(const std::string &shell, const CompletedWords &words) {
    for (const auto &row : kShells) {
        if (shell == row.shell)
            return row.makeScript(words);
    }
    throw std::invalid_argument("no completion for the shell " + shell);
}
