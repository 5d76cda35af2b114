#!/usr/bin/env python3
"""Writes the completions of a program for bash, zsh and fish, from its own help: make_completions.py PROGRAM FOLDER

A new option or command is completed as soon as the help shows it. A value is completed by what the help says about it:
{a,b} is one of these words, a plain TEXT is a file, a list with a default is words joined by commas. VALUES has the rest.
"""
import os
import re
import shlex
import subprocess
import sys
from dataclasses import dataclass, field

# The shell functions are without double backslashes and single quotes, which not every shell takes alike.
# What the help does not say, by command and option or by option: words, "free" for what only the user knows, or a shell
# function that prints words, one a line. It gets the command line's words so far.
COUNTERS = ("counters", r'''"$1" list --json 2>/dev/null | sed -n "s/.*\"key\":\"\([a-z0-9_]*\)\".*/\1/p" | sort -u''')
VALUES = {
    "--interval": "1 2 5 10 60",
    "--at": "now -1m -5m -1h -6h -1d",
    "--from": "-5m -1h -6h -1d -7d",
    "--to": "now -1m -5m -1h -6h -1d",
    # test_packaging compares these with a database.
    "--table": "application application_figures application_identity bypass bypass_figures bypass_identity configuration "
               "connection engine engine_figures engine_start nack peer peer_figures peer_identity sample top_app_log "
               "top_app_record",
    "--keep": "all 1d:all,30d:1m,2y:1h",
    "--max-size": "100M 1G 10G",
    "--listen": "127.0.0.1:9748 unix:/",
    "--socket-mode": "0600 0660 0666",
    "--max-series": "free",
    "--filter": "free",
    "--search": COUNTERS,
    "--allow-host": "free",
    "--peer": ("peers", r'''"$1" json --scope peers 2>/dev/null | sed -n "s/^{\"slot\":[0-9]*,\"number\":\([0-9]*\),.*/\1/p"'''),
    "--sort": ("sort_keys", r'''page=overview
before=
for word; do
    case $before in -p | --page) page=$word ;; esac
    before=$word
done
"$1" watch --page "$page" --sort " " 2>&1 | sed -n "s/.*, but \(.*\)/\1/p" | tr -d , | tr " " "\n"'''),
    "list SEARCH": COUNTERS,
    "--ill": ("illnesses", r'''"$1" --help 2>/dev/null | sed -n "/^Illnesses/,/^$/s/^  \([a-z-]*\) .*/\1/p"'''),
}
LISTS = {"--ill"}
DIRECTORIES = {"--cache-dir"}


@dataclass
class Value:
    """What an option or argument takes. kind: files, folders, words, list (words joined by commas), ask or free."""
    kind: str
    words: list = field(default_factory=list)
    function: str = ""
    b_list: bool = False


@dataclass
class Option:
    names: list
    text: str
    value: Value | None
    b_repeats: bool = False


@dataclass
class Command:
    name: str
    text: str = ""
    options: list = field(default_factory=list)
    argument: Value | None = None


functions = {}


def value_of(command, name, shape):
    """shape: how the help shows the value, such as TEXT:{a,b}=a or FLOAT:SECONDS."""
    known = VALUES.get(f"{command} {name}", VALUES.get(name))
    if isinstance(known, tuple):
        functions[known[0]] = known[1]
        return Value("ask", function=known[0], b_list=name in LISTS)
    if known == "free":
        return Value("free")
    if known:
        return Value("words", known.split())
    if words := re.search(r"\{(.*?)\}", shape):
        return Value("words", words[1].split(","))
    default = re.search(r"^[^=]*=(\S+)", shape)
    if re.match(r"TEXT:(SECTIONS|SCOPES)", shape) and default:
        return Value("words", default[1].split(","), b_list=True)
    if name in DIRECTORIES:
        return Value("folders")
    if re.match(r"TEXT(=|\s|$)|.*\bFILE\b", shape):
        return Value("files")
    return Value("words", [default[1]]) if default else Value("free")


def entries(help_text):
    """Yields section, left side and description of each entry of a help text."""
    section = ""
    lines = help_text.splitlines()
    for at, line in enumerate(lines):
        if heading := re.match(r"(\S.*):$", line):
            section = heading[1]
        elif re.match(r"  \S", line):
            # A left side that is too long has its description on the next line.
            following = lines[at + 1] if at + 1 < len(lines) else ""
            if following.startswith(" " * 30):
                left, text = line.strip(), following.strip()
            else:
                left, text = line[2:30].rstrip(), line[30:].strip()
            yield section, left, text


