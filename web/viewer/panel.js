// The side panel: what is shown, the colours of the pairs, and with a report its figures.
function element(tag, className, text) {
  const e = document.createElement(tag);
  if (className) e.className = className;
  if (text !== undefined) e.textContent = text;
  return e;
}

function figure(value, digits = 3) {
  return typeof value === 'number' && Number.isFinite(value) ? Number(value.toPrecision(digits)).toString() : '–';
}

function degrees(value) {
  return typeof value === 'number' && Number.isFinite(value) ? value.toFixed(value < 10 ? 2 : 1) : '–';
}

// Leg lengths: thousandths are what the eye can tell apart.
function legs(value) {
  return typeof value === 'number' && Number.isFinite(value) ? value.toFixed(3).replace(/^-(0\.000)$/, '$1') : '–';
}

function section(panel, title) {
  const s = element('section');
  s.append(element('h2', '', title));
  panel.append(s);
  return s;
}

function table(parent, head, rows, className = '') {
  const t = element('table', className);
  const tr = element('tr');
  for (const h of head) tr.append(element('th', '', h));
  t.append(tr);
  for (const row of rows) {
    const r = element('tr');
    for (const cell of row) r.append(cell instanceof Node ? wrap(cell) : element('td', '', cell));
    t.append(r);
  }
  parent.append(t);
  return t;
}

function wrap(node) {
  const td = element('td');
  td.append(node);
  return td;
}

function swatch(colour) {
  const s = element('span', 'swatch');
  s.style.background = colour;
  return s;
}

// Fills panel; returns per report bone the cell that shows its angle at the current frame.
export function fillPanel(panel, data) {
  const report = data.report;
  const about = section(panel, 'Clip');
  table(about, ['', ''], [
    ['source', data.source.name],
    ['result', data.result.name],
    ['frames', `${data.frames} at ${figure(1 / data.frameTime)} fps`],
  ], 'facts');

  const liveCells = [];
  if (report) {
    const quality = section(panel, 'Report');
    const rows = [];
    const presets = (c) => (c && c.preset ? `${c.preset} (${c.filledBodyParts ?? '?'} of 21 parts)` : '–');
    rows.push(['source', presets(report.sourceCharacter)]);
    rows.push(['target', presets(report.targetCharacter)]);
    if (report.rootScale !== undefined)
      rows.push(['root scale', `${figure(report.rootScale, 4)}${report.rootScaleAuto ? ' (auto)' : ''}`]);
    const rest = report.meanBoneAngleDegrees;
    if (rest)
      rows.push(['mean angle', `${degrees(rest.withoutMatchRest)}° own rest, ${degrees(rest.withMatchRest)}° matched`]);
    if (report.matchRest !== undefined) rows.push(['rest', report.matchRest ? 'matched to the source' : "the target's own"]);
    if (report.plantFeet !== undefined)
      rows.push(['feet', report.plantFeet ? `planted (hips down ${figure(report.hipsLowered ?? 0)})` : 'not planted']);
    table(quality, ['', ''], rows, 'facts');

    // Per foot: slide during the contacts (leg lengths per second) and how low the foot goes, for
    // the source and the result with and without planting; older reports give one speed per joint.
    if (Array.isArray(report.feet) && report.feet.length) {
      const s = section(panel, 'Feet during contacts');
      const footRows = [];
      for (const foot of report.feet) {
        const runs = [['source', foot.source], ['planted', foot.withPlanting], ['unplanted', foot.withoutPlanting]];
        for (const [label, f] of runs)
          if (f) footRows.push([`${foot.foot} ${label}`, legs(f.slide), `${legs(f.lowestMin)}…${legs(f.lowestMax)}`,
                                degrees(f.kneeStepDegrees)]);
        if (foot.leftAlone) footRows.push([`${foot.foot}`, `left alone: ${foot.leftAlone}`, '', '']);
      }
      table(s, ['', 'slide', 'lowest', 'knee°'], footRows, 'feet');
      s.append(element('p', 'note', 'slide in leg lengths/s; lowest above the ground in leg lengths'));
    } else if (report.footSliding) {
      const s = section(panel, 'Foot sliding (units/s while low)');
      const slideRows = [];
      for (const side of ['source', 'target'])
        for (const foot of report.footSliding[side] || [])
          slideRows.push([side, foot.joint, figure(foot.speed), `${figure(foot.lowSeconds)} s`]);
      table(s, ['', 'joint', 'speed', 'low'], slideRows);
    }
    if (Array.isArray(report.bones) && report.bones.length) {
      const s = section(panel, 'Bone angle to source (°)');
      const boneRows = report.bones.map((bone) => {
        const live = element('span', 'live', '–');
        liveCells.push(live);
        return [`${bone.targetJoint} → ${bone.targetChild}`, live, degrees(bone.meanAngleDegrees), degrees(bone.maxAngleDegrees)];
      });
      table(s, ['bone', 'now', 'mean', 'max'], boneRows);
    }
    if (Array.isArray(report.warnings) && report.warnings.length) {
      const s = section(panel, 'Warnings');
      for (const w of report.warnings) s.append(element('p', 'warning', w));
    }
  }

  const pairs = section(panel, `Pairs (${data.pairs.length})`);
  table(pairs, ['', 'target', 'source'], data.pairs.map((p) => [swatch(p.colour), p.target, p.source]));
  return liveCells;
}
