#!/usr/bin/env python3
"""Measures what the tests find: plants single faults in the sources and runs the tests.

Samples COUNT random faults: a comparison, arithmetic or logical operator swapped, a constant off by
one, true for false, a condition negated, a call, assignment, break or continue removed, another
result returned. Never in comments, strings, preprocessor lines or debug and trace logs. Each is
applied alone to a copy of the tree as it stands, built there, and tested. It is then "found" (a test
failed, crashed or timed out), "unseen" (every test passed) or does not build; then another is drawn.
The unseen ones are written to the --out file as diffs: each is a missing test or an equivalent.

  scripts/mutate.py --files 'src/*.cpp' --count 60 --seed 1 --tests '^(VX|Event)' \\
                    --target VXNode_test VXGraph_test --out unseen.diff

VX_TEST_SCALE is 10 unless set. Only the --out file remains when it ends; interrupt it as you like.
"""
import argparse, difflib, os, pathlib, random, re, resource, shutil, signal, subprocess, sys, tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
SWAPS = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">", "+": "-", "-": "+", "*": "/",
         "/": "*", "%": "*", "&&": "||", "||": "&&", "&": "|", "|": "&", "<<": ">>", ">>": "<<", "+=": "-=",
         "-=": "+=", "|=": "&="}
HIDDEN = re.compile(r'//[^\n]*|/\*.*?\*/|R"\(.*?\)"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|^[ \t]*#[^\n]*'
                    r"|\bVX_LOG[DT](?:_\w+)?\((?:[^()]|\((?:[^()]|\([^()]*\))*\))*\);", re.S | re.M)
KEPT = re.compile(r"(return|break|continue|using|static|constexpr|namespace|friend|enum|class|struct|"
                  r"template|typedef|goto|public|private|protected)\b|(?!delete\b)(const )?[\w:]+(<.*>)?[ &*]+\w+\s*([=({;\[]|$)"
                  r"|.*(= default|= delete|override)$|const auto", re.S)
LEADING = re.compile(r"\s*(?:(?:case\s[^:]+(?:::[^:]+)*|default):(?!:)|else\b|do\b)")


def closing(code, at):  # the position after the parenthesis that closes the one at `at`
    depth = 0
    for i in range(at, len(code)):
        depth += {"(": 1, ")": -1}.get(code[i], 0)
        if depth == 0:
            return i + 1
    return len(code)


def statements(code):  # the spans of simple statements, with what controls them stripped
    outer, depth, start = [], 0, 0
    for i, c in enumerate(code):
        if c in "()":
            depth += 1 if c == "(" else -1
        elif c == "{":
            outer.append((depth, start))
            depth, start = 0, i + 1
        elif c == "}" and outer:
            depth, start = outer.pop()
            start = start if depth else i + 1
        elif c == ";" and depth == 0:
            while True:
                start += len(code[start:i]) - len(code[start:i].lstrip())
                control = re.compile(r"(?:if|while|for|switch)\s*(?:constexpr\s*)?(?=\()").match(code, start, i)
                label = LEADING.match(code, start, i)
                if not control and not label:
                    break
                start = closing(code, control.end()) if control else label.end()
            if start < i:
                yield start, i + 1
            start = i + 1


def faults(text):  # every (start, end, replacement)
    code = HIDDEN.sub(lambda m: re.sub(r"[^\n]", " ", m[0]), text)
    found = []
    for m in re.finditer(r"(?<= )(==|!=|<=?|>=?|[-+*/%&|]|&&|\|\||<<|>>|[-+|]=)(?=\s)", code):
        found.append((*m.span(), SWAPS[m[0]]))
    for m in re.finditer(r"\+\+|--", code):
        found.append((*m.span(), "--" if m[0] == "++" else "++"))
    for m in re.finditer(r"(?<![\w.'])(?:0x[0-9a-fA-F]+|\d+)(?=[uUlL]*(?![\w.']))", code):
        value = int(m[0], 16) if m[0].startswith("0x") else int(m[0])
        found += [(*m.span(), str(value + 1))] + [(*m.span(), str(value - 1))] * (value > 0)
    for m in re.finditer(r"\b(?:true|false|(?:VX|C2|XC2)_[A-Z_]+\b(?!\())|std::(?:min|max)\b", code):
        flip = {"true": "false", "false": "true", "std::min": "std::max", "std::max": "std::min"}
        other = re.sub(r"_.*", "_BAD_VALUE" if m[0].endswith("_OK") else "_OK", m[0])
        found.append((*m.span(), flip.get(m[0], other)))
    for m in re.finditer(r"\b(?:if|while)\s*\(|\bVX_FAIL_IF\(|(?<= )(?=\S+ \? )", code):
        end = closing(code, m.end() - 1) - 1 if m[0] else code.index(" ?", m.end())
        if m[0].startswith("VX"):
            end = code.rindex(",", m.end(), end)
        found.append((m.end(), end, "!(" + text[m.end():end] + ")"))
    for start, end in statements(code):
        body = code[start:end - 1]
        if body in ("break", "continue") or (not KEPT.match(body) and re.search(r"[=(]|\+\+|--|^delete", body)):
            found.append((start, end, "{}"))
        elif re.match(r"return (?!(false|nullptr|0|{}|[\w:]+_OK)$)", body):  # these are {} already
            found.append((start, end, "return {};"))
    return sorted(set(found))


