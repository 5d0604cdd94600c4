#!/usr/bin/env python3
"""Measures how a report's page opens and zooms, in headless Chromium without a graphics card.

    bench/camm/page_speed.py REPORT.html

A zoom step is a click on one of the page's buttons, ten in and ten out, and redraws all charts. Its time
ends with the frame that shows it; finer values follow in a later frame, and the longest pause between
two frames of the half second after a click says whether they disturb.
"""

import pathlib
import statistics
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent.parent / "tests" / "camm"))
from browser import Browser  # noqa: E402

OPENS = 8  # the first is a warm-up

# Resolves when the frame that is drawn next is done: what is sent in it arrives after it.
FRAME = """window.frame = () => new Promise((done) => requestAnimationFrame(() => {
  const { port1, port2 } = new MessageChannel();
  port1.onmessage = () => done(performance.now());
  port2.postMessage(0);
}));
addEventListener("DOMContentLoaded", () => { window.drawn = frame(); });"""

ZOOM = """(async () => {
  const steps = [], pauses = [];
  for (const title of [...Array(10).fill("Zoom in"), ...Array(10).fill("Zoom out")]) {
    const start = performance.now();
    document.querySelector(`[title="${title}"]`).click();
    let last = await frame();
    steps.push(last - start);
    let pause = 0;
    while (last < start + 500) {
      const next = await frame();
      pause = Math.max(pause, next - last);
      last = next;
    }
    pauses.push(pause);
  }
  return [steps, pauses];
})()"""


def rows(page):
    """What is measured, and its value."""
    drawn, steps, pauses = [], [], []
    with tempfile.TemporaryDirectory() as folder:
        browser = Browser(folder)
        browser.command("Page.addScriptToEvaluateOnNewDocument", source=FRAME)
        for _ in range(OPENS):
            browser.open(page)
            drawn.append(browser.run("drawn"))
            zoomed = browser.run(ZOOM)
            steps += zoomed[0]
            pauses += zoomed[1]
        browser.close()

    def spread(values):
        return f"{statistics.median(values):.0f}, {statistics.quantiles(values, n=20)[-1]:.0f}"

    return [
        ("report: ms from opening the page to drawn charts, median", f"{statistics.median(drawn[1:]):.0f}"),
        ("report: ms of a zoom step, median and 95th percentile", spread(steps)),
        ("report: ms of the longest pause after a zoom step, median and 95th percentile", spread(pauses)),
    ]


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    for figure, value in rows(sys.argv[1]):
        print(f"{figure}: {value}")
