"""A daemon of its own process, as its client meets it."""

import json
import os
import signal
import sqlite3
import subprocess
import sys
import time
from contextlib import closing
from unittest.mock import ANY

import pytest
from quillet.client import META, Client
from quillet.database import Database
from quillet.protocol.messages import line_of
from quillet.protocol.revisions import STATELESS, VERSION
from quillet.repository import database_of
from quillet.tool_handlers.health import __version__

SERVE = [sys.executable, "-P", "-m", "quillet", "serve"]
# The same, with tools that do what no tool should.
TOOLS = """
import logging, os, runpy, sys, threading, time
from quillet import tool_registry
from quillet.daemon import streams
streams.SETTLING_S = 1
class Silent(Exception):
    def __str__(self): raise SystemExit(1)
def hang(context): threading.Event().wait()
def leave(context): sys.exit("\\x1b[2J")
def silent(context): raise Silent
def chatty(context):
    os.write(1, b"no message\\n")
    print("%d\\n" % os.system("echo nor this; cat"), end="")  # at once: the log goes there, too
def held(context):
    while os.path.exists(context.root / "held"): time.sleep(0.01)
def wrong(context): return {"x": {1, 2}}
def log(context): [logging.warning("x" * 99) for _ in range(3000)]
def slow(context): time.sleep(0.5); return [float("inf"), b"\\xff"]
for tool in (hang, held, leave, log, silent, chatty, wrong, slow):
    tool_registry.TOOLS[tool.__name__] = tool_registry.ToolSpec({None: tool})
runpy.run_module("quillet", run_name="__main__")
"""
WITH_TOOLS = [sys.executable, "-P", "-c", TOOLS, "serve"]
PING = {"id": 1, "method": "ping"}
CALL = {"id": 1, "method": "tools/call"}


class Agent(Client):
    """A client that takes nothing but what the protocol lets a server say."""

    def receive(self):
        message = super().receive()
        match message:
            case {"jsonrpc": "2.0", "id": str() | int(), "result": dict() as result, **rest}:
                for part in result.get("content", ()):
                    assert part.keys() == {"type", "text"} and type(result["isError"]) is bool
                    content = result.get("structuredContent")
                    assert content is None or content == json.loads(part["text"])
            case {"jsonrpc": "2.0", "error": {"code": int(), "message": str(), **more}, **rest}:
                assert more.keys() <= {"data"} and isinstance(rest.pop("id", ""), str | int)
        assert not rest
        return message


@pytest.fixture
def start(tmp_path):
    """Starts a daemon in a folder with a file; what still runs is killed at the end."""
    (tmp_path / "a.txt").write_text("text\n" * 100)
    started = []

    def start(command=SERVE, **popen):
        command = [*command, "--repository", tmp_path]
        started.append(Agent(command, **{"stderr": subprocess.PIPE, **popen}))
        return started[-1]

    yield start
    for client in started:
        client.daemon.kill()
        client.daemon.wait()


@pytest.fixture(scope="module")
def listening(tmp_path_factory):
    """One daemon for all messages that are to leave it as it was."""
    with Agent([*SERVE, "--repository", tmp_path_factory.mktemp("served")]) as client:
        yield client


def reads(count):
    """That many requests to read the file."""
    params = META | {"name": "read_file", "arguments": {"path": "a.txt"}}
    return b"".join(line_of(CALL | {"id": n, "params": params}) for n in range(count))


def counts(folder):
    with closing(sqlite3.connect(database_of(folder))) as db:
        return dict(db.execute("SELECT tool_name, call_count FROM tool_health"))


MESSAGES = {
    -32700: [b"{", b'"\xff"', b"[" * 100_000, b'{"jsonrpc":"2.0","id":NaN,"method":"ping"}'],
    -32600: [b"x" * 30_000_000, b"[" + line_of(PING).strip() + b"]", PING | {"method": 7},
             PING | {"jsonrpc": 2}, *(PING | {"id": id} for id in (None, True, {}, 1.5))],
    -32601: [PING | {"method": "no/such"}, PING | {"params": META}],
    -32602: [*(PING | {"method": method} for method in ("tools/list", "server/discover")),
             *(PING | {"params": p} for p in ([], {"_meta": 1}, {"_meta": {VERSION: STATELESS}})),
             *(CALL | {"params": META | {"name": name}} for name in (7, "x" * 900_000)),
             CALL | {"params": META | {"name": "status", "arguments": []}},
             PING | {"method": "tools/list", "params": META | {"cursor": "2"}},
             PING | {"method": "initialize", "params": {"protocolVersion": 1}}],
    -32022: [PING | {"params": {"_meta": META["_meta"] | {VERSION: "2025-11-25"}}}],
    None: [b" ", {"id": 5, "result": {}}, {"id": None, "error": {}},
           {"method": "tools/call", "params": []},
           {"method": "notifications/cancelled", "params": {"requestId": []}}],
}  # fmt: skip


