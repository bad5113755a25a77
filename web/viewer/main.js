// kelvara's clip viewer: the source clip and its retarget side by side (or overlaid), playing in
// step. Everything it shows is inside the page: the files, the joint pairs, the report.
import { Mesh, MeshBasicMaterial, PerspectiveCamera, SphereGeometry, Vector3, WebGLRenderer } from 'three';
import { OrbitControls } from 'three/examples/jsm/controls/OrbitControls.js';
import { loadFigure } from './figure.js';
import { fillPanel } from './panel.js';
import { angleColour, boneAngle, kTintFullDegrees } from './tint.js';
import { View } from './view.js';

const $ = (id) => document.getElementById(id);

// "#frame=120" -> 120; null without a frame in the address.
function frameFromAddress(frames) {
  const match = /(?:^#|&)frame=(\d+)/.exec(window.location.hash);
  if (!match) return null;
  const frame = Number(match[1]);
  if (frame >= frames) console.warn(`frame ${frame} is past the clip's last frame ${frames - 1}; showing the last`);
  return Math.min(frame, frames - 1);
}

// Contacts of the report that are well formed: {foot, joint, frames: [[first, last], ...]}.
function contactsOf(report, frames) {
  if (!report || !Array.isArray(report.contacts)) return [];
  const out = [];
  for (const c of report.contacts) {
    if (!c || typeof c.joint !== 'string' || !Array.isArray(c.frames)) {
      console.warn('a contact of the report is not {foot, joint, frames}; it is left out');
      continue;
    }
    const ranges = c.frames
      .filter((r) => Array.isArray(r) && r.length === 2 && Number.isInteger(r[0]) && Number.isInteger(r[1]) && r[0] <= r[1])
      .map(([a, b]) => [Math.max(0, a), Math.min(frames - 1, b)])
      .filter(([a, b]) => a <= b);
    out.push({ foot: c.foot === 'right' ? 'right' : 'left', joint: c.joint, frames: ranges });
  }
  return out;
}

class Viewer {
  constructor(data, source, result) {
    this.data = data;
    this.frames = data.frames;
    this.frameTimes = Array.from({ length: this.frames }, (_, f) => f * data.frameTime);
    this.duration = this.frameTimes[this.frames - 1];
    this.time = 0;
    this.speed = 1;
    this.loop = true;
    this.playing = false;
    this.mode = 'side';
    this.follow = true;

    this.views = { source: new View(source, data.background, this.frameTimes),
                   result: new View(result, data.background, this.frameTimes) };
    this.canvas = $('canvas');
    this.renderer = new WebGLRenderer({ canvas: this.canvas, antialias: true, preserveDrawingBuffer: true });
    this.renderer.setPixelRatio(window.devicePixelRatio || 1);
    this.renderer.setScissorTest(true);

    // One orbit for both views: the control camera's direction and distance, applied to each
    // view's own framing.
    this.orbitCamera = new PerspectiveCamera();
    this.orbitCamera.position.set(0.55, 0.25, 1).normalize();
    this.controls = new OrbitControls(this.orbitCamera, this.canvas);
    this.controls.target.set(0, 0, 0);
    this.controls.enablePan = false;
    this.controls.minDistance = 0.2;
    this.controls.maxDistance = 5;
    this.controls.update();

    // Pair colours, and the tint for the report's bones.
    this.pairColours = { source: new Map(data.pairs.map((p) => [p.source, p.colour])),
                         target: new Map(data.pairs.map((p) => [p.target, p.colour])) };
    this.reportBones = [];
    for (const bone of (data.report && Array.isArray(data.report.bones) ? data.report.bones : [])) {
      const objects = [source.jointByName.get(bone.sourceJoint), source.jointByName.get(bone.sourceChild),
                       result.jointByName.get(bone.targetJoint), result.jointByName.get(bone.targetChild)];
      if (objects.some((o) => !o)) {
        console.warn(`the report's bone ${bone.targetJoint} -> ${bone.targetChild} is not in the files; not tinted`);
        continue;
      }
      this.reportBones.push({ bone, objects: objects.map((o) => o.object), degrees: null });
    }
    this.colouring = this.reportBones.length ? 'angle' : 'pairs';
    this.contacts = contactsOf(data.report, this.frames);
    this.contactMarkers = this.makeContactMarkers();
    this.liveCells = fillPanel($('panel'), data);
    this.buildControls();
    this.resize();
    window.addEventListener('resize', () => this.resize());
  }

  frame() {
    return Math.min(this.frames - 1, Math.max(0, Math.floor(this.time / this.data.frameTime + 1e-6)));
  }

  // Poses both figures at the current time and everything that follows from the pose.
  pose() {
    for (const view of Object.values(this.views)) view.figure.setTime(this.time);
    for (const r of this.reportBones) r.degrees = boneAngle(...r.objects);
    this.applyColours();
    for (const view of Object.values(this.views)) view.rig.update();
    this.updateContactMarkers();
    this.liveCells.forEach((cell, i) => {
      const d = this.reportBones[i] ? this.reportBones[i].degrees : null;
      cell.textContent = d === null ? '–' : d.toFixed(1);
    });
  }

  applyColours() {
    const grey = this.data.unmappedColour;
    if (this.colouring === 'angle') {
      const source = new Map();
      const target = new Map();
      for (const r of this.reportBones) {
        if (r.degrees === null) continue;
        const colour = angleColour(r.degrees);
        source.set(r.bone.sourceChild, colour);
        target.set(r.bone.targetChild, colour);
      }
      this.views.source.rig.setColours(source, grey);
      this.views.result.rig.setColours(target, grey);
    } else {
      this.views.source.rig.setColours(this.pairColours.source, grey);
      this.views.result.rig.setColours(this.pairColours.target, grey);
    }
  }

  makeContactMarkers() {
    const markers = [];
    const targetOf = new Map(this.data.pairs.map((p) => [p.source, p.target]));
    for (const contact of this.contacts) {
      const places = [[this.views.source, contact.joint], [this.views.result, targetOf.get(contact.joint)]];
      for (const [view, name] of places) {
        const joint = name && view.figure.jointByName.get(name);
        if (!joint) continue;
        // In the timeline's colour of the foot.
        const dot = new Mesh(new SphereGeometry(view.height * 0.025, 16, 8),
                             new MeshBasicMaterial({ color: contact.foot === 'left' ? 0x4fc3f7 : 0xffb74d, depthTest: false,
                                                     transparent: true }));
        dot.renderOrder = 3;
        view.scene.add(dot);
        markers.push({ contact, joint: joint.object, dot });
      }
    }
    return markers;
  }

  updateContactMarkers() {
    const frame = this.frame();
    for (const m of this.contactMarkers) {
      m.dot.visible = m.contact.frames.some(([a, b]) => frame >= a && frame <= b);
      if (m.dot.visible) m.joint.getWorldPosition(m.dot.position);
    }
  }

  render() {
    const width = this.canvas.clientWidth;
    const height = this.canvas.clientHeight;
    const direction = this.orbitCamera.position.clone().sub(this.controls.target);
    const zoom = direction.length();
    direction.normalize();
    const r = this.renderer;
    if (this.mode === 'side') {
      const half = Math.floor(width / 2);
      const places = [[this.views.source, 0, half], [this.views.result, half, width - half]];
      r.autoClear = true;
      for (const [view, x, w] of places) {
        view.grid.visible = true;
        view.aim(direction, zoom, w / height, this.follow);
        r.setViewport(x, 0, w, height);
        r.setScissor(x, 0, w, height);
        r.render(view.scene, view.camera);
      }
    } else {
      // Overlay: the result, then the source over it framed the same way, so that both stand
      // at one size on one ground.
      const { source, result } = this.views;
      r.setViewport(0, 0, width, height);
      r.setScissor(0, 0, width, height);
      result.aim(direction, zoom, width / height, this.follow);
      source.aim(direction, zoom, width / height, this.follow);
      result.grid.visible = true;
      r.autoClear = true;
      r.render(result.scene, result.camera);
      const background = source.scene.background;
      source.scene.background = null;
      source.grid.visible = false;
      r.autoClear = false;
      r.clearDepth();
      r.render(source.scene, source.camera);
      source.scene.background = background;
      r.autoClear = true;
    }
  }

  resize() {
    const stage = $('stage');
    this.renderer.setSize(stage.clientWidth, stage.clientHeight, false);
    this.canvas.style.width = '100%';
    this.canvas.style.height = '100%';
    this.refresh();
  }

  refresh() {
    this.pose();
    this.syncControls();
    this.render();
  }

  setFrame(frame) {
    this.playing = false;
    this.time = this.frameTimes[Math.min(this.frames - 1, Math.max(0, Math.round(frame)))];
    this.refresh();
  }

  setPlaying(playing) {
    this.playing = playing;
    if (playing && !this.loop && this.time >= this.duration) this.time = 0;
    this.last = null;
    this.syncControls();
  }

  tick(now) {
    if (this.playing) {
      if (this.last !== null && this.last !== undefined) {
        this.time += ((now - this.last) / 1000) * this.speed;
        if (this.time > this.duration) {
          if (this.loop && this.duration > 0) this.time %= this.duration + this.data.frameTime;
          else {
            this.time = this.duration;
            this.playing = false;
          }
        }
      }
      this.last = now;
      if (this.time > this.duration) this.time = this.duration;
      this.pose();
      this.syncControls();
    }
    this.render();
  }

  buildControls() {
    const slider = $('slider');
    slider.max = String(this.frames - 1);
    slider.addEventListener('input', () => this.setFrame(Number(slider.value)));
    $('play').addEventListener('click', () => this.setPlaying(!this.playing));
    $('speed').addEventListener('change', () => (this.speed = Number($('speed').value)));
    $('loop').addEventListener('change', () => (this.loop = $('loop').checked));
    $('follow').addEventListener('change', () => {
      this.follow = $('follow').checked;
      this.render();
    });
    $('mode').addEventListener('change', () => {
      this.mode = $('mode').value;
      $('stage').classList.toggle('overlay', this.mode === 'overlay');
      this.render();
    });
    const colouring = $('colouring');
    colouring.value = this.colouring;
    colouring.querySelector('option[value=angle]').disabled = this.reportBones.length === 0;
    colouring.addEventListener('change', () => {
      this.colouring = colouring.value;
      $('legend').hidden = this.colouring !== 'angle';
      this.refresh();
    });
    $('legend').hidden = this.colouring !== 'angle';
    $('legend-max').textContent = `${kTintFullDegrees}°+`;
    this.controls.addEventListener('change', () => this.render());
    window.addEventListener('keydown', (event) => {
      // Lists keep their own arrow keys; the slider's are ours (one frame a press).
      if (event.target instanceof HTMLSelectElement) return;
      if (event.code === 'Space') this.setPlaying(!this.playing);
      else if (event.code === 'ArrowRight') this.setFrame(this.frame() + 1);
      else if (event.code === 'ArrowLeft') this.setFrame(this.frame() - 1);
      else return;
      event.preventDefault();
    });
    window.addEventListener('hashchange', () => {
      const frame = frameFromAddress(this.frames);
      if (frame !== null) this.setFrame(frame);
    });

    // Contacts on the timeline: one row per foot, a mark per range of frames.
    const track = $('contacts');
    const last = Math.max(1, this.frames - 1);
    for (const contact of this.contacts)
      for (const [a, b] of contact.frames) {
        const mark = document.createElement('div');
        mark.className = `contact ${contact.foot}`;
        mark.style.left = `${(a / last) * 100}%`;
        mark.style.width = `calc(${((b - a) / last) * 100}% + 2px)`;
        mark.title = `${contact.foot} foot (${contact.joint}) on the ground, frames ${a}–${b}`;
        mark.dataset.foot = contact.foot;
        mark.dataset.joint = contact.joint;
        mark.dataset.first = String(a);
        mark.dataset.last = String(b);
        track.append(mark);
      }
    $('timeline').classList.toggle('with-contacts', this.contacts.length > 0);
  }

  syncControls() {
    const frame = this.frame();
    $('slider').value = String(frame);
    $('frame').textContent = `${frame} / ${this.frames - 1}`;
    $('play').textContent = this.playing ? '❚❚' : '▶';
    $('play').title = this.playing ? 'Pause (space)' : 'Play (space)';
  }
}

// What the tests and a curious user can ask the page: window.kelvaraView.
function api(viewer) {
  const positions = (figure) => {
    const out = {};
    const p = new Vector3();
    for (const j of figure.joints) out[j.name] = j.object.getWorldPosition(p).toArray();
    return out;
  };
  return {
    ready: true,
    frames: viewer.frames,
    frameTime: viewer.data.frameTime,
    frame: () => viewer.frame(),
    playing: () => viewer.playing,
    setFrame: (f) => viewer.setFrame(f),
    // Poses frame f without drawing it (for measuring every frame quickly).
    poseFrame: (f) => {
      viewer.playing = false;
      viewer.time = viewer.frameTimes[Math.min(viewer.frames - 1, Math.max(0, f))];
      viewer.pose();
    },
    play: () => viewer.setPlaying(true),
    pause: () => viewer.setPlaying(false),
    setMode: (mode) => {
      $('mode').value = mode;
      $('mode').dispatchEvent(new Event('change'));
    },
    setColouring: (c) => {
      $('colouring').value = c;
      $('colouring').dispatchEvent(new Event('change'));
    },
    colouring: () => viewer.colouring,
    jointPositions: (side) => positions(viewer.views[side].figure),
    boneColours: (side) => viewer.views[side].rig.colours(),
    meshCount: (side) => viewer.views[side].figure.meshes.length,
    boneAngles: () => viewer.reportBones.map((r) => ({ targetChild: r.bone.targetChild, sourceChild: r.bone.sourceChild,
                                                      degrees: r.degrees, colour: r.degrees === null ? null : angleColour(r.degrees) })),
    tintColour: (degrees) => angleColour(degrees),
    contactMarks: () => [...document.querySelectorAll('#contacts .contact')].map((m) => ({
      foot: m.dataset.foot, joint: m.dataset.joint, first: Number(m.dataset.first), last: Number(m.dataset.last),
      left: m.getBoundingClientRect().left, right: m.getBoundingClientRect().right })),
    contactDots: () => viewer.contactMarkers.filter((m) => m.dot.visible).length,
    sliderBox: () => {
      const r = $('slider').getBoundingClientRect();
      return { left: r.left, right: r.right, top: r.top, bottom: r.bottom };
    },
    render: () => viewer.refresh(),
    // Milliseconds from the page's start to each step of opening it.
    timings: () => Object.fromEntries(performance.getEntriesByType('mark')
      .filter((m) => m.name.startsWith('kelvara:')).map((m) => [m.name.slice(8), Math.round(m.startTime)])),
  };
}

async function start() {
  performance.mark('kelvara:start');
  const data = JSON.parse($('kelvara-data').textContent);
  performance.mark('kelvara:data');
  document.title = data.title;
  $('title').textContent = data.title;
  const [source, result] = await Promise.all([loadFigure(data.source, data.meshColour), loadFigure(data.result, data.meshColour)]);
  performance.mark('kelvara:files');
  const viewer = new Viewer(data, source, result);
  const linked = frameFromAddress(viewer.frames);
  viewer.setFrame(linked ?? 0);
  if (linked === null) viewer.setPlaying(true);
  performance.mark('kelvara:ready');
  window.kelvaraView = api(viewer);
  const loop = (now) => {
    viewer.tick(now);
    requestAnimationFrame(loop);
  };
  requestAnimationFrame(loop);
}

start().catch((error) => {
  console.error(`kelvara view: ${error && error.message ? error.message : error}`);
  $('title').textContent = `Cannot show the clips: ${error && error.message ? error.message : error}`;
  window.kelvaraView = { ready: false, error: String(error) };
});
