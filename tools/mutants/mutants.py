"""Mutation testing of src/: seeds faults, runs the tests that pass by each, and tells which faults nobody noticed."""

import argparse
import concurrent.futures
import json
import os
import pathlib
import re
import resource
import signal
import subprocess
import sys
import tempfile
import time

import seed as seeding

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
PLACE = ROOT / "build" / "mutants"
TREE, BUILD = PLACE / "tree", PLACE / "build"
SPACE = 8 << 30  # bytes of address space; a fault may ask for all there is


def say(text):
    print(f"==> {text}", flush=True)


def copy_sources():
    names = subprocess.run(["git", "ls-files", "-z", "-c", "-o", "--exclude-standard"], cwd=ROOT, capture_output=True, check=True).stdout
    wanted = {n for n in names.decode().split("\0") if n and (ROOT / n).is_file()}
    for old in TREE.rglob("*"):
        if old.is_file() and str(old.relative_to(TREE)) not in wanted:
            old.unlink()
    for name in wanted:
        text, to = (ROOT / name).read_bytes(), TREE / name
        if not to.is_file() or to.read_bytes() != text:
            to.parent.mkdir(parents=True, exist_ok=True)
            to.write_bytes(text)
            to.chmod((ROOT / name).stat().st_mode)


def run(*command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace")
    if done.returncode:
        sys.exit(done.stdout[-8000:])


def configure():
    launcher = [f"-DCMAKE_{c}_COMPILER_LAUNCHER=ccache" for c in ("C", "CXX")] if subprocess.run(["which", "ccache"], capture_output=True).returncode == 0 else []
    run("cmake", "-G", "Ninja", "-S", TREE, "-B", BUILD, *launcher, "-DCMAKE_BUILD_TYPE=Release", "-DKOV_BUILD_TESTS=ON", "-DKOV_BUILD_INDI=OFF",
        "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -DNDEBUG", f"-DCMAKE_CXX_FLAGS=-w -include {TREE}/tools/mutants/mutants.h")


class Test:
    def __init__(self, entry):
        self.name, self.command = entry["name"].split("  #")[0], entry.get("command", [])  # none: a program of its own, not built here
        properties = {p["name"]: p["value"] for p in entry["properties"]}
        self.folder = properties["WORKING_DIRECTORY"]
        self.environment = dict(v.split("=", 1) for v in properties.get("ENVIRONMENT", []))
        # One process a test, and none that wants the machine for itself.
        self.usable = any("--gtest_filter" in a for a in self.command) and not properties.get("RUN_SERIAL")
        self.seconds = 0.0
        self.hits = set()

    def run(self, limit, **environment):
        """Whether it passed; None: it did not end."""
        with tempfile.TemporaryDirectory() as config:
            process = subprocess.Popen(
                self.command, cwd=self.folder, env=os.environ | {"XDG_CONFIG_HOME": config} | self.environment | environment,
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
                preexec_fn=lambda: (resource.setrlimit(resource.RLIMIT_AS, (SPACE, SPACE)), resource.setrlimit(resource.RLIMIT_CORE, (0, 0))))
            try:
                return process.wait(limit) == 0
            except subprocess.TimeoutExpired:
                return None
            finally:
                try:
                    os.killpg(process.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
                process.wait()

    def look(self, mutants):
        """Runs it without a fault, and notes what it passes by."""
        with tempfile.NamedTemporaryFile() as notes:
            notes.write(bytes(mutants))
            notes.flush()
            began = time.monotonic()
            good = self.run(240, KOV_MUTANT_HITS=notes.name)
            self.seconds = time.monotonic() - began
            self.hits = {n for n, b in enumerate(pathlib.Path(notes.name).read_bytes()) if b}
        return good

    def notices(self, number):
        """It fails again when it is asked again: chance is no proof."""
        limit = 10 + 5 * self.seconds
        for _ in range(2):
            good = self.run(limit, KOV_MUTANT=str(number))
            if good is None:
                return True
            if good:
                return False
        return True


def hunt(number, tests, budget, every):
    """Names of the tests that notice it, and whether the budget of seconds ended the hunt."""
    killers, spent = [], 0.0
    for test in tests:
        spent += test.seconds
        if spent > budget:
            return killers, True
        if test.notices(number):
            killers.append(test.name)
            if not every:
                break
    return killers, False


def known_survivors():
    """Entries of a file, - line, + line, and the reason: why nobody can notice, or "Open: " and why nobody does."""
    entries = re.findall(r"^(src/\S+)\n- (.*)\n\+ (.*)\n((?:  .*\n)+)", (HERE / "survivors.txt").read_text(), re.MULTILINE)
    return {(f, old, new): " ".join(why.split()) for f, old, new, why in entries}


def main():
    parser = argparse.ArgumentParser(prog="./dev mutants", description=__doc__)
    parser.add_argument("--count", type=int, default=300)
    parser.add_argument("--seed", type=int, default=1, help="the same seed chooses the same faults (default 1)")
    parser.add_argument("--only", default="src/", metavar="PATH", help="faults in files whose path begins so")
    parser.add_argument("--budget", type=float, default=60, help="seconds of tests for one fault (default 60)")
    parser.add_argument("--slowest", type=float, default=20, help="leave out tests longer than this many seconds (default 20)")
    parser.add_argument("--every", action="store_true", help="do not stop at the first test that notices; tell which tests noticed nothing")
    parser.add_argument("--again", action="store_true", help="only what survived the last run without a reason, or is new")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    args = parser.parse_args()
    began = time.monotonic()

    known = known_survivors()
    say("copying the sources and choosing faults")
    copy_sources()
    configure()
    sites, mutants = seeding.seed_faults(TREE, BUILD, args.count, args.seed, args.only)
    hunted = range(len(mutants))
    if args.again:
        key = lambda m: (m["file"], m["old"], m["new"])
        before = {key(m): m for m in json.loads((PLACE / "results.json").read_text())["mutants"] if m["killers"]}
        mutants = [m | {k: before[key(m)][k] for k in ("killers", "covered")} if key(m) in before else m for m in mutants]
        hunted = [n for n, m in enumerate(mutants) if "killers" not in m and (key(m) not in known or known[key(m)].startswith("Open: "))]
        mutants = [{"killers": [], "covered": 0, "unfinished": False} | m for m in mutants]
    say(f"{len(mutants)} of {sites} possible faults, seed {args.seed}; building")
    programs = re.findall(r"^build (test_\w+): phony", (BUILD / "build.ninja").read_text(), re.MULTILINE)
    run("cmake", "--build", BUILD, "--target", *programs)

    listing = subprocess.run(["ctest", "--test-dir", BUILD, "--show-only=json-v1"], capture_output=True, text=True, check=True).stdout
    tests = [t for t in map(Test, json.loads(listing)["tests"]) if t.usable]
    say(f"{len(tests)} tests without a fault")
    with concurrent.futures.ThreadPoolExecutor(args.jobs) as pool:
        good = list(pool.map(lambda t: t.look(len(mutants)), tests))
        for test, passed in zip(tests, good):
            if not passed:
                print(f"left out, it fails without a fault: {test.name}")
        tests = sorted((t for t, passed in zip(tests, good) if passed and t.seconds <= args.slowest), key=lambda t: t.seconds * len(t.hits))
        say(f"{len(hunted)} faults, one at a time")
        # The tests of the fault's own room first.
        near = lambda n: [t for t in sorted(tests, key=lambda t: "test_" + mutants[n]["file"].split("/")[1] not in t.command[0]) if n in t.hits]
        work = {pool.submit(hunt, n, near(n), args.budget, args.every): n for n in hunted}
        for done, job in enumerate(concurrent.futures.as_completed(work), 1):
            m = mutants[work[job]]
            m["covered"] = sum(work[job] in t.hits for t in tests)
            m["killers"], m["unfinished"] = job.result()
            if not m["killers"]:
                print(f"survives ({m['covered']} tests pass by) {m['file']}:{m['line']}\n- {m['old']}\n+ {m['new']}", flush=True)
            if done % 25 == 0:
                print(f"{done} of {len(hunted)}, {time.monotonic() - began:.0f} s", flush=True)

    # What nobody runs but the compiler has no switch.
    mutants = [m for m in mutants if m["covered"] or not m["made"]]
    report, killed, excused = [], 0, 0
    for m in mutants:
        key = (m["file"], m["old"], m["new"])
        if m["killers"]:
            killed += 1
            continue
        excused += key in known and not known[key].startswith("Open: ")
        state = known.get(key) or ("no test passes by" if not m["covered"] else f"{m['covered']} tests pass by" +
                                   (", not all were run" if m["unfinished"] else ""))
        report.append(f"{m['file']}:{m['line']}\n- {key[1]}\n+ {key[2]}\n  {state}\n")
    if args.every:
        busy = {k for m in mutants for k in m["killers"]}
        report.append("Tests that noticed nothing:\n" + "".join(f"  {t.name}\n" for t in tests if t.name not in busy))
    counted = len(mutants) - excused
    score = f"{killed} of {counted} killed ({100 * killed / max(1, counted):.1f} %), {excused} more cannot be noticed; seed {args.seed}, {time.monotonic() - began:.0f} s"
    (PLACE / "report.txt").write_text(score + "\n\n" + "\n".join(report))
    (PLACE / "results.json").write_text(json.dumps({"mutants": mutants, "tests": {t.name: t.seconds for t in tests}}, indent=1))
    say(score)
    say(f"{PLACE / 'report.txt'}")


if __name__ == "__main__":
    main()
