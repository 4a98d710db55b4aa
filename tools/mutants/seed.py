"""Seeds faults: picks mutants by a seed and weaves them all into a copy of the sources, each behind a switch of mutants.h."""

import hashlib
import json
import pathlib
import re
import shlex
import subprocess
from dataclasses import asdict, dataclass

import clang.cindex as ci
from clang.cindex import CursorKind as K

ROOMS = ("usb", "capture", "sensors", "imaging", "automation", "thermal", "camera")
TURNED = {
    "<": ("<=",), "<=": ("<",), ">": (">=",), ">=": (">",), "==": ("!=",), "!=": ("==",),
    "+": ("-",), "-": ("+",), "*": ("+",), "/": ("*",), "%": ("/",), "&": ("|",), "|": ("&",), "^": ("|",),
    "<<": (">>",), ">>": ("<<",), "&&": ("||",), "||": ("&&",), "+=": ("-=",), "-=": ("+=",), "|=": ("&=",), "&=": ("|=",),
}
NUMBER = re.compile(r"(0[xX][0-9a-fA-F']+|[0-9][0-9']*(\.[0-9]*)?)[uUlLfF]*$")
DROPPED = (K.CALL_EXPR, K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR, K.UNARY_OPERATOR)
SEALED = 2
BODIES = {K.IF_STMT: slice(1, None), K.FOR_STMT: slice(-1, None), K.WHILE_STMT: slice(-1, None),
          K.CXX_FOR_RANGE_STMT: slice(-1, None), K.COMPOUND_STMT: slice(0, None)}


@dataclass
class Mutant:
    file: str    # from the root of the sources
    line: int
    start: int   # bytes that are replaced
    end: int
    was: str
    now: str     # what stands there while it is loose
    woven: str   # the same with its switch; @ is its number
    made: bool   # in a function that the compiler may run by itself


class Finder:
    def __init__(self, root):
        self.root, self.found, self.text, self.made = root, {}, {}, False

    def source(self, file):
        if file not in self.text:
            self.text[file] = (self.root / file).read_bytes()
        return self.text[file]

    def inside(self, location):
        if location.file is None:
            return None
        try:
            file = pathlib.Path(location.file.name).resolve().relative_to(self.root)
        except ValueError:
            return None
        return str(file) if file.parts[0] == "src" and file.parts[1] in ROOMS else None

    def add(self, file, cursor, now, woven, tail=0):
        start, end = cursor.extent.start, cursor.extent.end.offset + tail
        was = self.source(file)[start.offset:end].decode()
        self.found.setdefault((file, start.offset, end, now), Mutant(file, start.line, start.offset, end, was, now, woven, self.made))

    def operator(self, file, cursor):
        parts = list(cursor.get_children())
        if len(parts) != 2:
            return
        left, right = parts
        text = self.source(file)
        a, b = cursor.extent.start.offset, cursor.extent.end.offset
        if re.search(rb"if\s+constexpr\s*\($", text[:a]):
            return
        op = text[left.extent.end.offset:right.extent.start.offset].decode().strip()
        if op not in TURNED or left.extent.start.offset != a or right.extent.end.offset != b:
            return
        was, x, y = text[a:b].decode(), text[a:left.extent.end.offset].decode(), text[right.extent.start.offset:b].decode()
        for new in TURNED[op]:
            self.add(file, cursor, f"{x} {new} {y}", f"(mutants::Loose(@) ? (({x}) {new} ({y})) : ({was}))")

    def visit(self, cursor, constant):
        for child in cursor.get_children():
            file = self.inside(child.location)
            if file is None and cursor.kind == K.TRANSLATION_UNIT:
                continue
            if file:
                self.look(file, cursor, child, constant)
            before = self.made
            if child.kind in (K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.FUNCTION_TEMPLATE, K.VAR_DECL):
                self.made = self.made or "constexpr" in {t.spelling for t, _ in zip(child.get_tokens(), range(6))}
            self.visit(child, self.fixed(child, constant))
            self.made = before

    @staticmethod
    def fixed(cursor, constant):
        """Whether what stands below is computed by the compiler."""
        # Rows of the models are, with all the functions that make them.
        made = {K.FUNCTION_DECL: cursor.result_type, K.VAR_DECL: cursor.type}.get(cursor.kind)
        if constant == SEALED or made and made.spelling in ("ModelTraits", "const ModelTraits"):
            return SEALED
        if cursor.kind in (K.LAMBDA_EXPR, K.COMPOUND_STMT):
            return False
        if cursor.kind == K.VAR_DECL:
            words = {t.spelling for t, _ in zip(cursor.get_tokens(), range(6))}
            function = cursor.semantic_parent.kind in (K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR, K.FUNCTION_TEMPLATE)
            return bool({"constexpr", "constinit", "static"} & words) or not function
        return constant or cursor.kind in (K.ENUM_DECL, K.CASE_STMT, K.STATIC_ASSERT, K.TEMPLATE_NON_TYPE_PARAMETER)

    def look(self, file, parent, cursor, constant):
        if constant == SEALED:
            return
        a, b = cursor.extent.start.offset, cursor.extent.end.offset
        text = self.source(file)[a:b].decode(errors="replace")
        parts = list(parent.get_children())
        if cursor.kind in DROPPED and parent.kind in BODIES and cursor in parts[BODIES[parent.kind]]:
            # A macro's statement ends where the macro does, and a log line is nobody's behaviour.
            if self.source(file)[b:b + 1] == b";" and not re.match("KOV_|TraceLine|Log", text):
                self.add(file, cursor, ";", f"{{ if (!mutants::Loose(@)) {text}; }}", tail=1)
        if constant:
            return
        if cursor.kind in (K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR):
            self.operator(file, cursor)
        elif cursor.kind in (K.INTEGER_LITERAL, K.FLOATING_LITERAL) and NUMBER.match(text):
            around = self.source(file)[:a].rstrip()[-1:] + self.source(file)[b:].lstrip()[:1]
            if around in (b"<>", b"<,") or around == b"[]" and parent.kind in (K.VAR_DECL, K.FIELD_DECL):
                return  # of a template or an array
            self.add(file, cursor, f"({text} + 1)", f"(mutants::Loose(@) ? {text} + 1 : {text})")
        elif cursor.kind == K.CXX_BOOL_LITERAL_EXPR and text in ("true", "false"):
            self.add(file, cursor, f"!{text}", f"(mutants::Loose(@) != {text})")
        elif parent.kind in (K.IF_STMT, K.WHILE_STMT) and cursor == parts[0] and cursor.kind.is_expression():
            before = self.source(file)[:a].rstrip()
            if before.endswith(b"(") and not re.search(rb"constexpr\s*\($", before):
                self.add(file, cursor, f"!({text})", f"mutants::Loose(@) != static_cast<bool>({text})")


