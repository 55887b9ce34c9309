"""Reads C++ sources and the interface, for the checks of the documents and for the mutants."""

import dataclasses
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[1]

TOKEN = re.compile(
    r"""
    (?P<skip>   \s+ | //[^\n]* | /\*.*?\*/ | ^[ ]*\#[^\n]* )
  | (?P<string> "(?:\\.|[^"\\])*" )
  | (?P<char>   '(?:\\.|[^'\\])+' )
  | (?P<number> \d(?:'?[\w.])* )
  | (?P<name>   [A-Za-z_]\w* )
  | (?P<sign>   \.\.\. | <<= | >>= | -> | :: | \+\+ | -- | << | [=!<>+\-*/|&^%]= | && | \|\| | . )
""",
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)
OPENING, CLOSING = "([{", ")]}"


@dataclasses.dataclass
class Token:
    kind: str
    text: str
    start: int
    end: int


def tokens_of(code):
    """The tokens of a source, without comments and directives."""
    return [
        Token(match.lastgroup, match.group(), match.start(), match.end())
        for match in TOKEN.finditer(code)
        if match.lastgroup != "skip"
    ]


def closing(tokens, opening):
    """The index of the bracket that closes the bracket at `opening`."""
    depth = 0
    for index in range(opening, len(tokens)):
        depth += (tokens[index].text in OPENING) - (tokens[index].text in CLOSING)
        if depth == 0:
            return index
    raise ValueError("a bracket is not closed")


def split(tokens, separator):
    """The tokens between separators that are outside of brackets."""
    parts, depth = [[]], 0
    for token in tokens:
        depth += (token.text in OPENING) - (token.text in CLOSING)
        if depth == 0 and token.text == separator:
            parts.append([])
        else:
            parts[-1].append(token)
    return parts


def spelling(tokens):
    return " ".join(token.text for token in tokens)


@dataclasses.dataclass
class Call:
    """A call or a declaration."""

    position: int
    arguments: list  # of lists of tokens


def calls(code, *functions):
    """The calls of functions that are spelled so, such as mainLog.write, in the order of the code."""
    spellings = [spelling(tokens_of(function + "(")) for function in functions]
    tokens = tokens_of(code)
    for index, token in enumerate(tokens):
        for function, words in zip(functions, spellings):
            opening = index + words.count(" ")
            if spelling(tokens[index : opening + 1]) == words:
                inside = tokens[opening + 1 : closing(tokens, opening)]
                yield function, Call(token.start, split(inside, ",") if inside else [])


def daemon_sources(*endings):
    """(name, text) of the daemon's sources with these endings."""
    folder = ROOT / "Src" / "Dockhand"
    return [(path.name, path.read_text()) for path in sorted(folder.iterdir()) if path.suffix in endings]


# The functions of a log by the level of their lines.
LEVELS = {"trace": 2, "notice": 3, "warning": 4, "error": 5}
LOGS = {"usbClientLog": "Dockhand.UsbClient", "mainLog": "Dockhand.main", "serverLog": "Dockhand.UsbServer"}

# The calls that give a line number: their module, or None if their first argument names it, and the place of the
# number among the arguments.
CALLEES = {
    **{f"{log}.{level}": (module, 0) for log, module in LOGS.items() for level in LEVELS},
    "forceUnmount": ("Dockhand.UsbClient", 1),
    "executeShellCommand": ("Dockhand.UsbClient", 1),
    "TlogContext::GetLogContext": (None, 2),
}


@dataclasses.dataclass
class CallSite:
    """A place that gives a line number."""

    file: str
    function: int  # how many function bodies of the file end before it
    routine: str
    callee: str
    module: str
    number: int
    arguments: list  # of lists of tokens

    def __str__(self):
        return f"{self.module} {self.number}"


def call_sites(files):
    """The call sites of (name, text) pairs, and the calls whose number cannot be read."""
    sites, unreadable = [], []
    for name, code in files:
        for callee, call in calls(code, *CALLEES):
            module, place = CALLEES[callee]
            number = spelling(call.arguments[place]) if place < len(call.arguments) else ""
            if number in ("int sourceLine", "sourceLine"):
                continue
            if not number.isdigit():
                unreadable.append(f"{name}: {callee}(...{number}")
                continue
            before = code[: call.position]
            # The last function that begins at the left margin.
            routine = ([""] + re.findall(r"^\w[^\n;]*?(\w+)\(", before, re.MULTILINE))[-1]
            sites.append(
                CallSite(
                    name,
                    before.count("\n}"),
                    routine,
                    callee,
                    module or call.arguments[0][0].text.strip('"'),
                    int(number),
                    call.arguments,
                )
            )
    return sites, unreadable


def signatures_of_the_interface():
    """Name: "result name(type argument, ...)", of every operation in its order."""
    service = (ROOT / "rpc" / "usb_rpc.thrift").read_text().partition("service usb_rpc_gen_ ")[2]
    code = re.sub(r"/\*.*?\*/", "", service, flags=re.DOTALL)
    signatures = {}
    for result, name, arguments in re.findall(r"(\S+) (\w+)\(([^)]*)\)", code):
        arguments = ", ".join(re.findall(r"\d+: (\w+ \w+)", arguments))
        signatures[name] = f"{result} {name}({arguments})"
    return signatures


def rows_of_the_mount_table():
    """(type of libblkid, type of mount(2), flags, options), of each row."""
    table = (ROOT / "Src" / "Dockhand" / "MountTable.h").read_text()
    return re.findall(r'{"(.*?)", "(.*?)", (.*?), "(.*?)"}', table)


def file_systems():
    """The kernel's names of the file systems in the mount table, in its order."""
    return list(dict.fromkeys(name for _, name, _, _ in rows_of_the_mount_table()))