@pytest.mark.parametrize(
    ("code", "message"),
    [(code, message) for code, messages in MESSAGES.items() for message in messages],
    ids=lambda value: str(value)[:60],
)
def test_whatever_comes_in_is_answered_as_the_protocol_says(listening, code, message):
    line = message + b"\n" if isinstance(message, bytes) else line_of(message)
    listening.send(line + line_of(PING | {"id": "after"}))
    answers = [*iter(listening.receive, {"jsonrpc": "2.0", "id": "after", "result": {}})]
    told = {"jsonrpc": "2.0", "error": {"code": code, "message": ANY}}
    if isinstance(message, dict) and type(message.get("id")) is int:
        told["id"] = 1
    if code == -32022:
        told["error"]["data"] = {"supported": [STATELESS], "requested": "2025-11-25"}
    assert answers == ([told] if code else [])
    assert all(len(answer["error"]["message"]) < 200 for answer in answers)
    if "LD_PRELOAD" not in os.environ:  # a sanitizer takes memory of its own
        with open(f"/proc/{listening.daemon.pid}/status") as status:
            assert int(status.read().split("VmHWM:")[1].split()[0]) < 80_000


MISTAKES = [({"path": 5}, "path must be a text"), ({}, "path is missing"),
            ({"path": "a", "first_line": True}, "first_line must be a whole number"),
            ({"x": 1}, "there is no parameter 'x', only: path, first_line"),
            ({"path": "a", "file": "a"}, "a parameter is given under two names"),
            ({"action": [[]]}, "read_file has no action [[]], only: none"),
            *(({"path": path}, told) for path, told in (
                ("gone", "there is no gone in the repository"),
                ("x" * 300, f"there is no {'x' * 300} in the repository"),
                ("../a", "../a is not among the repository's files"),
                ("\0", "\0 is not a path: embedded null byte"),
                (".", ". is not a text file of at most 1,000,000 bytes")))]  # fmt: skip


def test_a_mistaken_call_is_no_failure_of_the_tool(listening):
    for arguments, told in MISTAKES * 2:
        result = listening.call("read_file", arguments)
        told = {"content": [{"type": "text", "text": told}], "isError": True}
        assert result == result | told and "structuredContent" not in result
    status = listening.call("status", {"action": "perf_stats"})["structuredContent"]["tools"]
    [read] = [tool for tool in status if tool["tool_name"] == "read_file"]
    assert read["call_count"] == 0 and {row["outcome"] for row in read["usage"]} == {"invalid"}


@pytest.mark.parametrize(
    "asked", ["2025-11-25", "2025-06-18", "2024-11-05", "2025-03-26", STATELESS]
)
def test_both_eras_are_served(start, asked):
    client, server = start(), {"name": "quillet", "version": __version__}
    hello = {"protocolVersion": asked, "capabilities": {}, "clientInfo": {}}
    client.send(line_of(PING | {"method": "initialize", "params": hello}))
    answer = client.receive()["result"]
    known = asked if asked in ("2025-06-18", "2024-11-05") else "2025-11-25"
    assert (answer.pop("protocolVersion"), answer.pop("serverInfo")) == (known, server)
    call = {"name": "read_file", "arguments": {"path": "a.txt", "first_line": 100}}
    client.send(line_of(CALL | {"params": call}))
    content = {"path": "a.txt", "first_line": 100, "lines": ["text"], "lines_in_file": 100}
    result = {"content": [{"type": "text", "text": json.dumps(content)}], "isError": False}
    assert client.receive()["result"] == result | {"structuredContent": content}
    client.send(line_of(PING | {"method": "tools/list"}))
    tools = client.receive()["result"]
    named = {"resultType": "complete", "_meta": {"io.modelcontextprotocol/serverInfo": server}}
    searched = client.call("search_text", {"query": "text", "path": "a.txt"})
    assert searched == searched | named and not searched["structuredContent"]["more"]
    assert searched.keys() == {"content", "structuredContent", "isError", *named}
    assert len(searched["structuredContent"]["matches"]) == 100
    cacheable = named | {"ttlMs": 60_000, "cacheScope": "public"}
    assert client.ask("tools/list")["result"] == tools | cacheable
    discovered = answer | {"supportedVersions": [STATELESS], "capabilities": {"tools": {}}}
    assert client.ask("server/discover")["result"] == discovered | cacheable


