"""Mutation testing: the work behind scripts/mutate.sh, which installs what this needs.

The library and its tests are built once, from a copy of the tree. A mutant is then one compilation (of every user for
a header) and, for each test program that runs the function it is in, one link and one run, until a test fails. Which
functions a program runs is measured once per tree, with a build that marks what runs (covered.c). So a mutant that
survives has passed every test that could notice it.
"""

import argparse
import concurrent.futures
import contextlib
import fcntl
import glob
import hashlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import threading
import time

import mutants as generator

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
LIB = os.path.join(ROOT, "scripts", "lib")
WORK = os.path.join(ROOT, "build", "mutate")
TREE = os.path.join(WORK, "tree")
BUILD = os.path.join(WORK, "build")
OBJECTS = "src/CMakeFiles/vwincompat_objects.dir/"
EQUIVALENT = os.path.join(ROOT, "tests", "mutants.equivalent")

# A run that takes this many seconds and this many times the usual is a hang.
LIMIT_SECONDS, LIMIT_FACTOR = 20, 8
CONFIGURATION = 1  # changes when what is stored under build/mutate means something else


class Trouble(Exception):
    """What went wrong with the run itself."""


def run(command, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options)
    if done.returncode != 0:
        shown = command if isinstance(command, str) else " ".join(command)
        raise Trouble(f"{shown[:300]}\n{done.stdout[-4000:]}")
    return done.stdout


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


# ---- the tree and its build


def copy_tree():
    """Copies what git knows or would add to TREE, and leaves alone what has not changed. Returns a digest of it."""
    listed = run(["git", "-C", ROOT, "ls-files", "-co", "--exclude-standard", "-z"]).split("\0")
    digest, wanted = hashlib.sha256(b"%d" % CONFIGURATION), set()
    for name in sorted(filter(None, listed)):
        source, target = os.path.join(ROOT, name), os.path.join(TREE, name)
        if not os.path.isfile(source):
            continue
        wanted.add(name)
        with open(source, "rb") as file:
            content = file.read()
        if re.match(r"src/|include/|tests/(?!mutants)|tools/|cmake/|CMakeLists|scripts/lib/covered", name):
            digest.update(name.encode() + b"\0" + content)
        old = None
        if os.path.isfile(target):
            with open(target, "rb") as file:
                old = file.read()
        if old != content:
            os.makedirs(os.path.dirname(target), exist_ok=True)
            shutil.copy(source, target)
    for directory, _, files in os.walk(TREE):
        for file in files:
            path = os.path.join(directory, file)
            if os.path.relpath(path, TREE) not in wanted:
                os.unlink(path)
    return digest.hexdigest()


def build_tree(jobs):
    flags = "-O1 -w -ffile-prefix-map=%s=." % TREE
    linker = "-fuse-ld=lld"
    run(
        ["cmake", "-G", "Ninja", "-S", TREE, "-B", BUILD, "-DCMAKE_BUILD_TYPE=None", f"-DCMAKE_CXX_FLAGS={flags}",
         f"-DCMAKE_C_FLAGS={flags}", f"-DCMAKE_EXE_LINKER_FLAGS={linker}", f"-DCMAKE_SHARED_LINKER_FLAGS={linker}",
         f"-DCMAKE_MODULE_LINKER_FLAGS={linker}", "-DVLL_BUILD_EXAMPLES=OFF"]
    )
    run(["ninja", "-C", BUILD, f"-j{jobs}"])


