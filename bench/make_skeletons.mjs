// Writes the BVH sources the speed bench needs and no one ships: wide and deep skeletons.
//
//   node make_skeletons.mjs faces CLIP.bvh N OUT.bvh [FRAMES]
//       CLIP with N still joints more (a face's worth of bones, all zero rotations) hung under its
//       Head in place of the Head's end site: the same motion over more joints. With FRAMES, only
//       the first FRAMES frames.
//   node make_skeletons.mjs chain N FRAMES OUT.bvh
//       One chain of N joints (a root and N-1 joints, each the only child of the one before) with
//       FRAMES frames of a gentle bend: the deepest file the reader takes is 10,000 joints.
import fs from 'node:fs';

function faces(clipPath, count, outPath, keepFrames) {
  const lines = fs.readFileSync(clipPath, 'utf8').split(/\r?\n/);
  const head = lines.findIndex((l) => /^\s*JOINT\s+Head\s*$/.test(l));
  if (head < 0) throw new Error(`${clipPath}: no joint named Head`);
  // Channels before the Head's own, and the Head's count: the new columns follow the Head's.
  let channelsBefore = 0;
  let headChannels = 0;
  for (let i = 0; i < lines.length; i++) {
    const m = /^\s*CHANNELS\s+(\d+)/.exec(lines[i]);
    if (!m) continue;
    if (i > head) {
      headChannels = Number(m[1]);
      break;
    }
    channelsBefore += Number(m[1]);
  }
  const endSite = lines.findIndex((l, i) => i > head && /^\s*End Site\s*$/.test(l));
  const indent = lines[head].match(/^\s*/)[0] + '\t';
  const joints = [];
  for (let k = 0; k < count; k++) {
    const x = (0.01 * ((k % 20) - 10)).toFixed(5);
    const y = (0.5 + 0.01 * Math.floor(k / 20)).toFixed(5);
    joints.push(`${indent}JOINT face${k}`, `${indent}{`, `${indent}\tOFFSET ${x} ${y} 0.10000`,
      `${indent}\tCHANNELS 3 Zrotation Yrotation Xrotation`, `${indent}\tEnd Site`, `${indent}\t{`,
      `${indent}\t\tOFFSET 0.00000 0.01000 0.00000`, `${indent}\t}`, `${indent}}`);
  }
  // The Head's end site (its four lines) gives way to the new joints.
  const out = [...lines.slice(0, endSite), ...joints, ...lines.slice(endSite + 4)];
  const motion = out.findIndex((l) => /^\s*MOTION\s*$/.test(l));
  const zeros = Array(3 * count).fill('0').join(' ');
  if (keepFrames > 0) {
    out.splice(motion + 3 + keepFrames);
    out[motion + 1] = `Frames: ${keepFrames}`;
  }
  for (let i = motion + 3; i < out.length; i++) {
    if (!out[i].trim()) continue;
    const values = out[i].trim().split(/\s+/);
    values.splice(channelsBefore + headChannels, 0, zeros);
    out[i] = values.join(' ');
  }
  fs.writeFileSync(outPath, out.join('\n'));
}

function chain(count, frames, outPath) {
  const out = ['HIERARCHY', 'ROOT j0', '{', 'OFFSET 0 0 0', 'CHANNELS 6 Xposition Yposition Zposition Zrotation Xrotation Yrotation'];
  for (let k = 1; k < count; k++)
    out.push(`JOINT j${k}`, '{', 'OFFSET 0 1 0', 'CHANNELS 3 Zrotation Xrotation Yrotation');
  out.push('End Site', '{', 'OFFSET 0 1 0', '}');
  for (let k = 0; k < count; k++) out.push('}');
  out.push('MOTION', `Frames: ${frames}`, 'Frame Time: 0.033333');
  for (let f = 0; f < frames; f++) {
    const bend = (0.1 * Math.sin(f / 10)).toFixed(4);
    const row = ['0', '10', '0', '0', '0', '0'];
    for (let k = 1; k < count; k++) row.push(bend, '0', '0');
    out.push(row.join(' '));
  }
  fs.writeFileSync(outPath, out.join('\n') + '\n');
}

const [mode, ...args] = process.argv.slice(2);
if (mode === 'faces') faces(args[0], Number(args[1]), args[2], Number(args[3] ?? 0));
else if (mode === 'chain') chain(Number(args[0]), Number(args[1]), args[2]);
else {
  console.error('usage: make_skeletons.mjs faces CLIP.bvh N OUT.bvh [FRAMES] | chain N FRAMES OUT.bvh');
  process.exit(2);
}
