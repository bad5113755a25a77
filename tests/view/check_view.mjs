// Opens a page written by `kelvara view` (or demo, or retarget --view) from disk in headless
// Chromium and checks what a user would see, against what the test computed with kelvara's own
// readers:
//   node tests/view/check_view.mjs PAGE.html EXPECTED.json
// EXPECTED.json:
//   "frames": [f, ...]                  frames whose joints are compared
//   "result", "source": {"f": {"joint": [x, y, z]}}   world positions of the files' joints
//   "tolerance"                          allowed distance, in the files' units
//   "resultMesh": true|false             whether the result shows a skinned mesh
//   "pairs": [[source, target], ...]     joint pairs expected to share a colour, in colour order
//   "reportBones": [{"sourceChild", "targetChild", "mean", "max"}]  the report's bones (may be absent)
//   "contacts": [{"foot", "joint", "frames": [[a, b]]}]   contacts the timeline must mark
// Prints what failed and exits 1; prints figures (opening time, frame rate) on success.
import { readFileSync } from 'node:fs';
import { pathToFileURL } from 'node:url';
import puppeteer from 'puppeteer-core';

const [pagePath, expectedPath] = process.argv.slice(2);
const expected = JSON.parse(readFileSync(expectedPath, 'utf8'));
const failures = [];
const fail = (text) => failures.push(text);
const chromium = process.env.KELVARA_CHROMIUM || '/usr/bin/chromium';

const browser = await puppeteer.launch({
  executablePath: chromium,
  headless: true,
  // No GPU on test machines: WebGL through SwiftShader.
  args: ['--no-sandbox', '--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--disable-gpu-sandbox'],
});

async function open(hash, size = { width: 1280, height: 720 }) {
  const page = await browser.newPage();
  await page.setViewport(size);
  const problems = [];
  page.on('console', (m) => {
    if (m.type() === 'error') problems.push(`console error: ${m.text()}`);
  });
  page.on('pageerror', (e) => problems.push(`page error: ${e.message}`));
  // The page must need nothing beyond itself.
  await page.setRequestInterception(true);
  page.on('request', (r) => {
    const url = r.url();
    if (url.startsWith('data:') || url.startsWith('blob:') || url === pathToFileURL(pagePath).href + hash) r.continue();
    else {
      problems.push(`the page asked for ${url}`);
      r.abort();
    }
  });
  const started = Date.now();
  await page.goto(pathToFileURL(pagePath).href + hash, { waitUntil: 'load' });
  await page.waitForFunction(() => window.kelvaraView !== undefined, { timeout: 30000 });
  const openMs = Date.now() - started;
  const ready = await page.evaluate(() => window.kelvaraView.ready);
  if (!ready) problems.push(`the viewer did not start: ${await page.evaluate(() => window.kelvaraView.error)}`);
  return { page, problems, openMs, ready };
}

// RGB pixels of a screenshot, read back in the page itself (no image library needed here).
async function pixels(page) {
  const png = await page.screenshot({ encoding: 'base64' });
  return page.evaluate(async (data) => {
    const image = new Image();
    image.src = `data:image/png;base64,${data}`;
    await image.decode();
    const canvas = new OffscreenCanvas(image.width, image.height);
    const context = canvas.getContext('2d');
    context.drawImage(image, 0, 0);
    return { width: image.width, height: image.height, rgba: Array.from(context.getImageData(0, 0, image.width, image.height).data) };
  }, png);
}

const rgb = (hex) => [1, 3, 5].map((i) => parseInt(hex.slice(i, i + 2), 16));

// Pixels within 6 levels of any of colours, in the columns [from, to) of the picture.
function countColour(shot, colours, from, to) {
  const wanted = colours.map(rgb);
  let count = 0;
  const seen = new Set();
  for (let y = 0; y < shot.height; ++y)
    for (let x = from; x < to; ++x) {
      const i = (y * shot.width + x) * 4;
      wanted.forEach((c, k) => {
        if (Math.abs(shot.rgba[i] - c[0]) <= 6 && Math.abs(shot.rgba[i + 1] - c[1]) <= 6 && Math.abs(shot.rgba[i + 2] - c[2]) <= 6) {
          ++count;
          seen.add(k);
        }
      });
    }
  return { count, distinct: seen.size };
}

