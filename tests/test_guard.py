"""A guard around servers of every kind: what passes, what it answers, what it records."""

import json
import signal
import subprocess
import sys
import time
from contextlib import suppress

import pytest
from quillet.client import Client
from quillet.guard.watch import Watch
from quillet.protocol.messages import line_of
from test_mcp import SERVE, Agent

# It does and answers what a request says, and answers cancelled calls all the same.
SERVER = """
import json, os, signal, sys, time
if sys.argv[1:]: signal.signal(signal.SIGTERM, signal.SIG_IGN)
for line in sys.stdin:
    params = (message := json.loads(line)).get("params", {})
    do, answers = params.get("arguments", params), []
    time.sleep(do.get("sleep", 0))
    for said in do.get("says", []): print(json.dumps(said), flush=True); time.sleep(0.2)
    if "signal" in do: os.write(1, b'{"id": '); os.kill(os.getpid(), do["signal"]); os._exit(7)
    if "file" in do: open(do["file"], "w").close()
    if "raw" in do: os.write(1, do["raw"].encode("latin-1"))
    if "answer" in do: answers = [{"id": message["id"], "pid": os.getpid()} | do["answer"]]
    if "requestId" in do: answers = [{"told": do}, {"id": do["requestId"], "result": {}}]
    for answer in answers: print(json.dumps(answer), flush=True)
time.sleep(2 * do.get("sleep", 0))  # longer than after a signal
print('{"bye": 1}', flush=True)
time.sleep(60 * len(sys.argv[1:]))
"""
PYTHON = [sys.executable, "-c", SERVER]
TOOLS = [{"name": "a", "inputSchema": {"properties": {"action": {"enum": ["x"]}}}}, {"name": ["b"]}]
OK, FAILED = {"result": {"content": []}}, {"error": {"code": -32000, "message": "it broke"}}
SAYS_SO = [{"type": "image", "data": ""}, {"type": "text", "text": "no file"}]
IS_ERROR = {"result": {"isError": True, "content": SAYS_SO}}
ASKS, INVALID = {"result": {"resultType": "input_required"}}, {"error": {"code": -32602}}
ALL = [OK, FAILED, INVALID, {"error": {"code": -32601}}, ASKS, OK, FAILED, IS_ERROR]


def around(folder):
    return [*SERVE[:-1], "guard", "--database", folder / "db"]


@pytest.fixture
def guard(tmp_path):
    """Starts a guard, and lists a server's tools; what still runs is killed at the end."""
    (tmp_path / "config").write_text("[tools]\ndisable_after_errors = 2")
    started = []

    def guard(*more, server=PYTHON, tools=TOOLS, kind=Client, before=()):
        command = [
            *before,
            *around(tmp_path),
            "--config",
            tmp_path / "config",
            *more,
            "--",
            *server,
        ]
        started.append(kind(command, stderr=subprocess.PIPE))
        if tools:
            listed = started[-1].ask("tools/list", {"answer": {"result": {"tools": tools, "n": 1}}})
            *same, own = listed["result"]["tools"]
            assert own["name"] == "tool_health" and same == tools
        return started[-1]

    yield guard
    for client in started:
        client.daemon.kill()
        client.daemon.wait()


def recorded(folder, tool="a"):
    """A tool's errors, its last error, and how its calls ended, as `status` shows it."""
    run = subprocess.check_output([*SERVE[:-1], "status", "--database", folder / "db"])
    [record] = [record for record in json.loads(run)["tools"] if record["tool_name"] == tool]
    assert all((row["outcome"] == "ok") == (row["avg_ms"] is not None) for row in record["usage"])
    ends = {(row["action"], row["outcome"]): row["calls"] for row in record["usage"]}
    return record["error_count"], record["last_error"], ends


