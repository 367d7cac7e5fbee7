// The track view's behaviour: the map (Leaflet), the legend and figures,
// and the elevation and speed profiles drawn as SVG. Every datum comes from
// the JSON in #wayfolio-view-data; nothing is fetched, except map tiles
// while the browser is online.
(function () {
  'use strict';

  const data = JSON.parse(document.getElementById('wayfolio-view-data').textContent);
  const units = data.units;
  const SVG = 'http://www.w3.org/2000/svg';
  const state = { selected: 0, axis: 'distance' };

  // --- figures as text ---------------------------------------------------
  const DASH = '\u2013';
  function finite(value) { return typeof value === 'number' && isFinite(value); }
  function figure(value, factor, decimals, name) {
    return finite(value) ? (value * factor).toFixed(decimals) + '\u00a0' + name : DASH;
  }
  function lengthText(km) { return figure(km, units.length.factor, 2, units.length.name); }
  function elevationText(m) { return figure(m, units.elevation.factor, 0, units.elevation.name); }
  function speedText(kmh) { return figure(kmh, units.speed.factor, 1, units.speed.name); }
  function two(n) { return String(n).padStart(2, '0'); }
  function durationText(seconds) {
    if (!finite(seconds)) return DASH;
    const s = Math.round(seconds);
    return Math.floor(s / 3600) + ':' + two(Math.floor(s / 60) % 60) + ':' + two(s % 60);
  }
  function zoneText(minutes) {
    const m = Math.abs(minutes);
    return 'UTC' + (minutes < 0 ? '\u2212' : '+') + two(Math.floor(m / 60)) + ':' + two(m % 60);
  }
  // Wall-clock time in the track's own time zone.
  function clockText(unixSeconds, zoneMinutes, withSeconds) {
    const d = new Date((unixSeconds + zoneMinutes * 60) * 1000);
    const text = two(d.getUTCHours()) + ':' + two(d.getUTCMinutes());
    return withSeconds ? text + ':' + two(d.getUTCSeconds()) : text;
  }
  function positionText(lat, lon) {
    return Math.abs(lat).toFixed(5) + '\u00b0\u00a0' + (lat < 0 ? 'S' : 'N') + ', ' +
           Math.abs(lon).toFixed(5) + '\u00b0\u00a0' + (lon < 0 ? 'W' : 'E');
  }
  function element(tag, className, text) {
    const e = document.createElement(tag);
    if (className) e.className = className;
    if (text !== undefined) e.textContent = text;
    return e;
  }

  // --- the map -------------------------------------------------------------
  const map = L.map('map', { zoomSnap: 0.25 });
  L.control.scale({ metric: true, imperial: units.length.name !== 'km' }).addTo(map);
  const tiles = L.tileLayer(data.tileUrl, {
    maxZoom: 19,
    attribution: '\u00a9 <a href="https://www.openstreetmap.org/copyright">OpenStreetMap</a> contributors'
  });
  const offlineNote = L.control({ position: 'bottomright' });
  offlineNote.onAdd = function () {
    return element('div', 'wf-offline', 'Offline: no map tiles');
  };
  // Tiles only while online: offline they would fill the console with
  // failed loads and hide nothing but the plain ground.
  function followConnection() {
    if (navigator.onLine) {
      offlineNote.remove();
      if (!map.hasLayer(tiles)) tiles.addTo(map);
    } else {
      if (map.hasLayer(tiles)) map.removeLayer(tiles);
      offlineNote.addTo(map);
    }
  }
  window.addEventListener('online', followConnection);
  window.addEventListener('offline', followConnection);

  function latLngsOf(flat) {
    const out = [];
    for (let i = 0; i + 1 < flat.length; i += 2) out.push([flat[i], flat[i + 1]]);
    return out;
  }

  // Leaflet's weights are pixels: the corridor is re-sized at every zoom so
  // that it stays as wide as the track's corridor on the ground.
  function corridorWeight(metres, latitude) {
    const metresPerPixel = 40075016.686 * Math.cos(latitude * Math.PI / 180) /
                           Math.pow(2, map.getZoom() + 8);
    return Math.max(2, 2 * metres / metresPerPixel);
  }

  const bounds = L.latLngBounds([]);
  const lines = [];
  function addLine(track, index) {
    const parts = track.segments.map(latLngsOf).filter(function (p) { return p.length > 0; });
    if (parts.length === 0) return null;
    parts.forEach(function (p) { p.forEach(function (ll) { bounds.extend(ll); }); });
    const vertices = parts.reduce(function (n, p) { return n + p.length; }, 0);
    const smoothFactor = vertices <= 5000 ? 0 : 1;
    if (track.corridor > 0) {
      const latitude = parts[0][0][0];
      const corridor = L.polyline(parts, {
        color: track.color, opacity: 0.25, lineCap: 'round', lineJoin: 'round',
        interactive: false, className: 'wf-corridor', smoothFactor: smoothFactor
      }).addTo(map);
      const resize = function () {
        corridor.setStyle({ weight: corridorWeight(track.corridor, latitude) });
      };
      map.on('zoomend', resize);
      map.whenReady(resize);
    }
    // The line's vertices were thinned to a known tolerance already. Up to
    // 5,000 of them Leaflet draws every one (smoothFactor 0); longer lines it
    // thins further, to about a pixel at the zoom shown, so that zooming and
    // panning stay quick.
    const line = L.polyline(parts, {
      color: track.color, opacity: track.opacity, weight: Math.max(1, 3 * track.width),
      smoothFactor: smoothFactor, className: 'wf-line wf-line-' + index,
      dashArray: track.kind === 'route' ? '6 6' : null
    }).addTo(map);
    line.on('click', function () { select(index); });
    return line;
  }

  function addWaypoint(w) {
    const icon = L.divIcon({
      className: 'wf-pin' + (w.geocache ? ' wf-geocache' : ''),
      html: '<span class="wf-pin-head"></span>', iconSize: [18, 18], iconAnchor: [9, 22],
      popupAnchor: [0, -22],
      tooltipAnchor: [10, -12]
    });
    const marker = L.marker([w.lat, w.lon], { icon: icon, title: w.name }).addTo(map);
    if (w.name) {
      marker.bindTooltip(element('span', null, w.name),
                         { permanent: true, direction: 'right', className: 'wf-pin-label' });
    }
    const popup = element('div', 'wf-pin-popup');
    popup.appendChild(element('strong', null, w.name || 'Waypoint'));
    if (w.desc) popup.appendChild(element('div', null, w.desc));
    popup.appendChild(element('div', null, positionText(w.lat, w.lon)));
    if (finite(w.ele)) popup.appendChild(element('div', null, elevationText(w.ele)));
    marker.bindPopup(popup);
    bounds.extend([w.lat, w.lon]);
  }

  function photoPopup(p) {
    const popup = element('div', 'wf-photo-popup');
    if (p.thumb) {
      const img = element('img');
      img.src = p.thumb;
      img.alt = p.file;
      popup.appendChild(img);
    }
    popup.appendChild(element('div', 'wf-time', p.time || 'time unknown'));
    popup.appendChild(element('div', 'wf-position', positionText(p.lat, p.lon)));
    if (p.place) popup.appendChild(element('div', 'wf-place', p.place));
    popup.appendChild(element('div', 'wf-file', p.thumb ? p.file : p.file + ' (cannot be read)'));
    return popup;
  }

  function addPhoto(p) {
    const html = element('div');
    html.style.width = html.style.height = '100%';
    if (p.thumb) {
      const img = element('img');
      img.src = p.thumb;
      img.alt = '';
      html.appendChild(img);
    } else {
      html.appendChild(element('span', 'wf-photo-missing', '?'));
    }
    const icon = L.divIcon({
      className: 'wf-photo-marker', html: html, iconSize: [40, 40], iconAnchor: [20, 20],
      popupAnchor: [0, -20]
    });
    L.marker([p.lat, p.lon], { icon: icon, title: p.time, riseOnHover: true })
      .addTo(map).bindPopup(photoPopup(p), { maxWidth: 300 });
    bounds.extend([p.lat, p.lon]);
  }

  data.tracks.forEach(function (track, index) {
    lines.push(addLine(track, index));
    track.waypoints.forEach(addWaypoint);
    track.photos.forEach(addPhoto);
  });
  if (bounds.isValid()) {
    map.fitBounds(bounds, { padding: [24, 24], maxZoom: 16 });
  } else {
    map.setView([0, 0], 2);
  }
  followConnection();
  const hoverMarker = L.circleMarker([0, 0], {
    radius: 6, color: '#c33', weight: 2, fillColor: '#fff', fillOpacity: 1,
    interactive: false, className: 'wf-hover'
  });

  // --- legend and figures ---------------------------------------------------
  function figuresTable(caption, rows) {
    const table = element('table', 'wf-figures');
    table.appendChild(element('caption', null, caption));
    rows.forEach(function (row) {
      const tr = element('tr');
      tr.appendChild(element('th', null, row[0]));
      const td = element('td', null, row[1]);
      if (row[2]) td.dataset.figure = row[2];
      tr.appendChild(td);
      table.appendChild(tr);
    });
    return table;
  }

  function trackRows(s) {
    return [
      ['Length', lengthText(s.length), 'length'],
      ['Duration', durationText(s.duration), 'duration'],
      ['Ascent', elevationText(s.ascent), 'ascent'],
      ['Descent', elevationText(s.descent), 'descent'],
      ['Lowest', elevationText(s.minElevation), 'min-elevation'],
      ['Highest', elevationText(s.maxElevation), 'max-elevation'],
      ['Top speed', speedText(s.maxSpeed), 'max-speed'],
      ['Average speed', speedText(s.averageSpeed), 'average-speed'],
      ['Start', s.start || DASH, 'start'],
      ['End', s.end || DASH, 'end'],
      ['Time zone', zoneText(s.timezone), 'time-zone'],
      ['Points', String(s.points), 'points'],
      ['Waypoints', String(s.waypoints), 'waypoints'],
      ['Photos', String(s.photos), 'photos']
    ];
  }

  function sumRows() {
    const sum = function (key) {
      return data.tracks.reduce(function (total, t) {
        return finite(t.stats[key]) ? total + t.stats[key] : total;
      }, 0);
    };
    return [
      ['Tracks', String(data.tracks.length), 'tracks'],
      ['Length', lengthText(sum('length')), 'length'],
      ['Duration', durationText(sum('duration')), 'duration'],
      ['Ascent', elevationText(sum('ascent')), 'ascent'],
      ['Descent', elevationText(sum('descent')), 'descent'],
      ['Points', String(sum('points')), 'points'],
      ['Waypoints', String(sum('waypoints')), 'waypoints'],
      ['Photos', String(sum('photos')), 'photos']
    ];
  }

  function showLegend() {
    const legend = document.getElementById('legend');
    legend.textContent = '';
    const list = element('ul', 'wf-legend');
    data.tracks.forEach(function (track, index) {
      const item = element('li', index === state.selected ? 'wf-selected' : '');
      const swatch = element('span', 'wf-swatch');
      swatch.style.background = track.color;
      item.appendChild(swatch);
      item.appendChild(element('span', 'wf-legend-name', track.name));
      item.appendChild(element('span', 'wf-legend-length', lengthText(track.stats.length)));
      item.title = track.name;
      item.addEventListener('click', function () { select(index); });
      list.appendChild(item);
    });
    legend.appendChild(list);
  }

  function showFigures() {
    const box = document.getElementById('statistics');
    box.textContent = '';
    const track = data.tracks[state.selected];
    if (track) box.appendChild(figuresTable(track.name, trackRows(track.stats)));
    if (data.tracks.length > 1) {
      const all = figuresTable('All ' + data.tracks.length + ' tracks', sumRows());
      all.id = 'sums';
      box.appendChild(all);
    }
  }

  // --- profiles -------------------------------------------------------------
  const profiles = document.getElementById('profiles');
  const choice = element('div', 'wf-axis-choice');
  const byDistance = element('button', 'wf-active', 'Against distance');
  const byTime = element('button', null, 'Against time');
  const readout = element('span', 'wf-readout', '');
  choice.appendChild(byDistance);
  choice.appendChild(byTime);
  choice.appendChild(readout);
  profiles.appendChild(choice);
  const charts = [
    { id: 'elevation-profile', title: 'Elevation', key: 'ele', area: true,
      factor: function () { return units.elevation.factor; },
      text: elevationText },
    { id: 'speed-profile', title: 'Speed', key: 'spd', area: false,
      factor: function () { return units.speed.factor; },
      text: speedText }
  ];
  charts.forEach(function (chart) {
    chart.svg = document.createElementNS(SVG, 'svg');
    chart.svg.id = chart.id;
    chart.svg.setAttribute('class', 'wf-chart');
    profiles.appendChild(chart.svg);
  });
  byDistance.addEventListener('click', function () { setAxis('distance'); });
  byTime.addEventListener('click', function () { setAxis('time'); });

  function svgElement(parent, tag, attributes, text) {
    const e = document.createElementNS(SVG, tag);
    Object.keys(attributes).forEach(function (k) { e.setAttribute(k, attributes[k]); });
    if (text !== undefined) e.textContent = text;
    parent.appendChild(e);
    return e;
  }

  // About `count` round steps between lo and hi.
  function niceTicks(lo, hi, count) {
    const span = hi - lo;
    if (!(span > 0)) return [lo];
    const raw = span / count;
    const magnitude = Math.pow(10, Math.floor(Math.log10(raw)));
    const step = [1, 2, 2.5, 5, 10].map(function (m) { return m * magnitude; })
      .find(function (s) { return s >= raw; });
    const ticks = [];
    for (let v = Math.ceil(lo / step) * step; v <= hi + step * 1e-9; v += step) {
      ticks.push(Math.abs(v) < step * 1e-9 ? 0 : v);
    }
    return ticks;
  }

  // Clock ticks fall on whole minutes or hours of the track's own zone.
  function timeTicks(lo, hi, start, zone) {
    const steps = [60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200, 86400];
    const step = steps.find(function (s) { return (hi - lo) / s <= 7; }) || 86400 * 7;
    const origin = start + zone * 60;
    const ticks = [];
    for (let t = Math.ceil((origin + lo) / step) * step - origin; t <= hi; t += step) ticks.push(t);
    return ticks;
  }

  // The values of one chart, x in axis units and y in display units.
  function series(track, chart) {
    const p = track.profile;
    const xs = state.axis === 'distance' ? p.d : p.t;
    const xFactor = state.axis === 'distance' ? units.length.factor : 1;
    const out = [];
    for (let i = 0; i < p.d.length; i++) {
      const x = xs[i];
      const y = p[chart.key][i];
      out.push({ i: i, x: finite(x) ? x * xFactor : null, y: finite(y) ? y * chart.factor() : null });
    }
    return out;
  }

  function extent(values) {
    let lo = Infinity;
    let hi = -Infinity;
    values.forEach(function (v) {
      if (v === null) return;
      if (v < lo) lo = v;
      if (v > hi) hi = v;
    });
    return lo <= hi ? [lo, hi] : null;
  }

  // The path is written in data units; the group's transform places it in
  // the plot. getBBox() of the path therefore gives the range drawn.
  function pathData(points) {
    let d = '';
    let pen = false;
    points.forEach(function (p) {
      if (p.x === null || p.y === null) { pen = false; return; }
      d += (pen ? 'L' : 'M') + (+p.x.toFixed(5)) + ' ' + (+p.y.toFixed(3));
      pen = true;
    });
    return d;
  }

  // The area under each unbroken run of the line, down to the axis.
  function areaData(points, base) {
    let d = '';
    let run = [];
    const close = function () {
      if (run.length > 1) {
        d += 'M' + run[0].x + ' ' + base;
        run.forEach(function (p) { d += 'L' + (+p.x.toFixed(5)) + ' ' + (+p.y.toFixed(3)); });
        d += 'L' + run[run.length - 1].x + ' ' + base + 'Z';
      }
      run = [];
    };
    points.forEach(function (p) {
      if (p.x === null || p.y === null) close(); else run.push(p);
    });
    close();
    return d;
  }

  function drawAxes(svg, box, xRange, yRange, track, chart) {
    const sx = function (x) { return box.left + (x - xRange[0]) / (xRange[1] - xRange[0]) * box.width; };
    const sy = function (y) { return box.top + box.height - (y - yRange[0]) / (yRange[1] - yRange[0]) * box.height; };
    niceTicks(yRange[0], yRange[1], 4).forEach(function (v) {
      svgElement(svg, 'line', { class: 'wf-grid', x1: box.left, x2: box.left + box.width, y1: sy(v), y2: sy(v) });
      svgElement(svg, 'text', { x: box.left - 6, y: sy(v) + 4, 'text-anchor': 'end' }, String(+v.toFixed(2)));
    });
    const s = track.stats;
    const xTicks = state.axis === 'distance' ? niceTicks(xRange[0], xRange[1], 7)
                                             : timeTicks(xRange[0], xRange[1], s.startSeconds, s.timezone);
    xTicks.forEach(function (v) {
      svgElement(svg, 'line', { class: 'wf-grid', x1: sx(v), x2: sx(v), y1: box.top, y2: box.top + box.height });
      const label = state.axis === 'distance' ? String(+v.toFixed(3))
                                              : clockText(s.startSeconds + v, s.timezone, false);
      svgElement(svg, 'text', { x: sx(v), y: box.top + box.height + 15, 'text-anchor': 'middle' }, label);
    });
    // The axis's unit in the top right corner, clear of the tick labels.
    const unit = state.axis === 'distance' ? units.length.name : 'time, ' + zoneText(s.timezone);
    svgElement(svg, 'text', { x: box.left + box.width, y: 15, 'text-anchor': 'end' }, unit);
    svgElement(svg, 'text', { class: 'wf-chart-title', x: box.left, y: 15 },
               chart.title + ' (' + (chart.key === 'ele' ? units.elevation.name : units.speed.name) + ')');
  }

  function drawChart(chart, track) {
    const svg = chart.svg;
    svg.textContent = '';
    const width = svg.clientWidth || 800;
    const height = svg.clientHeight || 170;
    svg.setAttribute('viewBox', '0 0 ' + width + ' ' + height);
    const points = track ? series(track, chart) : [];
    const xRange = extent(points.filter(function (p) { return p.y !== null; }).map(function (p) { return p.x; }));
    const yData = extent(points.filter(function (p) { return p.x !== null; }).map(function (p) { return p.y; }));
    chart.points = points;
    chart.box = null;
    if (!xRange || !yData || !(xRange[1] > xRange[0])) {
      svgElement(svg, 'text', { class: 'wf-no-data', x: width / 2, y: height / 2, 'text-anchor': 'middle' },
                 chart.title + ': nothing to show' + (state.axis === 'time' ? ' against time' : ''));
      return;
    }
    const pad = Math.max((yData[1] - yData[0]) * 0.08, chart.key === 'ele' ? 5 : 0.5);
    const yRange = [chart.key === 'spd' ? Math.max(0, yData[0] - pad) : yData[0] - pad, yData[1] + pad];
    // Title and unit sit in a strip above the plot.
    const box = { left: 52, top: 22, width: width - 64, height: height - 44 };
    chart.box = box;
    chart.xRange = xRange;
    chart.yRange = yRange;
    svg.dataset.min = yData[0];
    svg.dataset.max = yData[1];
    svg.dataset.samples = points.filter(function (p) { return p.x !== null && p.y !== null; }).length;
    drawAxes(svg, box, xRange, yRange, track, chart);
    const scaleX = box.width / (xRange[1] - xRange[0]);
    const scaleY = box.height / (yRange[1] - yRange[0]);
    const plot = svgElement(svg, 'g', {
      transform: 'translate(' + box.left + ' ' + (box.top + box.height) + ') scale(' + scaleX + ' ' + (-scaleY) +
                 ') translate(' + (-xRange[0]) + ' ' + (-yRange[0]) + ')'
    });
    const d = pathData(points);
    if (chart.area) {
      svgElement(plot, 'path', { class: 'wf-profile-area', d: areaData(points, yRange[0]), fill: track.color });
    }
    svgElement(plot, 'path', { class: 'wf-profile-line', d: d, stroke: track.color });
    chart.cursor = svgElement(svg, 'line', { class: 'wf-cursor', y1: box.top, y2: box.top + box.height, visibility: 'hidden' });
    chart.dot = svgElement(svg, 'circle', { class: 'wf-cursor-dot', r: 4, visibility: 'hidden' });
  }

  function drawProfiles() {
    const track = data.tracks[state.selected];
    const hasTime = !!track && track.profile.t.some(finite);
    byTime.disabled = !hasTime;
    if (!hasTime && state.axis === 'time') state.axis = 'distance';
    byDistance.classList.toggle('wf-active', state.axis === 'distance');
    byTime.classList.toggle('wf-active', state.axis === 'time');
    charts.forEach(function (chart) { drawChart(chart, track); });
  }

  // Hovering a chart shows the nearest sample in both charts and on the map.
  function hover(event) {
    const track = data.tracks[state.selected];
    const chart = charts.find(function (c) { return c.svg === event.currentTarget; });
    if (!track || !chart || !chart.box) return;
    const rect = chart.svg.getBoundingClientRect();
    const px = (event.clientX - rect.left) * (chart.svg.viewBox.baseVal.width / rect.width);
    const x = chart.xRange[0] + (px - chart.box.left) / chart.box.width * (chart.xRange[1] - chart.xRange[0]);
    let best = -1;
    chart.points.forEach(function (p) {
      if (p.x !== null && (best < 0 || Math.abs(p.x - x) < Math.abs(chart.points[best].x - x))) best = p.i;
    });
    if (best >= 0) mark(track, best);
  }

  function mark(track, i) {
    const p = track.profile;
    charts.forEach(function (chart) {
      if (!chart.box) return;
      const point = chart.points[i];
      if (!point || point.x === null) return;
      const sx = chart.box.left + (point.x - chart.xRange[0]) / (chart.xRange[1] - chart.xRange[0]) * chart.box.width;
      chart.cursor.setAttribute('x1', sx);
      chart.cursor.setAttribute('x2', sx);
      chart.cursor.setAttribute('visibility', 'visible');
      if (point.y !== null) {
        const sy = chart.box.top + chart.box.height - (point.y - chart.yRange[0]) / (chart.yRange[1] - chart.yRange[0]) * chart.box.height;
        chart.dot.setAttribute('cx', sx);
        chart.dot.setAttribute('cy', sy);
        chart.dot.setAttribute('visibility', 'visible');
      } else {
        chart.dot.setAttribute('visibility', 'hidden');
      }
    });
    const s = track.stats;
    const when = finite(p.t[i]) && finite(s.startSeconds) ? clockText(s.startSeconds + p.t[i], s.timezone, true) : DASH;
    readout.textContent = lengthText(p.d[i]) + ' \u00b7 ' + when + ' \u00b7 ' + elevationText(p.ele[i]) +
                          ' \u00b7 ' + speedText(p.spd[i]);
    hoverMarker.setLatLng([p.lat[i], p.lon[i]]);
    if (!map.hasLayer(hoverMarker)) hoverMarker.addTo(map);
  }

  function unmark() {
    charts.forEach(function (chart) {
      if (chart.cursor) chart.cursor.setAttribute('visibility', 'hidden');
      if (chart.dot) chart.dot.setAttribute('visibility', 'hidden');
    });
    readout.textContent = '';
    if (map.hasLayer(hoverMarker)) map.removeLayer(hoverMarker);
  }

  charts.forEach(function (chart) {
    chart.svg.addEventListener('mousemove', hover);
    chart.svg.addEventListener('mouseleave', unmark);
  });

  function setAxis(axis) {
    state.axis = axis;
    unmark();
    drawProfiles();
  }

  function select(index) {
    state.selected = index;
    lines.forEach(function (line, i) {
      if (line) line.setStyle({ weight: Math.max(1, 3 * data.tracks[i].width) + (i === index && lines.length > 1 ? 2 : 0) });
    });
    if (lines[index]) lines[index].bringToFront();
    unmark();
    showLegend();
    showFigures();
    drawProfiles();
  }

  // The first track with a line is shown first.
  const first = data.tracks.findIndex(function (t) { return t.profile.d.length > 1; });
  select(first >= 0 ? first : 0);
  let resizeTimer = null;
  window.addEventListener('resize', function () {
    clearTimeout(resizeTimer);
    resizeTimer = setTimeout(drawProfiles, 100);
  });
  // For the curious (and for measurements): the map and the page's data.
  window.wayfolioView = { map: map, data: data, lines: lines };
  document.body.dataset.ready = 'true';
})();
