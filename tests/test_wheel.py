"""The wheels, built and installed by the pages' commands; and the module's types."""

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

SUFFIX = ".cpython-311-x86_64-linux-gnu.so"
HARBORD = "examples/embedding/harbord.py"
USER = "from mydaemon.tool_handlers import health as h; print(h.__name__, h.__version__)"
STUB = Path(health.__file__).with_name("health.pyi")

pytestmark = pytest.mark.skipif("LD_PRELOAD" in os.environ, reason="a build of its own is tested")


def run(*command, **options):
    options = {"check": True, "stdout": subprocess.PIPE, "text": True} | options
    return subprocess.run(command, **options).stdout


def check_types(python, *files, **options):
    """As a user of that interpreter's modules would."""
    mypy = (sys.executable, "-m", "mypy", "--strict", "--config-file=")
    return run(*mypy, "--python-executable", python, *files, **options)


def held(place):
    [wheel] = Path("build", place).iterdir()
    return {name for name in zipfile.ZipFile(wheel).namelist() if ".dist-info/" not in name}


@pytest.mark.timeout(600)
def test_wheels_are_built_installed_and_used_as_the_pages_say(tmp_path, monkeypatch):
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
    guide = "docs/integration.md"
    plain, *examples = [b for p in ("README.md", guide) for b in snippets(p, "sh") if "build/" in b]
    mydaemon, program = snippets("docs/install.md", "sh")

    run(plain, shell=True)
    assert held("wheel") == {f"health{SUFFIX}", "health-stubs/__init__.pyi"}
    printed = snippets("README.md", "text")[0] + snippets(guide, "text")[0]
    assert "".join(run(example, shell=True) for example in examples) == printed
    site = Path("build/fresh/lib/python3.11/site-packages")
    assert ".symtab" not in run("readelf", "-S", "--wide", site / f"health{SUFFIX}")
    needed = re.findall(r"NEEDED.*\[(\w+)", run("readelf", "-d", site / f"health{SUFFIX}"))
    assert set(needed) <= {"libstdc", "libm", "libgcc_s", "libc", "ld"}
    Path("build/user.py").write_text(snippets(guide, "python")[-1])
    check_types("build/fresh/bin/python", "build/user.py", HARBORD)

    *build, install = mydaemon.splitlines()
    run("\n".join([*build, install.replace("--force-reinstall", "")]), shell=True)
    assert (site / f"health{SUFFIX}").exists() and not (site / "mydaemon").exists()
    run(install, shell=True)
    assert not [*site.glob("health*")]
    names = f"health{SUFFIX}", "health.pyi", "py.typed"
    assert held("mydaemon") == {f"mydaemon/tool_handlers/{name}" for name in names}
    Path("build/user.py").write_text(USER)
    name, version = run("build/fresh/bin/python", "build/user.py").split()
    assert name == "mydaemon.tool_handlers.health"
    check_types("build/fresh/bin/python", "build/user.py")

    run("meson", "configure", "build/compiled", "-Dpackage=")
    assert run(program, shell=True).endswith(run(ROOT / ".venv/bin/quillet", "--help"))
    sources = {file[7:] for file in files if file.startswith("python/quillet/")}
    script = f"quillet_health-{version}.data/scripts/quillet"
    assert held("program") == {*sources, script, f"quillet/tool_handlers/health{SUFFIX}"}


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


def test_the_stub_takes_rows_of_any_kind_and_names_a_coroutine(tmp_path):
    shutil.copy(STUB, tmp_path)
    daemon = (ROOT / HARBORD).read_text() + '    db: "health.Database" = Database(path)\n'
    rows = re.sub(r"tuple\[Any, \.\.\.\](?=\]:| \| None:)", "sqlite3.Row", daemon)
    coroutine = daemon.replace("def fetchall", "async def fetchall")
    for text, refused in (daemon, []), (rows, []), (coroutine, ["fetchall"]):
        (tmp_path / "daemon.py").write_text(text)
        said = check_types(sys.executable, "daemon.py", cwd=tmp_path, check=False)
        assert re.findall(r"Got:\n.* def (\w+)\(.*Coroutine", said) == refused
        assert said.count('"ToolHealthTracker" has incompatible type') == len(refused), said
