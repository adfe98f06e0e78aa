// node peer_node.js PACKAGE MODEL LIST OUT: what peer_script.py does, with the engine's own package
// for node, whose folder PACKAGE is.
"use strict";
const fs = require("fs");
const [, , packageFolder, model, list, out] = process.argv;
const engine = require(packageFolder);

const ARRAYS = {float32: Float32Array, uint8: Uint8Array};

function write(folder, name, values) {
  fs.mkdirSync(folder);
  const stamp = Math.round((performance.timeOrigin + performance.now()) * 1000);
  const base = `${folder}/${name}.0.${stamp}`;
  let text = "";
  for (const value of values) {
    text += value.toFixed(16) + "\n";
  }
  fs.writeFileSync(base + ".float", text);
  fs.writeFileSync(base + ".bin", values);
}

async function main() {
  const session = await engine.InferenceSession.create(model, {intraOpNumThreads: 1});
  const [input] = session.inputMetadata;
  const dims = input.shape.map((dim) => (typeof dim === "number" ? dim : 1));
  const [name] = session.outputNames;
  const paths = fs.readFileSync(list, "utf8").split("\n").filter(Boolean);
  for (const [index, path] of paths.entries()) {
    const bytes = fs.readFileSync(path);
    const copy = bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.length);
    const data = new ARRAYS[input.type](copy);
    const feeds = {[input.name]: new engine.Tensor(input.type, data, dims)};
    write(`${out}/${index}`, name, (await session.run(feeds))[name].data);
  }
}

main();
