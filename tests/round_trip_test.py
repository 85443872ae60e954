#!/usr/bin/env python3
"""Any device tree reads the same after capture and replay: trees made by Hypothesis, good and odd, each
through the report, a capture, its replay, a capture of the replay, the check and the diff. The replays
report what the tree reports (header keys aside), the diff finds nothing, every exit status and line on
standard error is one the manual gives, every JSON document is I-JSON (RFC 7493), nothing crashes or
hangs. A failure is shrunk to its smallest tree, printed with the seed that finds it again.

    round_trip_test.py RFSYSINFO SOURCE_DIR [--examples N] [--seed N]
"""
import argparse
import json
import os
import re
import shutil
import subprocess
import tempfile

from hypothesis import HealthCheck, given, note, seed, settings, strategies as st
from hypothesis.configuration import set_hypothesis_home_dir

parser = argparse.ArgumentParser()
parser.add_argument("rfsysinfo")
parser.add_argument("source_dir")
parser.add_argument("--examples", type=int, default=150)
parser.add_argument("--seed", type=int, default=int.from_bytes(os.urandom(4), "little"))
options = parser.parse_args()

# The fixed paths, from the one list the library and the capture take them from.
header = open(os.path.join(options.source_dir, "rfSystemInfo", "devicePaths.h")).read()
FILES = re.findall(r'ENTRY\(\w+, "([^"]+)"\)', header)
SENSORS = ["/sys/class/thermal/thermal_zone%d/temp" % n for n in (3, 0, 7, 1)]
TOOLS = ["/bin/getSicutil", "/usr/bin/sicutil"]
INVENTORY_KEYS = ["DPB_HardwareSetName", "DPB_Revision", "DPB_SerialNumber", "DPB_ManufactureDate",
                  "DPB_CriticalTemp", "DPB_ParentSerialNumber", "TOP_ProductName", "TOP_ProductSerialNumber"]
HEADER_KEYS = ("tool", "version", "deviceTree", "sanitized", "capture")
# What the manual lets standard error say for these runs: the tool's own warning about an empty tree.
DOCUMENTED_ERROR_LINES = re.compile(r"rfsysinfo: warning: .* holds none of the files the library reads")
TIME_LIMIT = 60  # seconds for one run: a hang is a failure, never a wait


# --- strategies: the nodes a fixed path may hold ---

def text_bytes(alphabet=st.characters(blacklist_categories=("Cs",))):
    """Short texts as bytes: UTF-8, Latin-1 and raw bytes alike."""
    return st.one_of(st.text(alphabet, max_size=12).map(str.encode), st.binary(max_size=12),
                     st.text(st.characters(max_codepoint=255), max_size=12).map(lambda t: t.encode("latin-1")))


ini_value = st.one_of(
    text_bytes(), st.sampled_from([b"", b'"quoted, with comma"', b"a, b", b"\\x41\\n", b"@Variant(\\0\\0\\0\\x2\\0\\0\\0\\x7)",
                                   b"@Variant(\\0\\0\\0\\t\\x7f\\xff\\xff\\xff)", b"@Vari\\x61nt(\\0\\0\\x3\\xe8)",
                                   b"@ByteArray(x)", b"@Invalid()", b"@@at", b"x\\", b"\"open"]))
ini_line = st.one_of(
    st.tuples(st.sampled_from(INVENTORY_KEYS + ["", "[x]", "other"]).map(str.encode), ini_value).map(lambda kv: kv[0] + b"=" + kv[1]),
    st.sampled_from([b"[General]", b"[DPB]", b"; comment", b"# note", b"", b"=empty key", b"no equals"]),
    st.binary(max_size=16))
ini_file = st.builds(lambda bom, lines, end: bom + end.join(lines) + end,
                     st.sampled_from([b"", b"\xef\xbb\xbf"]), st.lists(ini_line, max_size=8), st.sampled_from([b"\n", b"\r\n"]))
number_text = st.one_of(st.integers(-10**12, 10**12).map(str), st.floats().map(repr),
                        st.sampled_from(["inf", "-inf", "nan", "1e999", "2.1", " 3 ", "x", ""]))
