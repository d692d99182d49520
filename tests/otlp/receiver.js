// The tests' OTLP/HTTP receiver on 127.0.0.1.  Every request is decoded with
// OpenTelemetry's own generated protobuf code, and each span and log record
// becomes one JSON line of the output file, ids in hexadecimal, times in
// nanoseconds as strings, attributes as an object.
//   node receiver.js PORT_FILE OUT_FILE LIFETIME_S [REFUSE_FIRST [PORT]]
// The first REFUSE_FIRST requests are answered 503.  PORT 0 (the default)
// takes a free port; the port is written to PORT_FILE once listening.  The
// process ends by itself after LIFETIME_S seconds.
"use strict";
const fs = require("fs");
const http = require("http");
const root = require("@opentelemetry/otlp-proto-exporter-base/build/src/generated/root.js");

const [portFile, outFile, lifetime, refuseFirst = "0", port = "0"] = process.argv.slice(2);
const otlp = root.opentelemetry.proto;
const hex = (b) => Buffer.from(b || []).toString("hex");
const nanos = (v) => (v === undefined || v === null ? "0" : v.toString());

function value(v) {
  if (!v) return null;
  if (v.stringValue !== undefined && v.stringValue !== null && v.stringValue !== "") return v.stringValue;
  if (v.intValue !== undefined && v.intValue !== null) return Number(v.intValue.toString());
  if (v.boolValue !== undefined && v.boolValue !== null) return v.boolValue;
  return v.stringValue === "" ? "" : null;
}

function attributes(list) {
  const out = {};
  for (const kv of list || []) out[kv.key] = value(kv.value);
  return out;
}

function spans(req) {
  const lines = [];
  for (const rs of req.resourceSpans || [])
    for (const ss of rs.scopeSpans || [])
      for (const s of ss.spans || [])
        lines.push({
          type: "span",
          resource: attributes(rs.resource && rs.resource.attributes),
          scope: ss.scope ? { name: ss.scope.name, version: ss.scope.version } : null,
          trace_id: hex(s.traceId), span_id: hex(s.spanId), parent_span_id: hex(s.parentSpanId),
          name: s.name, kind: s.kind, start: nanos(s.startTimeUnixNano), end: nanos(s.endTimeUnixNano),
          attributes: attributes(s.attributes),
          events: (s.events || []).map((e) => ({ name: e.name, time: nanos(e.timeUnixNano),
                                                 attributes: attributes(e.attributes) })),
          status: { code: s.status ? s.status.code || 0 : 0, message: s.status ? s.status.message || "" : "" },
        });
  return lines;
}

function logs(req) {
  const lines = [];
  for (const rl of req.resourceLogs || [])
    for (const sl of rl.scopeLogs || [])
      for (const l of sl.logRecords || [])
        lines.push({
          type: "log", resource: attributes(rl.resource && rl.resource.attributes), time: nanos(l.timeUnixNano),
          severity: l.severityNumber, body: value(l.body), trace_id: hex(l.traceId),
          attributes: attributes(l.attributes),
        });
  return lines;
}

const routes = {
  "/v1/traces": (body) => spans(otlp.collector.trace.v1.ExportTraceServiceRequest.decode(body)),
  "/v1/logs": (body) => logs(otlp.collector.logs.v1.ExportLogsServiceRequest.decode(body)),
};

let requests = 0;
const server = http.createServer((req, res) => {
  const chunks = [];
  req.on("data", (c) => chunks.push(c));
  req.on("end", () => {
    const route = routes[req.url];
    let status = 200;
    let lines = [];
    if (!route || req.method !== "POST") status = 404;
    else if (req.headers["content-type"] !== "application/x-protobuf") status = 415;
    else if (++requests <= Number(refuseFirst)) status = 503;
    else {
      try {
        lines = route(Buffer.concat(chunks));
      } catch (e) {
        status = 400;
      }
    }
    lines.unshift({ type: "request", path: req.url, status });
    fs.appendFileSync(outFile, lines.map((l) => JSON.stringify(l) + "\n").join(""));
    res.writeHead(status, { "Content-Type": "application/x-protobuf" });
    res.end();
  });
});
server.listen(Number(port), "127.0.0.1", () => fs.writeFileSync(portFile, String(server.address().port)));
setTimeout(() => process.exit(0), Number(lifetime) * 1000);
