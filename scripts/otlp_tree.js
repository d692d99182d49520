// Prints the spans an OTLP receiver decoded (the JSON lines of
// tests/otlp/receiver.js) as trees: one per trace, children under their
// parent, with kind, duration, status and the attributes worth a look.
//   node otlp_tree.js FILE
"use strict";
const fs = require("fs");
const kinds = ["UNSPECIFIED", "INTERNAL", "SERVER", "CLIENT", "PRODUCER", "CONSUMER"];
const lines = fs.readFileSync(process.argv[2], "utf8").split("\n").filter(Boolean).map((l) => JSON.parse(l));
const spans = lines.filter((l) => l.type === "span");
const logs = lines.filter((l) => l.type === "log");
const byParent = new Map();
for (const s of spans) {
  const key = s.trace_id + "/" + s.parent_span_id;
  if (!byParent.has(key)) byParent.set(key, []);
  byParent.get(key).push(s);
}
const ms = (s) => ((Number(BigInt(s.end) - BigInt(s.start)) / 1e6).toFixed(3) + " ms").padStart(12);
function print(s, depth) {
  const status = s.status.code === 2 ? `  ERROR "${s.status.message}"` : "";
  console.log(`${"  ".repeat(depth)}${s.name} [${kinds[s.kind]}]${ms(s)}${status}`);
  const sql = s.attributes["db.statement"];
  if (sql) for (const st of sql.split("\n")) console.log(`${"  ".repeat(depth + 2)}SQL: ${st}`);
  for (const e of s.events) {
    const text = e.attributes["varnix.msg_text"] || "";
    console.log(`${"  ".repeat(depth + 2)}event ${e.name}${text ? ": " + text.slice(0, 70) : ""}`);
  }
  const children = (byParent.get(s.trace_id + "/" + s.span_id) || []).sort((a, b) => (BigInt(a.start) < BigInt(b.start) ? -1 : 1));
  for (const c of children) print(c, depth + 1);
}
for (const root of spans.filter((s) => s.parent_span_id === "")) {
  const r = root.resource;
  console.log(`trace ${root.trace_id}  (service.name ${r["service.name"]}, host.name ${r["host.name"]}, process.pid ${r["process.pid"]})`);
  print(root, 1);
}
for (const l of logs) console.log(`log record [${l.severity === 17 ? "ERROR" : "INFO"}] ${l.body}`);