class Built:
    """What one build of the tree knows: how each object is compiled and each test program is linked."""

    def __init__(self):
        commands = run(["ninja", "-C", BUILD, "-t", "commands"]).splitlines()
        commands = [line for line in commands if not line.startswith("ninja:")]
        self.compile, self.link, self.folder = {}, {}, {}
        for command in commands:
            output = re.search(r" -o (\S+)", command)
            source = re.search(r" -c (\S+)$", command)
            if source and f" -o {OBJECTS}" in command:
                self.compile[os.path.relpath(source.group(1), TREE)] = command
            elif output and re.fullmatch(r"tests/\w+_test|src/libvwincompat\.so[.\d]*", output.group(1)):
                self.link[output.group(1)] = command
        self.library = next(name for name in self.link if name.startswith("src/"))
        self.soname = re.search(r"-soname,(\S+)", self.link[self.library]).group(1)
        for program in self.tests():
            own = re.search(r"tests/CMakeFiles/\w+\.dir/(\w+)/", self.link[program])
            self.folder[program] = own.group(1) if own else ""
        self.users = self.header_users()

    def tests(self):
        return sorted(name for name in self.link if name.startswith("tests/"))

    def object_of(self, source):
        return OBJECTS + os.path.relpath(source, "src") + ".o"

    def header_users(self):
        """The sources of the library that include each header of src/."""
        users, source = {}, None
        for line in run(["ninja", "-C", BUILD, "-t", "deps"]).splitlines():
            if not line.startswith(" "):
                path = line.split(":")[0]
                source = "src/" + path[len(OBJECTS) : -2] if path.startswith(OBJECTS) else None
            elif source:
                header = os.path.relpath(os.path.join(BUILD, line.strip()), TREE)
                if header.startswith("src/") and header != source:
                    users.setdefault(header, []).append(source)
        return users

    def sources_of(self, path):
        return [path] if path in self.compile else sorted(self.users.get(path, []))


# ---- running a test program


def environment(extra):
    kept = {name: value for name, value in os.environ.items() if not name.startswith(("GTEST", "LD_", "VLL_"))}
    return {**kept, "GTEST_FAIL_FAST": "1", "GTEST_BRIEF": "1", **extra}


def run_contained(program, limit, extra, writable="-", output=subprocess.DEVNULL):
    """Runs a test program in namespaces of its own: its exit status, or None when it did not end in time."""
    namespaces = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "--ipc", "--net", "--uts"]
    if os.geteuid() != 0:
        namespaces.append("--map-root-user")
    process = subprocess.Popen(
        namespaces + [os.path.join(LIB, "contained.sh"), writable, program], cwd=os.path.dirname(program),
        env=environment(extra), stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True,
    )
    try:
        return process.wait(limit)
    except subprocess.TimeoutExpired:
        return None
    finally:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()


# ---- what the tests run, and how long they take


