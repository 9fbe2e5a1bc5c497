// The protocol's official clients: with a handshake, and without.

import { Client as StatelessClient } from "@modelcontextprotocol/client";
import { StdioClientTransport as StatelessTransport } from "@modelcontextprotocol/client/stdio";
import { Client } from "@modelcontextprotocol/sdk/client/index.js";
import { StdioClientTransport } from "@modelcontextprotocol/sdk/client/stdio.js";
import { CreateMessageRequestSchema } from "@modelcontextprotocol/sdk/types.js";

const INFO = { name: "interop", version: "1.0.0" };
const SAMPLING = { capabilities: { sampling: {} } };

export const KINDS = {
  "sdk, with a handshake": {
    make: () => new Client(INFO, SAMPLING),
    Transport: StdioClientTransport,
    call: (client, call, options) => client.callTool(call, undefined, options),
    sample: (client, answer) => client.setRequestHandler(CreateMessageRequestSchema, answer),
  },
  "client, without": {
    make: () => new StatelessClient(INFO, { ...SAMPLING, versionNegotiation: { mode: "auto" } }),
    Transport: StatelessTransport,
    call: (client, call, options) => client.callTool(call, options),
    sample: (client, answer) => client.setRequestHandler("sampling/createMessage", answer),
    revision: "2026-07-28",
  },
};

export async function connected(kind, command, args) {
  const client = kind.make();
  await client.connect(new kind.Transport({ command, args, stderr: "ignore" }));
  return client;
}