// Pixels that differ clearly between two screenshots, in the columns [from, to).
function differentPixels(a, b, from = 0, to = a.width) {
  let n = 0;
  for (let y = 0; y < a.height; ++y)
    for (let x = from; x < to; ++x) {
      const i = (y * a.width + x) * 4;
      if (Math.abs(a.rgba[i] - b.rgba[i]) + Math.abs(a.rgba[i + 1] - b.rgba[i + 1]) + Math.abs(a.rgba[i + 2] - b.rgba[i + 2]) > 30) ++n;
    }
  return n;
}

const [first, second] = expected.frames;
const figures = {};

// Without a frame in the address the page plays from the start.
{
  const { page, problems, openMs } = await open('');
  figures.openMs = openMs;
  failures.push(...problems);
  figures.steps = await page.evaluate(() => window.kelvaraView.ready && window.kelvaraView.timings());
  if (!(await page.evaluate(() => window.kelvaraView.playing())))
    fail('without #frame= the page should play from the start, but it is paused');
  // Frame rate while playing: animation frames over one second (headless, software WebGL).
  figures.fps = await page.evaluate(() => new Promise((resolve) => {
    let frames = 0;
    const start = performance.now();
    const step = (now) => {
      ++frames;
      if (now - start < 1000) requestAnimationFrame(step);
      else resolve(Math.round((frames * 1000) / (now - start)));
    };
    requestAnimationFrame(step);
  }));
  await page.close();
}

