"""The small faults that mutation testing makes: finds every place in a C or C++ source where an operator applies.

`mutants.py --self-test` checks each operator against a table of lines. The sources are read as text, in the layout
of clang-format: operators stand between blanks, and a function ends at the brace that closes its outermost block.
What does not compile afterwards is no concern of this file; mutate.py draws another mutant instead.
"""

import bisect
import re
import sys
from dataclasses import dataclass

# What one error number becomes. Every other error number becomes EINVAL.
OTHER_ERROR = {"EINVAL": "EPERM"}
ERRORS = (
    "E2BIG EACCES EADDRINUSE EAGAIN EBADF EBUSY ECHILD ECONNABORTED ECONNRESET EEXIST EFAULT EFBIG EINPROGRESS EINTR "
    "EINVAL EIO EISCONN EISDIR EMFILE EMSGSIZE ENAMETOOLONG ENOBUFS ENODEV ENOENT ENOEXEC ENOMEM ENOMSG ENOSPC ENOSYS "
    "ENOTCONN ENOTDIR ENOTSOCK ENOTSUP EOVERFLOW EOWNERDEAD EPERM EPIPE EPROTOTYPE ERANGE ESRCH ESTALE ETIMEDOUT EXDEV"
).split()

RELATIONS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
TRUTHS = {"TRUE": "FALSE", "FALSE": "TRUE", "true": "false", "false": "true"}

NO_STATEMENT = r"(?!(?:return|delete|goto|using|typedef|else|case|default|throw|new|const|constexpr|static|extern)\b)"
CALL = re.compile(NO_STATEMENT + r"[\w:.\[\]*&()<>-]+\(.*\);$", re.S)
ASSIGNMENT = re.compile(NO_STATEMENT + r"[*(]*[\w:.\[\]()>-]+(?: [+-] [\w.>-]+\]?)* (?:[-+*/%&|^]|<<|>>)?= .*;$", re.S)
STEP = re.compile(r"(?:\+\+|--)[\w.\[\]()>*-]+;$|[\w.\[\]()>-]+(?:\+\+|--);$")
JUMP = re.compile(r"(?:break|continue);$")
LOCK = re.compile(r"(?:const )?\w*Lock \w+(?:\(.*\))?;$", re.S)
GUARD = re.compile(r"(?:const )?(?:KeepErrno|NoCancel|Fd|Keep\w+|No\w+|ObjectRef|\w*Guard) \w+(?:\(.*\))?;$", re.S)
LOCKING_CALL = re.compile(r"[\w:.>-]*(?:(?<![bcBC])lock|Lock)\w*\(")


@dataclass(frozen=True)
class Mutant:
    """One change: the text between two offsets of a file becomes another."""

    path: str
    line: int  # counted from 1
    operator: str
    number: int  # counts the operator's places in the line, from 1
    start: int
    end: int
    text: str

    @property
    def identity(self):
        return f"{self.path}:{self.line}:{self.operator}:{self.number}"

    def apply(self, source):
        return source[: self.start] + self.text + source[self.end :]

    def lines(self, source):
        """The first line that differs, before and after."""
        before, after = source.split("\n"), self.apply(source).split("\n")
        at = next(i for i, pair in enumerate(zip(before, after)) if pair[0] != pair[1])
        return before[at].strip(), after[at].strip()


def blank(text):
    return re.sub(r"[^\n]", " ", text)


def mask(source):
    """The source with blanks for comments, preprocessor lines and static assertions, and 's' for literal text."""
    pattern = re.compile(
        r"//[^\n]*|/\*.*?\*/|^[ \t]*#(?:\\\n|[^\n])*|\"(?:\\.|[^\"\\\n])*\"|(?<![0-9a-fA-F])'(?:\\.|[^'\\\n])*'",
        re.S | re.M,
    )

    def cover(match):
        text = match.group()
        if text[0] in "\"'":
            return text[0] + "s" * (len(text) - 2) + text[0]
        return blank(text)

    masked = pattern.sub(cover, source)
    return re.sub(r"\b(?:static_assert\([^;]*;|__attribute__\(\(.*?\)\))", lambda match: blank(match.group()), masked)


