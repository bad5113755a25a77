// The same job as `kelvara retarget SOURCE --target TARGET` done with three.js under node, for the
// speed bench to set kelvara's time beside: BVHLoader parses both files, SkeletonUtils.retargetClip
// carries the source's clip onto the target's skeleton (joint names paired as kelvara paired them).
// Nothing is written.
//
//   node three_retarget.mjs SOURCE.bvh TARGET.bvh PAIRS.json
//       PAIRS.json: kelvara's --report (its first clip's "pairs"). Prints one line:
//       "parse MS retarget MS frames N tracks N".
import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { performance } from 'node:perf_hooks';

const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..');
const THREE = await import(path.join(root, 'node_modules/three/build/three.module.js'));
const { BVHLoader } = await import(path.join(root, 'node_modules/three/examples/jsm/loaders/BVHLoader.js'));
const SkeletonUtils = await import(path.join(root, 'node_modules/three/examples/jsm/utils/SkeletonUtils.js'));

const [sourcePath, targetPath, pairsPath] = process.argv.slice(2);
const report = JSON.parse(fs.readFileSync(pairsPath, 'utf8'));
const names = {};
let hip = '';
for (const pair of report.clips[0].pairs) {
  names[pair.target] = pair.source;
  if (pair.origin === 'body part Hips') hip = pair.target;
}

const start = performance.now();
const loader = new BVHLoader();
const source = loader.parse(fs.readFileSync(sourcePath, 'utf8'));
const target = loader.parse(fs.readFileSync(targetPath, 'utf8'));
const parsed = performance.now();

// retargetClip wants an object that holds the target's skeleton.
const holder = new THREE.Object3D();
holder.add(target.skeleton.bones[0]);
holder.skeleton = target.skeleton;
holder.updateMatrixWorld(true);
const clip = SkeletonUtils.retargetClip(holder, source.skeleton, source.clip, { names, hip });
const done = performance.now();

const frames = clip.tracks.length > 0 ? clip.tracks[0].times.length : 0;
console.log(`parse ${(parsed - start).toFixed(1)} retarget ${(done - parsed).toFixed(1)} frames ${frames} tracks ${clip.tracks.length}`);