class Coverage:
    """For each test program, its duration and the lines of src/ where a marked block starts that it ran."""

    def __init__(self, built, digest, jobs):
        self.built, self.jobs, self.index = built, jobs, None
        self.path = os.path.join(WORK, "coverage.json")
        if os.path.exists(self.path):
            stored = json.loads(read(self.path))
            if stored["digest"] == digest:
                self.durations, self.ran = stored["durations"], stored["ran"]
                return
        self.durations, self.ran = {}, {}
        self.measure()
        if not all(self.ran.values()):
            raise Trouble(f"nothing was traced of {[program for program, lines in self.ran.items() if not lines]}")
        write(self.path, json.dumps({"digest": digest, "durations": self.durations, "ran": self.ran}))

    def measure(self):
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            for program, seconds in zip(self.built.tests(), pool.map(self.time_one, self.built.tests())):
                self.durations[program] = seconds
            self.build()
            for program, lines in zip(self.built.tests(), pool.map(self.trace_one, self.built.tests())):
                self.ran[program] = lines

    def time_one(self, program):
        started = time.monotonic()
        with open(os.path.join(WORK, os.path.basename(program) + ".log"), "w", encoding="utf-8") as log:
            status = run_contained(os.path.join(BUILD, program), 600, {}, output=log)
        if status != 0:
            raise Trouble(f"{program} fails without any mutant: see {log.name}")
        os.unlink(log.name)
        return time.monotonic() - started

    def build(self):
        """Compiles the library with marks and links the programs over it, under build/mutate/covered."""
        self.directory = os.path.join(WORK, "covered")
        shutil.rmtree(self.directory, ignore_errors=True)
        prepare_programs(self.directory)
        for kind, variable in (("tests", "VLL_MARKS"), ("src", "VLL_LIBRARY_MARKS")):
            run(["cc", "-O1", "-fPIC", f'-DMARKS_VARIABLE="{variable}"', "-c", os.path.join(LIB, "covered.c"), "-o",
                 os.path.join(self.directory, kind + ".o")])

        def compile_marked(source):
            target = os.path.join(self.directory, self.built.object_of(source))
            os.makedirs(os.path.dirname(target), exist_ok=True)
            command = self.built.compile[source].replace(" -O1 ", " -O0 -g1 -fsanitize-coverage=trace-pc ")
            command = command.replace(f"-ffile-prefix-map={TREE}=.", "")
            run(re.sub(r" -o \S+", f" -o {target}", command), shell=True, cwd=BUILD)

        def link_marked(program):
            kind = program.split("/")[0]
            command = self.built.link[program].replace(" " + OBJECTS, f" {self.directory}/{OBJECTS}")
            output = os.path.join(self.directory, program if kind == "tests" else "src/" + self.built.soname)
            run(re.sub(r" -o \S+", f" -o {output} {self.directory}/{kind}.o", command), shell=True, cwd=BUILD)

        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            list(pool.map(compile_marked, self.built.compile))
            list(pool.map(link_marked, self.built.link))

    def trace_one(self, program):
        """Runs a program that marks, and returns the lines of the marked places, "src/...:N"."""
        marks = os.path.join(self.directory, "marks-" + os.path.basename(program))
        os.makedirs(marks)
        extra = {"LD_LIBRARY_PATH": os.path.join(self.directory, "src")}
        for variable, name in (("VLL_MARKS", "tests"), ("VLL_LIBRARY_MARKS", "src")):
            extra[variable] = os.path.join(marks, name)
            with open(extra[variable], "wb") as file:
                file.truncate(8 << 20)
        status = run_contained(os.path.join(self.directory, program), 600, extra, marks)
        if status != 0:
            print(f"mutate.sh: {program} fails while it is traced, status {status}", file=sys.stderr)
        lines = set()
        for binary, name in ((program, "tests"), ("src/" + self.built.soname, "src")):
            with open(os.path.join(marks, name), "rb") as file:
                content = file.read()
            # The mark stands behind the call.
            places = "\n".join(hex(match.start() - 1) for match in re.finditer(b"\1", content))
            if places:
                found = run(["addr2line", "-e", os.path.join(self.directory, binary)], input=places)
                for path, line in re.findall(r"^(/[^:\n]+):(\d+)", found, re.M):
                    path = os.path.relpath(os.path.normpath(path), TREE)
                    if path.startswith("src/"):
                        lines.add(f"{path}:{line}")
        shutil.rmtree(marks)
        return sorted(lines)

    def programs_for(self, mutant, function):
        """The programs that may notice a mutant, the most promising first, and whether any runs its function."""
        if self.index is None:
            self.index = {}
            for program, places in self.ran.items():
                for place in places:
                    path, line = place.split(":")
                    self.index.setdefault((path, int(line)), set()).add(program)
        folder = mutant.path.split("/")[1]

        def order(program):
            return self.built.folder[program] != folder, self.durations[program]

        if function is None and mutant.path.endswith(".h"):
            return sorted(self.built.tests(), key=order), True
        found = set()
        for (path, line), programs in self.index.items():
            # What initialises a file's statics is said to stand in its last line, the end of some function.
            if path == mutant.path and (function is None or function[0] <= line < max(function[1], function[0] + 1)):
                found |= programs
        own = {program for program in self.built.tests() if self.built.folder[program] == folder}
        return sorted(found or own, key=order), bool(found)


def prepare_programs(directory):
    """A directory with what test programs find beside themselves."""
    os.makedirs(os.path.join(directory, "src"), exist_ok=True)
    os.makedirs(os.path.join(directory, "tests"), exist_ok=True)
    shutil.copy(os.path.join(BUILD, "tests", "probe_module.so"), os.path.join(directory, "tests"))
    shutil.copytree(os.path.join(BUILD, "tools"), os.path.join(directory, "tools"), dirs_exist_ok=True)


# ---- one mutant

NOT_COMPILED, SAME_OBJECT, KILLED, SURVIVED = "did not compile", "same object", "killed", "survived"


