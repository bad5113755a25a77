// The angle between a target bone and its source bone in the world, and the colour that shows it.
import { Color, Vector3 } from 'three';

const a = new Vector3();
const b = new Vector3();
const c = new Vector3();
const d = new Vector3();

// Degrees between the world directions joint->child of two figures' bones; null when either has
// no length.
export function boneAngle(sourceJoint, sourceChild, targetJoint, targetChild) {
  sourceJoint.getWorldPosition(a);
  sourceChild.getWorldPosition(b);
  targetJoint.getWorldPosition(c);
  targetChild.getWorldPosition(d);
  b.sub(a);
  d.sub(c);
  const lengths = b.length() * d.length();
  if (lengths < 1e-12) return null;
  const cos = Math.min(1, Math.max(-1, b.dot(d) / lengths));
  return (Math.acos(cos) * 180) / Math.PI;
}

// Angles from 0 to this many degrees run from green through yellow to red; beyond it, red.
export const kTintFullDegrees = 45;

export function angleColour(degrees) {
  const share = Math.min(Math.max(degrees / kTintFullDegrees, 0), 1);
  return '#' + new Color().setHSL(((1 - share) * 120) / 360, 0.9, 0.5, 'srgb').getHexString('srgb');
}
