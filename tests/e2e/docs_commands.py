"""Every command the README and the guides in docs/ show (their ```sh
blocks) works as written from the project root.

Cheap and safe commands run, in the order the pages give them, in a scratch
folder laid out like the project root (build/ is the test build; card.img
and demo/card.img a card formatted there): the card tool must not refuse
its words (exit 2), and each curl call must reach a call of a server of
that card. The rest is proven without running it: a make target, preset,
script, test name, camera start script, program, subcommand or option each
must exist (a program's --help names its commands and options), and a
script's variables must be read by it. A command no rule below knows fails, so a
new kind of command comes with a way to prove it.

usage: docs_commands.py SOURCE_DIR BUILD_DIR"""
import glob
import json
import os
import re
import shlex
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

SOURCE, BUILD = sys.argv[1], sys.argv[2]
CARD_TOOL = os.path.join(BUILD, "apps/avrecord-card/avrecord-card")
PLAYERS = {"ffplay", "ffmpeg", "ffprobe", "gst-launch-1.0"}  # the replay test runs each against the server
SEPARATORS = {"&&", "||", ";", "|", "&"}
REDIRECTS = {">", ">>", "<"}
RUNNABLE = {"avrecord-card", "truncate", "echo", "curl"}
HARMLESS = {"cat", "grep", "ls", "truncate", "echo"}  # proven by existing
SERVED_PORT = "8080"  # the port the pages' curl calls name
failures = []


def fail(where, message):
    failures.append(f"{where}: {message}")


def read(path):
    with open(path, encoding="utf-8") as f:
        return f.read()


def shown_commands(page):
    """The logical lines of the page's sh blocks, continuations joined."""
    lines, block, pending = [], False, ""
    for number, line in enumerate(read(page).splitlines(), 1):
        if line.startswith("```"):
            block = line.strip() == "```sh"
            continue
        if not block:
            continue
        text = pending + line
        try:
            shlex.split(text, comments=True)
        except ValueError:  # a quotation open across lines
            pending = text + "\n"
            continue
        pending = ""
        if text.endswith("\\"):
            pending = text[:-1]
            continue
        if text.strip():
            lines.append((f"{os.path.relpath(page, SOURCE)}:{number}", text))
    return lines


def simple_commands(text):
    """Words of each simple command in a line, redirections dropped."""
    lexer = shlex.shlex(text, posix=True, punctuation_chars=";&|<>")
    lexer.whitespace_split = True
    lexer.commenters = "#"
    commands, words, skip = [], [], False
    for token in lexer:
        if skip:
            skip = False
        elif token in SEPARATORS:
            commands.append(words)
            words = []
        elif token in REDIRECTS:
            skip = True
        else:
            words.append(token)
    return [c for c in commands + [words] if c]


def split_assignments(words):
    names = []
    while words and re.match(r"^[A-Z_][A-Z0-9_]*=", words[0]):
        names.append(words[0].split("=", 1)[0])
        words = words[1:]
    return names, words


def usage_options(usage):
    return set(re.findall(r"(?:^|[\s\[|])(-o|--[a-z0-9-]+)", usage))


def card_tool_usage(command):
    done = subprocess.run([CARD_TOOL, command, "--help"], capture_output=True, text=True)
    return done.stdout if done.returncode == 0 else None


def check_options(where, words, usage, program):
    for word in words:
        option = word.split("=", 1)[0]
        if option.startswith("-") and option not in usage_options(usage) and option != "-":
            fail(where, f"{program} takes no {option}")


def check_card_tool(where, words):
    if not words:
        return fail(where, "avrecord-card without a command")
    usage = card_tool_usage(words[0])
    if usage is None:
        return fail(where, f"avrecord-card has no command {words[0]}")
    check_options(where, words[1:], usage, f"avrecord-card {words[0]}")


def built_program(name):
    """The project's program of that name in the build, or None."""
    for folder, _, files in os.walk(os.path.join(BUILD, "apps")):
        if name in files and os.access(os.path.join(folder, name), os.X_OK):
            return os.path.join(folder, name)
    return None


