"use strict";
// Draws what stands in #data: charts that share one window of time, findings, and the way on a map of
// its own. All text from the file goes in as text, never as markup.
(() => {
  const data = JSON.parse(document.getElementById("data").textContent);
  const body = document.getElementById("body");
  const css = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();
  function bytes(text) {
    const characters = atob(text);
    const values = new Uint8Array(characters.length);
    for (let i = 0; i < values.length; ++i) values[i] = characters.charCodeAt(i);
    return values.buffer;
  }
  const seconds = (t) => `${t.toFixed(3)} s`;
  const number = (v) => (v === null || !Number.isFinite(v) ? "–" : Number(v.toPrecision(6)).toString());

  function make(tag, attributes = {}, ...children) {
    const svg = ["svg", "polyline", "circle", "line", "text", "title"].includes(tag);
    const node = svg ? document.createElementNS("http://www.w3.org/2000/svg", tag) : document.createElement(tag);
    for (const [name, value] of Object.entries(attributes)) node.setAttribute(name, value);
    node.append(...children);
    return node;
  }

  function section(title, ...children) {
    const made = make("section", {}, make("h2", {}, title), ...children);
    body.append(made);
    return made;
  }

  // --- Rows of a chart: coarse ones everywhere, fine ones inside the window.

  // Few samples come as they are, many as least and greatest value of equal spans of time.
  function decode(chart) {
    if (chart.times) {
      const times = new Float64Array(bytes(chart.times));
      const values = chart.values.map((text) => new Float32Array(bytes(text)));
      const cell = (v) => (Number.isFinite(v) ? [v, v, v] : [null, null, null]);
      return [{ step: 0, count: times.length, time: (i) => times[i], row: (i) => [times[i], ...values.map((v) => cell(v[i]))] }];
    }
    return chart.levels.map((level) => {
      const stored = level.values.map((text) => new Int16Array(bytes(text)));
      const cell = (c, i) => {
        const { low, step } = level.scales[c];
        const [least, most] = [stored[c][2 * i], stored[c][2 * i + 1]];
        if (least === -32768) return [null, null, null];
        const [a, b] = [low + (least + 32767) * step, low + (most + 32767) * step];
        return [a, (a + b) / 2, b];
      };
      const time = (i) => level.start + (i + 0.5) * level.step;
      return { step: level.step, count: level.count, time, row: (i) => [time(i), ...stored.map((_, c) => cell(c, i))] };
    });
  }

  function firstAtOrAfter(level, t) {
    let [low, high] = [0, level.count];
    while (low < high) {
      const middle = (low + high) >> 1;
      if (level.time(middle) < t) low = middle + 1;
      else high = middle;
    }
    return low;
  }

  const mostRows = 2048;
  function rowsFor(levels, window) {
    const rows = [];
    const take = (level, from, to) => {
      for (let i = from; i < to; ++i) rows.push(level.row(i));
    };
    const coarse = levels[0];
    let fine = coarse;
    for (const level of levels) {
      if (firstAtOrAfter(level, window[1]) - firstAtOrAfter(level, window[0]) <= mostRows) fine = level;
    }
    take(coarse, 0, firstAtOrAfter(coarse, window[0]));
    take(fine, firstAtOrAfter(fine, window[0]), firstAtOrAfter(fine, window[1]));
    take(coarse, firstAtOrAfter(coarse, window[1]), coarse.count);
    return rows;
  }

  // --- One window for all charts. Those in sight are drawn once a frame, others when they come into sight.

  const whole = data.span;
  let window_ = [...whole];
  let due = 0;
  let drawing = false;
  const charts = [];
  const shown = make("output", { "aria-live": "polite" });
  const showWindow = () => { shown.textContent = `${seconds(window_[0])} to ${seconds(window_[1])}`; };

  function setWindow(from, to) {
    const length = Math.min(Math.max(to - from, (whole[1] - whole[0]) * 1e-6), whole[1] - whole[0]);
    const start = Math.min(Math.max(from, whole[0]), whole[1] - length);
    window_ = [start, start + length];
    showWindow();
    for (const chart of charts) chart.stale = true;
    due ||= requestAnimationFrame(() => {
      due = 0;
      charts.filter((chart) => chart.inSight).forEach(redraw);
    });
  }

  function redraw(chart) {
    if (!chart.stale) return;
    chart.stale = false;
    drawing = true;
    chart.graph.updateOptions({ file: rowsFor(chart.levels, window_), dateWindow: window_ });
    drawing = false;
  }

  const sight = new IntersectionObserver((entries) => {
    for (const { target, isIntersecting } of entries) {
      target.chart.inSight = isIntersecting;
      if (isIntersecting) redraw(target.chart);
    }
  });

  function zoom(factor, centre = (window_[0] + window_[1]) / 2) {
    setWindow(centre - (centre - window_[0]) * factor, centre + (window_[1] - centre) * factor);
  }
  const pan = (part) => setWindow(window_[0] + (window_[1] - window_[0]) * part, window_[1] + (window_[1] - window_[0]) * part);
  const keys = { ArrowLeft: () => pan(-0.2), ArrowRight: () => pan(0.2), "+": () => zoom(0.5), "-": () => zoom(2), Home: () => setWindow(...whole) };

  function showTime(t, except) {
    for (const { graph } of charts) {
      if (graph === except) continue;
      let [low, high] = [0, graph.numRows()];
      while (low < high) {
        const middle = (low + high) >> 1;
        if (graph.getValue(middle, 0) < t) low = middle + 1;
        else high = middle;
      }
      if (low < graph.numRows()) graph.setSelection(low);
    }
  }

  // A column from the least to the greatest value of each span, and a line between their middles. Plain
  // rectangles where spans are narrow: a path of as many takes seconds.
  function drawSpans(plot) {
    const { points, plotArea, drawingContext: context } = plot;
    if (points.length < 2) return Dygraph.Plotters.linePlotter(plot);
    const spacing = (points[points.length - 1].canvasx - points[0].canvasx) / (points.length - 1);
    let [left, top, bottom, middle, before] = [-Infinity, Infinity, -Infinity, NaN, NaN];
    const drawUpTo = (right) => {
      if (right <= left) return;
      const fill = (from, to, more) => context.fillRect(left, plotArea.y + plotArea.h * from - more, right - left, plotArea.h * (to - from) + 2 * more);
      if (bottom >= top) {
        context.globalAlpha = 0.35;
        fill(top, bottom, 0);
        context.globalAlpha = 1;
        if (Number.isNaN(before)) before = middle;
        if (spacing < 2) fill(Math.min(before, middle), Math.max(before, middle), 0.5);
      }
      [left, top, bottom, before] = [right, Infinity, -Infinity, middle];
    };
    context.fillStyle = plot.color;
    for (const point of points) {
      drawUpTo(Math.round(point.canvasx - spacing / 2));
      middle = point.y;
      if (Number.isNaN(middle)) continue;
      top = Math.min(top, point.y_top, point.y_bottom);
      bottom = Math.max(bottom, point.y_top, point.y_bottom);
    }
    drawUpTo(Math.round(points[points.length - 1].canvasx + spacing / 2));
    if (spacing >= 2) Dygraph.Plotters.linePlotter(plot);
  }

  const colours = (count) => ["--x", "--y", "--z"].slice(0, count).map(css);
  function drawMarks(context, area, graph) {
    context.fillStyle = css("--mark");
    for (const finding of data.findings) {
      if (finding.time === null) continue;
      const x = graph.toDomXCoord(finding.time);
      if (x >= area.x && x <= area.x + area.w) context.fillRect(x, area.y, 1.5, area.h);
    }
  }

  function drawChart(chart) {
    const levels = decode(chart);
    const legend = make("div", { class: "legend" });
    const place = make("div", { class: "chart", id: `chart-${chart.id}`, tabindex: "0", role: "img", "aria-label": `${chart.title} over time, ${chart.summary}. Arrow keys move, plus and minus zoom, Home shows all.` });
    section(`${chart.title} (${chart.unit})`, legend, place);
    const graph = new Dygraph(place, rowsFor(levels, window_), {
      labels: ["time", ...chart.labels], customBars: true, labelsDiv: legend, legend: "always", colors: colours(chart.labels.length), plotter: drawSpans, strokeWidth: 1, digitsAfterDecimal: 4,
      showRangeSelector: true, rangeSelectorHeight: 24, dateWindow: window_, gridLineColor: css("--line"), axisLineColor: css("--line"), labelsKMB: false,
      axes: { x: { valueFormatter: seconds, axisLabelFormatter: (t) => number(t) }, y: { valueFormatter: number, axisLabelWidth: 60 } },
      underlayCallback: drawMarks,
      drawCallback: (drawn) => {
        const [from, to] = drawn.xAxisRange();
        if (!drawing && !place.chart?.stale && (from !== window_[0] || to !== window_[1])) setWindow(from, to);
      },
      highlightCallback: (event, t) => { showTime(t, graph); moveCursor(t); },
      unhighlightCallback: () => { for (const other of charts) if (other.graph !== graph) other.graph.clearSelection(); },
    });
    place.addEventListener("keydown", (event) => {
      if (!keys[event.key]) return;
      event.preventDefault();
      keys[event.key]();
    });
    place.chart = { graph, levels, stale: false, inSight: false };
    charts.push(place.chart);
    sight.observe(place);
  }

  // --- The way, to scale: metres around its middle.

  let moveCursor = () => {};
  function drawTrack(track) {
    if (track.time.length === 0) return;
    const middle = (values) => (Math.min(...values) + Math.max(...values)) / 2;
    const [latitude, longitude] = [middle(track.latitude), middle(track.longitude)];
    const x = track.longitude.map((v) => (v - longitude) * 111320 * Math.cos((latitude * Math.PI) / 180));
    const y = track.latitude.map((v) => (latitude - v) * 110574);
    const [width, height] = [900, 500];
    const extent = Math.max((Math.max(...x) - Math.min(...x)) / (width - 80), (Math.max(...y) - Math.min(...y)) / (height - 80), 1e-3);
    const place = (i) => [width / 2 + x[i] / extent, height / 2 + y[i] / extent];
    const svg = make("svg", { viewBox: `0 0 ${width} ${height}`, role: "img", "aria-label": `The way over ground, ${track.summary}` });
    const key = make("div", { class: "legend" });
    const choice = make("select", { "aria-label": "Colour of the way" }, make("option", { value: "speed" }, "by speed"), make("option", { value: "fix" }, "by fix"));
    const paths = [];

    function colour() {
      paths.splice(0).forEach((path) => path.remove());
      const values = track[choice.value];
      const finite = values.filter((v) => v !== null);
      const [least, most] = [Math.min(...finite), Math.max(...finite)];
      // Sixteen steps from blue to red; grey where nothing is known.
      const shade = (i) => (values[i] === null ? -1 : Math.round((15 * (values[i] - least)) / (most - least || 1)));
      key.textContent = finite.length === 0 ? "" : choice.value === "fix" ? `fix ${least} (blue) to ${most} (red)` : `${number(least)} m/s (blue) to ${number(most)} m/s (red)`;
      for (let i = 0; i + 1 < x.length; ) {
        const points = [place(i)];
        const step = shade(i + 1);
        let j = i + 1;
        for (; j < x.length && shade(j) === step && !track.start[j]; ++j) points.push(place(j));
        if (points.length > 1) {
          const path = make("polyline", { points: points.map((p) => p.join(",")).join(" "), fill: "none", "stroke-width": 3, stroke: step < 0 ? "#888" : `hsl(${240 - 16 * step} 75% 50%)` });
          svg.prepend(path);
          paths.push(path);
        }
        i = Math.max(j - 1, i + 1);
        if (track.start[j]) i = j;
      }
    }

    const dot = (i, fill, label) => {
      const [cx, cy] = place(i);
      svg.append(make("circle", { cx, cy, r: 6, fill }), make("text", { x: cx + 9, y: cy + 4 }, label));
    };
    dot(0, css("--y"), "start");
    dot(x.length - 1, css("--x"), "end");
    const rough = extent * 200;
    const power = 10 ** Math.floor(Math.log10(rough));
    const length = [5, 2, 1].map((step) => step * power).find((step) => step <= rough);
    svg.append(make("line", { x1: 20, y1: height - 20, x2: 20 + length / extent, y2: height - 20, stroke: css("--text"), "stroke-width": 3 }));
    svg.append(make("text", { x: 20, y: height - 28 }, length >= 1000 ? `${length / 1000} km` : `${number(length)} m`));
    const cursor = make("circle", { r: 7, fill: "none", stroke: css("--mark"), "stroke-width": 3, visibility: "hidden" });
    svg.append(cursor);
    choice.addEventListener("change", colour);
    section("Way", make("div", { class: "tools" }, choice, key), svg);
    colour();

    const nearest = (distance) => track.time.reduce((best, _, i) => (distance(i) < distance(best) ? i : best), 0);
    moveCursor = (t) => {
      const [cx, cy] = place(nearest((i) => Math.abs(track.time[i] - t)));
      for (const [name, value] of Object.entries({ cx, cy, visibility: "visible" })) cursor.setAttribute(name, value);
    };
    svg.addEventListener("mousemove", (event) => {
      const at = new DOMPoint(event.clientX, event.clientY).matrixTransform(svg.getScreenCTM().inverse());
      const i = nearest((k) => Math.hypot(place(k)[0] - at.x, place(k)[1] - at.y));
      moveCursor(track.time[i]);
      showTime(track.time[i]);
    });
  }

  // --- The page.

  const tool = (label, title, action) => {
    const button = make("button", { type: "button", title, "aria-label": title }, label);
    button.addEventListener("click", action);
    return button;
  };
  if (data.findings.length > 0) {
    const list = make("ul", { class: "findings" });
    for (const finding of data.findings) {
      const item = make("li", { class: finding.severity }, finding.time === null ? "" : tool(seconds(finding.time), "Show this place", () => {
        const half = Math.max((whole[1] - whole[0]) / 100, 0.5);
        setWindow(finding.time - half, finding.time + half);
        document.querySelector(".chart").scrollIntoView({ block: "center" });
      }), ` ${finding.text}`);
      list.append(item);
    }
    section("Findings", list);
  }
  if (data.charts.length > 0) {
    body.append(make("div", { class: "tools", role: "toolbar", "aria-label": "Window of time" },
      tool("−", "Zoom out", () => zoom(2)), tool("+", "Zoom in", () => zoom(0.5)), tool("◀", "Earlier", () => pan(-0.2)), tool("▶", "Later", () => pan(0.2)),
      tool("All", "Whole recording", () => setWindow(...whole)), shown));
    data.charts.forEach(drawChart);
    showWindow();
  }
  drawTrack(data.track);
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => {
    for (const { graph } of charts) graph.updateOptions({ colors: colours(graph.numColumns() - 1), gridLineColor: css("--line"), axisLineColor: css("--line") });
  });
  addEventListener("beforeprint", () => charts.forEach((chart) => { redraw(chart); chart.graph.resize(); }));
})();