def test_the_list_says_what_each_tool_takes(listening):
    tools = {tool["name"]: tool for tool in listening.ask("tools/list")["result"]["tools"]}
    path = {"type": "string", "description": "the file, from the repository's root"}
    line = {"type": "integer", "description": "where to start; the first is 1", "default": 1}
    both = {"path": path, "first_line": line}
    schema = {"type": "object", "properties": both, "required": ["path"]}
    words = "Reads a text file's lines, at most 100 from a given one on."
    read = {"name": "read_file", "description": words, "inputSchema": schema}
    read["annotations"] = {"readOnlyHint": True, "openWorldHint": False}
    assert tools["read_file"] == read
    assert tools["status"]["inputSchema"]["properties"]["action"]["enum"] == [
        "perf_stats",
        "threads",
    ]


@pytest.mark.parametrize("names", [["INT", "INT"], ["TERM"], ["HUP", "INT"]])
def test_a_signal_ends_it_with_all_saved_that_was_answered(start, tmp_path, names):
    client, number = start(WITH_TOOLS), signal.Signals[f"SIG{names[0]}"]
    client.request("tools/call", {"name": "hang"})
    client.ask("tools/list")
    with closing(sqlite3.connect(database_of(tmp_path), isolation_level=None)) as other:
        other.execute("BEGIN IMMEDIATE")  # for which no call waits, but the last flush
        client.call("read_file", {"path": "a.txt"})
        for name in names:
            client.daemon.send_signal(signal.Signals[f"SIG{name}"])
            time.sleep(0.2)
        client.request("tools/call", {"name": "count_lines"})  # too late to be saved
        time.sleep(0.2)
    with pytest.raises(EOFError, match=str(128 + number)):
        client.receive()
    assert counts(tmp_path) == {"read_file": 1} and client.daemon.stderr.read() == b""


def test_a_signal_ends_a_start_that_waits(start, tmp_path):
    start().end()
    with closing(sqlite3.connect(database_of(tmp_path), isolation_level=None)) as other:
        other.execute("PRAGMA journal_mode = DELETE")
        other.execute("BEGIN EXCLUSIVE")
        client = start()
        time.sleep(1)
        client.daemon.terminate()
        assert client.daemon.wait(5) == 143


def test_unread_answers_hold_up_no_end(start, tmp_path):
    client = start()
    client.request("tools/call", {"name": "count_lines"})
    assert client.end() == 0 and client.receive()["result"]  # a lone call's
    reader, writer = os.pipe()
    os.set_blocking(writer, False)  # as some clients leave it
    with subprocess.Popen([*SERVE, "--repository", tmp_path], stdin=-1, stdout=writer) as daemon:
        os.close(writer)
        daemon.stdin.write(reads(200))
        daemon.stdin.flush()
        time.sleep(0.7)
        daemon.terminate()
        assert daemon.wait(5) == 143
    with open(reader, "rb") as answers:
        answered = answers.read().count(b'"result"')
    assert 0 < answered <= counts(tmp_path)["read_file"]


def test_whatever_a_handler_does_is_its_tools_error(start, tmp_path):
    client = start(WITH_TOOLS)
    for tool in ["leave", "silent"] * 5:
        assert client.call(tool)["isError"]
    [told] = client.call("leave", {"x": 1})["content"]
    assert told["text"].endswith("error: SystemExit: \x1b[2J")
    assert client.call("chatty")["content"][0]["text"] == "null"
    assert client.call("slow")["content"][0]["text"] == r'[null, "\\xff"]'
    assert client.call("wrong")["code"] == -32603
    stats = client.call("get_tool_performance_stats")["structuredContent"]["tools"]
    assert {tool["name"]: tool["errors"] for tool in stats}["silent"] == 5
    assert client.end() == 0
    said = client.daemon.stderr.read()
    assert b"\x1b" not in said and {b"no message", b"nor this", b"0"} <= {*said.splitlines()}
    once = dict.fromkeys(("chatty", "slow", "wrong", "get_tool_performance_stats"), 1)
    assert counts(tmp_path) == {"leave": 5, "silent": 5, **once}