def read_help(program, command):
    words = [program, command.name, "--help"] if command.name else [program, "--help"]
    text = subprocess.run(words, check=True, capture_output=True, text=True).stdout
    usage = text.find("\nUsage:")
    subcommands = []
    for section, left, description in entries(text[usage:]):
        if section == "Subcommands":
            subcommands.append(Command(left.split()[0], description))
        elif section == "Positionals":
            name, _, shape = left.partition(" ")
            command.argument = value_of(command.name, name, shape)
        elif left.startswith("-"):
            names, _, shape = left.partition(" ")
            shape = re.sub(r"\b(Excludes|Needs): .*|^(Excludes|Needs):.*", "", shape).strip()
            names = names.split(",")
            value = value_of(command.name, names[-1], shape) if shape and shape != "REQUIRED" else None
            command.options.append(Option(names, description, value, shape.endswith("...")))
    return subcommands


# ---- bash

def bash_value(value):
    if value.kind == "files":
        return "_PROGRAM_files -f"
    if value.kind == "folders":
        return "_PROGRAM_files -d"
    if value.kind == "free":
        return ":"
    words = f'"$(_PROGRAM_{value.function} "${{COMP_WORDS[@]:0:COMP_CWORD}}")"' if value.kind == "ask" \
        else shlex.quote(" ".join(value.words))
    return ("_PROGRAM_list " if value.b_list else "_PROGRAM_words ") + words


BASH = r'''
_PROGRAM_words() {
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$cur")
}

# Words joined by commas: the last one is completed.
_PROGRAM_list() {
    local before=
    [[ $cur == *,* ]] && before=${cur%,*},
    mapfile -t COMPREPLY < <(compgen -P "$before" -W "$1" -- "${cur##*,}")
}

_PROGRAM_files() {
    mapfile -t COMPREPLY < <(compgen "$1" -- "$cur")
    compopt -o filenames 2>/dev/null
}

_PROGRAM() {
    local cur=${COMP_WORDS[COMP_CWORD]} previous= command= word
    COMPREPLY=()
    ((COMP_CWORD > 0)) && previous=${COMP_WORDS[COMP_CWORD - 1]}
    # --option=value is three words.
    if [[ $cur == = ]]; then
        cur=
    elif [[ $previous == = ]]; then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
        COMMANDS)
            command=$word
            break
            ;;
        esac
    done

    case $command:$previous in
VALUES    esac
    case $command:$cur in
OPTIONS    esac
}
complete -F _PROGRAM PROGRAM
'''


def bash_functions():
    return "".join(f"\n_PROGRAM_{name}() {{\n    sh -c '{text}' sh \"$@\"\n}}\n" for name, text in functions.items())


def bash(program, commands):
    values, options = "", ""
    for command in commands:
        for option in command.options:
            if option.value:
                patterns = " | ".join(f"{command.name}:{name}" for name in option.names)
                values += f"    {patterns})\n        {bash_value(option.value)}\n        return\n        ;;\n"
        words = " ".join(option.names[-1] for option in command.options)
        options += f"    {command.name}:-*) _PROGRAM_words '{words}' ;;\n"
        if not command.name and len(commands) > 1:
            words = " ".join([other.name for other in commands if other.name] + [words])
            options += f"    :*) _PROGRAM_words '{words}' ;;\n"
        elif command.argument:
            options += f"    {command.name}:*) {bash_value(command.argument)} ;;\n"
        else:
            options += f"    {command.name}:*) _PROGRAM_words '{words}' ;;\n"
    names = " | ".join(command.name for command in commands if command.name) or "'no command'"
    return bash_functions() + BASH.replace("COMMANDS", names).replace("VALUES", values).replace("OPTIONS", options)


# ---- zsh

def zsh_text(text):
    return re.sub(r"([\[\]:\\])", r"\\\1", text)


def zsh_value(value, name):
    action = {"files": "_files", "folders": "_files -/", "free": " "}.get(value.kind)
    if value.kind == "words":
        words = " ".join(value.words)
        action = f"_sequence compadd - {words}" if value.b_list else "(" + words.replace(":", "\\:") + ")"
    elif value.kind == "ask":
        action = f"_PROGRAM_{value.function}"
    return f":{zsh_text(name.lstrip('-'))}:{action}"


