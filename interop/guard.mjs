// Starts two of the protocol's own servers under its official clients, with a guard and without.
// Its argument is the command `quillet`. What the clients see is the same but for the tool of the
// guard's own; then a tool that keeps failing is refused, also by a second guard.

import assert from "node:assert/strict";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { fileURLToPath } from "node:url";
import { KINDS, connected } from "./kinds.mjs";

const bin = (name) => fileURLToPath(new URL(`node_modules/.bin/${name}`, import.meta.url));

async function everything(kind, client, seen) {
  const call = async (name, args = {}, options) =>
    seen.push(await kind.call(client, { name, arguments: args }, options));
  kind.sample(client, ({ params }) => {
    seen.push(params);
    return { role: "assistant", model: "none", content: { type: "text", text: "sampled" } };
  });
  seen.push(await client.listResources(), await client.listPrompts());
  seen.push(await client.readResource({ uri: seen[0].resources[0].uri }));
  seen.push(await client.getPrompt({ name: "simple-prompt" }));
  await call("get-sum", { a: 1, b: 2.5 });
  await call("get-sum", { a: "one" });
  await call("get-tiny-image");
  await call("get-structured-content", { location: "Chicago" });
  await call("trigger-sampling-request", { prompt: "p" });
  // The clients themselves lose the last one now and then, when the result comes along with it.
  const onprogress = (step) => step.progress < step.total && seen.push(step);
  await call("trigger-long-running-operation", { duration: 0.3, steps: 3 }, { onprogress });
}

async function filesystem(kind, client, seen) {
  const { content } = await kind.call(client, { name: "list_allowed_directories", arguments: {} });
  const folder = content[0].text.split("\n").pop();
  for (const path of [folder, join(folder, "gone"), "/"]) {
    for (const name of ["list_directory", "directory_tree", "search_files"]) {
      seen.push(await kind.call(client, { name, arguments: { path, pattern: "*" } }));
    }
  }
  const text = { name: "read_text_file", arguments: { path: join(folder, "a.txt") } };
  seen.push(await kind.call(client, text));
  seen.push(await kind.call(client, { name: "no_such_tool" }).catch((error) => error.message));
}

async function observed(kind, converse, command, ...args) {
  const client = await connected(kind, command, args);
  const seen = [];
  await converse(kind, client, seen);
  seen.push(client.getServerVersion(), client.getServerCapabilities(), client.getInstructions());
  const { tools } = await client.listTools();
  await client.close();
  return { tools, seen };
}

async function compare(kind, database, server, converse) {
  const guard = ["guard", "--database", database, "--timeout", "30", "--", ...server];
  const plain = await observed(kind, converse, ...server);
  const guarded = await observed(kind, converse, process.argv[2], ...guard);
  assert.equal(guarded.tools.pop().name, "tool_health");
  assert.deepEqual(guarded, plain);
  assert.ok(plain.seen.length > 10 && plain.tools.length > 10);
}

async function refuse(kind, database, server) {
  const guard = ["guard", "--database", database, "--disable-on", "errors", "--", ...server];
  const call = { name: "read_text_file", arguments: { path: join(server[1], "gone") } };
  for (const errors of [5, 0]) {
    const client = await connected(kind, process.argv[2], guard);
    await client.listTools();
    for (let n = 0; n < errors; n++) {
      assert.match((await kind.call(client, call)).content[0].text, /^ENOENT/);
    }
    const refused = await kind.call(client, call);
    assert.match(refused.content[0].text, /^read_text_file was not run: .* ENOENT/);
    const health = (await kind.call(client, { name: "tool_health" })).structuredContent;
    assert.equal(health.tools[0].error_count, 5);
    await client.close();
  }
}

for (const [name, kind] of Object.entries(KINDS)) {
  const [own, served] = [0, 1].map(() => mkdtempSync(join(tmpdir(), "interop-")));
  writeFileSync(join(served, "a.txt"), "text\n".repeat(1e5));
  const files = [bin("mcp-server-filesystem"), served];
  await compare(kind, join(own, "a.db"), [bin("mcp-server-everything")], everything);
  await compare(kind, join(own, "b.db"), files, filesystem);
  await refuse(kind, join(own, "c.db"), files);
  for (const folder of [own, served]) rmSync(folder, { recursive: true });
  console.log(`${name}, guarded: all as it should be`);
}
