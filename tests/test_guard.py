"""A guard around servers of every kind: what passes, what it answers, what it records."""

import json
import signal
import subprocess
import sys
import time
from contextlib import suppress

import pytest
from quillet.agent.client import Client
from quillet.protocol.messages import line_of
from test_mcp import SERVE, Agent

QUILLET = [*SERVE[:-1]]
# It does and answers what a request says. A cancelled call is answered all the same.
SERVER = """
import json, os, signal, sys, time
if sys.argv[1:]: signal.signal(signal.SIGTERM, signal.SIG_IGN)
for line in sys.stdin:
    params = (message := json.loads(line)).get("params", {})
    do, answers = params.get("arguments", params), []
    time.sleep(do.get("sleep", 0))
    if "signal" in do: os.write(1, b'{"id": '); os.kill(os.getpid(), do["signal"]); os._exit(7)
    if "answer" in do: answers = [{"id": message["id"], "pid": os.getpid()} | do["answer"]]
    if "requestId" in do: answers = [{"told": do}, {"id": do["requestId"], "result": {}}]
    for answer in answers: print(json.dumps(answer), flush=True)
time.sleep(60 * len(sys.argv[1:]))
"""
PYTHON = [sys.executable, "-c", SERVER]
TOOLS = [{"name": "a", "inputSchema": {"properties": {"action": {"enum": ["x"]}}}}, {"name": ["b"]}]
OK, FAILED = {"result": {"content": []}}, {"error": {"code": -32000, "message": "it broke"}}
IS_ERROR = {"result": {"isError": True, "content": [{"type": "text", "text": "no file"}]}}
ASKS, INVALID = {"result": {"resultType": "input_required"}}, {"error": {"code": -32602}}


@pytest.fixture
def guard(tmp_path):
    """Starts a guard and lists the server's tools; what still runs is killed at the end."""
    (tmp_path / "config").write_text("[tools]\ndisable_after_errors = 2")
    started = []

    def guard(*options, server=PYTHON, tools=TOOLS, kind=Client):
        files = ["--database", tmp_path / "db", "--config", tmp_path / "config"]
        command = [*QUILLET, "guard", *files, *options, "--", *server]
        started.append(kind(command, stderr=subprocess.PIPE))
        if tools:
            listed = started[-1].ask(
                "tools/list", {"answer": {"result": {"tools": tools, "n": 1.0}}}
            )
            *same, own = listed["result"]["tools"]
            assert own["name"] == "tool_health" and same == tools
        return started[-1]

    yield guard
    for client in started:
        client.daemon.kill()
        client.daemon.wait()


def recorded(folder):
    """Each tool's errors and last error, and how its calls ended, as `status` shows it."""
    run = subprocess.check_output([*QUILLET, "status", "--database", folder / "db"])
    ends = {}
    for tool in json.loads(run)["tools"]:
        usage = {(row["action"], row["outcome"]): row["calls"] for row in tool["usage"]}
        ends[tool["tool_name"]] = tool["error_count"], tool["last_error"], usage
    return ends


def test_what_it_does_not_know_passes_as_it_came(guard, tmp_path):
    lines = [b"", b"\xff\xfe", b"[" * 100_000, b'{"id": NaN, "result": 1e999}', b"[{}]\r",
             b'{"id": 1, "method": "tools/list"}', b'{"id": [1], "method": "tools/call"}',
             b'{"id": 2, "method": "tools/call", "params": {"name": "x", "_meta": 1}}',
             b'{"id": 1,  "result": {"tools": 7}}', b"x" * 20_000_000, b"no end"]  # fmt: skip
    command = [
        *QUILLET,
        "guard",
        "--database",
        tmp_path / "db",
        "--",
        "sh",
        "-c",
        "cat; echo >&2 e",
    ]
    run = subprocess.run(command, input=b"\n".join(lines), capture_output=True)
    assert (run.returncode, run.stderr) == (0, b"e\n") and run.stdout == b"\n".join(lines)
    assert recorded(tmp_path) == {}
    client = guard()
    for more in ('"nextCursor": "2"', '"n": 1e999', '"n": 1, "tools": [{"name": "tool_health"}]'):
        result = f'{{"tools": [], {more}}}'
        ask = (
            f'{{"id": 1, "method": "tools/list", "params": {{"answer": {{"result": {result}}}}}}}\n'
        )
        client.send(ask.encode())
        assert client.receive()["result"] == json.loads(result)