def commands(build):
    for entry in json.loads((build / "compile_commands.json").read_text()):
        args = entry.get("arguments") or shlex.split(entry["command"])
        args = [a for a in args[1:] if a not in ("-c", entry["file"])]
        if "-o" in args:
            at = args.index("-o")
            del args[at:at + 2]
        yield pathlib.Path(entry["file"]), [a for a in args if not a.startswith("-Wno-")]


def parse(build, root, rooms=ROOMS):
    resources = subprocess.run(["clang", "-print-resource-dir"], capture_output=True, text=True, check=True).stdout.strip()
    index = ci.Index.create()
    seen = set()
    for file, args in commands(build):
        try:
            parts = file.relative_to(root / "src").parts
        except ValueError:
            continue
        if parts[0] in rooms and file not in seen:
            seen.add(file)
            yield file, index.parse(str(file), [*args, "-w", "-ferror-limit=0", "-resource-dir", resources])


def weave(root, original, mutants):
    """Writes the files of these mutants anew, and those without any as they were; untouched content keeps its date."""
    for file, text in original.items():
        for n, m in sorted(((n, m) for n, m in enumerate(mutants) if m and m.file == file), key=lambda p: -p[1].start):
            text = text[:m.start] + m.woven.replace("@", str(n)).encode() + text[m.end:]
        path = root / file
        if path.read_bytes() != text:
            path.write_bytes(text)


def choose(sites, count, seed, sources):
    """Without two that overlap: each stands in the text of the sources, not in another mutant.

    The order hangs on what the lines say, so that a change of some of them leaves the choice of the others alone.
    """
    numbers = {}

    def rank(m):
        words = (m.file, *lines(sources[m.file], m).values())
        numbers[words] = numbers.get(words, 0) + 1
        return hashlib.sha256(repr((seed, words, numbers[words])).encode()).digest()

    sites = sorted(sites, key=rank)
    taken, spans = [], {}
    for m in sites:
        if len(taken) == count:
            break
        others = spans.setdefault(m.file, [])
        if all(m.end <= a or b <= m.start for a, b in others):
            others.append((m.start, m.end))
            taken.append(m)
    return taken


def refused(build, root, mutants):
    """Numbers of those that do not compile, such as a constant that must be one."""
    numbers = set()
    for _, unit in parse(build, root, {m.file.split("/")[1] for m in mutants if m}):
        for d in unit.diagnostics:
            if d.severity < ci.Diagnostic.Error or d.location.file is None:
                continue
            place = d.location
            lines = pathlib.Path(place.file.name).read_text().split("\n")
            hits = re.findall(r"mutants::Loose\((\d+)\)", lines[place.line - 1])
            numbers.update(map(int, hits))
            if not hits:
                raise SystemExit(f"{place.file}:{place.line}: {d.spelling}")
    return numbers


def seed_faults(root, build, count, seed, only):
    finder = Finder(root)
    for _, unit in parse(build, root):
        finder.visit(unit.cursor, False)
    sites = [m for _, m in sorted(finder.found.items()) if m.file.startswith(only)]
    # A few more than asked for: some do not compile.
    mutants = choose(sites, count + count // 4 + 5, seed, finder.text)
    weave(root, finder.text, mutants)
    while bad := refused(build, root, mutants):
        mutants = [None if n in bad else m for n, m in enumerate(mutants)]
        weave(root, finder.text, mutants)
    good = [m for m in mutants if m][:count]
    weave(root, finder.text, good)
    return len(sites), [asdict(m) | lines(finder.text[m.file], m) for m in good]


def lines(text, m):
    """The lines that it changes, as one line each."""
    a, b = text.rfind(b"\n", 0, m.start) + 1, text.find(b"\n", m.end)
    old, new = text[a:b], text[a:m.start] + m.now.encode() + text[m.end:b]
    return {"old": " ".join(old.decode().split()), "new": " ".join(new.decode().split())}