def limits():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_DATA, (4 << 30, 4 << 30))


def run(seconds, *command):  # whether it succeeded in time; none of its processes is left
    process = subprocess.Popen(command, start_new_session=True, preexec_fn=limits, stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        return process.wait(seconds) == 0
    except subprocess.TimeoutExpired:
        return False
    finally:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--files", nargs="+", required=True, metavar="GLOB", help="below the project's root")
    parser.add_argument("--count", type=int, default=60, help="faults that build (%(default)s)")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--tests", default=".", metavar="REGEX", help="the tests that ctest runs")
    parser.add_argument("--target", nargs="+", default=["all"], help="what these tests need built")
    parser.add_argument("--timeout", type=int, default=60, help="seconds of one test (%(default)s)")
    parser.add_argument("--jobs", default="2")
    parser.add_argument("--out", default="unseen.diff", type=pathlib.Path)
    options = parser.parse_args()
    os.environ.setdefault("VX_TEST_SCALE", "10")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))

    files = sorted({f.relative_to(ROOT) for pattern in options.files for f in ROOT.glob(pattern)})
    texts = {f: (ROOT / f).read_text() for f in files}
    candidates = [(f, fault) for f in files for fault in faults(texts[f])]
    random.Random(options.seed).shuffle(candidates)
    print(f"{len(candidates)} possible faults in {len(files)} files, seed {options.seed}", flush=True)

    tallies = {"found": 0, "unseen": 0, "does not build": 0}
    with tempfile.TemporaryDirectory(prefix="mutate-") as scratch, options.out.open("w") as out:
        tree, build = pathlib.Path(scratch, "tree"), str(pathlib.Path(scratch, "build"))
        shutil.copytree(ROOT, tree, ignore=shutil.ignore_patterns("build", ".git"))
        made = lambda: run(1200, "cmake", "--build", build, "-j", options.jobs, "--target", *options.target)
        passed = lambda: run(1800, "ctest", "--test-dir", build, "-R", options.tests, "-j", options.jobs,
                             "--no-tests=error", "--stop-on-failure")
        cache = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] * bool(shutil.which("ccache"))
        run(120, "cmake", "-S", str(tree), "-B", build, "-G", "Ninja", "-DCMAKE_CXX_FLAGS=-w", *cache,
            "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", f"-DVXRUN_STREAMS_DIR={ROOT.parent}/shared/streams")
        # ctest's own --timeout is for tests that have none.
        for tests in pathlib.Path(build).rglob("CTestTestfile.cmake"):
            tests.write_text(re.sub(r'TIMEOUT "\d+"', f'TIMEOUT "{options.timeout}"', tests.read_text()))
        if not made() or not passed():
            sys.exit("the sources as they stand do not build or do not pass")
        for file, (start, end, new) in candidates:
            if tallies["found"] + tallies["unseen"] == options.count:
                break
            text = texts[file]
            mutant = text[:start] + new + text[end:]
            (tree / file).write_text(mutant)
            result = "does not build" if not made() else "unseen" if passed() else "found"
            (tree / file).write_text(text)
            tallies[result] += 1
            line, old = text.count("\n", 0, start) + 1, " ".join(text[start:end].split())
            print(f"{result}: {file}:{line}: {old} => {' '.join(new.split())}", flush=True)
            if result == "unseen":
                out.writelines(difflib.unified_diff(text.splitlines(True), mutant.splitlines(True),
                                                    f"a/{file}", f"b/{file}"))
                out.flush()
    print(", ".join(f"{count} {what}" for what, count in tallies.items()))


if __name__ == "__main__":
    main()