def test_calls_run_side_by_side_and_are_cancelled(start, tmp_path):
    client, held = start(WITH_TOOLS), tmp_path / "held"
    held.touch()
    for _ in range(300):
        client.request("tools/call", {"name": "count_lines"}, id="again")
        client.cancel("again")
    tools = "count_lines", "held"
    calls = [line_of(CALL | {"id": 0, "params": META | {"name": name}}) for name in tools]
    cancel = {"method": "notifications/cancelled", "params": {"requestId": 0}}
    client.send(line_of(cancel).join(calls))
    client.request("tools/call", {"name": "hang"}, id="hung")
    client.request("tools/list", id=0)
    client.request("tools/call", {"name": "status", "arguments": {"action": "threads"}}, id=1)
    answers = {}
    while not answers.keys() >= {0, 1}:  # a call may have been answered before its cancel came
        answers |= {(answer := client.receive())["id"]: answer}
    assert answers.keys() <= {0, 1, "again"}
    assert answers[0]["error"]["code"] == -32600 and "result" in answers[1]
    client.cancel(0)  # it is counted all the same
    client.cancel("hung")  # and this one is not waited for for ever
    client.ask("tools/list")
    held.unlink()
    assert client.end() == 0
    assert counts(tmp_path) | {"count_lines": 0} == {"count_lines": 0, "held": 1, "status": 1}
    with pytest.raises(EOFError):
        client.receive()


def test_thousands_of_calls_are_answered_though_nobody_reads_the_log(start, tmp_path):
    client = start(WITH_TOOLS)
    client.call("log")
    client.send(reads(3000))
    assert {client.receive()["id"] for _ in range(3000)} == set(range(3000))
    assert client.end() == 0 and counts(tmp_path) == {"log": 1, "read_file": 3000}


@pytest.mark.parametrize(
    ("shell", "status", "said"),
    [("2>&-", 0, ""), ("2>/dev/full", 0, ""), (">/dev/full 2>/dev/full", 1, ""),
     ("<&-", 2, "standard input is closed"), (">&-", 2, "standard output is closed"),
     ("0>/dev/null", 1, "standard input: [Errno 9] Bad file descriptor"),
     (">/dev/full", 1, "standard output: [Errno 28] No space left on device"),
     ("| true", 1, "standard output: [Errno 32] Broken pipe"),
     ("--repository $'\\e[2J'", 2, r"\x1b[2J is not a folder"),
     ("--config /dev/zero", 2, "/dev/zero is not a file of at most 100,000 bytes"),
     ("--database a.txt", 2, "PWD/a.txt: file is not a database")],
)  # fmt: skip
def test_it_ends_with_a_word_when_it_cannot_go_on(start, tmp_path, shell, status, said):
    line = line_of(PING).decode().strip()
    script = f"echo '{line}' | \"$@\" {shell}; exit ${{PIPESTATUS[1]}}"
    run = start(["bash", "-c", script, "bash", *SERVE], cwd=tmp_path).daemon
    told = run.stderr.read().decode().replace(str(tmp_path), "PWD")
    assert (run.wait(9), told) == (status, said and f"quillet: {said}\n")


def test_a_second_daemon_serves_from_a_copy_and_a_removed_database_is_told(start, tmp_path):
    database = database_of(tmp_path)
    first = start(preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))  # as nohup does
    first.call("read_file", {"path": "a.txt"})
    while not counts(tmp_path):  # saved now and then
        time.sleep(0.05)
    words, second = "another daemon uses the database: what happens here is not saved", start()
    second.call("read_file", {"path": "a.txt"})
    health = second.call("status", {"action": "perf_stats"})["structuredContent"]
    assert (health["tools"][0]["call_count"], health["warning"], second.end()) == (2, words, 0)
    assert second.daemon.stderr.read().decode() == f"quillet: {database}: {words}\n"
    assert counts(tmp_path) == {"read_file": 1}
    first.daemon.send_signal(signal.SIGHUP)
    database.unlink()
    first.call("read_file", {"path": "a.txt"})
    assert first.end() == 3
    assert f"{database}: was removed or replaced" in first.daemon.stderr.read().decode()


@pytest.mark.parametrize(
    ("place", "why"),
    [("/proc/db", "[Errno 2] No such file or directory: '/proc/db.lock'"),
     ("PWD/state/db", "disk I/O error")],
)  # fmt: skip
def test_what_cannot_be_saved_is_served_from_a_copy(start, tmp_path, place, why):
    database = tmp_path / "state/db"
    database.parent.mkdir()
    with closing(Database(database)) as db:
        db.execute("INSERT INTO tool_health VALUES ('read_file', 9, 0, NULL, NULL, '')", ())
    before = database.read_bytes()
    place = place.replace("PWD", str(tmp_path))
    full = ["bash", "-c", 'ulimit -f 0; exec "$@"', "bash", *SERVE, "--database", place]
    client = start(full)
    client.call("read_file", {"path": "a.txt"})
    health = client.call("status", {"action": "perf_stats"})["structuredContent"]
    words = f"{why}: what happens here is not saved"
    assert health["tools"][0]["call_count"] == (10 if place == str(database) else 1)
    assert (health["warning"], client.end(), database.read_bytes()) == (words, 0, before)
    assert client.daemon.stderr.read().decode() == f"quillet: {place}: {words}\n"