def matching(text, opening):
    """The offset of the parenthesis that closes the one at an offset, or -1."""
    depth = 0
    for at in range(opening, len(text)):
        if text[at] in "([{":
            depth += 1
        elif text[at] in ")]}":
            depth -= 1
            if depth == 0:
                return at
    return -1


def condition_start(text, question):
    """Where the condition before a '?' starts."""
    depth, at = 0, question - 1
    while at >= 0:
        if text[at] in ")]}":
            depth += 1
        elif text[at] in "([{":
            if depth == 0:
                break
            depth -= 1
        elif depth == 0 and (text[at] in ";,?" or re.match(r" [:=] ", text[at - 1 : at + 2])):
            break
        elif depth == 0 and re.match(r"\breturn\b", text[max(at - 6, 0) : at + 1][-6:]):
            break
        at -= 1
    start = at + 1
    return start + len(text[start:question]) - len(text[start:question].lstrip())


class Source:
    """The mutants and functions of one file."""

    def __init__(self, path, source):
        self.path, self.source = path, source
        self.masked = mask(source)
        self.line_starts = [0] + [match.end() for match in re.finditer("\n", source)]
        self.found = []  # (start, end, operator, text)

    def line_of(self, offset):
        return bisect.bisect_right(self.line_starts, offset)

    def add(self, operator, start, end, text):
        # The lines keep their numbers.
        missing = self.source.count("\n", start, end) - text.count("\n")
        self.found.append((start, end, operator, text + "\n" * missing))

    def function_lines(self, line):
        """The first and last line of the outermost block that holds a line, or None."""
        lines = self.masked.split("\n")
        first = line - 1
        while first >= 0 and not re.match(r"[\w\[]", lines[first]):
            if lines[first].startswith("}") and first != line - 1:
                return None
            first -= 1
        # A declaration ends before any brace opens.
        rest = "\n".join(lines[max(first, 0) : line + 20])
        if first < 0 or lines[first].startswith("namespace") or not re.match(r"[^;{]*\{", rest):
            return None
        last = line - 1
        while last < len(lines) and not lines[last].startswith("}"):
            last += 1
        return (first + 1, last + 1) if last < len(lines) else None

    def mutants(self):
        self.found = []
        self.negate()
        self.negate_return()
        self.replace_tokens()
        self.drop()
        counts, result = {}, []
        for start, end, operator, text in sorted(self.found):
            key = self.line_of(start), operator
            counts[key] = counts.get(key, 0) + 1
            result.append(Mutant(self.path, key[0], operator, counts[key], start, end, text))
        return result

    def negate(self):
        for match in re.finditer(r"\b(?:if|while) \(", self.masked):
            closing = matching(self.masked, match.end() - 1)
            condition = self.masked[match.end() : closing]
            if closing != -1 and ";" not in condition and not re.search(r"\w \*?\w+ = ", condition):
                self.add("negate", match.end(), closing, f"!({self.source[match.end():closing]})")
        for match in re.finditer(r"(?<= )\?(?= )", self.masked):
            start = condition_start(self.masked, match.start())
            condition = self.source[start : match.start()].rstrip()
            self.add("negate", start, start + len(condition), f"!({condition})")
        for match in re.finditer(r"\bfor \(", self.masked):
            closing = matching(self.masked, match.end() - 1)
            parts = self.masked[match.end() : closing].split(";")
            if closing != -1 and len(parts) == 3 and parts[1].strip():
                start = match.end() + len(parts[0]) + 2
                end = match.end() + len(parts[0]) + 1 + len(parts[1])
                self.add("negate", start, end, f"!({self.source[start:end]})")

    def negate_return(self):
        for match in re.finditer(r"\breturn ([^;{}]*);", self.masked):
            value = match.group(1)
            if re.search(r" (?:==|!=|<|>|<=|>=|&&|\|\|) |^!", value) and " ? " not in value:
                self.add("negate", match.start(1), match.end(1), f"!({self.source[match.start(1):match.end(1)]})")

    def replace_tokens(self):
        text = self.masked
        for match in re.finditer(r"(?<=\s)(?:[<>]=?|[=!]=)(?=\s)", text):
            if not re.search(r"template\s*$|\boperator\s*$", text[: match.start()][-20:]):
                self.add("relation", *match.span(), RELATIONS[match.group()])
        for match in re.finditer(r"(?<= )(?:&&|\|\|)(?=\s)", text):
            self.add("logic", *match.span(), "||" if match.group() == "&&" else "&&")
        for match in re.finditer(r"(?<= [+-] )1(?![\w.])", text):
            self.add("bound", *match.span(), "0")
        for match in re.finditer(r"\b(?:" + "|".join(ERRORS) + r")\b", text):
            self.add("error", *match.span(), OTHER_ERROR.get(match.group(), "EINVAL"))
        for match in re.finditer(r"\b(?:TRUE|FALSE|true|false)\b", text):
            self.add("truth", *match.span(), TRUTHS[match.group()])
        for match in re.finditer(r"(?<=\breturn )(?:0|-1)(?=;)", text):
            self.add("truth", *match.span(), "-1" if match.group() == "0" else "0")
        # A buffer may be longer than it must, and every negative number stands for an absent descriptor or an error.
        sized = [match.span(1) for match in re.finditer(r"^\s+(?:\w+ )*[\w:]+ \w+\[([^\]]*)\](?: = .*)?;$", text, re.M)]
        for match in re.finditer(r"(?<![\w.-])(?:0[xX][0-9a-fA-F]+|[0-9]+)([uUlL]*)(?![\w.])", text):
            if any(start <= match.start() < end for start, end in sized):
                continue
            digits = match.group()[: len(match.group()) - len(match.group(1))]
            octal = len(digits) > 1 and digits.isdigit() and digits[0] == "0"
            value = int(digits, 8 if octal else 0) + 1
            form = "0x{:X}" if digits[:2] in ("0x", "0X") else "0{:o}" if octal else "{}"
            self.add("constant", *match.span(), form.format(value) + match.group(1))
        for match in re.finditer(r"(?<![\w.>:])k[A-Z]\w*\b(?!\s*(?:=|\[\]|\{))", text):
            before = text[self.line_starts[self.line_of(match.start()) - 1] : match.start()]
            if not re.search(r"\b(?:constexpr|const) [\w:<> *]*$", before) and not any(
                start <= match.start() < end for start, end in sized
            ):
                self.add("constant", *match.span(), f"({match.group()} + 1)")

    def drop(self):
        """A statement that starts a line and ends one is left out."""
        for match in re.finditer(r"(?<=[;{}:])[ ]*\n\s*([^\s;{}#][^;{}]*;)[ ]*$", self.masked, re.M):
            statement = match.group(1)
            flat = re.sub(r"\s*\n\s*", " ", statement)
            if LOCK.match(flat):
                operator = "lock"
            elif GUARD.match(flat):
                operator = "guard"
            elif CALL.match(flat):
                operator = "lock" if LOCKING_CALL.match(flat) else "drop"
            elif ASSIGNMENT.match(flat) or STEP.match(flat) or JUMP.match(flat):
                operator = "drop"
            else:
                continue
            self.add(operator, *match.span(1), ";")