def test_what_it_does_not_know_passes_as_it_came(guard, tmp_path):
    lines = [b"", b"\xff\xfe", b"[" * 100_000, b'{"id": NaN, "result": 1e999}', b"[{}]\r",
             b'{"id": 1, "method": "tools/list"}', b'{"id": [1], "method": "tools/call"}',
             b'{"id": 2, "method": "tools/call", "params": {"name": "x", "_meta": 1}}',
             b'{"id": 1,  "result": {"tools": 7}}', b"x" * 20_000_000, b"no end"]  # fmt: skip
    command, sent = [*around(tmp_path), "--", "sh", "-c", "cat; echo >&2 e"], b"\n".join(lines)
    run = subprocess.run(command, input=sent, capture_output=True)
    assert (run.returncode, run.stderr) == (0, b"e\n") and run.stdout == sent
    client = guard()
    for more in ('"nextCursor": "2"', '"n": 1e999', '"n": 1, "tools": [{"name": "tool_health"}]'):
        answer = f'"params": {{"answer": {{"result": {{"tools": [], {more}}}}}}}'
        client.send(f'{{"id": 1, "method": "tools/list", {answer}}}\n'.encode())
        assert client.receive()["result"] == json.loads(f'{{"tools": [], {more}}}')
    client.request("tools/call", {"name": "a", "arguments": {"answer": FAILED | {"id": 7.0}}}, id=7)
    assert client.receive()["error"] and client.end() == 0
    assert recorded(tmp_path)[0] == 1  # of an earlier page, and whatever the form of its id


@pytest.mark.parametrize("mode", ["failures", "errors"])
def test_what_counts_as_an_error_and_for_how_long(guard, tmp_path, mode):
    client, lenient = guard("--disable-on", mode), mode == "failures"
    for action in ("x", ["x"]):
        assert client.call("a", {"answer": OK, "action": action}) == OK["result"]
    for answer in [*ALL, FAILED, FAILED][: 10 if lenient else 8]:
        assert client.call("a", {"answer": answer}) == (answer.get("result") or answer["error"])
    disabled, last_error = client.call("a"), "it broke" if lenient else "no file"
    assert disabled["isError"] and disabled["resultType"] == "complete"
    told = disabled["content"][0]["text"]
    assert told.startswith("a was not run: it kept failing and is disabled until ")
    assert told.endswith(
        f" Use another tool, or call it again after that. Last error: {last_error}"
    )
    assert client.ask("tools/call", {"name": "a", "task": {}})["error"]["code"] == -32603
    assert client.end() == 0
    usage = {("x", "ok"): 1, (None, "ok"): 3, (None, "invalid"): 2, (None, "disabled"): 2}
    usage[None, "error"] = 5 if lenient else 3
    assert recorded(tmp_path) == (4 if lenient else 3, last_error, usage)
    again = guard(tools=None)  # the history says which tools there are
    again.send(line_of({"id": 1, "method": "tools/call", "params": {"name": "a"}}))
    assert again.receive()["result"].keys() == {"content", "isError"}
    [health] = again.call("tool_health")["structuredContent"]["tools"]
    assert health["tool_name"] == "a" and health["tried_again_in_s"] > 200


def test_a_call_that_takes_too_long_is_given_up_and_cancelled(guard, tmp_path):
    client, words = guard("--timeout", "0.3"), "no answer within 0.3 s"
    client.request("tools/call", {"name": "a"}, id="slow")
    answer = client.receive()
    unsure = f"{words}; the call was cancelled, but may still have taken effect"
    assert (answer["id"], answer["result"]["content"][0]["text"]) == ("slow", unsure)
    assert client.receive() == {"told": {"requestId": "slow", "reason": "timeout"}}
    assert (
        client.call("a", {"answer": OK, "sleep": 0.15}) == OK["result"]
    )  # the late answer did not come
    client.request("tools/call", {"name": "a"}, id="mine")
    client.cancel("mine")
    assert client.receive()["told"] and client.receive()["id"] == "mine" and client.end() == 0
    counts = {(None, outcome): 1 for outcome in ("ok", "error", "cancelled")}
    assert recorded(tmp_path) == (1, words, counts)


def test_odd_answers_are_those_of_their_calls(guard, tmp_path):
    client = guard("--timeout", "1")
    raw = {"raw": '{"id": 7, "result": "\xe9"}\n'}
    client.request("tools/call", {"name": "a", "arguments": raw}, id=7)
    with pytest.raises(ValueError, match="0xe9"):
        client.receive()
    client.request("tools/call", {"name": "a", "arguments": {"answer": OK | {"id": "8"}}}, id=8)
    assert client.receive()["id"] == "8"
    client.request("tools/call", {"name": "a", "arguments": {"sleep": 1.4}}, id="x")
    assert client.receive()["result"]["isError"]  # and the id is free again
    client.request("tools/call", {"name": "a"}, id="x")
    client.cancel("x")
    client.request("tools/call", {"name": "a", "arguments": {"answer": OK}}, id="x")
    assert client.receive()["told"]["requestId"] == "x" != client.receive()["told"]["requestId"]
    last = client.receive()
    assert (last["id"], last["result"], client.end()) == ("x", OK["result"], 0)
    assert recorded(tmp_path)[2] == {(None, "ok"): 3, (None, "error"): 1, (None, "cancelled"): 1}


