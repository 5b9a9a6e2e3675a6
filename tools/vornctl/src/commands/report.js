'use strict';
(() => {
  addEventListener('beforeprint', () => {
    for (const each of document.querySelectorAll('details')) each.open = true;
  });

  const plot = document.getElementById('timeline-plot');
  const controls = document.getElementById('timeline-controls');
  if (!plot || !controls) return;
  // Times are in milliseconds since the begin of the timeline.
  const begin = Number(plot.dataset.begin);
  const whole = Number(plot.dataset.span);
  const left = Number(plot.dataset.left);
  const width = Number(plot.dataset.width);
  const shortest = Math.min(2000, whole);
  const items = [...plot.querySelectorAll('[data-t]')];
  const ticks = plot.querySelector('.ticks');
  const height = plot.viewBox.baseVal.height;
  const range = document.getElementById('timeline-range');
  const buttons = Object.fromEntries(
      [...controls.querySelectorAll('button')].map((b) => [b.value, b]));
  let from = 0;
  let span = whole;

  const position = (time) => left + (time - from) / span * width;
  const clamp = (value, low, high) => Math.min(Math.max(value, low), high);
  const utc = (time) =>
      new Date(begin + time).toISOString().slice(0, 19).replace('T', ' ') + 'Z';

  function drawTicks() {
    const day = 86400;
    const steps = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600,
                   7200, 10800, 21600, 43200, day];
    const step = steps.find((s) => span / 1000 / s < 8) ||
        Math.ceil(span / 1000 / 8 / day) * day;
    ticks.replaceChildren();
    const first = Math.ceil((begin + from) / 1000 / step) * step;
    for (let time = first; time * 1000 <= begin + from + span; time += step) {
      const x = position(time * 1000 - begin);
      const iso = new Date(time * 1000).toISOString();
      const line = document.createElementNS(plot.namespaceURI, 'line');
      line.setAttribute('x1', x);
      line.setAttribute('x2', x);
      line.setAttribute('y1', 22);
      line.setAttribute('y2', height - 2);
      const text = document.createElementNS(plot.namespaceURI, 'text');
      text.setAttribute('x', x + 3);
      text.setAttribute('y', 18);
      text.textContent = time % day === 0 ? iso.slice(5, 10) :
          iso.slice(11, step < 60 ? 19 : 16);
      ticks.append(line, text);
    }
  }

  function draw() {
    for (const item of items) {
      const x = position(Number(item.dataset.t));
      if (item.dataset.e === undefined) {
        item.setAttribute('transform', `translate(${x} ${item.dataset.y})`);
        continue;
      }
      // A browser draws far smaller coordinates than those of a long run.
      const start = clamp(x, left - 10, left + width + 20);
      const end = clamp(position(Number(item.dataset.e)), left - 10,
                        left + width + 20);
      item.setAttribute('x', start);
      item.setAttribute('width', Math.max(end - start, 2));
    }
    drawTicks();
    range.textContent = `${utc(from)} to ${utc(from + span)}`;
    plot.classList.toggle('zoomed', span < whole);
    buttons.out.disabled = buttons.all.disabled = span >= whole;
    buttons.in.disabled = span <= shortest;
    buttons.back.disabled = from <= 0;
    buttons.on.disabled = from + span >= whole;
  }

  function show(newFrom, newSpan) {
    span = clamp(newSpan, shortest, whole);
    from = clamp(newFrom, 0, whole - span);
    draw();
  }
  const zoom = (factor, at = 0.5) =>
      show(from + span * at - clamp(span * factor, shortest, whole) * at,
           span * factor);
  const actions = {
    in: () => zoom(0.5),
    out: () => zoom(2),
    back: () => show(from - span / 2, span),
    on: () => show(from + span / 2, span),
    all: () => show(0, whole),
  };
  for (const [name, button] of Object.entries(buttons)) {
    button.addEventListener('click', actions[name]);
  }

  /** The part of the plot left of this point, from 0 to 1. */
  const partAt = (clientX) => {
    const box = plot.getBoundingClientRect();
    const x = (clientX - box.left) / box.width * plot.viewBox.baseVal.width;
    return clamp((x - left) / width, 0, 1);
  };
  plot.addEventListener('wheel', (event) => {
    if (!event.ctrlKey) return;
    event.preventDefault();
    zoom(event.deltaY > 0 ? 1.25 : 0.8, partAt(event.clientX));
  }, {passive: false});
  let dragged = null;
  plot.addEventListener('pointerdown', (event) => {
    if (event.pointerType !== 'mouse' || event.button !== 0) return;
    dragged = {part: partAt(event.clientX), from};
    plot.setPointerCapture(event.pointerId);
  });
  plot.addEventListener('pointermove', (event) => {
    if (!dragged) return;
    show(dragged.from - (partAt(event.clientX) - dragged.part) * span, span);
  });
  for (const end of ['pointerup', 'pointercancel']) {
    plot.addEventListener(end, () => { dragged = null; });
  }
  const keys = {'+': 'in', '-': 'out', '0': 'all'};
  plot.parentElement.addEventListener('keydown', (event) => {
    if (event.ctrlKey || event.altKey || event.metaKey) return;
    const name = keys[event.key] || (span < whole &&
        {ArrowLeft: 'back', ArrowRight: 'on'}[event.key]);
    if (!name) return;
    event.preventDefault();
    actions[name]();
  });
  controls.hidden = false;
  draw();
})();
