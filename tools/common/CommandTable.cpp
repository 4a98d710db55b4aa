#include "common/CommandTable.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

namespace kovtools {

namespace {

std::vector<const CLI::App*> Commands(const CLI::App& app)
{
    return app.get_subcommands([](const CLI::App* sub) { return !sub->get_group().empty(); });
}

std::vector<const CLI::Option*> Options(const CLI::App& app)
{
    return app.get_options([](const CLI::Option* o) { return o->nonpositional() && !o->get_group().empty(); });
}

std::vector<const CLI::Option*> Positionals(const CLI::App& app)
{
    return app.get_options([](const CLI::Option* o) { return o->get_positional() && !o->get_group().empty(); });
}

std::vector<std::string> Names(const CLI::Option& option)
{
    std::vector<std::string> names;
    for (const std::string& s : option.get_snames())
        names.push_back("-" + s);
    for (const std::string& s : option.get_lnames())
        names.push_back("--" + s);
    return names;
}

bool TakesValue(const CLI::Option& option) { return option.get_items_expected_max() > 0; }

// The words of a "{a,b,c}" in the type's name, which is how a set of values shows.
std::string SetOf(const CLI::Option& option)
{
    const std::string type = option.get_type_name();
    const size_t open = type.find('{'), close = type.find('}');
    if (open == std::string::npos || close == std::string::npos)
        return "";
    std::string words = type.substr(open + 1, close - open - 1);
    std::replace(words.begin(), words.end(), ',', ' ');
    return words;
}

// "TEXT", "INT", without what checks add to it.
std::string TypeOf(const CLI::Option& option)
{
    const std::string type = option.get_type_name();
    return type.substr(0, type.find_first_of(":{"));
}

// Calls visit(" hotpixels save", app) for the program (""), each command and each command below it.
void Walk(const CLI::App& app, const std::string& path, const std::function<void(const std::string&, const CLI::App&)>& visit)
{
    visit(path, app);
    for (const CLI::App* sub : Commands(app))
        Walk(*sub, path + " " + sub->get_name(), visit);
}

// --- completion

struct Cases {
    std::string paths;   // from one command to the next below it
    std::string words;   // what may stand there
    std::string values;  // what may follow an option
};

std::string Quoted(std::string text, const char* szSpecial)
{
    for (size_t at = 0; (at = text.find_first_of(szSpecial, at)) != std::string::npos; at += 2)
        text.insert(at, "\\");
    return text;
}

Cases CasesOf(const CLI::App& app, bool bZsh, const CompletionValues& values)
{
    Cases cases;
    const std::vector<const CLI::Option*> common = Options(app);  // these are understood after a command too
    Walk(app, "", [&](const std::string& path, const CLI::App& at) {
        if (!path.empty())
            cases.paths += fmt::format("        \"{0}\") at=\"{0}\" ;;\n", path);
        std::string subs, options, free;
        const auto add = [&](std::string& list, const std::string& word, const std::string& text) {
            list += bZsh ? fmt::format(" \"{}:{}\"", word, Quoted(text.substr(0, text.find('\n')), "\\\"$`:")) : " " + word;
        };
        for (const CLI::App* sub : Commands(at))
            add(subs, sub->get_name(), sub->get_description());
        std::vector<const CLI::Option*> all = Options(at);
        if (!path.empty())
            std::copy_if(common.begin(), common.end(), std::back_inserter(all),
                         [](const CLI::Option* o) { return !o->check_lname("help") && !o->check_lname("version"); });
        for (const CLI::Option* o : all) {
            std::string names;
            for (const std::string& name : Names(*o)) {
                add(options, name, o->get_description());
                names += fmt::format("{}\"{} {}\"", names.empty() ? "" : "|", path, name);
            }
            if (!TakesValue(*o))
                continue;
            const std::string* pWords = nullptr;
            for (const std::string& name : Names(*o))
                if (const auto it = values.find(name); it != values.end())
                    pWords = &it->second;
            cases.values += fmt::format("    {}) value=yes line=\"{}\" ;;\n", names, pWords ? *pWords : SetOf(*o));
        }
        for (const CLI::Option* o : Positionals(at)) {
            const auto it = values.find(o->get_name(true));
            free += " " + (it != values.end() ? it->second : SetOf(*o));
        }
        cases.words += bZsh ? fmt::format("    \"{}\") subs=({}) options=({}) line=\"{}\" ;;\n", path, subs, options, free)
                            : fmt::format("    \"{}\") options=\"{}\" line=\"{}{}\" ;;\n", path, options, subs, free);
    });
    return cases;
}

// {0} the program, {1} to {3} the cases.
constexpr const char* BASH = R"(# bash completion of {0}, made by '{0} completion bash'
_{0}() {{
    local current=${{COMP_WORDS[COMP_CWORD]}} at= options= line= value= i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        if [[ ${{COMP_WORDS[i]}} == -- ]]; then
            _command_offset $((i + 1))
            return
        fi
        case "$at ${{COMP_WORDS[i]}}" in
{1}        esac
    done
    case $at in
{2}    esac
    case "$at ${{COMP_WORDS[COMP_CWORD - 1]}}" in
{3}    esac
    [[ $current == -* && -z $value ]] && line=$options
    COMPREPLY=($(compgen -W "$line" -- "$current"))
    [[ ${{line// }} ]] || COMPREPLY=($(compgen -f -- "$current"))
}}
complete -o filenames -F _{0} {0}
)";

constexpr const char* ZSH = R"(#compdef {0}
# zsh completion of {0}, made by '{0} completion zsh'
_{0}() {{
    local at= line= value= i
    local -a subs options
    for ((i = 2; i < CURRENT; ++i)); do
        if [[ $words[i] == -- ]]; then
            shift $i words
            ((CURRENT -= i))
            _normal
            return
        fi
        case "$at $words[i]" in
{1}        esac
    done
    case $at in
{2}    esac
    case "$at $words[CURRENT-1]" in
{3}    esac
    if [[ $words[CURRENT] == -* && -z $value ]]; then
        _describe option options
    elif ((${{#subs}})) && [[ -z $value ]]; then
        _describe command subs
    elif [[ -n ${{line// }} ]]; then
        compadd -- ${{=line}}
    else
        _files
    fi
}}
_{0} "$@"
)";

// --- the manual

std::string Plain(const std::string& text) { return Quoted(text, "\\*_"); }

std::string DefaultOf(const CLI::Option& option)
{
    return TakesValue(option) && !option.get_default_str().empty() ? fmt::format(" Default: {}.", Plain(option.get_default_str()))
                                                                   : "";
}

std::string ManualOption(const CLI::Option& option)
{
    std::string names;
    for (const std::string& name :
         option.get_positional() && !option.nonpositional() ? std::vector{ option.get_name(true) } : Names(option))
        names += fmt::format("{}*{}*", names.empty() ? "" : ", ", Plain(name));
    const bool bValue = TakesValue(option) && option.nonpositional();
    std::string text = Plain(option.get_description());
    if (!text.empty() && text.back() != '.')
        text += '.';
    return fmt::format("{}{}\n\t{}{}\n\n", names, bValue ? " _" + TypeOf(option) + "_" : "", text, DefaultOf(option));
}

std::string ManualSection(const CLI::App& app)
{
    std::string text;
    for (const CLI::Option* o : Positionals(app))
        text += ManualOption(*o);
    for (const CLI::Option* o : Options(app))
        text += ManualOption(*o);
    return text;
}

std::string Usage(const CLI::App& app, const std::string& command)
{
    std::string text = fmt::format("*{}*", command);
    if (!Options(app).empty())
        text += " [OPTIONS]";
    if (!Commands(app).empty())
        text += " _COMMAND_";
    for (const CLI::Option* o : Positionals(app))
        text += o->get_required() ? " _" + Plain(o->get_name(true)) + "_" : " [_" + Plain(o->get_name(true)) + "_]";
    return text;
}

// @DESCRIPTION@ and @MORE@ are for what a person has written.
void PrintManual(const CLI::App& app, const std::string& command, bool bPageEach)
{
    std::string page = command;
    std::replace(page.begin(), page.end(), ' ', '-');
    const std::string about = app.get_description();
    std::string brief = about.substr(0, about.find('\n'));
    if (const size_t dash = brief.find(" - "); dash != std::string::npos)
        brief = brief.substr(dash + 3);
    fmt::print("{0}(1)\n\n# NAME\n\n{0} - {1}\n\n# SYNOPSIS\n\n{2}\n\n# DESCRIPTION\n\n@DESCRIPTION@\n\n# OPTIONS\n\n{3}", page,
               Plain(brief), Usage(app, command), ManualSection(app));
    if (!Commands(app).empty())
        fmt::print("# COMMANDS\n\n");
    for (const CLI::App* sub : Commands(app)) {
        if (bPageEach)
            fmt::print("*{}-{}*(1)\n\t{}.\n\n", page, sub->get_name(), Plain(sub->get_description()));
        else
            fmt::print("## {}\n\n{}.\n\n{}", Usage(*sub, command + " " + sub->get_name()), Plain(sub->get_description()),
                       ManualSection(*sub));
    }
    fmt::print("@MORE@\n");
}

}  // namespace

void AddTableCommands(CLI::App& app, bool pageEach, const CompletionValues& values)
{
    auto* pCompletion = app.add_subcommand("completion", "Completion of commands and options, for the shell to read");
    auto pShell = std::make_shared<std::string>();
    pCompletion->add_option("shell", *pShell, "bash or zsh")->required()->check(CLI::IsMember({ "bash", "zsh" }));
    pCompletion->callback([&app, pShell, values] {
        const bool bZsh = *pShell == "zsh";
        const Cases cases = CasesOf(app, bZsh, values);
        fmt::print(fmt::runtime(bZsh ? ZSH : BASH), app.get_name(), cases.paths, cases.words, cases.values);
    });

    auto* pManual = app.add_subcommand("manual", "The manual's source")->group("");
    auto pCommand = std::make_shared<std::string>();
    pManual->add_option("command", *pCommand, "Command; without one, the program");
    pManual->callback([&app, pCommand, pageEach] {
        if (pCommand->empty())
            PrintManual(app, app.get_name(), pageEach);
        else
            PrintManual(*app.get_subcommand(*pCommand), app.get_name() + " " + *pCommand, false);
    });
}

}  // namespace kovtools
