// Bones drawn as flat-coloured rods between joints, after the (transparent) mesh and over it, so that a
// bone's colour on screen is exactly the colour it was given (the tests read it back).
import { Color, CylinderGeometry, Group, Mesh, MeshBasicMaterial, Vector3 } from 'three';

const up = new Vector3(0, 1, 0);
const from = new Vector3();
const to = new Vector3();
const direction = new Vector3();

export class BoneRig {
  constructor(figure, radius) {
    this.figure = figure;
    this.group = new Group();
    this.group.renderOrder = 1;
    // A unit rod standing on the origin, scaled and turned onto each bone every frame.
    const geometry = new CylinderGeometry(1, 1, 1, 8, 1);
    geometry.translate(0, 0.5, 0);
    this.rods = figure.segments.map((segment) => {
      const material = new MeshBasicMaterial({ color: 0x888888, depthTest: false, depthWrite: false, transparent: true });
      const rod = new Mesh(geometry, material);
      rod.renderOrder = 2;
      rod.frustumCulled = false;
      this.group.add(rod);
      return { segment, rod, colour: '#888888' };
    });
    this.radius = radius;
  }

  // Colours by the name of the joint each bone ends at; unnamed (end sites) and unlisted get other.
  setColours(colourOfChild, other) {
    for (const r of this.rods) {
      const colour = (r.segment.childName !== null && colourOfChild.get(r.segment.childName)) || other;
      r.colour = colour;
      r.rod.material.color = new Color(colour);
    }
  }

  // Follows the figure's current pose; the rig lives in world space.
  update() {
    for (const { segment, rod } of this.rods) {
      segment.parent.getWorldPosition(from);
      segment.child.getWorldPosition(to);
      direction.subVectors(to, from);
      const length = direction.length();
      rod.visible = length > 1e-9;
      if (!rod.visible) continue;
      rod.position.copy(from);
      rod.quaternion.setFromUnitVectors(up, direction.divideScalar(length));
      rod.scale.set(this.radius, length, this.radius);
    }
  }

  // childName -> colour as drawn.
  colours() {
    const out = {};
    for (const r of this.rods) if (r.segment.childName !== null) out[r.segment.childName] = r.colour;
    return out;
  }
}

