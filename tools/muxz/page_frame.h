// The style sheet, the SVG patterns and the script of the report page.
#pragma once

namespace muxz {

// The page is light or dark as the user's system prefers, and black on white on paper. Wide tables
// scroll within their own area, so the page itself never scrolls sideways if it is at least 320
// pixels wide.
constexpr const char* kPageStyle = R"css(
:root { color-scheme: light dark; --page: #fbfbfa; --card: #fff; --ink: #1b1f24; --soft: #5b6470;
  --line: #d9dde2; --grid: #e8ebee; --one: #1f5fbf; --two: #b4570b; --three: #14785a; --bad: #b3202c;
  --fill: #c3d5ef; --fill2: #a5bfe4; --good: #17663b; --gutter: 4.4rem }
@media (prefers-color-scheme: dark) { :root { --page: #14171b; --card: #1b1f25; --ink: #e6e9ed; --soft: #9aa5b1;
  --line: #363d46; --grid: #2a3038; --one: #7db0f7; --two: #f0a35e; --three: #5cc9a0; --bad: #ff8087;
  --fill: #2f4a73; --fill2: #3d5e90; --good: #6fce97 } }
* { box-sizing: border-box }
body { margin: 0 auto; max-width: 1180px; padding: 1rem; background: var(--page); color: var(--ink);
  font: 15px/1.5 system-ui, "Segoe UI", Roboto, "Helvetica Neue", Arial, sans-serif; overflow-wrap: anywhere }
h1 { font-size: 1.4rem; line-height: 1.25; margin: .3rem 0 .6rem } h2 { font-size: 1.15rem; margin: 2rem 0 .6rem }
h3 { font-size: 1rem; margin: 0 } p { margin: .3rem 0 } a { color: var(--one) }
header p:not(.verdict), figcaption p, .soft { color: var(--soft); font-size: .9rem }
.verdict { display: flex; gap: .7rem; align-items: baseline; border: 1px solid var(--line); border-left: 6px solid var(--good);
  background: var(--card); padding: .7rem .9rem; border-radius: 6px; font-size: 1.05rem; font-weight: 600 }
.verdict.bad { border-left-color: var(--bad); border-left-style: double } .verdict b { color: var(--good); flex: none } .verdict.bad b { color: var(--bad) }
.tiles { display: grid; grid-template-columns: repeat(auto-fill, minmax(8.6rem, 1fr)); gap: .5rem; margin: .8rem 0; padding: 0 }
.tiles div { background: var(--card); border: 1px solid var(--line); border-radius: 6px; padding: .45rem .7rem }
.tiles dt { color: var(--soft); font-size: .82rem } .tiles dd { margin: 0; font-size: 1.2rem; font-weight: 600; line-height: 1.3 }
.tiles .bad dd { color: var(--bad) }
ul.findings { list-style: none; padding: 0; margin: .4rem 0; max-height: 26rem; overflow: auto }
ul.findings li { border-top: 1px solid var(--grid); padding: .35rem 0 } ul.findings li:first-child { border-top: 0 }
.tag { display: inline-block; min-width: 5.6rem; margin-right: .5rem; padding: 0 .4rem; border: 1px solid currentColor; border-radius: 4px;
  font-size: .78rem; text-align: center; color: var(--soft) } .tag.bad { color: var(--bad); font-weight: 700; border-style: double; border-width: 3px }
figure { margin: 0 0 1rem; padding: .8rem .9rem .4rem; background: var(--card); border: 1px solid var(--line); border-radius: 6px; break-inside: avoid }
.plot { padding: .7rem .4rem 0 var(--gutter); touch-action: pan-y }
svg { display: block; overflow: visible } svg.curves, svg.label { overflow: hidden } svg.free { overflow: visible }
svg text { fill: var(--soft); font-size: 11px; font-family: inherit } svg.label text { fill: var(--ink); dominant-baseline: central; paint-order: stroke; stroke: var(--card); stroke-width: 2px }
.ticks line, .scale line, line.lane { stroke: var(--grid); stroke-width: 1 } text.lane { fill: var(--ink); font-size: 12px }
polyline, .legend line { fill: none; stroke-width: 1.8; vector-effect: non-scaling-stroke; stroke-linejoin: round }
.one { stroke: var(--one) } .two { stroke: var(--two); stroke-dasharray: 6 3 } .three { stroke: var(--three); stroke-dasharray: 2 3 }
.four { stroke: var(--bad); stroke-dasharray: 9 3 2 3 }
rect.capture, rect.fill { fill: var(--fill); stroke: var(--one); stroke-width: 1 } rect.capture2 { fill: var(--fill2); stroke: var(--one); stroke-width: 1 }
.exception { stroke: var(--bad); stroke-width: 3; fill: url(#bars) } rect.exception { stroke-width: 1.5 }
.hole { fill: url(#hatch); stroke: var(--bad); stroke-width: 1 } .damage { stroke: var(--bad); stroke-width: 2; stroke-dasharray: 3 2; fill: url(#dots) }
rect.damage { stroke-width: 1.5 } .gone { fill: none; stroke: var(--soft); stroke-width: 1; stroke-dasharray: 4 3 } .event { stroke: var(--ink); stroke-width: 1.5; fill: var(--ink) }
.limit { stroke: var(--bad); stroke-width: 2; stroke-dasharray: 4 2 }
.legend { display: flex; flex-wrap: wrap; gap: .1rem 1.1rem; font-size: .85rem; color: var(--soft); margin: .4rem 0 0 } .legend span { display: inline-flex; align-items: center; gap: .4rem }
.unit, .none { font-weight: 600 }
output { display: block; min-height: 1.3rem; font-size: .85rem; font-variant-numeric: tabular-nums; margin-left: calc(-1 * var(--gutter)) }
.bar { display: grid; grid-template-columns: 11rem 1fr 8.5rem; gap: .6rem; align-items: center; font-size: .9rem; padding: .1rem 0 }
.number { text-align: right; font-variant-numeric: tabular-nums; white-space: nowrap }
.table.small { max-width: 34rem } .table { overflow: auto; max-height: 36rem; background: var(--card); border: 1px solid var(--line); border-radius: 6px }
table { border-collapse: collapse; width: 100%; font-size: .88rem; font-variant-numeric: tabular-nums; overflow-wrap: normal }
th, td { padding: .3rem .6rem; text-align: left; white-space: nowrap; border-top: 1px solid var(--grid) } .r { text-align: right }
thead th { position: sticky; top: 0; background: var(--card); border-top: 0; box-shadow: 0 1px var(--line); color: var(--soft); font-weight: 600 }
td.bad { color: var(--bad); font-weight: 600 } tr.group th { background: var(--page); white-space: normal }
button { font: inherit; border: 1px solid var(--line); border-radius: 6px; background: var(--card); color: var(--ink); padding: .2rem .8rem; position: fixed; right: 1rem; bottom: 1rem }
footer { margin-top: 2rem; border-top: 1px solid var(--line); padding-top: .5rem }
.selection { fill: var(--one); fill-opacity: .15 } .cursor { stroke: var(--soft); stroke-dasharray: 2 2 }
@media (max-width: 600px) { body { padding: .6rem } figure { padding: .6rem } .minor { display: none } :root { --gutter: 3.8rem }
  text.lane { font-size: 11px } .bar { grid-template-columns: 1fr auto; gap: 0 .6rem } .bar svg { grid-row: 2; grid-column: 1 / 3 } .verdict { font-size: 1rem } .tag { display: block; width: fit-content } }
@media print { :root { color-scheme: light; --page: #fff; --card: #fff; --ink: #000; --soft: #333; --line: #888; --grid: #ccc; --one: #000; --two: #000;
  --three: #000; --bad: #000; --good: #000; --fill: #e4e4e4; --fill2: #cfcfcf } body { font-size: 11px; max-width: none } .table, ul.findings { max-height: none; overflow: visible } button { display: none } th, td { white-space: normal; overflow-wrap: anywhere }
  * { print-color-adjust: exact } }
)css";

// Hatch patterns that the style sheet uses.
constexpr const char* kPageDefs =
    R"svg(<svg width="0" height="0" style="position:absolute" aria-hidden="true"><defs>
<pattern id="hatch" width="6" height="6" patternUnits="userSpaceOnUse" patternTransform="rotate(45)"><line x1="0" x2="0" y1="0" y2="6" stroke="var(--bad)" stroke-width="2.5"/></pattern>
<pattern id="bars" width="5" height="5" patternUnits="userSpaceOnUse"><line x1="1" x2="1" y1="0" y2="5" stroke="var(--bad)" stroke-width="1.5"/></pattern>
<pattern id="dots" width="5" height="5" patternUnits="userSpaceOnUse"><rect x="1" y="1" width="2.4" height="2.4" fill="var(--bad)"/></pattern>
</defs></svg>
)svg";

// Hovering: the line below a chart describes what lies under the pointer. Zooming: dragging over a
// chart makes all charts show that time range. A double click or Escape shows the whole time again.
// The page is complete without the script.
constexpr const char* kPageScript = R"js(
(() => {
  const charts = [...document.querySelectorAll('svg.time')];
  if (!charts.length) return;
  const svg = (name, attributes, parent, text) => {
    const element = document.createElementNS('http://www.w3.org/2000/svg', name);
    for (const key in attributes) element.setAttribute(key, attributes[key]);
    if (text) element.textContent = text;
    return parent.appendChild(element);
  };
  const from = +charts[0].dataset.from, length = charts[0].dataset.to - from;
  let view = [0, 1];
  const percent = share => ((share - view[0]) / (view[1] - view[0])) * 100 + '%';
  const iso = wall => new Date(wall * 1000).toISOString();

  const ticks = group => {
    const a = from + view[0] * length, b = from + view[1] * length, day = 86400, top = +group.dataset.top;
    const steps = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200, day, 2 * day, 7 * day, 14 * day];
    const step = steps.find(s => (b - a) / s <= 9) || day * Math.ceil((b - a) / 9 / day);
    let before = '';
    group.replaceChildren();
    for (let wall = Math.ceil(a / step) * step, n = 0; wall <= b; wall += step, ++n) {
      const share = (wall - a) / (b - a), x = share * 100 + '%', today = iso(wall).slice(5, 10);
      const place = { x, class: n % 2 ? 'minor' : '', 'text-anchor': share < .04 ? 'start' : share > .94 ? 'end' : 'middle' };
      svg('line', { x1: x, x2: x, y1: 0, y2: top + 4 }, group);
      if (step < day) svg('text', { ...place, y: top + 16 }, group, iso(wall).slice(11, step < 60 ? 19 : 16));
      if (today !== before) svg('text', { ...place, y: top + (step < day ? 29 : 16) }, group, today);
      if (n % 2 === 0 || today === before) before = today;
    }
  };
  const draw = () => {
    for (const chart of charts) {
      ticks(chart.querySelector('.ticks'));
      for (const element of chart.querySelectorAll('[data-a]')) {
        const a = Math.max(element.dataset.a, view[0]), b = Math.min(element.dataset.b, view[1]);
        element.style.display = a > b ? 'none' : '';
        if (element.tagName === 'line') { element.setAttribute('x1', percent(a)); element.setAttribute('x2', percent(a)); continue; }
        element.setAttribute('x', percent(a));
        if (!element.classList.contains('free')) element.setAttribute('width', Math.max(0, (b - a) / (view[1] - view[0])) * 100 + '%');
      }
      chart.querySelector('.curves')?.setAttribute('viewBox', `${view[0] * 1000} 0 ${(view[1] - view[0]) * 1000} 100`);
    }
    whole.hidden = view[0] === 0 && view[1] === 1;
  };
  const show = (a, b) => { view = [a, b]; draw(); };
  const whole = document.body.appendChild(document.createElement('button'));
  whole.textContent = 'Whole time';
  whole.hidden = true;
  whole.onclick = () => show(0, 1);
  addEventListener('keydown', event => { if (event.key === 'Escape') show(0, 1); });

  // The last point of a curve at or before a place, as a value.
  const valueAt = (curve, x, top) => {
    let found = null;
    for (const line of curve.children) {
      for (const pair of line.getAttribute('points').trim().split(' ')) {
        const [px, py] = pair.split(',').map(Number);
        if (px > x) break;
        found = (100 - py) / 100 * top;
      }
    }
    return found;
  };
  for (const chart of charts) {
    const output = chart.parentNode.querySelector('output'), height = chart.querySelector('.ticks').dataset.top;
    const cursor = svg('line', { class: 'cursor', y1: 0, y2: height, visibility: 'hidden', 'pointer-events': 'none' }, chart);
    const selection = svg('rect', { class: 'selection', y: 0, height, visibility: 'hidden', 'pointer-events': 'none' }, chart);
    const shareAt = event => {
      const box = chart.getBoundingClientRect();
      return Math.min(1, Math.max(0, (event.clientX - box.left) / box.width));
    };
    let start = null;
    chart.parentNode.onpointerdown = event => { start = shareAt(event); chart.parentNode.setPointerCapture(event.pointerId); event.preventDefault(); };
    chart.parentNode.onpointermove = event => {
      const at = shareAt(event), place = view[0] + at * (view[1] - view[0]);
      cursor.setAttribute('x1', at * 100 + '%'); cursor.setAttribute('x2', at * 100 + '%');
      cursor.setAttribute('visibility', 'visible');
      if (start !== null) {
        selection.setAttribute('x', Math.min(start, at) * 100 + '%');
        selection.setAttribute('width', Math.abs(at - start) * 100 + '%');
        selection.setAttribute('visibility', 'visible');
      }
      const told = [iso(from + place * length).slice(0, 19).replace('T', ' ')];
      const top = +chart.querySelector('.curves')?.dataset.top;
      for (const curve of chart.querySelectorAll('.curve')) {
        const value = valueAt(curve, place * 1000, top);
        if (value !== null) told.push(`${curve.dataset.name}: ${+value.toPrecision(3)} ${chart.dataset.unit}`);
      }
      const under = document.elementsFromPoint(event.clientX, event.clientY).filter(e => chart.contains(e) && e.querySelector(':scope > title'));
      for (const element of under) told.push(element.querySelector('title').textContent);
      output.textContent = told.join(' \u00b7 ');
    };
    chart.parentNode.onpointerup = event => {
      const at = shareAt(event), size = view[1] - view[0];
      if (start !== null && Math.abs(at - start) > .01) show(view[0] + Math.min(start, at) * size, view[0] + Math.max(start, at) * size);
      start = null;
      selection.setAttribute('visibility', 'hidden');
    };
    chart.parentNode.onpointerleave = () => { cursor.setAttribute('visibility', 'hidden'); output.textContent = ''; };
    chart.parentNode.ondblclick = () => show(0, 1);
  }
})();
)js";

}  // namespace muxz