def check_program(where, program, words):
    """A program of the project: its --help names the command and options."""
    try:
        done = subprocess.run([program, "--help"], capture_output=True, text=True, timeout=5,
                              stdin=subprocess.DEVNULL)
    except subprocess.TimeoutExpired:
        return fail(where, f"{os.path.basename(program)} --help did not return")
    usage = done.stdout + done.stderr
    if done.returncode != 0:
        return fail(where, f"{os.path.basename(program)} --help exited {done.returncode}")
    if words and not words[0].startswith("-") and not re.search(rf"^\s*{re.escape(words[0])}\b", usage, re.M):
        return fail(where, f"{os.path.basename(program)} has no command {words[0]}")
    check_options(where, words, usage, os.path.basename(program))
    return None


def check_init_script(where, words):
    """A start script of the camera bundle, by its command."""
    path = os.path.join(SOURCE, "camera", os.path.basename(words[0]))
    if not os.path.isfile(path):
        return fail(where, f"the camera bundle has no {words[0]}")
    for word in words[1:]:
        if not re.search(rf"^\s*(\w+\|)*{re.escape(word)}(\|\w+)*\)", read(path), re.M):
            fail(where, f"{words[0]} has no command {word}")
    return None


def check_player(where, words):
    """A player line names the replay URL with times the server takes."""
    urls = [w.split("location=", 1)[-1] for w in words if "rtsp://" in w]
    if len(urls) != 1 or not re.match(r"^rtsp://([^@/]+@)?[^/]+/replay(\?|$)", urls[0]):
        return fail(where, f"{words[0]} names no replay URL")
    for key, value in re.findall(r"[?&](start|end)=([^&]*)", urls[0]):
        if not re.fullmatch(r"\d+|\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", value):
            fail(where, f"{key}={value} is no time the server takes")
    return None


def presets(kind):
    return {p["name"] for p in json.loads(read(os.path.join(SOURCE, "CMakePresets.json"))).get(kind, [])}


def check_preset(where, words, kind):
    if "--preset" in words:
        name = words[words.index("--preset") + 1]
        if name not in presets(kind):
            fail(where, f"no {kind} entry {name}")


def check_ctest(where, words):
    check_preset(where, words, "testPresets")
    if "-R" in words:
        pattern = words[words.index("-R") + 1]
        listed = subprocess.run(["ctest", "--test-dir", BUILD, "-N", "-R", pattern], capture_output=True, text=True)
        if not re.search(r"Total Tests: [1-9]", listed.stdout):
            fail(where, f"ctest -R {pattern} names no test")


def check_make(where, words):
    makefile = read(os.path.join(SOURCE, "Makefile"))
    for target in words:
        recipe = re.search(rf"^{re.escape(target)}:.*\n((?:\t.*\n)*)", makefile, re.M)
        if not recipe:
            fail(where, f"the Makefile has no target {target}")
            continue
        for script in re.findall(r"scripts/[\w.-]+", recipe.group(1)):
            if subprocess.run(["bash", "-n", os.path.join(SOURCE, script)]).returncode != 0:
                fail(where, f"make {target}: {script} is missing or not bash")


def leading_comment(path):
    text = read(path)
    return "\n".join(l for l in text.splitlines()[:80] if l.startswith("#"))


def check_script(where, words, variables):
    path = os.path.join(SOURCE, words[0])
    if not os.path.isfile(path):
        return fail(where, f"no script {words[0]}")
    if words[0].startswith("tests/e2e/") and words[0].endswith("_test.sh"):
        readers = "".join(read(p) for p in glob.glob(os.path.join(SOURCE, "tests/e2e/*.sh")))
        for name in variables:
            if not name.startswith("AVRECORD_") and not re.search(rf"\b{name}\b", readers):
                fail(where, f"{words[0]} does not read {name}")
        return None
    header = leading_comment(path)
    for word in words[1:]:
        if word.startswith("-") and not re.search(rf"(?<![\w-]){re.escape(word)}\b", header):
            fail(where, f"{words[0]} documents no {word}")
    if len(words) > 1 and not words[1].startswith("-") and f"{words[0]} {words[1]}" not in header:
        fail(where, f"{words[0]} has no command {words[1]}")
    return None


def check_install(where, words):
    package = [w for w in words if w.startswith("./dist/")]
    if words[:1] != ["install"] or not package or package[0][2:] not in read(os.path.join(SOURCE, "Makefile")):
        fail(where, f"apt {' '.join(words)} installs nothing make package makes")