@pytest.mark.parametrize("mode", ["failures", "errors"])
def test_what_counts_as_an_error_and_for_how_long(guard, tmp_path, mode):
    client = guard("--disable-on", mode)
    for action in ("x", ["x"]):
        assert client.call("a", {"answer": OK, "action": action}) == OK["result"]
    for answer in (
        FAILED,
        INVALID,
        ASKS,
        OK,
        FAILED,
        IS_ERROR,
        *[FAILED] * 2 * (mode == "failures"),
    ):
        assert client.call("a", {"answer": answer}) == (answer.get("result") or answer["error"])
    disabled, last_error = client.call("a"), "it broke" if mode == "failures" else "no file"
    assert disabled["isError"] and disabled["resultType"] == "complete"
    told = disabled["content"][0]["text"]
    assert told.startswith("a kept failing and is disabled; it is tried again at ")
    assert told.endswith(f"last error: {last_error}")
    assert client.end() == 0
    errors, failed = (4, 5) if mode == "failures" else (3, 3)
    usage = {("x", "ok"): 1, (None, "ok"): 2, (None, "invalid"): 1}
    usage |= {(None, "disabled"): 1, (None, "error"): failed}
    assert recorded(tmp_path) == {"a": (errors, last_error, usage)}
    again = guard(tools=None)  # the history says which tools there are
    again.send(line_of({"id": 1, "method": "tools/call", "params": {"name": "a"}}))
    assert again.receive()["result"].keys() == {"content", "isError"}
    [health] = again.call("tool_health")["structuredContent"]["tools"]
    assert health["tool_name"] == "a" and health["tried_again_in_s"] > 200


def test_a_call_that_takes_too_long_is_given_up_and_cancelled(guard, tmp_path):
    client = guard("--timeout", "0.2")
    client.request("tools/call", {"name": "a"}, id="slow")
    answer, told = client.receive(), client.receive()
    assert answer["id"] == "slow" and answer["result"]["isError"]
    assert answer["result"]["content"][0]["text"] == "no answer within 0.2 s"
    assert told == {"told": {"requestId": "slow", "reason": "timeout"}}
    assert client.call("a", {"answer": OK}) == OK["result"]  # the late answer did not come
    client.request("tools/call", {"name": "a"}, id="mine")
    client.cancel("mine")
    assert client.receive()["told"] and client.receive()["id"] == "mine"  # it did not time out
    assert client.end() == 0
    counts = {(None, outcome): 1 for outcome in ("ok", "error", "cancelled")}
    assert recorded(tmp_path)["a"] == (1, "no answer within 0.2 s", counts)


@pytest.mark.parametrize("number", [0, signal.SIGKILL])
def test_a_server_that_dies_is_told_with_its_calls(guard, tmp_path, number):
    client, status = guard(), 128 + number if number else 7
    client.request("tools/call", {"name": "a"})
    client.request("tools/call", {"name": "a", "arguments": {"signal": number}})
    with pytest.raises(ValueError):  # the line that it left
        client.receive()
    words = f"the server ended with status {status}"
    assert [client.receive()["result"]["content"][0]["text"] for _ in range(2)] == [words] * 2
    with pytest.raises(EOFError, match=str(status)):
        client.receive()
    assert client.daemon.stderr.read().decode().endswith(f"quillet: {words}\n")
    assert recorded(tmp_path) == {"a": (2, words, {(None, "error"): 2})}


@pytest.mark.parametrize(("end", "status"), [("input", 0), ("TERM", 143), ("KILL", -9)])
def test_no_server_outlives_its_guard(guard, tmp_path, end, status):
    shell = ["sh", "-c", '"$@"; true', "sh", *PYTHON, "ignores SIGTERM"]
    client = guard(server={"input": PYTHON, "TERM": shell}.get(end, [*PYTHON, "so"]))
    client.request("tools/call", {"name": "a"})
    server = client.ask("tools/call", {"name": "pid", "arguments": {"answer": OK}})["pid"]
    if end == "input":  # what comes after it is still handed on
        client.request("tools/call", {"name": "a", "arguments": {"answer": OK, "sleep": 0.3}})
        assert client.end() == 0 and client.receive()["result"] == OK["result"]
    else:
        client.daemon.send_signal(signal.Signals[f"SIG{end}"])
    assert client.daemon.wait(9) == status
    with suppress(OSError):
        while open(f"/proc/{server}/stat").read().split()[2] != "Z":
            time.sleep(0.01)
    if end != "KILL":
        assert recorded(tmp_path)["a"][2][None, "cancelled"] == 1


def test_hundreds_of_calls_pass_at_once(guard, tmp_path):
    (tmp_path / "a.txt").write_text("text\n")
    client = guard(server=[*SERVE, "--repository", tmp_path], tools=None, kind=Agent)
    client.ask("tools/list")
    for _ in range(300):
        client.request("tools/call", {"name": "count_lines"})
    assert len({client.receive()["id"] for _ in range(300)}) == 300 and client.end() == 0
    assert recorded(tmp_path)["count_lines"][2] == {(None, "ok"): 300}


@pytest.mark.parametrize(
    ("options", "status", "said"),
    [
        ("--timeout 0 -- true", 2, "error: argument --timeout: no span of time: 0"),
        ("--timeout nan -- true", 2, "error: argument --timeout: no span of time: nan"),
        ("-- no-such", 2, "quillet: there is no command 'no-such'"),
        ("-- cat >/dev/full", 1, "quillet: standard output: [Errno 28] No space left on device"),
        ("-- cat 0>/dev/null", 1, "quillet: standard input: [Errno 9] Bad file descriptor"),
    ],
)
def test_it_ends_with_a_word_when_it_cannot_go_on(tmp_path, options, status, said):
    script = f'echo line | "$@" guard --database db {options}'
    run = subprocess.run(["bash", "-c", script, "sh", *QUILLET], cwd=tmp_path, capture_output=True)
    assert (run.returncode, run.stdout) == (status, b"")
    assert run.stderr.decode().strip().endswith(said)
