// Renders each kustomization under deploy/kubernetes (base, overlays/*, prometheus-adapter) with
// `kubectl kustomize` and checks every object strictly against the Kubernetes API's schemas
// (kubernetes-models, pinned in package.json): a wrong type, a missing required field and a field
// the API does not know are all errors, reported as
//   <kustomization>: <Kind>/<name>: <field path>: <what is wrong>
//
//   node deploy/kubernetes/check.mjs [DIR]     DIR: a copy of deploy/kubernetes (default: here)
//
// Exit status: 0 every object is valid, 1 some are not, 2 a kustomization does not render.
// The schemas say which fields exist but let unknown ones through, as the API server's lenient
// mode does; unknown fields are found by watching which fields the schema's validator reads.
import { execFile } from "node:child_process";
import { existsSync, readdirSync } from "node:fs";
import { createRequire } from "node:module";
import path from "node:path";
import { fileURLToPath } from "node:url";
import { promisify } from "node:util";
import { parseAllDocuments } from "yaml";

const require = createRequire(import.meta.url);
const root = path.resolve(process.argv[2] ?? path.dirname(fileURLToPath(import.meta.url)));

function kustomizations() {
  const dirs = [];
  const walk = (dir) => {
    if (existsSync(path.join(dir, "kustomization.yaml"))) dirs.push(dir);
    const entries = readdirSync(dir, { withFileTypes: true }).filter((e) => e.isDirectory());
    for (const name of entries.map((e) => e.name).sort()) walk(path.join(dir, name));
  };
  walk(root);
  return dirs;
}

// A proxy over `value` that notes, for every object inside it, which fields were read and
// whether its keys were listed (a map: every key is then legitimate).
function watched(value, reads) {
  const proxies = new WeakMap();
  const wrap = (v) => {
    if (v === null || typeof v !== "object") return v;
    if (!proxies.has(v)) {
      const note = { fields: new Set(), listed: false };
      reads.set(v, note);
      proxies.set(v, new Proxy(v, {
        get(target, key) {
          if (typeof key === "string") note.fields.add(key);
          return wrap(target[key]);
        },
        ownKeys(target) {
          note.listed = true;
          return Reflect.ownKeys(target);
        },
      }));
    }
    return proxies.get(v);
  };
  return wrap(value);
}

function unknownFields(value, reads, at, out) {
  if (value === null || typeof value !== "object") return;
  if (Array.isArray(value)) {
    value.forEach((item, i) => unknownFields(item, reads, `${at}[${i}]`, out));
    return;
  }
  const note = reads.get(value);
  // Not reached by the validator (below an unknown field), or a schema that takes anything.
  if (!note || (!note.listed && note.fields.size === 0)) return;
  for (const [key, item] of Object.entries(value)) {
    const here = at ? `${at}.${key}` : key;
    if (!note.listed && !note.fields.has(key)) out.push(`${here}: unknown field`);
    else unknownFields(item, reads, here, out);
  }
}

const fieldPath = (pointer) =>
  pointer.split("/").slice(1).map((p) => (/^\d+$/.test(p) ? `[${p}]` : `.${p}`)).join("").slice(1);

function check(object) {
  const { apiVersion, kind } = object ?? {};
  if (typeof apiVersion !== "string" || typeof kind !== "string") return ["apiVersion and kind are required"];
  let model;
  try {
    model = require(`kubernetes-models/${apiVersion}/${kind}`)[kind];
  } catch {
    return [`no schema for ${apiVersion} ${kind}`];
  }
  const problems = [];
  const reads = new Map();
  try {
    model.prototype.validate.call(watched(object, reads));
  } catch (error) {
    if (!Array.isArray(error.errors)) throw error;
    // One line a field: the alternatives of an int-or-string or a quantity said together.
    const byField = new Map();
    for (const e of error.errors) {
      const where = fieldPath(e.instancePath) || "(object)";
      if (!byField.has(where)) byField.set(where, []);
      byField.get(where).push(e);
    }
    for (const [where, errors] of byField) {
      const types = errors.filter((e) => e.keyword === "type").map((e) => e.params.type);
      const messages = errors.some((e) => e.keyword === "oneOf" || e.keyword === "anyOf")
        ? [`must be ${types.join(" or ")}`]
        : errors.map((e) => e.message + (e.params?.allowedValues ? `: ${e.params.allowedValues.join(", ")}` : ""));
      problems.push(`${where}: ${[...new Set(messages)].join("; ")}`);
    }
  }
  unknownFields(object, reads, "", problems);
  return problems;
}

// Rendered all at once (kubectl takes a while to start), checked in order.
const dirs = kustomizations();
const renders = await Promise.allSettled(
  dirs.map((dir) => promisify(execFile)("kubectl", ["kustomize", dir], { maxBuffer: 1 << 24 })));
let failed = false;
for (const [i, dir] of dirs.entries()) {
  const name = path.relative(root, dir) || ".";
  if (renders[i].status === "rejected") {
    const error = renders[i].reason;
    console.error(`${name}: kubectl kustomize failed: ${(error.stderr || error.message).trim()}`);
    process.exit(2);
  }
  const rendered = renders[i].value.stdout;
  let count = 0;
  for (const doc of parseAllDocuments(rendered)) {
    if (doc.errors.length) {
      console.error(`${name}: ${doc.errors[0].message}`);
      failed = true;
      continue;
    }
    const object = doc.toJS();
    if (object === null) continue;
    count++;
    for (const problem of check(object)) {
      console.error(`${name}: ${object.kind}/${object.metadata?.name}: ${problem}`);
      failed = true;
    }
  }
  console.log(`${name}: ${count} objects checked`);
}
process.exit(failed ? 1 : 0);