def test_calls_are_given_up_one_by_one(tracker):
    watch = Watch(tracker(), {}, errors_disable=False)
    watch.from_client(line_of({"id": 0, "method": "tools/list"}))
    watch.from_server(line_of({"id": 0, "result": {"tools": TOOLS}}))
    for id in (1, 2):
        watch.from_client(line_of({"id": id, "method": "tools/call", "params": {"name": "a"}}))
    given_up, answer = watch.pass_time(9, 0), line_of({"id": 2} | OK)
    assert json.loads(next(given_up)[0])["id"] == 1
    assert watch.from_server(answer) == answer and [*given_up] == []


PROGRESS = {"method": "notifications/progress", "params": {"progressToken": "p"}}
QUESTION = {"id": 9, "method": "elicitation/create"}


@pytest.mark.parametrize("said", [PROGRESS, QUESTION])
def test_no_call_is_given_up_that_makes_progress_or_waits_for_the_client(guard, said):
    client, words = guard("--timeout", "0.3"), {"answer": OK, "says": [said] * 5}
    params = {"name": "a", "arguments": words, "_meta": {"progressToken": "p"}}
    client.request("tools/call", params)
    assert [client.receive() for _ in range(5)] == [said] * 5
    assert client.receive()["result"] == OK["result"]
    client.send(line_of({"id": 9, "result": {}}))
    assert client.call("a")["isError"]


def test_no_call_is_given_up_that_was_answered_in_time(guard, tmp_path):
    waits = f"read -r line; echo $line; sleep 1; until [ -e {tmp_path}/6 ]; do sleep 0.1; done; cat"
    client = guard("--timeout", "0.3", before=["bash", "-c", f'"$@" | {{ {waits}; }}', "sh"])
    for n in range(1, 7):  # a client that writes all before it reads
        time.sleep((n == 5) / 4)  # by now nothing more is taken from the guard
        answer = {"result": {"content": [], "x": "x" * 30_000}}
        arguments = {"answer": answer, "file": f"{tmp_path}/{n}"}
        client.request("tools/call", {"name": "a", "arguments": arguments})
    assert all("x" in client.receive()["result"] for _ in range(6)) and client.end() == 0
    client = guard("--timeout", "0.3")
    client.request("tools/call", {"name": "a", "arguments": {"answer": OK, "sleep": 0.2}})
    time.sleep(0.1)
    client.daemon.send_signal(signal.SIGSTOP)
    time.sleep(0.5)
    client.daemon.send_signal(signal.SIGCONT)
    assert client.receive()["result"] == OK["result"] and client.end() == 0
    assert recorded(tmp_path)[2] == {(None, "ok"): 7}


def test_a_server_that_reads_no_more_holds_up_no_answer(guard):
    client = guard("--timeout", "0.3")
    for arguments in ({"sleep": 9}, {"x": "x" * 200_000}):
        client.request("tools/call", {"name": "a", "arguments": arguments})
    assert [client.receive(6)["result"]["isError"] for _ in range(2)] == [True] * 2


@pytest.mark.parametrize(("number", "status"), [(0, 7), (signal.SIGKILL, 137)])
def test_a_server_that_dies_is_told_and_started_again(guard, tmp_path, number, status):
    client, words, dying = guard(), f"the server ended with status {status}", {"signal": number}
    assert client.ask("initialize", {"answer": OK})["result"] == OK["result"]
    client.send(line_of({"method": "notifications/initialized", "params": {"requestId": 0}}))
    told = [client.receive(), client.receive()]
    for _ in range(2):  # in a row, with nothing answered between
        client.request("other")
        client.request("tools/call", {"name": "a", "arguments": dying})
        with pytest.raises(ValueError):  # the line that it left
            client.receive()
        assert client.receive()["error"] == {"code": -32603, "message": words}
        assert client.receive()["result"]["content"][0]["text"] == words
        assert [client.receive(), client.receive()] == told  # hands are shaken again
    assert "disabled" in client.call("a", dying)["content"][0]["text"]
    assert client.ask("other", {"answer": OK})["pid"] and client.end() == 0
    assert client.daemon.stderr.read().decode().count(f"{words}, and is started again\n") == 2
    assert recorded(tmp_path) == (2, words, {(None, "error"): 2, (None, "disabled"): 1})
    useless = guard(tools=None)
    useless.request("initialize", dying)
    with pytest.raises(ValueError):
        useless.receive()
    assert useless.receive()["error"]["message"] == words
    with pytest.raises(EOFError, match=str(status)):
        useless.receive()
    assert useless.daemon.stderr.read().decode().endswith(f"quillet: {words}\n")