class Judge:
    """Compiles mutants and runs tests over them. A worker's directory is its own while it judges."""

    def __init__(self, built, coverage, sources):
        self.built, self.coverage, self.sources = built, coverage, sources
        self.local = threading.local()
        self.count = 0
        self.lock = threading.Lock()

    def directory(self):
        if not hasattr(self.local, "directory"):
            with self.lock:
                self.count += 1
                self.local.directory = os.path.join(WORK, f"job{self.count}")
            shutil.rmtree(self.local.directory, ignore_errors=True)
            prepare_programs(self.local.directory)
        return self.local.directory

    def judge(self, mutant):
        """(verdict, what killed it). What does not link, such as a changed bound in a name, counts as not compiled."""
        directory = self.directory()
        source = self.sources[mutant.path]
        changed = os.path.join(directory, "changed", mutant.path)
        write(changed, mutant.apply(source.source))
        try:
            objects, same = {}, True
            for user in self.built.sources_of(mutant.path):
                target = self.compile(directory, user, mutant.path, changed)
                if target is None:
                    return NOT_COMPILED, ""
                with open(target, "rb") as new, open(os.path.join(BUILD, self.built.object_of(user)), "rb") as old:
                    if new.read() != old.read():
                        same = False
                        objects[self.built.object_of(user)] = target
            if same:
                return SAME_OBJECT, ""
            return self.test(directory, mutant, source.function_lines(mutant.line), objects)
        finally:
            os.unlink(changed)

    def compile(self, directory, user, path, changed):
        target = os.path.join(directory, self.built.object_of(user))
        os.makedirs(os.path.dirname(target), exist_ok=True)
        command = re.sub(r" -o \S+", f" -o {target}", self.built.compile[user])
        # No dependency files, and no place in the cache for what is compiled once.
        command = re.sub(r" -MD| -M[TF] \S+|\S*ccache ", " ", command)
        command = command.replace(" -ffile-prefix-map=", f" -ffile-prefix-map={directory}/changed=. -ffile-prefix-map=")
        if user == path:
            command = re.sub(r" -c \S+$", f" -c {changed}", command)
        else:
            command = command.replace(f" -I{TREE}/src", f" -I{directory}/changed/src -I{TREE}/src")
        try:
            done = subprocess.run(command, shell=True, cwd=BUILD, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  timeout=300, check=False)
        except subprocess.TimeoutExpired:
            return None
        return target if done.returncode == 0 else None

    def link(self, directory, program, objects):
        output = os.path.join(directory, program if program.startswith("tests/") else "src/" + self.built.soname)
        command = self.built.link[program]
        for name, target in objects.items():
            command = command.replace(f" {name} ", f" {target} ")
        done = subprocess.run(re.sub(r" -o \S+", f" -o {output}", command), shell=True, cwd=BUILD,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
        return output if done.returncode == 0 else None

    def test(self, directory, mutant, function, objects):
        programs, reached = self.coverage.programs_for(mutant, function)
        library_linked = False
        for program in programs:
            # The library itself is used by the C test and by the tools that are tested.
            if self.built.folder[program] in ("abi", "tools") and not library_linked:
                library_linked = self.link(directory, self.built.library, objects) is not None
            if program.endswith("abi_c_test"):
                binary = os.path.join(directory, program)
                shutil.copy(os.path.join(BUILD, program), binary)
            else:
                binary = self.link(directory, program, objects)
            if binary is None:
                return NOT_COMPILED, ""
            limit = max(LIMIT_SECONDS, LIMIT_FACTOR * self.coverage.durations[program])
            status = run_contained(binary, limit, {"LD_LIBRARY_PATH": os.path.join(directory, "src")})
            os.unlink(binary)
            if status == 125:
                raise Trouble(f"the namespaces for {program} could not be made")
            if status != 0:
                return KILLED, os.path.basename(program) + (" (no end)" if status is None else "")
        return SURVIVED, f"passed by {len(programs)}" if reached else "no test runs it"


# ---- which mutants


def read_equivalents():
    """[(file, operator, original, changed or None, reason)] of tests/mutants.equivalent."""
    entries, current = [], None
    if not os.path.exists(EQUIVALENT):
        return entries
    for number, line in enumerate(read(EQUIVALENT).splitlines(), 1):
        line = line.rstrip()
        if not line or line.startswith("#"):
            continue
        if re.match(r"src/\S+ \w+$", line):
            current = {"file": line.split()[0], "operator": line.split()[1], "changed": None, "reason": ""}
            entries.append(current)
        elif current is not None and re.match(r"\s+[-+=] ", line):
            key = {"-": "original", "+": "changed", "=": "reason"}[line.strip()[0]]
            current[key] = (current[key] + " " if key == "reason" and current[key] else "") + line.strip()[2:].strip()
        else:
            raise Trouble(f"{EQUIVALENT}:{number}: not understood: {line}")
    for entry in entries:
        if "original" not in entry or not entry["reason"]:
            raise Trouble(f"{EQUIVALENT}: an entry of {entry['file']} lacks its original line or its reason")
    return entries


class Candidates:
    """All mutants of the chosen files, but those known to be equivalent."""

    def __init__(self, tree, built, folder, file):
        names = sorted(name for kind in ("c", "cpp", "h")
                       for name in glob.glob(f"src/**/*.{kind}", root_dir=tree, recursive=True))
        names = [name for name in names if built is None or built.sources_of(name)]
        if folder is not None:
            wanted = os.path.normpath("src/" + re.sub("^src/", "", folder))
            names = [name for name in names if os.path.dirname(name) == wanted]
        if file is not None:
            names = [name for name in names if name == os.path.normpath(file)]
        if not names:
            raise Trouble("no such file or folder under src/")
        self.sources = {name: generator.Source(name, read(os.path.join(tree, name))) for name in names}
        equivalents, used = read_equivalents(), set()
        self.mutants, self.equivalent = [], []
        for name, source in self.sources.items():
            lines = source.source.split("\n")
            known = [entry for entry in equivalents if entry["file"] == name]
            for mutant in source.mutants():
                match = None
                for entry in known:
                    if entry["operator"] == mutant.operator and entry["original"] == lines[mutant.line - 1].strip():
                        if entry["changed"] in (None, mutant.lines(source.source)[1]):
                            match = entry
                if match is None:
                    self.mutants.append(mutant)
                else:
                    used.add(id(match))
                    self.equivalent.append((mutant, match["reason"]))
        for entry in equivalents:
            if entry["file"] in self.sources and id(entry) not in used:
                print(f"mutate.sh: {os.path.relpath(EQUIVALENT, ROOT)}: no such mutant any more: {entry['file']} "
                      f"{entry['operator']}: {entry['original']}", file=sys.stderr)

    def draw(self, seed):
        """The mutants in random order: each line gives one before any gives a second."""
        chance = random.Random(seed)
        by_line = {}
        for mutant in self.mutants:
            by_line.setdefault((mutant.path, mutant.line), []).append(mutant)
        lines = list(by_line.values())
        for line in lines:
            chance.shuffle(line)
        order = []
        while lines:
            chance.shuffle(lines)
            order += [line.pop() for line in lines]
            lines = [line for line in lines if line]
        return order

    def find(self, identity):
        for mutant in self.mutants + [known for known, _ in self.equivalent]:
            if mutant.identity == identity:
                return mutant
        raise Trouble(f"no mutant {identity}")


# ---- the run


class Report:
    def __init__(self, sources, total, verbose):
        self.sources, self.total, self.verbose = sources, total, verbose
        self.rows, self.counted, self.survivors = {}, 0, []
        self.started = time.monotonic()

    def add(self, mutant, verdict, detail):
        folder = os.path.dirname(mutant.path)
        row = self.rows.setdefault(folder, dict.fromkeys((NOT_COMPILED, SAME_OBJECT, KILLED, SURVIVED), 0))
        row[verdict] += 1
        if verdict in (KILLED, SURVIVED):
            self.counted += 1
        if verdict == SURVIVED:
            self.survivors.append(mutant)
            before, after = mutant.lines(self.sources[mutant.path].source)
            print(f"survived {mutant.identity}  ({detail})\n    - {before}\n    + {after}", flush=True)
        elif self.verbose:
            print(f"{verdict} {mutant.identity}  {detail}", flush=True)
        if sys.stderr.isatty() or self.counted % 20 == 0 and verdict in (KILLED, SURVIVED):
            print(f"  {self.counted} of {self.total} after {time.monotonic() - self.started:.0f} s: {verdict} "
                  f"{mutant.identity} {detail}", file=sys.stderr, flush=True)

    def table(self, seed, equivalent):
        print(f"\n{'folder':<16}{'mutants':>9}{'killed':>9}{'survived':>10}{'percent':>9}"
              f"{'not compiled':>14}{'same object':>13}")
        total = dict.fromkeys((NOT_COMPILED, SAME_OBJECT, KILLED, SURVIVED), 0)
        for folder in sorted(self.rows):
            self.row(folder, self.rows[folder])
            total = {key: total[key] + self.rows[folder][key] for key in total}
        self.row("all", total)
        print(f"{len(equivalent)} known to be equivalent were left out of the draw (tests/mutants.equivalent); "
              f"{time.monotonic() - self.started:.0f} s")
        percent = 100.0 * total[KILLED] / max(1, self.counted)
        print(f"mutants={self.counted} killed={total[KILLED]} survived={total[SURVIVED]} percent={percent:.1f} "
              f"seed={seed}", flush=True)
        return percent

    @staticmethod
    def row(name, row):
        counted = row[KILLED] + row[SURVIVED]
        percent = f"{100.0 * row[KILLED] / counted:.1f}" if counted else "-"
        print(f"{name:<16}{counted:>9}{row[KILLED]:>9}{row[SURVIVED]:>10}{percent:>9}"
              f"{row[NOT_COMPILED]:>14}{row[SAME_OBJECT]:>13}")


def judge_all(judge, order, wanted, jobs, report):
    """Judges mutants in their order until the wanted number compiled; the same ones whatever the speed of each."""
    order = iter(order)
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        pending = {}
        exhausted = False
        try:
            while True:
                while not exhausted and len(pending) < jobs and report.counted + len(pending) < wanted:
                    mutant = next(order, None)
                    if mutant is None:
                        exhausted = True
                        break
                    pending[pool.submit(judge.judge, mutant)] = mutant
                if not pending:
                    return
                for done in concurrent.futures.wait(pending, return_when=concurrent.futures.FIRST_COMPLETED).done:
                    verdict, detail = done.result()
                    report.add(pending.pop(done), verdict, detail)
        except BaseException:
            pool.shutdown(wait=False, cancel_futures=True)
            raise


def parse():
    parser = argparse.ArgumentParser(prog="mutate.sh", add_help=False)
    parser.add_argument("count", nargs="?", type=int, default=300)
    parser.add_argument("--seed", type=int)
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--folder")
    parser.add_argument("--file")
    parser.add_argument("--mutant", action="append")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 1)
    parser.add_argument("--at-least", type=float)
    parser.add_argument("--verbose", action="store_true")
    options = parser.parse_args()
    if options.count < 1 or options.jobs < 1:
        parser.error("the numbers of mutants and jobs start at 1")
    if options.seed is None:
        options.seed = random.SystemRandom().randrange(1, 1000000)
    return options