rf_file = st.builds(lambda section, fields: section + b"RF_REVISION=" + "/".join(fields).encode() + b"\n",
                    st.sampled_from([b"", b"[General]\n"]), st.lists(number_text, max_size=4))
json_text = st.text(st.characters(blacklist_categories=()), max_size=8)  # lone surrogates included
board_json = st.fixed_dictionaries({"FPGA_VER": st.dictionaries(
    st.sampled_from(["FPGA_BANK_%d_VER" % n for n in range(16)] + ["other"]), st.one_of(json_text, st.integers()), max_size=5)},
    optional={"BOARD": st.dictionaries(st.sampled_from(["NAME", "REVISION", "SERIAL"]), json_text)})
board_file = st.one_of(board_json.map(lambda d: json.dumps(d).encode()),
                       board_json.map(lambda d: json.dumps(d).encode()[:-3]), st.binary(max_size=40))
list_file = st.builds(lambda count, lines, end: end.join([count.encode()] + lines) + end, number_text,
                      st.lists(st.one_of(text_bytes(), st.just(b"x" * 5000)), max_size=4), st.sampled_from([b"\n", b"\r\n"]))
dated_file = st.builds(lambda first, rest: first + rest, st.sampled_from([b"2025-09-30 14:02 CAL", b"", b"\r", b"x" * 300]),
                       st.sampled_from([b"", b"\n100,0.02\n", b"\r\nmore"]))
FILE_CONTENT = {"/tmp/SystemInventoryInfo.info": ini_file, "/storage/RFHW_Revision.info": rf_file,
                "/bin/DpbJsonInfo.json": board_file}
for path in FILES:
    FILE_CONTENT.setdefault(path, list_file if path.endswith(".txt") else dated_file)
for path in SENSORS:
    FILE_CONTENT[path] = number_text.map(lambda t: t.encode() + b"\n")


def node(path):
    """What may stand at a fixed path: a file (cut, or with an odd time or mode), or anything else."""
    return st.one_of(
        st.builds(lambda data, mtime, mode: ("file", data, mtime, mode), FILE_CONTENT[path],
                  st.one_of(st.none(), st.integers(-2**31, 2**33)), st.sampled_from([0o644, 0o644, 0o000])),
        st.sampled_from([("folder",), ("fifo",), ("link", "/nowhere/at/all"), ("link", "/locked/file")]),
        st.tuples(st.sampled_from(["link", "relative link"]), st.sampled_from(FILES + ["/", "/bin"])))


tool = st.builds(lambda output, status, delay: ("tool", output, status, delay),
                 st.one_of(text_bytes(), st.binary(max_size=300), st.just(b"ab " * 400000)), st.sampled_from([0, 1, 127]),
                 st.sampled_from([0, 0, 0.2]))


@st.composite
def device_trees(draw):
    paths = draw(st.lists(st.sampled_from(FILES + SENSORS), unique=True, max_size=8))
    tree = {path: draw(node(path)) for path in sorted(paths)}
    for path in draw(st.lists(st.sampled_from(TOOLS), unique=True, max_size=2)):
        tree[path] = draw(st.one_of(tool, st.sampled_from([("folder",), ("fifo",)])))
    return tree


# --- making a tree, and running the tool on it ---

def make_tree(tree, root):
    """The tree at `root`, with a folder "/locked" that nobody may search."""
    os.makedirs(os.path.join(root, "locked"))
    with open(os.path.join(root, "locked", "file"), "w") as out:
        out.write("behind a folder nobody may search\n")
    for path, (kind, *details) in tree.items():
        target = root + path
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if kind in ("file", "tool"):
            with open(target + (".output" if kind == "tool" else ""), "wb") as out:
                out.write(details[0])
        if kind == "file":
            try:
                os.utime(target, None if details[1] is None else (details[1], details[1]))
            except OSError:
                pass  # a time this file system cannot hold
            os.chmod(target, details[2])
        elif kind == "tool":
            with open(target, "w") as out:
                out.write("#!/bin/sh\nsleep %s\ncat '%s.output'\nexit %d\n" % (details[2], path, details[1]))
            os.chmod(target, 0o755)
        elif kind in ("folder", "fifo"):
            (os.makedirs if kind == "folder" else os.mkfifo)(target)
        else:
            os.symlink(os.path.relpath(root + details[0], os.path.dirname(target)) if kind == "relative link" else details[0], target)
    os.chmod(os.path.join(root, "locked"), 0)