SELF_TEST = [
    # source, operator, what its mutants make of the changed line
    ("    if (a == b) {", "negate", ["if (!(a == b)) {"]),
    ("    while (f(a) && !b) {", "negate", ["while (!(f(a) && !b)) {"]),
    ("    if (const X x = f()) {", "negate", []),
    ("    x = a < 0 ? b : c;", "negate", ["x = !(a < 0) ? b : c;"]),
    ("    return a ? b : c;", "negate", ["return !(a) ? b : c;"]),
    ("    f(x, a.b() ? 1 : 2);", "negate", ["f(x, !(a.b()) ? 1 : 2);"]),
    ("    return a && b;", "negate", ["return !(a && b);"]),
    ("    return a;", "negate", []),
    ("    for (int i = 0; i < n; ++i) {", "negate", ["for (int i = 0; !(i < n); ++i) {"]),
    ("    if (a ||\n        b) {", "negate", ["if (!(a ||"]),
    ("    x = a < b && c >= d;", "relation", ["x = a <= b && c >= d;", "x = a < b && c > d;"]),
    ("    x->y = v<int>(z) << 2;", "relation", []),
    ("    if (a != 0) {", "relation", ["if (a == 0) {"]),
    ("    x = a && b || c;", "logic", ["x = a || b || c;", "x = a && b && c;"]),
    ("    x = y[i - 1] + 10;", "bound", ["x = y[i - 0] + 10;"]),
    ("    errno = EINVAL;", "error", ["errno = EPERM;"]),
    ("    return Fail(ENOMEM);", "error", ["return Fail(EINVAL);"]),
    ("    return TRUE;", "truth", ["return FALSE;"]),
    ("    return -1;", "truth", ["return 0;"]),
    ("    return 0;", "truth", ["return -1;"]),
    ("    x = 0xFF + 7u;", "constant", ["x = 0x100 + 7u;", "x = 0xFF + 8u;"]),
    ("    mode = 0647;", "constant", ["mode = 0650;"]),
    ("    x = kLimit * y;", "constant", ["x = (kLimit + 1) * y;"]),
    ("constexpr int kLimit = 3;", "constant", ["constexpr int kLimit = 4;"]),
    ("    x = f(\"1 == 2\", '3');  // if (4 < 5)", "constant", []),
    ("#define X 3", "constant", []),
    ("    char path[32];", "constant", []),
    ("    fd = -1;", "constant", []),
    ("static_assert(sizeof(X) == 40 &&\n              Y == 3);", "constant", []),
    ("    a();\n    b->c = d;\n", "drop", [";"]),
    ("    a();\n    // why\n    free(d);\n", "drop", [";"]),
    ("    a();\n\n    ++x->y;\n", "drop", [";"]),
    ("    if (a) {\n        break;\n    }\n", "drop", [";"]),
    ("    a();\n    log(\"x\",\n        y);\n", "drop", [";"]),
    ("    a();\n    int b = c;\n    return d;\n", "drop", []),
    ("    a();\n    const auto b = c(d);\n", "drop", []),
    ("    x = f(\n        a, b);\n", "drop", []),
    ("    a();\n    const MutexLock lock(&m);\n", "lock", [";"]),
    ("    a();\n    TableLock lock;\n", "lock", [";"]),
    ("    a();\n    lock.unlock();\n", "lock", [";"]),
    ("    a();\n    pthread_mutex_unlock(&m);\n", "lock", [";"]),
    ("    a();\n    clock_gettime(a, &b);\n", "lock", []),
    ("    a();\n    vlliBlockInPoll(a, b);\n", "lock", []),
    ("    a();\n    const KeepErrno keep_errno;\n", "guard", [";"]),
    ("    a();\n    const NoCancel no_cancel;\n", "guard", [";"]),
]


def self_test():
    failures = 0
    for source, operator, expected in SELF_TEST:
        mutants = [mutant for mutant in Source("x.cpp", source).mutants() if mutant.operator == operator]
        made = [mutant.lines(source)[1] for mutant in mutants]
        lengths = {mutant.apply(source).count("\n") for mutant in mutants} | {source.count("\n")}
        if made != expected or len(lengths) != 1:
            failures += 1
            print(f"FAILED {operator}: {source!r}\n  expected {expected}\n  made     {made}")
    text = "namespace {\n\nint kTop = 3;\n\nint f(\n    int a) {\n    g();\n\n    h();\n}\n\n}  // namespace\n"
    functions = Source("x.cpp", text)
    for line, expected in ((3, None), (7, (5, 10)), (9, (5, 10)), (6, (5, 10))):
        if functions.function_lines(line) != expected:
            failures += 1
            print(f"FAILED function of line {line}: {functions.function_lines(line)}, expected {expected}")
    print(f"{len(SELF_TEST) + 4 - failures} passed, {failures} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    if sys.argv[1:] != ["--self-test"]:
        sys.exit("usage: mutants.py --self-test")
    sys.exit(self_test())
