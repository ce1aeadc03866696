// The mode viewer: reads the facts and the base64 blobs that the page carries, draws the body's
// faces with three.js and animates the selected mode as base + a sin(2 pi t / period) mode.
// Every text that comes from the file is set as textContent, never as markup.
(function () {
  "use strict";

  var PERIOD = 2.0;  // seconds per cycle on the screen, whatever the mode's frequency
  var BACKGROUND = 0xeef0f3;
  // Blue, cyan, green, yellow, red: the legend's gradient in viewer.css has the same stops.
  var STOPS = [[0.19, 0.30, 0.85], [0.20, 0.75, 0.90], [0.35, 0.80, 0.35],
               [0.95, 0.85, 0.20], [0.85, 0.20, 0.15]];

  var meta = JSON.parse(document.getElementById("krx-meta").textContent);
  var $ = function (id) { return document.getElementById(id); };

  function blob(name, Type) {
    var element = document.getElementById("krx-" + name);
    if (!element) return new Type(0);
    var text = atob(element.textContent);
    var bytes = new Uint8Array(text.length);
    for (var i = 0; i < text.length; i++) bytes[i] = text.charCodeAt(i);
    return new Type(bytes.buffer);
  }

  // Page parameters after '#', for links to one view:
  // mode=7&play=0&amplitude=5&colour=stress&outline=1
  function parameters() {
    var out = {};
    location.hash.replace(/^#/, "").split("&").forEach(function (pair) {
      var kv = pair.split("=");
      if (kv[0]) out[decodeURIComponent(kv[0])] = decodeURIComponent(kv[1] || "");
    });
    return out;
  }

  function colour(t, out, at) {
    t = Math.min(Math.max(isFinite(t) ? t : 0, 0), 1) * (STOPS.length - 1);
    var k = Math.min(Math.floor(t), STOPS.length - 2), u = t - k;
    for (var c = 0; c < 3; c++) out[at + c] = STOPS[k][c] * (1 - u) + STOPS[k + 1][c] * u;
  }

  function format(value) {
    if (value === null || value === undefined || !isFinite(value)) return "-";
    return Math.abs(value) >= 1e4 || (value !== 0 && Math.abs(value) < 1e-2)
      ? value.toExponential(3) : value.toPrecision(4);
  }

  // ---- header, facts and mode list ----------------------------------------------------------

  function showHeader() {
    var h = meta.header;
    $("title").textContent = h.title || "(no title)";
    document.title = (h.title || "KRX modes") + " - modes";
    var facts = [["nodes", meta.node_count.toLocaleString("en")],
                 ["modes", String(meta.mode_count)],
                 ["faces", meta.face_count.toLocaleString("en")]];
    if (meta.units) facts.push(["units", meta.units.filter(Boolean).join(", ")]);
    if (h.input) facts.push(["input", h.input + (h.type ? " (" + h.type + ")" : "")]);
    if (h.date) facts.push(["date", h.date]);
    h.comments.forEach(function (c) { facts.push(["comment", c]); });
    facts.forEach(function (f) {
      var dt = document.createElement("dt"), dd = document.createElement("dd");
      dt.textContent = f[0];
      dd.textContent = f[1];
      $("facts").append(dt, dd);
    });
    if (!meta.triangles && !meta.lines) {
      $("note").hidden = false;
      $("note").textContent = "The file holds no faces: its nodes are shown.";
    }
    var width = Math.max.apply(null, meta.modes.map(function (m) {
      return String(m.number).length;
    }));
    meta.modes.forEach(function (m, k) {
      var option = document.createElement("option");
      option.value = String(k);
      // No-break spaces: a list box collapses ordinary ones, and the columns should line up.
      option.textContent = (String(m.number).padStart(width) + "  " +
        (m.hertz === null ? "" : format(m.hertz).padStart(10) + " Hz")).replace(/ /g, "\u00a0");
      $("modes").append(option);
    });
    if (!meta.stress) $("colour-stress").parentNode.remove();
    if (!meta.interface.length) $("markers").parentNode.remove();
  }

  // ---- the scene ----------------------------------------------------------------------------

  var base = blob("coords", Float32Array);
  var count = base.length / 3;
  var moved = new Float32Array(base);
  var colours = new Float32Array(base.length);
  var shape = null, shapeColours = null, stressColours = null;

  var view = $("view");
  var renderer = new THREE.WebGLRenderer({antialias: true, preserveDrawingBuffer: true});
  renderer.setPixelRatio(window.devicePixelRatio || 1);
  renderer.setClearColor(BACKGROUND);
  view.prepend(renderer.domElement);

  var scene = new THREE.Scene();
  scene.add(new THREE.AmbientLight(0xffffff, 0.45));
  var camera = new THREE.PerspectiveCamera(30, 1, 1, 10);
  var headlight = new THREE.DirectionalLight(0xffffff, 0.65);
  camera.add(headlight);
  scene.add(camera);

  var positionAttribute = new THREE.BufferAttribute(moved, 3);
  positionAttribute.setUsage(THREE.DynamicDrawUsage);
  var colourAttribute = new THREE.BufferAttribute(colours, 3);
  // Every drawing of the body shares the one position and colour buffer.
  function bodyGeometry(index) {
    var g = new THREE.BufferGeometry();
    g.setAttribute("position", positionAttribute);
    g.setAttribute("color", colourAttribute);
    if (index) g.setIndex(new THREE.BufferAttribute(index, 1));
    return g;
  }

  function addDrawing(object) {
    object.frustumCulled = false;  // the body moves out of its undeformed bounds
    scene.add(object);
    return object;
  }

  var triangles = blob("triangles", Uint32Array), lines = blob("lines", Uint32Array);
  if (triangles.length) {
    addDrawing(new THREE.Mesh(bodyGeometry(triangles), new THREE.MeshPhongMaterial({
      vertexColors: THREE.VertexColors, flatShading: true, side: THREE.DoubleSide,
      shininess: 12, specular: 0x222222,
      polygonOffset: true, polygonOffsetFactor: 1, polygonOffsetUnits: 1})));
  }
  if (lines.length) {
    addDrawing(new THREE.LineSegments(bodyGeometry(lines),
      new THREE.LineBasicMaterial({vertexColors: THREE.VertexColors})));
  }
  if (!triangles.length) {
    addDrawing(new THREE.Points(bodyGeometry(null), new THREE.PointsMaterial({
      vertexColors: THREE.VertexColors, size: 5, sizeAttenuation: false})));
  }

  // The undeformed outline: the feature edges of the faces, else the lines, else the nodes.
  var outline = (function () {
    var still = new THREE.BufferGeometry();
    still.setAttribute("position", new THREE.BufferAttribute(base, 3));
    var material = {color: 0x606770, transparent: true, opacity: 0.55};
    var edges = blob("outline", Uint32Array);
    var object;
    if (edges.length || lines.length) {
      still.setIndex(new THREE.BufferAttribute(edges.length ? edges : lines, 1));
      object = new THREE.LineSegments(still, new THREE.LineBasicMaterial(material));
    } else {
      material.size = 3;
      material.sizeAttenuation = false;
      object = new THREE.Points(still, new THREE.PointsMaterial(material));
    }
    object.visible = false;
    return addDrawing(object);
  })();

  // Interface nodes: a dark dot each, moving with the body, and its node number beside it.
  var markers = null, labels = [];
  if (meta.interface.length) {
    var markerGeometry = new THREE.BufferGeometry();
    var markerPositions = new Float32Array(3 * meta.interface.length);
    markerGeometry.setAttribute("position", new THREE.BufferAttribute(markerPositions, 3));
    markers = addDrawing(new THREE.Points(markerGeometry, new THREE.PointsMaterial({
      color: 0x111111, size: 9, sizeAttenuation: false, depthTest: false})));
    markers.renderOrder = 2;
    meta.interface.forEach(function (node) {
      var label = document.createElement("span");
      label.className = "label";
      label.textContent = "node " + node.id;
      $("labels").append(label);
      labels.push(label);
    });
  }

  // ---- view ---------------------------------------------------------------------------------

  // z up, the usual axis of a finite-element model; the controls take their orbit's axis from
  // the camera's up when they are made.
  camera.up.set(0, 0, 1);
  var controls = new THREE.OrbitControls(camera, renderer.domElement);
  controls.enableDamping = false;
  controls.screenSpacePanning = true;
  var radius = Math.max(meta.size / 2, 1e-9);

  function fitView() {
    // From the front, right and above.
    var distance = radius / Math.sin(THREE.Math.degToRad(camera.fov / 2)) * 1.3;
    camera.position.set(0.55, -1.0, 0.6).normalize().multiplyScalar(distance);
    camera.near = distance / 100;
    camera.far = distance * 10;
    controls.maxDistance = distance * 5;
    controls.target.set(0, 0, 0);
    camera.updateProjectionMatrix();
    controls.update();
  }

  function resize() {
    var w = view.clientWidth, h = view.clientHeight;
    renderer.setSize(w, h);
    camera.aspect = w / Math.max(h, 1);
    camera.updateProjectionMatrix();
    dirty = true;
  }

  // ---- state: mode, amplitude, colouring, play ---------------------------------------------

  var params = parameters();
  var state = {mode: 0, amplitude: 100 * meta.start_amplitude, stress: false,
               playing: params.play !== "0", phase: Math.PI / 2, clock: null};
  var dirty = true;

  function colourAll(values, largest) {
    var out = new Float32Array(3 * count);
    var scale = largest > 0 ? 1 / largest : 0;
    for (var i = 0; i < count; i++) colour(values[i] * scale, out, 3 * i);
    return out;
  }

  function selectMode(k) {
    var m = meta.modes[k];
    state.mode = k;
    shape = blob("mode" + k, Float32Array);
    var magnitude = new Float32Array(count);
    for (var i = 0; i < count; i++) {
      var x = shape[3 * i], y = shape[3 * i + 1], z = shape[3 * i + 2];
      magnitude[i] = Math.sqrt(x * x + y * y + z * z);
    }
    shapeColours = colourAll(magnitude, m.largest);
    stressColours = meta.stress
      ? colourAll(blob("stress" + k, Float32Array), m.largest_stress) : null;
    $("modes").value = String(k);
    applyColouring();
  }

  function applyColouring() {
    var m = meta.modes[state.mode];
    var stress = state.stress && stressColours;
    colours.set(stress ? stressColours : shapeColours);
    colourAttribute.needsUpdate = true;
    var units = meta.units || [];
    if (stress) {
      $("legend-title").textContent = "von Mises stress" +
        (units[1] && units[3] ? " (" + units[3] + "/" + units[1] + "\u00b2)" : "");
      $("legend-high").textContent = format(m.largest_stress);
    } else {
      $("legend-title").textContent = "displacement magnitude" +
        (units[1] ? " (" + units[1] + ")" : "");
      $("legend-high").textContent = format(m.largest);
    }
    $("legend-low").textContent = "0";
    dirty = true;
  }

  function updateAmplitude() {
    $("amplitude-value").textContent = state.amplitude.toFixed(1) + " % of the body's size";
    dirty = true;
  }

  function deform() {
    var m = meta.modes[state.mode];
    var scale = m.largest > 0 ? state.amplitude / 100 * meta.size / m.largest : 0;
    var a = scale * Math.sin(state.phase);
    for (var i = 0; i < moved.length; i++) moved[i] = base[i] + a * shape[i];
    positionAttribute.needsUpdate = true;
    if (markers) {
      var p = markers.geometry.attributes.position;
      meta.interface.forEach(function (node, j) {
        for (var c = 0; c < 3; c++) p.array[3 * j + c] = moved[3 * node.index + c];
      });
      p.needsUpdate = true;
    }
  }

  var projected = new THREE.Vector3();
  function placeLabels() {
    var shown = markers && markers.visible;
    var w = view.clientWidth, h = view.clientHeight;
    labels.forEach(function (label, j) {
      label.hidden = !shown;
      if (!shown) return;
      var p = markers.geometry.attributes.position.array;
      projected.set(p[3 * j], p[3 * j + 1], p[3 * j + 2]).project(camera);
      label.style.transform = "translate(" + ((projected.x + 1) / 2 * w + 8).toFixed(1) + "px," +
        ((1 - projected.y) / 2 * h - 8).toFixed(1) + "px)";
    });
  }

  function frame(time) {
    if (state.playing) {
      if (state.clock === null) state.clock = time - state.phase / (2 * Math.PI) * PERIOD * 1000;
      state.phase = (time - state.clock) / 1000 / PERIOD * 2 * Math.PI;
      dirty = true;
    }
    if (dirty) draw();
    requestAnimationFrame(frame);
  }

  function draw() {
    deform();
    renderer.render(scene, camera);
    placeLabels();
    dirty = false;
  }

  function setPlaying(playing) {
    state.playing = playing;
    state.clock = null;
    $("play").textContent = playing ? "Pause" : "Play";
  }

  // ---- wiring -------------------------------------------------------------------------------

  showHeader();
  $("modes").addEventListener("change", function () { selectMode(Number(this.value)); });
  $("play").addEventListener("click", function () { setPlaying(!state.playing); });
  $("reset").addEventListener("click", function () { fitView(); dirty = true; });
  $("amplitude").addEventListener("input", function () {
    state.amplitude = Number(this.value);
    updateAmplitude();
  });
  document.querySelectorAll("input[name=colour]").forEach(function (input) {
    input.addEventListener("change", function () {
      state.stress = this.value === "stress";
      applyColouring();
    });
  });
  $("outline").addEventListener("change", function () {
    outline.visible = this.checked;
    dirty = true;
  });
  if (markers) {
    $("markers").addEventListener("change", function () {
      markers.visible = this.checked;
      dirty = true;
    });
  }
  controls.addEventListener("change", function () { dirty = true; });
  window.addEventListener("resize", resize);

  // The first mode shown is the one the link names, else the first that is not a rigid-body
  // mode: its frequency stands out from the near-zero ones.
  var top = Math.max.apply(null, meta.modes.map(function (m) { return Math.abs(m.hertz || 0); }));
  var first = Math.max(0, meta.modes.findIndex(function (m) {
    return Math.abs(m.hertz || 0) > 1e-3 * top;
  }));
  meta.modes.forEach(function (m, k) { if (String(m.number) === params.mode) first = k; });
  if (params.amplitude && isFinite(Number(params.amplitude))) {
    state.amplitude = Number(params.amplitude);
  }
  if (params.colour === "stress" && meta.stress) {
    state.stress = true;
    $("colour-stress").checked = true;
  }
  if (params.outline === "1") { outline.visible = true; $("outline").checked = true; }
  $("amplitude").value = String(state.amplitude);
  setPlaying(state.playing);
  updateAmplitude();
  resize();
  fitView();
  if (meta.modes.length) selectMode(first); else shape = new Float32Array(base.length);
  draw();

  var status = $("status");
  if (!window.krxProblems.length) {
    status.dataset.state = "ready";
    status.dataset.modes = String(meta.mode_count);
    status.dataset.triangles = String(meta.triangles);
    status.dataset.ms = performance.now().toFixed(0);
    status.dataset.at = String(Date.now());
    status.textContent = "ready: " + meta.mode_count + " modes, " +
      meta.shown_nodes.toLocaleString("en") + " nodes shown, " +
      meta.triangles.toLocaleString("en") + " triangles";
  }
  requestAnimationFrame(frame);
})();
