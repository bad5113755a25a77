// A clip on its skeleton in a three.js scene: BVH files read by three's BVHLoader (bones only),
// glTF files by its GLTFLoader (the skinned mesh and its joints). Both are sampled the same way,
// track by track at a given time, so that a paused frame shows exactly the file's keyframe.
import { Box3, MeshLambertMaterial, Object3D, PropertyBinding, Vector3 } from 'three';
import { BVHLoader } from 'three/examples/jsm/loaders/BVHLoader.js';
import { GLTFLoader } from 'three/examples/jsm/loaders/GLTFLoader.js';

// The embedded file's bytes: text as is, binary from base64.
function fileBytes(file) {
  if (file.encoding === 'text') return file.data;
  const raw = atob(file.data);
  const bytes = new Uint8Array(raw.length);
  for (let i = 0; i < raw.length; ++i) bytes[i] = raw.charCodeAt(i);
  return bytes.buffer;
}

// One animated property of one object, evaluated at any time (clamped to the track's keys).
class Channel {
  constructor(track, object, property) {
    this.interpolant = track.createInterpolant();
    this.object = object;
    this.property = property;
  }
  apply(time) {
    this.object[this.property].fromArray(this.interpolant.evaluate(time));
  }
}

export class Figure {
  // root: the object holding the whole figure. joints: [{name, object}] in file order.
  // segments: [{parent, child, childName}] world points to draw a bone between (objects).
  constructor(root, joints, segments, channels, duration, meshes) {
    this.root = root;
    this.joints = joints;
    this.segments = segments;
    this.channels = channels;
    this.duration = duration;
    this.meshes = meshes;
    this.jointByName = new Map(joints.map((j) => [j.name, j]));
  }

  setTime(time) {
    const t = Math.min(Math.max(time, 0), this.duration);
    for (const channel of this.channels) channel.apply(t);
    this.root.updateMatrixWorld(true);
  }

  // Bounds of the joints at the current pose.
  bounds(box = new Box3()) {
    box.makeEmpty();
    const p = new Vector3();
    for (const j of this.joints) box.expandByPoint(j.object.getWorldPosition(p));
    return box;
  }

  // The joint that moves the figure through the world: the first joint of the file.
  rootJoint() {
    return this.joints[0].object;
  }
}

function loadBvh(file) {
  const loaded = new BVHLoader().parse(fileBytes(file));
  const bones = loaded.skeleton.bones;
  const root = new Object3D();
  root.add(bones[0]);
  // End sites have no name of their own in the loader; they only end bones.
  const joints = bones.filter((b) => b.children.length > 0 || b.name !== 'ENDSITE').map((b) => ({ name: b.name, object: b }));
  const isJoint = new Set(joints.map((j) => j.object));
  const segments = [];
  for (const bone of bones)
    if (bone.parent && isJoint.has(bone.parent))
      segments.push({ parent: bone.parent, child: bone, childName: isJoint.has(bone) ? bone.name : null });
  const byName = new Map(joints.map((j) => [j.name, j.object]));
  const channels = [];
  for (const track of loaded.clip.tracks) {
    const dot = track.name.lastIndexOf('.');
    const object = byName.get(track.name.slice(0, dot));
    if (object) channels.push(new Channel(track, object, track.name.slice(dot + 1)));
  }
  return new Figure(root, joints, segments, channels, loaded.clip.duration, []);
}

async function loadGltf(file, meshColour) {
  const gltf = await new GLTFLoader().parseAsync(fileBytes(file), '');
  const scene = gltf.scene;
  const json = gltf.parser.json;
  // Objects by node index, and each node's name as the file has it (the loader sanitizes names).
  const nodeObjects = new Map();
  scene.traverse((o) => {
    const a = gltf.parser.associations.get(o);
    if (a && a.nodes !== undefined && !nodeObjects.has(a.nodes)) nodeObjects.set(a.nodes, o);
  });
  // The animation the page names, or the last one (the one kelvara added to the document).
  const chosen = file.animation >= 0 && file.animation < gltf.animations.length ? file.animation : gltf.animations.length - 1;
  const animation = chosen >= 0 ? gltf.animations[chosen] : null;
  // The skeleton: the skins' joints, or without a skin the nodes the animation moves.
  const indices = [];
  for (const skin of json.skins || []) for (const j of skin.joints) if (!indices.includes(j)) indices.push(j);
  const channels = [];
  const animated = [];
  if (animation)
    for (const track of animation.tracks) {
      const parsed = PropertyBinding.parseTrackName(track.name);
      const object = PropertyBinding.findNode(scene, parsed.nodeName);
      if (!object || !['position', 'quaternion', 'scale'].includes(parsed.propertyName)) continue;
      channels.push(new Channel(track, object, parsed.propertyName));
      animated.push(object);
    }
  if (indices.length === 0)
    for (const [index, object] of nodeObjects) if (animated.includes(object)) indices.push(index);
  indices.sort((a, b) => a - b);
  const joints = indices
    .filter((i) => nodeObjects.has(i))
    .map((i) => ({ name: json.nodes[i].name ?? `node ${i}`, object: nodeObjects.get(i) }));
  const isJoint = new Map(joints.map((j) => [j.object, j.name]));
  const segments = [];
  for (const j of joints)
    if (j.object.parent && isJoint.has(j.object.parent))
      segments.push({ parent: j.object.parent, child: j.object, childName: j.name });
  const meshes = [];
  const material = new MeshLambertMaterial({ color: meshColour, transparent: true, opacity: 0.55, depthWrite: false });
  scene.traverse((o) => {
    if (o.isMesh) {
      o.material = material;
      o.frustumCulled = false; // a skinned mesh moves away from its bind-pose bounds
      meshes.push(o);
    }
  });
  const root = new Object3D();
  root.add(scene);
  return new Figure(root, joints, segments, channels, animation ? animation.duration : 0, meshes);
}

export async function loadFigure(file, meshColour) {
  if (file.format === 'bvh') return loadBvh(file);
  return loadGltf(file, meshColour);
}