def check_words(where, words, variables=()):
    """Proves one simple command without running it."""
    assigned, words = split_assignments(words)
    variables = [*variables, *assigned]
    program, rest = os.path.basename(words[0]), words[1:]
    if words[0] == "unshare":
        return check_words(where, [w for w in rest if w != "--ipc"], variables)
    if program == "bash" and rest[:1] == ["-c"]:
        for line in rest[1].splitlines():
            for inner in simple_commands(line):
                check_words(where, inner)
        return None
    if program == "bash":
        return check_script(where, rest, variables)
    if words[0].startswith(("scripts/", "bench/")):
        return check_script(where, words, variables)
    if words[0].startswith("/etc/init.d/"):
        return check_init_script(where, words)
    checks = {
        "avrecord-card": lambda: check_card_tool(where, rest),
        "AVRecord": lambda: rest and fail(where, "the daemon takes no arguments"),
        "make": lambda: check_make(where, rest),
        "cmake": lambda: check_preset(where, rest, "buildPresets" if "--build" in rest else "configurePresets"),
        "ctest": lambda: check_ctest(where, rest),
        "cd": lambda: rest != ["build"] and fail(where, f"cd {rest} is no build folder"),
        "export": lambda: None,
        "apt": lambda: check_install(where, rest),
        "curl": lambda: None,  # run against a server below
    }
    if program in checks:
        return checks[program]()
    if program in PLAYERS:
        return check_player(where, words)
    if built_program(program):
        return check_program(where, built_program(program), rest)
    if program not in HARMLESS:
        fail(where, f"no rule proves {program}")
    return None


def runnable(commands):
    for words in commands:
        _, words = split_assignments(words)
        program = os.path.basename(words[0])
        if program not in RUNNABLE or "serve" in words or any(w.startswith("/dev/") for w in words):
            return False
    return True


def scratch_root():
    root = tempfile.mkdtemp(prefix="docs-commands-")
    os.symlink(BUILD, os.path.join(root, "build"))
    os.mkdir(os.path.join(root, "demo"))
    card = os.path.join(root, "card.img")
    subprocess.run(["truncate", "-s", "2G", card], check=True)
    subprocess.run([CARD_TOOL, "format", card, "--init"], check=True, capture_output=True)
    os.link(card, os.path.join(root, "demo/card.img"))
    return root


def start_server(root):
    server = subprocess.Popen([CARD_TOOL, "serve", "--image", "card.img", "--listen", "127.0.0.1:0"], cwd=root,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    match = re.search(r"127\.0\.0\.1:(\d+)", server.stdout.readline())
    return server, match.group(1) if match else None


def run_curl(where, words, port):
    """Reaches the call the page names; 'nothing there' answers are fine on
    an empty card, a refused or unknown call is not."""
    url = next(w for w in words if w.startswith("http")).replace(f":{SERVED_PORT}/", f":{port}/")
    method = words[words.index("-X") + 1] if "-X" in words else "GET"
    request = urllib.request.Request(url, method=method, data=b"" if method == "POST" else None)
    try:
        with urllib.request.urlopen(request, timeout=10):
            return
    except urllib.error.HTTPError as error:
        body = error.read().decode(errors="replace")
        if error.code == 404 and "no such page" not in body:
            return
        fail(where, f"{method} {url}: {error.code} {body}")


def run_line(where, text, commands, root, port):
    for words in commands:
        if os.path.basename(words[0]) == "curl":
            return run_curl(where, words, port)
    env = dict(os.environ, PATH=os.path.dirname(CARD_TOOL) + os.pathsep + os.environ["PATH"])
    done = subprocess.run(["bash", "-c", text], cwd=root, env=env, capture_output=True, text=True, timeout=120)
    if done.returncode not in (0, 1) or "usage" in done.stderr:
        fail(where, f"exited {done.returncode}: {done.stderr.strip()}")
    return None


def main():
    pages = [os.path.join(SOURCE, "README.md")] + sorted(glob.glob(os.path.join(SOURCE, "docs/*.md")))
    shown = [line for page in pages for line in shown_commands(page)]
    root = scratch_root()
    server, port = start_server(root)
    if port is None:
        fail("serve", "the card tool's server did not start")
    ran = 0
    try:
        for where, text in shown:
            commands = simple_commands(text)
            for words in commands:
                check_words(where, words)
            if port and runnable(commands):
                run_line(where, text, commands, root, port)
                ran += 1
    finally:
        server.terminate()
        server.wait()
        subprocess.run(["rm", "-rf", root])
    for failure in failures:
        print(f"FAIL: {failure}")
    print(f"docs commands: {len(shown)} shown, {ran} run, {len(failures)} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
