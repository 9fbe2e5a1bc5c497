"""The wheels, built and installed by the documents' commands; and the module's types."""

import ast
import os
import re
import shutil
import subprocess
import sys
import zipfile
from pathlib import Path

import pytest
from documents import ROOT, snippets
from quillet.tool_handlers import health

GUIDE = "docs/integration.md"
SUFFIX = ".cpython-311-x86_64-linux-gnu.so"
STUB = Path(health.__file__).with_name("health.pyi")
USE = "print(ToolHealthTracker.__module__)"

pytestmark = pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="a build of its own is tested")


def run(*command, **options):
    options = {"check": True, "stdout": subprocess.PIPE, "text": True} | options
    return subprocess.run(command, **options).stdout


def check_types(python, *files):
    """As a user of that interpreter's modules would."""
    mypy = (sys.executable, "-m", "mypy", "--strict", "--config-file=")
    run(*mypy, "--python-executable", python, *files)


@pytest.mark.timeout(600)
def test_wheels_are_built_installed_and_used_as_the_documents_say(tmp_path, monkeypatch):
    monkeypatch.setenv("PIP_NO_INDEX", "1")
    monkeypatch.delenv("PYTHONPATH", raising=False)
    # Compiled once, quickly, for all three.
    monkeypatch.setenv("PIP_CONFIG_SETTINGS", "builddir=build/compiled")
    monkeypatch.setenv("CXXFLAGS", "-O0")
    monkeypatch.chdir(tmp_path)
    files = run("git", "ls-files", "-co", "--exclude-standard", cwd=ROOT).splitlines()
    for file in (name for name in files if (ROOT / name).exists()):
        (tmp_path / file).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(ROOT / file, tmp_path / file)
    run("git", "init", "--quiet")
    run("git", "add", "--all")
    (tmp_path / "build").mkdir()

    commands = [*snippets("README.md", "sh"), *snippets(GUIDE, "sh")]
    printed = [run(text, shell=True) for text in commands if "build/" in text]
    assert printed[-1] == snippets(GUIDE, "text")[-1]
    assert run("git", "ls-files", "--others", "--exclude-standard") == ""

    for place, name, types in (
        ("wheel", "quillet.tool_handlers.health", "quillet/tool_handlers/health.pyi"),
        ("mydaemon", "mydaemon.tool_handlers.health", "mydaemon/tool_handlers/health.pyi"),
        ("plain", "health", "health-stubs/__init__.pyi"),
    ):
        [wheel] = Path("build", place).iterdir()
        python = Path("build", f"venv_{place}", "bin", "python")
        run("/usr/bin/python3", "-m", "venv", "--without-pip", python.parent.parent)
        run("/usr/bin/python3", "-m", "pip", "--python", python, "install", wheel)
        extension = str(Path(*name.split(".")).with_suffix(SUFFIX))
        held = {extension, types, str(Path(types).with_name("py.typed"))}
        held -= {"health-stubs/py.typed"}
        assert {n for n in zipfile.ZipFile(wheel).namelist() if ".dist-info/" not in n} == held
        Path("user.py").write_text(f"from {name} import ToolHealthTracker\n{USE}")
        assert run(python, "user.py").strip() == name
        check_types(python, "user.py")

    site = Path("build/harbor/lib/python3.11/site-packages")
    assert ".symtab" not in run("readelf", "-S", "--wide", site / f"health{SUFFIX}")
    needed = run("readelf", "-d", site / f"health{SUFFIX}").split("(NEEDED)")[1:]
    assert {re.search(r"\[lib(\w+)", line)[1] for line in needed} <= {"stdc", "m", "gcc_s", "c"}
    Path("types_of_answers.py").write_text(snippets(GUIDE, "python")[-1])
    daemon = "examples/embedding/harbord.py"
    check_types("build/harbor/bin/python", "types_of_answers.py", daemon)
    version = run("build/harbor/bin/python", "-c", "import health; print(health.__version__)")
    assert version.strip() == wheel.name.split("-")[1]


def test_the_stub_is_the_modules(tmp_path):
    stub = STUB.read_text()
    for_checkers = re.findall(r"^@type_check_only\nclass (\w+)", stub, re.M)
    allowed = tmp_path / "allowed"
    allowed.write_text("".join(f"{health.__name__}.{name}\n" for name in for_checkers))
    run(sys.executable, "-m", "mypy.stubtest", health.__name__, "--allowlist", allowed, cwd=ROOT)
    for told in (node for node in ast.walk(ast.parse(stub)) if isinstance(node, ast.FunctionDef)):
        tracker = health.ToolHealthTracker
        real = getattr(tracker, told.name, getattr(health, told.name, None))
        texts = ast.get_docstring(told), (tracker if told.name == "__init__" else real).__doc__
        errors, in_help = (set(re.findall(r"\w+Error", text or "")) for text in texts)
        assert errors == in_help, told.name