const { page, problems } = await open(`#frame=${first}`);
const api = (body, ...args) => page.evaluate(body, ...args);
if (await api(() => window.kelvaraView.ready)) {
  if ((await api(() => window.kelvaraView.frame())) !== first || (await api(() => window.kelvaraView.playing())))
    fail(`#frame=${first} should open paused at frame ${first}, found frame ${await api(() => window.kelvaraView.frame())}`);

  // Joints where kelvara's readers put them.
  for (const side of ['result', 'source']) {
    if (!expected[side]) continue;
    for (const frame of expected.frames) {
      const shown = await api((s, f) => {
        window.kelvaraView.setFrame(f);
        return window.kelvaraView.jointPositions(s);
      }, side, frame);
      let worst = 0;
      for (const [name, position] of Object.entries(expected[side][String(frame)])) {
        if (!shown[name]) {
          fail(`${side} joint ${name} is not in the page's scene`);
          continue;
        }
        const d = Math.hypot(...position.map((v, k) => v - shown[name][k]));
        if (d > expected.tolerance) fail(`${side} joint ${name} at frame ${frame}: page ${shown[name]}, file ${position} (${d.toExponential(2)} apart)`);
        worst = Math.max(worst, d);
      }
      figures[`${side}Worst`] = Math.max(figures[`${side}Worst`] ?? 0, worst);
    }
  }

  const meshes = await api(() => window.kelvaraView.meshCount('result'));
  if ((meshes > 0) !== expected.resultMesh) fail(`the result shows ${meshes} meshes; expected ${expected.resultMesh ? 'its skinned mesh' : 'bones only'}`);

  // Mapped bones share a colour on both sides, and both figures are on screen in them.
  await api((f) => {
    window.kelvaraView.setColouring('pairs');
    window.kelvaraView.setMode('side');
    window.kelvaraView.setFrame(f);
  }, first);
  const colours = { source: await api(() => window.kelvaraView.boneColours('source')),
                    result: await api(() => window.kelvaraView.boneColours('result')) };
  const pairColours = [];
  for (const [source, target] of expected.pairs) {
    if (colours.source[source] === undefined || colours.source[source] !== colours.result[target])
      fail(`pair ${source} / ${target}: colours ${colours.source[source]} and ${colours.result[target]} should be one`);
    if (colours.result[target]) pairColours.push(colours.result[target]);
  }
  if (new Set(pairColours).size < Math.min(pairColours.length, 8)) fail(`the pairs share too few colours: ${[...new Set(pairColours)]}`);
  const shotA = await pixels(page);
  const stageRight = await api(() => document.getElementById('stage').getBoundingClientRect().right);
  const half = Math.floor(stageRight / 2);
  for (const [label, from, to] of [['source', 0, half], ['result', half, Math.floor(stageRight)]]) {
    const seen = countColour(shotA, [...new Set(pairColours)], from, to);
    figures[`${label}PairPixels`] = seen.count;
    if (seen.count < 200 || seen.distinct < 3)
      fail(`the ${label} half shows ${seen.count} pixels in ${seen.distinct} of the pair colours; its figure is not drawn`);
  }

  // Two frames, two pictures.
  await api((f) => window.kelvaraView.setFrame(f), second);
  const shotB = await pixels(page);
  figures.changedPixels = differentPixels(shotA, shotB);
  if (figures.changedPixels < 500) fail(`frames ${first} and ${second} look the same (${figures.changedPixels} pixels differ)`);

  // The slider and the keys move the frame.
  await page.focus('#canvas');
  await page.keyboard.press('ArrowRight');
  if ((await api(() => window.kelvaraView.frame())) !== second + 1) fail('the right arrow should step one frame on');
  await page.keyboard.press('ArrowLeft');
  await page.keyboard.press('ArrowLeft');
  if ((await api(() => window.kelvaraView.frame())) !== second - 1) fail('the left arrow should step one frame back');
  // On the focused slider too, one press is one frame (not the slider's step and ours).
  await page.focus('#slider');
  await page.keyboard.press('ArrowRight');
  if ((await api(() => window.kelvaraView.frame())) !== second) fail('the right arrow on the slider should step one frame');
  await page.keyboard.press('Space');
  if (!(await api(() => window.kelvaraView.playing()))) fail('space should play');
  await page.keyboard.press('Space');
  if (await api(() => window.kelvaraView.playing())) fail('space again should pause');
  const box = await api(() => window.kelvaraView.sliderBox());
  await page.mouse.click(box.left + (box.right - box.left) * 0.75, (box.top + box.bottom) / 2);
  const clicked = await api(() => window.kelvaraView.frame());
  const frames = await api(() => window.kelvaraView.frames);
  if (Math.abs(clicked - 0.75 * (frames - 1)) > 0.05 * frames) fail(`a click at 3/4 of the slider went to frame ${clicked} of ${frames}`);

  // Looping wraps to the start and goes on; without it the clip stops on its last frame. The
  // waits leave a loaded machine time for several animation frames.
  const last = frames - 1;
  const wait = (ms) => new Promise((r) => setTimeout(r, ms));
  await api((f) => {
    window.kelvaraView.setFrame(f);
    window.kelvaraView.play();
  }, Math.max(0, last - 1));
  await wait(1500);
  const looped = await api(() => ({ frame: window.kelvaraView.frame(), playing: window.kelvaraView.playing() }));
  if (!looped.playing || looped.frame >= last - 1) fail(`looping from the end should go on from the start, found frame ${looped.frame}`);
  await page.click('#loop');
  await api((f) => {
    window.kelvaraView.setFrame(f);
    window.kelvaraView.play();
  }, Math.max(0, last - 1));
  await wait(1500);
  const stopped = await api(() => ({ frame: window.kelvaraView.frame(), playing: window.kelvaraView.playing() }));
  if (stopped.playing || stopped.frame !== last) fail(`without loop the clip should stop on frame ${last}, found ${stopped.frame}`);
  await page.click('#loop');

  // Dragging on the picture turns the camera round both figures.
  await api((f) => window.kelvaraView.setFrame(f), first);
  const before = await pixels(page);
  await page.mouse.move(half / 2, 300);
  await page.mouse.down();
  await page.mouse.move(half / 2 + 150, 280, { steps: 5 });
  await page.mouse.up();
  await api(() => window.kelvaraView.render());
  const turned = await pixels(page);
  for (const [label, from, to] of [['source', 0, half], ['result', half, Math.floor(stageRight)]]) {
    const changed = differentPixels(before, turned, from, to);
    if (changed < 500) fail(`dragging should turn the camera, but the ${label} half barely changed (${changed} pixels)`);
  }

  // Overlaid: one picture with both figures in it.
  await api((f) => {
    window.kelvaraView.setMode('overlay');
    window.kelvaraView.setFrame(f);
  }, first);
  const overlay = await pixels(page);
  if (differentPixels(shotA, overlay) < 500) fail('overlaid looks like side by side');
  await api(() => window.kelvaraView.setMode('side'));

  // With a report: each reported bone tinted by its angle at the frame, measured in the page's own
  // scene; over every frame the angles must come to the report's mean and max.
  if (expected.reportBones) {
    await api(() => window.kelvaraView.setColouring('angle'));
    if ((await api(() => window.kelvaraView.colouring())) !== 'angle') fail('the angle colouring cannot be chosen');
    const series = await api(() => {
      const v = window.kelvaraView;
      const sums = new Map();
      for (let f = 0; f < v.frames; ++f) {
        v.poseFrame(f);
        for (const b of v.boneAngles()) {
          const s = sums.get(b.targetChild) ?? { total: 0, max: 0, count: 0 };
          if (b.degrees !== null) {
            s.total += b.degrees;
            s.max = Math.max(s.max, b.degrees);
            ++s.count;
          }
          sums.set(b.targetChild, s);
        }
      }
      return Object.fromEntries([...sums].map(([k, s]) => [k, { mean: s.total / s.count, max: s.max }]));
    });
    let worst = 0;
    for (const bone of expected.reportBones) {
      const s = series[bone.targetChild];
      if (!s) {
        fail(`the report's bone to ${bone.targetChild} is not tinted`);
        continue;
      }
      // Angles in float32 scenes against the tool's doubles: 0.05 degrees.
      const off = Math.max(Math.abs(s.mean - bone.mean), Math.abs(s.max - bone.max));
      worst = Math.max(worst, off);
      if (off > 0.05) fail(`bone to ${bone.targetChild}: page mean ${s.mean} max ${s.max}, report mean ${bone.mean} max ${bone.max}`);
    }
    figures.angleWorstDegrees = worst;
    if (Object.keys(series).length !== expected.reportBones.length)
      fail(`the page tints ${Object.keys(series).length} bones, the report has ${expected.reportBones.length}`);
    await api((f) => window.kelvaraView.setFrame(f), first);
    const tinted = await api(() => ({ bones: window.kelvaraView.boneAngles(), result: window.kelvaraView.boneColours('result'),
                                      source: window.kelvaraView.boneColours('source') }));
    const reported = new Set(expected.reportBones.map((b) => b.targetChild));
    for (const b of tinted.bones)
      if (b.degrees !== null && (tinted.result[b.targetChild] !== b.colour || tinted.source[b.sourceChild] !== b.colour))
        fail(`bone to ${b.targetChild} at ${b.degrees}° should be ${b.colour} on both sides, is ${tinted.result[b.targetChild]} / ${tinted.source[b.sourceChild]}`);
    const grey = Object.entries(tinted.result).filter(([name]) => !reported.has(name)).map(([, c]) => c);
    if (grey.some((c) => c !== grey[0])) fail(`bones the report does not measure should all be grey, found ${[...new Set(grey)]}`);
    const tintShot = await pixels(page);
    const tints = [...new Set(tinted.bones.filter((b) => b.colour).map((b) => b.colour))];
    const seen = countColour(tintShot, tints, half, Math.floor(stageRight));
    if (seen.count < 100) fail(`the result half shows ${seen.count} pixels of the tint colours ${tints}`);
  } else if (await api(() => window.kelvaraView.colouring()) !== 'pairs') fail('without a report the bones should show their pairs');
  // The angle legend shows with the angle colouring only.
  for (const colouring of expected.reportBones ? ['pairs', 'angle'] : ['pairs']) {
    const shown = await api((c) => {
      window.kelvaraView.setColouring(c);
      return document.getElementById('legend').getBoundingClientRect().width > 0;
    }, colouring);
    if (shown !== (colouring === 'angle')) fail(`the angle legend is ${shown ? 'shown' : 'hidden'} with the ${colouring} colouring`);
  }

  // Contacts from the report on the timeline, each over its frames, and on the figure's foot.
  const marks = await api(() => window.kelvaraView.contactMarks());
  const wanted = (expected.contacts ?? []).flatMap((c) => c.frames.map(([a, b]) => ({ foot: c.foot, joint: c.joint, first: a, last: b })));
  if (marks.length !== wanted.length) fail(`the timeline marks ${marks.length} contacts, the report has ${wanted.length}`);
  const track = await api(() => {
    const r = document.getElementById('contacts').getBoundingClientRect();
    return { left: r.left, width: r.width };
  });
  for (const w of wanted) {
    const m = marks.find((k) => k.foot === w.foot && k.first === w.first && k.last === w.last && k.joint === w.joint);
    if (!m) {
      fail(`no mark for the ${w.foot} foot's contact ${w.first}-${w.last}`);
      continue;
    }
    const at = (m.left - track.left) / track.width;
    if (Math.abs(at - w.first / (frames - 1)) > 0.01) fail(`the mark of ${w.first}-${w.last} starts at ${at} of the timeline`);
    const inside = Math.floor((w.first + w.last) / 2);
    const dots = await api((f) => {
      window.kelvaraView.setFrame(f);
      return window.kelvaraView.contactDots();
    }, inside);
    if (dots === 0) fail(`at frame ${inside} the ${w.foot} foot is on the ground but not marked on the figure`);
  }
}
failures.push(...problems);
await browser.close();

if (failures.length) {
  for (const f of failures) console.error(`check_view: ${f}`);
  process.exit(1);
}
console.log(JSON.stringify(figures));