def main():
    options = parse()
    signal.signal(signal.SIGTERM, signal.default_int_handler)  # so that what runs is ended
    if options.list:
        candidates = Candidates(ROOT, None, options.folder, options.file)
        for mutant in candidates.mutants:
            before, after = mutant.lines(candidates.sources[mutant.path].source)
            print(f"{mutant.identity}\n    - {before}\n    + {after}")
        for mutant, reason in candidates.equivalent:
            print(f"{mutant.identity}  equivalent: {reason}")
        return 0
    with only_one_run():
        return measure(options)


@contextlib.contextmanager
def only_one_run():
    os.makedirs(WORK, exist_ok=True)
    with open(os.path.join(WORK, "lock"), "w", encoding="utf-8") as file:
        try:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise Trouble("another run is at work in build/mutate") from None
        yield


def measure(options):
    digest = copy_tree()
    build_tree(options.jobs)
    built = Built()
    candidates = Candidates(TREE, built, options.folder, options.file)
    if options.mutant:
        order = [candidates.find(identity) for identity in options.mutant]
        wanted = len(order)
    else:
        order, wanted = candidates.draw(options.seed), options.count
    coverage = Coverage(built, digest, options.jobs)
    print(f"seed {options.seed}, {wanted} of {len(candidates.mutants)} mutants", flush=True)
    report = Report(candidates.sources, wanted, options.verbose or options.mutant)
    stopped = False
    try:
        judge_all(Judge(built, coverage, candidates.sources), order, wanted, options.jobs, report)
    except KeyboardInterrupt:
        stopped = True
    percent = report.table(options.seed, candidates.equivalent)
    if stopped:
        return 2
    return 1 if options.at_least is not None and percent < options.at_least else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Trouble as trouble:
        print(f"mutate.sh: {trouble}", file=sys.stderr)
        sys.exit(2)
    except (BrokenPipeError, KeyboardInterrupt):
        sys.exit(2)