def zsh_arguments(command):
    result = []
    for option in command.options:
        tail = f"[{zsh_text(option.text)}]" + (zsh_value(option.value, option.names[-1]) if option.value else "")
        alone = "*" if option.b_repeats else "(" + " ".join(option.names) + ")" if len(option.names) > 1 else ""
        for name in option.names:
            # --option=value, or two words.
            equals = "=" if option.value and name.startswith("--") else ""
            result.append(shlex.quote(f"{alone}{name}{equals}{tail}"))
    if command.argument:
        result.append(shlex.quote("*" + zsh_value(command.argument, "argument")))
    return " \\\n        ".join(result)


def zsh_functions():
    text = ""
    for name, lines in functions.items():
        b_list = any(name == value[0] and option in LISTS for option, value in VALUES.items() if isinstance(value, tuple))
        add = "_sequence compadd -" if b_list else "compadd --"
        text += f'''
_PROGRAM_{name}() {{
    local -a found=("${{(@f)$(sh -c {shlex.quote(lines)} sh "$_PROGRAM_words[@]")}}")
    {add} $found
}}
'''
    return text


def zsh(program, commands):
    main = commands[0]
    text = zsh_functions() + '''
_PROGRAM() {
    local context state state_descr line
    typeset -A opt_args
    local -a _PROGRAM_words=("${(@)words[1,CURRENT-1]}")
'''
    if len(commands) == 1:
        return text + f"    _arguments \\\n        {zsh_arguments(main)}\n}}\n\n_PROGRAM \"$@\"\n"
    described = "\n".join("            " + shlex.quote(f"{zsh_text(other.name)}:{other.text}") for other in commands[1:])
    cases = "".join(f"        {other.name}) _arguments \\\n        {zsh_arguments(other)} ;;\n" for other in commands[1:])
    return text + f'''    _arguments -C \\
        {zsh_arguments(main)} \\
        '1:command:->command' '*::argument:->arguments'
    case $state in
    command)
        local -a commands=(
{described}
        )
        _describe -t commands command commands
        ;;
    arguments)
        case $words[1] in
{cases}        esac
        ;;
    esac
}}

_PROGRAM "$@"
'''


# ---- fish

def fish_value(value):
    if value.kind == "files":
        return " -r -F"
    if value.kind == "folders":
        return " -x -a '(__fish_complete_directories)'"
    if value.kind == "free":
        return " -x"
    words = f"(_PROGRAM_{value.function})" if value.kind == "ask" else " ".join(value.words)
    if value.b_list:
        words = f"(__fish_append , {words})"
    return f" -x -a {fish_quote(words)}"


def fish_quote(text):
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


def fish(program, commands):
    text = ""
    for name, lines in functions.items():
        text += f"\nfunction _PROGRAM_{name}\n    sh -c {fish_quote(lines)} sh (commandline -opc)\nend\n"
    text += "\ncomplete -c PROGRAM -f\n"
    for command in commands:
        condition = f"__fish_seen_subcommand_from {command.name}" if command.name else "__fish_use_subcommand"
        when = f"complete -c PROGRAM -n {fish_quote(condition)}" if len(commands) > 1 else "complete -c PROGRAM"
        if command.name:
            text += f"complete -c PROGRAM -n __fish_use_subcommand -a {command.name} -d {fish_quote(command.text)}\n"
        for option in command.options:
            names = "".join(f" -l {name[2:]}" if name.startswith("--") else f" -s {name[1:]}" for name in option.names)
            text += f"{when}{names}{fish_value(option.value) if option.value else ''} -d {fish_quote(option.text)}\n"
        if command.argument:
            value = fish_value(command.argument).replace(" -r", "").replace(" -x", "")
            text += f"{when}{value}\n" if value else ""
    return text


def main():
    program, folder = sys.argv[1:]
    name = os.path.basename(program)
    commands = [Command("")]
    commands += read_help(program, commands[0])
    for command in commands[1:]:
        read_help(program, command)
    os.makedirs(folder, exist_ok=True)
    for file, first, text in ((name, "", bash(name, commands)), ("_" + name, f"#compdef {name}\n", zsh(name, commands)),
                              (name + ".fish", "", fish(name, commands))):
        with open(os.path.join(folder, file), "w", encoding="utf-8") as out:
            out.write(f"{first}# Completion for {name}, made from its help.\n" + text.replace("PROGRAM", name))


if __name__ == "__main__":
    main()
