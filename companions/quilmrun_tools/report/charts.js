// Draws what charts.py describes with Chart.js. Colours are those of the style sheet, which differ
// in light, in dark and on paper, so that all drawings are made anew when these change.
"use strict";
(() => {
  const specs = JSON.parse(document.getElementById("chart-data").textContent);
  const style = getComputedStyle(document.documentElement);
  const colour = (name, alpha = "") => style.getPropertyValue("--" + name).trim() + alpha;
  const plain = new Intl.NumberFormat("en", {maximumSignificantDigits: 4});

  // A number with the unit that fits its size: durations come in milliseconds.
  function write(value, unit) {
    const size = Math.abs(value);
    if (unit === "ms" && size > 0) {
      if (size < 0.9995) return plain.format(value * 1000) + " µs";
      return size < 999.5 ? plain.format(value) + " ms" : plain.format(value / 1000) + " s";
    }
    if (size > 0 && size < 1e-4) return value.toExponential(2);
    return plain.format(value) + (unit ? " " + unit : "");
  }

  function axis(spec, side) {
    return {
      type: spec.logarithmic ? "logarithmic" : "linear",
      position: side,
      min: spec.low,
      max: spec.high,
      grace: spec.high === undefined && !spec.logarithmic ? "5%" : 0,
      border: {color: colour("soft"), display: side === "bottom"},
      grid: {color: colour("grid"), display: side === "left"},
      ticks: {color: colour("soft"), maxTicksLimit: side === "left" ? 5 : 7, maxRotation: 0,
              autoSkipPadding: 12, callback: value => spec.whole && !Number.isInteger(value)
                ? "" : write(value, spec.unit)},
    };
  }

  const filled = (series, alpha) => ({
    borderColor: colour(series.colour), backgroundColor: colour(series.colour, alpha),
    borderDash: series.colour === "s1" ? [5, 3] : []});
  // How each kind of marks is drawn. Two runs differ in the shape of their marks too.
  const kinds = {
    dots: series => ({showLine: false, pointRadius: 2.5, pointHoverRadius: 5,
                      pointStyle: series.colour === "s1" ? "triangle" : "circle",
                      pointBackgroundColor: colour(series.colour), pointBorderWidth: 0}),
    rings: series => ({showLine: false, pointRadius: 5, pointHoverRadius: 6,
                       pointBackgroundColor: colour("card"), pointBorderWidth: 2,
                       pointBorderColor: colour(series.colour)}),
    stems: series => ({borderColor: colour(series.colour), borderWidth: 1.5, pointRadius: 0,
                       pointHitRadius: 0}),
    line: series => ({...filled(series, "00"), borderWidth: 2, pointRadius: 3.5,
                      pointStyle: series.colour === "s1" ? "triangle" : "circle",
                      pointBackgroundColor: colour(series.colour)}),
    steps: series => ({...filled(series, "40"), stepped: true, fill: "origin", borderWidth: 1.4,
                       pointRadius: 0, pointHitRadius: 6}),
  };

  const at = points => points.map(([x, y, z]) => ({x, y: y ?? NaN, z}));
  function datasets(series) {
    if (series.kind === "band") {
      const edge = {...filled(series, "50"), borderWidth: 0, pointRadius: 0, pointHitRadius: 6};
      return [{...edge, label: "least", data: series.points.map(([x, y]) => ({x, y})), fill: "+1"},
              {...edge, label: "greatest", data: series.points.map(([x, , y]) => ({x, y}))}];
    }
    return [{...kinds[series.kind](series), label: series.label || "", data: at(series.points),
             third: series.third, names: series.names}];
  }

  function pointed(spec, item) {
    const {x, y, z} = item.raw, label = item.dataset.label ? item.dataset.label + ": " : "";
    const name = item.dataset.names?.[item.dataIndex];
    if (name !== undefined) return `${label}${name}, ${spec.up.name} ${write(y, spec.up.unit)}`;
    const place = item.dataset.third === "until" && z !== undefined
      ? `${write(x, spec.across.unit)} to ${write(z, spec.across.unit)}`
      : `${spec.across.name} ${write(x, spec.across.unit)}`;
    const which = item.dataset.third === "inference" && z !== undefined ? `, inference ${z}` : "";
    return `${label}${place}, ${spec.up.name} ${write(y, spec.up.unit)}${which}`;
  }

  function marked(marks = []) {
    return marks.map((mark, row) => ({
      type: "line", borderColor: colour("soft"), borderWidth: 1.2, borderDash: [6, 4],
      ...(mark.axis === "x" ? {xMin: mark.at, xMax: mark.at} : {yMin: mark.at, yMax: mark.at}),
      label: {display: true, content: mark.label, color: colour("ink"), font: {weight: "normal"},
              backgroundColor: colour("card"), padding: 2, position: "end",
              yAdjust: mark.axis === "x" ? 17 * row : 0}}));
  }

  function draw(spec, canvas) {
    return new Chart(canvas, {
      type: "scatter",
      // The library draws the first of equal order on top.
      data: {datasets: spec.series.flatMap(datasets).map((one, at) => ({...one, order: -at}))},
      options: {
        animation: false, maintainAspectRatio: false, normalized: true, showLine: true,
        interaction: {mode: "nearest", intersect: false},
        scales: {x: axis(spec.across, "bottom"), y: axis(spec.up, "left")},
        plugins: {
          legend: {display: false},
          tooltip: {displayColors: false, filter: item => !isNaN(item.raw.y),
                    callbacks: {title: () => "", label: item => pointed(spec, item)}},
          annotation: {clip: false, annotations: marked(spec.marks)},
          zoom: {limits: {x: {min: "original", max: "original"}},
                 zoom: {mode: "x", drag: {enabled: Boolean(spec.zoom),
                                          backgroundColor: colour("s0", "30")},
                        onZoomComplete: ({chart}) => offerWhole(chart)}},
        },
      },
    });
  }

  // After zooming, a button shows all of the run again; a keyboard reaches it too.
  function offerWhole(chart) {
    const place = chart.canvas.parentElement;
    if (!chart.isZoomedOrPanned() || place.querySelector("button")) return;
    const button = document.createElement("button");
    button.textContent = "show all";
    button.addEventListener("click", () => { chart.resetZoom("none"); button.remove(); });
    place.append(button);
  }

  let charts = [];
  function drawAll() {
    charts.forEach(chart => chart.destroy());
    Chart.defaults.font.family = getComputedStyle(document.body).fontFamily;
    charts = [...document.querySelectorAll("[data-chart]")].map(place => {
      place.hidden = false;
      return draw(specs[Number(place.dataset.chart)], place.querySelector("canvas"));
    });
  }
  drawAll();
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", drawAll);
  addEventListener("beforeprint", () => {
    document.documentElement.classList.add("paper");
    drawAll();
    charts.forEach(chart => chart.resize());
  });
  addEventListener("afterprint", () => {
    document.documentElement.classList.remove("paper");
    drawAll();
  });
})();
