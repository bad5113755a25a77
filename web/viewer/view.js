// One figure in its own scene: a camera that frames it and follows its root, a ground grid at
// the lowest height it reaches, its bones and lights for the mesh.
import {
  Box3, Color, DirectionalLight, GridHelper, HemisphereLight, PerspectiveCamera, Scene, Vector3,
} from 'three';
import { BoneRig } from './bones.js';

const kFov = 35;

export class View {
  constructor(figure, background, frameTimes) {
    this.figure = figure;
    this.scene = new Scene();
    this.scene.background = new Color(background);
    this.scene.add(figure.root);
    this.scene.add(new HemisphereLight(0xffffff, 0x555560, 2.2));
    const sun = new DirectionalLight(0xffffff, 1.2);
    sun.position.set(1, 2, 1.5);
    this.scene.add(sun);
    this.camera = new PerspectiveCamera(kFov, 1, 0.01, 1000);

    // Size and ground from a sample of the clip's frames: the figure's height sets the camera's
    // distance, the lowest joint the grid.
    figure.setTime(0);
    const box = figure.bounds();
    const size = box.getSize(new Vector3());
    this.height = Math.max(size.x, size.y, size.z, 1e-6);
    let lowest = box.min.y;
    const step = Math.max(1, Math.floor(frameTimes.length / 60));
    const sample = new Box3();
    for (let f = 0; f < frameTimes.length; f += step) {
      figure.setTime(frameTimes[f]);
      lowest = Math.min(lowest, figure.bounds(sample).min.y);
    }
    this.centreHeight = box.getCenter(new Vector3()).y - lowest;
    this.ground = lowest;
    figure.setTime(0);
    this.startCentre = this.centre(false);

    const cells = 10;
    this.grid = new GridHelper(this.height * 4, cells * 2, 0x7a8090, 0x4a505c);
    this.grid.position.y = lowest;
    this.scene.add(this.grid);

    this.rig = new BoneRig(figure, this.height * 0.011);
    this.scene.add(this.rig.group);
  }

  // The point the camera looks at: above the root (followed horizontally) at mid height.
  centre(follow) {
    if (!follow && this.startCentre) return this.startCentre.clone();
    const root = this.figure.rootJoint().getWorldPosition(new Vector3());
    return new Vector3(root.x, this.ground + this.centreHeight, root.z);
  }

  // Places the camera along direction (unit, from the target to the eye) at zoom times the
  // distance that fits the figure.
  aim(direction, zoom, aspect, follow) {
    const target = this.centre(follow);
    const distance = ((this.height * 0.75) / Math.tan((kFov * Math.PI) / 360)) * zoom;
    this.camera.aspect = aspect;
    this.camera.near = distance * 0.01;
    this.camera.far = distance * 100;
    this.camera.updateProjectionMatrix();
    this.camera.position.copy(target).addScaledVector(direction, distance);
    this.camera.lookAt(target);
    this.grid.position.x = Math.round(target.x / (this.height / 5)) * (this.height / 5);
    this.grid.position.z = Math.round(target.z / (this.height / 5)) * (this.height / 5);
  }
}
