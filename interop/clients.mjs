// Starts the daemon under the protocol's official clients: with a handshake, and without.
// Its one argument is the command `quillet`. Each client lists and calls tools, has one disabled,
// cancels, makes 300 calls at once, and starts a second daemon on the first one's history.

import assert from "node:assert/strict";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { KINDS, connected } from "./kinds.mjs";

const TOOLS = "search_text read_file count_lines embed_text status get_tool_performance_stats";

async function converse(kind, folder) {
  const broken = "QUILLET_EMBED_MODEL=gone"; // and set by a command: not all clients hand it on
  const serve = ["env", [broken, process.argv[2], "serve", "--repository", folder]];
  const client = await connected(kind, ...serve);
  const call = (name, args = {}) => client.callTool({ name, arguments: args });
  const read = (path) => call("read_file", { path });

  const { tools } = await client.listTools();
  assert.equal(tools.map((tool) => tool.name).join(" "), TOOLS);
  assert.equal(client.getServerVersion().name, "quillet");
  assert.equal(client.getNegotiatedProtocolVersion?.(), kind.revision);
  assert.deepEqual((await read("a.txt")).structuredContent.lines, ["text"]);

  const wrong = await call("read_file", { path: 5 });
  assert.ok(wrong.isError && wrong.content[0].text === "path must be a text");
  await assert.rejects(call("read_mind"), { code: -32602 });

  const abort = new AbortController();
  const search = { name: "search_text", arguments: { text: "no such text" } };
  const cancelled = kind.call(client, search, { signal: abort.signal });
  abort.abort("interop");
  await assert.rejects(cancelled);

  const counts = await Promise.all(Array.from({ length: 300 }, () => call("count_lines")));
  assert.ok(counts.every((count) => count.structuredContent.other === 1));

  const embed = () => call("embed_text", { text: "t" });
  for (let n = 0; n < 5; n++) assert.ok((await read("gone.txt")).isError && (await embed()).isError);
  assert.match((await embed()).content[0].text, /^embed_text was not run: it kept failing /);
  assert.ok(!(await read("a.txt")).isError);
  await client.close();

  const second = await connected(kind, ...serve);
  const status = { name: "status", arguments: { action: "perf_stats" } };
  const health = (await second.callTool(status)).structuredContent.tools;
  const { disabled, call_count, error_count } = health[0];
  assert.deepEqual([disabled, call_count, error_count], [true, 5, 5]);
  assert.equal(health.find((tool) => tool.tool_name === "count_lines").call_count, 300);
  await second.close();
}

for (const [name, kind] of Object.entries(KINDS)) {
  const folder = mkdtempSync(join(tmpdir(), "interop "));
  writeFileSync(join(folder, "a.txt"), "text\n");
  await converse(kind, folder);
  rmSync(folder, { recursive: true });
  console.log(`${name}: all as it should be`);
}