def clear(folder):
    if os.path.isdir(os.path.join(folder, "tree", "locked")):
        os.chmod(os.path.join(folder, "tree", "locked"), 0o700)
    shutil.rmtree(folder, ignore_errors=True)


def strict_json(text, what):
    """The document as I-JSON takes it: no key twice, no lone surrogate, nothing but one value."""
    def no_duplicates(pairs):
        keys = [key for key, _ in pairs]
        assert len(keys) == len(set(keys)), "%s holds a key twice: %r" % (what, keys)
        return dict(pairs)
    document = json.loads(text, object_pairs_hook=no_duplicates)
    json.dumps(document, ensure_ascii=False).encode("utf-8")  # a lone surrogate cannot be encoded
    return document


def run(arguments, statuses, what):
    try:
        done = subprocess.run([options.rfsysinfo] + arguments, capture_output=True, timeout=TIME_LIMIT)
    except subprocess.TimeoutExpired:
        raise AssertionError("%s hung for %d s" % (what, TIME_LIMIT))
    err = done.stderr.decode("utf-8", "replace")
    note("%s: exit %d, %r" % (what, done.returncode, err))
    assert done.returncode in statuses, "%s exited with %d: %s" % (what, done.returncode, err)
    for line in err.splitlines():
        assert DOCUMENTED_ERROR_LINES.fullmatch(line), "%s said what no manual documents: %r" % (what, line)
    return done.stdout.decode("utf-8")


def report(source, tools=(), check=False):
    """The report of `source` without its header keys, or with `check` the check's verdict."""
    arguments = ["--check"] * check + ["--json", "--root", source] + list(tools)
    document = strict_json(run(arguments, {0, 1} if check else {0}, " ".join(arguments)), "the document")
    return document["check"] if check else {key: value for key, value in document.items() if key not in HEADER_KEYS}


def same(expected, got, what):
    differing = {key: (expected.get(key), got.get(key)) for key in set(expected) | set(got) if expected.get(key) != got.get(key)}
    assert not differing, "%s; (tree, replay) where they differ: %r" % (what, differing)


work = tempfile.mkdtemp(prefix="rfsi-round-trip-")
set_hypothesis_home_dir(work + "-hypothesis")  # its caches, never in the source tree


@settings(max_examples=options.examples, deadline=None, database=None, print_blob=True,
          suppress_health_check=list(HealthCheck))
@seed(options.seed)
@given(device_trees())
def test_any_tree_reads_the_same_after_capture_and_replay(tree):
    clear(work)
    os.makedirs(work)
    root = os.path.join(work, "tree")
    make_tree(tree, root)
    tools = ["--allow-tools"] if any(entry[0] == "tool" for entry in tree.values()) else []
    first, second = os.path.join(work, "first.tgz"), os.path.join(work, "second.tgz")
    on_tree = report(root, tools)
    run(["--capture", first, "--root", root] + tools, {0}, "capture of the tree")
    run(["--capture", second, "--root", first], {0}, "capture of the replay")
    same(on_tree, report(first), "the replay reports otherwise than the tree")
    same(on_tree, report(second), "the replay of the replay reports otherwise than the tree")
    same(report(root, tools, check=True), report(first, check=True), "the check of the replay differs")
    diff = strict_json(run(["--diff", root, first, "--json"] + tools, {0}, "diff of tree and replay"), "the diff")
    assert diff["diff"]["differences"] == [], diff["diff"]["differences"]
    run(["--root", first], {0}, "text report of the replay")


if __name__ == "__main__":
    print("round trip: %d trees, seed %d (again: --seed %d)" % (options.examples, options.seed, options.seed), flush=True)
    try:
        test_any_tree_reads_the_same_after_capture_and_replay()
    finally:
        clear(work)
        shutil.rmtree(work + "-hypothesis", ignore_errors=True)
    print("round trip: %d trees, no difference" % options.examples)