@pytest.mark.parametrize(
    ("end", "status"), [("input", 0), ("HUP", 129), ("TERM", 143), ("KILL", -9)]
)
def test_no_server_outlives_its_guard(guard, tmp_path, end, status):
    shell = ["sh", "-c", '"$@"; true', "sh", *PYTHON, "ignores SIGTERM"]
    client = guard(server={"TERM": shell, "KILL": [*PYTHON, "so"]}.get(end, PYTHON))
    client.request("tools/call", {"name": "a"})
    server = client.ask("tools/call", {"name": "pid", "arguments": {"answer": OK}})["pid"]
    if end == "input":  # what comes after it is still handed on
        client.request("tools/call", {"name": "a", "arguments": {"answer": OK, "sleep": 0.3}})
        assert client.end() == 0 and client.receive()["result"] == OK["result"]
    else:
        client.daemon.send_signal(signal.Signals[f"SIG{end}"])
    assert client.daemon.wait(9) == status
    assert end in ("TERM", "KILL") or client.receive() == {"bye": 1}  # it had its time
    with suppress(OSError):
        while open(f"/proc/{server}/stat").read().split()[2] != "Z":
            time.sleep(0.01)
    assert end == "KILL" or recorded(tmp_path)[2][None, "cancelled"] == 1


def test_all_that_the_server_started_has_its_time(guard, tmp_path):
    saves = (
        f"trap 'sleep 0.2; >{tmp_path}/saved; exit' TERM; echo {{}}; while :; do sleep 0.01; done"
    )
    client = guard(tools=None, server=["sh", "-c", '"$@"; true', "sh", "sh", "-c", saves])
    assert client.receive() == {}
    client.daemon.terminate()
    assert client.daemon.wait(9) == 143 and (tmp_path / "saved").exists()


def test_the_end_of_a_client_is_seen_while_the_server_does_not_read(tmp_path):
    hasty = "import runpy; from quillet.guard import relay; relay.SILENT_S = 0.2"
    program = f"{hasty}; runpy.run_module('quillet', run_name='__main__')"
    command = [sys.executable, "-P", "-c", program, *around(tmp_path)[4:], "--", "sleep", "60"]
    with subprocess.Popen(["yes"], stdout=-1) as client:
        guard = subprocess.Popen(command, stdin=client.stdout)
        with pytest.raises(subprocess.TimeoutExpired):
            guard.wait(0.7)
        client.kill()
        client.stdout.close()
    assert guard.wait(9) == 0


def test_hundreds_of_calls_pass_at_once(guard, tmp_path):
    client = guard(server=[*SERVE, "--repository", tmp_path], tools=None, kind=Agent)
    client.ask("tools/list")
    for _ in range(300):
        client.request("tools/call", {"name": "count_lines"})
    assert len({client.receive()["id"] for _ in range(300)}) == 300
    health = client.call("tool_health")["structuredContent"]
    assert (health["tools"], health["others"]) == ([], 1)
    [tool] = client.call("tool_health", {"tool": "count_lines"})["structuredContent"]["tools"]
    assert tool["call_count"] == 300 and client.end() == 0
    assert recorded(tmp_path, "count_lines")[2] == {(None, "ok"): 300}


@pytest.mark.parametrize(
    ("options", "status", "said"),
    [*((f"--timeout {span} -- true", 2, f"'{span}' is not a number of seconds above 0")
       for span in ("0", "nan", "30s")),
     ("-- no-such", 2, "quillet: there is no command 'no-such'"),
     ("-- cat >/dev/full", 1, "quillet: standard output: [Errno 28] No space left on device"),
     ("-- cat 0>/dev/null", 1, "quillet: standard input: [Errno 9] Bad file descriptor")],
)  # fmt: skip
def test_it_ends_with_a_word_when_it_cannot_go_on(tmp_path, options, status, said):
    script = ["bash", "-c", f'echo line | "$@" {options}', "sh", *around(tmp_path)]
    run = subprocess.run(script, capture_output=True)
    assert (run.returncode, run.stdout) == (status, b"")
    assert run.stderr.decode().strip().endswith(said)
