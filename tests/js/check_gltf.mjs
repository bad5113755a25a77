// Checks a glTF file kelvara wrote with readers it did not write.
//
//   node check_gltf.mjs validate FILE
//       The Khronos validator's verdict: prints {"errors", "warnings", "messages"}; exits 0.
//   node check_gltf.mjs rotations FILE EXPECTED.json
//       three.js's GLTFLoader reads FILE; its animation named EXPECTED.animation is played at every
//       time of EXPECTED.times, and the world rotation of each node of EXPECTED.nodes is compared
//       with the quaternion expected there ([x, y, z, w] per time). Prints {"maxDegrees", "worst"};
//       exits 1 when the largest angle exceeds EXPECTED.toleranceDegrees.
import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../..');
const [mode, file, expectedPath] = process.argv.slice(2);
const bytes = fs.readFileSync(file);

async function validate() {
  const validator = await import(path.join(root, 'node_modules/gltf-validator/index.js'));
  const report = await validator.validateBytes(new Uint8Array(bytes), {
    maxIssues: 100,
    externalResourceFunction: () => Promise.reject(new Error('kelvara writes files that stand alone')),
  });
  const messages = report.issues.messages.filter((m) => m.severity <= 1).map((m) => `${m.code} ${m.pointer ?? ''}: ${m.message}`);
  console.log(JSON.stringify({ errors: report.issues.numErrors, warnings: report.issues.numWarnings, messages }));
}

async function rotations() {
  const THREE = await import(path.join(root, 'node_modules/three/build/three.module.js'));
  const { GLTFLoader } = await import(path.join(root, 'node_modules/three/examples/jsm/loaders/GLTFLoader.js'));
  const expected = JSON.parse(fs.readFileSync(expectedPath, 'utf8'));
  // Textures need a browser to decode; the skeleton and its animation do not.
  const quiet = console.warn;
  console.warn = () => {};
  // Buffers embedded in a .gltf are data uris, which the loader fetches with progress events.
  globalThis.ProgressEvent ??= class extends Event {
    constructor(type, init = {}) {
      super(type);
      Object.assign(this, init);
    }
  };
  const gltf = await new Promise((resolve, reject) =>
    new GLTFLoader().parse(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength), '', resolve, reject));
  console.warn = quiet;
  const clip = gltf.animations.find((a) => a.name === expected.animation);
  if (!clip) throw new Error(`no animation named '${expected.animation}' in ${file}`);
  const scene = gltf.scene;
  const mixer = new THREE.AnimationMixer(scene);
  const action = mixer.clipAction(clip);
  action.setLoop(THREE.LoopOnce);
  action.clampWhenFinished = true;
  action.play();
  // The scene's own object of each node (the loader's associations say which node made which).
  const byNode = new Map();
  scene.traverse((object) => {
    const association = gltf.parser.associations.get(object);
    if (association && association.nodes !== undefined && !byNode.has(association.nodes)) byNode.set(association.nodes, object);
  });
  const objects = expected.nodes.map((n) => {
    if (!byNode.has(n.node)) throw new Error(`node ${n.node} is not in the scene of ${file}`);
    return byNode.get(n.node);
  });
  const q = new THREE.Quaternion();
  let maxDegrees = 0;
  let worst = null;
  expected.times.forEach((t, f) => {
    // Key times are 32-bit floats: played at a key's own time, the key's value is what shows.
    mixer.setTime(Math.fround(t));
    scene.updateMatrixWorld(true);
    expected.nodes.forEach((n, k) => {
      objects[k].getWorldQuaternion(q);
      // The angle of the turn from the expected rotation to the shown one, from the relative
      // quaternion's parts (acos of a dot product near 1 would turn the 32-bit keys' rounding
      // into hundredths of a degree).
      const e = new THREE.Quaternion(...n.rotations[f]).normalize().invert();
      const r = e.multiply(q.clone().normalize());
      const degrees = (2 * Math.atan2(Math.hypot(r.x, r.y, r.z), Math.abs(r.w)) * 180) / Math.PI;
      if (degrees > maxDegrees) {
        maxDegrees = degrees;
        worst = { node: n.node, frame: f };
      }
    });
  });
  console.log(JSON.stringify({ maxDegrees, worst }));
  process.exitCode = maxDegrees <= expected.toleranceDegrees ? 0 : 1;
}

await (mode === 'validate' ? validate() : rotations());
